#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>

#include <android-base/properties.h>
#include <log/log.h>

#include "modules/RescueSpace/RescueSpaceThread.h"
#include "tests/support/ModBModuleTest.h"

namespace {

using tarnis_test::Exists;
using tarnis_test::ModeOf;
using tarnis_test::ReadFile;
using velmar::tarnis::RescueSpaceThread;

constexpr char kTag[] = "RescueSpaceMonitor";
constexpr int kW = ANDROID_LOG_WARN;
constexpr int64_t kMinuteMs = 60 * 1000;
constexpr char kTimerProperty[] = "persist.sys.stability.dorvad.rescue_space_monitor_timervalue";

class RescueSpaceModuleTest : public tarnis_test::ModBModuleTest {
protected:
    void SetUp() override {
        ModBModuleTest::SetUp();
        base_ = Device("/cache/");
        // A partition of 100 blocks of which `used_` are taken; none when negative.
        RescueSpaceThread::SetStatfsForTesting([this](const char*, struct statfs* out) {
            ++statfsCalls_;
            if (used_ < 0) {
                errno = ENOENT;
                return -1;
            }
            *out = {};
            out->f_blocks = 100;
            out->f_bfree = 100 - used_.load();
            return 0;
        });
    }
    void TearDown() override {
        ModBModuleTest::TearDown();
        RescueSpaceThread::SetStatfsForTesting(nullptr);
    }

    std::string Plant(const std::string& relative, const std::string& content = "data") {
        return PlantDevice("/cache/" + relative, content);
    }
    // A core dump last changed `ageSeconds` before the test clock's now.
    std::string PlantCore(const std::string& name, int64_t ageSeconds) {
        const std::string path = PlantDevice("/data/nuvilog/stability/nativecrash/coredump/" + name, "core");
        struct timespec times[2] = {};
        times[0].tv_sec = times[1].tv_sec = clock_.WallNowMs() / 1000 - ageSeconds;
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
        return path;
    }
    // The pause is a chain of one-minute sleeps: time moves a minute at a time, as it would.
    void AdvanceMinutes(int minutes) {
        for (int i = 0; i < minutes; ++i) AdvanceAndSettle(kMinuteMs);
    }

