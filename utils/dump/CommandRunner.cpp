#define LOG_TAG "dorvad"

#include "utils/dump/CommandRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/BuildProbes.h"
#include "utils/dump/ChildSpawn.h"
#include "utils/dump/ChildWait.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

// This runner logs under "dorvad" with no prefix of its own.
constexpr char kNoPrefix[] = "";

// Set once a run finds a test mode, never cleared (except by tests).
std::atomic<bool> gTestMode{false};

std::mutex& TimeoutsLock() {
    static std::mutex* lock = new std::mutex;
    return *lock;
}
CommandRunner::Timeouts& TimeoutsStore() {
    static auto* timeouts = new CommandRunner::Timeouts;
    return *timeouts;
}

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

// Writes all of `iov` to `fd` with no allocation (used in the fork child).
void WriteVector(int fd, struct iovec* iov, int count) {
    while (count > 0) {
        ssize_t n = TEMP_FAILURE_RETRY(writev(fd, iov, count));
        if (n < 0) return;
        while (count > 0 && static_cast<size_t>(n) >= iov->iov_len) {
            n -= static_cast<ssize_t>(iov->iov_len);
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + n;
            iov->iov_len -= static_cast<size_t>(n);
        }
    }
}

struct iovec Piece(const char* text) {
    return {const_cast<char*>(text), strlen(text)};
}

// Where the result lines go: a copy of the capture's descriptor, else the
// capture file opened by name, never through a link in its place.
FILE* OpenForResult(int logFd, const char* logPath) {
    base::unique_fd fd(logFd >= 0 ? fcntl(logFd, F_DUPFD_CLOEXEC, 0)
                                  : open(logPath, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0666));
    return velmar::kolto::AdoptFile(fd, "a");
}

// What the child of one run needs, made before it starts: it may not
// allocate or take a lock.
struct ChildPlan {
    int logFd;
    const char* logPath;
    const std::string* banner;
    const char* program;
    char* const* argv;
};

int RunChild(void* raw) {
    const ChildPlan* plan = static_cast<const ChildPlan*>(raw);
    if (plan->logFd < 0) {
        CommandRunner::RedirectOutput(plan->logPath);
    } else {
        // The capture's own descriptor: its directory is not looked up
        // again, so it cannot have been swapped for a link meanwhile.
        TEMP_FAILURE_RETRY(dup2(plan->logFd, STDOUT_FILENO));
        TEMP_FAILURE_RETRY(dup2(plan->logFd, STDERR_FILENO));
    }
    // Output goes straight to the descriptors (no stdio buffers), so
    // nothing is left unflushed when exec replaces the image.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct iovec head[] = {{const_cast<char*>(plan->banner->data()), plan->banner->size()}};
    WriteVector(STDOUT_FILENO, head, 1);
    execvp(plan->program, plan->argv);
    const int execErrno = errno;
    struct iovec iov[] = {Piece("*** exec("), Piece(plan->program), Piece("): "),
                          Piece(ChildErrorText(execErrno)), Piece("\n")};
    WriteVector(STDOUT_FILENO, iov, 5);
    ExitChild(-1);
    return -1;
}

}  // namespace

bool CommandRunner::TestMode() { return gTestMode.load(std::memory_order_relaxed); }

void CommandRunner::ResetTestModeForTesting() { gTestMode.store(false); }

CommandRunner::Timeouts CommandRunner::GetTimeouts() {
    std::lock_guard<std::mutex> guard(TimeoutsLock());
    return TimeoutsStore();
}

void CommandRunner::SetTimeoutsForTesting(const Timeouts& timeouts) {
    std::lock_guard<std::mutex> guard(TimeoutsLock());
    TimeoutsStore() = timeouts;
}

int CommandRunner::LongTimeoutSeconds() {
    const Timeouts timeouts = GetTimeouts();
    return TestMode() ? timeouts.testModeSeconds : timeouts.defaultSeconds;
}

bool CommandRunner::WaitWithTimeout(pid_t pid, int timeoutSeconds, int* status) {
    ChildWait child(pid);
    return child.WaitAndLog(timeoutSeconds, status, LOG_TAG, kNoPrefix);
}

