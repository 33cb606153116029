// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>
#include <tuple>

#include <android-base/properties.h>

#include "tests/support/DumpSandbox.h"
#include "tests/support/WaitFor.h"
#include "utils/dump/ChildWait.h"
#include "utils/dump/CmdTool.h"

using namespace tarnis_test;
using android::CaptureLogUtil;
using android::ChildWait;
using android::CmdTool;

namespace {

using CommandRunnerTest = SandboxTest;
using CmdToolTest = SandboxTest;
using ChildWaitTest = SandboxTest;

// This runner has no tag of its own: its lines carry the log's default one.
bool CmdToolLogged(const platform::LogCapture& log, const std::string& text, int prio = ANDROID_LOG_ERROR) {
    return log.HasLine("dorvad cmdtool " + text, platform::DefaultLogTag(), prio);
}

pid_t Sleeper() {
    const pid_t pid = fork();
    if (pid == 0) {
        for (;;) pause();
    }
    return pid;
}

// As init of its own pid namespace: a child reaped behind the ChildWait's back, a newcomer given its pid.
// Returns 0 when the ChildWait never touched the newcomer, else the number of the check that failed.
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

// A timed-out child is ended and reaped; the default time-out follows the test mode, which then stays.
TEST_F(CommandRunnerTest, ResultLinesForExitsSignalsExecFailuresAndTimeouts) {
    const std::string file = root_.Sub("cap");
    CaptureLogUtil::run_command({"sh", "-c", "echo out; echo err >&2; exit 3"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"true"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"sh", "-c", "kill -9 $$"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"tarnis-no-such-tool", "x"}, file.c_str(), 0);
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), 0);
    const std::string timedOut = "\\*\\*\\* sleep: Timed out after 1\\.[0-9]{3}s \\(killing pid ([0-9]+)\\)\n";
    const std::string killed = LineMatching(log_, timedOut, "dorvad", ANDROID_LOG_ERROR);
    ASSERT_NE(killed, "");
    EXPECT_EQ(kill(std::stoi(killed.substr(killed.rfind(' ') + 1)), 0), -1);  // reaped: no zombie left behind
    EXPECT_TRUE(Logged(log_, "run_command: sleep 10\n"));
    EXPECT_FALSE(CaptureLogUtil::isTestMode());
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "true"));
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), -1);
    EXPECT_TRUE(CaptureLogUtil::isTestMode());
    // Without the property the flag keeps the longer default.
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "false"));
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), 0);
    const std::string text = ReadFile(file);
    const std::regex expected(
        "------ \\(sh -c echo out; echo err >&2; exit 3\\) in 5s ------\n"
        "out\nerr\n"
        "\\*\\*\\* sh: Exit code 3, [0-9]+\n"
        "\\[sh: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(true\\) in 5s ------\n"
        "\\[true: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(sh -c kill -9 \\$\\$\\) in 5s ------\n"
        "\\*\\*\\* sh: Killed by signal 9\n"
        "\\[sh: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(tarnis-no-such-tool x\\) in 0s ------\n"
        "\\*\\*\\* exec\\(tarnis-no-such-tool\\): No such file or directory\n"
        "\\*\\*\\* tarnis-no-such-tool: Exit code 255, [0-9]+\n"
        "\\[tarnis-no-such-tool: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(sleep 10\\) in 0s ------\n"
        "\\*\\*\\* sleep: Timed out after 1\\.[0-9]{3}s \\(killing pid [0-9]+\\)\n"
        "------ \\(sleep 10\\) in -1s ------\n"
        "\\*\\*\\* sleep: Timed out after 2\\.[0-9]{3}s \\(killing pid [0-9]+\\)\n"
        "------ \\(sleep 10\\) in 0s ------\n"
        "\\*\\*\\* sleep: Timed out after 2\\.[0-9]{3}s \\(killing pid [0-9]+\\)\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(CommandRunnerTest, SynchronousWritesOnlyForPowerCaptures) {
    auto flagsOfStdout = [&](const std::string& file) {
        CaptureLogUtil::run_command({"sh", "-c", "grep flags /proc/self/fdinfo/1"}, file.c_str(), 5);
        std::smatch match;
        const std::string text = ReadFile(file);
        EXPECT_TRUE(std::regex_search(text, match, std::regex("flags:\\s+([0-7]+)"))) << text;
        return match.empty() ? 0 : std::stoi(match[1], nullptr, 8);
    };
    const int power = flagsOfStdout(root_.Sub("dumpsys_by_power_1"));
    const int plain = flagsOfStdout(root_.Sub("dumpsys_other"));
    EXPECT_EQ(power & O_SYNC, O_SYNC);
    EXPECT_EQ(power & O_APPEND, O_APPEND);
    EXPECT_EQ(plain & O_SYNC & ~O_DSYNC, 0);
    EXPECT_EQ(plain & O_APPEND, O_APPEND);
    // A capture file the child cannot open: the reason on its standard error.
    const std::string missing = root_.Sub("missing/dir/cap");
    testing::internal::CaptureStderr();  // where what a forked child logs goes
    CaptureLogUtil::run_command({"true"}, missing.c_str(), 5);
    const std::string childLog = testing::internal::GetCapturedStderr();
    EXPECT_NE(childLog.find("failed to open " + missing + ": No such file or directory\n"), std::string::npos);
    // Nor can the runner append its result line: it says so instead.
    EXPECT_TRUE(Logged(log_, "Open log file failed. err: No such file or directory. log path: " + missing + "\n"));
}