    std::string base_;
    std::atomic<int> used_{50};
    std::atomic<int> statfsCalls_{0};
};

TEST_F(RescueSpaceModuleTest, LevelsStartAtNinetyPercentAndEachSparesFewerFiles) {
    // Each file, and whether it outlasts all three levels: level 3 reaches the boot failure's directory, and spares
    // only its database there, by name.
    const std::pair<std::string, bool> files[] = {
        {"junk.txt", false}, {"dorva/loose.txt", false}, {"dorva/BootFailure/report", false},
        {"boot_flag", true}, {"dorva/BootFailure/failkeeper.db", true}, {"recovery/last_safemode", true}};
    for (const auto& [file, kept] : files) ASSERT_EQ(chmod(Plant(file, "abc").c_str(), 0644), 0) << file;

    // A partition that cannot be measured is not taken for full.
    used_ = -1;
    LoadModules();
    EXPECT_TRUE(log_.HasLine("failed to get " + base_ + " diskrate (No such file or directory)\n", kTag, kW));
    EXPECT_TRUE(log_.HasLine("Unable to open directory " + base_ + "pwlog/: No such file or directory\n", kTag,
                             ANDROID_LOG_ERROR));
    used_ = 89;
    AdvanceMinutes(20);
    EXPECT_TRUE(log_.HasLine("Rescue Partition space is enough, This diskrate is 89\n", kTag, ANDROID_LOG_INFO));
    EXPECT_FALSE(log_.Contains("Level 1:", kTag));
    EXPECT_TRUE(Exists(base_ + "junk.txt"));

    // 90 % and staying there: all three levels, one after the other.
    used_ = 90;
    AdvanceMinutes(20);
    EXPECT_TRUE(log_.HasLine("Insufficient partition space 90, please delete the file!!\n", kTag, kW));
    EXPECT_TRUE(log_.HasLine("Level 1: Insufficient partition space, GradeSpace is first stage\n", kTag, kW));
    EXPECT_TRUE(log_.HasLine("Level 2: Insufficient partition space, GradeSpace is second stage\n", kTag, kW));
    EXPECT_TRUE(log_.HasLine("Level 3: Insufficient partition space, GradeSpace is third stage\n", kTag, kW));
    for (const auto& [file, kept] : files) EXPECT_EQ(Exists(base_ + file), kept) << file;
    EXPECT_TRUE(log_.HasLine("Skip save path(" + base_ + "boot_flag)\n", kTag, kW));

    // The list taken before level 3 names what it deleted.
    const std::string list = ReadFile(base_ + "/dorva/rescue_info.log");
    EXPECT_NE(list.find(base_ + "dorva/BootFailure/report,  fileSize: 3, filemode: 33188\n"), std::string::npos)
            << list;
    EXPECT_EQ(ModeOf(base_ + "/dorva/rescue_info.log"), S_IFREG | 0660u);
    const std::string oplog = ReadFile(base_ + "/recovery/last_rescue_space_monitor_log");
    EXPECT_NE(oplog.find(": Unlink file: " + base_ + "junk.txt, size: 3\n"), std::string::npos) << oplog;
}

TEST_F(RescueSpaceModuleTest, CoreDumpsOlderThanAnHourGoAndTheSizeLimitIsFiftyMebibytesExactly) {
    const std::string young = PlantCore("young", 59 * 60);
    const std::string old = PlantCore("old", 61 * 60);
    const std::string big = Plant("dumpstateTemporary/big");
    ASSERT_EQ(truncate(big.c_str(), 52428800), 0);
    LoadModules();
    EXPECT_TRUE(log_.HasLine("Coredump space manager system starts!\n", kTag, kW));
    EXPECT_TRUE(Exists(young));
    EXPECT_FALSE(Exists(old));
    EXPECT_TRUE(Exists(big));
    EXPECT_FALSE(log_.Contains("Ready to delete", kTag));

    // Twenty minutes later the young core is past the hour as well, and one byte more is over the limit.
    Plant("dumpstateTemporary/sub/one", "x");
    AdvanceMinutes(20);
    EXPECT_FALSE(Exists(young));
    EXPECT_TRUE(log_.HasLine("Ready to delete " + base_ + "dumpstateTemporary/ file, size = 52428801 \n", kTag, kW));
    EXPECT_FALSE(Exists(big));
    EXPECT_FALSE(Exists(base_ + "dumpstateTemporary/sub"));
    EXPECT_TRUE(Exists(base_ + "dumpstateTemporary"));
    EXPECT_TRUE(log_.HasLine("Delete file :" + big + " success\n", kTag, ANDROID_LOG_INFO));
}

TEST_F(RescueSpaceModuleTest, TimerPropertyPacesTheCycleAndZeroDoesNotSpinAndMtbfStopsTheCorePass) {
    ASSERT_TRUE(android::base::SetProperty(kTimerProperty, "abc"));
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "1"));
    const std::string old = PlantCore("old", 3 * 3600);
    LoadModules();
    EXPECT_TRUE(log_.HasLine("Disable coredump manager.", kTag, kW));
    EXPECT_TRUE(log_.HasLine("data_nuvilog_coredump is 0, mtbf_test_prop is 1\n", kTag, kW));
    EXPECT_TRUE(log_.HasLine("Rescue partition space manager start!!\n", kTag, kW));
    EXPECT_TRUE(log_.HasLine("An invalid string was read: abc", kTag, kW));
    EXPECT_TRUE(log_.HasLine("Timer value is 20\n", kTag, kW));
    const int first = statfsCalls_.load();
    // The timer set (when not empty), then minutes advanced, then cycles run since load.
    const struct {
        const char* timer;
        int minutes;
        int cycles;
    } steps[] = {
        {"", 19, 0}, {"", 1, 1}, {"", 2, 1},
        {"5", 2, 1}, {"", 1, 2},  // changed two minutes into a pause: it ends after 5 in all
        {"0", 1, 2},              // this pause still counts to 5, then reads 0
        {"", 1, 3}, {"", 1, 4},   // 0: one cycle a minute, never back to back
    };
    for (const auto& step : steps) {
        if (*step.timer != '\0') {
            ASSERT_TRUE(android::base::SetProperty(kTimerProperty, step.timer));
        }
        AdvanceMinutes(step.minutes);
        EXPECT_EQ(statfsCalls_.load(), first + step.cycles) << "timer " << step.timer << ", +" << step.minutes;
    }
    EXPECT_EQ(Dump({"RescueSpace"}),
              "Dumping module RescueSpace: \ncycles: 5\n\n-------------------------------------\n");
    EXPECT_TRUE(Exists(old));  // five cycles without the core pass
}

