// The native daemon service, served from this process below a fresh root and
// called the way its clients call it: through tarnisctl in another process
// (the wire, the real caller's uid), and in-process where a test needs to be
// a caller it cannot become.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <log/log.h>

#include <android/binder_process.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <host/Host.h>

#include "platform/LogCapture.h"
#include "platform/binder/ServiceManager.h"
#include "service/DorvaNativeDaemon.h"
#include "tests/support/FwDaemon.h"
#include "tests/support/ProcessCounts.h"
#include "tests/support/TempDir.h"

using android::DorvaNativeDaemon;
using tarnis_test::Holds;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;

namespace {

class DorvaNativeDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        RunShell("mkdir -p " + root_.Sub("data") + " " + root_.Sub("mnt/vendor/persist") + " " + root_.Sub("cache"));
        ctl_ = tarnis_test::BuiltTool("tarnisctl") + " --root " + root_.path();
        daemon_ = new DorvaNativeDaemon();
        ASSERT_EQ(android::defaultServiceManager()->addService(daemon_->getInterfaceDescriptor(), daemon_, false, 8),
                  android::OK);
        ABinderProcess_startThreadPool();
    }
    void TearDown() override {
        android::ServiceManager::instance().removeService(platform::ToUtf8(daemon_->getInterfaceDescriptor()));
        platform::SetRoot("/");
    }
    // Runs tarnisctl; its standard output and error together.
    std::string Ctl(const std::string& args, int* status) { return RunShell(ctl_ + " " + args + " 2>&1", status); }

    TempDir root_;
    std::string ctl_;
    android::sp<DorvaNativeDaemon> daemon_;
};

}  // namespace

// Refusals reach the client with their messages; only the whitelisted half of
// a batch runs, and a whitelisted tool that fails still counts as run.
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

// The shell user is told apart by the uid the kernel reports for the caller,
// whatever the caller claims.
TEST_F(DorvaNativeDaemonTest, TheShellUserIsRefusedTheTools) {
    platform::LogCapture log;
    {
        android::IPCThreadState::ScopedIdentity shell(DorvaNativeDaemon::kShellUid, getpid());
        int32_t result = 7;
        android::binder::Status st =
            daemon_->runCommand(platform::ToUtf16("cat"), platform::ToUtf16("/dev/null"), 5, &result);
        EXPECT_EQ(st.exceptionCode(), EX_SERVICE_SPECIFIC);
        EXPECT_EQ(st.serviceSpecificErrorCode(), -1);
        EXPECT_STREQ(st.exceptionMessage().string(), "runCommand:145: Command not allowed for shell user");
        EXPECT_EQ(result, 7);
        st = daemon_->captureLogByRunCommand({platform::ToUtf16("cat")}, {platform::ToUtf16("/dev/null")},
                                             platform::ToUtf16("/data/x"), 5);
        EXPECT_STREQ(st.exceptionMessage().string(),
                     "captureLogByRunCommand:244: Command not allowed for shell user");
    }
    EXPECT_TRUE(log.HasLine("runCommand: Shell user (UID 2000) access denied", "dorvad", 6));
    EXPECT_TRUE(log.HasLine("captureLogByRunCommand: Shell user (UID 2000) access denied", "dorvad", 6));
    EXPECT_NE(access(root_.Sub("data/x").c_str(), F_OK), 0);

    // Through the wire from a process that really runs as uid 2000: the
    // built-in caller policy keeps the service to system callers, as on a device.
    if (geteuid() != 0) GTEST_SKIP() << "skipped: changing to uid 2000 needs root";
    ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
    int status = -1;
    EXPECT_EQ(RunShell("setpriv --reuid=2000 --regid=2000 --clear-groups " + ctl_ + " run-command cat /dev/null 5 2>&1",
                       &status),
              "permission denied: uid 2000 may not call runCommand\n");
    EXPECT_EQ(status, 1);
}

