// The daemon's services through tarnisctl in another process (the wire, the caller's uid), or in-process for a
// caller a test cannot become; then tarnisd and its tool as processes: from a shell, by scripts and installed.
// GCC 12 warns falsely inside <regex> under the sanitizers' optimisation.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <android-base/properties.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <dorva/DorvaServiceManager.h>
#include <gtest/gtest.h>
#include <host/Host.h>
#include <host/Utf8.h>
#include <json/json.h>
#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/TarnisUtil.h"
#include "platform/LogCapture.h"
#include "platform/binder/CallerPolicy.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"
#include "service/DorvaNativeDaemon.h"
#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/DumpSandbox.h"
#include "tests/support/FwDaemon.h"
#include "tests/support/FwRecording.h"
#include "tests/support/LogLines.h"
#include "tests/support/ProcessCounts.h"
#include "tests/support/RecordingPeer.h"
#include "tests/support/TempDir.h"

using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using android::DorvaNativeDaemon;
using namespace velmar::kolto;
using tarnis_test::BuiltTool;
using tarnis_test::Holds;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;
using tarnis_test::WaitFor;

namespace {
// What a command printed, standard error included, and how it exited: one text to compare whole.
std::string RunExit(const std::string& command) {
    int status = -1;
    const std::string out = RunShell(command + " 2>&1", &status);
    return out + "exit " + std::to_string(status) + "\n";
}

const std::string kSsiName = std::string(TarnisSsiImpl::descriptor) + "/default";
const std::string kInternalName = std::string(TarnisInternal::descriptor) + "/default";

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        RunShell("mkdir -p " + root_.Sub("data") + " " + root_.Sub("mnt/vendor/persist") + " " + root_.Sub("cache"));
        ASSERT_EQ(AServiceManager_addService(ssi_->asBinder().get(), kSsiName.c_str()), STATUS_OK);
        ASSERT_EQ(AServiceManager_addService(internal_->asBinder().get(), kInternalName.c_str()), STATUS_OK);
        ASSERT_EQ(android::defaultServiceManager()->addService(daemon_->getInterfaceDescriptor(), daemon_, false, 8),
                  android::OK);
        ABinderProcess_startThreadPool();
    }
    void TearDown() override {
        android::ServiceManager::instance().removeAllServices();
        TarnisUtil::SetTarnisSsiIntl(nullptr);
        android::DorvaServiceManager::getInstance().setResultForTesting(0);
        platform::SetRoot("/");
    }
    // A service that stopped answering fails each call in 10 s, not the tool's 30, well within ctest's limit.
    std::string Ctl(const std::string& args) { return tool_.Run("--timeout 10 " + args); }
    std::string CtlExit(const std::string& args) { return RunExit(tool_.Ctl() + " --timeout 10 " + args); }

    TempDir root_;
    const tarnis_test::Daemon tool_{root_};  // for its tool alone
    std::shared_ptr<TarnisSsiImpl> ssi_ = ndk::SharedRefBase::make<TarnisSsiImpl>();
    std::shared_ptr<TarnisInternal> internal_ = ndk::SharedRefBase::make<TarnisInternal>();
    android::sp<DorvaNativeDaemon> daemon_ = new DorvaNativeDaemon();
};

using DorvaNativeDaemonTest = ServiceTest;

// Quotes, a backslash, a tab and another control character; the property also ends in a byte that is no UTF-8.
const std::string kText = "say \"hi\" \\ \tthen\x01 end";
const std::string kProperty = "tarnis.test.odd";
const std::string kPersist = "/mnt/vendor/persist/stability/odd";

// A root of its own, bare, for faults of the start and of the tool.
class DaemonAlone : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(root.path()); }
    void TearDown() override { platform::SetRoot("/"); }

    TempDir root;
    tarnis_test::Daemon daemon{root};
};

// tarnisd on the sandbox script's root, with a stale socket, a persist file and a property of awkward text.
class DaemonTest : public DaemonAlone {
protected:
    void SetUp() override {
        DaemonAlone::SetUp();
        const std::string prepare = std::string(TARNIS_SOURCE_DIR) + "/scripts/prepare-sandbox.sh " + root.path();
        ASSERT_EQ(system(("TARNIS_BUILD_DIR=" TARNIS_BUILD_DIR " " + prepare + " >/dev/null").c_str()), 0);
        ASSERT_TRUE(android::base::SetProperty(kProperty, kText + "\xff"));
        ASSERT_TRUE(WriteFile(root.path() + kPersist, kText));
        // A socket file as a daemon that died leaves it.
        ASSERT_TRUE(android::WireIo::Bind(root.Sub("dev/socket/dorvad")).ok());
        ASSERT_TRUE(WriteFile(root.Sub("bin/logcat"), "#!/bin/sh\nhead -c 6000 /dev/urandom | base64\n"));
        ASSERT_EQ(chmod(root.Sub("bin/logcat").c_str(), 0755), 0);
        ASSERT_TRUE(daemon.Start());
        const auto loaded = [&] { return daemon.Run("dump ModuleManager dump").find("Stopped") == std::string::npos; };
        ASSERT_TRUE(WaitFor(loaded));  // the service answers before every module is loaded
    }