// Children ending on one capture thread must not cut short, or time out, the waits of another.
TEST_F(CommandRunnerTest, ConcurrentRunsDoNotDisturbEachOther) {
    const std::string slow = root_.Sub("slow");
    // With SIGCHLD blocked (the threads inherit it) every child's end is a signal any waiter could take.
    sigset_t chld, oldMask;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &chld, &oldMask);
    std::atomic<bool> slowDone{false};
    std::thread slowRunner([&] {
        CaptureLogUtil::run_command({"sh", "-c", "sleep 1.5; echo done; exit 4"}, slow.c_str(), 4);
        slowDone = true;
    });
    // Children keep ending on this thread for as long as the slow one runs.
    std::atomic<int> liteFailures{0};
    std::atomic<int> fastRuns{0};
    std::thread busy([&] {
        while (!slowDone || fastRuns < 20) {
            CaptureLogUtil::run_command({"sleep", "0.02"}, root_.Sub("fast").c_str(), 4);
            if (CmdTool::run_command_lite("sleep", "0.02", 4) != 0) ++liteFailures;
            ++fastRuns;
        }
    });
    // Children not the runners' own end meanwhile too; a runner that never returns fails the wait.
    ASSERT_TRUE(WaitFor([&] {
        const pid_t other = fork();
        if (other == 0) _exit(0);
        waitpid(other, nullptr, 0);
        return slowDone.load();
    }));
    busy.join();
    slowRunner.join();
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    EXPECT_EQ(liteFailures.load(), 0);
    const std::string text = ReadFile(slow);
    EXPECT_TRUE(std::regex_search(
        text, std::regex("done\n\\*\\*\\* sh: Exit code 4, [0-9]+\n\\[sh: [1-9][0-9]*\\.[0-9]{3}s elapsed\\]\n\n$")))
        << text;
    const std::string fast = ReadFile(root_.Sub("fast"));
    EXPECT_EQ(std::count(fast.begin(), fast.end(), '['), fastRuns.load()) << fast;
    EXPECT_EQ(fast.find("***"), std::string::npos) << fast;
    EXPECT_FALSE(log_.Contains("Waiting for pid"));
    EXPECT_FALSE(log_.Contains("Timed out"));
    EXPECT_FALSE(log_.Contains("killing pid"));
}

