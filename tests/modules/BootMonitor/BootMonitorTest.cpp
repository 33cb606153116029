#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "modules/BootMonitor/BootFailReport.h"
#include "modules/BootMonitor/BootMonitorThread.h"
#include "tests/support/ModABlackBox.h"
#include "tests/support/ModBModuleTest.h"
#include "tests/support/R4ReservedPeer.h"
#include "tests/support/WaitFor.h"
#include "utils/BlackBoxLayout.h"

namespace {

namespace blackbox = velmar::kolto::blackbox;
using android::BootMonitorThread;
using android::base::GetProperty;
using android::base::SetProperty;
using android::base::unique_fd;
using tarnis_test::Exists;
using tarnis_test::ModeOf;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TestClock;
using tarnis_test::WriteFile;
using velmar::tarnis::BootFailReport;
using Names = std::vector<std::string>;
using namespace moda_blackbox;

constexpr int kD = ANDROID_LOG_DEBUG, kI = ANDROID_LOG_INFO, kW = ANDROID_LOG_WARN, kE = ANDROID_LOG_ERROR;
constexpr char kBm[] = "BootMonitor";
constexpr char kBfr[] = "BootFailReport";

std::string At(long seconds) { return std::to_string(TestClock::kStartWallMs / 1000 + seconds); }

class BootMonitorTest : public tarnis_test::ModBModuleTest {
protected:
    void SetUp() override {
        ModBModuleTest::SetUp();
        clock_.SetAdvanceOnSleep(true);
        UseClockWaits();
        RunShell("mkdir -p '" + Device("/cache/dorva") + "' '" + Device("/cache/recovery") + "'");
        dir_ = Device("/cache/dorva/UnhealthyBootLog/");
        count_ = Device("/cache/boot_flag");
        // The light dump service fills the file whose path the daemon recorded.
        dumpstate_ = std::make_unique<tarnis_test::ReservedPeer>("dumpstate", [this](int fd) {
            std::string target;
            android::base::ReadFileToString(Device("/cache/dorva/bootmonitor_log.txt"), &target);
            WriteFile(target, std::string(fill_, 'z'));
            android::base::WriteFully(fd, std::string(255, 'k').data(), 255);
        });
    }
    // Property waits on the test clock, a wait not met costing its time-out; past two hours, a failure.
    void UseClockWaits(std::function<void(const std::string& key)> before = nullptr) {
        monitor_.SetPropertyWaiterForTesting(
            [this, before](const std::string& key, const std::string& value, std::chrono::milliseconds timeout) {
                if (before) before(key);
                if (ElapsedMs() > 2 * 3600 * 1000) {
                    ADD_FAILURE() << "the monitor was still waiting for " << key << " after two hours";
                    monitor_.Stop();
                    return true;
                }
                if (GetProperty(key, "") == value) return true;
                clock_.Advance(timeout.count());
                return false;
            });
    }
    // The monitor's loop, failed and stopped after ten seconds of real time.
    int RunLoop() {
        auto result = std::async(std::launch::async, [this] { return monitor_.threadLoop(); });
        if (result.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "the monitor's loop ran past ten seconds";
            monitor_.Stop();
            SetProperty("sys.boot_completed", "1");
        }
        return result.get();
    }
    int64_t ElapsedMs() { return clock_.SteadyNowMs() - TestClock::kStartSteadyMs; }
    Names Captures() {
        const std::string prefix = "Capture lite bugreport complete: " + dir_ + "/";
        Names names;
        for (const auto& line : log_.Lines()) {
            if (line.tag == kBm && line.text.rfind(prefix, 0) == 0) names.push_back(line.text.substr(prefix.size()));
        }
        return names;
    }
    Names List() { return tarnis_test::ListDir(dir_); }
    // One kernel message: `length` as its first word, `text` from byte 16.
    static void SendBootMessage(int fd, const std::string& text, uint32_t length = 1040, size_t bytes = 1040) {
        std::vector<char> message(bytes, 0);
        memcpy(message.data(), &length, sizeof(length));
        memcpy(message.data() + 16, text.data(), std::min(text.size(), bytes - 16));
        ASSERT_EQ(send(fd, message.data(), bytes, 0), static_cast<ssize_t>(bytes));
    }

