#include <unistd.h>

#include <algorithm>
#include <optional>

#include <android-base/properties.h>
#include <dorva/DorvaServiceManager.h>
#include <log/log.h>

#include "modules/KernelTrack/KernelStatsTrack.h"
#include "platform/binder/IPCThreadState.h"
#include "tests/support/ModBModuleTest.h"
#include "utils/Paths.h"

namespace {

using velmar::kolto::KernelTrack::KernelStatsTrack;
namespace paths = velmar::kolto::paths;

constexpr char kStatsTag[] = "Tarnis-KernelStatsTrack";
constexpr char kModuleTag[] = "Tarnis-KernelTrackModule";
constexpr int kI = ANDROID_LOG_INFO;
constexpr int64_t kMinuteMs = 60 * 1000;

// The tables as users see them, in report order: the event, the kernel's file, how many fields the event carries,
// and a few of their names as the kernel writes them and the report carries them (a misspelt name drops the value).
struct UserTable {
    std::string event;
    const char* file;
    size_t fields;
    std::vector<std::string> names;
};
const UserTable kUserTables[] = {
    {"binder_lat_info", paths::kBinderLatInfo, 28,
     {"vip_binder_min_cnt", "rt_binder_m_cnt", "oth_binder_max_ms", "reserved4"}},
    {"mem_lat_info", paths::kMemLatInfo, 77, {"vip_cma_alloc_lat_l_cnt", "rt_direct_reclaim_lat_avg_us",
                                              "oth_slowpath_alloc_lat_max_ms", "kcompactd_cnt", "page_alloc_cnt"}},
    {"locking_lat_info", paths::kLockingLatInfo, 84,
     {"vip_mutex_wait_h_cnt", "rt_rwsem_read_wait_f_cnt", "oth_futex_art_wait_max_ms"}},
    {"sched_lat_info", paths::kSchedLatInfo, 38,
     {"vip_lat_min_cnt", "ss_lat_avg_ms", "irqoff_latency_cnt", "runable_preempt_cnt"}},
    {"iowait_stat_info", paths::kIowaitStatInfo, 46,
     {"iowait_delta_ms", "iowait_high_cnt", "iowait_fg_max_ms", "iowait_sys_bg_total_cnt"}},
    {"dstate_stat_info", paths::kDstateStatInfo, 46,
     {"dstate_min_thresh_ms", "dstate_ux_total_ms", "dstate_top_app_low_cnt"}},
};

// Midnight is local midnight, which the fixture pins to UTC.
class KernelTrackModuleTest : public tarnis_test::ModBModuleTest {
protected:
    std::string Read(const char* devicePath) { return tarnis_test::ReadFile(Device(devicePath)); }
    // The names users see of that table, with value index + 1 (or 0 when `zero`).
    void WriteTable(const std::string& event, bool zero) {
        const auto& table = *std::find_if(std::begin(kUserTables), std::end(kUserTables),
                                          [&](const UserTable& t) { return t.event == event; });
        std::string text;
        for (size_t i = 0; i < table.names.size(); ++i) {
            text += table.names[i] + ":\t" + std::to_string(zero ? 0 : i + 1) + " \n";
        }
        PlantDevice(table.file, text);
    }
    std::vector<Json::Value> Events() {
        std::vector<std::string> texts;
        std::vector<Json::Value> events = TrelvoPayloads("52000178316", "Tarnis.Kernel_stats", &texts);
        EXPECT_EQ(events.size(), JournalEvents().size()) << "every call a kernel-stats report";
        // The compact writer's text, whole.
        for (const std::string& text : texts) EXPECT_TRUE(!text.empty() && text.back() == '\n') << text;
        return events;
    }
    // Whether "[func] text" was logged, by the statistics reader unless `tag` says otherwise.
    bool Logged(const std::string& func, const std::string& text, int prio = 0, const char* tag = kStatsTag) {
        return log_.HasLine("[" + func + "] " + text, tag, prio);
    }
};

TEST_F(KernelTrackModuleTest, DumpReportsAtOnceAndResetsWhatItReported) {
    // Scheduling needs the property exactly "true": here only the dump reports.
    ASSERT_TRUE(android::base::SetProperty("persist.sys.stability.kernel_track_enable", "1"));
    LoadModules();
    EXPECT_TRUE(Logged("OnAllModulesLoaded", "KernelTrack enable error", ANDROID_LOG_ERROR, kModuleTag));

    WriteTable("sched_lat_info", false);
    PlantDevice(paths::kSchedLatReset, "");
    // Values all 0: no event, and the counters stay.
    WriteTable("binder_lat_info", true);
    PlantDevice(paths::kBinderLatReset, "untouched");
    // Reported, but its reset node is missing.
    PlantDevice(paths::kMemLatInfo, "kswapd_cnt: 5\nkswapd_cnt: 9\npage_alloc_cnt: 12abc\n"
                                    "slowpath_cnt: 2147483648\nno colon at all\r\njunk: " +
                                            std::string(4000, '\x01') + "\n");
    // Read, but none of it can be converted.
    PlantDevice(paths::kLockingLatInfo, "vip_mutex_wait_min_cnt: x\n");
    PlantDevice(paths::kLockingLatReset, "untouched");
    PlantDevice(paths::kIowaitStatInfo, "");
    AdvanceAndSettle(48 * 60 * kMinuteMs);
    EXPECT_TRUE(Events().empty());

    EXPECT_EQ(Dump({"KernelTrack"}), "Dumping module KernelTrack: \n\n-------------------------------------\n");
    EXPECT_TRUE(Logged("dump", "test kernel stats", ANDROID_LOG_INFO, kModuleTag));

    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u);
    const Json::Value& mem = events[0];
    EXPECT_EQ(mem["EVENT_NAME"].asString(), "mem_lat_info");
    EXPECT_EQ(mem.size(), 2u) << mem;
    EXPECT_EQ(mem["kswapd_cnt"].asInt(), 9);  // a repeated name keeps its last value
    EXPECT_TRUE(Logged("parseKernelInfo", "Invalid argument: page_alloc_cnt: 12abc"));
    EXPECT_TRUE(Logged("parseKernelInfo", "Out of range: slowpath_cnt: 2147483648"));
    // Binary is escaped and cut.
    EXPECT_TRUE(log_.Contains("Invalid argument: junk: \\x01\\x01", kStatsTag));
    EXPECT_TRUE(log_.Contains("\\x01...[3938 more bytes]", kStatsTag));
    EXPECT_TRUE(Logged("convertFieldsToJSON", "kcompactd_cnt not found in jsonNode."));
    EXPECT_TRUE(Logged("kernelStatsReport", "clear mem_lat_info node failed", ANDROID_LOG_ERROR));
    EXPECT_EQ(log_.Count("node failed", kStatsTag), 1u);