    // tarnisctl with `args`: exit status, standard output, the first line of standard error.
    int Ctl(const std::string& args, std::string* out, std::string* err) {
        const std::string errFile = root.Sub("ctl.err");
        int status = -1;
        *out = RunShell(daemon.Ctl() + " " + args + " 2>" + errFile, &status);
        *err = ReadFile(errFile);
        err->erase(std::min(err->find('\n'), err->size()));
        return status;
    }

    // What bash completion offers for a command line whose last word is being completed.
    std::string Complete(const std::string& words) {
        const std::string script = root.Sub("complete.sh");
        EXPECT_TRUE(WriteFile(script, "source " TARNIS_SOURCE_DIR "/completion/tarnisctl.bash\nCOMP_WORDS=(" +
                                          BuiltTool("tarnisctl") + " " + words +
                                          ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_tarnisctl\n"
                                          "echo \"${COMPREPLY[*]}\"\n"));
        return RunShell("bash " + script + " 2>&1");
    }
};
using ToolsOutputTest = DaemonTest;


// `capture -p`: BEGIN with the archive, at least `counts` section counts rising to the total, OK with it; returns it.
std::string FollowedArchive(const std::string& out, size_t counts) {
    std::istringstream lines(out);
    std::string line, begun;
    size_t last = 0, total = 0, seen = 0;
    while (std::getline(lines, line)) {
        size_t done = 0, all = 0;
        if (begun.empty()) {
            EXPECT_EQ(line.compare(0, 6, "BEGIN:"), 0) << out;
            begun = line.substr(6);
        } else if (sscanf(line.c_str(), "PROGRESS:%zu/%zu", &done, &all) == 2) {
            EXPECT_TRUE((done > last || seen == 0) && done <= all && (total == 0 || all == total)) << out;
            last = done, total = all, ++seen;
        } else {
            EXPECT_EQ(line, "OK:" + begun) << out;
            EXPECT_TRUE(last == total && seen >= counts) << out;
            return begun;
        }
    }
    ADD_FAILURE() << "no OK line in:\n" << out;
    return "";
}

}  // namespace

TEST_F(ServiceTest, IntentsFromTheToolAndHostileMessagesFromThePeerReachTheirReceivers) {
    tarnis_test::InternalReceiver receiver("tarnis.test.TOOL");
    EXPECT_EQ(CtlExit("intent tarnis.test.TOOL '{\"extras\":[{\"key\":\"dir\",\"value_type\":2,\"value\":\"/data/x\"},"
                      "{\"key\":\"n\",\"value_type\":6,\"value\":12}]}'"),
              "exit 0\n");
    ASSERT_TRUE(receiver.Wait(1));
    EXPECT_EQ(receiver.Received()[0].getStringExtra("dir"), "/data/x");
    EXPECT_EQ(receiver.Received()[0].getExtra<int32_t>("n", 0), 12);

    // Too deep for the JSON reader, forging a log line: answered OK, logged in one bounded printable line, delivered.
    const std::string action = "tarnis.test.HOSTILE\n11-23 00:00:00.000 1 1 E Tarnis: forged\xff";
    tarnis_test::InternalReceiver hostile(action);
    platform::LogCapture capture;
    EXPECT_TRUE(internal_->transferMessage(action, std::string(1001, '[') + std::string(1001, ']')).isOk());
    ASSERT_TRUE(hostile.Wait(1));
    EXPECT_EQ(hostile.Received()[0].action, action);
    EXPECT_TRUE(hostile.Received()[0].extras.empty());
    EXPECT_EQ(capture.Count("SSI received message"), 1u);
    EXPECT_EQ(tarnis_test::CountExact(capture, "SSI received message: action tarnis.test.HOSTILE\\x0a11-23 "
                                               "00:00:00.000 1 1 E Tarnis: forged\\xff json " + std::string(1001, '[') +
                                               std::string(23, ']') + "...[978 more bytes]", "", ANDROID_LOG_INFO),
              1u);
}

TEST_F(ServiceTest, ReportsReachTheJournalAndOnlyAnalyticsReportLibraryFailure) {
    for (const char* args : {"event reportEventV2 a b c true", "event reportEventsV2 a '[\"x\",\"y\"]' c false",
                             "event reportSimpleEvent 99 only-text"}) {
        EXPECT_EQ(CtlExit(args), "exit 0\n");
    }
    EXPECT_EQ(tarnis_test::ReadFile(root_.Sub("data/misc/tarnis/events.jsonl")),
              "{\"call\":\"reportEventV2\",\"args\":[\"a\",\"b\",\"c\",true]}\n"
              "{\"call\":\"reportEventsV2\",\"args\":[\"a\",[\"x\",\"y\"],\"c\",false]}\n"
              "{\"call\":\"reportSensorException\",\"args\":[\"only-text\"]}\n");

    android::DorvaServiceManager::getInstance().setResultForTesting(1);
    EXPECT_TRUE(ssi_->reportEventV2("a", "b", "c", false).isOk());
    EXPECT_TRUE(ssi_->reportSimpleEvent(0, "x").isOk());
    EXPECT_EQ(ssi_->reportTrelvoEvents("app", "pkg", {"{}"}, 0).getStatus(), STATUS_UNKNOWN_ERROR);
    // A client in another process sees the failure and says so.
    EXPECT_EQ(CtlExit("event reportTrelvoEvent app pkg '{}' 0"),
              "reportTrelvoEvent: the daemon could not complete the call\nexit 1\n");
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    EXPECT_TRUE(ssi_->reportTrelvoEvent("app", "pkg", "{}", 0).isOk());
}

