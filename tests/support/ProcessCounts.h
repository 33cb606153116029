#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace tarnis_test {

// Open descriptors and threads of a process, to show that a hostile client
// left nothing behind in the server.
struct ProcessCounts {
    size_t fds = 0;
    size_t threads = 0;
    std::string ToString() const;

    // This process when `pid` is 0.
    static ProcessCounts Of(pid_t pid = 0);
    // Polls for up to `timeoutMs` until this process holds no more than
    // `expected`: the server closes a departed client's connection on its own thread.
    static bool Await(const ProcessCounts& expected, int timeoutMs = 3000);
};

// CPU time (user + system) that a process has used, in clock ticks.
long CpuTicks(pid_t pid);

}  // namespace tarnis_test
