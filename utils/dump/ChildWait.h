#pragma once

#include <time.h>

#include <sys/types.h>

namespace android {

// Waits for one particular child of this process. Each wait watches its own
// child through a pidfd, so children ending on other threads neither wake it
// early nor make it give up on a child that is still within its time.
class ChildWait {
public:
    enum Result {
        kReaped,      // the child ended and was reaped; its status is stored
        kTimedOut,    // still running when the time ran out
        kWaitFailed,  // the wait itself failed (errno saved)
        kReapFailed,  // waitpid failed (errno saved), e.g. someone else reaped it
        kNotReaped,   // waitpid found the child still running
    };

    // Waits up to `timeoutSeconds` (0 or less: only looks) for `pid` to end
    // and reaps it. `status` and `savedErrno` may be null.
    static Result Wait(pid_t pid, int timeoutSeconds, int* status, int* savedErrno);
    // Monotonic seconds since `start`, through a single-precision float as
    // the runners print them.
    static double SecondsSince(const struct timespec& start);
};

}  // namespace android