TEST_F(DorvaNativeDaemonTest, PersistFilesAreListedCreatedWrittenAndRead) {
    int status = -1;
    // The first listing makes the missing directory and lists nothing.
    EXPECT_EQ(Ctl("persist list", &status), "");
    EXPECT_EQ(status, 0);
    struct stat st;
    ASSERT_EQ(stat(root_.Sub("mnt/vendor/persist/stability").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);

    const std::string dir = "/mnt/vendor/persist/stability";
    EXPECT_EQ(Ctl("persist create " + dir + "/a", &status), "result: 0\n");
    EXPECT_EQ(Ctl("persist create " + dir + "/missing/b", &status), "result: -1\n");
    ASSERT_TRUE(WriteFile(root_.Sub("mnt/vendor/persist/stability/b"), ""));
    ASSERT_TRUE(WriteFile(root_.Sub("mnt/vendor/persist/stability/.hidden"), ""));
    ASSERT_TRUE(WriteFile(root_.Sub("mnt/vendor/persist/stability/..dots"), ""));
    android::String16 list;
    ASSERT_TRUE(daemon_->getFilesFromPersist(&list).isOk());
    const std::string text = platform::ToUtf8(list);
    std::set<std::string> names;
    for (size_t at = 0; at <= text.size();) {
        const size_t comma = std::min(text.find(',', at), text.size());
        names.insert(text.substr(at, comma - at));
        at = comma + 1;
    }
    EXPECT_EQ(names, (std::set<std::string>{dir + "/a", dir + "/b", dir + "/..dots"})) << text;

    // Written from the start without truncation, as the persist files are.
    EXPECT_EQ(Ctl("persist write " + dir + "/a hello", &status), "");
    EXPECT_EQ(Ctl("persist write " + dir + "/a HE", &status), "");
    EXPECT_EQ(Ctl("persist read " + dir + "/a", &status), "HEllo");

    // Nothing outside the directory is made, written or read: not by "..",
    // not through a link at the name or on the way.
    ASSERT_TRUE(WriteFile(root_.Sub("outside"), "keep"));
    ASSERT_EQ(symlink(root_.Sub("outside").c_str(), root_.Sub("mnt/vendor/persist/stability/link").c_str()), 0);
    ASSERT_EQ(symlink(root_.path().c_str(), root_.Sub("mnt/vendor/persist/stability/up").c_str()), 0);
    // How each kind of path is judged is PathsTest's; here every method
    // that takes one refuses, and the link at the name is this service's own check.
    const tarnis_test::ProcessCounts before = tarnis_test::ProcessCounts::Of();
    for (const char* command : {"persist write /mnt/vendor/persist/stability/link X",
                                "persist create /mnt/vendor/persist/stability/up/made", "persist read /../outside",
                                "capture ne x --action ps --param x --file /data/../outside"}) {
        const std::string said = Ctl(command, &status);
        EXPECT_NE(status, 0) << command;
        EXPECT_TRUE(said.find("symbolic link") != std::string::npos || said.find("not below") != std::string::npos ||
                    said.find("climbs out") != std::string::npos) << command << ": " << said;
    }
    EXPECT_EQ(ReadFile(root_.Sub("outside")), "keep");
    EXPECT_FALSE(std::filesystem::exists(root_.Sub("made")));
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
    if (child == 0) {
        pause();
        _exit(0);
    }
    int status = -1;
    // The kernel shows in hexadecimal the "39" and "35" it was given.
    EXPECT_EQ(Ctl("core-filter " + std::to_string(child) + " on", &status), "");
    EXPECT_EQ(ReadFile("/proc/" + std::to_string(child) + "/coredump_filter"), "00000027\n");
    EXPECT_EQ(Ctl("core-filter " + std::to_string(child) + " off", &status), "");
    EXPECT_EQ(ReadFile("/proc/" + std::to_string(child) + "/coredump_filter"), "00000023\n");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(Ctl("core-filter " + std::to_string(child) + " on", &status), "");
    EXPECT_EQ(status, 0);

    // Mode 1 flashes the plain images, any other mode the signed ones.
    RunShell("mkdir -p " + root_.Sub("data/dorva/download") + " " + root_.Sub("dev/block/bootdevice/by-name"));
    for (const char* image : {"apdp.mbn", "msadp.mbn", "dp_AP_signed.mbn", "dp_MSA_signed.mbn"}) {
        ASSERT_TRUE(WriteFile(root_.Sub(std::string("data/dorva/download/") + image), image));
    }
    platform::LogCapture log;
    EXPECT_EQ(Ctl("debug-policy 1", &status), "");
    EXPECT_EQ(ReadFile(root_.Sub("dev/block/bootdevice/by-name/apdp")), "apdp.mbn");
    EXPECT_EQ(ReadFile(root_.Sub("dev/block/bootdevice/by-name/msadp")), "msadp.mbn");
    EXPECT_TRUE(log.HasLine("flash debugpolicy cmd[3] ret=0\n", "dorvad", 3));
    EXPECT_EQ(Ctl("debug-policy 7", &status), "");
    EXPECT_EQ(ReadFile(root_.Sub("dev/block/bootdevice/by-name/apdp")), "dp_AP_signed.mbn");
    EXPECT_EQ(ReadFile(root_.Sub("dev/block/bootdevice/by-name/msadp")), "dp_MSA_signed.mbn");
    struct stat st;
    ASSERT_EQ(stat(root_.Sub("data/dorva/download/dp_MSA_signed.mbn").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);

    // No station here (and maybe no nl80211): every value keeps its default.
    EXPECT_EQ(Ctl("station-info tarnis-none0 aa:bb:cc:dd:ee:ff", &status),
              "signal: 0\nchain_signal_avg: 0 0 0 0\ntx_mcs: -1\ntx_vht_mcs: -1\ntx_he_mcs: -1\ntx_eht_mcs: -1\n"
              "rx_mcs: -1\nrx_vht_mcs: -1\nrx_he_mcs: -1\nrx_eht_mcs: -1\n");
    EXPECT_EQ(status, 0);

    // The wipe runs the rescue worker on the partition below the root.
    // (on the cache partition: this "device" is not A/B)
    RunShell("mkdir -p " + root_.Sub("cache/dorva"));
    ASSERT_TRUE(WriteFile(root_.Sub("cache/dorva/old.zip"), "x"));
    EXPECT_EQ(Ctl("wipe-rescue", &status), "");
    EXPECT_EQ(status, 0);
    EXPECT_NE(access(root_.Sub("cache/dorva/old.zip").c_str(), F_OK), 0);
}

// The filtered socket crosses to the client as a descriptor, and the client
// reads the packets the program lets through.
TEST_F(DorvaNativeDaemonTest, TheFilteredSocketReachesTheClient) {
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root (raw packet sockets)";
    // The program reads a TCP data offset at transport byte 12: for UDP that is
    // payload byte 4, where ' ' (0x20) stands for the 8-byte header.
    // Sent until the client has what it waits for, so that the moment the
    // filter is attached does not matter; every round holds one datagram that
    // does not match.
    std::atomic<bool> done{false};
    std::thread sender([&done] {
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(9);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (int round = 0; !done && round < 100; ++round) {
            for (const char* m : {"XXXX other", "TRN1 hello", "TRN2 wrong"}) {
                sendto(fd, m, strlen(m), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
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