    std::string dir_, count_;
    std::atomic<size_t> fill_{0};
    std::unique_ptr<tarnis_test::ReservedPeer> dumpstate_;
    BootMonitorThread monitor_;
};

TEST_F(BootMonitorTest, FirstUnfinishedBootCapturesEveryFiveMinutesThenReboots) {
    SetProperty("ro.product.device", "tarn");
    SetProperty("ro.build.version.incremental", "77");
    fill_ = 2048;
    EXPECT_EQ(RunLoop(), 0);  // twenty minutes of the monitor's time: a real wait anywhere fails it

    EXPECT_TRUE(log_.HasLine("Faile to read file: " + count_ + ", No such file or directory", kBm, kW));
    EXPECT_TRUE(log_.HasLine("remove path " + count_ + " failed! info: No such file or directory (resetBootCount)\n",
                             kBm, kE));
    EXPECT_EQ(ReadFile(count_), "1");
    // A pass's seconds are taken before its 10 s wait, the capture's time after it.
    const Names expected = {
        "bm_timeout_0_300_tarn_77_" + At(310) + ".zip", "bm_timeout_0_600_tarn_77_" + At(610) + ".zip",
        "bm_timeout_0_900_tarn_77_" + At(910) + ".zip", "bm_timeout_0_1200_tarn_77_" + At(1200) + ".zip"};
    EXPECT_EQ(Captures(), expected);
    EXPECT_EQ(log_.Count("Failed to boot system for the 0 time, capture bugreport...", kBm, kW), 3u);
    EXPECT_EQ(GetProperty("sys.bootmonitor.timeout_three", ""), "true");
    EXPECT_EQ(List(), Names{expected.back()});  // each replaced the one before
    EXPECT_EQ(ReadFile(Device("/cache/dorva/BootmonitorRecord.txt")), "Bootmonitor-0-" + At(1200) + "\n");
    EXPECT_TRUE(log_.HasLine("Wait boot completed timeout, so reboot system!", kBm, kE));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,BootMonitor");
}

TEST_F(BootMonitorTest, EarlierFailuresBringTheFirstCaptureForwardUntilTheBootCompletes) {
    WriteFile(count_, "3");
    std::string countDuringWait;
    UseClockWaits([&](const std::string&) {
        if (countDuringWait.empty()) countDuringWait = ReadFile(count_);
        if (ElapsedMs() >= 310 * 1000) SetProperty("sys.boot_completed", "1");
    });
    EXPECT_EQ(RunLoop(), 0);
    EXPECT_EQ(countDuringWait, "4");
    EXPECT_EQ(Captures(), (Names{"bm_inc_3_60_unknown_unknown_" + At(70) + ".zip",
                                 "bm_timeout_3_300_unknown_unknown_" + At(310) + ".zip"}));
    EXPECT_EQ(GetProperty("sys.boot_monitor_completed", ""), "1");
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "");
}

