#pragma once

#include <sys/types.h>
#include <time.h>

#include <android-base/unique_fd.h>

namespace android {

// One child of this process, from fork to reaping. The parent opens a pidfd
// for the child as soon as fork returns, while the child cannot yet have been
// reaped; every later wait, reap and signal goes through that pidfd. So a
// signal never reaches a process that merely inherited the number, and
// children ending on other threads neither wake a wait early nor make it give
// up on a child that is still within its time.
class ChildWait {
public:
    enum Result {
        kReaped,      // the child ended and was reaped; its status is stored
        kTimedOut,    // still running when the time ran out
        kWaitFailed,  // the wait itself failed (errno saved)
        kReapFailed,  // reaping failed (errno saved), e.g. someone else reaped it
        kNotReaped,   // the child was found still running
    };

    explicit ChildWait(pid_t pid);
    ChildWait(const ChildWait&) = delete;
    ChildWait& operator=(const ChildWait&) = delete;

    pid_t pid() const { return pid_; }

    // Waits up to `timeoutSeconds` (0: only looks) for the child to end and
    // reaps it. A negative time is kWaitFailed with EINVAL. `status` (a wait
    // status) and `savedErrno` may be null.
    Result Wait(int timeoutSeconds, int* status, int* savedErrno);
    // Wait, reported as the runners' waitpid_with_timeout report it: true
    // when reaped; false with errno ETIMEDOUT when the time ran out; any
    // other failure logged at error priority under `tag`, its text after
    // `prefix`, and errno set.
    bool WaitAndLog(int timeoutSeconds, int* status, const char* tag, const char* prefix);
    // Sends `sig` to the child: 0, or -1 with errno (ESRCH once it is gone).
    int Signal(int sig);
    // Ends a child that outlived its time: SIGTERM, up to the grace period
    // for it to end, then SIGKILL and up to the grace period again. True once
    // reaped. The waits report as WaitAndLog does.
    bool Stop(const char* tag, const char* prefix);

    // The grace period of Stop: 5 seconds. Tests shorten it.
    static int GraceSeconds();
    static void SetGraceForTesting(int seconds);

    // Monotonic seconds since `start`, through a single-precision float as
    // the runners print them.
    static double SecondsSince(const struct timespec& start);

private:
    pid_t pid_;
    base::unique_fd pidfd_;  // not ok(): a kernel without pidfds
    bool reaped_ = false;
};

}  // namespace android
