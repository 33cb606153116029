#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <android-base/unique_fd.h>

#include "utils/StopSignal.h"

namespace velmar {
namespace tarnis {

// Mirrors the platform's tombstones into the daemon's log tree: a tombstone
// created or modified in the input directory is copied to the output
// directory, one deleted there is deleted from the mirror.
//
// The input directory is written by crashing processes' helpers and the
// output directory lies in a tree other tools write too, so neither is
// trusted: both are resolved below /data once, without ".." climbing out and
// without a link on the way, and everything after works from their
// descriptors; a tombstone is read only when it is a regular file reached
// without following a link, its mirror keeps its holes and stops at
// kMaxMirrorBytes, and a mirror copy is written under a temporary name and
// renamed into place, which replaces whatever entry (a planted link
// included) held its name instead of writing through it.
class TombstoneMonitorThread {
public:
    static constexpr int kOutDirChecks = 62;
    static constexpr int64_t kOutDirCheckMs = 1000;
    static constexpr int64_t kSettleMs = 5000;
    // A tombstone is a few hundred kilobytes; one far larger is a runaway
    // writer or a sparse file, and copying it whole (twice: create, then
    // modify) would hold the mirror for seconds and fill /data. Its head,
    // where the backtrace is, is kept.
    static constexpr off_t kMaxMirrorBytes = off_t{64} << 20;

    TombstoneMonitorThread();
    TombstoneMonitorThread(const TombstoneMonitorThread&) = delete;
    TombstoneMonitorThread& operator=(const TombstoneMonitorThread&) = delete;

    // Waits for the output directory, then mirrors events until the watch
    // fails or a stop is requested.
    void threadLoop();
    // Ends threadLoop and its waits, from any thread.
    void RequestStop();
    bool StopRequested() const { return stop_.Requested(); }
    // True while events of the input directory are being read.
    bool watching() const { return watching_.load(); }
    int copies() const { return copies_.load(); }

    // Copies the regular file `name` of the input directory to the output
    // directory; `src` and `dst` are the paths the log lines show.
    bool copy(const std::string& src, const std::string& dst);

private:
    // The directory a property names when it resolves below /data, else
    // (with one line saying why) the default.
    static std::string ChooseDir(const char* property, const char* fallback);
    android::base::unique_fd WaitOutputDir(const std::string& dir);
    void ReadEvents(int inotifyFd, const std::string& inDir, const std::string& outDir);
    void HandleEvent(uint32_t mask, const std::string& name, const std::string& inDir, const std::string& outDir);

    // Held while threadLoop runs; copy() and deletions work relative to them.
    android::base::unique_fd inDirFd_;
    android::base::unique_fd outDirFd_;

    kolto::StopSignal stop_;
    std::atomic<bool> watching_{false};
    std::atomic<int> copies_{0};
};

}  // namespace tarnis
}  // namespace velmar
