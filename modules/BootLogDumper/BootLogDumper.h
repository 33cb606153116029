#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velmar {
namespace tarnis {

// Gathers the logs of the boot that just completed (kernel ring buffer, main
// log, boot loader log, boot profile) into one compressed archive beside the
// crash databases, keeping the newest ten archives.
class BootLogDumper {
public:
    // Old archives kept before the new one is made: the new one makes ten.
    static constexpr size_t kKeptOldArchives = 9;

    // Waits for boot completion (until Stop()), then makes the archive.
    void dump_boot_logs();
    // Ends a wait for boot completion; dump_boot_logs then does nothing.
    void Stop() { stop_.store(true); }

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

    std::atomic<bool> stop_{false};
};

}  // namespace tarnis
}  // namespace velmar
