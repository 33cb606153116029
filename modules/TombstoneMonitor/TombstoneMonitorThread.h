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
// trusted: a tombstone is read only when it is a regular file reached
// without following a link, and a mirror copy is written under a temporary
// name and renamed into place, which replaces whatever entry (a planted link
// included) held its name instead of writing through it.
class TombstoneMonitorThread {
public:
    static constexpr int kOutDirChecks = 62;
    static constexpr int64_t kOutDirCheckMs = 1000;
    static constexpr int64_t kSettleMs = 5000;

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

    // Copies the regular file `src` to `dst` (both file-system paths).
    bool copy(const std::string& src, const std::string& dst);

private:
    bool WaitOutputDir(const std::string& dir);
    void ReadEvents(int inotifyFd, const std::string& inDir, const std::string& outDir);
    void HandleEvent(uint32_t mask, const std::string& name, const std::string& inDir, const std::string& outDir);

    kolto::StopSignal stop_;
    std::atomic<bool> watching_{false};
    std::atomic<int> copies_{0};
};

}  // namespace tarnis
}  // namespace velmar
