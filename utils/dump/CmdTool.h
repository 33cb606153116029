#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <utils/String16.h>

namespace android {

// Runs one tool with a comma-separated parameter string under a time-out.
// The tool's output is not redirected; the outcome goes to the system log and
// the caller learns only whether the child was reaped in time.
class CmdTool {
public:
    // 0 when the child was reaped within `timeoutSeconds`, whatever its exit
    // status; -1 on time-out, wait error (a negative time-out is one) or fork
    // failure. An empty program fails at exec, as a missing one does.
    static int run_command_lite(const char* program, const char* params, int timeoutSeconds);
    static int run_command_lite(String16 program, String16 params, int timeoutSeconds);
    // The same with the arguments already apart (program first): for paths
    // the daemon built, which may hold commas of a client's headline.
    static int run_command_lite(const std::vector<std::string>& args, int timeoutSeconds);

    // True when `pid` was reaped within the time (status stored when not
    // null); false otherwise, errno ETIMEDOUT when the time ran out and
    // EINVAL (logged) for a negative time.
    static bool waitpid_with_timeout_lite(pid_t pid, int timeoutSeconds, int* status);

private:
    static int Run(const std::vector<std::string>& args, const char* params, bool tooLong, int timeoutSeconds);
};

}  // namespace android
