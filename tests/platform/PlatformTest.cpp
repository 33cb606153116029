// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <host/WaitForProperty.h>
#include <cutils/properties.h>
#include <dorva/DorvaServiceManager.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include <host/LogRateLimiter.h>
#include "tests/support/TempDir.h"

using android::DorvaServiceManager;
using namespace std::chrono_literals;
using tarnis_test::RunShell;
using tarnis_test::TempDir;

namespace {

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(dir_.path()); }
    void TearDown() override { platform::SetRoot("/"); }
    // The journal the dorva stand-in keeps of the calls it is given.
    std::vector<std::string> Lines() {
        std::istringstream in(tarnis_test::ReadFile(dir_.Sub("data/misc/tarnis/events.jsonl")));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    TempDir dir_;
};
using JournalTest = PlatformTest;

}  // namespace

TEST_F(PlatformTest, LogLinesReachCapturesAndStderrInThreadtimeLayout) {
    platform::LogCapture capture;
    __android_log_print(ANDROID_LOG_WARN, "Tarnis-Test", "[%s] value %d", "op", 7);
    LOG(ERROR) << "stream " << 42;
    errno = ENOENT;
    PLOG(INFO) << "opening";
    auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "[op] value 7");  // tags and priorities: every suite's HasLine checks them
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

// Lines a caller can cause pass `burst` a window; the next one let through tells how many were held back.
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
        if (!step.allowed) continue;
        EXPECT_EQ(suppressed, step.suppressed) << step.nowMs;
    }
    EXPECT_EQ(platform::LogRateLimiter::Summary(0), "");
    EXPECT_EQ(platform::LogRateLimiter::Summary(1), " (suppressed 1 such line)");
    EXPECT_EQ(platform::LogRateLimiter::Summary(7), " (suppressed 7 such lines)");
}

TEST_F(PlatformTest, PropertiesStoreParseAndRefuseBadNamesLongValuesAndRewritingReadOnly) {
    // An empty value reads as unset.
    EXPECT_TRUE(android::base::SetProperty("tarnis.test.x", "hello"));
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
    EXPECT_TRUE(tarnis_test::Exists(dir_.Sub("dev/__properties__/tarnis.test.c")));

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

// Another process, the tool, sets what a waiter here waits for.
TEST_F(PlatformTest, TarnisctlSetsAndGetsPropertiesAndWakesWaiters) {
    const std::string ctl = std::string(TARNIS_BUILD_DIR) + "/tarnisctl --root " + dir_.path();
    EXPECT_FALSE(android::base::WaitForProperty("tarnis.test.wait", "go", 50ms));
    // The wait must not end on another value: one that ended on "nope" would read it for 200 ms more.
    std::thread setter([&] {
        EXPECT_EQ(RunShell("sleep 0.1 && " + ctl + " setprop tarnis.test.wait nope && sleep 0.2 && " + ctl +
                           " setprop tarnis.test.wait go && echo set"), "set\n");
    });
    EXPECT_TRUE(android::base::WaitForProperty("tarnis.test.wait", "go", 20s));
    EXPECT_EQ(android::base::GetProperty("tarnis.test.wait", ""), "go");
    setter.join();
    EXPECT_TRUE(android::base::WaitForPropertyCreation("tarnis.test.wait", 10ms));

    int status = -1;
    EXPECT_EQ(RunShell(ctl + " getprop tarnis.test.wait", &status), "go\n");
    EXPECT_EQ(RunShell(ctl + " getprop tarnis.test.none dflt", &status), "dflt\n");
    EXPECT_EQ(RunShell(ctl + " getprop", &status), "[tarnis.test.wait]: [go]\n");
    RunShell(ctl + " setprop bad/name 1 2>/dev/null", &status);
    EXPECT_NE(status, 0);
    for (const char* misuse : {" --bogus getprop", " nosuchcommand"}) {
        RunShell(ctl + misuse + " 2>/dev/null", &status);
        EXPECT_EQ(status, 2) << misuse;
    }
}

TEST_F(JournalTest, EachCallIsOneLineWithItsArgumentsInOrder) {
    auto& dsm = DorvaServiceManager::getInstance();
    EXPECT_EQ(dsm.reportSensorException("sensor \"x\"\n"), 0);
    EXPECT_EQ(dsm.reportEventV2("a", "b", "c", true), 0);
    EXPECT_EQ(dsm.reportNativeFeatureEvent("n1", "n2", "n3"), 0);
    EXPECT_EQ(dsm.appCaptureLog("1", "2", "3", "4"), 0);
    EXPECT_EQ(dsm.reportEventsV2("h", {android::String16(u"e\u00e9"), android::String16()}, "t", false), 0);
    EXPECT_EQ(dsm.reportTrelvoEvent("app", "pkg", "{\"k\":1}", 0), 0);
    EXPECT_EQ(dsm.reportTrelvoEvents("app", "pkg", {android::String16(u"{}"), android::String16(u"[]")}, -2), 0);
    std::vector<std::string> expected = {
        R"({"call":"reportSensorException","args":["sensor \"x\"\n"]})",
        R"({"call":"reportEventV2","args":["a","b","c",true]})",
        R"({"call":"reportNativeFeatureEvent","args":["n1","n2","n3"]})",
        R"({"call":"appCaptureLog","args":["1","2","3","4"]})",
        "{\"call\":\"reportEventsV2\",\"args\":[\"h\",[\"e\xc3\xa9\",\"\"],\"t\",false]}",
        R"({"call":"reportTrelvoEvent","args":["app","pkg","{\"k\":1}",0]})",
        R"({"call":"reportTrelvoEvents","args":["app","pkg",["{}","[]"],-2]})",
    };
    EXPECT_EQ(Lines(), expected);
}

