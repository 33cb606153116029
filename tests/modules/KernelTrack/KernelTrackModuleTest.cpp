#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <dorva/DorvaServiceManager.h>
#include <log/log.h>

#include "modules/KernelTrack/KernelStatsTrack.h"
#include "platform/binder/IPCThreadState.h"
#include "modules/KernelTrack/KernelTrackUtils.h"
#include "tests/support/ModuleTest.h"
#include "utils/Paths.h"

namespace {

using velmar::kolto::KernelTrack::KernelStatsTable;
using velmar::kolto::KernelTrack::KernelStatsTrack;
namespace paths = velmar::kolto::paths;

constexpr char kStatsTag[] = "Tarnis-KernelStatsTrack";
constexpr char kModuleTag[] = "Tarnis-KernelTrackModule";
constexpr int64_t kMinuteMs = 60 * 1000;

class KernelTrackModuleTest : public tarnis_test::ModuleTest {
protected:
    void SetUp() override {
        // Midnight is local midnight: the test fixes what local means.
        setenv("TZ", "UTC", 1);
        tzset();
        ModuleTest::SetUp();
    }

    const KernelStatsTable& Table(const std::string& event) {
        for (const auto& table : KernelStatsTrack::tables()) {
            if (table.eventName == event) return table;
        }
        ADD_FAILURE() << event;
        return KernelStatsTrack::tables().front();
    }
    void Write(const char* devicePath, const std::string& text) {
        const std::string path = Device(devicePath);
        ASSERT_EQ(system(("mkdir -p \"$(dirname '" + path + "')\"").c_str()), 0);
        ASSERT_TRUE(android::base::WriteStringToFile(text, path));
    }
    std::string Read(const char* devicePath) {
        std::string text;
        android::base::ReadFileToString(Device(devicePath), &text);
        return text;
    }
    // Every field of the table with value index + 1 (or 0 when `zero`).
    void WriteTable(const std::string& event, bool zero) {
        const KernelStatsTable& table = Table(event);
        std::string text;
        for (size_t i = 0; i < table.fields.size(); ++i) {
            text += table.fields[i] + ":\t" + std::to_string(zero ? 0 : i + 1) + " \n";
        }
        Write(table.statsFile, text);
    }
    // The kernel-stats events of the journal, payloads parsed.
    std::vector<Json::Value> Events() {
        std::vector<Json::Value> events;
        for (const Json::Value& call : JournalEvents()) {
            EXPECT_EQ(call["call"].asString(), "reportTrelvoEvent");
            EXPECT_EQ(call["args"][0].asString(), "52000178316");
            EXPECT_EQ(call["args"][1].asString(), "Tarnis.Kernel_stats");
            EXPECT_EQ(call["args"][3].asInt(), 0);
            Json::Value payload;
            Json::Reader reader;
            EXPECT_TRUE(reader.parse(call["args"][2].asString(), payload)) << call["args"][2].asString();
            EXPECT_EQ(call["args"][2].asString().back(), '\n');  // the compact writer's text, whole
            events.push_back(payload);
        }
        return events;
    }
    std::string Line(const std::string& func, const std::string& text) { return "[" + func + "] " + text; }
};

TEST_F(KernelTrackModuleTest, TablesHaveTheirGeneratedNamesInOrder) {
    const std::vector<std::pair<std::string, size_t>> sizes = {
            {"binder_lat_info", 28}, {"mem_lat_info", 77},     {"locking_lat_info", 84},
            {"sched_lat_info", 38},  {"iowait_stat_info", 46}, {"dstate_stat_info", 46}};
    ASSERT_EQ(KernelStatsTrack::tables().size(), sizes.size());
    for (size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(KernelStatsTrack::tables()[i].eventName, sizes[i].first);
        EXPECT_EQ(KernelStatsTrack::tables()[i].fields.size(), sizes[i].second) << sizes[i].first;
    }
    const auto& binder = Table("binder_lat_info").fields;
    EXPECT_EQ(binder[0], "vip_binder_min_cnt");
    EXPECT_EQ(binder[23], "oth_binder_max_ms");
    EXPECT_EQ(binder[27], "reserved4");
    const auto& mem = Table("mem_lat_info").fields;
    EXPECT_EQ(mem[8], "vip_direct_reclaim_lat_min_cnt");
    EXPECT_EQ(mem[71], "oth_slowpath_alloc_lat_max_ms");
    EXPECT_EQ(mem[76], "page_alloc_cnt");
    const auto& locking = Table("locking_lat_info").fields;
    EXPECT_EQ(locking[2], "vip_mutex_wait_h_cnt");  // the wait suffixes have no m_cnt
    EXPECT_EQ(locking[83], "oth_futex_art_wait_max_ms");
    const auto& sched = Table("sched_lat_info").fields;
    EXPECT_EQ(sched[16], "ss_lat_min_cnt");
    EXPECT_EQ(sched[37], "rt_preempt_cnt");
    const auto& iowait = Table("iowait_stat_info").fields;
    EXPECT_EQ(iowait[9], "iowait_high_cnt");
    EXPECT_EQ(iowait[10], "iowait_fg_max_ms");
    EXPECT_EQ(iowait[45], "iowait_sys_bg_total_cnt");
    EXPECT_EQ(Table("dstate_stat_info").fields[26], "dstate_ux_total_ms");
}

TEST_F(KernelTrackModuleTest, DumpReportsAtOnceAndResetsWhatItReported) {
    LoadModules();  // disabled: only the dump reports
    EXPECT_TRUE(log_.HasLine(Line("OnAllModulesLoaded", "KernelTrack enable error"), kModuleTag, ANDROID_LOG_ERROR));

    WriteTable("sched_lat_info", false);
    Write(paths::kSchedLatReset, "");
    // Values all 0: no event, and the counters stay.
    WriteTable("binder_lat_info", true);
    Write(paths::kBinderLatReset, "untouched");
    // Reported, but its reset node is missing.
    Write(paths::kMemLatInfo, "kswapd_cnt: 5\nkswapd_cnt: 9\npage_alloc_cnt: 12abc\n"
                              "slowpath_cnt: 2147483648\nno colon at all\r\njunk: " +
                                      std::string(4000, '\x01') + "\n");
    // Read, but none of it can be converted.
    Write(paths::kLockingLatInfo, "vip_mutex_wait_min_cnt: x\n");
    Write(paths::kLockingLatReset, "untouched");
    Write(paths::kIowaitStatInfo, "");

    EXPECT_EQ(Dump({"KernelTrack"}), "Dumping module KernelTrack: \n\n-------------------------------------\n");
    EXPECT_TRUE(log_.HasLine(Line("dump", "test kernel stats"), kModuleTag, ANDROID_LOG_INFO));

    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u);
    const Json::Value& mem = events[0];
    EXPECT_EQ(mem["EVENT_NAME"].asString(), "mem_lat_info");
    EXPECT_EQ(mem.size(), 2u) << mem;
    EXPECT_EQ(mem["kswapd_cnt"].asInt(), 9);  // a repeated name keeps its last value
    EXPECT_TRUE(log_.HasLine(Line("parseKernelInfo", "Invalid argument: page_alloc_cnt: 12abc"), kStatsTag));
    EXPECT_TRUE(log_.HasLine(Line("parseKernelInfo", "Out of range: slowpath_cnt: 2147483648"), kStatsTag));
    // Binary is escaped and cut.
    EXPECT_TRUE(log_.Contains("Invalid argument: junk: \\x01\\x01", kStatsTag));
    EXPECT_TRUE(log_.Contains("\\x01...[3938 more bytes]", kStatsTag));
    EXPECT_TRUE(log_.HasLine(Line("convertFieldsToJSON", "kcompactd_cnt not found in jsonNode."), kStatsTag));
    EXPECT_TRUE(log_.HasLine(Line("kernelStatsReport", "clear mem_lat_info node failed"), kStatsTag,
                             ANDROID_LOG_ERROR));
    EXPECT_EQ(log_.Count("node failed", kStatsTag), 1u);

