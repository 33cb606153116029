// Captures: what they hold and where they go, and their sections side by side.
// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utime.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <regex>
#include <thread>
#include <tuple>

#include <android-base/properties.h>
#include <cutils/sockets.h>

#include "tests/support/DumpSandbox.h"
#include "tests/support/R4ReservedPeer.h"
#include "tests/support/TestClock.h"
#include "tests/support/WaitFor.h"
#include "utils/dump/CaptureFile.h"
#include "utils/dump/SectionPool.h"

using namespace tarnis_test;
using android::CaptureLogUtil;
using android::DumpAction;
using android::SectionPool;
using android::String16;
using android::base::GetProperty;
using android::base::SetProperty;

namespace {
// The dumpstate service's part: the request into `request` (null: the client writes none), then `answer()`.
std::function<void(int)> Dumpstate(std::string* request, std::function<std::string()> answer) {
    return [request, answer](int fd) {
        char buffer[1024] = {};
        const ssize_t n = request != nullptr ? recv(fd, buffer, sizeof(buffer) - 1, 0) : 0;
        if (request != nullptr) request->assign(buffer, n > 0 ? static_cast<size_t>(n) : 0);
        const std::string reply = answer();
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    };
}

class CaptureDumpsTest : public CaptureSandboxTest {
protected:
    void SetUp() override {
        CaptureSandboxTest::SetUp();
        MakeDirs({"/data/dorva", "/data/system", "/data/anr"});
        SetProperty("ro.product.device", "host");
        SetProperty("ro.build.version.incremental", "42");
        SetProperty("ro.debuggable", "1");
        clock_.Install();
        clock_.SetAdvanceOnSleep(true);  // sleeps cost nothing; Slept() counts them
    }
    int64_t Slept() { return clock_.SteadyNowMs() - TestClock::kStartSteadyMs; }
    void DumpAll(const std::string& type, const std::string& headline, std::vector<String16> actions,
                 std::vector<String16> params, bool offline, int id = -1, bool useId = false,
                 std::vector<String16> files = {}, const std::string& whereText = "", bool recordInLocal = false) {
        String16 type16 = platform::ToUtf16(type), headline16 = platform::ToUtf16(headline);
        String16 where = platform::ToUtf16(whereText);
        CaptureLogUtil::dump_all(type16, headline16, actions, params, offline, id, useId, where, files, recordInLocal);
        attached_.clear();
        for (const String16& file : files) attached_ += platform::ToUtf8(file) + "\n";
    }
    // A capture that runs no tool ("do_dumpheap" only lengthens its packing).
    void Quick(const std::string& type, const std::string& headline, bool offline, const std::string& where = "") {
        DumpAll(type, headline, List({"do_dumpheap"}), List({""}), offline, -1, false, {}, where);
    }
    TestClock clock_;
    std::string attached_;  // the attachments dump_all left, one a line
};

class SectionPoolTest : public CaptureSandboxTest {
protected:
    void TearDown() override {
        SectionPool::SetWorkersForTesting(0);
        CaptureSandboxTest::TearDown();
    }
};

void Write(int fd, const std::string& text) { ASSERT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size())); }

const char kAnrStart[] = "==================Start Get data/anr log for BootMonitor======================\n";

}  // namespace

