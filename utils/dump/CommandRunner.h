#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace android {

// The full command runner: runs one tool as a child whose standard output
// and standard error go to a capture file, under a time-out, and appends the
// outcome (exit code, signal or time-out, and the time it took) to the same
// file. A child that overruns is stopped through ChildWait.
class CommandRunner {
public:
    struct Timeouts {
        int defaultSeconds = 60;   // when the caller gives none
        int testModeSeconds = 90;  // ... once a test mode was found
    };

    // Runs args[0] (searched on PATH) with the rest as arguments, appending
    // its output and a result line to `logPath`. `timeoutSeconds` below 1
    // means the default.
    static void Run(const std::vector<std::string>& args, const char* logPath, int timeoutSeconds);
    // Run into the open capture file `logFd` (opened for appending); the
    // file is not looked up by name again. `logPath` names it in log lines.
    static void RunInto(const std::vector<std::string>& args, int logFd, const char* logPath, int timeoutSeconds);
    // True when `pid` (a child of this process) was reaped within the time;
    // false otherwise, errno ETIMEDOUT when the time ran out.
    static bool WaitWithTimeout(pid_t pid, int timeoutSeconds, int* status);
    // In the child only: makes `path` standard output and standard error
    // (a link at `path` is refused).
    static void RedirectOutput(const char* path);

    // The process-wide test-mode flag: set the first time a run finds a test
    // mode, never cleared.
    static bool TestMode();
    // The long time-out of test and pre-release captures: the test-mode one
    // once the flag is set, else the default.
    static int LongTimeoutSeconds();

    static Timeouts GetTimeouts();
    static void SetTimeoutsForTesting(const Timeouts& timeouts);
    static void ResetTestModeForTesting();
};

}  // namespace android
