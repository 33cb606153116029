#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/support/WaitFor.h"

namespace tarnis_test {

// A child process that a test steps through with single bytes each way, every
// step bounded: a child that hangs or dies fails the test within the deadline
// instead of holding it, and one still running at the end is killed. The
// child keeps only the standard descriptors and its end of the channel: a
// copy of a server socket inherited from the test process would keep that
// connection open after the server closed it.
class PlatChild {
public:
    static constexpr uid_t kSameUid = static_cast<uid_t>(-1);
    static constexpr int kDeadlineMs = 30000;

    // The child drops to `uid` unless kSameUid, runs body(*this) and exits with its result.
    template <typename Body>
    PlatChild(uid_t uid, Body body) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            const int moved = fcntl(pair[1], F_DUPFD_CLOEXEC, 4);  // so that dup2 cannot land on itself
            if (moved < 0 || dup2(moved, 3) != 3) _exit(97);
            syscall(SYS_close_range, 4U, ~0U, 0U);
            fd_ = 3;
            if (uid != kSameUid && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(99);
            _exit(body(*this));
        }
        close(pair[1]);
        fd_ = pair[0];
    }
    ~PlatChild() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(fd_);
    }

    pid_t pid() const { return pid_; }
    int fd() const { return fd_; }
    bool Say(char c) { return Tell(std::string(1, c)); }
    bool Tell(const std::string& text) {
        return send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // The next byte from the other side; 0 when it went away or said nothing in time.
    char Hear(int timeoutMs = kDeadlineMs) {
        pollfd pfd{fd_, POLLIN, 0};
        char c = 0;
        return poll(&pfd, 1, timeoutMs) == 1 && recv(fd_, &c, 1, 0) == 1 ? c : 0;
    }
    // What the other side says until it closes its end (text: no 0 bytes).
    std::string HearAll() {
        std::string heard;
        for (char c; (c = Hear()) != 0;) heard += c;
        return heard;
    }
    // The child's exit status; -1 when it did not exit normally in time (it is killed then).
    int Exit(int timeoutMs = kDeadlineMs) {
        int status = 0;
        const bool ended = WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                                   std::chrono::milliseconds(timeoutMs));
        if (!ended) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        reaped_ = true;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    bool reaped_ = false;
};

}  // namespace tarnis_test
