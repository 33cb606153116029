#include "utils/dump/ChildWait.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace android {
namespace {

int64_t MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

class ScopedFd {
public:
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd() {
        if (fd_ >= 0) close(fd_);
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Kernels without pidfds: look at the one child every few milliseconds. Still
// per child, only coarser.
ChildWait::Result PollWithWaitpid(pid_t pid, int64_t deadline, int* status, int* savedErrno) {
    for (;;) {
        pid_t got = waitpid(pid, status, WNOHANG);
        if (got == pid) return ChildWait::kReaped;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            *savedErrno = errno;
            return ChildWait::kReapFailed;
        }
        const int64_t left = deadline - MonotonicMs();
        if (left <= 0) return ChildWait::kTimedOut;
        struct timespec pause = {0, (left < 5 ? left : 5) * 1000000L};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

ChildWait::Result ChildWait::Wait(pid_t pid, int timeoutSeconds, int* status, int* savedErrno) {
    int localStatus = 0;
    int localErrno = 0;
    if (status == nullptr) status = &localStatus;
    if (savedErrno == nullptr) savedErrno = &localErrno;
    const int64_t deadline =
        MonotonicMs() + (timeoutSeconds > 0 ? static_cast<int64_t>(timeoutSeconds) * 1000 : 0);

    ScopedFd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (pidfd.get() < 0) {
        if (errno == ENOSYS) return PollWithWaitpid(pid, deadline, status, savedErrno);
        // ESRCH and the like: there is no such child left to watch; waitpid
        // below tells why.
    } else {
        for (;;) {
            int64_t left = deadline - MonotonicMs();
            if (left < 0) left = 0;
            struct pollfd pfd = {pidfd.get(), POLLIN, 0};
            const int n = poll(&pfd, 1, left > INT32_MAX ? INT32_MAX : static_cast<int>(left));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                *savedErrno = errno;
                return kWaitFailed;
            }
            if (n == 0) {
                if (left > 0) continue;  // woke before the deadline: look again
                return kTimedOut;
            }
            break;
        }
    }
    for (;;) {
        const pid_t got = waitpid(pid, status, WNOHANG);
        if (got == pid) return kReaped;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            *savedErrno = errno;
            return kReapFailed;
        }
        return kNotReaped;
    }
}

double ChildWait::SecondsSince(const struct timespec& start) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long ns = (static_cast<long long>(now.tv_sec) - start.tv_sec) * 1000000000LL +
                         (now.tv_nsec - start.tv_nsec);
    return static_cast<float>(ns) / 1e9;
}

}  // namespace android
