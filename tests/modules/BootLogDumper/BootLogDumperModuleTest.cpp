#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include "modules/BootLogDumper/BootLogDumper.h"
#include "modules/BootLogDumper/BootLogDumperModule.h"
#include "tests/support/ModuleTest.h"
#include "utils/Paths.h"

namespace {

using velmar::tarnis::BootLogDumper;
namespace paths = velmar::kolto::paths;

constexpr char kTag[] = "BootLogDumper";
constexpr char kModuleTag[] = "Tarnis-BootLogDumperModule";

std::string Shell(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[512];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
    pclose(pipe);
    return out;
}

class BootLogDumperModuleTest : public tarnis_test::ModuleTest {
protected:
    void SetUp() override {
        // Archive names carry local time: the test fixes what local means.
        setenv("TZ", "UTC", 1);
        tzset();
        ModuleTest::SetUp();
        aee_ = Device(paths::kAeeExpDir);
        staging_ = Device(paths::kBootLogDir);
        ASSERT_EQ(system(("mkdir -p '" + aee_ + "' '" + Device("/system/bin") + "' '" + Device("/proc") + "'").c_str()),
                  0);
        // The system's tools: stand-in dmesg and logcat, the host's tar and rm.
        Tool(paths::kSystemDmesg, "#!/bin/sh\necho 'kernel: booted'\n");
        Tool(paths::kSystemLogcat, "#!/bin/sh\necho \"logcat $*\"\n");
        ASSERT_EQ(symlink(Shell("command -v tar | tr -d '\\n'").c_str(), Device(paths::kSystemTar).c_str()), 0);
        ASSERT_EQ(symlink(Shell("command -v rm | tr -d '\\n'").c_str(), Device(paths::kSystemRm).c_str()), 0);
        ASSERT_TRUE(android::base::WriteStringToFile("preloader and lk\n", Device(paths::kProcPlLk)));
        ASSERT_TRUE(android::base::WriteStringToFile("boot profile\n", Device(paths::kProcBootprof)));
    }
    void Tool(const char* devicePath, const std::string& script) {
        ASSERT_TRUE(android::base::WriteStringToFile(script, Device(devicePath)));
        ASSERT_EQ(chmod(Device(devicePath).c_str(), 0755), 0);
    }
    std::vector<std::string> Archives() { return tarnis_test::ListDir(aee_); }
    static bool Exists(const std::string& path) { return tarnis_test::Exists(path); }

    std::string aee_;
    std::string staging_;
};

TEST_F(BootLogDumperModuleTest, ArchivesTheBootLogsKeepingTheNewestTen) {
    std::vector<std::string> old;
    for (int day = 1; day <= 12; ++day) {
        old.push_back(android::base::StringPrintf("boot_log_2025_03%02d_101500.gz", day));
        ASSERT_TRUE(android::base::WriteStringToFile("old", aee_ + "/" + old.back()));
    }
    ASSERT_TRUE(android::base::WriteStringToFile("?", aee_ + "/boot_log_x"));
    ASSERT_TRUE(android::base::WriteStringToFile("db", aee_ + "/db.fatal"));
    clock_.SetWallMs(tarnis_test::TestClock::kStartWallMs + ((7 * 60 + 5) * 60 + 9) * 1000);  // 07:05:09
    ASSERT_TRUE(android::base::SetProperty("sys.boot_completed", "1"));

    LoadModules();
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] load Mtk BootLopDumper module", kModuleTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine(staging_ + " is not existed, create it!", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("Unrecognized log file boot_log_x", kTag));
    EXPECT_TRUE(log_.HasLine("current_time: 2026_0101_070509", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("directory: " + aee_ + " has been synced to disk\n", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] Mtk BootLopDumper done~", kModuleTag));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] quited!!", kModuleTag));

    const std::string archive = "boot_log_2026_0101_070509.gz";
    std::vector<std::string> expected(old.begin() + 3, old.end());
    expected.push_back(archive);
    expected.push_back("db.fatal");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Archives(), expected);  // no staging directory, no partial archive left
    EXPECT_FALSE(Exists(staging_));

    const std::string path = aee_ + "/" + archive;
    const std::string listing = Shell("tar -tzf '" + path + "' | sort");
    EXPECT_EQ(listing, "./\n./bootproof\n./kernel_log\n./main_log\n./pl_lk\n");
    EXPECT_EQ(Shell("tar -xOzf '" + path + "' ./kernel_log"), "kernel: booted\n");
    EXPECT_EQ(Shell("tar -xOzf '" + path + "' ./main_log"), "logcat -d -v threadtime *:V\n");
    EXPECT_EQ(Shell("tar -xOzf '" + path + "' ./pl_lk"), "preloader and lk\n");
    EXPECT_EQ(Shell("tar -xOzf '" + path + "' ./bootproof"), "boot profile\n");

    // Its work done, the module has removed itself.
    EXPECT_NE(Dump({"ModuleManager", "dump"}).find("BootLogDumper\t\tStopped\n"), std::string::npos);
}

