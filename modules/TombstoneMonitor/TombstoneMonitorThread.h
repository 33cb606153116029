#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
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

    // Its waits end on `stop`, the module worker's signal.
    explicit TombstoneMonitorThread(kolto::StopSignal& stop);
    // Ends the watch: no event is handled once this returns.
    ~TombstoneMonitorThread();
    TombstoneMonitorThread(const TombstoneMonitorThread&) = delete;
    TombstoneMonitorThread& operator=(const TombstoneMonitorThread&) = delete;

    // Waits for the output directory, then watches the input directory; the
    // events are handled on the listener's thread, in the kernel's order,
    // until this object goes. False when it gave up or was stopped first.
    bool threadLoop();
    // True while events of the input directory are being handled.
    bool watching() const { return watching_.load(); }
    int copies() const { return copies_.load(); }

    // Copies the regular file `name` of the input directory to the output
    // directory; `src` and `dst` are the paths the log lines show.
    bool copy(const std::string& src, const std::string& dst);

private:
    // The directory a property names when it resolves below /data, else
    // (with one line saying why) the default.
    static std::string ChooseDir(const char* property, const char* fallback);
    class Listener;

    android::base::unique_fd WaitOutputDir(const std::string& dir);
    void HandleEvent(uint32_t mask, const std::string& name);

    // Held while the watch runs; copy() and deletions work relative to them.
    android::base::unique_fd inDirFd_;
    android::base::unique_fd outDirFd_;
    std::string inDir_;
    std::string outDir_;
    std::unique_ptr<Listener> listener_;

    kolto::StopSignal& stop_;
    std::atomic<bool> watching_{false};
    std::atomic<int> copies_{0};
};

}  // namespace tarnis
}  // namespace velmar
