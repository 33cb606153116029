#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <log/log.h>

#include "modules/BootMonitor/BootMonitorThread.h"
#include "tests/modules/BootMonitor/BootMonitorFixture.h"

namespace bootmonitor_test {
namespace {

using android::BootMonitorThread;
using android::base::GetProperty;
using android::base::SetProperty;
using tarnis_test::ReadFile;
using tarnis_test::TestClock;
using tarnis_test::WriteFile;

constexpr char kTag[] = "BootMonitor";
constexpr long kEpoch = TestClock::kStartWallMs / 1000;

std::string At(long seconds) { return std::to_string(kEpoch + seconds); }

class BootMonitorThreadTest : public BootMonitorTest {
protected:
    void SetUp() override {
        BootMonitorTest::SetUp();
        clock_.SetAdvanceOnSleep(true);
    }

    // The supervision's property waits on the test clock: a wait that is not
    // met costs its whole time-out at once. `before` runs ahead of each wait.
    void UseClockWaits(std::function<void(const std::string& key)> before = nullptr) {
        monitor_.SetPropertyWaiterForTesting(
            [this, before](const std::string& key, const std::string& value, std::chrono::milliseconds timeout) {
                if (before) before(key);
                if (GetProperty(key, "") == value) return true;
                clock_.Advance(timeout.count());
                return false;
            });
    }
    int64_t ElapsedMs() { return clock_.SteadyNowMs() - TestClock::kStartSteadyMs; }

