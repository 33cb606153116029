// Captures: what they hold and where they go, their sections side by side, the runners that run their tools,
// the wait for a child, the directory helpers and the packer.
// GCC 12 warns falsely inside <regex> under the sanitizers' optimisation.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
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
#include "utils/dump/ChildWait.h"
#include "utils/dump/CmdTool.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/dump/SectionPool.h"

using namespace tarnis_test;
using android::CaptureLogUtil;
using android::DumpAction;
using android::SectionPool;
using android::String16;
using android::base::GetProperty;
using android::base::SetProperty;
using android::ChildWait;
using android::CmdTool;

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

using CapturePackagerTest = CaptureSandboxTest;
using DirectoryHelpersTest = CaptureSandboxTest;

int Compress(const char* capture, const char* where, std::vector<String16>* files = nullptr, int seconds = 5,
             bool recordInLocal = false) {
    return CaptureLogUtil::do_compress(capture, where, files, seconds, recordInLocal);
}

using CommandRunnerTest = SandboxTest;
using CmdToolTest = SandboxTest;
using ChildWaitTest = SandboxTest;

// This runner has no tag of its own: its lines carry the log's default one.
bool CmdToolLogged(const platform::LogCapture& log, const std::string& text, int prio = ANDROID_LOG_ERROR) {
    return log.HasLine("dorvad cmdtool " + text, platform::DefaultLogTag(), prio);
}

pid_t Sleeper() {
    const pid_t pid = fork();
    while (pid == 0) pause();
    return pid;
}

// As init of a pid namespace: 0 if a ChildWait whose child was reaped elsewhere left the pid's newcomer alone.
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
    EXPECT_EQ(attached_, "/data/dorva//anr/online/tarnBugreport-1.zip\n");
    const std::string names = Names("/data/dorva//anr/online");
    EXPECT_EQ(names.find("tarnBugreport"), std::string::npos) << names;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(names, match, std::regex("[^\n]*\\.zip"))) << names;
    EXPECT_EQ(RunShell("unzip -p '" + logDir + "/" + match[0].str() + "' online/tarnBugreport-1.zip"),
              "bugreport bytes");
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
    EXPECT_LT(inTurn.find("alpha\n"), inTurn.find(std::string(100000, 'b')));
    EXPECT_NE(inTurn.find("Exit code 1"), std::string::npos);
    EXPECT_NE(inTurn.find("------ (cat " + a + ") in 5s ------\nalpha\n"), std::string::npos) << inTurn;
    EXPECT_EQ(inTurn.find("(rm"), std::string::npos) << inTurn;
    EXPECT_EQ(CountExact(log_, "dump_by_power: action 'rm' not in SUPPORT_ACTION whitelist, skipping", "dorvad"), 2u);
    EXPECT_TRUE(Logged(log_, "dump begin path=" + Path("/data/dorva/in_turn") + " (cat " + a + ")"));
}

TEST_F(CapturePackagerTest, ArchivePathAndEntryNames) {
    Make("/data/dorva/ne/online/cap", "capture text\n");
    Make("/data/anr/trace_1", "trace\n");
    MakeDirs({"/data/x", "/etc"});
    std::vector<String16> files = List({"/data/anr/trace_1"});
    // A writable directory written with its final slash receives the archive.
    EXPECT_EQ(Compress("/data/dorva/ne/online/cap", "/data/x/", &files), 0);
    const std::string zip = Path("/data/x/cap.zip");
    EXPECT_EQ(Entries(zip), "anr/trace_1\ncap\n");
    EXPECT_EQ(RunShell("unzip -p '" + zip + "' cap"), "capture text\n");

    // Without the final slash, or to a missing or off-partition directory, the archive goes beside the capture.
    const std::string beside = Path("/data/dorva/ne/online/cap.zip");
    for (const char* where : {"/data/x", "/data/none/", "/data/../etc/"}) {
        SCOPED_TRACE(where);
        unlink(beside.c_str());
        EXPECT_EQ(Compress("/data/dorva/ne/online/cap", where), 0);
        EXPECT_EQ(Entries(beside), "cap\n");
    }
    EXPECT_EQ(Names("/etc"), "");

    // A `where` swapped for a link mid-packing: the archive still goes into the directory that was checked.
    TempDir outside;
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, [&] {
        rename(Path("/data/x").c_str(), Path("/data/x.moved").c_str());
        symlink(outside.path().c_str(), Path("/data/x").c_str());
    });
    EXPECT_EQ(Compress("/data/dorva/ne/online/cap", "/data/x/", &files), 0);
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_EQ(Entries(Path("/data/x.moved/cap.zip")), "anr/trace_1\ncap\n");
}