TEST_F(CaptureDumpsTest, HeaderSectionsInOrderAndOnlineName) {
    // "rm" is no whitelisted tool; an empty action is (it occurs in any string) and fails at exec.
    DumpAll("hangTemp", "a/b:c\"%&'()*<>?\\{|}", List({"ps", "rm", "cat", "do_dmesg", ""}),
            List({"-o,pid", "-rf /", "/data/vendor/diag/last_kmsg,/data/vendor/diag/last_tzlog", "", ""}), false, 7,
            true);
    const std::string dir = "/data/dorva//hangTemp/online";
    const std::string name = Names(dir);
    ASSERT_TRUE(std::regex_match(name, std::regex("7_hangTemp_aXbXcXXXXXXXXXXXXXX_host_42_[0-9]+_-?[0-9]+\n")))
        << name;
    // hangTemp captures stay as text.
    const std::string path = Path(dir) + "/" + name.substr(0, name.size() - 1);
    const std::string text = ReadFile(path);
    const std::string rule(56, '=');
    EXPECT_TRUE(std::regex_search(
        text, std::regex("^" + rule + "\n== date: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\n"
                         "== headline: aXbXcXXXXXXXXXXXXXX\n== debuggable: 1\n== hwlevel: unkown\n" +
                         rule + "\n------ \\(uptime\\) in 1s ------\n")))
        << text;
    // Not a release build (no "MP" hardware level): actions get the long time-out, not 5 s.
    size_t at = 0;
    for (const char* section :
         {"------ (ps -o pid) in 1s ------\n",
          "------ cat(/data/vendor/diag/last_kmsg,/data/vendor/diag/last_tzlog) ------\n"
          "can not cat this file because there is no kolto.\n",
          "------ () in 1s ------\n*** exec(): No such file or directory\n*** : Exit code 255, "}) {
        at = text.find(section, at);
        EXPECT_NE(at, std::string::npos) << section << "\nin\n" << text;
    }
    EXPECT_EQ(text.find("(rm "), std::string::npos);
    EXPECT_TRUE(text.find("------ KERNEL LOG (dmesg) ------\n") != std::string::npos ||
                text.find("Unexpected klogctl return value: ") != std::string::npos ||
                text.find("klogctl failure\n\n") != std::string::npos)
        << text;
    EXPECT_TRUE(Logged(log_, "There is no kolto on this device"));
    EXPECT_TRUE(Logged(log_, "isRecordInLocal is false\n", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(Logged(log_, "logfile_template:xline_dir=" + Path(dir), ANDROID_LOG_DEBUG));
    EXPECT_TRUE(Logged(log_, "dump_all path = " + path, ANDROID_LOG_INFO));
    // Every action is announced, the skipped "rm" too.
    for (const std::string action : {"ps -o,pid", "rm -rf /", "do_dmesg "}) {
        EXPECT_TRUE(Logged(log_, "dump begin path=" + path + " (" + action + ") id=7"));
    }
    // An empty headline is "null", and so is the id unless asked for.
    DumpAll("hangTemp", "", List({"do_dumpheap"}), List({""}), false, 7, false);
    EXPECT_TRUE(std::regex_search(Names(dir), std::regex("(^|\n)null_hangTemp_null_host_42_")));
}

// A type or where that could forge a log line, climb out or follow a link is refused, as is dump_by_power off /data.
TEST_F(CaptureDumpsTest, RefusesBadListsTypesWheresAndOverlongPaths) {
    MakeDirs({"/data/w", "/etc", "/mnt/rescue/dorva", "/cache"});
    TempDir outside;
    ASSERT_EQ(chmod(outside.path().c_str(), 0700), 0);
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/out").c_str()), 0);
    DumpAll("anr", "x", List({"ps", "df"}), List({""}), false);
    DumpAll("anr", "x", {}, {}, false);
    EXPECT_EQ(CountExact(log_, "Error in dump: actions or params exception.", "dorvad", ANDROID_LOG_ERROR), 2u);
    const auto badType = [](const std::string& shown) { return "type '" + shown + "' is not a plain directory name"; };
    const auto badWhere = [](const std::string& shown) {
        return "where '" + shown + "' is not a directory on the data, rescue or cache partition";
    };
    const std::tuple<std::string, std::string, std::string> refused[] = {  // type, where, refusal
        {"a\nforged", "", badType("a\\x0aforged")}, {"../x", "", badType("../x")}, {"", "", badType("")},
        {".", "", badType(".")}, {"..", "", badType("..")}, {"a/b", "", badType("a/b")},
        {"anr", "/data/../../etc/", badWhere("/data/../../etc/")}, {"anr", "/data/out/", badWhere("/data/out/")},
        {"anr", "/data/none/", badWhere("/data/none/")}, {"anr", "data/w/", badWhere("data/w/")},
        {"RescuePartyLog", "", badWhere("")}, {"BootFailure", "/data/w/../../etc", badWhere("/data/w/../../etc")},
        {"RescuePartyLog", "/data/out", badWhere("/data/out")},
    };
    for (const auto& [type, where, refusal] : refused) {
        Quick(type, "h", false, where);
        EXPECT_EQ(CountExact(log_, "Refusing capture: " + refusal, "dorvad", ANDROID_LOG_ERROR), 1u) << refusal;
    }
    // "/data/dorva/" and the type: 100 bytes are too many, 99 are not.
    Quick(std::string(88, 't'), "x", false);
    EXPECT_TRUE(Logged(log_, "The length of where or type is too long and the type is " + std::string(88, 't') + "\n"));
    for (const std::string& dir : {"/data/../../../.." + outside.path(), std::string("/data/out")}) {
        CaptureLogUtil::dump_by_power(List({"ps"}), List({""}), (dir + "/rb.txt").c_str(), 5);
    }
    EXPECT_EQ(log_.Count("dump_by_power: \""), 2u);
    // A link in the place of a log directory, or of a type directory.
    MakeDirs({"/data/dorva/je"});
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/dorva/je/online").c_str()), 0);
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/dorva/ne").c_str()), 0);
    Quick("je", "h", false);
    Quick("ne", "h", false);
    const std::string why = " :a symbolic link is in its place";
    EXPECT_TRUE(Logged(log_, "failed to create dir " + Path("/data/dorva//je/online") + why));
    EXPECT_TRUE(Logged(log_, "failed to create log dir " + Path("/data/dorva//ne") + why));
    EXPECT_EQ(Names("/data"), "anr\ndorva\nout\nsystem\nw\n");
    EXPECT_EQ(Names("/data/dorva"), "je\nne\n");
    EXPECT_EQ(Names("/etc"), "");
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_EQ(ModeOf(outside.path()), 0700u);
    EXPECT_EQ(log_.Count("dump_all path"), 0u);

    Quick(std::string(87, 't'), "x", false);
    EXPECT_EQ(log_.Count("too long"), 1u);
    EXPECT_EQ(Names("/data/dorva"), "je\nne\n" + std::string(87, 't') + "\n");
    // Inside, ".." and all, the archive goes there; the rescue partition takes rescue-party captures.
    Quick("anr", "h", false, "/data/dorva/../w/");
    EXPECT_TRUE(std::regex_match(Names("/data/w"), std::regex("null_anr_h_host_42_[0-9]+_-?[0-9]+\\.zip\n")))
        << Names("/data/w");
    Quick("RescuePartyLog", "h", true, "/mnt/rescue/dorva");
    EXPECT_EQ(Names("/mnt/rescue/dorva/RescuePartyLog/offline"), "RescuePartyLog_h_0.zip\n");
    EXPECT_EQ(log_.Count("Refusing"), std::size(refused));
}

TEST_F(CaptureDumpsTest, OfflineCapturesRotateOverFiveSlotsAndNoCaptureIsLost) {
    const std::string dir = "/data/dorva//anr/offline";
    const auto age = [&](const std::string& name, time_t when) {
        struct utimbuf times = {when, when};
        utime(Path(dir + "/" + name).c_str(), &times);
    };
    const std::string fiveSlots = "anr_hX1_0.zip\nanr_hX1_1.zip\nanr_hX1_2.zip\nanr_hX1_3.zip\nanr_hX1_4.zip\n";
    // Six captures leave five slots, each a complete archive and no text.
    for (int i = 0; i < 6; ++i) Quick("anr", "h/1", true);
    EXPECT_EQ(Names(dir), fiveSlots);
    // The oldest archive's slot is taken, or the next if a capture still writes its text; a stale one blocks nothing.
    for (int slot = 0; slot < 5; ++slot) age("anr_hX1_" + std::to_string(slot) + ".zip", 1000000 + slot * 10);
    age("anr_hX1_3.zip", 500000);
    WriteFile(Path(dir + "/anr_hX1_3"), "still being written");
    Quick("anr", "h/1", true);
    EXPECT_EQ(ReadFile(Path(dir + "/anr_hX1_3")), "still being written");
    age("anr_hX1_3", 1000);
    age("anr_hX1_0.zip", 2000000);
    Quick("anr", "h/1", true);
    EXPECT_EQ(Names(dir), fiveSlots);
    EXPECT_EQ(RunShell("unzip -p '" + Path(dir + "/anr_hX1_3.zip") + "' | grep -c headline"), "1\n");
    // Online captures of one type and headline in the same second keep a name each.
    for (int i = 0; i < 3; ++i) Quick("anr", "same", false);
    EXPECT_EQ(RunShell("ls '" + Path("/data/dorva/anr/online") + "' | grep -c '_same_.*zip$'"), "3\n");
}

// A failed packing keeps the text, killed packings' leftovers go at start; a headline's commas are no options.
TEST_F(CaptureDumpsTest, NothingIsLostWhenPackingFailsOrWasKilled) {
    const std::string online = Path("/data/dorva/anr/online");
    std::vector<int> timeouts;
    const auto noteTimeout = [&](int timeout) { timeouts.push_back(timeout); };
    CaptureLogUtil::SetCompressHooksForTesting(noteTimeout, [&] {
        // A directory where the archive goes: the archive cannot be made.
        const std::string text = RunShell("ls '" + online + "' | grep -v zip | head -1");
        mkdir((online + "/" + text.substr(0, text.size() - 1) + ".zip").c_str(), 0700);
    });
    DumpAll("anr", "full", List({"ps"}), List({""}), false);
    CaptureLogUtil::SetCompressHooksForTesting(noteTimeout, nullptr);
    const std::string kept = RunShell("ls '" + online + "' | grep -v zip");
    ASSERT_FALSE(kept.empty());
    EXPECT_NE(ReadFile(online + "/" + kept.substr(0, kept.size() - 1)).find("== headline: full"), std::string::npos);

    const std::string reboot = Path("/data/nuvilog/stability/reboot");
    MakeDirs({"/data/nuvilog/stability/reboot"});
    ASSERT_TRUE(WriteFile(online + "/.tarnis-tmp.null_anr_x.zip.0123456789", "half an archive"));
    ASSERT_TRUE(WriteFile(reboot + "/.tarnis-tmp.y.zip.abcdefghij", "half a copy"));
    android::CaptureFile::RemoveLeftovers();
    EXPECT_EQ(RunShell("ls -A '" + online + "' '" + reboot + "' | grep -c tarnis-tmp"), "0\n");

    // A local record's copy goes by cp; the headline's commas stay in its name.
    DumpAll("anr", "h,-r,-toutside,x", List({"do_dumpheap"}), List({""}), false, 7, true, {}, "", true);
    EXPECT_EQ(RunShell("ls '" + reboot + "' | grep -c '_h,-r,-t.*,x_'"), "1\n");
    // Heap dumps are large: their captures get ten minutes to pack, others two.
    EXPECT_EQ(timeouts, (std::vector<int>{120, 600}));
}

TEST_F(CaptureDumpsTest, BugreportFromTheDumpstateService) {
    // The sandbox declares the bug-report service: init starts and stops it.
    const std::string marker = Path("/service-ran");
    Make("/system/etc/init/host/tarnBugreportState",
         "echo \"$TARNIS_ROOT\" > \"$TARNIS_ROOT/service-ran\"\nexec sleep 30\n");
    const std::string logDir = Path("/data/dorva//anr/online");
    const std::string report = logDir + "/tarnBugreport-1.zip";
    std::string request;
    ReservedPeer server("dumpstate", Dumpstate(&request, [&] {
        // A real report takes a while: long enough for the service to start.
        for (int i = 0; i < 200 && ReadFile(marker).empty(); ++i) usleep(10 * 1000);
        WriteFile(report, "bugreport bytes");
        WriteFile(logDir + "/tarnBugreport-1.tmp", "leftover");
        return report;
    }));
    DumpAll("anr", "bug", List({"tarnbugreport", "do_dumpheap"}), List({"full", ""}), false);
    server.Stop();
    ASSERT_TRUE(Logged(log_, "recv response from dumpstate: " + report, ANDROID_LOG_INFO));
    EXPECT_EQ(request, logDir + "|full");
    // The report went into the archive, then was removed with its leftovers.
    EXPECT_EQ(attached_, "/data/dorva//anr/online/tarnBugreport-1.zip\n");
    const std::string names = Names("/data/dorva//anr/online");
    EXPECT_EQ(names.find("tarnBugreport"), std::string::npos) << names;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(names, match, std::regex("[^\n]*\\.zip"))) << names;
    EXPECT_EQ(RunShell("unzip -p '" + logDir + "/" + match[0].str() + "' online/tarnBugreport-1.zip"),
              "bugreport bytes");
    // The service ran with the sandbox root and was stopped again.
    EXPECT_EQ(ReadFile(marker), root_.path() + "\n");
    EXPECT_EQ(GetProperty("ctl.stop", ""), "tarnBugreportState");
    EXPECT_EQ(GetProperty("init.svc.tarnBugreportState", ""), "stopped");
}

TEST_F(CaptureDumpsTest, FullReportReplyIsAtMost511BytesAndMustNameAFile) {
    // A 511-byte report path in a reply that fills the 512-byte buffer: the last byte is not part of the path.
    const std::string dir = "/data/dorva//hangTemp/online/" + std::string(200, 'r') + "/" + std::string(200, 's');
    const std::string report = dir + "/" + std::string(511 - dir.size() - 1, 'f');
    ASSERT_EQ(report.size(), 511u);
    Make(report, "report");
    const std::pair<std::string, std::string> replies[] = {{report + "Z", report + "\n"},
                                                            {"/data/dorva/none.zip", ""}};
    for (const auto& r : replies) {
        std::string request;
        ReservedPeer server("dumpstate", Dumpstate(&request, [&] { return r.first; }));
        DumpAll("hangTemp", "report", List({"tarnbugreport"}), List({"full"}), false);
        server.Stop();
        EXPECT_EQ(request, Path("/data/dorva//hangTemp/online") + "|full");
        EXPECT_EQ(attached_, r.second);
    }
    EXPECT_TRUE(Logged(log_, "recv response from dumpstate: /data/dorva/none.zip", ANDROID_LOG_INFO));
    EXPECT_TRUE(Logged(log_, "file stat get failed: No such file or directory"));
}

// Below a root deeper than a socket address can spell, the reserved socket is reached through its directory.
TEST_F(CaptureDumpsTest, LiteBugreportBelowARootDeeperThanASocketAddressAllows) {
    platform::SetRoot(root_.Sub(std::string(60, 'd') + "/" + std::string(60, 'e')));
    MakeDirs({"/cache/dorva", "/data/dorva", "/mnt/rescue/dorva"});
    ASSERT_GE(platform::ReservedSocketPath("dumpstate").size(), sizeof(sockaddr_un::sun_path));
    // A name that climbs out of the reserved directory is refused.
    EXPECT_EQ(socket_local_client("../dumpstate", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM), -1);
    EXPECT_EQ(errno, EINVAL);
    std::string zipProperty;
    {
        ReservedPeer server("dumpstate", Dumpstate(nullptr, [&] {
            zipProperty = GetProperty("sys.nuvi.bm_zip", "");
            return std::string(255, 'k');
        }));
        CaptureLogUtil::dump_lite_bugreport("boot_1", "/data/dorva/lite.txt");
    }
    EXPECT_EQ(zipProperty, "@boot_1");
    // Recovery finds the report through a record: on cache, or on rescue for A/B builds.
    EXPECT_EQ(ReadFile(Path("/cache/dorva/bootmonitor_log.txt")), Path("/data/dorva/lite.txt"));
    EXPECT_TRUE(Logged(log_, "read response from dumpstate: " + std::string(255, 'k'), ANDROID_LOG_DEBUG));
    EXPECT_EQ(ModeOf(Path("/data/dorva/lite.txt")), 0664u);
    EXPECT_EQ(GetProperty("sys.nuvi.bm_zip", "unset"), "unset");  // cleared
    EXPECT_EQ(GetProperty("ctl.stop", ""), "nuvibmdump");
    // No dumpstate: twenty tries half a second apart, the error (no socket file), and the same clean-up.
    SetProperty("ro.build.ab_update", "true");
    SetProperty("ctl.stop", "");
    CaptureLogUtil::dump_lite_bugreport("boot_2", "/data/dorva/lite2.txt");
    EXPECT_EQ(Slept(), 19 * 500);
    EXPECT_TRUE(Logged(log_, "Failed to connect dumpstate socket: No such file or directory"));
    EXPECT_EQ(ReadFile(Path("/mnt/rescue/dorva/bootmonitor_log.txt")), Path("/data/dorva/lite2.txt"));
    EXPECT_EQ(GetProperty("ctl.stop", ""), "nuvibmdump");
    EXPECT_EQ(GetProperty("sys.nuvi.bm_zip", "unset"), "unset");
}

TEST_F(CaptureDumpsTest, CoredumpWaitsUntilTheFileStopsGrowing) {
    SetProperty("persist.sys.enable_nuvi_coredump", "true");
    const std::string core = Make("/data/nuvilog/stability/nativecrash/core_9", "0123456789");
    const std::string missing = Path("/data/nuvilog/stability/nativecrash/missing");
    DumpAll("ne", "crash", List({"do_dumpheap"}), List({""}), false, -1, false,
            List({"/data/nuvilog/stability/nativecrash/core_9", "/data/nuvilog/stability/nativecrash/missing"}));
    EXPECT_TRUE(Logged(log_, "coredump(" + core + ") file has created\n"));
    EXPECT_TRUE(log_.HasLine("wait coredump(" + core + ") 1 times, filesize=10\n", "dorvad"));
    EXPECT_TRUE(log_.HasLine("wait coredump(" + core + ") 2 times, filesize=10\n", "dorvad"));
    EXPECT_TRUE(log_.HasLine("dump coredump(" + core + ") completed, filesize:10\n", "dorvad"));
    for (int attempt = 1; attempt <= 3; ++attempt) {
        EXPECT_TRUE(log_.HasLine("wait coredump(" + missing + ") created " + std::to_string(attempt) + " times \n",
                                 "dorvad"));
    }
    EXPECT_EQ(log_.Count("wait coredump(" + missing + ") created 4 times"), 0u);
    EXPECT_TRUE(log_.HasLine("coredump(" + missing + ") file stat fail: No such file or directory\n", "dorvad"));
    EXPECT_EQ(Slept(), 1000 + 3000);  // one poll interval, three creation waits
}

TEST_F(CaptureDumpsTest, AnrTracesOfThisBuildWhileTheWatchdogStampIsRecent) {
    SetProperty("ro.build.fingerprint", "velmar/host:16/T/1:user");
    SetProperty("sys.service.watchdog.timestamp", "10799999");
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
    MakeDirs({"/data/x"});
    std::vector<DumpAction> actions{{"TITLE ONE", {"echo", "hello"}, 5}, {"", {"true"}, 5}};
    CaptureLogUtil::dump_for_actions("/data/x", "/data/x/cap", actions);
    EXPECT_TRUE(Logged(log_, "get watchdog timestamp: 10799999\n", ANDROID_LOG_WARN));
    EXPECT_TRUE(Logged(log_, kAnrStart, ANDROID_LOG_WARN));
    EXPECT_TRUE(Logged(log_, "Faild to match " + Path("/data/anr/no_fingerprint") + "\n"));
    EXPECT_TRUE(Logged(log_, "read file for " + std::to_string(otherBuild.size()) +
                                 " byte, build.fingerprint prop mismatch\n"));
    // Twelve traces of this build and one of another matched; the ten newest of this build go along.
    EXPECT_EQ(CountExact(log_, "=============match success!!!=============\n", "dorvad"), 13u);
    std::string traces = "anr/trace_10\nanr/trace_11\n";
    for (int i = 2; i < 10; ++i) traces += "anr/trace_" + std::to_string(i) + "\n";
    EXPECT_EQ(Entries(Path("/data/x/cap.zip")), traces + "system/uiderrors.txt\nx/cap\n");
    const std::string text = RunShell("unzip -p '" + Path("/data/x/cap.zip") + "' x/cap");
    EXPECT_TRUE(std::regex_search(text, std::regex("^={56}\n=== Date: [0-9-]{10} [0-9:]{8} ===\n={56}\n"
                                                   "TITLE ONE\n------ \\(echo hello\\) in 5s ------\nhello\n")))
        << text;
    EXPECT_FALSE(Exists(Path("/data/x/cap")));  // packed, then removed

    // Three hours or more skips the traces, as does no number; leading zeros do not make a stamp octal.
    const std::pair<const char*, bool> stamps[] = {
        {"10800000", false}, {"0010799999", true}, {"0010800000", false}, {"1e6", false}, {" 42", false}, {"", false}};
    for (const auto& [stamp, allowed] : stamps) {
        SCOPED_TRACE(stamp);
        SetProperty("sys.service.watchdog.timestamp", stamp);
        log_.Clear();
        CaptureLogUtil::dump_for_actions("/data/x", "/data/x/cap2", actions);
        EXPECT_EQ(log_.HasLine(kAnrStart), allowed);
        EXPECT_EQ(Entries(Path("/data/x/cap2.zip")), (allowed ? traces : "") + "system/uiderrors.txt\nx/cap2\n");
    }
    EXPECT_TRUE(Logged(log_, "failed to get watchdog timestamp prop ", ANDROID_LOG_WARN));
}

TEST_F(CaptureDumpsTest, LinksPlantedBelowTheTypeDirectoriesAreNeverWrittenThrough) {
    TempDir outside;
    const std::string victim = outside.Sub("victim");
    WriteFile(victim, "precious");
    ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
    const std::string offline = Path("/data/dorva//anr/offline");
    MakeDirs({"/data/dorva/anr/offline"});
    // At the next offline capture's own name: passed over, not opened.
    ASSERT_EQ(symlink(victim.c_str(), (offline + "/anr_h_0").c_str()), 0);
    DumpAll("anr", "h", List({"ps"}), List({""}), true);
    EXPECT_EQ(Names("/data/dorva//anr/offline"), "anr_h_0\nanr_h_1.zip\n");
    EXPECT_EQ(ReadFile(victim), "precious");
    // At the name of the archive whose slot is next: the link goes, the archive takes its place.
    unlink((offline + "/anr_h_0").c_str());
    for (int slot = 2; slot < 5; ++slot) WriteFile(offline + "/anr_h_" + std::to_string(slot) + ".zip", "zip");
    ASSERT_EQ(symlink(victim.c_str(), (offline + "/anr_h_0.zip").c_str()), 0);
    const struct timespec old[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (offline + "/anr_h_0.zip").c_str(), old, AT_SYMLINK_NOFOLLOW), 0);
    DumpAll("anr", "h", List({"ps"}), List({""}), true);
    EXPECT_EQ(ReadFile(victim), "precious");
    EXPECT_EQ(ModeOf(victim), 0600u);
    EXPECT_EQ(Entries(offline + "/anr_h_0.zip"), "offline/anr_h_0\n");  // a real archive, no link
}

