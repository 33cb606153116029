#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <host/WaitForProperty.h>
#include <cutils/properties.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include <host/LogRateLimiter.h>
#include "tests/support/TempDir.h"

using namespace std::chrono_literals;
using tarnis_test::RunShell;
using tarnis_test::TempDir;

namespace {

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(dir_.path()); }
    void TearDown() override { platform::SetRoot("/"); }
    TempDir dir_;
};

std::string Ctl() { return std::string(TARNIS_BUILD_DIR) + "/tarnisctl"; }

}  // namespace

TEST_F(PlatformTest, LogLinesReachCapturesAndStderrInThreadtimeLayout) {
    platform::LogCapture capture;
    __android_log_print(ANDROID_LOG_WARN, "Tarnis-Test", "[%s] value %d", "op", 7);
    LOG(ERROR) << "stream " << 42;
    errno = ENOENT;
    PLOG(INFO) << "opening";
    auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].tag, "Tarnis-Test");
    EXPECT_EQ(lines[0].prio, ANDROID_LOG_WARN);
    EXPECT_EQ(lines[0].text, "[op] value 7");
    EXPECT_EQ(lines[1].text, "stream 42");
    EXPECT_EQ(lines[1].tag, platform::DefaultLogTag());
    EXPECT_EQ(lines[2].text, "opening: No such file or directory");

    // The printed layout: MM-DD HH:MM:SS.mmm  PID  TID L TAG: message, one line each.
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-Layout", "first\nsecond\n");
    const std::string printed = testing::internal::GetCapturedStderr();
    const std::string head =
        R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d +)" + std::to_string(getpid()) + R"( +\d+ I Tarnis-Layout: )";
    EXPECT_TRUE(std::regex_match(printed, std::regex(head + "first\n" + head + "second\n"))) << printed;
}

// Lines a caller can cause pass at most `burst` per window; the next line
// let through says how many were held back since the last.
TEST(LogRateLimiterTest, ABurstPerWindowThenTheCountOfWhatWasHeldBack) {
    platform::LogRateLimiter limiter(2, 60000);
    struct Step {
        int64_t nowMs;
        bool allowed;
        uint64_t suppressed;
    };
    const Step steps[] = {
        {1000, true, 0},  {1001, true, 0},  {1002, false, 0}, {60999, false, 0},
        {61000, true, 2}, {61001, true, 0}, {61002, false, 0}, {500, true, 1},  // a clock that went back starts anew
    };
    for (const Step& step : steps) {
        uint64_t suppressed = 99;
        EXPECT_EQ(limiter.Allow(step.nowMs, &suppressed), step.allowed) << step.nowMs;
        if (step.allowed) {
            EXPECT_EQ(suppressed, step.suppressed) << step.nowMs;
        }
    }
    EXPECT_EQ(platform::LogRateLimiter::Summary(0), "");
    EXPECT_EQ(platform::LogRateLimiter::Summary(1), " (suppressed 1 such line)");
    EXPECT_EQ(platform::LogRateLimiter::Summary(7), " (suppressed 7 such lines)");
}

TEST_F(PlatformTest, PropertiesStoreAndParse) {
    EXPECT_EQ(android::base::GetProperty("tarnis.test.x", "dflt"), "dflt");
    EXPECT_TRUE(android::base::SetProperty("tarnis.test.x", "hello"));
    EXPECT_EQ(android::base::GetProperty("tarnis.test.x", "dflt"), "hello");
    // An empty value reads as unset.
    EXPECT_TRUE(android::base::SetProperty("tarnis.test.x", ""));
    EXPECT_EQ(android::base::GetProperty("tarnis.test.x", "dflt"), "dflt");

    const char* const bools[] = {"1", "y", "yes", "on", "true", "0", "n", "no", "off", "false"};
    for (int i = 0; i < 10; ++i) {
        android::base::SetProperty("tarnis.test.b", bools[i]);
        EXPECT_EQ(android::base::GetBoolProperty("tarnis.test.b", i >= 5), i < 5) << bools[i];
    }
    android::base::SetProperty("tarnis.test.b", "maybe");
    EXPECT_TRUE(android::base::GetBoolProperty("tarnis.test.b", true));
    EXPECT_FALSE(android::base::GetBoolProperty("tarnis.test.b", false));

    android::base::SetProperty("tarnis.test.i", "0x10");
    EXPECT_EQ(android::base::GetIntProperty("tarnis.test.i", 5), 16);
    EXPECT_EQ(android::base::GetIntProperty("tarnis.test.i", 5, 0, 10), 5);

    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("tarnis.test.none", value, "fallback"), 8);
    EXPECT_STREQ(value, "fallback");
    EXPECT_EQ(property_set("tarnis.test.c", "abc"), 0);
    EXPECT_EQ(property_get("tarnis.test.c", value, nullptr), 3);
    EXPECT_STREQ(value, "abc");

    // The store lives below the root.
    struct stat st;
    EXPECT_EQ(stat((dir_.path() + "/dev/__properties__/tarnis.test.c").c_str(), &st), 0);
}