// tarnisctl starts without jsoncpp and hands JSON commands to tarnisctl-json; copied away alone, it says so.
TEST_F(ServiceTest, TheToolStartsLeanAndHandsJsonCommandsToItsSibling) {
    const std::string tool = tarnis_test::BuiltTool("tarnisctl");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    int status = -1;
    const std::string needed = RunShell("readelf -d " + tool + " | grep NEEDED", &status);
    ASSERT_EQ(status, 0) << needed;
    EXPECT_EQ(needed.find("libjsoncpp"), std::string::npos) << needed;
#endif
    // The transport and the layout, none of the daemon's own code.
    EXPECT_EQ(RunShell("nm -C " + tool + " | grep -cE 'ModuleManager|CaptureFile::|LogManager'"), "0\n");
    TempDir lone;
    ASSERT_EQ(system(("cp " + tool + " " + lone.path() + "/").c_str()), 0);
    EXPECT_EQ(RunExit(lone.Sub("tarnisctl") + " --root " + root_.path() + " event reportEventV2 a b c true"),
              "tarnisctl: event is run by " + lone.path() +
                  "/tarnisctl-json, which could not be started: No such file or directory\nexit 1\n");
}

TEST_F(ServiceTest, BroadcastsGoToTheVendorPeerOnlyWhenAskedAndNeverBack) {
    auto peer = ndk::SharedRefBase::make<tarnis_test::RecordingPeer>();
    const std::string peerName = std::string(tarnis_test::RecordingPeer::descriptor) + "/default";
    platform::LogCapture capture;
    // This end holds the system internal service, so its peer is the vendor one, absent at first.
    TarnisUtil::SetTarnisSsiIntl(internal_);
    InternalBroadcastManager::sendBroadcast(Intent("tarnis.test.PEER"), true);
    EXPECT_TRUE(capture.HasLine("[sendBroadcast] Failed to get Tarnis Vendor instance!",
                                "Tarnis-InternalBroadcastManager", ANDROID_LOG_WARN));

    ASSERT_EQ(AServiceManager_addService(peer->asBinder().get(), peerName.c_str()), STATUS_OK);
    Intent intent("tarnis.test.PEER");
    intent.putExtra("n", 5);
    InternalBroadcastManager::sendBroadcast(intent, true);
    InternalBroadcastManager::sendBroadcast(intent, false);
    // A message from the peer is delivered here but not returned to it.
    InternalBroadcastManager::onTarnisIntlMessageReceived("tarnis.test.PEER", "{\"extras\":[]}");
    {
        std::lock_guard<std::mutex> guard(peer->lock);
        ASSERT_EQ(peer->got.size(), 1u);
        EXPECT_EQ(peer->got[0].first, "tarnis.test.PEER");
        EXPECT_EQ(peer->got[0].second, "{\"extras\":[{\"key\":\"n\",\"value\":5,\"value_type\":6}]}\n");
    }
}

// Refusals reach the client with their messages; the whitelisted half of a batch runs, even a failing tool; the
// shell user runs none.
TEST_F(DorvaNativeDaemonTest, RefusalsReachTheClientAndOnlyAcceptedToolsRunAndNoneForTheShellUser) {
    platform::LogCapture log;
    const struct {
        const char* args;
        std::string said;
        const char* logged;
    } cases[] = {
        {"run-command rm -rf,/ 5", "runCommand:152: Command not allowed\nexit 1\n",
         "runCommand: action 'rm' not in SUPPORT_ACTION whitelist"},
        {"run-command logcat -d,-t,10 5", "result: 0\nexit 0\n", nullptr},
        {"run-batch /data/batch.txt 5 --action rm --param -rf,/ --action cat --param /data/in.txt",
         root_.Sub("data/batch.txt") + "\nexit 0\n",
         "captureLogByRunCommand: action 'rm' not in SUPPORT_ACTION whitelist, skipping"},
        {"run-batch /data/none.txt 5 --action rm", "captureLogByRunCommand:266: No valid commands found\nexit 1\n",
         "captureLogByRunCommand: no valid actions found in the batch"},
        // Negative filter numbers are refused before any socket is made.
        {"sock-filter lo --protocol 17 --extra -1", "attachSockFilter:182: illegal argument!\nexit 1\n", nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CtlExit(c.args), c.said) << c.args;
        EXPECT_TRUE(c.logged == nullptr || log.HasLine(c.logged, "dorvad", ANDROID_LOG_ERROR)) << c.args;
    }
    const std::string batch = ReadFile(root_.Sub("data/batch.txt"));
    EXPECT_EQ(batch.find("(rm"), std::string::npos) << batch;
    EXPECT_TRUE(Holds(batch, "------ (cat /data/in.txt) in 5s ------\n"));
    EXPECT_NE(access(root_.Sub("data/none.txt").c_str(), F_OK), 0);

    // The shell user is told apart by the uid the kernel reports for the caller, whatever the caller claims.
    {
        android::IPCThreadState::ScopedIdentity shell(DorvaNativeDaemon::kShellUid, getpid());
        int32_t result = 7;
        auto st = daemon_->runCommand(platform::ToUtf16("cat"), platform::ToUtf16("/dev/null"), 5, &result);
        EXPECT_STREQ(st.toString8().string(),
                     "Status(-8, EX_SERVICE_SPECIFIC): '-1: runCommand:145: Command not allowed for shell user'");
        EXPECT_EQ(result, 7);
        st = daemon_->captureLogByRunCommand({platform::ToUtf16("cat")}, {platform::ToUtf16("/dev/null")},
                                             platform::ToUtf16("/data/x"), 5);
        EXPECT_STREQ(st.toString8().string(), "Status(-8, EX_SERVICE_SPECIFIC): "
                                              "'-1: captureLogByRunCommand:244: Command not allowed for shell user'");
    }
    EXPECT_TRUE(log.HasLine("runCommand: Shell user (UID 2000) access denied", "dorvad", 6));
    EXPECT_TRUE(log.HasLine("captureLogByRunCommand: Shell user (UID 2000) access denied", "dorvad", 6));
    EXPECT_NE(access(root_.Sub("data/x").c_str(), F_OK), 0);

    // From a process really running as uid 2000, the built-in caller policy refuses the call as on a device.
    if (geteuid() != 0) GTEST_SKIP() << "skipped: changing to uid 2000 needs root";
    ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
    EXPECT_EQ(RunExit("setpriv --reuid=2000 --regid=2000 --clear-groups " + tool_.Ctl() +
                      " run-command cat /dev/null 5"),
              "permission denied: uid 2000 may not call runCommand\nexit 1\n");
}