TEST_F(BootMonitorTest, BootLoopLeavesTheRecoveryCommandWithUncrypt) {
    WriteFile(count_, "5");
    std::string received;
    tarnis_test::ReservedPeer uncrypt("uncrypt", [&](int fd) {
        char request[36] = {};
        android::base::ReadFully(fd, request, sizeof(request));
        received.assign(request, sizeof(request));
        const uint32_t status = htonl(100);
        android::base::WriteFully(fd, &status, sizeof(status));
    });
    SetProperty("init.svc.uncrypt", "running");  // busy for all 30 looks
    EXPECT_EQ(RunLoop(), 0);
    uncrypt.Stop();  // gone: the second run finds nobody listening
    EXPECT_EQ(received, std::string("\0\0\0\x20", 4) + "BootFailure\n--reason=BootMonitor");
    EXPECT_EQ(ElapsedMs(), 31 * 1000);
    EXPECT_TRUE(log_.HasLine("stuck in boot loop, capture bugreport...", kBm, kW));
    EXPECT_EQ(Captures(), Names{"bm_rcy_5_unknown_unknown_" + At(0) + ".zip"});
    EXPECT_FALSE(log_.Contains("Failed to setupBcb"));
    EXPECT_EQ(GetProperty("ctl.stop", ""), "setup-bcb");
    EXPECT_FALSE(Exists(count_));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,recovery");

    // Nobody listening: thirty tries a second apart, and recovery still.
    SetProperty("init.svc.uncrypt", "stopped");
    SetProperty("sys.powerctl", "");
    WriteFile(count_, "7");
    const int64_t before = ElapsedMs();
    EXPECT_EQ(RunLoop(), 0);
    EXPECT_EQ(ElapsedMs() - before, 30 * 1000);
    EXPECT_TRUE(log_.HasLine("Failed to setupBcb", kBm, kD));
    EXPECT_EQ(GetProperty("sys.powerctl", ""), "reboot,recovery");
}

TEST_F(BootMonitorTest, MarkersAreConsumedAndAnUnreadableCountIsZero) {
    WriteFile(Device("/cache/recovery/last_safemode"), "true\n");
    WriteFile(Device("/cache/recovery/last_maintenance"), "false");
    // A link planted as the capture directory is replaced by a directory.
    RunShell("mkdir -p '" + root_.Sub("elsewhere") + "'");
    ASSERT_EQ(symlink(root_.Sub("elsewhere").c_str(), Device("/cache/dorva/UnhealthyBootLog").c_str()), 0);
    SetProperty("sys.boot_completed", "1");
    for (const std::string word : {"abc", ""}) {
        WriteFile(count_, word);
        EXPECT_EQ(RunLoop(), 0);
        EXPECT_TRUE(log_.HasLine("An invalid string was read: " + word, kBm, kW));
    }
    EXPECT_EQ(log_.Count("note boot count: 0", kBm, kI), 2u);
    EXPECT_FALSE(Exists(count_));
    // The markers applied to the first boot only.
    EXPECT_EQ(GetProperty("ro.sys.safemode", ""), "1");
    EXPECT_EQ(GetProperty("sys.maintenance_mode", ""), "");
    EXPECT_EQ(log_.Count("Safe Mode may be set.", kBm, kD), 1u);
    EXPECT_TRUE(log_.HasLine("Safe Mode not set.", kBm, kD));
    EXPECT_FALSE(Exists(Device("/cache/recovery/last_maintenance")));
    EXPECT_EQ(ModeOf(Device("/cache/dorva/UnhealthyBootLog")), S_IFDIR | 0775u);

    // Once the display's completion is known, it is awaited as well.
    SetProperty("sys.boot_display_completed", "0");
    int displayWaits = 0;
    UseClockWaits([&](const std::string& key) {
        if (key == "sys.boot_display_completed" && ++displayWaits == 2) SetProperty(key, "1");
    });
    EXPECT_EQ(RunLoop(), 0);
    // The first pass waited its 10 s in vain, the second saw "1"; the runs before waited for nothing.
    EXPECT_EQ(log_.Count("boot time: "), 1u);
    EXPECT_TRUE(log_.HasLine("boot time: 0 seconds\n", kBm, kI));
    EXPECT_EQ(ElapsedMs(), 10 * 1000);
    EXPECT_EQ(log_.Count("Boot successfully, so BootMonitor exiting.", kBm, kW), 3u);
}