TEST_F(JournalTest, ConcurrentWritersNeverInterleave) {
    const std::string payload(20000, 'p');
    std::multiset<std::string> expected;
    std::vector<std::thread> threads;
    auto& dsm = DorvaServiceManager::getInstance();
    for (int t = 0; t < 8; ++t) {
        for (int i = 0; i < 50; ++i) {
            expected.insert(R"({"call":"reportTrelvoEvent","args":[")" + std::to_string(t) + R"(",")" +
                            std::to_string(i) + R"(",")" + payload + R"(",0]})");
        }
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) dsm.reportTrelvoEvent(std::to_string(t), std::to_string(i), payload, 0);
        });
    }
    for (auto& th : threads) th.join();
    const std::vector<std::string> lines = Lines();
    EXPECT_TRUE(std::multiset<std::string>(lines.begin(), lines.end()) == expected) << lines.size() << " lines";
}

// Callers pass bytes: each call stays one line of valid JSON, from which surrogateescape gives them back exactly.
TEST_F(JournalTest, AnyBytesStayOneValidLineAndRoundTrip) {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    const std::vector<std::vector<std::string>> calls = {
        {"reportEventV2", all,
         // overlong '/', an encoded surrogate, beyond U+10FFFF, cut short
         "\xc0\xaf|\xed\xa0\x80|\xf4\x90\x80\x80|\xe2\x82",
         "valid \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"reportNativeFeatureEvent", std::string("nul\0in\nside", 11),
         // text that looks like the escape must not be taken for it
         "\\udcff \"q\" \x7f \xed\xb3\xbf", "\x80\xff\xfe{\"k\":\"\x80\"}"},
    };
    auto& dsm = DorvaServiceManager::getInstance();
    ASSERT_EQ(dsm.reportEventV2(calls[0][1], calls[0][2], calls[0][3], true), 0);
    ASSERT_EQ(dsm.reportNativeFeatureEvent(calls[1][1], calls[1][2], calls[1][3]), 0);

    // Strict UTF-8 and JSON; each call's name and string arguments printed as the bytes they stand for.
    const std::string script = dir_.Sub("decode.py");
    ASSERT_TRUE(tarnis_test::WriteFile(
        script,
        "import json, sys\n"
        "for raw in open(sys.argv[1], 'rb').read().split(b'\\n')[:-1]:\n"
        "    obj = json.loads(raw.decode('utf-8'))\n"
        "    args = [a.encode('utf-8', 'surrogateescape') for a in obj['args'] if isinstance(a, str)]\n"
        "    sys.stdout.buffer.write(b' '.join([obj['call'].encode()] + args) + b'\\n')\n"));
    int status = -1;
    const std::string decoded = tarnis_test::RunShell(
        "python3 " + script + " " + DorvaServiceManager::JournalPath() + " 2>&1", &status);
    std::string expected;
    for (const auto& call : calls) {
        for (const std::string& part : call) expected += part + (&part == &call.back() ? "\n" : " ");
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(decoded, expected);
}

// The property any process on the root sets to make the library calls fail.
TEST_F(JournalTest, FailureSwitchAndUnwritableJournal) {
    auto& dsm = DorvaServiceManager::getInstance();
    ASSERT_TRUE(android::base::SetProperty(DorvaServiceManager::kResultProperty, "-5"));
    EXPECT_EQ(dsm.reportEventV2("a", "b", "c", false), -5);
    ASSERT_TRUE(android::base::SetProperty(DorvaServiceManager::kResultProperty, "0"));
    EXPECT_TRUE(Lines().empty());  // failed calls record nothing
    EXPECT_EQ(dsm.reportSensorException("ok"), 0);
    EXPECT_EQ(Lines().size(), 1u);

    // A journal that cannot be opened: -1 and a clear line, nothing else lost.
    ASSERT_EQ(unlink(dir_.Sub("data/misc/tarnis/events.jsonl").c_str()), 0);
    ASSERT_EQ(mkdir(dir_.Sub("data/misc/tarnis/events.jsonl").c_str(), 0755), 0);
    platform::LogCapture capture;
    EXPECT_EQ(dsm.reportSensorException("lost"), -1);
    EXPECT_TRUE(capture.Contains("cannot open " + dir_.Sub("data/misc/tarnis/events.jsonl"), "DorvaServiceManager",
                                 ANDROID_LOG_ERROR));
}