    const Json::Value& sched = events[1];
    const KernelStatsTable& table = Table("sched_lat_info");
    EXPECT_EQ(sched["EVENT_NAME"].asString(), "sched_lat_info");
    ASSERT_EQ(sched.size(), table.fields.size() + 1);
    for (size_t i = 0; i < table.fields.size(); ++i) {
        EXPECT_EQ(sched[table.fields[i]].asInt(), static_cast<int>(i + 1)) << table.fields[i];
    }
    EXPECT_EQ(sched["vip_lat_min_cnt"].asInt(), 1);
    EXPECT_EQ(sched["irqoff_latency_cnt"].asInt(), 33);
    EXPECT_TRUE(log_.HasLine(Line("reportKernelStatsEvent", "Successfully report event sched_lat_info, which kernel "
                                                            "info from " + Device(paths::kSchedLatInfo)),
                             kStatsTag, ANDROID_LOG_INFO));
    EXPECT_EQ(Read(paths::kSchedLatReset), "1\n");

    EXPECT_TRUE(log_.HasLine(Line("reportKernelStatsEvent", "All values are empty or 0, no report"), kStatsTag));
    EXPECT_EQ(Read(paths::kBinderLatReset), "untouched");
    EXPECT_EQ(Read(paths::kLockingLatReset), "untouched");
    EXPECT_TRUE(log_.HasLine(Line("reportKernelStatsEvent", "Failed to parse event locking_lat_info, which kernel "
                                                            "info from " + Device(paths::kLockingLatInfo)),
                             kStatsTag));
    EXPECT_TRUE(log_.HasLine(Line("parseKernelInfo", "File content is empty: " + Device(paths::kIowaitStatInfo)),
                             kStatsTag));
    EXPECT_TRUE(log_.HasLine(Line("parseKernelInfo", "Failed to open " + Device(paths::kDstateStatInfo) +
                                                             ", err No such file or directory"),
                             kStatsTag));

