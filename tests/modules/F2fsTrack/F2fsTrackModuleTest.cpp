#include <sys/statfs.h>
#include <unistd.h>

#include <map>

#include <binder/IPCThreadState.h>

#include <android-base/properties.h>
#include <log/log.h>

#include "modules/F2fsTrack/F2fsStatus.h"
#include "modules/F2fsTrack/F2fsTrack.h"
#include "tests/support/ModBModuleTest.h"

namespace {

using android::base::SetProperty;
namespace f2fs = velmar::kolto::F2fsTrack;

constexpr char kTag[] = "f2fsTrack";
constexpr int64_t kMinuteMs = 60 * 1000;
constexpr int64_t kDayMs = 24 * 60 * kMinuteMs;

constexpr char kStatus[] = R"(=====[ partition info(dm-5). #0, RW, CP: Good]=====
[SB: 1] [CP: 2] [SIT: 4] [MAIN: 29646(OverProv:1092 Resv:576)]
Current Time Sec: 5000 / Mounted Time Sec: 10
Utilization: 13% (1864093 valid blocks, 7 discard blocks)
  - Node: 8915 (Inode: 7868, Other: 1047)
  - Data: 1855178
    TYPE            segno    secno   zoneno  dirty_seg   full_seg  valid_blk
  - COLD   data:     8192     4096     4096         11         12         13
  - Indir nodes:       10       20       30         21         22         23
CP calls: 386 (BG: 299)
CP count: 400
  - cp blocks : 1234
  - ssa blocks : 12
  - Queued :    3
  - Cur time :    4(ms)
  - Peak time :   55(ms)
  - data segments : 6 (1)
  - node segments : 7 (1)
Try to move 1136 blocks (BG: 1136)
  - data blocks : 1028 (1028)
  - node blocks : 108 (108)
  - Idle Greedy : 31
  - Urgent High : 32
  - Urgent Mid : 33
  - Urgent Low : 34
  - Hit Count: L1-1:41 L1-2:42 L2:43
  - Hit Ratio: 44% (45 / 46)
  - DIO (R:   51, W:   52)
  - IO_R (Data:   53, Node:   54, Meta:   55
  - IO_W (CP:   56, Data:   57, Flush: (   58   59    1), Discard: (   0 1112)) cmd:    0
  - MAIN (R: 61, W: 62 D: 63)
  - EXT (R: 64, W: 65 D: 66)
  - atomic IO:   67 (Max.   68)
IPU: 71 blocks
SSR: 72 blocks in 73 segments
LFS: 74 blocks in 75 segments
Memory: 4356 KB
  - cached all: 123 KB
)";

// Midnight is local midnight, which the fixture pins to UTC.
class F2fsTrackModuleTest : public tarnis_test::ModBModuleTest {
protected:
    // The data partition on a dm device over sda32, with every f2fs file.
    void PlantF2fsTree(const std::string& undiscard, const std::string& freeSegs, const std::string& dirtySegs) {
        PlantDevice("/proc/mounts",
                    "tmpfs /dev tmpfs rw 0 0\n/dev/block/sda9 /data_mirror f2fs rw 0 0\n"
                    "/dev/block/dm-5 /data f2fs rw,lazytime 0 0\n/dev/block/sda10 /data f2fs rw 0 0\n");
        ASSERT_EQ(system(("mkdir -p '" + Device("/sys/block/dm-5/slaves/sda32") + "'").c_str()), 0);
        const std::map<std::string, std::string> files = {
            {"avg_vblocks", "12\n"}, {"free_segments", freeSegs}, {"dirty_segments", dirtySegs},
            {"lifetime_write_kbytes", "3145727\n"}, {"atgc_enabled", "1\n"}, {"gc_background_calls", "3\n"},
            {"gc_foreground_calls", "4\n"}, {"moved_blocks_background", "5\n"}, {"moved_blocks_foreground", "6"},
            {"pending_discard", "7\n"}, {"stat/undiscard_blks", undiscard}, {"stat/issued_discard", "8\n"}};
        for (const auto& [file, content] : files) PlantDevice("/sys/fs/f2fs/sda32/" + file, content);
    }
    std::vector<Json::Value> Reports(std::vector<std::string>* texts = nullptr) {
        return TrelvoPayloads("52000179047", "ZelF2fsTrack", texts);
    }
    static void ExpectMembers(const Json::Value& event, const std::map<std::string, int64_t>& expected) {
        for (const auto& [key, value] : expected) {
            ASSERT_TRUE(event.isMember(key)) << key << " missing in " << event.toStyledString();
            EXPECT_EQ(event[key].asInt64(), value) << key;
        }
    }
};

TEST_F(F2fsTrackModuleTest, FirstRunAtLocalMidnightThenDailyWithTheWholeStorageEvent) {
    PlantF2fsTree("100,10,20,70\n", "300\n", "100\n");
    PlantDevice("/sys/fs/f2fs/sda32/hybrid_die_info",
                "area a b total free c free_segs dirty_segs gc gc_bg gc_fg\n"
                "main: 1 2 1048576 524288 5 600 700 8 9 10\n"
                "ext: 11 12 256 13 15 16 17 18 19 20\n"
                "main2main: 21 ext2ext: 22\nmain2ext 23\next2main=24 unspec: 25\n");
    PlantDevice("/data/dorva/aging/maint_record", "idle 3 runs\nlast 2026-01-01\n");
    PlantDevice("/data/dorva/aging/improve_record", "gc improved 5%\n");
    PlantDevice("/proc/fs/f2fs/status", kStatus);
    ASSERT_TRUE(SetProperty("persist.sys.stability.f2fsTrackEnable", "true"));
    clock_.SetWallMs(tarnis_test::TestClock::kStartWallMs - 30 * kMinuteMs);  // 23:30

    LoadModules();
    EXPECT_TRUE(log_.HasLine("[OnInit] tarnis F2fsTrack OnInit", "Tarnis-F2fsTrack", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] DayMidnight: 0 h", "Tarnis-F2fsTrackModule"));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] F2fsTrack done~", "Tarnis-F2fsTrackModule"));

