#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "utils/StopSignal.h"

namespace velmar {
namespace tarnis {

// Gathers the logs of the boot that just completed (kernel ring buffer, main
// log, boot loader log, boot profile) into one compressed archive beside the
// crash databases, keeping the newest ten archives.
class BootLogDumper {
public:
    // Old archives kept before the new one is made: the new one makes ten.
    static constexpr size_t kKeptOldArchives = 9;

    // Stopped through Stop() alone: a signal of its own.
    BootLogDumper();
    // Stopped by whoever owns `stop` (the module's worker), or by Stop().
    explicit BootLogDumper(kolto::StopSignal& stop);
    BootLogDumper(const BootLogDumper&) = delete;
    BootLogDumper& operator=(const BootLogDumper&) = delete;

    // Waits for boot completion (until stopped), then makes the archive. A
    // stop ends the pass between its steps, and a tool still running is
    // killed: what was staged stays for the next pass to replace.
    void dump_boot_logs();
    // Ends a wait for boot completion; dump_boot_logs then does nothing.
    void Stop() { stop_.Request(); }
    // What the pass gathered and made so far, a line each, for the module's
    // dump; any thread.
    std::string Progress() const;

    // Copies `src` from `srcOffset` into `dst` at `dstOffset` (paths as
    // given); negative on failure.
    static int copy_file(const char* src, unsigned long srcOffset, const char* dst, unsigned long dstOffset);
    // Deletes unrecognised "boot_log" names in `dir` and every archive but the
    // newest kKeptOldArchives.
    static void PruneArchives(const std::string& dir);
    // The archive name's time fields: "%04d_%02d%02d_%02d%02d%02d" of local time.
    static std::string FormatArchiveTime(int64_t wallMs);

private:
    bool WaitBootCompleted();
    void MakeArchive();
    void Gathered(const char* what);

    std::unique_ptr<kolto::StopSignal> ownStop_;
    kolto::StopSignal& stop_;
    mutable std::mutex progressLock_;
    std::string gathered_;
    std::string archive_;
};

}  // namespace tarnis
}  // namespace velmar
