#pragma once

#include <sys/types.h>

#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>

#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

namespace tarnis_test {

// Open descriptors and threads of this process, to show that a hostile client
// left nothing behind in the server.
struct ProcessCounts {
    size_t fds = 0;
    size_t threads = 0;
    std::string ToString() const {
        return std::to_string(fds) + " descriptors, " + std::to_string(threads) + " threads";
    }

    static size_t Entries(const std::string& dir) {
        std::error_code error;
        std::filesystem::directory_iterator entries(dir, error);
        return error ? 0 : std::distance(entries, std::filesystem::directory_iterator());
    }
    // Counting holds one descriptor of its own.
    static ProcessCounts Of() { return {Entries("/proc/self/fd") - 1, Entries("/proc/self/task")}; }
    // Polls for up to `timeoutMs` until this process holds no more than `expected`: the server closes a
    // departed client's connection on its own thread.
    static bool Await(const ProcessCounts& expected, int timeoutMs = 3000) {
        const auto within = [&] {
            const ProcessCounts now = Of();
            return now.fds <= expected.fds && now.threads <= expected.threads;
        };
        return WaitFor(within, std::chrono::milliseconds(timeoutMs));
    }
};

// CPU time (user + system) that a process has used, in clock ticks.
inline long CpuTicks(pid_t pid) {
    // The command name may hold spaces: fields are counted after its ")".
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    if (stat.rfind(')') == std::string::npos) return -1;
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int field = 3; field < 14; ++field) fields >> skipped;
    long utime = 0, stime = 0;
    fields >> utime >> stime;
    return utime + stime;
}

}  // namespace tarnis_test