    BootMonitorThread monitor_;
};

TEST_F(BootMonitorThreadTest, FirstUnfinishedBootCapturesEveryFiveMinutesThenReboots) {
    SetProperty("ro.product.device", "tarn");
    SetProperty("ro.build.version.incremental", "77");
    FakeLiteDump dump(LiteRecord(), 2048);
    UseClockWaits();
    const auto realStart = std::chrono::steady_clock::now();
    EXPECT_EQ(monitor_.threadLoop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(1));

    EXPECT_TRUE(log_.HasLine("Faile to read file: " + countPath_ + ", No such file or directory", kTag,
                             ANDROID_LOG_WARN));
    EXPECT_EQ(ReadFile(countPath_), "1");
    // A pass's seconds are taken before its 10 s wait, the capture's time after it.
    const std::vector<std::string> expected = {
        "bm_timeout_0_300_tarn_77_" + At(310) + ".zip", "bm_timeout_0_600_tarn_77_" + At(610) + ".zip",
        "bm_timeout_0_900_tarn_77_" + At(910) + ".zip", "bm_timeout_0_1200_tarn_77_" + At(1200) + ".zip"};
    EXPECT_EQ(Captures(), expected);
    EXPECT_EQ(log_.Count("Failed to boot system for the 0 time, capture bugreport...", kTag, ANDROID_LOG_WARN), 3u);
    EXPECT_TRUE(log_.HasLine("boot time: 1190 seconds\n", kTag, ANDROID_LOG_INFO));
    EXPECT_EQ(GetProperty("sys.bootmonitor.timeout_three", ""), "true");
    // Each capture replaced the one before it.
    EXPECT_EQ(List(dir_), std::vector<std::string>{expected.back()});
    struct stat st {};
    ASSERT_EQ(stat(dir_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0775u);

    const std::string record = Device("/cache/dorva/BootmonitorRecord.txt");
    EXPECT_EQ(ReadFile(record), "Bootmonitor-0-" + At(1200) + "\n");
    ASSERT_EQ(stat(record.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0664u);
    EXPECT_TRUE(log_.HasLine("Wait boot completed timeout, so reboot system!", kTag, ANDROID_LOG_ERROR));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,BootMonitor");
}

TEST_F(BootMonitorThreadTest, EarlierFailuresBringTheFirstCaptureForwardUntilTheBootCompletes) {
    UseRescuePartition();
    WriteFile(countPath_, "3");
    FakeLiteDump dump(LiteRecord(), 0);
    std::string countDuringWait;
    UseClockWaits([&](const std::string&) {
        if (countDuringWait.empty()) countDuringWait = ReadFile(countPath_);
        if (ElapsedMs() >= 310 * 1000) SetProperty("sys.boot_completed", "1");
    });
    EXPECT_EQ(monitor_.threadLoop(), 0);

    EXPECT_EQ(countDuringWait, "4");
    EXPECT_TRUE(log_.HasLine("note boot count: 3", kTag, ANDROID_LOG_INFO));
    EXPECT_EQ(Captures(), (std::vector<std::string>{"bm_inc_3_60_unknown_unknown_" + At(70) + ".zip",
                                                    "bm_timeout_3_300_unknown_unknown_" + At(310) + ".zip"}));
    // The light dump wrote nothing: too small to keep.
    EXPECT_EQ(log_.Count("log too small, ready to delete.", kTag, ANDROID_LOG_WARN), 2u);
    EXPECT_TRUE(List(dir_).empty());
    EXPECT_TRUE(log_.HasLine("Boot successfully, so BootMonitor exiting.", kTag, ANDROID_LOG_WARN));
    EXPECT_EQ(GetProperty("sys.boot_monitor_completed", ""), "1");
    EXPECT_FALSE(Exists(countPath_));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "");
}

TEST_F(BootMonitorThreadTest, BootLoopLeavesTheRecoveryCommandWithUncrypt) {
    WriteFile(countPath_, "5");
    FakeLiteDump dump(LiteRecord(), 0);
    std::string received;
    FakeSocketServer uncrypt("uncrypt", [&](int fd) {
        char length[4] = {};
        ASSERT_TRUE(android::base::ReadFully(fd, length, sizeof(length)));
        received.assign(length, sizeof(length));
        std::string command(ntohl(*reinterpret_cast<uint32_t*>(length)), '\0');
        ASSERT_TRUE(android::base::ReadFully(fd, command.data(), command.size()));
        received += command;
        const uint32_t status = htonl(100);
        android::base::WriteFully(fd, &status, sizeof(status));
    });
    // Uncrypt is busy for all of the 30 looks; the start is then waited for.
    SetProperty("init.svc.uncrypt", "running");
    EXPECT_EQ(monitor_.threadLoop(), 0);

    EXPECT_EQ(received, std::string("\0\0\0\x20", 4) + "BootFailure\n--reason=BootMonitor");
    EXPECT_EQ(ElapsedMs(), 31 * 1000);
    EXPECT_TRUE(log_.HasLine("stuck in boot loop, capture bugreport...", kTag, ANDROID_LOG_WARN));
    EXPECT_EQ(Captures(), std::vector<std::string>{"bm_rcy_5_unknown_unknown_" + At(0) + ".zip"});
    EXPECT_TRUE(log_.HasLine("reboot to recovery", kTag, ANDROID_LOG_ERROR));
    EXPECT_FALSE(log_.Contains("Failed to setupBcb"));
    EXPECT_EQ(GetProperty("ctl.start", ""), "setup-bcb");
    EXPECT_EQ(GetProperty("ctl.stop", ""), "setup-bcb");
    EXPECT_FALSE(Exists(countPath_));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,recovery");
}

TEST_F(BootMonitorThreadTest, RecoveryIsRequestedEvenWhenUncryptFailsOrRefuses) {
    FakeLiteDump dump(LiteRecord(), 0);
    // Nobody listens: thirty tries a second apart after the start's second.
    WriteFile(countPath_, "7");
    EXPECT_EQ(monitor_.threadLoop(), 0);
    EXPECT_EQ(ElapsedMs(), 30 * 1000);
    EXPECT_TRUE(log_.HasLine("Failed to setupBcb", kTag, ANDROID_LOG_DEBUG));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,recovery");

    // A zero status is a refusal.
    SetProperty("sys.powerctl", "");
    log_.Clear();
    FakeSocketServer uncrypt("uncrypt", [](int fd) {
        char request[36];
        android::base::ReadFully(fd, request, sizeof(request));
        const uint32_t status = 0;
        android::base::WriteFully(fd, &status, sizeof(status));
    });
    WriteFile(countPath_, "5");
    EXPECT_EQ(monitor_.threadLoop(), 0);
    EXPECT_EQ(uncrypt.connections(), 1);
    EXPECT_TRUE(log_.HasLine("setup-bcb response 0", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_.HasLine("Failed to setupBcb", kTag, ANDROID_LOG_DEBUG));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,recovery");
}

TEST_F(BootMonitorThreadTest, MarkersAreConsumedAndAnUnreadableCountIsZero) {
    WriteFile(Device("/cache/recovery/last_safemode"), "true\n");
    WriteFile(Device("/cache/recovery/last_maintenance"), "false");
    SetProperty("sys.boot_completed", "1");
    UseClockWaits();
    for (const std::string word : {"abc", ""}) {
        SCOPED_TRACE(word);
        log_.Clear();
        WriteFile(countPath_, word);
        EXPECT_EQ(monitor_.threadLoop(), 0);
        EXPECT_TRUE(log_.HasLine("An invalid string was read: " + word, kTag, ANDROID_LOG_WARN));
        EXPECT_TRUE(log_.HasLine("note boot count: 0", kTag, ANDROID_LOG_INFO));
        EXPECT_TRUE(log_.HasLine("Boot successfully, so BootMonitor exiting.", kTag, ANDROID_LOG_WARN));
        EXPECT_FALSE(log_.Contains("boot time:"));
        EXPECT_TRUE(Captures().empty());
        EXPECT_FALSE(Exists(countPath_));
        EXPECT_TRUE(log_.HasLine("Trap Mode not set.", kTag, ANDROID_LOG_DEBUG));
    }
    // The markers applied to the first boot only.
    EXPECT_EQ(GetProperty("ro.sys.safemode", ""), "1");
    EXPECT_EQ(GetProperty("sys.maintenance_mode", ""), "");
    EXPECT_FALSE(Exists(Device("/cache/recovery/last_safemode")));
    EXPECT_FALSE(Exists(Device("/cache/recovery/last_maintenance")));
    EXPECT_TRUE(log_.HasLine("Safe Mode not set.", kTag, ANDROID_LOG_DEBUG));
    EXPECT_EQ(GetProperty("sys.boot_monitor_completed", ""), "1");
    EXPECT_EQ(ElapsedMs(), 0);
}

TEST_F(BootMonitorThreadTest, DisplayCompletionIsAwaitedOnceItIsKnown) {
    SetProperty("sys.boot_completed", "1");
    SetProperty("sys.boot_display_completed", "0");
    int displayWaits = 0;
    UseClockWaits([&](const std::string& key) {
        if (key == "sys.boot_display_completed" && ++displayWaits == 2) SetProperty(key, "1");
    });
    EXPECT_EQ(monitor_.threadLoop(), 0);
    EXPECT_EQ(displayWaits, 2);
    // The first pass waited its 10 s in vain.
    EXPECT_EQ(log_.Count("boot time: 0 seconds\n", kTag), 1u);
    EXPECT_EQ(log_.Count("boot time: "), 1u);
    EXPECT_EQ(ElapsedMs(), 10 * 1000);
    EXPECT_TRUE(log_.HasLine("Boot successfully, so BootMonitor exiting.", kTag, ANDROID_LOG_WARN));
}

TEST_F(BootMonitorThreadTest, TrapModeCapturesEveryIntervalUntilStopped) {
    WriteFile(Device("/cache/recovery/last_trap"), "true 30\n");
    WriteFile(countPath_, "2");
    FakeLiteDump dump(LiteRecord(), 0);
    std::thread loop([this] { EXPECT_EQ(monitor_.threadLoop(), 0); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (log_.Count("(trap mode) boot time: ") < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    monitor_.Stop();
    loop.join();
    for (const char* seconds : {"0", "30", "60"}) {
        EXPECT_TRUE(log_.HasLine(std::string("(trap mode) boot time: ") + seconds + " seconds\n", kTag,
                                 ANDROID_LOG_INFO));
    }
    const std::vector<std::string> captures = Captures();
    ASSERT_GE(captures.size(), 3u);
    EXPECT_EQ(captures[1], "bm_trap_N_unknown_unknown_" + At(30) + ".zip");
    EXPECT_TRUE(log_.HasLine("Trap Mode may be set.", kTag, ANDROID_LOG_DEBUG));
    EXPECT_FALSE(Exists(Device("/cache/recovery/last_trap")));
    // The boot count is not touched in trap mode.
    EXPECT_EQ(ReadFile(countPath_), "2");
}

TEST_F(BootMonitorThreadTest, OnlySmallCapturesAreDroppedAndOnlyTheSameKindIsPruned) {
    tarnis_test::RunShell("mkdir -p '" + dir_ + "'");
    const std::string outside = root_.Sub("outside.zip");
    WriteFile(outside, "keep me");
    ASSERT_EQ(symlink(outside.c_str(), (dir_ + "bm_inc_link").c_str()), 0);
    for (const char* name : {"bm_inc_1_20_old.zip", "bugreport-2026.zip", "kmsg.txt", "bm_timeout_0_300_old.zip"}) {
        WriteFile(dir_ + name, std::string(2000, 'o'));
    }
    const std::vector<std::string> planted = List(dir_);
    FakeLiteDump dump(LiteRecord(), 1023);
    monitor_.captureBugreport(dir_, 2, 40);
    EXPECT_TRUE(log_.HasLine("log too small, ready to delete.", kTag, ANDROID_LOG_WARN));
    EXPECT_EQ(List(dir_), planted);

    dump.SetFill(1024);
    monitor_.captureBugreport(dir_, 2, 41);
    const std::string kept = "bm_inc_2_41_unknown_unknown_" + At(0) + ".zip";
    EXPECT_TRUE(log_.HasLine("Capture lite bugreport complete: " + dir_ + "/" + kept, kTag, ANDROID_LOG_INFO));
    EXPECT_EQ(List(dir_), (std::vector<std::string>{kept, "bm_timeout_0_300_old.zip", "kmsg.txt"}));
    EXPECT_EQ(ReadFile(outside), "keep me");

    // Another kind leaves this one alone.
    monitor_.captureBugreport(dir_, 100, 901005301);
    EXPECT_EQ(List(dir_), (std::vector<std::string>{kept,
                                                    "bm_tarnboot_timeout_901005301_unknown_unknown_" + At(0) + ".zip",
                                                    "bm_timeout_0_300_old.zip", "kmsg.txt"}));
}

}  // namespace
}  // namespace bootmonitor_test