TEST_F(DorvaNativeDaemonTest, PersistFilesAreListedCreatedWrittenAndRead) {
    const std::string dir = "/mnt/vendor/persist/stability", local = root_.path() + dir;
    // The first listing makes the missing directory and lists nothing.
    EXPECT_EQ(CtlExit("persist list"), "exit 0\n");
    EXPECT_EQ(tarnis_test::ModeOf(local), 0755u);

    EXPECT_EQ(Ctl("persist create " + dir + "/a"), "result: 0\n");
    EXPECT_EQ(Ctl("persist create " + dir + "/missing/b"), "result: -1\n");
    for (const char* name : {"/b", "/.hidden", "/..dots"}) ASSERT_TRUE(WriteFile(local + name, ""));
    EXPECT_EQ(Ctl("persist list | LC_ALL=C sort"), dir + "/..dots\n" + dir + "/a\n" + dir + "/b\n");
    // Written from the start without truncation, as the persist files are.
    EXPECT_EQ(Ctl("persist write " + dir + "/a hello"), "");
    EXPECT_EQ(Ctl("persist write " + dir + "/a HE"), "");
    EXPECT_EQ(Ctl("persist read " + dir + "/a"), "HEllo");

    // Nothing outside is touched through ".." or a link (PathsTest judges paths; here every method refuses).
    ASSERT_TRUE(WriteFile(root_.Sub("outside"), "keep"));
    ASSERT_EQ(symlink(root_.Sub("outside").c_str(), (local + "/link").c_str()), 0);
    ASSERT_EQ(symlink(root_.path().c_str(), (local + "/up").c_str()), 0);
    const tarnis_test::ProcessCounts before = tarnis_test::ProcessCounts::Of();
    const std::pair<std::string, std::string> refusals[] = {
        {"persist write " + dir + "/link X",
         "writeToPersistFile:114: \"" + dir + "/link\" passes through a symbolic link"},
        {"persist create " + dir + "/up/made",
         "createFileInPersist:108: \"" + dir + "/up/made\" passes through a symbolic link"},
        {"persist read /../outside", "readFile:120: \"/../outside\" climbs out of \"" + dir + "\""},
        {"capture ne x --action ps --param x --file /data/../outside",
         "captureLog:45: \"/data/../outside\" is not below \"/data\""},
    };
    for (const auto& [command, said] : refusals) EXPECT_EQ(CtlExit(command), said + "\nexit 1\n");
    EXPECT_EQ(ReadFile(root_.Sub("outside")), "keep");
    EXPECT_FALSE(tarnis_test::Exists(root_.Sub("made")));
    // Refusals leave no descriptor or thread behind.
    EXPECT_TRUE(tarnis_test::ProcessCounts::Await(before)) << before.ToString() << " then "
                                                           << tarnis_test::ProcessCounts::Of().ToString();

    // Files without an end, or that never answer, cost a line and no thread.
    ASSERT_EQ(mkfifo(root_.Sub("mnt/vendor/persist/stability/fifo").c_str(), 0600), 0);
    platform::LogCapture log;
    android::String16 content;
    ASSERT_TRUE(daemon_->readFile(platform::ToUtf16(dir + "/fifo"), &content).isOk());
    EXPECT_EQ(content.size(), 0u);
    EXPECT_EQ(log.Count("is not a regular file; nothing read"), 1u);
}

