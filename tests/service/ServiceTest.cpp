// The daemon's services through tarnisctl (the wire, the caller's uid), or in-process for a caller we cannot be.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <dorva/DorvaServiceManager.h>
#include <host/Host.h>
#include <host/Utf8.h>
#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/TarnisUtil.h"
#include "platform/LogCapture.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
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

namespace {


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
    std::string Ctl(const std::string& args, int* status = nullptr) { return tool_.Run(args, status); }

    TempDir root_;
    const tarnis_test::Daemon tool_{root_};  // for its tool alone
    std::shared_ptr<TarnisSsiImpl> ssi_ = ndk::SharedRefBase::make<TarnisSsiImpl>();
    std::shared_ptr<TarnisInternal> internal_ = ndk::SharedRefBase::make<TarnisInternal>();
    android::sp<DorvaNativeDaemon> daemon_ = new DorvaNativeDaemon();
};

using DorvaNativeDaemonTest = ServiceTest;

}  // namespace

TEST_F(ServiceTest, IntentFromTheToolReachesAReceiverWithItsExtras) {
    tarnis_test::InternalReceiver receiver("tarnis.test.TOOL");
    int status = -1;
    Ctl("intent tarnis.test.TOOL '{\"extras\":[{\"key\":\"dir\",\"value_type\":2,\"value\":\"/data/x\"},"
        "{\"key\":\"n\",\"value_type\":6,\"value\":12}]}'", &status);
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(receiver.Wait(1));
    EXPECT_EQ(receiver.Received()[0].getStringExtra("dir"), "/data/x");
    EXPECT_EQ(receiver.Received()[0].getExtra<int32_t>("n", 0), 12);
}

// Too deep for the JSON reader, forging a log line: answered OK, logged in one bounded printable line, delivered.
TEST_F(ServiceTest, HostileMessageFromThePeerIsLoggedPrintablyAndStillDelivered) {
    const std::string action = "tarnis.test.HOSTILE\n11-23 00:00:00.000 1 1 E Tarnis: forged\xff";
    tarnis_test::InternalReceiver receiver(action);
    platform::LogCapture capture;
    EXPECT_TRUE(internal_->transferMessage(action, std::string(1001, '[') + std::string(1001, ']')).isOk());
    ASSERT_TRUE(receiver.Wait(1));
    EXPECT_EQ(receiver.Received()[0].action, action);
    EXPECT_TRUE(receiver.Received()[0].extras.empty());
    EXPECT_EQ(capture.Count("SSI received message"), 1u);
    EXPECT_EQ(tarnis_test::CountExact(capture, "SSI received message: action tarnis.test.HOSTILE\\x0a11-23 "
                                               "00:00:00.000 1 1 E Tarnis: forged\\xff json " + std::string(1001, '[') +
                                               std::string(23, ']') + "...[978 more bytes]", "", ANDROID_LOG_INFO),
              1u);
}