TEST_F(BootMonitorTest, TrapModeCapturesEveryIntervalUntilStopped) {
    WriteFile(Device("/cache/recovery/last_trap"), "true 30\n");
    WriteFile(count_, "2");
    LoadModules();
    EXPECT_TRUE(tarnis_test::WaitFor([this] { return log_.Count("(trap mode) boot time: ") >= 3; }));
    EXPECT_NE(Dump({"BootMonitor"}).find("BootMonitor: running\nstage: trap mode\nboot count: not counted\n"),
              std::string::npos);
    RemoveModule("BootMonitor");  // its worker is stopped and joined
    EXPECT_TRUE(log_.HasLine("(trap mode) boot time: 60 seconds\n", kBm, kI));
    const Names captures = Captures();
    ASSERT_GE(captures.size(), 3u);
    EXPECT_EQ(captures[1], "bm_trap_N_unknown_unknown_" + At(30) + ".zip");
    EXPECT_FALSE(Exists(Device("/cache/recovery/last_trap")));
    EXPECT_EQ(ReadFile(count_), "2");  // not counted in trap mode
}

TEST_F(BootMonitorTest, OnlySmallCapturesAreDroppedAndOnlyTheSameKindIsPruned) {
    RunShell("mkdir -p '" + dir_ + "'");
    for (const char* name : {"bm_inc_1_20_old.zip", "bugreport-2026.zip", "kmsg.txt", "bm_timeout_0_300_old.zip"}) {
        WriteFile(dir_ + name, std::string(2000, 'o'));
    }
    const Names planted = List();
    fill_ = 1023;
    monitor_.captureBugreport(dir_, 2, 40);
    EXPECT_TRUE(log_.HasLine("log too small, ready to delete.", kBm, kW));
    EXPECT_EQ(List(), planted);

    fill_ = 1024;
    monitor_.captureBugreport(dir_, 2, 41);
    monitor_.captureBugreport(dir_, 100, 901005301);  // another kind leaves it alone
    EXPECT_EQ(List(), (Names{"bm_inc_2_41_unknown_unknown_" + At(0) + ".zip",
                             "bm_tarnboot_timeout_901005301_unknown_unknown_" + At(0) + ".zip",
                             "bm_timeout_0_300_old.zip", "kmsg.txt"}));
}

TEST_F(BootMonitorTest, DisabledModuleRemovesItselfWhileTheListenerGoesOn) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
    unique_fd kernel(pair[1]);
    BootFailReport::SetListenerSocketForTesting(pair[0]);
    WriteFile(count_, "disable");
    LoadModules();
    ASSERT_TRUE(tarnis_test::WaitFor([&] { return Stopped("BootMonitor"); }));  // supervised on its worker
    WaitIdle();
    EXPECT_TRUE(log_.HasLine("[OnInit] tarnis BootMonitor OnInit", "Tarnis-BootMonitor", kI));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] load bootMonitor", "Tarnis-BootMonitorModule", kI));
    EXPECT_TRUE(log_.HasLine("explicit disable BootMonitor.", kBm, kE));
    EXPECT_TRUE(log_.HasLine("exit for invalid boot count.", kBm, kE));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] quited!!", "Tarnis-BootMonitorModule", kI));
    EXPECT_EQ(ReadFile(count_), "disable");

    // The module is gone; the kernel's next time-out is still heard.
    SendBootMessage(kernel.get(), "boot-timeout[901005349], time[2]");
    ASSERT_EQ(send(kernel.get(), "", 0, 0), 0);
    EXPECT_TRUE(tarnis_test::WaitFor([&] { return log_.HasLine("Connection closed", kBfr, kI); }));
    EXPECT_TRUE(log_.HasLine("recv boot message timeout_event = 901005349, boot_index = 2", kBfr, kI));
}