    const Json::Value& sched = events[1];
    EXPECT_EQ(sched["EVENT_NAME"].asString(), "sched_lat_info");
    EXPECT_EQ(sched.size(), 5u);
    EXPECT_EQ(sched["irqoff_latency_cnt"].asInt(), 3);
    const std::string fromSched = ", which kernel info from " + Device(paths::kSchedLatInfo);
    EXPECT_TRUE(Logged("reportKernelStatsEvent", "Successfully report event sched_lat_info" + fromSched, kI));
    EXPECT_EQ(Read(paths::kSchedLatReset), "1\n");

    EXPECT_TRUE(Logged("reportKernelStatsEvent", "All values are empty or 0, no report"));
    EXPECT_EQ(Read(paths::kBinderLatReset), "untouched");
    EXPECT_EQ(Read(paths::kLockingLatReset), "untouched");
    EXPECT_TRUE(Logged("reportKernelStatsEvent", "Failed to parse event locking_lat_info, which kernel info from " +
                                                     Device(paths::kLockingLatInfo)));
    EXPECT_TRUE(Logged("parseKernelInfo", "File content is empty: " + Device(paths::kIowaitStatInfo)));
    EXPECT_TRUE(Logged("parseKernelInfo",
                       "Failed to open " + Device(paths::kDstateStatInfo) + ", err No such file or directory"));