void CommandRunner::RedirectOutput(const char* path) {
    // A link planted at the capture's name must not take the tool's output.
    int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW;
    // Power-off captures must be on disk before the power goes.
    if (strstr(path, "dumpsys_by_power") != nullptr) flags |= O_SYNC;
    base::unique_fd fd(TEMP_FAILURE_RETRY(open(path, flags, 0644)));
    const int openErrno = errno;
    ALOGD("redirect_output: %s\n", path);
    if (!fd.ok()) {
        struct iovec iov[] = {Piece("failed to open "), Piece(path), Piece(": "),
                              Piece(ChildErrorText(openErrno)), Piece("\n")};
        WriteVector(STDERR_FILENO, iov, 5);
        ExitChild(1);
        return;
    }
    TEMP_FAILURE_RETRY(dup2(fd.get(), STDOUT_FILENO));
    TEMP_FAILURE_RETRY(dup2(fd.get(), STDERR_FILENO));
}

void CommandRunner::Run(const std::vector<std::string>& args, const char* logPath, int timeoutSeconds) {
    RunInto(args, -1, logPath, timeoutSeconds);
}

void CommandRunner::RunInto(const std::vector<std::string>& args, int logFd, const char* logPath,
                            int timeoutSeconds) {
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    if (args.empty() || logPath == nullptr) {
        ALOGE("run_command: nothing to run\n");
        return;
    }

    // Everything the child needs is built here: between fork and exec a
    // child of this multi-threaded daemon may not allocate or take a lock.
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    std::string display;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
        if (!display.empty()) display += ' ';
        display += arg;
    }
    argv.push_back(nullptr);
    const char* program = args[0].c_str();
    // The parameters come from the client that asked for the capture.
    ALOGE("run_command: %s\n", velmar::kolto::StringUtil::ForLog(display).c_str());
    std::string banner = base::StringPrintf("------ (%s) in %ds ------\n", display.c_str(), timeoutSeconds);

    ChildPlan plan{logFd, logPath, &banner, program, argv.data()};
    const pid_t pid = SpawnChild(RunChild, &plan);
    if (pid < 0) {
        ALOGE("*** fork: %s\n", strerror(errno));
        return;
    }
    ChildWait child(pid);

    // The properties are read on every call; the flag keeps a test mode
    // found once for the life of the daemon.
    const bool testProperty = ismtbftest() || isomnitest();
    const Timeouts defaults = GetTimeouts();
    int timeout;
    if (timeoutSeconds >= 1) {
        timeout = timeoutSeconds;
    } else if (testProperty) {
        gTestMode.store(true);
        timeout = defaults.testModeSeconds;
    } else {
        timeout = TestMode() ? defaults.testModeSeconds : defaults.defaultSeconds;
    }

    int status = 0;
    const bool reaped = child.WaitAndLog(timeout, &status, LOG_TAG, kNoPrefix);
    const int waitErrno = errno;
    const double elapsed = ChildWait::SecondsSince(start);

    std::unique_ptr<FILE, FileCloser> log(OpenForResult(logFd, logPath));
    if (!log) {
        ALOGE("Open log file failed. err: %s. log path: %s\n", strerror(errno), logPath);
        // The child must not outlive its time even when its result has
        // nowhere to go.
        if (!reaped) child.Stop(LOG_TAG, kNoPrefix);
        return;
    }
    fflush(log.get());
    fflush(stdout);
    if (reaped) {
        if (WIFSIGNALED(status)) {
            fprintf(log.get(), "*** %s: Killed by signal %d\n", program, WTERMSIG(status));
        } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
            fprintf(log.get(), "*** %s: Exit code %d, %d\n", program, WEXITSTATUS(status), pid);
        }
        fprintf(log.get(), "[%s: %.3fs elapsed]\n\n", program, elapsed);
        fflush(log.get());
        return;
    }
    const std::string message =
        waitErrno == ETIMEDOUT
            ? base::StringPrintf("*** %s: Timed out after %.3fs (killing pid %d)\n", program, elapsed, pid)
            : base::StringPrintf("*** %s: Error after %.4fs (killing pid %d)\n", program, elapsed, pid);
    fputs(message.c_str(), log.get());
    fflush(log.get());
    ALOGE("%s", message.c_str());
    if (!child.Stop(LOG_TAG, kNoPrefix)) {
        fprintf(log.get(), "*** %s: Cannot kill %d even with SIGKILL.\n", program, pid);
    }
}

}  // namespace android