class BootFailReportTest : public BootMonitorTest {
protected:
    void SetUp() override {
        BootMonitorTest::SetUp();
        RunShell("mkdir -p '" + dir_ + "' '" + Device("/dev/block/by-name") + "'");
        partition_ = Device("/dev/block/by-name/blackbox");
        report_.Load();
    }
    // A partition recording failure `code`, each log area marked at both ends and just past its end.
    void Plant(int64_t code, uint64_t identifier = blackbox::kBootFailIdentifier) {
        MakeImage(partition_, 190 << 20);
        blackbox::BootMonitorHeader header{};
        header.identifier = identifier;
        header.bootIndex = 7;
        header.currentError = code;
        WriteRecordAt(partition_, blackbox::kBootMonitorHeaderOffset, header);
        const std::pair<uint64_t, size_t> areas[] = {{blackbox::kUefiLogOffset, blackbox::kUefiLogBytes},
                                                     {blackbox::kKmsgOffset, blackbox::kKmsgBytes},
                                                     {blackbox::kPmsgOffset, blackbox::kPmsgBytes}};
        for (const auto& [offset, size] : areas) {
            WriteBytes(partition_, offset, "HEAD", 4);
            WriteBytes(partition_, offset + size - 4, "TAIL!", 5);
        }
    }
    uint8_t Marker() {
        return ReadRecordAt<blackbox::BootMonitorHeader>(partition_, blackbox::kBootMonitorHeaderOffset).reported;
    }
    void ExpectArea(const std::string& name, size_t size) {
        const std::string content = ReadFile(dir_ + name);
        ASSERT_EQ(content.size(), size) << name;
        EXPECT_EQ(content.substr(0, 4) + content.substr(size - 4), "HEADTAIL");
        EXPECT_EQ(ModeOf(dir_ + name), S_IFREG | 0664u);
    }
    std::string Record() { return ReadFile(Device("/cache/dorva/bootmonitorTimeout.txt")); }

    std::string partition_;
    BootFailReport report_;
};

TEST_F(BootFailReportTest, BootStageFailureIsReportedOnce) {
    SetProperty("ro.product.device", "tarn");
    SetProperty("ro.build.version.incremental", "77");
    Plant(901005303);
    const std::string outside = root_.Sub("outside.txt");
    WriteFile(outside, "keep me");
    ASSERT_EQ(symlink(outside.c_str(), (dir_ + "kmsg.txt").c_str()), 0);  // replaced, not followed
    report_.check_ablxbl_fail_report();
    ExpectArea("kmsg.txt", blackbox::kKmsgBytes);
    ExpectArea("pmsg.txt", blackbox::kPmsgBytes);
    EXPECT_EQ(ReadFile(outside), "keep me");
    EXPECT_TRUE(log_.HasLine("summary ZYGOTE_FAIL header->current_error 901005303", kBfr, kD));
    std::vector<Json::Value> events = JournalEvents();
    ASSERT_EQ(events.size(), 1u);
    Json::Value expected;
    expected["call"] = "sendEvent";
    expected["args"].append(901005303u);
    expected["args"][1]["Digest"] = RunShell("printf tarn77901005303 | sha1sum | cut -c1-40 | tr -d '\\n'");
    expected["args"][1]["BootIndex"] = 7;
    expected["args"][1]["CurrentTime"] = Json::Int64(TestClock::kStartWallMs / 1000);
    EXPECT_EQ(events[0].toStyledString(), expected.toStyledString());
    EXPECT_EQ(Record(), "BootmonitorTimeout,77,901005303,ZYGOTE_FAIL,7," + At(0) + "\n");
    EXPECT_EQ(Marker(), 1);

    // Checked again: the logs come out again, the report does not.
    unlink((dir_ + "kmsg.txt").c_str());
    report_.check_ablxbl_fail_report();
    ExpectArea("kmsg.txt", blackbox::kKmsgBytes);
    EXPECT_TRUE(log_.HasLine("The record of this boot failure has been reported\n", kBfr, kD));
    EXPECT_EQ(JournalEvents().size(), 1u);
    EXPECT_EQ(Record(), "BootmonitorTimeout,77,901005303,ZYGOTE_FAIL,7," + At(0) + "\n");
}