TEST_F(RescueSpaceModuleTest, PlantedLinksNeverLeadOutsideNorDoesTheFactoryResetWipe) {
    const std::string outside = root_.Sub("outside");
    ASSERT_EQ(mkdir(outside.c_str(), 0700), 0);
    ASSERT_TRUE(tarnis_test::WriteFile(outside + "/precious", "precious"));
    ASSERT_EQ(chmod((outside + "/precious").c_str(), 0600), 0);
    Plant("recovery/keep");
    ASSERT_EQ(truncate(Plant("dumpstateTemporary/big").c_str(), 52428801), 0);
    const std::pair<const char*, std::string> links[] = {
        {"dirlink", outside}, {"filelink", outside + "/precious"}, {"dumpstateTemporary/dirlink", outside},
        {"recovery/last_rescue_space_monitor_log", outside + "/precious"}};
    for (const auto& [link, target] : links) ASSERT_EQ(symlink(target.c_str(), (base_ + link).c_str()), 0) << link;

    used_ = 95;
    LoadModules();
    for (const char* link : {"dirlink", "filelink", "dumpstateTemporary/dirlink"}) {
        EXPECT_FALSE(Exists(base_ + link)) << link;
    }
    EXPECT_EQ(ReadFile(outside + "/precious"), "precious");
    EXPECT_EQ(ModeOf(outside + "/precious"), S_IFREG | 0600u);
    EXPECT_EQ(ModeOf(outside), S_IFDIR | 0700u);
    // The operation log replaced the link planted at its name.
    EXPECT_TRUE(S_ISREG(ModeOf(base_ + "recovery/last_rescue_space_monitor_log")));

    // The wipe spares the recovery directory and every directory, nothing outside.
    const std::string loose = Plant("dorva/BootFailure/report");
    const std::string flag = Plant("boot_flag");
    ASSERT_EQ(symlink(outside.c_str(), (base_ + "dirlink").c_str()), 0);
    // Directories stay, their mode set by their name; one a stranger owns is opened up.
    for (const char* dir : {"update_engine_log", "mine", "foreign"}) ASSERT_EQ(mkdir((base_ + dir).c_str(), 0700), 0);
    const bool chowned = geteuid() == 0 && chown((base_ + "foreign").c_str(), 4321, 4321) == 0;
    RescueSpaceThread().FactoryResetWipeRescuePartition();
    EXPECT_TRUE(log_.HasLine("Factory Reset Wipe", kTag, kW));
    EXPECT_FALSE(Exists(loose));
    EXPECT_FALSE(Exists(flag));
    EXPECT_TRUE(Exists(base_ + "recovery/keep"));
    EXPECT_TRUE(Exists(base_ + "dorva/BootFailure"));
    EXPECT_EQ(ReadFile(outside + "/precious"), "precious");
    if (!chowned) GTEST_SKIP() << "changing a file's owner needs root";
    EXPECT_EQ(ModeOf(base_ + "update_engine_log"), S_IFDIR | 02775u);
    EXPECT_EQ(ModeOf(base_ + "mine"), S_IFDIR | 0775u);
    EXPECT_EQ(ModeOf(base_ + "foreign"), S_IFDIR | 0777u);
}

TEST_F(RescueSpaceModuleTest, OperationLogKeepsTheNewestHundredLines) {
    std::string old;
    for (int i = 1; i <= 150; ++i) old += "old " + std::to_string(i) + "\n";
    const std::string path = Plant("recovery/last_rescue_space_monitor_log", old);
    RescueSpaceThread worker;
    worker.LogRescueSpaceMonitorOperate("newest");
    std::string expected = std::to_string(clock_.WallNowMs() / 1000) + ": newest\n";
    for (int i = 1; i <= 99; ++i) expected += "old " + std::to_string(i) + "\n";
    EXPECT_EQ(ReadFile(path), expected);
}

}  // namespace
