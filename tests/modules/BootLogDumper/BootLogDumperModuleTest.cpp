#include <sys/stat.h>
#include <unistd.h>

#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include "modules/BootLogDumper/BootLogDumper.h"
#include "modules/BootLogDumper/BootLogDumperModule.h"
#include "tests/support/ModBModuleTest.h"
#include "tests/support/WaitFor.h"
#include "utils/Paths.h"

namespace {

using tarnis_test::ModeOf;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WriteFile;
using velmar::tarnis::BootLogDumper;
namespace paths = velmar::kolto::paths;

constexpr char kTag[] = "BootLogDumper";
constexpr char kModuleTag[] = "Tarnis-BootLogDumperModule";

// Archive names carry local time, which the fixture pins to UTC.
class BootLogDumperModuleTest : public tarnis_test::ModBModuleTest {
protected:
    void SetUp() override {
        ModBModuleTest::SetUp();
        aee_ = Device(paths::kAeeExpDir);
        staging_ = Device(paths::kBootLogDir);
        RunShell("mkdir -p '" + aee_ + "'");
        // The system's tools: stand-in dmesg and logcat, the host's tar and rm.
        PlantDevice(paths::kSystemDmesg, "#!/bin/sh\necho 'kernel: booted'\n", true);
        PlantDevice(paths::kSystemLogcat, "#!/bin/sh\necho \"logcat $*\"\n", true);
        ASSERT_EQ(symlink(RunShell("command -v tar | tr -d '\\n'").c_str(), Device(paths::kSystemTar).c_str()), 0);
        ASSERT_EQ(symlink(RunShell("command -v rm | tr -d '\\n'").c_str(), Device(paths::kSystemRm).c_str()), 0);
        PlantDevice(paths::kProcPlLk, "preloader and lk\n");
        PlantDevice(paths::kProcBootprof, "boot profile\n");
    }
    std::string aee_;
    std::string staging_;
};

TEST_F(BootLogDumperModuleTest, ArchivesTheBootLogsKeepingTheNewestTen) {
    const auto old = [](int day) { return android::base::StringPrintf("boot_log_2025_03%02d_101500.gz", day); };
    for (int day = 1; day <= 12; ++day) ASSERT_TRUE(WriteFile(aee_ + "/" + old(day), "old"));
    ASSERT_TRUE(WriteFile(aee_ + "/boot_log_x", "?"));
    ASSERT_TRUE(WriteFile(aee_ + "/db.fatal", "db"));
    clock_.SetWallMs(tarnis_test::TestClock::kStartWallMs + ((7 * 60 + 5) * 60 + 9) * 1000);  // 07:05:09
    ASSERT_TRUE(android::base::SetProperty("sys.boot_completed", "1"));

    LoadModules();
    ASSERT_TRUE(tarnis_test::WaitFor([&] { return Stopped("BootLogDumper"); }));  // the archive is made on its worker
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] load Mtk BootLopDumper module", kModuleTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine(staging_ + " is not existed, create it!", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("Unrecognized log file boot_log_x", kTag));
    EXPECT_TRUE(log_.HasLine("current_time: 2026_0101_070509", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("directory: " + aee_ + " has been synced to disk\n", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] Mtk BootLopDumper done~", kModuleTag));
    // Logged after the module asked for its removal, so perhaps after it shows as stopped.
    EXPECT_TRUE(tarnis_test::WaitFor([&] { return log_.HasLine("[OnAllModulesLoaded] quited!!", kModuleTag); }));

    // The nine newest planted and the new one; no staging directory (bootlog), no partial archive left.
    const std::string archive = "boot_log_2026_0101_070509.gz";
    std::vector<std::string> kept;
    for (int day = 4; day <= 12; ++day) kept.push_back(old(day));
    kept.insert(kept.end(), {archive, "db.fatal"});
    EXPECT_EQ(tarnis_test::ListDir(aee_), kept);

    const std::string tar = "tar -zf '" + aee_ + "/" + archive + "' ";
    EXPECT_EQ(RunShell(tar + "-t | sort"), "./\n./bootproof\n./kernel_log\n./main_log\n./pl_lk\n");
    EXPECT_EQ(RunShell("for f in kernel_log main_log pl_lk bootproof; do " + tar + "-xO ./$f; done"),
              "kernel: booted\nlogcat -d -v threadtime *:V\npreloader and lk\nboot profile\n");
}

TEST_F(BootLogDumperModuleTest, WaitsForBootThenStopsWithoutTheBootLoaderLogAndNeverCopiesThroughALink) {
    ASSERT_EQ(unlink(Device(paths::kProcPlLk).c_str()), 0);
    // A link planted as the staging directory is replaced, not written through.
    const std::string outside = root_.Sub("outside");
    ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
    ASSERT_EQ(symlink(outside.c_str(), staging_.c_str()), 0);

    LoadModules();
    AdvanceAndSettle(60 * 60 * 1000);  // an hour without boot completion
    EXPECT_FALSE(log_.Contains("begin dump boot kernel log", kTag));
    EXPECT_NE(Dump({"BootLogDumper"}).find("BootLogDumper: not started\nboot completed: not yet, next look 2000 ms "
                                           "after the last\ngathered: nothing yet\narchive: none\n"),
              std::string::npos);

    ASSERT_TRUE(android::base::SetProperty("sys.boot_completed", "1"));
    AdvanceAndSettle(velmar::tarnis::BootLogDumperModule::kBootPollLongestMs);
    ASSERT_TRUE(tarnis_test::WaitFor([&] { return Stopped("BootLogDumper"); }));
    EXPECT_TRUE(log_.HasLine("begin dump boot main log", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("begin dump boot pl_lk log", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("src file " + Device(paths::kProcPlLk) + " is not exist!", kTag));
    EXPECT_TRUE(log_.HasLine("dump_boot_logs: Copy boot pl_lk log failed!", kTag, ANDROID_LOG_ERROR));
    EXPECT_FALSE(log_.Contains("begin dump boot proof log", kTag));
    EXPECT_FALSE(log_.Contains("current_time", kTag));

    EXPECT_EQ(ModeOf(staging_), S_IFDIR | 0775u);
    EXPECT_EQ(ReadFile(Device(paths::kBootLogKernelLog)), "kernel: booted\n");
    EXPECT_EQ(tarnis_test::ListDir(aee_), std::vector<std::string>{"bootlog"});
    EXPECT_TRUE(tarnis_test::ListDir(outside).empty());

    // Staging files are copied into fresh files; a link planted at one's name is refused.
    const std::string src = root_.Sub("src"), fresh = root_.Sub("fresh"), link = root_.Sub("link");
    ASSERT_TRUE(WriteFile(src, "0123456789"));
    EXPECT_EQ(BootLogDumper::copy_file(src.c_str(), 0, fresh.c_str(), 0), 0);
    EXPECT_EQ(ReadFile(fresh), "0123456789");
    EXPECT_TRUE(log_.HasLine("tgt file " + fresh + " is not exist, need to create it!", kTag, ANDROID_LOG_INFO));
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(ModeOf(fresh), S_IFREG | (0660u & ~mask));

    ASSERT_TRUE(WriteFile(src, "new"));
    ASSERT_EQ(symlink(fresh.c_str(), link.c_str()), 0);
    EXPECT_LT(BootLogDumper::copy_file(src.c_str(), 0, link.c_str(), 0), 0);
    EXPECT_TRUE(log_.Contains("open tgt file " + link + " failed, error: ", kTag, ANDROID_LOG_ERROR));
    EXPECT_EQ(ReadFile(fresh), "0123456789");
}

}  // namespace