// The online directory swapped for a link mid-capture: the capture is still written, nothing through the link.
TEST_F(CaptureDumpsTest, LogDirectorySwappedForALinkMidCapture) {
    TempDir outside;
    const std::string online = Path("/data/dorva//anr/online");
    std::string request;
    ReservedPeer server("dumpstate", Dumpstate(&request, [&] {
        EXPECT_EQ(rename(online.c_str(), (online + ".moved").c_str()), 0);
        EXPECT_EQ(symlink(outside.path().c_str(), online.c_str()), 0);
        return std::string();
    }));
    DumpAll("anr", "h", List({"tarnbugreport", "ps"}), List({"full", "-o,pid"}), false);
    const std::string path = LineMatching(log_, "dump_all path = (.*)").substr(strlen("dump_all path = "));
    const std::string name = path.substr(path.find_last_of('/') + 1);
    EXPECT_TRUE(Logged(log_, "Refusing to pack " + path + ": its directory was moved"));
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_NE(ReadFile(online + ".moved/" + name).find("------ (ps -o pid) in 1s ------\n"), std::string::npos);
}

TEST_F(SectionPoolTest, SectionsRunTogetherAndAreAppendedInTheOrderAsked) {
    SectionPool::SetWorkersForTesting(4);
    const std::string path = Make("/data/dorva/cap", "header\n");
    android::base::unique_fd out(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    android::base::unique_fd dir(open(Path("/data/dorva").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::atomic<bool> lastStarted{false};
    std::atomic<bool> firstSawLast{false};
    std::vector<std::pair<size_t, size_t>> progress;
    SectionPool pool(out.get(), dir.get());
    // The first section ends only once the last has begun: it finishes last and still comes first.
    pool.Add([&](int fd) {
        firstSawLast = WaitFor([&] { return lastStarted.load(); }, std::chrono::seconds(10));
        Write(fd, "one\n");
    });
    for (const char* text : {"two\n", "three\n", "four\n"}) pool.Add([text](int fd) { Write(fd, text); });
    pool.Add([&](int fd) {
        lastStarted = true;
        Write(fd, std::string(200000, 'x') + "\n");
    });
    // Heard after each append, and repeated while the first is awaited.
    pool.Run([&](size_t done, size_t total) {
        if (done > (progress.empty() ? 0 : progress.back().first)) progress.emplace_back(done, total);
    });
    EXPECT_TRUE(firstSawLast);
    EXPECT_EQ(ReadFile(path), "header\none\ntwo\nthree\nfour\n" + std::string(200000, 'x') + "\n");
    EXPECT_EQ(progress, (std::vector<std::pair<size_t, size_t>>{{1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}}));
    // The buffers were unnamed: nothing is left beside the capture.
    EXPECT_EQ(Names("/data/dorva"), "cap\n");

    // One worker: the caller runs each section straight into the capture.
    SectionPool::SetWorkersForTesting(1);
    SectionPool alone(out.get(), dir.get());
    const std::thread::id caller = std::this_thread::get_id();
    for (int i = 0; i < 2; ++i) alone.Add([&](int fd) { Write(fd, std::this_thread::get_id() == caller ? "c" : "w"); });
    alone.Run();
    EXPECT_EQ(ReadFile(path).substr(ReadFile(path).size() - 2), "cc");
}

// Run together or in turn, a capture reads the same but for times and pids; a tool off the whitelist runs in neither.
TEST_F(SectionPoolTest, ACaptureReadsTheSameRunTogetherAsInTurn) {
    MakeDirs({"/data/dorva"});
    const std::string a = Make("/data/in/a", "alpha\n");
    const std::string b = Make("/data/in/b", std::string(100000, 'b') + "\n");
    const auto capture = [&](size_t workers, const char* name) {
        SectionPool::SetWorkersForTesting(workers);
        const std::string device = std::string("/data/dorva/") + name;
        android::CaptureLogUtil::dump_by_power(List({"cat", "getprop", "cat", "rm", "cat"}),
                                               List({a.c_str(), "ro.none", b.c_str(), "-rf,/", "/data/in/none"}),
                                               device.c_str(), 5);
        const std::regex varying("[0-9]+\\.[0-9]+s elapsed|(Exit code [0-9]+), [0-9]+");
        return std::regex_replace(ReadFile(Path(device)), varying, "$1");
    };
    const std::string inTurn = capture(1, "in_turn");
    EXPECT_EQ(capture(4, "together"), inTurn);
    EXPECT_NE(inTurn.find("alpha\n"), std::string::npos);
    EXPECT_LT(inTurn.find("alpha\n"), inTurn.find(std::string(100000, 'b')));
    EXPECT_NE(inTurn.find("Exit code 1"), std::string::npos);
    EXPECT_NE(inTurn.find("------ (cat " + a + ") in 5s ------\nalpha\n"), std::string::npos) << inTurn;
    EXPECT_EQ(inTurn.find("(rm"), std::string::npos) << inTurn;
    EXPECT_EQ(CountExact(log_, "dump_by_power: action 'rm' not in SUPPORT_ACTION whitelist, skipping", "dorvad"), 2u);
    EXPECT_TRUE(Logged(log_, "dump begin path=" + Path("/data/dorva/in_turn") + " (cat " + a + ")"));
}