    AdvanceAndSettle(29 * kMinuteMs);
    EXPECT_TRUE(Reports().empty());
    AdvanceAndSettle(kMinuteMs);
    std::vector<std::string> texts;
    std::vector<Json::Value> reports = Reports(&texts);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(texts[0].rfind("{\"EVENT_NAME\":\"StorageInfo\",", 0), 0u) << texts[0];
    const Json::Value& event = reports[0];
    EXPECT_EQ(event["mount_point"].asString(), "/data");
    EXPECT_EQ(event["idlemaint_record"].asString(), "idle 3 runs last 2026-01-01");
    EXPECT_EQ(event["gcimprove_record"].asString(), "gc improved 5%");
    struct statfs data {};
    ASSERT_EQ(statfs(Device("/data").c_str(), &data), 0);
    EXPECT_NEAR(event["statfs_Util"].asInt64(), (data.f_blocks - data.f_bfree) * 100.0 / data.f_blocks, 1);
    ExpectMembers(event, {
        {"avg_vblocks", 12}, {"free_segments", 300}, {"dirty_segments", 100}, {"freeSegRatio", 75},
        {"lifetime_write_GB", 2}, {"atgc_enabled", 1}, {"gc_background_calls", 3}, {"gc_foreground_calls", 4},
        {"moved_blocks_background", 5}, {"moved_blocks_foreground", 6}, {"pending_discard", 7},
        {"undiscard_blks", 100}, {"undiscard_blks_small", 10}, {"undiscard_blks_middle", 20},
        {"undiscard_blks_large", 70}, {"issued_discard", 8},
        // Hybrid die: main's total is 2048 segments; ext's is below one.
        {"main_free", 524288}, {"main_free_segs", 600}, {"main_dirty_segs", 700}, {"main_gc_count", 8},
        {"main_gc_bg_count", 9}, {"main_gc_fg_count", 10}, {"main_dirty_ratio", 34}, {"main_new_seg_ratio", 29},
        {"main_free_ratio", 50}, {"ext_free", 13}, {"ext_free_segs", 16}, {"ext_dirty_segs", 17},
        {"ext_gc_count", 18}, {"ext_gc_bg_count", 19}, {"ext_gc_fg_count", 20}, {"ext_dirty_ratio", 0},
        {"ext_new_seg_ratio", 0}, {"ext_free_ratio", 5}, {"main2main", 21}, {"ext2ext", 22}, {"main2ext", 23},
        {"ext2main", 24}, {"unspec", 25},
            {"MAIN", 29646}, {"MAIN_OverProv", 1092}, {"MAIN_Resv", 576}, {"Current_Time_Sec", 5000},
        {"Utilization", 13}, {"valid_blocks", 1864093}, {"discard_blocks", 7}, {"valid_node_blocks", 8915},
        {"valid_data_blocks", 1855178}, {"COLD_data_dirty_seg", 11}, {"COLD_data_full_seg", 12},
        {"COLD_data_valid_blk", 13}, {"Indir_nodes_dirty_seg", 21}, {"Indir_nodes_full_seg", 22},
        {"Indir_nodes_valid_blk", 23}, {"CP_calls", 386}, {"CP_BG_calls", 299}, {"CP_count", 400},
        {"cp_blks", 1234}, {"ssa_blks", 12}, {"CP_Queued", 3}, {"CP_Cur_time", 4}, {"CP_Peak_time", 55},
        {"gc_data_segments", 6}, {"gc_node_segments", 7}, {"Try_to_move_blocks", 1136}, {"gc_data_blocks", 1028},
        {"gc_node_blocks", 108}, {"Idle_Greedy", 31}, {"Urgent_High", 32}, {"Urgent_Mid", 33}, {"Urgent_Low", 34},
        {"Hit_Count_L1_1", 41}, {"Hit_Count_L1_2", 42}, {"Hit_Count_L2", 43}, {"Hit_Ratio", 44},
        {"Hit_Ratio_hits", 45}, {"Hit_Ratio_lookups", 46}, {"DIO_R", 51}, {"DIO_W", 52}, {"IO_R_Data", 53},
        {"IO_R_Node", 54}, {"IO_R_Meta", 55}, {"IO_W_CP", 56}, {"IO_W_Data", 57}, {"IO_W_Flush_flushing", 58},
        {"IO_W_Flush_flushed", 59}, {"IO_W_Flush_empty", 1}, {"MAIN_R", 61}, {"MAIN_W", 62}, {"MAIN_D", 63},
        {"EXT_R", 64}, {"EXT_W", 65}, {"EXT_D", 66}, {"atomic_IO", 67}, {"IPU_blks", 71}, {"SSR_blks", 72},
        {"SSR_segs", 73}, {"LFS_blks", 74}, {"LFS_segs", 75}, {"Mem_total", 4356}, {"Mem_cached_all", 123},
    });
    EXPECT_TRUE(log_.HasLine("trelvo_report: trelvo_report_nums: 1", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("IOstat tracking disabled", kTag));  // and so only the one event

    AdvanceAndSettle(kDayMs - kMinuteMs);
    EXPECT_EQ(Reports().size(), 1u);
    AdvanceAndSettle(kMinuteMs);
    EXPECT_EQ(Reports().size(), 2u);
    EXPECT_EQ(Dump({"F2fsTrack", "run"}),
              "Dumping module F2fsTrack: \nrun: done\nruns: 3\n\n-------------------------------------\n");
    EXPECT_EQ(Reports().size(), 3u);
    // An ordinary uid's runs: one a minute, however often it asks.
    {
        android::IPCThreadState::ScopedIdentity shell(2000, getpid());
        EXPECT_NE(Dump({"F2fsTrack", "run"}).find("run: done"), std::string::npos);
        EXPECT_NE(Dump({"F2fsTrack", "run"}).find("not again yet"), std::string::npos);
        EXPECT_EQ(Reports().size(), 4u);
    }
}

TEST_F(F2fsTrackModuleTest, DisabledByDefaultAndMissingOrMalformedSourcesStillSendTheEvent) {
    LoadModules();
    EXPECT_TRUE(log_.HasLine("[OnInit] F2fsTrack not enabled", "Tarnis-F2fsTrack", ANDROID_LOG_INFO));
    EXPECT_EQ(Dump({"F2fsTrack"}), "Module F2fsTrack is not running\n");

    PlantF2fsTree("100\n", "0\n", "0\n");
    PlantDevice("/sys/fs/f2fs/sda32/avg_vblocks", "12abc\n");
    f2fs::doTrack();
    std::vector<Json::Value> reports = Reports();
    ASSERT_EQ(reports.size(), 1u);
    const Json::Value& event = reports[0];
    ExpectMembers(event, {{"undiscard_blks", 100}, {"freeSegRatio", 0}, {"avg_vblocks", 0},
                          {"main_dirty_ratio", 0}, {"main_new_seg_ratio", 0}, {"main_free_ratio", 0},
                          {"ext_dirty_ratio", 0}, {"ext_new_seg_ratio", 0}, {"ext_free_ratio", 0}});
    for (const char* absent : {"undiscard_blks_small", "undiscard_blks_middle", "undiscard_blks_large",
                               "idlemaint_record", "main_free", "CP_calls"}) {
        EXPECT_FALSE(event.isMember(absent)) << absent;
    }
    EXPECT_TRUE(log_.HasLine("Failed to convert '12abc' to unsigned long: invalid argument", kTag));
    EXPECT_TRUE(log_.HasLine("Failed to open hybrid_die_info: No such file or directory", kTag));
    EXPECT_TRUE(log_.HasLine("Failed to open file: " + Device("/data/dorva/aging/maint_record"), kTag));
    EXPECT_TRUE(log_.HasLine("Failed to open " + Device("/proc/fs/f2fs/status") + ", err No such file or directory",
                             kTag));

    // Without a /data entry nothing is read from the device, and the event still goes.
    PlantDevice("/proc/mounts", "tmpfs /dev tmpfs rw 0 0\n");
    log_.Clear();
    f2fs::doTrack();
    EXPECT_TRUE(log_.HasLine("Failed to get block device name", kTag));
    EXPECT_FALSE(Reports().back().isMember("mount_point"));
    // Nor without /proc/mounts; status lines that break an expression add nothing.
    ASSERT_EQ(unlink(Device("/proc/mounts").c_str()), 0);
    const std::string longLine = "CP count: 5" + std::string(f2fs::kMaxStatusLine, ' ');
    PlantDevice("/proc/fs/f2fs/status", "CP count: 99999999999\nCP calls: 7 (BG: 1)\n\x01\xff garbage\n" + longLine);
    log_.Clear();
    f2fs::doTrack();
    EXPECT_TRUE(log_.HasLine("Failed to open /proc/mounts: No such file or directory", kTag));
    ASSERT_EQ(Reports().size(), 3u);
    Json::Value added = Reports()[2];
    for (const std::string& key : Reports()[1].getMemberNames()) added.removeMember(key);
    EXPECT_EQ(added.size(), 3u) << added;
    ExpectMembers(added, {{"CP_BG_calls", 1}, {"CP_calls", 7}, {"CP_count", 0}});
    EXPECT_TRUE(log_.HasLine("Failed to convert '99999999999' to int: out of range", kTag));
    EXPECT_TRUE(log_.Contains("Status line too long (" + std::to_string(longLine.size()) + " bytes), skipped",
                              kTag, ANDROID_LOG_ERROR));
}

class IoLatencyTest : public F2fsTrackModuleTest {
protected:
    void SetUp() override {
        F2fsTrackModuleTest::SetUp();
        PlantF2fsTree("1\n", "1\n", "1\n");
        ASSERT_TRUE(SetProperty("persist.sys.stability.iostat", "true"));
        ASSERT_TRUE(SetProperty("dev.mnt.dev.system", "dm-1"));
        ASSERT_TRUE(SetProperty("dev.mnt.dev.data", "sda32"));
        PlantDevice("/sys/fs/erofs/dm-1/iostat_daily_latency",
                    "Normal:\n4 1200 300 9\n512+ 80 2 60\nAbnormal:\n128 500 5 200\n"
                    "Delay:\n100 2500 10 480\nbogus row\n");
        PlantDevice("/sys/fs/f2fs/sda32/iostat_daily_latency",
                    "[READ]\nNormal:\n4 10 1 2\nDelay:\n50 11 3 4\n"
                    "[WRITE]\nNormal:\n16 20 5 6\nAbnormal:\n1024+ 30 7 8\nDelay:\n200 40 9 10\n");
        ufs_ = PlantDevice("/sys/devices/platform/soc/1d84000.ufshc/ufs_monitor/monitor_daily_cmd_lat",
                           "[READ]\nNormal:\n4 7 7 7\n[WRITE]\nDelay:\n10 8 x 8\n");
    }