TEST_F(CmdToolTest, SplitsParametersAndReportsInTheLog) {
    const std::string out = root_.Sub("args");
    const std::string script = root_.Sub("record.sh");
    WriteFile(script, "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$@\" > '" + out + "'\nexit 3\n");
    chmod(script.c_str(), 0755);
    EXPECT_EQ(CmdTool::run_command_lite(script.c_str(), "-a,,-b", 5), 0);
    EXPECT_EQ(ReadFile(out), "2\n-a\n-b\n");
    EXPECT_TRUE(CmdToolLogged(log_, "*** " + script + ": Exit code 3\n"));
    const std::string tag = platform::DefaultLogTag();
    EXPECT_NE(LineMatching(log_, "dorvad cmdtool \\[" + Literal(script) + ": 0\\.[0-9]{3}s elapsed57\\]\n\n", tag,
                           ANDROID_LOG_DEBUG),
              "");
    // 1023 bytes still pass as one parameter.
    const std::string longest(1023, 'p');
    EXPECT_EQ(CmdTool::run_command_lite(platform::ToUtf16(script), platform::ToUtf16(longest), 5), 0);
    EXPECT_EQ(ReadFile(out), "1\n" + longest + "\n");
    unlink(out.c_str());

    // The child refuses 1024 bytes; a missing tool and an empty name fail at exec.
    const std::tuple<std::string, std::string, std::string> failures[] = {  // program, parameters, child's line
        {script, std::string(1024, 'p'), "*** param too long: 1024 bytes"},
        {"tarnis-no-such-tool", "", "*** exec(tarnis-no-such-tool): No such file or directory"},
        {"", "x", "*** exec(): No such file or directory"},
    };
    for (const auto& [program, params, childLine] : failures) {
        SCOPED_TRACE(program);
        log_.Clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(CmdTool::run_command_lite(program.c_str(), params.c_str(), 5), 0);
        // What a forked child logs reaches only standard error.
        const std::string line = std::string(" E ") + platform::DefaultLogTag() + ": dorvad cmdtool " + childLine;
        EXPECT_NE(testing::internal::GetCapturedStderr().find(line + "\n"), std::string::npos);
        EXPECT_TRUE(CmdToolLogged(log_, "*** " + program + ": Exit code 255\n"));
    }
    EXPECT_FALSE(Exists(out));  // the script never ran
    EXPECT_EQ(CmdTool::run_command_lite(static_cast<const char*>(nullptr), "", 5), -1);
    // A clean exit adds no line of its own, only the elapsed one.
    log_.Clear();
    EXPECT_EQ(CmdTool::run_command_lite("true", "", 5), 0);
    EXPECT_EQ(log_.Count("***"), 0u);
    EXPECT_NE(LineMatching(log_, "dorvad cmdtool \\[true: 0\\.[0-9]{3}s elapsed57\\]\n\n", tag, ANDROID_LOG_DEBUG), "");
}

// A negative time-out fails as a failed wait does and still ends the child; 0 times out at once.
TEST_F(CmdToolTest, TimeoutsAndFailedWaitsEndTheChildAndSaySo) {
    const std::pair<int, std::string> cases[] = {
        {1, "Timed out after 1\\.[0-9]{3}s"}, {0, "Timed out after 0\\.[0-9]{3}s"}, {-1, "Error after 0\\.[0-9]{4}s"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        log_.Clear();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(CmdTool::run_command_lite("sleep", "30", c.first), -1);
        // The child went at SIGTERM: no grace was waited out.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
        EXPECT_NE(LineMatching(log_, "dorvad cmdtool \\*\\*\\* sleep: " + c.second + " \\(killing pid [0-9]+\\)\n",
                               platform::DefaultLogTag(), ANDROID_LOG_ERROR),
                  "");
        EXPECT_EQ(CmdToolLogged(log_, "*** sigtimedwait failed: Invalid argument\n"), c.first < 0);
        EXPECT_EQ(log_.Count(c.first < 0 ? "Timed out" : "sigtimedwait"), 0u);
        EXPECT_EQ(log_.Count("Cannot kill"), 0u);
        EXPECT_EQ(log_.Count("elapsed57"), 0u);
    }
}

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
    ASSERT_TRUE(WaitFor([&] { return access(ready.c_str(), F_OK) == 0; }));
    // Still running: a look that does not wait says so.
    EXPECT_EQ(child.Wait(0, nullptr, nullptr), ChildWait::kTimedOut);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(child.Stop("dorvad", ""));
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // SIGTERM first, noted and ignored; SIGKILL only after the one-second grace.
    EXPECT_EQ(ReadFile(record), "TERM\n");
    EXPECT_GE(took, 0.95);
    EXPECT_LT(took, 2.5);
    // Reaped by Stop: nothing left to wait for, and nothing to signal.
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(child.Signal(SIGKILL), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(ChildWaitTest, ReportsAFailedWaitInTheRunnersWords) {
    const pid_t pid = Sleeper();
    ChildWait child(pid);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);  // someone else reaps it
    EXPECT_FALSE(child.WaitAndLog(1, nullptr, "dorvad", ""));
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(Logged(log_, "*** waitpid failed: No child processes\n"));
}

// A child reaped elsewhere may have its pid reused; only the pidfd still names the child that ended.
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