// No failure: left alone; a boot-stage code without a name: its logs, marked, no report; a loader failure: its log.
TEST_F(BootFailReportTest, EachKindOfRecordBringsItsOwnLogs) {
    Plant(901005100);
    report_.check_ablxbl_fail_report();
    EXPECT_TRUE(log_.HasLine("check  blackbox--bootfail partition boot fail report lumetra\n", kBfr, kD));
    EXPECT_TRUE(log_.HasLine("Not an abnormal error type", kBfr, kE));
    EXPECT_TRUE(List().empty());
    EXPECT_EQ(Marker(), 0);

    Plant(901005320);
    report_.check_ablxbl_fail_report();
    EXPECT_EQ(List(), (Names{"kmsg.txt", "pmsg.txt"}));
    EXPECT_TRUE(log_.HasLine("No abnormal records need to be reported", kBfr, kD));
    EXPECT_TRUE(JournalEvents().empty());
    EXPECT_EQ(Record(), "");
    EXPECT_EQ(Marker(), 1);

    RunShell("rm -f '" + dir_ + "'*");
    Plant(901005210);
    report_.check_ablxbl_fail_report();
    EXPECT_EQ(List(), Names{"uefi.txt"});
    ExpectArea("uefi.txt", blackbox::kUefiLogBytes);
    ASSERT_EQ(JournalEvents().size(), 1u);
    EXPECT_EQ(JournalEvents()[0]["args"][0].asUInt(), 901005210u);
    EXPECT_EQ(Record(), "BootmonitorTimeout,unknown,901005210,XBL_BOOTFAIL_GET_FVB,7," + At(0) + "\n");

    // A partition whose link leads out of the root is not opened.
    const std::string outside = root_.path() + "-blackbox";
    ASSERT_EQ(rename(partition_.c_str(), outside.c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), partition_.c_str()), 0);
    report_.check_ablxbl_fail_report();
    unlink(outside.c_str());
    EXPECT_TRUE(log_.HasLine("open black_box_log partition fail, error: Too many levels of symbolic links", "", kE));
}

TEST_F(BootFailReportTest, ListenerActsOnBootStageTimeoutsOnly) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
    unique_fd kernel(pair[1]);
    Plant(901005303, 0);
    SendBootMessage(kernel.get(), "boot-timeout[901005349], time[2]");
    SendBootMessage(kernel.get(), "boot-timeout[901005350], time[2]");
    SendBootMessage(kernel.get(), "boot-timeout:901005301");
    SendBootMessage(kernel.get(), "hello kernel", 28, 28);
    SendBootMessage(kernel.get(), "boot-timeout[901005301], time[1]", 16);
    SendBootMessage(kernel.get(), "boot-timeout[901005302], time[1]", 1041, 1041);
    ASSERT_EQ(send(kernel.get(), "", 0, 0), 0);
    EXPECT_EQ(report_.ReceiveLoop(unique_fd(pair[0])), 0);

    EXPECT_TRUE(log_.HasLine("NetlinkInit--550: recv_msg: boot-timeout[901005349], time[2]", kBfr, kI));
    EXPECT_TRUE(log_.HasLine("recv boot message timeout_event = 901005350, boot_index = 2", kBfr, kI));
    EXPECT_EQ(Captures(), Names{"bm_tarnboot_timeout_901005349_unknown_unknown_" + At(0) + ".zip"});
    EXPECT_EQ(log_.Count("checkBlackBoxBootFail", kBfr, kD), 1u);
    EXPECT_EQ(log_.Count("No boot failed\n", kBfr, kD), 1u);
    EXPECT_TRUE(log_.HasLine("Failed to parse boot message: boot-timeout:901005301", kBfr, kE));
    EXPECT_TRUE(log_.HasLine("recv message is not boot message", kBfr, kI));
    EXPECT_TRUE(log_.HasLine("msg_len is invalid: 0", kBfr, kE));
    EXPECT_TRUE(log_.HasLine("msg_len is invalid: 1025", kBfr, kE));
    EXPECT_EQ(log_.Count("recv boot message timeout_event = "), 2u);
    EXPECT_TRUE(log_.HasLine("Connection closed", kBfr, kI));
}

}  // namespace
