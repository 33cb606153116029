// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utime.h>
#include <host/Utf8.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/Clock.h"
#include "utils/dump/CaptureFile.h"
#include "utils/dump/CaptureLogUtil.h"

using android::CaptureLogUtil;
using android::DumpAction;
using android::String16;
using tarnis_test::CountExact;
using tarnis_test::FakeDumpstate;
using tarnis_test::LineMatching;
using tarnis_test::Literal;
using tarnis_test::SandboxTest;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WriteFile;

namespace {

// Sleeps cost nothing; the time they would have taken is counted.
class CountingClock : public velmar::kolto::Clock {
public:
    int64_t SteadyNowMs() override { return slept_; }
    int64_t WallNowMs() override { return slept_; }
    void SleepMs(int64_t ms) override { slept_ += ms; }
    int64_t slept() const { return slept_; }

private:
    std::atomic<int64_t> slept_{0};
};

class CaptureDumpsTest : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        RunShell("mkdir -p '" + Path("/data/dorva") + "' '" + Path("/data/system") + "' '" + Path("/data/anr") +
                 "'");
        android::base::SetProperty("ro.product.device", "host");
        android::base::SetProperty("ro.build.version.incremental", "42");
        android::base::SetProperty("ro.debuggable", "1");
        velmar::kolto::SetClockForTesting(&clock_);
    }
    void TearDown() override {
        velmar::kolto::SetClockForTesting(nullptr);
        SandboxTest::TearDown();
    }
    static std::vector<String16> List(std::initializer_list<const char*> items) {
        std::vector<String16> list;
        for (const char* item : items) list.push_back(platform::ToUtf16(item));
        return list;
    }
    void DumpAll(const std::string& type, const std::string& headline, std::vector<String16> actions,
                 std::vector<String16> params, bool offline, int id = -1, bool useId = false,
                 std::vector<String16> files = {}, const std::string& whereText = "", bool recordInLocal = false) {
        String16 type16 = platform::ToUtf16(type);
        String16 headline16 = platform::ToUtf16(headline);
        String16 where = platform::ToUtf16(whereText);
        CaptureLogUtil::dump_all(type16, headline16, actions, params, offline, id, useId, where, files, recordInLocal);
        files_ = files;
    }
    // Names in a device directory, one a line, sorted.
    std::string Names(const std::string& deviceDir) {
        return RunShell("ls -1 '" + Path(deviceDir) + "' 2>/dev/null");
    }
    CountingClock clock_;
    std::vector<String16> files_;
};

bool IsLink(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

const char kAnrStart[] = "==================Start Get data/anr log for BootMonitor======================\n";

}  // namespace

