#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include <android-base/properties.h>
#include <log/log.h>

#include "tests/support/ModBModuleTest.h"
#include "tests/support/WaitFor.h"

namespace {

using tarnis_test::Exists;
using tarnis_test::WaitFor;
using tarnis_test::ReadFile;

constexpr char kTag[] = "TombstoneMonitor";

class TombstoneMonitorModuleTest : public tarnis_test::ModBModuleTest {
protected:
    void SetUp() override {
        ModBModuleTest::SetUp();
        in_ = Device("/data/tombstones/");
        out_ = Device("/data/nuvilog/stability/nativecrash/tombstones/");
        outside_ = elsewhere_.Sub("secret");
        MakeDir(in_);
        ASSERT_TRUE(tarnis_test::WriteFile(outside_, "keep"));
    }

    // Moves the test clock a second at a time until `done`; the clock time it took.
    int64_t AdvanceUntil(const std::function<bool()>& done) {
        const int64_t start = clock_.SteadyNowMs();
        EXPECT_TRUE(WaitFor([&] {
            if (done()) return true;
            // A second per sleep of the worker: one moved between two sleeps would pass unseen.
            clock_.WaitForWaiters(1, std::chrono::milliseconds(100));
            clock_.Advance(1000);
            return false;
        }));
        return clock_.SteadyNowMs() - start;
    }
    void StartWatching() {
        MakeDir(out_);
        LoadModules();
        AdvanceUntil([this] { return Dump({"TombstoneMonitor"}).find("watching: yes") != std::string::npos; });
    }
    void MakeDir(const std::string& dir) { ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0); }

    tarnis_test::TempDir elsewhere_;
    std::string in_, out_, outside_;
};