TEST_F(DorvaNativeDaemonTest, DeviceHelpers) {
    // The core-dump filter of a live process, then of one that does not exist.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    while (child == 0) pause();
    const std::string pid = std::to_string(child);
    // The kernel shows in hexadecimal the "39" and "35" it was given.
    for (const auto& [mode, shown] : {std::pair{"on", "00000027\n"}, std::pair{"off", "00000023\n"}}) {
        EXPECT_EQ(Ctl("core-filter " + pid + " " + mode), "");
        EXPECT_EQ(ReadFile("/proc/" + pid + "/coredump_filter"), shown);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(CtlExit("core-filter " + pid + " on"), "exit 0\n");

    // Mode 1 flashes the plain images, any other mode the signed ones.
    const std::string images = root_.Sub("data/dorva/download/"), byName = root_.Sub("dev/block/bootdevice/by-name/");
    RunShell("mkdir -p " + images + " " + byName);
    for (const char* image : {"apdp.mbn", "msadp.mbn", "dp_AP_signed.mbn", "dp_MSA_signed.mbn"}) {
        ASSERT_TRUE(WriteFile(images + image, image));
    }
    platform::LogCapture log;
    for (const auto& [mode, ap, msa] :
         {std::tuple{"1", "apdp.mbn", "msadp.mbn"}, std::tuple{"7", "dp_AP_signed.mbn", "dp_MSA_signed.mbn"}}) {
        EXPECT_EQ(Ctl(std::string("debug-policy ") + mode), "");
        EXPECT_EQ(ReadFile(byName + "apdp"), ap);
        EXPECT_EQ(ReadFile(byName + "msadp"), msa);
    }
    EXPECT_TRUE(log.HasLine("flash debugpolicy cmd[3] ret=0\n", "dorvad", 3));
    EXPECT_EQ(tarnis_test::ModeOf(images + "dp_MSA_signed.mbn"), 0777u);

    // No station here (and maybe no nl80211): every value keeps its default.
    EXPECT_EQ(CtlExit("station-info tarnis-none0 aa:bb:cc:dd:ee:ff"),
              "signal: 0\nchain_signal_avg: 0 0 0 0\ntx_mcs: -1\ntx_vht_mcs: -1\ntx_he_mcs: -1\ntx_eht_mcs: -1\n"
              "rx_mcs: -1\nrx_vht_mcs: -1\nrx_he_mcs: -1\nrx_eht_mcs: -1\nexit 0\n");

    // The wipe runs the rescue worker on the partition below the root (cache: this "device" is not A/B).
    RunShell("mkdir -p " + root_.Sub("cache/dorva"));
    ASSERT_TRUE(WriteFile(root_.Sub("cache/dorva/old.zip"), "x"));
    EXPECT_EQ(CtlExit("wipe-rescue"), "exit 0\n");
    EXPECT_NE(access(root_.Sub("cache/dorva/old.zip").c_str(), F_OK), 0);
}

// The filtered socket crosses to the client as a descriptor; the client reads what the program lets through.
TEST_F(DorvaNativeDaemonTest, TheFilteredSocketReachesTheClient) {
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root (raw packet sockets)";
    // ' ' at payload byte 4 reads as a TCP data offset of 8; sent until heard, so attach timing does not matter.
    std::atomic<bool> done{false};
    std::thread sender([&done] {
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        const sockaddr_in to{AF_INET, htons(9), {htonl(INADDR_LOOPBACK)}, {}};
        for (int round = 0; !done && round < 100; ++round) {
            for (const char* m : {"XXXX other", "TRN1 hello", "TRN2 wrong"}) {
                sendto(fd, m, strlen(m), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        close(fd);
    });
    const std::string out = CtlExit("sock-filter lo --protocol 17 --payload 'TRN1 h' --extra 3 --count 2 --wait 10");
    done = true;
    sender.join();
    // Each packet cut to the link, IP and UDP headers plus three payload bytes.
    EXPECT_TRUE(Holds(out, "packet 1: 45 bytes\n"));
    EXPECT_TRUE(Holds(out, "packet 2: 45 bytes\n"));
    EXPECT_TRUE(Holds(out, " 54 52 4e\nexit 0\n"));
    EXPECT_EQ(out.find("packet 3"), std::string::npos) << out;
}

TEST_F(DaemonTest, ServesEveryModuleSurvivesHostileCallersRunsOncePerRootAndStopsCleanly) {
    const std::string modules = daemon.Run("dump ModuleManager dump");
    const std::string header = "Current Modules:\n-------------------------\nName \t\t Status\n";
    ASSERT_EQ(modules.compare(0, header.size(), header), 0) << modules;
    EXPECT_EQ(daemon.Out(), "TarnisSsiImpl impl ready!\n");

    // Nested past any parser's patience: the tool warns and sends it; the daemon refuses it with a line.
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    const std::string warned = RunExit(daemon.Ctl() + " intent A '" + deep + "'");
    EXPECT_TRUE(Holds(warned, "tarnisctl: warning: the intent's JSON is not valid JSON ("));
    EXPECT_TRUE(Holds(warned, "); sending it anyway\nexit 0\n"));
    // The list of a report must parse: a clear usage error, no abort.
    const std::string badList = RunExit(daemon.Ctl() + " event reportEventsV2 a '" + deep + "' c false");
    EXPECT_TRUE(Holds(badList, "tarnisctl: event reportEventsV2: JSON_LIST "));
    EXPECT_EQ(badList.substr(badList.size() - 7), "exit 2\n");
    EXPECT_EQ(daemon.Run("dump ModuleManager dump").substr(0, 16), "Current Modules:");

    // A second daemon on the same root says so in one line (its start-up lines aside) and exits, not aborting.
    EXPECT_EQ(RunShell("TARNIS_LOG_LEVEL=W " + daemon.Command() + " 2>&1 >/dev/null; echo \"exit $?\""),
              "tarnisd: another tarnisd (pid " + std::to_string(daemon.pid()) + ") is already running on root " +
                  root.path() + "\nexit 1\n");

    // SIGTERM: sockets withdrawn, lock given up, exit status 0.
    const int stopped = daemon.Stop();
    EXPECT_TRUE(WIFEXITED(stopped) && WEXITSTATUS(stopped) == 0) << stopped;
    EXPECT_EQ(RunShell("ls -A " + root.Sub("dev/binder")), "");
    EXPECT_NE(access(root.Sub("dev/.tarnisd.lock").c_str(), F_OK), 0);
    const std::string log = daemon.Log();
    EXPECT_TRUE(Holds(log, "E Tarnis-JsonUtil: "));
    EXPECT_TRUE(Holds(log, "I tarnisd : tarnisd: SIGTERM received; withdrawing the services and exiting"));
    EXPECT_TRUE(daemon.Start());  // a fresh daemon takes the root over
}

// Captures ordered from a shell, through the service and the capture socket, end as zip archives.
TEST_F(DaemonTest, CapturesOrderedFromAShellEndAsZips) {
    // The caller policy the sandbox starts with is the daemon's built-in one, for the user to edit.
    EXPECT_EQ(ReadFile(root.Sub("system/etc/tarnis/caller_policy.conf")), android::CallerPolicy::kDefaultRules);
    int status = -1;
    // The slow tool holds the third section back while the first two are in.
    const std::string order = "capture -p demo 'a/b:c' --action getprop --param ro.product.device --action top "
                              "--param -b,-n,2,-d,0.5 --action df --param ''";
    const std::string zip = FollowedArchive(daemon.Run(order, &status), 2);
    ASSERT_EQ(status, 0) << zip;
    // The text went into the archive, named for the capture, and is gone from the directory.
    const std::string dir = root.Sub("data/dorva/demo/online/"), name = "null_demo_aXbXc_host_";
    ASSERT_EQ(zip.compare(0, dir.size() + name.size(), dir + name), 0) << zip;
    ASSERT_EQ(zip.compare(zip.size() - 4, 4, ".zip"), 0) << zip;
    EXPECT_EQ(RunShell("ls " + dir), zip.substr(dir.size()) + "\n");
    EXPECT_EQ(RunShell("unzip -Z1 " + zip), zip.substr(dir.size(), zip.size() - dir.size() - 4) + "\n");
    // The tools run are the sandbox's, found on the PATH the daemon set up.
    EXPECT_TRUE(Holds(RunShell("unzip -p " + zip), "s ------\nhost\n[getprop: "));
    EXPECT_EQ(RunExit(daemon.Ctl() + " capture demo h --action getprop --file /etc/passwd -p"),
              "FAIL:captureLog:45: \"/etc/passwd\" is not below \"/data\"\nexit 1\n");

    // The stale socket file was replaced by one anybody may connect to.
    EXPECT_EQ(RunShell("stat -c '%F %a' " + root.Sub("dev/socket/dorvad")), "socket 666\n");
    // A name that would leave the base is answered; the tool says nothing came of it.
    EXPECT_EQ(RunExit(daemon.Ctl() + " capture-request ../x"),
              "tarnisctl: the capture of \"../x\" finished but left no archive: it was too small (under 1024 bytes) "
              "and deleted, or the name was refused (see the daemon's log)\nexit 1\n");
}

TEST_F(DaemonAlone, AFileThatIsNotASocketIsLeftAlone) {
    RunShell("mkdir -p " + root.Sub("dev/socket"));
    ASSERT_TRUE(WriteFile(root.Sub("dev/socket/dorvad"), "precious"));
    ASSERT_TRUE(daemon.Start());
    // The capture server starts on its own thread, after the service answers.
    ASSERT_TRUE(WaitFor([&] { return Holds(daemon.Log(), "Failed to get socket from environment"); }));
    daemon.Stop();
    EXPECT_EQ(ReadFile(root.Sub("dev/socket/dorvad")), "precious");
    EXPECT_TRUE(Holds(daemon.Log(), "tarnisd: no capture socket: " + root.Sub("dev/socket/dorvad") +
                                        " exists and is not a socket: File exists"));
    EXPECT_EQ(RunShell("ls -A " + root.Sub("dev/socket")), "dorvad\n");  // no temporary left behind
}

// A refused registration is fatal: the success line first, then the check aborts, and nothing after it.
TEST_F(DaemonAlone, AbortsWhenItsServiceIsRefused) {
    // This process already serves the name: the system service (registered first), then the native one (last).
    auto squatter = ndk::SharedRefBase::make<TarnisSsiImpl>();
    android::sp<android::DorvaNativeDaemon> dorva = new android::DorvaNativeDaemon();
    const std::string dorvaName = platform::ToUtf8(dorva->getInterfaceDescriptor());
    const struct {
        std::function<bool()> squat;
        std::string name, added, check, never;
    } cases[] = {
        {[&] { return AServiceManager_addService(squatter->asBinder().get(), kSsiName.c_str()) == STATUS_OK; },
         kSsiName, "Velmar Tarnis-System Service is added in ServiceManager...",
         "Check failed: status == STATUS_OK (status=", "Internal Service is added"},
        {[&] {
             return android::defaultServiceManager()->addService(dorva->getInterfaceDescriptor(), dorva) == android::OK;
         },
         dorvaName, "Velmar DorvaNativeDaemon common Impl System Service is added in ServiceManager...",
         "Check failed: err == android::OK (err=", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.squat());
        int status = -1;
        const std::string err = RunShell(daemon.Command() + " 2>&1 >/dev/null", &status);
        EXPECT_NE(status, 0);
        const size_t added = err.find(c.added);
        EXPECT_TRUE(Holds(err, c.check));
        EXPECT_LT(added, err.find(c.check)) << err;
        EXPECT_TRUE(c.never.empty() || err.find(c.never) == std::string::npos) << err;
        android::ServiceManager::instance().removeService(c.name);
    }
}

// A service that accepts and never answers costs the tool its --timeout, and the user reads why.
TEST_F(DaemonAlone, TheToolGivesUpOnASilentServiceWithASentence) {
    ASSERT_EQ(system(("mkdir -p " + root.Sub("dev/binder")).c_str()), 0);
    android::base::unique_fd silent = android::WireIo::Bind(android::ServiceManager::SocketPath(kSsiName));
    ASSERT_TRUE(silent.ok());
    ASSERT_EQ(listen(silent.get(), 8), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RunExit(daemon.Ctl() + " --timeout 0.5 dump ModuleManager dump"),
              "tarnisctl: no reply from service " + kSsiName + " within 500 ms\nexit 1\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(RunShell(daemon.Ctl() + " --timeout soon dump 2>&1 | head -1"),
              "tarnisctl: --timeout needs a number of seconds between 0 and 86400, not 'soon'\n");
    silent.reset();
    unlink(android::ServiceManager::SocketPath(kSsiName).c_str());
    EXPECT_EQ(RunExit(daemon.Ctl() + " dump"), "tarnisctl: service " + kSsiName + " is not running below root " +
                                                  root.path() + " (is tarnisd running?)\nexit 1\n");
}

// Each form is one strict document; a failure prints none and keeps its sentence and exit status.
TEST_F(ToolsOutputTest, EachCommandsJsonFormAndFailuresStaySentences) {
    const std::string persist = "{\"path\":\"" + kPersist;
    const struct {
        std::string args;
        int status;
        std::string said;  // the document, or for a failure the sentence on standard error
    } cases[] = {
        // The byte that is no UTF-8 travels as the surrogate escape the journal uses, the rest as RFC 8259 spells it.
        {"getprop --json " + kProperty, 0,
         "{\"name\":\"" + kProperty + "\",\"value\":\"say \\\"hi\\\" \\\\ \\tthen\\u0001 end\\udcff\"}"},
        {"dump --json CaptureServer", 0,
         R"({"module":"CaptureServer","text":"dorvad: running\nrequests: 0 served, 0 refused, 0 dropped\n"})"},
        {"dump --json ModuleManager", 0,
         R"({"text":"Tarnis ModuleManager:\nload <module name> \t\t Load a module that is not running\n)"
         R"(dump \t\t Get Current Modules Status.\n"})"},
        {"dump --json ModuleManager dump", 0,
         R"({"modules":[{"module":"AndroidCrashMonitor","running":true},{"module":"BootLogDumper","running":true},)"
         R"({"module":"BootMonitor","running":true},{"module":"CaptureServer","running":true},)"
         R"({"module":"F2fsTrack","running":true},{"module":"KernelTrack","running":true},)"
         R"({"module":"LogManager","running":true},{"module":"OTAMonitor","running":true},)"
         R"({"module":"RescueSpace","running":true},{"module":"TombstoneMonitor","running":true}]})"},
        {"station-info --json tarnis-none0 aa:bb:cc:dd:ee:ff", 0,
         R"({"interface":"tarnis-none0","peer":"aa:bb:cc:dd:ee:ff","signal":0,"chain_signal_avg":[0,0,0,0],)"
         R"("tx_mcs":-1,"tx_vht_mcs":-1,"tx_he_mcs":-1,"tx_eht_mcs":-1,"rx_mcs":-1,"rx_vht_mcs":-1,"rx_he_mcs":-1,)"
         R"("rx_eht_mcs":-1})"},
        {"persist --json list", 0, "{\"files\":[\"" + kPersist + "\"]}"},
        {"persist --json read " + kPersist, 0, persist + R"(","text":"say \"hi\" \\ \tthen\u0001 end"})"},
        {"persist --json create " + kPersist + "2", 0, persist + "2\",\"result\":0}"},
        {"run-command --json cat /proc/version 5", 0, R"({"result":0})"},
        {"run-batch --json /data/batch.txt 5 --action cat --param /proc/version", 0,
         "{\"path\":\"" + root.Sub("data/batch.txt") + "\"}"},
        {"capture --json ../x h --action getprop", 1,
         "tarnisctl: the daemon finished the capture but made no archive of it; its log says why (a refused type or "
         "directory, or no space)"},
        {"dump --json NoSuchModule", 1, "Module NoSuchModule not found!!"},
        {"dump --json ModuleManager load NoSuchModule", 1, "Load module NoSuchModule failed! See Logcat for details."},
        {"getprop --json a b c", 2, "tarnisctl: getprop takes at most NAME and DEFAULT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out, err;
        ASSERT_EQ(Ctl(c.args, &out, &err), c.status) << out << err;
        EXPECT_EQ(c.status == 0 ? out : err, c.status == 0 ? c.said + "\n" : c.said);
        EXPECT_EQ(c.status == 0 ? err : out, "");
    }

    // Where values vary: one document and nothing after it, as a strict reader takes it; the members scripts use.
    Json::CharReaderBuilder strict;
    Json::CharReaderBuilder::strictMode(&strict.settings_);
    const std::unique_ptr<Json::CharReader> reader(strict.newCharReader());
    const auto read = [&](const std::string& args) {
        std::string out, err;
        Json::Value document;
        EXPECT_EQ(Ctl(args, &out, &err), 0) << err;
        EXPECT_TRUE(reader->parse(out.data(), out.data() + out.size(), &document, &err)) << err << "\n" << out;
        return document;
    };
    EXPECT_EQ(read("getprop --json")["properties"]["ro.product.device"], "host");
    const Json::Value modules = read("dump --json")["modules"];
    EXPECT_EQ(modules[0]["module"], "AndroidCrashMonitor");
    for (const Json::Value& module : modules) EXPECT_TRUE(module["text"].isString()) << module;
    const std::string capture =
        read("capture --json demo h --action getprop --param ro.product.device")["archive"].asString();
    EXPECT_EQ(capture.rfind(root.Sub("data/dorva/demo/online/null_demo_h_host_"), 0), 0u) << capture;
    // This sandbox is an A/B device: the archive is kept on the rescue partition.
    const std::string kept = read("capture-request --json BootFailure")["archive"].asString();
    EXPECT_EQ(kept.rfind(root.Sub("mnt/rescue/dorva/BootFailure/BootFailure_"), 0), 0u) << kept;
    EXPECT_EQ(RunShell("unzip -tq '" + kept + "' >/dev/null && echo ok"), "ok\n");
}

// What an install puts where, and that the installed tools run, tarnisctl finding its sibling for the JSON commands.
TEST_F(ToolsOutputTest, InstallPutsToolsInitServiceConfigAndCompletionInPlace) {
    TempDir prefix;
    int status = -1;
    const std::string said =
        RunShell("cmake --install " TARNIS_BUILD_DIR " --prefix " + prefix.path() + " 2>&1", &status);
    ASSERT_EQ(status, 0) << said;
    for (const std::string tool : {"tarnisd", "tarnisctl", "tarnis-blackbox"}) {
        const std::regex version(tool + " [0-9]+\\.[0-9]+\\.[0-9]+ \\(([0-9a-f]+(-dirty)?|unknown)\\)\n");
        EXPECT_TRUE(std::regex_match(RunShell(prefix.Sub("bin/" + tool) + " --version"), version)) << tool;
    }
    const std::string source = TARNIS_SOURCE_DIR;
    EXPECT_EQ(ReadFile(prefix.Sub("etc/init/tarnisd.rc")), ReadFile(source + "/init/tarnisd.rc"));
    // The one default configuration, as the sandbox got it.
    EXPECT_EQ(ReadFile(prefix.Sub("etc/tarnsys/log_config.json")),
              ReadFile(root.Sub("system_ext/etc/tarnsys/log_config.json")));
    EXPECT_EQ(ReadFile(prefix.Sub("share/bash-completion/completions/tarnisctl")),
              ReadFile(source + "/completion/tarnisctl.bash"));

    EXPECT_EQ(RunExit(prefix.Sub("bin/tarnisctl") + " --root " + root.path() + " event reportSimpleEvent 7 x"),
              "exit 0\n");
}

// Commands and their options from the tool's help, modules from the daemon on the line's root, none without one.
TEST_F(ToolsOutputTest, CompletionAsksTheToolAndTheDaemon) {
    TempDir empty;
    const std::string r = "--root " + root.path() + " ";
    const struct {
        std::string words;
        std::string offered;
    } cases[] = {
        {"st", "station-info"},
        {"--r", "--root"},
        {"--timeout 3 pe", "persist"},
        {r + "getprop --", "--help --json"},
        {r + "persist --json r", "read"},
        {r + "core-filter 12 o", "on off"},
        {r + "dump ''", "ModuleManager AndroidCrashMonitor BootLogDumper BootMonitor CaptureServer F2fsTrack "
                        "KernelTrack LogManager OTAMonitor RescueSpace TombstoneMonitor"},
        {"--root=" + root.path() + " dump ModuleManager load Res", "RescueSpace"},
        {"--root " + empty.path() + " dump ''", "ModuleManager"},
    };
    for (const auto& c : cases) EXPECT_EQ(Complete(c.words), c.offered + "\n") << c.words;
}