    // A report the service refuses keeps the counters for the next day.
    PlantDevice(paths::kSchedLatReset, "");
    android::DorvaServiceManager::getInstance().setResultForTesting(1);
    Dump({"KernelTrack"});
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    EXPECT_TRUE(Logged("trelvoReport", "Failed to connect Trelvo Binder!!"));
    EXPECT_TRUE(Logged("reportKernelStatsEvent", "Failed to report event sched_lat_info" + fromSched));
    EXPECT_EQ(Read(paths::kSchedLatReset), "");
}

// Any uid may dump: one other than root and system never wipes the counters, and reports once a minute.
TEST_F(KernelTrackModuleTest, AnOrdinaryCallersDumpReportsOnceAMinuteAndResetsNothing) {
    LoadModules();
    WriteTable("sched_lat_info", false);
    PlantDevice(paths::kSchedLatReset, "");
    const std::string kept = "kernel stats: reported; counters kept (uid 2000 may not reset them)\n";
    const std::string again = "kernel stats: reported less than a minute ago; not again yet\n";
    struct Step {
        int64_t advanceMs;
        bool shell;
        std::string out;
        size_t events;
        std::string reset;
    };
    const Step steps[] = {
        {0, true, kept, 1, ""},
        {kMinuteMs - 1, true, again, 1, ""},
        {1, true, kept, 2, ""},
        {0, false, "", 3, "1\n"},  // root resets as before, however recent the last report
    };
    for (const Step& step : steps) {
        clock_.Advance(step.advanceMs);
        std::optional<android::IPCThreadState::ScopedIdentity> shell;
        if (step.shell) shell.emplace(2000, getpid());
        const std::string out = Dump({"KernelTrack"});
        EXPECT_EQ(out, "Dumping module KernelTrack: \n" + step.out + "\n-------------------------------------\n");
        EXPECT_EQ(Events().size(), step.events);
        EXPECT_EQ(Read(paths::kSchedLatReset), step.reset);
    }
    EXPECT_EQ(log_.Count("[dump] test kernel stats", kModuleTag), 3u);
}

TEST_F(KernelTrackModuleTest, FirstRunAtLocalMidnightThenDailyWithTheNamesUsersSee) {
    ASSERT_TRUE(android::base::SetProperty("persist.sys.stability.kernel_track_enable", "true"));
    clock_.SetWallMs(tarnis_test::TestClock::kStartWallMs + (23 * 60 + 30) * kMinuteMs);  // 23:30
    for (const UserTable& table : kUserTables) WriteTable(table.event, false);
    LoadModules();
    EXPECT_TRUE(Logged("OnAllModulesLoaded", "KernelTrack enable", ANDROID_LOG_ERROR, kModuleTag));
    EXPECT_TRUE(Logged("OnAllModulesLoaded", "DayMidnight: 0 h", 0, kModuleTag));
    EXPECT_TRUE(Logged("OnAllModulesLoaded", "KernelTrack done~", 0, kModuleTag));

    AdvanceAndSettle(30 * kMinuteMs - 1);
    EXPECT_TRUE(Events().empty());
    AdvanceAndSettle(1);
    EXPECT_EQ(log_.Count("[scheduleTrackTask] scheduleTrackTask", kModuleTag), 1u);
    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), std::size(kUserTables));
    ASSERT_EQ(KernelStatsTrack::tables().size(), std::size(kUserTables));
    for (size_t t = 0; t < events.size(); ++t) {
        const UserTable& table = kUserTables[t];
        EXPECT_EQ(events[t]["EVENT_NAME"].asString(), table.event);
        EXPECT_EQ(KernelStatsTrack::tables()[t].fields.size(), table.fields) << table.event;
        EXPECT_EQ(events[t].size(), table.names.size() + 1) << events[t];
        for (size_t i = 0; i < table.names.size(); ++i) {
            EXPECT_EQ(events[t][table.names[i]].asInt(), static_cast<int>(i + 1)) << table.names[i];
        }
    }
    EXPECT_EQ(Read(paths::kBinderLatReset), "");  // no node: nothing made in its place

    AdvanceAndSettle(24 * 60 * kMinuteMs - 1);
    EXPECT_EQ(Events().size(), std::size(kUserTables));
    AdvanceAndSettle(1);
    EXPECT_EQ(Events().size(), 2 * std::size(kUserTables));
}

}  // namespace