    std::map<std::string, Json::Value> ByName() {
        std::map<std::string, Json::Value> out;
        for (const Json::Value& event : Reports()) {
            EXPECT_TRUE(event.isMember("statfs_Util"));
            out[event["EVENT_NAME"].asString()] = event;
        }
        return out;
    }

    std::string ufs_;
};

TEST_F(IoLatencyTest, EachSourceBecomesOneEventAndTheUfsStatisticsAreReset) {
    ASSERT_TRUE(SetProperty("ro.boot.boot_devices", "soc/1d84000.ufshc,soc/other"));
    f2fs::doTrack();
    std::vector<std::string> order;
    for (const Json::Value& event : Reports()) order.push_back(event["EVENT_NAME"].asString());
    // The other read-only partitions have no device property: no event.
    EXPECT_EQ(order, (std::vector<std::string>{"StorageInfo", "system_io_latency", "f2fs_io_latency",
                                               "ufs_io_latency"}));
    auto events = ByName();
    ExpectMembers(events["system_io_latency"],
                  {{"r_4k_sum", 1200}, {"r_4k_cnt", 300}, {"r_4k_peak", 9}, {"r_4k_thres", 4},
                   {"r_512+k_sum", 80}, {"r_512+k_thres", 512}, {"ab_r_128k_sum", 500}, {"ab_r_128k_cnt", 5},
                   {"ab_r_128k_peak", 200}, {"ab_r_128k_thres", 128}, {"delay_r_100ms_sum", 2500},
                   {"delay_r_100ms_cnt", 10}, {"delay_r_100ms_peak", 480}});
    EXPECT_EQ(events["system_io_latency"].size(), 17u);  // 15 bucket keys, the name, statfs_Util
    ExpectMembers(events["f2fs_io_latency"],
                  {{"r_4k_sum", 10}, {"r_4k_cnt", 1}, {"r_4k_peak", 2}, {"r_4k_thres", 4}, {"delay_r_50ms_sum", 11},
                   {"delay_r_50ms_cnt", 3}, {"delay_r_50ms_peak", 4}, {"w_16k_sum", 20}, {"w_16k_thres", 16},
                   {"ab_w_1024+k_sum", 30}, {"ab_w_1024+k_thres", 1024}, {"delay_w_200ms_sum", 40},
                   {"delay_w_200ms_cnt", 9}, {"delay_w_200ms_peak", 10}});
    ExpectMembers(events["ufs_io_latency"],
                  {{"r_4k_sum", 7}, {"delay_w_10ms_sum", 8}, {"delay_w_10ms_cnt", 0}, {"delay_w_10ms_peak", 8}});
    EXPECT_TRUE(log_.HasLine("Malformed latency row: 'bogus row'", kTag));
    EXPECT_TRUE(log_.HasLine("Failed to convert 'x' to unsigned long: invalid argument", kTag));
    EXPECT_EQ(tarnis_test::ReadFile(ufs_), "reset");
}

TEST_F(IoLatencyTest, SourcesThatCannotBeUsedAreSkipped) {
    ASSERT_TRUE(SetProperty("dev.mnt.dev.system", ""));
    ASSERT_TRUE(SetProperty("dev.mnt.dev.vendor", "../../proc"));
    ASSERT_TRUE(SetProperty("dev.mnt.dev.data", ""));
    f2fs::doTrack();
    EXPECT_TRUE(log_.HasLine("Bad device name for vendor: '../../proc'", kTag));
    EXPECT_TRUE(log_.HasLine("ro.boot.boot_devices is empty", kTag));
    ASSERT_TRUE(SetProperty("ro.boot.boot_devices", " ,soc/1d84000.ufshc"));
    // Devices whose statistics file is missing: logged, and no empty event.
    ASSERT_TRUE(SetProperty("dev.mnt.dev.odm", "dm-9"));
    ASSERT_TRUE(SetProperty("dev.mnt.dev.data", "sdz1"));
    f2fs::doTrack();
    EXPECT_TRUE(log_.HasLine("Selected device is empty", kTag, ANDROID_LOG_WARN));
    EXPECT_TRUE(log_.Contains("Failed to open file: " + Device("/sys/fs/erofs/dm-9/iostat_daily_latency"), kTag));
    EXPECT_TRUE(log_.Contains("Failed to open file: " + Device("/sys/fs/f2fs/sdz1/iostat_daily_latency"), kTag));
    EXPECT_EQ(ByName().size(), 1u) << "StorageInfo only, in both runs";
}

TEST_F(IoLatencyTest, ALinkedHostDirectoryIsNotFollowed) {
    // A link planted for the host's directory must not lead the reset outside.
    const std::string outside = PlantDevice("/outside/ufs_monitor/monitor_daily_cmd_lat", "keep\n");
    ASSERT_EQ(symlink(Device("/outside").c_str(), Device("/sys/devices/platform/soc/linked").c_str()), 0);
    ASSERT_TRUE(SetProperty("ro.boot.boot_devices", "soc/linked"));
    f2fs::doTrack();
    EXPECT_TRUE(log_.Contains("Failed to get ufs monitor path: ", kTag, ANDROID_LOG_ERROR));
    EXPECT_EQ(tarnis_test::ReadFile(outside), "keep\n");
    EXPECT_EQ(ByName().count("ufs_io_latency"), 0u);
}

}  // namespace