TEST_F(CaptureDumpsTest, HeadlineHeaderAndOnlineName) {
    platform::LogCapture log;
    DumpAll("hangTemp", "a/b:c\"%&'()*<>?\\{|}", List({"ps", "rm", "cat", "do_dmesg"}),
            List({"-o,pid", "-rf /", "/data/vendor/diag/last_kmsg,/data/vendor/diag/last_tzlog", ""}), false, 7,
            true);
    const std::string dir = "/data/dorva//hangTemp/online";
    const std::string name = Names(dir);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(name, match,
                                 std::regex("7_hangTemp_aXbXcXXXXXXXXXXXXXX_host_42_[0-9]+_-?[0-9]+\n")))
        << name;
    // hangTemp captures stay as text.
    const std::string text = ReadFile(Path(dir + "/" + name.substr(0, name.size() - 1)));
    const std::string rule(56, '=');
    EXPECT_TRUE(std::regex_search(
        text, std::regex("^" + rule + "\n== date: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\n"
                         "== headline: aXbXcXXXXXXXXXXXXXX\n== debuggable: 1\n== hwlevel: unkown\n" +
                         rule + "\n------ \\(uptime\\) in 1s ------\n")))
        << text;
    EXPECT_NE(text.find("------ (ps -o pid) in "), std::string::npos) << text;
    EXPECT_EQ(text.find("(rm "), std::string::npos);
    EXPECT_NE(text.find("------ cat(/data/vendor/diag/last_kmsg,/data/vendor/diag/last_tzlog) ------\n"
                        "can not cat this file because there is no kolto.\n"),
              std::string::npos);
    EXPECT_TRUE(text.find("------ KERNEL LOG (dmesg) ------\n") != std::string::npos ||
                text.find("Unexpected klogctl return value: ") != std::string::npos ||
                text.find("klogctl failure\n\n") != std::string::npos)
        << text;
    // Release builds give an action 5 s; this host is no release build
    // (no "MP" hardware level), so actions get the long time-out.
    EXPECT_NE(text.find("------ (ps -o pid) in 1s ------\n"), std::string::npos) << text;
    EXPECT_TRUE(log.HasLine("There is no kolto on this device", "dorvad", ANDROID_LOG_ERROR));
    const std::string path = Path(dir) + "/" + name.substr(0, name.size() - 1);
    EXPECT_TRUE(log.HasLine("isRecordInLocal is false\n", "dorvad", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log.HasLine("logfile_template:xline_dir=" + Path(dir), "dorvad", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log.HasLine("dump_all path = " + path, "dorvad", ANDROID_LOG_INFO));
    // Every action is announced, the skipped "rm" too.
    EXPECT_TRUE(log.HasLine("dump begin path=" + path + " (ps -o,pid) id=7", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("dump begin path=" + path + " (rm -rf /) id=7", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("dump begin path=" + path + " (do_dmesg ) id=7", "dorvad", ANDROID_LOG_ERROR));

    // An empty headline is "null", and so is the id unless asked for.
    DumpAll("hangTemp", "", List({"do_dumpheap"}), List({""}), false, 7, false);
    EXPECT_TRUE(std::regex_search(Names(dir), std::regex("(^|\n)null_hangTemp_null_host_42_")));
}

TEST_F(CaptureDumpsTest, RefusesMismatchedListsAndOverlongPaths) {
    platform::LogCapture log;
    DumpAll("anr", "x", List({"ps", "df"}), List({""}), false);
    DumpAll("anr", "x", {}, {}, false);
    EXPECT_EQ(CountExact(log, "Error in dump: actions or params exception.", "dorvad", ANDROID_LOG_ERROR), 2u);
    // "/data/dorva/" and the type: 100 bytes are too many, 99 are not.
    DumpAll(std::string(88, 't'), "x", List({"do_dumpheap"}), List({""}), false);
    EXPECT_TRUE(log.HasLine("The length of where or type is too long and the type is " + std::string(88, 't') + "\n",
                            "dorvad", ANDROID_LOG_ERROR));
    EXPECT_EQ(Names("/data/dorva"), "");
    log.Clear();
    DumpAll(std::string(87, 't'), "x", List({"do_dumpheap"}), List({""}), false);
    EXPECT_EQ(log.Count("too long"), 0u);
    EXPECT_EQ(Names("/data/dorva"), std::string(87, 't') + "\n");
}

TEST_F(CaptureDumpsTest, OfflineCapturesRotateOverFiveSlotsAndNoCaptureIsLost) {
    const std::string dir = "/data/dorva//anr/offline";
    const auto age = [&](const std::string& name, time_t when) {
        struct utimbuf times = {when, when};
        utime(Path(dir + "/" + name).c_str(), &times);
    };
    // Six captures leave five slots, each a complete archive and no text.
    for (int i = 0; i < 6; ++i) DumpAll("anr", "h/1", List({"do_dumpheap"}), List({""}), true);
    EXPECT_EQ(Names(dir), "anr_hX1_0.zip\nanr_hX1_1.zip\nanr_hX1_2.zip\nanr_hX1_3.zip\nanr_hX1_4.zip\n");
    // The oldest archive's slot is taken, unless a running capture still
    // writes its text: then the next oldest. A stale text blocks nothing.
    for (int slot = 0; slot < 5; ++slot) age("anr_hX1_" + std::to_string(slot) + ".zip", 1000000 + slot * 10);
    age("anr_hX1_3.zip", 500000);
    WriteFile(Path(dir + "/anr_hX1_3"), "still being written");
    DumpAll("anr", "h/1", List({"do_dumpheap"}), List({""}), true);
    EXPECT_EQ(ReadFile(Path(dir + "/anr_hX1_3")), "still being written");
    EXPECT_GT(ModeOf(Path(dir + "/anr_hX1_0.zip")), 0u);
    age("anr_hX1_3", 1000);
    age("anr_hX1_0.zip", 2000000);
    DumpAll("anr", "h/1", List({"do_dumpheap"}), List({""}), true);
    EXPECT_EQ(Names(dir), "anr_hX1_0.zip\nanr_hX1_1.zip\nanr_hX1_2.zip\nanr_hX1_3.zip\nanr_hX1_4.zip\n");
    EXPECT_EQ(RunShell("unzip -p '" + Path(dir + "/anr_hX1_3.zip") + "' | grep -c headline"), "1\n");

    // Online captures of one type and headline in the same second keep a
    // name each.
    for (int i = 0; i < 3; ++i) DumpAll("anr", "same", List({"do_dumpheap"}), List({""}), false);
    EXPECT_EQ(RunShell("ls '" + Path("/data/dorva/anr/online") + "' | grep -c '_same_.*zip$'"), "3\n");
}

// A packing that fails keeps the text; what killed packings left behind goes
// at the next start, and a headline's commas reach no tool as options.
TEST_F(CaptureDumpsTest, NothingIsLostWhenPackingFailsOrWasKilled) {
    const std::string online = Path("/data/dorva/anr/online");
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, [&] {
        // A directory where the archive goes: the archive cannot be made.
        const std::string text = RunShell("ls '" + online + "' | grep -v zip | head -1");
        mkdir((online + "/" + text.substr(0, text.size() - 1) + ".zip").c_str(), 0700);
    });
    DumpAll("anr", "full", List({"ps"}), List({""}), false);
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
    const std::string kept = RunShell("ls '" + online + "' | grep -v zip");
    ASSERT_FALSE(kept.empty());
    EXPECT_NE(ReadFile(online + "/" + kept.substr(0, kept.size() - 1)).find("== headline: full"), std::string::npos);

    RunShell("mkdir -p '" + Path("/data/nuvilog/stability/reboot") + "'");
    ASSERT_TRUE(WriteFile(online + "/.tarnis-tmp.null_anr_x.zip.0123456789", "half an archive"));
    ASSERT_TRUE(WriteFile(Path("/data/nuvilog/stability/reboot/.tarnis-tmp.y.zip.abcdefghij"), "half a copy"));
    android::CaptureFile::RemoveLeftovers();
    EXPECT_EQ(RunShell("ls -A '" + online + "' '" + Path("/data/nuvilog/stability/reboot") + "' | grep -c tarnis-tmp"),
              "0\n");

    // A local record's copy goes by cp; the headline's commas stay in its name.
    DumpAll("anr", "h,-r,-toutside,x", List({"do_dumpheap"}), List({""}), false, 7, true, {}, "", true);
    EXPECT_EQ(RunShell("ls '" + Path("/data/nuvilog/stability/reboot") + "' | grep -c '_h,-r,-t.*,x_'"), "1\n");
}

TEST_F(CaptureDumpsTest, CompressionTimeoutAndArchiveOfACapture) {
    std::vector<int> timeouts;
    CaptureLogUtil::SetCompressHooksForTesting([&](int timeout) { timeouts.push_back(timeout); }, nullptr);
    DumpAll("anr", "one", List({"do_dumpheap"}), List({""}), false);
    DumpAll("anr", "two", List({"ps"}), List({"-o,pid"}), false);
    EXPECT_EQ(timeouts, (std::vector<int>{600, 120}));
    // The text files are gone; their archives hold them under bare names.
    const std::string names = Names("/data/dorva//anr/online");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(names, match, std::regex("(null_anr_two_[^\n]*)\\.zip\n"))) << names;
    EXPECT_EQ(std::count(names.begin(), names.end(), '\n'), 2) << names;
    const std::string zip = Path("/data/dorva//anr/online/" + match[1].str() + ".zip");
    EXPECT_EQ(RunShell("unzip -Z1 '" + zip + "'"), match[1].str() + "\n");
    EXPECT_NE(RunShell("unzip -p '" + zip + "'").find("== headline: two\n"), std::string::npos);
}

TEST_F(CaptureDumpsTest, BugreportFromTheDumpstateService) {
    // The sandbox declares the bug-report service: init starts and stops it.
    const std::string marker = Path("/service-ran");
    RunShell("mkdir -p '" + Path("/system/etc/init/host") + "'");
    WriteFile(Path("/system/etc/init/host/tarnBugreportState"),
              "echo \"$TARNIS_ROOT\" > \"$TARNIS_ROOT/service-ran\"\nexec sleep 30\n");
    const std::string logDir = Path("/data/dorva//anr/online");
    const std::string report = logDir + "/tarnBugreport-1.zip";
    FakeDumpstate server(true, [&](const std::string&) {
        // A real report takes a while: long enough for the service to start.
        for (int i = 0; i < 200 && ReadFile(marker).empty(); ++i) usleep(10 * 1000);
        WriteFile(report, "bugreport bytes");
        WriteFile(logDir + "/tarnBugreport-1.tmp", "leftover");
        return report;
    });
    platform::LogCapture log;
    DumpAll("anr", "bug", List({"tarnbugreport", "do_dumpheap"}), List({"full", ""}), false);
    EXPECT_EQ(server.Request(), logDir + "|full");
    EXPECT_TRUE(log.HasLine("recv response from dumpstate: " + report, "dorvad", ANDROID_LOG_INFO));
    // The report went into the archive, then was removed with its leftovers.
    ASSERT_EQ(files_.size(), 1u);
    EXPECT_EQ(platform::ToUtf8(files_[0]), report);
    const std::string names = Names("/data/dorva//anr/online");
    EXPECT_EQ(names.find("tarnBugreport"), std::string::npos) << names;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(names, match, std::regex("[^\n]*\\.zip"))) << names;
    EXPECT_EQ(RunShell("unzip -p '" + logDir + "/" + match[0].str() + "' online/tarnBugreport-1.zip"),
              "bugreport bytes");
    // The service ran with the sandbox root and was stopped again.
    EXPECT_EQ(ReadFile(marker), root_.path() + "\n");
    EXPECT_EQ(android::base::GetProperty("ctl.stop", ""), "tarnBugreportState");
    EXPECT_EQ(android::base::GetProperty("init.svc.tarnBugreportState", ""), "stopped");
}