    // A report the service refuses keeps the counters for the next day.
    Write(paths::kSchedLatReset, "");
    android::DorvaServiceManager::getInstance().setResultForTesting(1);
    Dump({"KernelTrack"});
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    EXPECT_TRUE(log_.HasLine(Line("trelvoReport", "Failed to connect Trelvo Binder!!"), kStatsTag));
    EXPECT_TRUE(log_.HasLine(Line("reportKernelStatsEvent", "Failed to report event sched_lat_info, which kernel "
                                                            "info from " + Device(paths::kSchedLatInfo)),
                             kStatsTag));
    EXPECT_EQ(Read(paths::kSchedLatReset), "");
}

// Any uid may dump: one other than root and system never wipes the day's
// counters, and sets off at most one report a minute.
TEST_F(KernelTrackModuleTest, AnOrdinaryCallersDumpReportsOnceAMinuteAndResetsNothing) {
    LoadModules();
    WriteTable("sched_lat_info", false);
    Write(paths::kSchedLatReset, "");
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
        std::string out;
        if (step.shell) {
            android::IPCThreadState::ScopedIdentity shell(2000, getpid());
            out = Dump({"KernelTrack"});
        } else {
            out = Dump({"KernelTrack"});
        }
        EXPECT_EQ(out, "Dumping module KernelTrack: \n" + step.out + "\n-------------------------------------\n");
        EXPECT_EQ(Events().size(), step.events);
        EXPECT_EQ(Read(paths::kSchedLatReset), step.reset);
    }
    EXPECT_EQ(log_.Count(Line("dump", "test kernel stats"), kModuleTag), 3u);
}

TEST_F(KernelTrackModuleTest, FirstRunAtLocalMidnightThenDaily) {
    ASSERT_TRUE(android::base::SetProperty("persist.sys.stability.kernel_track_enable", "true"));
    clock_.SetWallMs(tarnis_test::TestClock::kStartWallMs + (23 * 60 + 30) * kMinuteMs);  // 23:30
    WriteTable("binder_lat_info", false);
    LoadModules();
    EXPECT_TRUE(log_.HasLine(Line("OnAllModulesLoaded", "KernelTrack enable"), kModuleTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine(Line("OnAllModulesLoaded", "DayMidnight: 0 h"), kModuleTag));
    EXPECT_TRUE(log_.HasLine(Line("OnAllModulesLoaded", "KernelTrack done~"), kModuleTag));

    AdvanceAndSettle(30 * kMinuteMs - 1);
    EXPECT_TRUE(Events().empty());
    AdvanceAndSettle(1);
    EXPECT_EQ(log_.Count(Line("scheduleTrackTask", "scheduleTrackTask"), kModuleTag), 1u);
    ASSERT_EQ(Events().size(), 1u);
    EXPECT_EQ(Read(paths::kBinderLatReset), "");  // no node: nothing made in its place

    AdvanceAndSettle(24 * 60 * kMinuteMs - 1);
    EXPECT_EQ(Events().size(), 1u);
    AdvanceAndSettle(1);
    EXPECT_EQ(Events().size(), 2u);
}

TEST_F(KernelTrackModuleTest, ScheduleNeedsThePropertyExactlyTrue) {
    ASSERT_TRUE(android::base::SetProperty("persist.sys.stability.kernel_track_enable", "1"));
    WriteTable("binder_lat_info", false);
    LoadModules();
    EXPECT_TRUE(log_.HasLine(Line("OnAllModulesLoaded", "KernelTrack enable error"), kModuleTag, ANDROID_LOG_ERROR));
    AdvanceAndSettle(48 * 60 * kMinuteMs);
    EXPECT_TRUE(Events().empty());
}

}  // namespace
