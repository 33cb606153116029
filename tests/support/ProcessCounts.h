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
    bool NoMoreThan(const ProcessCounts& other) const { return fds <= other.fds && threads <= other.threads; }
    std::string ToString() const;

    // This process when `pid` is 0.
    static ProcessCounts Of(pid_t pid = 0);
    // Polls for up to `timeoutMs` until this process holds no more than
    // `expected` (the server closes a departed client's connection on its own
    // thread; one that was still closing when `expected` was taken may be
    // gone by now).
    static bool Await(const ProcessCounts& expected, int timeoutMs = 3000);
};

// CPU time (user + system) that a process has used, in clock ticks.
long CpuTicks(pid_t pid);

// Runs `body` in a child process with the given uid and gid and returns its
// exit status (or -1 when it did not exit normally). The child never returns
// into the test runner.
template <typename Body>
int RunAsUid(uid_t uid, Body body);

}  // namespace tarnis_test

#include <sys/wait.h>
#include <unistd.h>

namespace tarnis_test {

template <typename Body>
int RunAsUid(uid_t uid, Body body) {
    pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        if (setgid(uid) != 0 || setuid(uid) != 0) _exit(99);
        _exit(body());
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarnis_test