TEST_F(BootLogDumperModuleTest, WaitsForBootThenStopsWithoutTheBootLoaderLog) {
    ASSERT_EQ(unlink(Device(paths::kProcPlLk).c_str()), 0);
    // A link planted as the staging directory is replaced, not written through.
    const std::string outside = root_.path() + "/outside";
    ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
    ASSERT_EQ(symlink(outside.c_str(), staging_.c_str()), 0);

    LoadModules();
    EXPECT_FALSE(log_.Contains("begin dump boot kernel log", kTag));
    AdvanceAndSettle(60 * 60 * 1000);  // an hour without boot completion
    EXPECT_FALSE(log_.Contains("begin dump boot kernel log", kTag));

    ASSERT_TRUE(android::base::SetProperty("sys.boot_completed", "1"));
    AdvanceAndSettle(velmar::tarnis::BootLogDumperModule::kBootPollLongestMs);
    EXPECT_TRUE(log_.HasLine("begin dump boot main log", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("begin dump boot pl_lk log", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("src file " + Device(paths::kProcPlLk) + " is not exist!", kTag));
    EXPECT_TRUE(log_.HasLine("dump_boot_logs: Copy boot pl_lk log failed!", kTag, ANDROID_LOG_ERROR));
    EXPECT_FALSE(log_.Contains("begin dump boot proof log", kTag));
    EXPECT_FALSE(log_.Contains("current_time", kTag));

    // The staging directory stays, with what was gathered; no archive.
    struct stat st {};
    ASSERT_EQ(lstat(staging_.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0775u);
    std::string kernel;
    EXPECT_TRUE(android::base::ReadFileToString(Device(paths::kBootLogKernelLog), &kernel));
    EXPECT_EQ(kernel, "kernel: booted\n");
    EXPECT_EQ(Archives(), std::vector<std::string>{"bootlog"});
    EXPECT_EQ(Shell("ls -A '" + outside + "'"), "");
}

TEST_F(BootLogDumperModuleTest, AStopEndsTheWaitForBootCompletion) {
    BootLogDumper dumper;
    std::thread waiter([&dumper] { dumper.dump_boot_logs(); });
    dumper.Stop();
    waiter.join();
    EXPECT_FALSE(log_.Contains("begin dump boot kernel log", kTag));
    EXPECT_FALSE(Exists(staging_));
}

TEST_F(BootLogDumperModuleTest, CopyFileHonoursOffsetsAndRefusesALinkAsTarget) {
    const std::string src = root_.path() + "/src";
    const std::string dst = root_.path() + "/dst";
    ASSERT_TRUE(android::base::WriteStringToFile("0123456789", src));
    ASSERT_TRUE(android::base::WriteStringToFile("abcdef", dst));
    EXPECT_EQ(BootLogDumper::copy_file(src.c_str(), 4, dst.c_str(), 2), 0);
    std::string copied;
    ASSERT_TRUE(android::base::ReadFileToString(dst, &copied));
    EXPECT_EQ(copied, "ab456789");

    const std::string fresh = root_.path() + "/fresh";
    EXPECT_EQ(BootLogDumper::copy_file(src.c_str(), 0, fresh.c_str(), 0), 0);
    EXPECT_TRUE(log_.HasLine("tgt file " + fresh + " is not exist, need to create it!", kTag, ANDROID_LOG_INFO));
    struct stat st {};
    ASSERT_EQ(stat(fresh.c_str(), &st), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0660u & ~mask);

    const std::string link = root_.path() + "/link";
    ASSERT_EQ(symlink(dst.c_str(), link.c_str()), 0);
    EXPECT_LT(BootLogDumper::copy_file(src.c_str(), 0, link.c_str(), 0), 0);
    EXPECT_TRUE(log_.Contains("open tgt file " + link + " failed, error: ", kTag, ANDROID_LOG_ERROR));
    ASSERT_TRUE(android::base::ReadFileToString(dst, &copied));
    EXPECT_EQ(copied, "ab456789");
}

}  // namespace