TEST_F(PlatformTest, PropertyStoreRefusesBadNamesLongValuesAndRewritingReadOnly) {
    for (const char* name : {"", "../escape", "a/b", ".hidden"}) {
        EXPECT_FALSE(android::base::SetProperty(name, "x")) << name;
    }
    EXPECT_EQ(android::base::GetProperty("../escape", "none"), "none");
    EXPECT_FALSE(android::base::SetProperty("tarnis.test.long", std::string(PROPERTY_VALUE_MAX, 'v')));
    EXPECT_TRUE(android::base::SetProperty("tarnis.test.long", std::string(PROPERTY_VALUE_MAX - 1, 'v')));
    // Read-only properties take one value, of any length.
    EXPECT_TRUE(android::base::SetProperty("ro.tarnis.fp", std::string(200, 'f')));
    EXPECT_FALSE(android::base::SetProperty("ro.tarnis.fp", "other"));
    EXPECT_EQ(android::base::GetProperty("ro.tarnis.fp", ""), std::string(200, 'f'));
    EXPECT_EQ(platform::ListProperties().count("ro.tarnis.fp"), 1u);
}

TEST_F(PlatformTest, WaitForPropertyIsWokenByAnotherProcess) {
    EXPECT_FALSE(android::base::WaitForProperty("tarnis.test.wait", "go", 50ms));
    auto start = std::chrono::steady_clock::now();
    // Another value first: the wait must not end on it.
    std::atomic<bool> goSet{false};
    std::thread setter([this, &goSet] {
        std::this_thread::sleep_for(100ms);
        int status = -1;
        RunShell(Ctl() + " --root " + dir_.path() + " setprop tarnis.test.wait nope", &status);
        EXPECT_EQ(status, 0);
        std::this_thread::sleep_for(200ms);
        goSet = true;
        RunShell(Ctl() + " --root " + dir_.path() + " setprop tarnis.test.wait go", &status);
        EXPECT_EQ(status, 0);
    });
    EXPECT_TRUE(android::base::WaitForProperty("tarnis.test.wait", "go", 20s));
    EXPECT_TRUE(goSet.load());
    EXPECT_EQ(android::base::GetProperty("tarnis.test.wait", ""), "go");
    auto waited = std::chrono::steady_clock::now() - start;
    setter.join();
    EXPECT_LT(waited, 10s);
    EXPECT_TRUE(android::base::WaitForPropertyCreation("tarnis.test.wait", 10ms));
}

TEST_F(PlatformTest, TarnisctlGetpropAndSetprop) {
    const std::string ctl = Ctl() + " --root " + dir_.path();
    int status = -1;
    RunShell(ctl + " setprop persist.tarnis.a 1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(RunShell(ctl + " getprop persist.tarnis.a", &status), "1\n");
    EXPECT_EQ(RunShell(ctl + " getprop persist.tarnis.none dflt", &status), "dflt\n");
    EXPECT_EQ(RunShell(ctl + " getprop", &status), "[persist.tarnis.a]: [1]\n");
    RunShell(ctl + " setprop bad/name 1 2>/dev/null", &status);
    EXPECT_NE(status, 0);
    RunShell(ctl + " --bogus getprop 2>/dev/null", &status);
    EXPECT_EQ(status, 2);
    RunShell(ctl + " nosuchcommand 2>/dev/null", &status);
    EXPECT_EQ(status, 2);
}
