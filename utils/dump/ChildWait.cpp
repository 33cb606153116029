#include "utils/dump/ChildWait.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <log/log.h>

namespace android {
namespace {

std::atomic<int> gGraceSeconds{5};

int64_t MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The wait status waitpid would have given for what waitid reports.
int WaitStatusOf(const siginfo_t& info) {
    switch (info.si_code) {
        case CLD_EXITED:
            return (info.si_status & 0xff) << 8;
        case CLD_KILLED:
            return info.si_status & 0x7f;
        case CLD_DUMPED:
            return (info.si_status & 0x7f) | 0x80;
        default:
            return 0;
    }
}

}  // namespace

ChildWait::ChildWait(pid_t pid) : pid_(pid), pidfd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}

ChildWait::Result ChildWait::Wait(int timeoutSeconds, int* status, int* savedErrno) {
    int localStatus = 0;
    int localErrno = 0;
    if (status == nullptr) status = &localStatus;
    if (savedErrno == nullptr) savedErrno = &localErrno;
    // A negative time cannot be waited for: it fails as the timed wait of
    // the runners always failed on it, not as a time-out that came at once.
    if (timeoutSeconds < 0) {
        *savedErrno = EINVAL;
        return kWaitFailed;
    }
    const int64_t deadline =
        MonotonicMs() + static_cast<int64_t>(timeoutSeconds) * 1000;

    if (!pidfd_.ok()) {
        // No pidfd (an old kernel, or no descriptor left): look at the one
        // child every few milliseconds. Still per child, only coarser.
        for (;;) {
            const pid_t got = TEMP_FAILURE_RETRY(waitpid(pid_, status, WNOHANG));
            if (got == pid_) {
                reaped_ = true;
                return kReaped;
            }
            if (got < 0) {
                *savedErrno = errno;
                return kReapFailed;
            }
            const int64_t left = deadline - MonotonicMs();
            if (left <= 0) return kTimedOut;
            struct timespec pause = {0, (left < 5 ? left : 5) * 1000000L};
            nanosleep(&pause, nullptr);
        }
    }

    for (;;) {
        int64_t left = deadline - MonotonicMs();
        if (left < 0) left = 0;
        struct pollfd pfd = {pidfd_.get(), POLLIN, 0};
        const int n = poll(&pfd, 1, left > INT32_MAX ? INT32_MAX : static_cast<int>(left));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *savedErrno = errno;
            return kWaitFailed;
        }
        if (n > 0) break;
        if (left > 0) continue;  // woke before the deadline: look again
        return kTimedOut;
    }
    siginfo_t info;
    memset(&info, 0, sizeof(info));
    if (TEMP_FAILURE_RETRY(waitid(P_PIDFD, static_cast<id_t>(pidfd_.get()), &info, WEXITED | WNOHANG)) != 0) {
        *savedErrno = errno;
        return kReapFailed;
    }
    if (info.si_pid == 0) return kNotReaped;
    *status = WaitStatusOf(info);
    reaped_ = true;
    return kReaped;
}

bool ChildWait::WaitAndLog(int timeoutSeconds, int* status, const char* tag, const char* prefix) {
    int err = 0;
    switch (Wait(timeoutSeconds, status, &err)) {
        case kReaped:
            return true;
        case kTimedOut:
            errno = ETIMEDOUT;
            return false;
        case kWaitFailed:
            // The wait is per child now, but its failure keeps the line that
            // log readers know.
            __android_log_print(ANDROID_LOG_ERROR, tag, "%s*** sigtimedwait failed: %s\n", prefix, strerror(err));
            break;
        case kReapFailed:
            __android_log_print(ANDROID_LOG_ERROR, tag, "%s*** waitpid failed: %s\n", prefix, strerror(err));
            break;
        case kNotReaped:
            __android_log_print(ANDROID_LOG_ERROR, tag, "%s*** Waiting for pid %d, got pid %d instead\n", prefix,
                                pid_, 0);
            err = ECHILD;
            break;
    }
    errno = err;
    return false;
}

int ChildWait::Signal(int sig) {
    if (pidfd_.ok()) return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd_.get(), sig, nullptr, 0));
    // Without a pidfd the number is still ours for as long as we have not
    // reaped it ourselves.
    if (reaped_) {
        errno = ESRCH;
        return -1;
    }
    return kill(pid_, sig);
}

bool ChildWait::Stop(const char* tag, const char* prefix) {
    const int grace = GraceSeconds();
    Signal(SIGTERM);
    if (WaitAndLog(grace, nullptr, tag, prefix)) return true;
    Signal(SIGKILL);
    return WaitAndLog(grace, nullptr, tag, prefix);
}

int ChildWait::GraceSeconds() { return gGraceSeconds.load(); }

void ChildWait::SetGraceForTesting(int seconds) { gGraceSeconds.store(seconds); }

double ChildWait::SecondsSince(const struct timespec& start) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long ns = (static_cast<long long>(now.tv_sec) - start.tv_sec) * 1000000000LL +
                         (now.tv_nsec - start.tv_nsec);
    return static_cast<float>(ns) / 1e9;
}

}  // namespace android