// A "gbg" attachment renames the archive; the mode, offline database and local record use the new name.
TEST_F(CapturePackagerTest, OfflineDatabaseAndLocalRecordCopiesOfTheRenamedArchive) {
    ASSERT_TRUE(SetProperty("persist.sys.nuviofflinedb", "true"));
    MakeDirs({"/data/nuvilog/stability"});
    Make("/data/gbg/dump.bin");
    const std::string capture = "/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789";
    Make(capture);
    std::vector<String16> gbg = List({"/data/gbg/dump.bin"});
    EXPECT_EQ(Compress(capture.c_str(), nullptr, &gbg, 5, true), 0);
    const std::string renamed = Path(capture + ".zip.mtk");
    EXPECT_EQ(Entries(renamed), "7_ne_head_dev_inc_123_456_789\ngbg/dump.bin\n");
    EXPECT_FALSE(Exists(Path(capture + ".zip")));
    EXPECT_EQ(ModeOf(renamed), 0774u);
    // Fields 1, 5, 6, 7 and 3 of "/7_ne_head_dev_inc_123_456_789.zip.mtk".
    const std::string copies = RunShell("cd '" + Path("/data/nuvilog") + "' && ls *.zip");
    EXPECT_TRUE(std::regex_match(copies, std::regex("ne_[0-9]{4}(-[0-9]{2}){5}_123_456_789\\.zip\\.mtk_dev\\.zip\n")))
        << copies;
    EXPECT_EQ(Names("/data/nuvilog/stability/reboot"), "7_ne_head_dev_inc_123_456_789.zip.mtk\n");
    EXPECT_TRUE(Logged(log_, "start copy log which ruleid is not -1"));
    EXPECT_TRUE(Logged(log_, "copy " + renamed));

    // A link planted at the local record's name is replaced, not written through.
    const std::string victim = root_.Sub("victim");
    WriteFile(victim, "precious");
    const std::string record = Path("/data/nuvilog/stability/reboot/7_ne_head_dev_inc_123_456_789.zip.mtk");
    ASSERT_EQ(unlink(record.c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), record.c_str()), 0);
    EXPECT_EQ(Compress(capture.c_str(), nullptr, &gbg, 5, true), 0);
    EXPECT_EQ(ReadFile(victim), "precious");
    EXPECT_EQ(Entries(record), "7_ne_head_dev_inc_123_456_789\ngbg/dump.bin\n");

    // A name with too few fields is skipped, never read past its end.
    Make("/data/dorva/ne/online/short_name");
    EXPECT_EQ(Compress("/data/dorva/ne/online/short_name", nullptr), 0);
    EXPECT_TRUE(Logged(log_, "skip offline db copy of " + Path("/data/dorva/ne/online/short_name.zip") +
                                ": 2 name fields, 8 needed"));
}

