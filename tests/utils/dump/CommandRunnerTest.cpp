// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/dump/CaptureLogUtil.h"
#include "utils/dump/CmdTool.h"

using android::CaptureLogUtil;
using android::CmdTool;
using tarnis_test::LineMatching;
using tarnis_test::SandboxTest;
using tarnis_test::StderrToFile;
using tarnis_test::ReadFile;
using tarnis_test::WriteFile;

namespace {

class CommandRunnerTest : public SandboxTest {
protected:
    std::string Capture(const std::string& name) { return root_.Sub(name); }
};

}  // namespace

TEST_F(CommandRunnerTest, ResultLinesForExitCodesSignalsAndExecFailures) {
    const std::string file = Capture("cap");
    CaptureLogUtil::run_command({"sh", "-c", "echo out; echo err >&2; exit 3"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"true"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"sh", "-c", "kill -9 $$"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"tarnis-no-such-tool", "x"}, file.c_str(), 0);
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
        "\\[tarnis-no-such-tool: 0\\.[0-9]{3}s elapsed\\]\n\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

// A timed-out child is ended (how a stubborn one is, is ChildWaitTest's) and
// reaped, with the time-out's lines in the capture and in the log.
TEST_F(CommandRunnerTest, DefaultTimeoutFollowsTestModeAndKeepsIt) {
    const std::string file = Capture("cap");
    platform::LogCapture log;
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), 0);
    const std::string killed = LineMatching(
        log, "\\*\\*\\* sleep: Timed out after 1\\.[0-9]{3}s \\(killing pid ([0-9]+)\\)\n", "dorvad", ANDROID_LOG_ERROR);
    ASSERT_NE(killed, "");
    EXPECT_EQ(kill(std::stoi(killed.substr(killed.rfind(' ') + 1)), 0), -1);  // reaped: no zombie left behind
    EXPECT_TRUE(log.HasLine("run_command: sleep 10\n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_FALSE(CaptureLogUtil::isTestMode());
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "true"));
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), -1);
    EXPECT_TRUE(CaptureLogUtil::isTestMode());
    // Without the property the flag keeps the longer default.
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "false"));
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), 0);
    const std::string text = ReadFile(file);
    const std::regex expected(
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
    const int power = flagsOfStdout(Capture("dumpsys_by_power_1"));
    const int plain = flagsOfStdout(Capture("dumpsys_other"));
    EXPECT_EQ(power & O_SYNC, O_SYNC);
    EXPECT_EQ(power & O_APPEND, O_APPEND);
    EXPECT_EQ(plain & O_SYNC & ~O_DSYNC, 0);
    EXPECT_EQ(plain & O_APPEND, O_APPEND);
    // A capture file the child cannot open: the reason on its standard error.
    platform::LogCapture log;
    StderrToFile err(root_.Sub("stderr"));
    CaptureLogUtil::run_command({"true"}, root_.Sub("missing/dir/cap").c_str(), 5);
    EXPECT_NE(err.Take().find("failed to open " + root_.Sub("missing/dir/cap") +
                              ": No such file or directory\n"),
              std::string::npos);
    // Nor can the runner append its result line: it says so instead.
    EXPECT_TRUE(log.HasLine("Open log file failed. err: No such file or directory. log path: " +
                                root_.Sub("missing/dir/cap") + "\n",
                            "dorvad", ANDROID_LOG_ERROR));
}

// Captures run on several threads at once: children ending on one thread
// must not cut short, or count as time-outs, the waits of another.
TEST_F(CommandRunnerTest, ConcurrentRunsDoNotDisturbEachOther) {
    platform::LogCapture log;
    const std::string slow = Capture("slow");
    // Threads of a daemon often run with SIGCHLD blocked (the threads below
    // inherit it): every child's end is then a process-wide signal that any
    // waiting thread could take for its own.
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
            CaptureLogUtil::run_command({"sleep", "0.02"}, Capture("fast").c_str(), 4);
            if (CmdTool::run_command_lite("sleep", "0.02", 4) != 0) ++liteFailures;
            ++fastRuns;
        }
    });
    // And children that are not the runners' own end meanwhile too.
    while (!slowDone) {
        const pid_t other = fork();
        if (other == 0) _exit(0);
        waitpid(other, nullptr, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    busy.join();
    slowRunner.join();
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    EXPECT_EQ(liteFailures.load(), 0);
    const std::string text = ReadFile(slow);
    EXPECT_TRUE(std::regex_search(text, std::regex("done\n\\*\\*\\* sh: Exit code 4, [0-9]+\n\\[sh: [1-9][0-9]*\\.[0-9]{3}s elapsed\\]\n\n$")))
        << text;
    const std::string fast = ReadFile(Capture("fast"));
    EXPECT_EQ(std::count(fast.begin(), fast.end(), '['), fastRuns.load()) << fast;
    EXPECT_EQ(fast.find("***"), std::string::npos) << fast;
    EXPECT_FALSE(log.Contains("Waiting for pid"));
    EXPECT_FALSE(log.Contains("Timed out"));
    EXPECT_FALSE(log.Contains("killing pid"));
}

// On the host, captures run our getprop from the sandbox's PATH; it lists the
// sandbox's properties, as the daemon's environment names them.
TEST_F(CommandRunnerTest, CapturesListTheSandboxProperties) {
    ASSERT_TRUE(android::base::SetProperty("ro.product.device", "sandboxed"));
    const std::string oldPath = getenv("PATH") != nullptr ? getenv("PATH") : "";
    setenv("PATH", (std::string(TARNIS_BUILD_DIR) + ":" + oldPath).c_str(), 1);
    setenv("TARNIS_ROOT", root_.path().c_str(), 1);
    const std::string file = Capture("cap");
    CaptureLogUtil::run_command({"getprop"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"getprop", "ro.product.device"}, file.c_str(), 5);
    setenv("PATH", oldPath.c_str(), 1);
    unsetenv("TARNIS_ROOT");
    const std::string text = ReadFile(file);
    EXPECT_NE(text.find("------ (getprop) in 5s ------\n[ro.product.device]: [sandboxed]\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("------ (getprop ro.product.device) in 5s ------\nsandboxed\n[getprop: "), std::string::npos)
        << text;
}

TEST_F(CommandRunnerTest, NegativeTimeoutOfTheWaitIsAnError) {
    const pid_t pid = fork();
    if (pid == 0) {
        for (;;) pause();
    }
    ASSERT_GT(pid, 0);
    platform::LogCapture log;
    int status = 0;
    errno = 0;
    EXPECT_FALSE(CaptureLogUtil::waitpid_with_timeout(pid, -1, &status));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(log.HasLine("*** sigtimedwait failed: Invalid argument\n", "dorvad", ANDROID_LOG_ERROR));
    errno = 0;
    EXPECT_FALSE(CaptureLogUtil::waitpid_with_timeout(pid, 0, &status));
    EXPECT_EQ(errno, ETIMEDOUT);
    kill(pid, SIGKILL);
    EXPECT_TRUE(CaptureLogUtil::waitpid_with_timeout(pid, 5, &status));
    EXPECT_EQ(log.Count("sigtimedwait"), 1u);
}
