#include <sys/stat.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <dorva/DorvaServiceManager.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/TempDir.h"

using android::DorvaServiceManager;

namespace {

class JournalTest : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(root_.path()); }
    void TearDown() override {
        DorvaServiceManager::getInstance().setResultForTesting(0);
        platform::SetRoot("/");
    }
    std::vector<std::string> Lines() {
        std::istringstream in(tarnis_test::ReadFile(root_.Sub("data/misc/tarnis/events.jsonl")));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    tarnis_test::TempDir root_;
};

TEST_F(JournalTest, EachCallIsOneLineWithItsArgumentsInOrder) {
    auto& dsm = DorvaServiceManager::getInstance();
    EXPECT_EQ(DorvaServiceManager::JournalPath(), root_.Sub("data/misc/tarnis/events.jsonl"));
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
    for (int t = 0; t < 8; ++t) {
        for (int i = 0; i < 50; ++i) {
            expected.insert(R"({"call":"reportTrelvoEvent","args":[")" + std::to_string(t) + R"(",")" +
                            std::to_string(i) + R"(",")" + payload + R"(",0]})");
        }
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                DorvaServiceManager::getInstance().reportTrelvoEvent(std::to_string(t), std::to_string(i), payload,
                                                                     0);
            }
        });
    }
    for (auto& th : threads) th.join();
    const std::vector<std::string> lines = Lines();
    EXPECT_TRUE(std::multiset<std::string>(lines.begin(), lines.end()) == expected) << lines.size() << " lines";
}

// Callers pass bytes, not always text. Whatever they pass, each call stays
// one line of valid JSON in valid UTF-8, and Python's surrogateescape gives
// the bytes back exactly.
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

    // Python decodes each line as strict UTF-8 and strict JSON, and restores
    // the bytes.
    const std::string script = root_.Sub("decode.py");
    ASSERT_TRUE(tarnis_test::WriteFile(
        script,
        "import json, sys\n"
        "for raw in open(sys.argv[1], 'rb').read().split(b'\\n')[:-1]:\n"
        "    obj = json.loads(raw.decode('utf-8'))\n"
        "    args = [a.encode('utf-8', 'surrogateescape').hex() for a in obj['args'] if isinstance(a, str)]\n"
        "    print(obj['call'], *args)\n"));
    int status = -1;
    const std::string decoded = tarnis_test::RunShell(
        "python3 " + script + " " + DorvaServiceManager::JournalPath() + " 2>&1", &status);
    std::string expected;
    for (const auto& call : calls) {
        expected += call[0];
        for (size_t a = 1; a < call.size(); ++a) {
            expected += ' ';
            for (unsigned char c : call[a]) {
                char hex[3];
                snprintf(hex, sizeof(hex), "%02x", c);
                expected += hex;
            }
        }
        expected += '\n';
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(decoded, expected);
}

TEST_F(JournalTest, FailureSwitchAndUnwritableJournal) {
    auto& dsm = DorvaServiceManager::getInstance();
    dsm.setResultForTesting(3);
    EXPECT_EQ(dsm.reportTrelvoEvent("a", "b", "c", 0), 3);
    dsm.setResultForTesting(0);
    ASSERT_TRUE(android::base::SetProperty(DorvaServiceManager::kResultProperty, "-5"));
    EXPECT_EQ(dsm.reportEventV2("a", "b", "c", false), -5);
    ASSERT_TRUE(android::base::SetProperty(DorvaServiceManager::kResultProperty, "0"));
    EXPECT_TRUE(Lines().empty());  // failed calls record nothing
    EXPECT_EQ(dsm.reportSensorException("ok"), 0);
    EXPECT_EQ(Lines().size(), 1u);

    // A journal that cannot be opened: -1 and a clear line, nothing else lost.
    ASSERT_EQ(unlink(root_.Sub("data/misc/tarnis/events.jsonl").c_str()), 0);
    ASSERT_EQ(mkdir(root_.Sub("data/misc/tarnis/events.jsonl").c_str(), 0755), 0);
    platform::LogCapture capture;
    EXPECT_EQ(dsm.reportSensorException("lost"), -1);
    EXPECT_TRUE(capture.Contains("cannot open " + root_.Sub("data/misc/tarnis/events.jsonl"), "DorvaServiceManager",
                                 ANDROID_LOG_ERROR));
}

}  // namespace