TEST_F(CapturePackagerTest, SlowWorkerTimesOutButFinishesItsArchive) {
    Make("/data/dorva/t/online/cap", "slow\n");
    std::mutex lock;
    std::string workerName;
    cpu_set_t workerCpus;
    CPU_ZERO(&workerCpus);
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, [&] {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        std::lock_guard<std::mutex> guard(lock);
        workerName = name;
        sched_getaffinity(0, sizeof(workerCpus), &workerCpus);
        std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Compress("/data/dorva/t/online/cap", nullptr, nullptr, 1), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    const std::string zip = Path("/data/dorva/t/online/cap.zip");
    ASSERT_TRUE(WaitFor([&] {
        int status = -1;
        RunShell("unzip -tq '" + zip + "' >/dev/null 2>&1", &status);
        return status == 0;
    }));
    EXPECT_EQ(RunShell("unzip -p '" + zip + "' cap"), "slow\n");
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(workerName, "CaptureLog_Comp");
    EXPECT_GT(CPU_COUNT(&workerCpus), 0);
    for (int cpu = 6; cpu < CPU_SETSIZE; ++cpu) EXPECT_FALSE(CPU_ISSET(cpu, &workerCpus)) << cpu;
}

// Attachments are the client's paths: nothing off /data or through a link is packed, opened up or deleted.
TEST_F(CapturePackagerTest, NativeCrashFilesDeletedOrKeptAndHostileAttachmentsTouchNothing) {
    const std::string core = Make("/data/nuvilog/stability/nativecrash/core_1", "core");
    const std::string tomb = Make("/data/nuvilog/stability/nativecrash/tombstones/tomb_1", "tomb");
    Make("/data/dorva/ne/online/1_ne_x");
    TempDir outside;
    const std::string secret = outside.Sub("secret.txt");
    ASSERT_TRUE(WriteFile(secret, "secret"));
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/nuvilog/stability/nativecrash/planted").c_str()), 0);
    const std::string climb = "/data/nuvilog/stability/nativecrash/../../../.." + outside.path() + "/secret.txt";
    const std::string up = "/data/../" + outside.path() + "/secret.txt";
    std::atomic<int> seenTimeout{0};
    CaptureLogUtil::SetCompressHooksForTesting([&](int timeout) { seenTimeout = timeout; }, nullptr);
    std::vector<String16> files =
        List({"/data/nuvilog/stability/nativecrash/core_1", "/data/nuvilog/stability/nativecrash/tombstones/tomb_1",
              climb.c_str(), "/data/nuvilog/stability/nativecrash/planted/secret.txt", up.c_str()});

    ASSERT_TRUE(SetProperty("persist.reboot.coredump", "true"));
    EXPECT_EQ(Compress("/data/dorva/ne/online/1_ne_x", nullptr, &files), 0);
    EXPECT_TRUE(Logged(log_, "skip delete file(" + core + ") \n"));
    EXPECT_TRUE(Logged(log_, "skip delete file(" + tomb + ") \n"));
    EXPECT_EQ(log_.Count("delete file("), 2u);
    // Each native crash adds four minutes for its core dump; a refused one nothing.
    EXPECT_EQ(seenTimeout.load(), 5 + 2 * 240);
    EXPECT_TRUE(Exists(core));
    EXPECT_EQ(Entries(Path("/data/dorva/ne/online/1_ne_x.zip")), "1_ne_x\nnativecrash/core_1\ntombstones/tomb_1\n");

    ASSERT_TRUE(SetProperty("persist.reboot.coredump", "false"));
    log_.Clear();
    EXPECT_EQ(Compress("/data/dorva/ne/online/1_ne_x", nullptr, &files), 0);
    EXPECT_FALSE(Exists(core));
    EXPECT_TRUE(Exists(tomb));  // the tombstone monitor's own copies stay
    EXPECT_TRUE(Logged(log_, "delete file(" + core + ") \n"));
    EXPECT_TRUE(Logged(log_, "skip delete file(" + tomb + ") \n", ANDROID_LOG_WARN));
    EXPECT_EQ(CountExact(log_, "delete file(" + tomb + ") \n"), 0u);
    EXPECT_EQ(log_.Count("delete file("), 2u);
    EXPECT_EQ(log_.Count("attachment refused"), 3u);
    EXPECT_EQ(ReadFile(secret), "secret");
    EXPECT_EQ(ModeOf(secret), 0600u);

    // Only captures of native crashes ("_ne_") clean up.
    Make("/data/nuvilog/stability/nativecrash/core_2");
    Make("/data/dorva/je/online/1_je_x");
    std::vector<String16> other = List({"/data/nuvilog/stability/nativecrash/core_2"});
    EXPECT_EQ(Compress("/data/dorva/je/online/1_je_x", nullptr, &other), 0);
    EXPECT_TRUE(Exists(Path("/data/nuvilog/stability/nativecrash/core_2")));
}

TEST_F(CapturePackagerTest, AtMostSixteenFilesOpenedUpPerAttachment) {
    MakeDirs({"/data/many", "/data/linked"});
    for (int i = 0; i < 40; ++i) chmod(Make("/data/many/f" + std::to_string(i), "x").c_str(), 0600);
    int count = 0;
    CaptureLogUtil::include_zip_files(Path("/data/many").c_str(), &count);
    EXPECT_EQ(count, 16);
    EXPECT_EQ(RunShell("find '" + Path("/data/many") + "' -type f -perm 0777 | wc -l"), "16\n");

    // A link is counted but its target not opened up; the uid errors file keeps its mode.
    const std::string outside = Make("/outside", "private");
    chmod(outside.c_str(), 0600);
    symlink(outside.c_str(), Path("/data/linked/link").c_str());
    const std::string uidErrors = Make("/data/system/uiderrors.txt");
    chmod(uidErrors.c_str(), 0640);
    for (const std::string& attachment : {Path("/data/linked"), uidErrors}) {
        count = 0;
        CaptureLogUtil::include_zip_files(attachment.c_str(), &count);
        EXPECT_EQ(count, 1) << attachment;
    }
    EXPECT_EQ(ModeOf(outside), 0600u);
    EXPECT_EQ(ModeOf(uidErrors), 0640u);
}

TEST_F(DirectoryHelpersTest, DeleteDirContentsKeepsExclusionsAndNeverFollowsLinks) {
    const std::string dir = Path("/tree");
    for (const char* file : {"/tree/a", "/tree/keep/k", "/tree/sub/deeper/d", "/outside/precious"}) Make(file, "p");
    symlink(Path("/outside").c_str(), (dir + "/link").c_str());
    const auto keep = [](const char* name, bool isDir) { return isDir && strcmp(name, "keep") == 0; };
    EXPECT_EQ(android::delete_dir_contents(dir.c_str(), false, keep), 0);
    EXPECT_EQ(RunShell("cd '" + dir + "' && find . | sort"), ".\n./keep\n./keep/k\n");
    EXPECT_EQ(android::delete_dir_contents(dir.c_str(), true, nullptr), 0);
    EXPECT_FALSE(Exists(dir));
    // A link in the directory's own place: neither emptied through nor removed.
    const std::string linked = Path("/linked") + "/";
    symlink(Path("/outside").c_str(), Path("/linked").c_str());
    EXPECT_EQ(android::delete_dir_contents(linked.c_str(), true, nullptr), -1);
    EXPECT_EQ(ReadFile(Path("/outside/precious")), "p");
    EXPECT_TRUE(Logged(log_, "Couldn't opendir " + linked + ": Not a directory\n"));
    EXPECT_EQ(android::delete_dir_contents(Path("/none").c_str(), false, nullptr), -1);
    EXPECT_TRUE(Logged(log_, "Couldn't opendir " + Path("/none") + ": No such file or directory\n"));
}

TEST_F(DirectoryHelpersTest, CreateDirIfNeededMakesOrCorrectsOnlyRealDirectories) {
    const std::string made = Path("/made");
    umask(022);
    EXPECT_EQ(android::create_dir_if_needed(made.c_str(), 0750), 0);
    EXPECT_EQ(ModeOf(made), 0750u);
    chmod(made.c_str(), 0700);
    EXPECT_EQ(android::create_dir_if_needed((made + "/").c_str(), 0750), 0);
    EXPECT_EQ(ModeOf(made), 0750u);
    EXPECT_TRUE(Logged(log_, made + "/perm 700 expected 750", ANDROID_LOG_WARN));
    log_.Clear();  // already right: nothing to say
    EXPECT_EQ(android::create_dir_if_needed(made.c_str(), 0750), 0);
    EXPECT_EQ(log_.Count("perm", "dorvad"), 0u);
    // A file, or a link planted in the directory's place: refused, the link's target's mode untouched.
    Make("/file");
    MakeDirs({"/outside"});
    ASSERT_EQ(chmod(Path("/outside").c_str(), 0700), 0);
    symlink(Path("/outside").c_str(), Path("/planted").c_str());
    for (const std::string& path : {Path("/file"), Path("/planted") + "/"}) {
        EXPECT_EQ(android::create_dir_if_needed(path.c_str(), 0777), -1);
        EXPECT_TRUE(Logged(log_, path + " is not a dir.")) << path;
    }
    EXPECT_EQ(ModeOf(Path("/outside")), 0700u);
}

TEST_F(DirectoryHelpersTest, CopyFileCopiesWholeFilesAndRefusesALinkedTarget) {
    const std::string from = Make("/file", std::string(300 * 1024, 'b'));
    const std::string to = Path("/copy");
    EXPECT_EQ(android::copy_file(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(ReadFile(to), std::string(300 * 1024, 'b'));
    EXPECT_EQ(ModeOf(to), 0664u & ~022u);
    WriteFile(from, "12345");
    EXPECT_EQ(android::copy_file(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(ReadFile(to), "12345");
    EXPECT_EQ(android::copy_file(Path("/none").c_str(), to.c_str()), -1);
    EXPECT_TRUE(Logged(log_, "Failed to open copy from " + Path("/none") + "  reason: No such file or directory"));
    const std::string planted = Path("/planted");
    symlink(Make("/precious", "p").c_str(), planted.c_str());
    EXPECT_EQ(android::copy_file(from.c_str(), planted.c_str()), -1);
    EXPECT_EQ(ReadFile(Path("/precious")), "p");
    EXPECT_TRUE(Logged(log_, "Failed to open copy to " + planted + "  reason: Too many levels of symbolic links"));
}

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
    EXPECT_EQ(child.Wait(0, nullptr, nullptr), ChildWait::kTimedOut);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(child.Stop("dorvad", ""));
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // SIGTERM first, noted and ignored; SIGKILL only after the one-second grace.
    EXPECT_EQ(ReadFile(record), "TERM\n");
    EXPECT_GE(took, 0.95);
    EXPECT_LT(took, 2.5);
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
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root (a pid namespace of its own, where pids are reused)";
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
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "skipped: needs CAP_SYS_ADMIN (unshare(CLONE_NEWPID) refused)";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "check " << WEXITSTATUS(status) << " failed";
}
