#define LOG_TAG "dorvad"

#include "utils/dump/CaptureLogUtil.h"

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
#include <mutex>

#include <log/log.h>
#include <android-base/properties.h>
#include "utils/StringUtil.h"
#include "utils/dump/ChildWait.h"
#include "utils/dump/CaptureLogUtilInternal.h"
#include "utils/dump/CmdTool.h"

namespace android {
namespace {

// Set once a run finds a test mode, never cleared (except by tests).
std::atomic<bool> gTestMode{false};

std::mutex& HooksLock() {
    static std::mutex* lock = new std::mutex;
    return *lock;
}
CaptureLogUtil::Timeouts& TimeoutsStore() {
    static auto* timeouts = new CaptureLogUtil::Timeouts;
    return *timeouts;
}
std::function<void(int)>& CompressObserverStore() {
    static auto* hook = new std::function<void(int)>;
    return *hook;
}
std::function<void()>& BeforePackStore() {
    static auto* hook = new std::function<void()>;
    return *hook;
}

// Writes all of `iov` to `fd` with no allocation (used in the fork child).
void WriteVector(int fd, struct iovec* iov, int count) {
    while (count > 0) {
        ssize_t n = writev(fd, iov, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
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

}  // namespace

namespace capture_internal {

CaptureLogUtil::Timeouts GetTimeouts() {
    std::lock_guard<std::mutex> guard(HooksLock());
    return TimeoutsStore();
}
std::function<void(int)> CompressObserver() {
    std::lock_guard<std::mutex> guard(HooksLock());
    return CompressObserverStore();
}
std::function<void()> BeforePackHook() {
    std::lock_guard<std::mutex> guard(HooksLock());
    return BeforePackStore();
}

}  // namespace capture_internal

bool ismtbftest() { return base::GetBoolProperty("persist.mtbf.test", false); }

bool isomnitest() { return base::GetBoolProperty("persist.omni.test", false); }

bool isUnrelease() {
    // The hardware level does not change while the system runs. It is read
    // on first use rather than during static initialisation, which runs
    // before the daemon knows its root.
    static const std::string hwlevel = base::GetProperty("ro.boot.hwlevel", "unknown");
    return base::GetBoolProperty("ro.zel.development", false) ||
           base::GetBoolProperty("persist.sys.internal_trial_user", false) || hwlevel != "MP";
}

bool CaptureLogUtil::isTestMode() { return gTestMode.load(std::memory_order_relaxed); }

void CaptureLogUtil::ResetTestModeForTesting() { gTestMode.store(false); }

void CaptureLogUtil::SetTimeoutsForTesting(const Timeouts& timeouts) {
    std::lock_guard<std::mutex> guard(HooksLock());
    TimeoutsStore() = timeouts;
    CmdTool::SetKillWaitForTesting(timeouts.killWaitSeconds);
}

void CaptureLogUtil::SetCompressHooksForTesting(std::function<void(int)> onCompress,
                                                std::function<void()> beforePack) {
    std::lock_guard<std::mutex> guard(HooksLock());
    CompressObserverStore() = std::move(onCompress);
    BeforePackStore() = std::move(beforePack);
}

bool CaptureLogUtil::waitpid_with_timeout(pid_t pid, int timeoutSeconds, int* status) {
    int err = 0;
    switch (ChildWait::Wait(pid, timeoutSeconds, status, &err)) {
        case ChildWait::kReaped:
            return true;
        case ChildWait::kTimedOut:
            errno = ETIMEDOUT;
            return false;
        case ChildWait::kWaitFailed:
            // The wait is per child now, but its failure keeps the line that
            // log readers know.
            ALOGE("*** sigtimedwait failed: %s\n", strerror(err));
            break;
        case ChildWait::kReapFailed:
            ALOGE("*** waitpid failed: %s\n", strerror(err));
            break;
        case ChildWait::kNotReaped:
            ALOGE("*** Waiting for pid %d, got pid %d instead\n", pid, 0);
            err = ECHILD;
            break;
    }
    errno = err;
    return false;
}

void CaptureLogUtil::redirect_output(const char* path) {
    int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    // Power-off captures must be on disk before the power goes.
    if (strstr(path, "dumpsys_by_power") != nullptr) flags |= O_SYNC;
    int fd;
    do {
        fd = open(path, flags, 0644);
    } while (fd < 0 && errno == EINTR);
    const int openErrno = errno;
    ALOGD("redirect_output: %s\n", path);
    if (fd < 0) {
        struct iovec iov[] = {Piece("failed to open "), Piece(path), Piece(": "),
                              Piece(strerrordesc_np(openErrno)), Piece("\n")};
        WriteVector(STDERR_FILENO, iov, 5);
        _exit(1);
    }
    while (dup2(fd, STDOUT_FILENO) < 0 && errno == EINTR) {
    }
    while (dup2(fd, STDERR_FILENO) < 0 && errno == EINTR) {
    }
    close(fd);
}

void CaptureLogUtil::run_command(const std::vector<std::string>& args, const char* logPath,
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
    std::string banner(display.size() + 64, '\0');
    banner.resize(static_cast<size_t>(snprintf(&banner[0], banner.size(), "------ (%s) in %ds ------\n",
                                               display.c_str(), timeoutSeconds)));

    const pid_t pid = fork();
    if (pid < 0) {
        ALOGE("*** fork: %s\n", strerror(errno));
        return;
    }
    if (pid == 0) {
        redirect_output(logPath);
        // Output goes straight to the descriptors (no stdio buffers), so
        // nothing is left unflushed when exec replaces the image.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGPIPE, SIG_IGN);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        struct iovec head[] = {{&banner[0], banner.size()}};
        WriteVector(STDOUT_FILENO, head, 1);
        execvp(program, argv.data());
        const int execErrno = errno;
        struct iovec iov[] = {Piece("*** exec("), Piece(program), Piece("): "),
                              Piece(strerrordesc_np(execErrno)), Piece("\n")};
        WriteVector(STDOUT_FILENO, iov, 5);
        _exit(-1);
    }

    // The properties are read on every call; the flag keeps a test mode
    // found once for the life of the daemon.
    const bool testProperty = ismtbftest() || isomnitest();
    const CaptureLogUtil::Timeouts defaults = capture_internal::GetTimeouts();
    int timeout;
    if (timeoutSeconds >= 1) {
        timeout = timeoutSeconds;
    } else if (testProperty) {
        gTestMode.store(true);
        timeout = defaults.testModeSeconds;
    } else {
        timeout = isTestMode() ? defaults.testModeSeconds : defaults.defaultSeconds;
    }

    int status = 0;
    const bool reaped = waitpid_with_timeout(pid, timeout, &status);
    const int waitErrno = errno;
    const double elapsed = ChildWait::SecondsSince(start);

    FILE* log = fopen(logPath, "ae+");
    if (log == nullptr) {
        ALOGE("Open log file failed. err: %s. log path: %s\n", strerror(errno), logPath);
        if (!reaped) {
            // The child must not outlive its time even when its result has
            // nowhere to go.
            kill(pid, SIGKILL);
            waitpid_with_timeout(pid, defaults.killWaitSeconds, nullptr);
        }
        return;
    }
    fflush(log);
    fflush(stdout);
    if (reaped) {
        if (WIFSIGNALED(status)) {
            fprintf(log, "*** %s: Killed by signal %d\n", program, WTERMSIG(status));
        } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
            fprintf(log, "*** %s: Exit code %d, %d\n", program, WEXITSTATUS(status), pid);
        }
        fprintf(log, "[%s: %.3fs elapsed]\n\n", program, elapsed);
        fflush(log);
    } else {
        char message[512];
        if (waitErrno == ETIMEDOUT) {
            snprintf(message, sizeof(message), "*** %s: Timed out after %.3fs (killing pid %d)\n",
                     program, elapsed, pid);
        } else {
            snprintf(message, sizeof(message), "*** %s: Error after %.4fs (killing pid %d)\n",
                     program, elapsed, pid);
        }
        fputs(message, log);
        fflush(log);
        ALOGE("%s", message);
        kill(pid, SIGTERM);
        if (!waitpid_with_timeout(pid, defaults.killWaitSeconds, nullptr)) {
            kill(pid, SIGKILL);
            if (!waitpid_with_timeout(pid, defaults.killWaitSeconds, nullptr)) {
                fprintf(log, "*** %s: Cannot kill %d even with SIGKILL.\n", program, pid);
            }
        }
    }
    fclose(log);
}

}  // namespace android
