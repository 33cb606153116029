// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <sys/stat.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <chrono>
#include <regex>

#include <gtest/gtest.h>

#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/dump/CmdTool.h"

using android::CmdTool;
using tarnis_test::LineMatching;
using tarnis_test::Literal;
using tarnis_test::SandboxTest;
using tarnis_test::StderrToFile;
using tarnis_test::ReadFile;
using tarnis_test::WriteFile;

namespace {

class CmdToolTest : public SandboxTest {
protected:
    // A script that records its argument count and arguments in `out`, then
    // exits with `code`.
    std::string ArgRecorder(const std::string& out, int code) {
        std::string script = root_.Sub("record.sh");
        WriteFile(script, "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$@\" > '" + out + "'\nexit " +
                              std::to_string(code) + "\n");
        chmod(script.c_str(), 0755);
        return script;
    }
    // What a forked child logged: it reaches only standard error, as
    // "... E TAG: text" with this runner's default tag.
    static bool ChildLogged(const std::string& err, char level, const std::string& text) {
        return err.find(std::string(" ") + level + " " + platform::DefaultLogTag() + ": " + text + "\n") !=
               std::string::npos;
    }
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST_F(CmdToolTest, SplitsParametersAndReportsInTheLog) {
    const std::string out = root_.Sub("args");
    const std::string script = ArgRecorder(out, 3);
    platform::LogCapture log;
    EXPECT_EQ(CmdTool::run_command_lite(script.c_str(), "-a,,-b", 5), 0);
    EXPECT_EQ(ReadFile(out), "2\n-a\n-b\n");
    // No tag of its own: the log's default one.
    const std::string tag = platform::DefaultLogTag();
    EXPECT_TRUE(log.HasLine("dorvad cmdtool *** " + script + ": Exit code 3\n", tag, ANDROID_LOG_ERROR));
    EXPECT_NE(LineMatching(log, "dorvad cmdtool \\[" + Literal(script) + ": 0\\.[0-9]{3}s elapsed57\\]\n\n", tag,
                           ANDROID_LOG_DEBUG),
              "");

    // 1023 bytes still pass as one parameter; 1024 are refused by the child.
    const std::string longest(1023, 'p');
    EXPECT_EQ(CmdTool::run_command_lite(platform::ToUtf16(script), platform::ToUtf16(longest), 5), 0);
    EXPECT_EQ(ReadFile(out), "1\n" + longest + "\n");
    unlink(out.c_str());
    StderrToFile tooLong(root_.Sub("stderr"));
    log.Clear();
    EXPECT_EQ(CmdTool::run_command_lite(script.c_str(), std::string(1024, 'p').c_str(), 5), 0);
    EXPECT_TRUE(ChildLogged(tooLong.Take(), 'E', "dorvad cmdtool *** param too long: 1024 bytes"));
    EXPECT_TRUE(log.HasLine("dorvad cmdtool *** " + script + ": Exit code 255\n", tag, ANDROID_LOG_ERROR));
    struct stat st;
    EXPECT_NE(stat(out.c_str(), &st), 0);  // never ran

    StderrToFile missing(root_.Sub("stderr"));
    log.Clear();
    EXPECT_EQ(CmdTool::run_command_lite("tarnis-no-such-tool", "", 5), 0);
    EXPECT_TRUE(ChildLogged(missing.Take(), 'E', "dorvad cmdtool *** exec(tarnis-no-such-tool): No such file or directory"));
    EXPECT_TRUE(log.HasLine("dorvad cmdtool *** tarnis-no-such-tool: Exit code 255\n", tag, ANDROID_LOG_ERROR));
    // A clean exit adds no line of its own, only the elapsed one.
    log.Clear();
    EXPECT_EQ(CmdTool::run_command_lite("true", "", 5), 0);
    EXPECT_EQ(log.Count("***"), 0u);
    EXPECT_NE(LineMatching(log, "dorvad cmdtool \\[true: 0\\.[0-9]{3}s elapsed57\\]\n\n", tag, ANDROID_LOG_DEBUG), "");
}

// The time-out's and the failed wait's lines; how a stubborn child is ended
// (SIGTERM, then SIGKILL after the grace) is ChildWaitTest's. A negative
// time-out fails as a failed wait does and still ends the child; 0 is a
// time-out that comes at once.
TEST_F(CmdToolTest, TimeoutsAndFailedWaitsEndTheChildAndSaySo) {
    const std::string tag = platform::DefaultLogTag();
    const struct {
        int timeout;
        std::string line;
        const char* absent;
    } cases[] = {
        {1, "Timed out after 1\\.[0-9]{3}s", "sigtimedwait"},
        {0, "Timed out after 0\\.[0-9]{3}s", "sigtimedwait"},
        {-1, "Error after 0\\.[0-9]{4}s", "Timed out"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeout);
        platform::LogCapture log;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(CmdTool::run_command_lite("sleep", "30", c.timeout), -1);
        // The child went at SIGTERM: no grace was waited out.
        EXPECT_LT(SecondsSince(start), 1.9);
        EXPECT_NE(LineMatching(log, "dorvad cmdtool \\*\\*\\* sleep: " + c.line + " \\(killing pid [0-9]+\\)\n", tag,
                               ANDROID_LOG_ERROR),
                  "");
        EXPECT_EQ(log.HasLine("dorvad cmdtool *** sigtimedwait failed: Invalid argument\n", tag, ANDROID_LOG_ERROR),
                  c.timeout < 0);
        EXPECT_EQ(log.Count(c.absent), 0u);
        EXPECT_EQ(log.Count("Cannot kill"), 0u);
        EXPECT_EQ(log.Count("elapsed57"), 0u);
    }
}

// An empty program is no refusal of its own: it goes to exec like any name.
TEST_F(CmdToolTest, EmptyProgramFailsAtExec) {
    const std::string tag = platform::DefaultLogTag();
    platform::LogCapture log;
    StderrToFile err(root_.Sub("stderr"));
    EXPECT_EQ(CmdTool::run_command_lite("", "x", 5), 0);
    EXPECT_TRUE(ChildLogged(err.Take(), 'E', "dorvad cmdtool *** exec(): No such file or directory"));
    EXPECT_TRUE(log.HasLine("dorvad cmdtool *** : Exit code 255\n", tag, ANDROID_LOG_ERROR));
    EXPECT_EQ(CmdTool::run_command_lite(static_cast<const char*>(nullptr), "", 5), -1);
}