TEST_F(CaptureDumpsTest, LiteBugreportRecordsItsPathAndTalksToDumpstate) {
    android::base::SetProperty("ro.build.ab_update", "true");
    RunShell("mkdir -p '" + Path("/mnt/rescue/dorva") + "'");
    std::string zipProperty;
    platform::LogCapture log;
    {
        FakeDumpstate server(false, [&](const std::string&) {
            zipProperty = android::base::GetProperty("sys.nuvi.bm_zip", "");
            return std::string(255, 'k');
        });
        CaptureLogUtil::dump_lite_bugreport("boot_1", "/data/dorva/lite.txt");
    }
    EXPECT_EQ(zipProperty, "@boot_1");
    EXPECT_EQ(ReadFile(Path("/mnt/rescue/dorva/bootmonitor_log.txt")), Path("/data/dorva/lite.txt"));
    EXPECT_TRUE(log.HasLine("read response from dumpstate: " + std::string(255, 'k'), "dorvad", ANDROID_LOG_DEBUG));
    struct stat st;
    ASSERT_EQ(stat(Path("/data/dorva/lite.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0664u);
    EXPECT_EQ(android::base::GetProperty("sys.nuvi.bm_zip", "unset"), "unset");  // cleared
    EXPECT_EQ(android::base::GetProperty("ctl.stop", ""), "nuvibmdump");
    // No dumpstate at all: twenty tries half a second apart, then the error.
    log.Clear();
    const int64_t before = clock_.slept();
    CaptureLogUtil::dump_lite_bugreport("boot_2", "/data/dorva/lite.txt");
    EXPECT_EQ(clock_.slept() - before, 19 * 500);
    EXPECT_TRUE(log.HasLine("Failed to connect dumpstate socket: No such file or directory", "dorvad", ANDROID_LOG_ERROR));
    // The service is stopped and the request cleared whatever the outcome.
    EXPECT_EQ(android::base::GetProperty("ctl.stop", ""), "nuvibmdump");
    EXPECT_EQ(android::base::GetProperty("sys.nuvi.bm_zip", "unset"), "unset");
}

TEST_F(CaptureDumpsTest, CoredumpWaitsUntilTheFileStopsGrowing) {
    android::base::SetProperty("persist.sys.enable_nuvi_coredump", "true");
    const std::string core = "/data/nuvilog/stability/nativecrash/core_9";
    RunShell("mkdir -p '" + Path("/data/nuvilog/stability/nativecrash") + "'");
    WriteFile(Path(core), "0123456789");
    platform::LogCapture log;
    DumpAll("ne", "crash", List({"do_dumpheap"}), List({""}), false, -1, false,
            List({core.c_str(), "/data/nuvilog/stability/nativecrash/missing"}));
    EXPECT_TRUE(log.HasLine("coredump(" + Path(core) + ") file has created\n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("wait coredump(" + Path(core) + ") 1 times, filesize=10\n", "dorvad"));
    EXPECT_TRUE(log.HasLine("wait coredump(" + Path(core) + ") 2 times, filesize=10\n", "dorvad"));
    EXPECT_TRUE(log.HasLine("dump coredump(" + Path(core) + ") completed, filesize:10\n", "dorvad"));
    const std::string missing = Path("/data/nuvilog/stability/nativecrash/missing");
    for (int attempt = 1; attempt <= 3; ++attempt) {
        EXPECT_TRUE(log.HasLine("wait coredump(" + missing + ") created " + std::to_string(attempt) + " times \n",
                                "dorvad"));
    }
    EXPECT_EQ(log.Count("wait coredump(" + missing + ") created 4 times"), 0u);
    EXPECT_TRUE(log.HasLine("coredump(" + missing + ") file stat fail: No such file or directory\n", "dorvad"));
    EXPECT_EQ(clock_.slept(), 1000 + 3000);  // one poll interval, three creation waits
}

TEST_F(CaptureDumpsTest, AnrTracesOfThisBuildNewestFirst) {
    android::base::SetProperty("ro.build.fingerprint", "velmar/host:16/T/1:user");
    android::base::SetProperty("sys.service.watchdog.timestamp", "10799999");
    WriteFile(Path("/data/system/uiderrors.txt"), "uid errors\n");
    for (int i = 0; i < 12; ++i) {
        const std::string trace = Path("/data/anr/trace_" + std::to_string(i));
        WriteFile(trace, "----- pid 1 -----\nBuild fingerprint: 'velmar/host:16/T/1:user'\nrest\n");
        struct utimbuf times = {2000000 + i, 2000000 + i};
        utime(trace.c_str(), &times);
    }
    const std::string otherBuild = "Build fingerprint: 'velmar/host:15/S/1:user'\n";
    WriteFile(Path("/data/anr/other_build"), otherBuild);
    WriteFile(Path("/data/anr/no_fingerprint"), "nothing here\n");
    RunShell("mkdir -p '" + Path("/data/x") + "'");
    std::vector<DumpAction> actions{{"TITLE ONE", {"echo", "hello"}, 5}, {"", {"true"}, 5}};
    platform::LogCapture log;
    CaptureLogUtil::dump_for_actions("/data/x", "/data/x/cap", actions);
    EXPECT_TRUE(log.HasLine("get watchdog timestamp: 10799999\n", "dorvad", ANDROID_LOG_WARN));
    EXPECT_TRUE(log.HasLine(kAnrStart, "dorvad", ANDROID_LOG_WARN));
    EXPECT_TRUE(log.HasLine("Faild to match " + Path("/data/anr/no_fingerprint") + "\n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("read file for " + std::to_string(otherBuild.size()) +
                                " byte, build.fingerprint prop mismatch\n",
                            "dorvad", ANDROID_LOG_ERROR));
    // Twelve traces of this build and the one of another build matched.
    EXPECT_EQ(CountExact(log, "=============match success!!!=============\n", "dorvad"), 13u);
    std::string expected = "anr/trace_10\nanr/trace_11\n";
    for (int i = 2; i < 10; ++i) expected += "anr/trace_" + std::to_string(i) + "\n";
    expected += "system/uiderrors.txt\nx/cap\n";
    EXPECT_EQ(RunShell("unzip -Z1 '" + Path("/data/x/cap.zip") + "' | sort"), expected);
    const std::string text = RunShell("unzip -p '" + Path("/data/x/cap.zip") + "' x/cap");
    EXPECT_TRUE(std::regex_search(text, std::regex("^={56}\n=== Date: [0-9-]{10} [0-9:]{8} ===\n={56}\n"
                                                   "TITLE ONE\n------ \\(echo hello\\) in 5s ------\nhello\n")))
        << text;
    EXPECT_FALSE(std::ifstream(Path("/data/x/cap")).good());  // packed, then removed

    // A watchdog stamp past three hours skips the traces.
    android::base::SetProperty("sys.service.watchdog.timestamp", "10800000");
    log.Clear();
    CaptureLogUtil::dump_for_actions("/data/x", "/data/x/cap2", actions);
    EXPECT_EQ(RunShell("unzip -Z1 '" + Path("/data/x/cap2.zip") + "' | sort"), "system/uiderrors.txt\nx/cap2\n");
    EXPECT_FALSE(log.HasLine(kAnrStart));
    // Leading zeros do not make the stamp octal.
    for (const auto& [stamp, allowed] : {std::pair<const char*, bool>{"0010799999", true}, {"0010800000", false}}) {
        android::base::SetProperty("sys.service.watchdog.timestamp", stamp);
        log.Clear();
        CaptureLogUtil::dump_for_actions("/data/x", "/data/x/cap4", actions);
        EXPECT_EQ(log.HasLine(kAnrStart), allowed) << stamp;
    }
    // So does a stamp that is not a number, and one that is missing.
    for (const char* stamp : {"1e6", " 42", ""}) {
        android::base::SetProperty("sys.service.watchdog.timestamp", stamp);
        log.Clear();
        CaptureLogUtil::dump_for_actions("/data/x", "/data/x/cap3", actions);
        EXPECT_FALSE(log.HasLine(kAnrStart)) << stamp;
    }
    EXPECT_TRUE(log.HasLine("failed to get watchdog timestamp prop ", "dorvad", ANDROID_LOG_WARN));
}

TEST_F(CaptureDumpsTest, DumpByPowerRunsOnlyWhitelistedActions) {
    platform::LogCapture log;
    CaptureLogUtil::dump_by_power(List({"ps", "sh"}), List({"-o,pid", "-c,echo bad"}), "/data/dorva/dumpsys_by_power", 5);
    const std::string text = ReadFile(Path("/data/dorva/dumpsys_by_power"));
    EXPECT_NE(text.find("------ (ps -o pid) in 5s ------\n"), std::string::npos);
    EXPECT_EQ(text.find("bad"), std::string::npos);
    EXPECT_TRUE(log.HasLine("dump_by_power: action 'sh' not in SUPPORT_ACTION whitelist, skipping", "dorvad",
                            ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("dump begin path=" + Path("/data/dorva/dumpsys_by_power") + " (ps -o,pid)", "dorvad",
                            ANDROID_LOG_ERROR));
    EXPECT_TRUE(CaptureLogUtil::isSupportAction("logc"));
    EXPECT_FALSE(CaptureLogUtil::isSupportAction("rm"));

    // The output stays below /data: not by "..", not through a link.
    tarnis_test::TempDir outside;
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/dorva/out").c_str()), 0);
    for (const std::string& path : {"/data/../../../.." + outside.path() + "/rb.txt", std::string("/data/dorva/out/rb.txt")}) {
        CaptureLogUtil::dump_by_power(List({"ps"}), List({""}), path.c_str(), 5);
    }
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_EQ(log.Count("dump_by_power: \""), 2u);
}

TEST_F(CaptureDumpsTest, RefusesTypesThatAreNotPlainDirectoryNames) {
    RunShell("mkdir -p '" + Path("/mnt/rescue/dorva") + "'");
    platform::LogCapture log;
    // A control byte would forge a log line wherever the type is shown.
    DumpAll("a\nforged", "h", List({"ps"}), List({""}), false);
    EXPECT_EQ(log.Count("type 'a\\x0aforged' is not a plain directory name"), 1u);
    for (const std::string type : {"../x", "", ".", "..", "a/b"}) {
        DumpAll(type, "h", List({"ps"}), List({""}), false);
        EXPECT_EQ(CountExact(log, "Refusing capture: type '" + type + "' is not a plain directory name", "dorvad",
                             ANDROID_LOG_ERROR),
                  1u)
            << type;
    }
    EXPECT_EQ(Names("/data/dorva"), "");
    EXPECT_EQ(Names("/data"), "anr\ndorva\nsystem\n");  // no "x", no "a"
    EXPECT_EQ(log.Count("dump_all path"), 0u);
}

TEST_F(CaptureDumpsTest, WhereMustBeAnExistingDirectoryOnTheCapturePartitions) {
    RunShell("mkdir -p '" + Path("/data/x") + "' '" + Path("/etc") + "' '" + Path("/mnt/rescue/dorva") + "' '" +
             Path("/cache") + "'");
    tarnis_test::TempDir outside;
    ASSERT_EQ(chmod(outside.path().c_str(), 0700), 0);
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/out").c_str()), 0);
    platform::LogCapture log;
    // Out by "..", by a link, not there at all, not a device path; and the
    // rescue-party base may not be left out.
    const std::vector<std::pair<std::string, std::string>> refused{
        {"anr", "/data/../../etc/"}, {"anr", "/data/out/"},       {"anr", "/data/none/"},
        {"anr", "data/x/"},          {"RescuePartyLog", ""},      {"BootFailure", "/data/x/../../etc"},
        {"RescuePartyLog", "/data/out"}};
    for (const auto& [type, where] : refused) {
        DumpAll(type, "h", List({"do_dumpheap"}), List({""}), false, -1, false, {}, where);
        EXPECT_EQ(CountExact(log,
                             "Refusing capture: where '" + where +
                                 "' is not a directory on the data, rescue or cache partition",
                             "dorvad", ANDROID_LOG_ERROR),
                  1u)
            << type << " " << where;
    }
    EXPECT_EQ(Names("/data/dorva"), "");
    EXPECT_EQ(Names("/etc"), "");
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_EQ(ModeOf(outside.path()), 0700u);
    EXPECT_EQ(log.Count("dump_all path"), 0u);

    // Inside, ".." and all, the archive goes there; the rescue partition takes
    // rescue-party captures.
    DumpAll("anr", "h", List({"do_dumpheap"}), List({""}), false, -1, false, {}, "/data/dorva/../x/");
    EXPECT_TRUE(std::regex_match(Names("/data/x"), std::regex("null_anr_h_host_42_[0-9]+_-?[0-9]+\\.zip\n")))
        << Names("/data/x");
    DumpAll("RescuePartyLog", "h", List({"do_dumpheap"}), List({""}), true, -1, false, {}, "/mnt/rescue/dorva");
    EXPECT_EQ(Names("/mnt/rescue/dorva/RescuePartyLog/offline"), "RescuePartyLog_h_0.zip\n");
    EXPECT_EQ(log.Count("Refusing"), refused.size());
}

TEST_F(CaptureDumpsTest, LinksPlantedBelowTheTypeDirectoriesAreNeverWrittenThrough) {
    tarnis_test::TempDir outside;
    const std::string victim = outside.Sub("victim");
    WriteFile(victim, "precious");
    ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
    const std::string offline = Path("/data/dorva//anr/offline");
    RunShell("mkdir -p '" + offline + "'");
    platform::LogCapture log;

    // At the next offline capture's own name: passed over, not opened.
    ASSERT_EQ(symlink(victim.c_str(), (offline + "/anr_h_0").c_str()), 0);
    DumpAll("anr", "h", List({"ps"}), List({""}), true);
    EXPECT_EQ(Names("/data/dorva//anr/offline"), "anr_h_0\nanr_h_1.zip\n");
    EXPECT_EQ(ReadFile(victim), "precious");

    // At the name of the archive whose slot is next: the link goes, the
    // archive takes its place.
    unlink((offline + "/anr_h_0").c_str());
    for (int slot = 2; slot < 5; ++slot) WriteFile(offline + "/anr_h_" + std::to_string(slot) + ".zip", "zip");
    ASSERT_EQ(symlink(victim.c_str(), (offline + "/anr_h_0.zip").c_str()), 0);
    const struct timespec old[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (offline + "/anr_h_0.zip").c_str(), old, AT_SYMLINK_NOFOLLOW), 0);
    DumpAll("anr", "h", List({"ps"}), List({""}), true);
    EXPECT_EQ(ReadFile(victim), "precious");
    EXPECT_EQ(ModeOf(victim), 0600u);
    EXPECT_FALSE(IsLink(offline + "/anr_h_0.zip"));
    EXPECT_EQ(RunShell("unzip -Z1 '" + offline + "/anr_h_0.zip'"), "offline/anr_h_0\n");

    // In the place of a log directory, or of a type directory: refused, and
    // the directory pointed to keeps its mode and stays empty.
    const std::string elsewhere = outside.Sub("dir");
    ASSERT_EQ(mkdir(elsewhere.c_str(), 0700), 0);
    RunShell("mkdir -p '" + Path("/data/dorva/je") + "'");
    ASSERT_EQ(symlink(elsewhere.c_str(), Path("/data/dorva/je/online").c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.c_str(), Path("/data/dorva/ne").c_str()), 0);
    log.Clear();
    DumpAll("je", "h", List({"ps"}), List({""}), false);
    DumpAll("ne", "h", List({"ps"}), List({""}), false);
    EXPECT_TRUE(log.HasLine("failed to create dir " + Path("/data/dorva//je/online") +
                                " :a symbolic link is in its place",
                            "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("failed to create log dir " + Path("/data/dorva//ne") + " :a symbolic link is in its place",
                            "dorvad", ANDROID_LOG_ERROR));
    EXPECT_EQ(RunShell("ls -A '" + elsewhere + "'"), "");
    EXPECT_EQ(ModeOf(elsewhere), 0700u);
    EXPECT_EQ(log.Count("dump_all path"), 0u);
}

// The online directory renamed away while the capture runs, and a link
// planted under its name: what is still written goes to the capture, and
// nothing is packed from or written into the link's target.
TEST_F(CaptureDumpsTest, LogDirectorySwappedForALinkMidCapture) {
    tarnis_test::TempDir outside;
    const std::string online = Path("/data/dorva//anr/online");
    FakeDumpstate server(true, [&](const std::string&) {
        EXPECT_EQ(rename(online.c_str(), (online + ".moved").c_str()), 0);
        EXPECT_EQ(symlink(outside.path().c_str(), online.c_str()), 0);
        return std::string();
    });
    platform::LogCapture log;
    DumpAll("anr", "h", List({"tarnbugreport", "ps"}), List({"full", "-o,pid"}), false);
    server.Request();
    const std::string path = LineMatching(log, "dump_all path = (.*)").substr(strlen("dump_all path = "));
    const std::string name = path.substr(path.find_last_of('/') + 1);
    EXPECT_TRUE(log.HasLine("Refusing to pack " + path + ": its directory was moved", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_NE(ReadFile(online + ".moved/" + name).find("------ (ps -o pid) in 1s ------\n"), std::string::npos);
}

// An empty action is in the whitelist (it occurs in any string) and fails
// as a missing tool does.
TEST_F(CaptureDumpsTest, EmptyActionRunsAndFailsAtExec) {
    EXPECT_TRUE(CaptureLogUtil::isSupportAction(""));
    DumpAll("hangTemp", "h", List({""}), List({""}), false);
    const std::string dir = "/data/dorva//hangTemp/online";
    const std::string name = Names(dir);
    ASSERT_FALSE(name.empty());
    const std::string text = ReadFile(Path(dir + "/" + name.substr(0, name.size() - 1)));
    EXPECT_TRUE(std::regex_search(text, std::regex("------ \\(\\) in 1s ------\n\\*\\*\\* exec\\(\\): No such file or "
                                                   "directory\n\\*\\*\\* : Exit code 255, [0-9]+\n")))
        << text;
}
