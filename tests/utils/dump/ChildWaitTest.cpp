#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/dump/ChildWait.h"

using android::ChildWait;
using tarnis_test::SandboxTest;
using tarnis_test::ReadFile;

namespace {

class ChildWaitTest : public SandboxTest {};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Forks a child that sleeps until it is killed.
pid_t Sleeper() {
    const pid_t pid = fork();
    if (pid == 0) {
        for (;;) pause();
    }
    return pid;
}

// Runs in a pid namespace of its own, as its init, where no other process
// hands out numbers: a child is reaped behind the ChildWait's back and a new
// child is given the very same pid. Returns 0 when the ChildWait never
// touched the newcomer, else the number of the check that failed.
int SignalAfterThePidWasReused() {
    const pid_t first = Sleeper();
    ChildWait wait(first);
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);  // someone else reaps it
    // The next child gets the number just freed.
    const std::string last = std::to_string(first - 1);
    const int sysctl = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    if (sysctl < 0 || write(sysctl, last.data(), last.size()) != static_cast<ssize_t>(last.size())) return 2;
    close(sysctl);
    const pid_t second = Sleeper();
    int failed = 0;
    if (second != first) {
        failed = 3;
    } else if (wait.Signal(SIGKILL) == 0 || errno != ESRCH) {
        failed = 4;
    } else if (wait.Stop("dorvad", "")) {
        failed = 5;  // reported as stopped: it reaped or signalled the newcomer
    } else if (waitpid(second, nullptr, WNOHANG) != 0) {
        failed = 6;  // the newcomer was hit
    }
    kill(second, SIGKILL);
    waitpid(second, nullptr, 0);
    return failed;
}

}  // namespace

TEST_F(ChildWaitTest, StopsAChildThatIgnoresSigtermWithSigkillAfterTheGrace) {
    const std::string record = root_.Sub("signals");
    const std::string ready = root_.Sub("ready");
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string script = "trap 'echo TERM >> " + record + "' TERM; : > " + ready +
                                   "; while :; do sleep 0.05; done";
        execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(pid, 0);
    ChildWait child(pid);
    for (int i = 0; i < 500 && access(ready.c_str(), F_OK) != 0; ++i) usleep(10 * 1000);
    ASSERT_EQ(access(ready.c_str(), F_OK), 0);
    // Still running: a look that does not wait says so.
    EXPECT_EQ(child.Wait(0, nullptr, nullptr), ChildWait::kTimedOut);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(child.Stop("dorvad", ""));
    const double took = SecondsSince(start);
    // SIGTERM first: the child noted it and carried on; SIGKILL only once the
    // one-second grace had passed.
    EXPECT_EQ(ReadFile(record), "TERM\n");
    EXPECT_GE(took, 0.95);
    EXPECT_LT(took, 2.5);
    // Reaped by Stop: nothing left to wait for, and nothing to signal.
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(child.Signal(SIGKILL), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(ChildWaitTest, ReportsAChildSomeoneElseReapedInTheRunnersWords) {
    const pid_t pid = Sleeper();
    ChildWait child(pid);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    platform::LogCapture log;
    EXPECT_FALSE(child.WaitAndLog(1, nullptr, "dorvad", ""));
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(log.HasLine("*** waitpid failed: No child processes\n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_FALSE(child.WaitAndLog(1, nullptr, nullptr, "dorvad cmdtool "));
    EXPECT_TRUE(log.HasLine("dorvad cmdtool *** waitpid failed: No child processes\n", platform::DefaultLogTag(),
                            ANDROID_LOG_ERROR));
    // A time-out is not an error: errno says so, and nothing is logged.
    const pid_t running = Sleeper();
    ChildWait other(running);
    log.Clear();
    EXPECT_FALSE(other.WaitAndLog(0, nullptr, "dorvad", ""));
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(log.Count("***"), 0u);
    int status = 0;
    EXPECT_EQ(other.Signal(SIGKILL), 0);
    EXPECT_TRUE(other.WaitAndLog(5, &status, "dorvad", ""));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

// The pid of a child that was reaped elsewhere may already belong to a new
// process; only the pidfd still names the child that ended.
TEST_F(ChildWaitTest, NeverSignalsAProcessThatReusedThePid) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: needs root (a pid namespace of its own, where a pid can be handed out again)";
    }
    const pid_t lab = fork();
    ASSERT_GE(lab, 0);
    if (lab == 0) {
        if (unshare(CLONE_NEWPID) != 0) _exit(77);
        const pid_t init = fork();  // pid 1 of the new namespace
        if (init == 0) _exit(SignalAfterThePidWasReused());
        int status = 0;
        waitpid(init, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 99);
    }
    int status = 0;
    ASSERT_EQ(waitpid(lab, &status, 0), lab);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "skipped: needs root with CAP_SYS_ADMIN (unshare(CLONE_NEWPID) was refused)";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "check " << WEXITSTATUS(status) << " failed";
}