TEST_F(TombstoneMonitorModuleTest, MirrorsCreateModifyAndDeleteOfTombstonesOnlyBetweenTheDefaultDirectories) {
    // Property directories climbing out of /data or through a link are refused for the defaults.
    MakeDir(elsewhere_.Sub("in"));
    MakeDir(elsewhere_.Sub("out"));
    const std::string climbing = "/data/../../" + elsewhere_.path().substr(elsewhere_.path().rfind('/') + 1);
    android::base::SetProperty("sys.tombstone.monitor.in.dir", climbing + "/in/");
    ASSERT_EQ(symlink(elsewhere_.path().c_str(), Device("/data/planted").c_str()), 0);
    android::base::SetProperty("sys.tombstone.monitor.out.dir", "/data/planted/out/");
    StartWatching();
    for (const char* reason : {"climbs out of \"/data\"", "passes through a symbolic link"}) {
        EXPECT_TRUE(log_.Contains(reason + std::string("; using the default /data/"), kTag, ANDROID_LOG_ERROR));
    }
    ASSERT_TRUE(log_.HasLine("Tombstone Monitor is Start!", kTag, ANDROID_LOG_INFO));
    // The wait for the output directory is over; the listener has the events.
    EXPECT_NE(Dump({"TombstoneMonitor"}).find("TombstoneSetup: finished\nwatching: yes\n"), std::string::npos);

    ASSERT_TRUE(tarnis_test::WriteFile(in_ + "tombstone_00", "first"));
    ASSERT_TRUE(WaitFor([&] { return ReadFile(out_ + "tombstone_00") == "first"; }));
    ASSERT_TRUE(tarnis_test::WriteFile(in_ + "tombstone_00", "second, longer"));
    ASSERT_TRUE(WaitFor([&] { return ReadFile(out_ + "tombstone_00") == "second, longer"; }));
    EXPECT_TRUE(log_.HasLine("Detected creat or modify file: tombstone_00", kTag, ANDROID_LOG_WARN));
    struct stat st;
    ASSERT_EQ(stat((out_ + "tombstone_00").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0770u);
    if (geteuid() == 0) {
        EXPECT_EQ(st.st_uid, 1000u);
        EXPECT_EQ(st.st_gid, 1000u);
    }

    // Events come in order: once the last is mirrored the others were handled.
    ASSERT_TRUE(tarnis_test::WriteFile(in_ + "trace_01", "not a tombstone"));
    ASSERT_EQ(mkdir((in_ + "tombstone_x").c_str(), 0755), 0);
    ASSERT_TRUE(tarnis_test::WriteFile(in_ + "tombstone_03.pb", "proto"));
    ASSERT_TRUE(WaitFor([&] { return ReadFile(out_ + "tombstone_03.pb") == "proto"; }));
    EXPECT_FALSE(log_.Contains("trace_01"));

    ASSERT_EQ(unlink((in_ + "tombstone_00").c_str()), 0);
    ASSERT_TRUE(WaitFor([&] { return !Exists(out_ + "tombstone_00"); }));
    EXPECT_TRUE(log_.HasLine("Detected deletd file: tombstone_00", kTag, ANDROID_LOG_INFO));
    // A delete of a tombstone that was never mirrored says so and goes on.
    ASSERT_EQ(rmdir((in_ + "tombstone_x").c_str()), 0);
    ASSERT_TRUE(WaitFor([&] { return log_.Contains("remove path " + out_ + "tombstone_x failed!"); }));
    EXPECT_EQ(tarnis_test::RunShell("ls -A '" + out_ + "'"), "tombstone_03.pb\n");
    EXPECT_TRUE(tarnis_test::ListDir(elsewhere_.Sub("out")).empty());
}

TEST_F(TombstoneMonitorModuleTest, LinksAreNeverFollowedAndHostileTombstonesNeitherHoldNorFillTheMirror) {
    // Mirrored before the daemon ran; its mirror is now a link out of the tree.
    ASSERT_TRUE(tarnis_test::WriteFile(in_ + "tombstone_06", "old"));
    MakeDir(out_);
    ASSERT_EQ(symlink(outside_.c_str(), (out_ + "tombstone_06").c_str()), 0);
    ASSERT_EQ(symlink(outside_.c_str(), (out_ + "tombstone_05").c_str()), 0);
    const std::string leftover = out_ + ".tarnis-tmp.tombstone_09.k3v9";
    ASSERT_TRUE(tarnis_test::WriteFile(leftover, "half"));
    StartWatching();
    EXPECT_FALSE(Exists(leftover));

    // A tombstone that is a link is not read.
    ASSERT_EQ(symlink(outside_.c_str(), (in_ + "tombstone_link").c_str()), 0);
    const std::string src = in_ + "tombstone_link";
    ASSERT_TRUE(WaitFor([&] {
        return log_.HasLine("Faile to copy file: " + src + ", " + out_ + "tombstone_link !", kTag, ANDROID_LOG_ERROR);
    }));
    EXPECT_TRUE(log_.HasLine("open file [" + src + "] error: Too many levels of symbolic links", kTag,
                             ANDROID_LOG_WARN));
    EXPECT_FALSE(Exists(out_ + "tombstone_link"));

    // A link planted at the mirror's name is replaced, not written through.
    ASSERT_TRUE(tarnis_test::WriteFile(in_ + "tombstone_05", "crash"));
    // Created, then written: the mirror may be copied empty first.
    ASSERT_TRUE(WaitFor([&] { return ReadFile(out_ + "tombstone_05") == "crash"; }));

    ASSERT_EQ(unlink((in_ + "tombstone_06").c_str()), 0);
    ASSERT_TRUE(WaitFor([&] { return !Exists(out_ + "tombstone_06"); }));
    EXPECT_EQ(ReadFile(outside_), "keep");

    ASSERT_EQ(mkfifo((in_ + "tombstone_fifo").c_str(), 0600), 0);
    ASSERT_TRUE(
            WaitFor([&] { return log_.HasLine(in_ + "tombstone_fifo is not a regular file, not mirrored", kTag); }));

    // Data at 0 and 32 MiB of a 256 MiB sparse file: the mirror stops at 64 MiB and keeps the holes.
    const std::string big = in_ + "tombstone_10", mirror = out_ + "tombstone_10";
    tarnis_test::RunShell("printf head >" + big + "; truncate -s 256M " + big + "; printf tail | dd of=" + big +
                          " bs=1M seek=32 conv=notrunc status=none");
    ASSERT_TRUE(
            WaitFor([&] { return tarnis_test::RunShell("tail -c +33554433 " + mirror + " | head -c 4") == "tail"; }));
    struct stat st;
    ASSERT_EQ(stat(mirror.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 64 << 20);
    EXPECT_LT(st.st_blocks * 512, 1 << 20);
    EXPECT_TRUE(log_.HasLine(big + " is 268435456 bytes, only its first 67108864 are mirrored", kTag));
}

TEST_F(TombstoneMonitorModuleTest, EndsAndRemovesItselfWhenTheOutputDirectoryNeverComes) {
    LoadModules();
    const std::string line = "wait " + out_ + " timeout, so exit: No such file or directory";
    const int64_t waited = AdvanceUntil([&] { return log_.HasLine(line, kTag, ANDROID_LOG_ERROR); });
    // 62 checks, each failed one followed by a second's sleep.
    EXPECT_GE(waited, 62 * 1000);
    EXPECT_LE(waited, 63 * 1000);
    ASSERT_TRUE(WaitFor([&] { return Stopped("TombstoneMonitor"); }));
    const std::string moduleTag = "Tarnis-TombstoneMonitorModule";
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] load TombstoneMonitor", moduleTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] TombstoneMonitor done~", moduleTag, ANDROID_LOG_INFO));
    // Logged just after the removal is asked for, which may already show.
    EXPECT_TRUE(WaitFor([&] { return log_.HasLine("[OnAllModulesLoaded] quited!!", moduleTag, ANDROID_LOG_INFO); }));
}

}  // namespace