TEST_F(ServiceTest, ReportsReachTheJournalAndOnlyAnalyticsReportLibraryFailure) {
    int status = -1;
    for (const char* args : {"event reportEventV2 a b c true", "event reportEventsV2 a '[\"x\",\"y\"]' c false",
                             "event reportSimpleEvent 99 only-text"}) {
        Ctl(args, &status);
        EXPECT_EQ(status, 0) << args;
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
    EXPECT_TRUE(Holds(Ctl("event reportTrelvoEvent app pkg '{}' 0", &status), "reportTrelvoEvent: "));
    EXPECT_EQ(status, 1);
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    EXPECT_TRUE(ssi_->reportTrelvoEvent("app", "pkg", "{}", 0).isOk());
}

// tarnisctl starts without jsoncpp and hands JSON commands to tarnisctl-json; copied away alone, it says so.
TEST_F(ServiceTest, TheToolStartsLeanAndHandsJsonCommandsToItsSibling) {
    const std::string tool = tarnis_test::BuiltTool("tarnisctl");
    int status = -1;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const std::string needed = RunShell("readelf -d " + tool + " | grep NEEDED", &status);
    ASSERT_EQ(status, 0) << needed;
    EXPECT_EQ(needed.find("libjsoncpp"), std::string::npos) << needed;
#endif
    // The transport and the layout, none of the daemon's own code.
    EXPECT_EQ(RunShell("nm -C " + tool + " | grep -cE 'ModuleManager|CaptureFile::|LogManager'"), "0\n");
    TempDir lone;
    ASSERT_EQ(system(("cp " + tool + " " + lone.path() + "/").c_str()), 0);
    EXPECT_EQ(RunShell(lone.Sub("tarnisctl") + " --root " + root_.path() + " event reportEventV2 a b c true 2>&1",
                       &status),
              "tarnisctl: event is run by " + lone.path() +
                  "/tarnisctl-json, which could not be started: No such file or directory\n");
    EXPECT_EQ(status, 1);
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

// Refusals reach the client with their messages; the whitelisted half of a batch runs, even a failing tool.
TEST_F(DorvaNativeDaemonTest, RefusalsReachTheClientAndOnlyAcceptedToolsRun) {
    platform::LogCapture log;
    const struct {
        const char* args;
        std::string out;
        int status;
        const char* logged;
    } cases[] = {
        {"run-command rm -rf,/ 5", "runCommand:152: Command not allowed\n", 1,
         "runCommand: action 'rm' not in SUPPORT_ACTION whitelist"},
        {"run-command logcat -d,-t,10 5", "result: 0\n", 0, nullptr},
        {"run-batch /data/batch.txt 5 --action rm --param -rf,/ --action cat --param /data/in.txt",
         root_.Sub("data/batch.txt") + "\n", 0,
         "captureLogByRunCommand: action 'rm' not in SUPPORT_ACTION whitelist, skipping"},
        {"run-batch /data/none.txt 5 --action rm", "captureLogByRunCommand:266: No valid commands found\n", 1,
         "captureLogByRunCommand: no valid actions found in the batch"},
        // Negative filter numbers are refused before any socket is made.
        {"sock-filter lo --protocol 17 --extra -1", "attachSockFilter:182: illegal argument!\n", 1, nullptr},
    };
    for (const auto& c : cases) {
        int status = -1;
        EXPECT_EQ(Ctl(c.args, &status), c.out) << c.args;
        EXPECT_EQ(status, c.status) << c.args;
        EXPECT_TRUE(c.logged == nullptr || log.HasLine(c.logged, "dorvad", ANDROID_LOG_ERROR)) << c.args;
    }
    const std::string batch = ReadFile(root_.Sub("data/batch.txt"));
    EXPECT_EQ(batch.find("(rm"), std::string::npos) << batch;
    EXPECT_TRUE(Holds(batch, "------ (cat /data/in.txt) in 5s ------\n"));
    EXPECT_NE(access(root_.Sub("data/none.txt").c_str(), F_OK), 0);
}

// The shell user is told apart by the uid the kernel reports for the caller, whatever the caller claims.
TEST_F(DorvaNativeDaemonTest, TheShellUserIsRefusedTheTools) {
    platform::LogCapture log;
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
    int status = -1;
    EXPECT_EQ(RunShell("setpriv --reuid=2000 --regid=2000 --clear-groups " + tool_.Ctl() +
                           " run-command cat /dev/null 5 2>&1", &status),
              "permission denied: uid 2000 may not call runCommand\n");
    EXPECT_EQ(status, 1);
}

TEST_F(DorvaNativeDaemonTest, PersistFilesAreListedCreatedWrittenAndRead) {
    const std::string dir = "/mnt/vendor/persist/stability", local = root_.path() + dir;
    int status = -1;
    // The first listing makes the missing directory and lists nothing.
    EXPECT_EQ(Ctl("persist list", &status), "");
    EXPECT_EQ(status, 0);
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
    for (const std::string& command : {"persist write " + dir + "/link X", "persist create " + dir + "/up/made",
                                       std::string("persist read /../outside"),
                                       std::string("capture ne x --action ps --param x --file /data/../outside")}) {
        const std::string said = Ctl(command, &status);
        EXPECT_NE(status, 0) << command;
        EXPECT_TRUE(said.find("symbolic link") != std::string::npos || said.find("not below") != std::string::npos ||
                    said.find("climbs out") != std::string::npos) << command << ": " << said;
    }
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
    int status = -1;
    EXPECT_EQ(Ctl("core-filter " + pid + " on", &status), "");
    EXPECT_EQ(status, 0);

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
    EXPECT_EQ(Ctl("station-info tarnis-none0 aa:bb:cc:dd:ee:ff", &status),
              "signal: 0\nchain_signal_avg: 0 0 0 0\ntx_mcs: -1\ntx_vht_mcs: -1\ntx_he_mcs: -1\ntx_eht_mcs: -1\n"
              "rx_mcs: -1\nrx_vht_mcs: -1\nrx_he_mcs: -1\nrx_eht_mcs: -1\n");
    EXPECT_EQ(status, 0);

    // The wipe runs the rescue worker on the partition below the root (cache: this "device" is not A/B).
    RunShell("mkdir -p " + root_.Sub("cache/dorva"));
    ASSERT_TRUE(WriteFile(root_.Sub("cache/dorva/old.zip"), "x"));
    EXPECT_EQ(Ctl("wipe-rescue", &status), "");
    EXPECT_EQ(status, 0);
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
    int status = -1;
    const std::string out =
        Ctl("sock-filter lo --protocol 17 --payload 'TRN1 h' --extra 3 --count 2 --wait 10", &status);
    done = true;
    sender.join();
    EXPECT_EQ(status, 0) << out;
    // Each packet cut to the link, IP and UDP headers plus three payload bytes.
    EXPECT_TRUE(Holds(out, "packet 1: 45 bytes\n"));
    EXPECT_TRUE(Holds(out, "packet 2: 45 bytes\n"));
    EXPECT_TRUE(Holds(out, " 54 52 4e\n"));
    EXPECT_EQ(out.find("packet 3"), std::string::npos) << out;
}
