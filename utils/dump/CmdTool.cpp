#define LOG_TAG nullptr

#include "utils/dump/CmdTool.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <log/log.h>

#include "utils/dump/ChildSpawn.h"
#include "utils/dump/ChildWait.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

// Everything this runner logs carries the default tag and this prefix.
#define CMDTOOL "dorvad cmdtool "

constexpr size_t kParamBufferSize = 1024;
constexpr size_t kMaxParams = 1022;

// What the child needs, made before it starts: it may not allocate or take
// a lock.
struct LiteChild {
    const char* program;
    char* const* argv;
    bool tooLong;
    size_t paramLength;
    const char* paramsForLog;
};

int RunLiteChild(void* raw) {
    const LiteChild* plan = static_cast<const LiteChild*>(raw);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);
    // The tool must be stoppable with SIGTERM whatever the daemon blocks.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (plan->tooLong) {
        ALOGE(CMDTOOL "*** param too long: %zu bytes\n", plan->paramLength);
        ExitChild(-1);
        return -1;
    }
    ALOGD(CMDTOOL "*** (%s): %s\n", plan->program, plan->paramsForLog);
    execvp(plan->program, plan->argv);
    ALOGE(CMDTOOL "*** exec(%s): %s\n", plan->program, ChildErrorText(errno));
    ExitChild(-1);
    return -1;
}

}  // namespace

bool CmdTool::waitpid_with_timeout_lite(pid_t pid, int timeoutSeconds, int* status) {
    ChildWait child(pid);
    return child.WaitAndLog(timeoutSeconds, status, LOG_TAG, CMDTOOL);
}

int CmdTool::run_command_lite(const char* program, const char* params, int timeoutSeconds) {
    // An empty name is run like any other, and fails at exec as a missing
    // tool does.
    if (program == nullptr) {
        ALOGE(CMDTOOL "*** no program to run\n");
        return -1;
    }
    if (params == nullptr) params = "";
    std::vector<std::string> args{program};
    const size_t paramLength = strlen(params);
    if (paramLength < kParamBufferSize) {
        std::string text(params);
        size_t begin = 0;
        while (begin <= text.size() && args.size() <= kMaxParams) {
            size_t end = text.find(',', begin);
            if (end == std::string::npos) end = text.size();
            if (end > begin) args.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
    }
    return Run(args, params, paramLength >= kParamBufferSize, timeoutSeconds);
}

int CmdTool::run_command_lite(const std::vector<std::string>& args, int timeoutSeconds) {
    if (args.empty()) {
        ALOGE(CMDTOOL "*** no program to run\n");
        return -1;
    }
    std::string joined;
    for (size_t i = 1; i < args.size(); ++i) joined += (i > 1 ? "," : "") + args[i];
    return Run(args, joined.c_str(), false, timeoutSeconds);
}

int CmdTool::Run(const std::vector<std::string>& args, const char* params, bool tooLong, int timeoutSeconds) {
    const char* program = args[0].c_str();
    const size_t paramLength = strlen(params);
    // The daemon is multi-threaded: the child may not allocate or take
    // locks, so the argument array and the printable parameters (they are
    // the client's) are made here and the child only execs.
    const std::string paramsForLog = velmar::kolto::StringUtil::ForLog(params);
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    LiteChild plan{program, argv.data(), tooLong, paramLength, paramsForLog.c_str()};
    const pid_t pid = SpawnChild(RunLiteChild, &plan);
    if (pid < 0) {
        ALOGD(CMDTOOL "*** fork: %s\n", strerror(errno));
        return -1;
    }

    ChildWait child(pid);

    int status = 0;
    const bool reaped = child.WaitAndLog(timeoutSeconds, &status, LOG_TAG, CMDTOOL);
    const int waitErrno = errno;
    const double elapsed = ChildWait::SecondsSince(start);
    if (reaped) {
        if (WIFSIGNALED(status)) {
            ALOGE(CMDTOOL "*** %s: Killed by signal %d\n", program, WTERMSIG(status));
        } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
            ALOGE(CMDTOOL "*** %s: Exit code %d\n", program, WEXITSTATUS(status));
        }
        ALOGD(CMDTOOL "[%s: %.3fs elapsed57]\n\n", program, elapsed);
        return 0;
    }
    if (waitErrno == ETIMEDOUT) {
        ALOGE(CMDTOOL "*** %s: Timed out after %.3fs (killing pid %d)\n", program, elapsed, pid);
    } else {
        ALOGE(CMDTOOL "*** %s: Error after %.4fs (killing pid %d)\n", program, elapsed, pid);
    }
    if (!child.Stop(LOG_TAG, CMDTOOL)) {
        ALOGE(CMDTOOL "*** %s: Cannot kill %d even with SIGKILL.\n", program, pid);
    }
    return -1;
}

int CmdTool::run_command_lite(String16 program, String16 params, int timeoutSeconds) {
    const std::string program8 = platform::ToUtf8(program);
    const std::string params8 = platform::ToUtf8(params);
    return run_command_lite(program8.c_str(), params8.c_str(), timeoutSeconds);
}

}  // namespace android
