#include <fcntl.h>
#include <sys/stat.h>

#include <android-base/properties.h>
#include <log/log.h>

#include "modules/OTAMonitor/OTAMonitor.h"
#include "tests/support/ModABlackBox.h"
#include "tests/support/ModBModuleTest.h"
#include "tests/support/WaitFor.h"
#include "utils/BlackBoxLayout.h"

namespace {

namespace bb = velmar::kolto::blackbox;
using android::base::SetProperty;
using tarnis_test::WaitFor;

constexpr char kTag[] = "OTAMonitor";
constexpr char kStatus[] = "persist.sys.memory.snapshot.otastatus";
constexpr char kWaiting[] = "ota_monitor_func: Waiting for ota_status: ";
constexpr time_t kLogEpoch = 1795000000;

class OTAMonitorModuleTest : public tarnis_test::ModBModuleTest {
protected:
    void SetUp() override {
        ModBModuleTest::SetUp();
        partition_ = Device("/dev/block/by-name/blackbox");
        logDir_ = Device("/data/misc/update_engine_log");
        ASSERT_EQ(system(("mkdir -p '" + logDir_ + "' \"$(dirname '" + partition_ + "')\"").c_str()), 0);
        ASSERT_TRUE(SetProperty("sys.boot_completed", "1"));
        ASSERT_TRUE(SetProperty("ro.build.version.incremental", "V816.0.3"));
        ASSERT_TRUE(SetProperty("ro.boot.slot_suffix", "_b"));
        ASSERT_TRUE(SetProperty("ro.debuggable", "1"));
    }

    void MakePartition(off_t bytes) { moda_blackbox::MakeImage(partition_, bytes); }
    bb::OtaRecordZone Zone() { return moda_blackbox::ReadRecordAt<bb::OtaRecordZone>(partition_, bb::kOtaZoneOffset); }
    // The service tool's listing of the OTA records, up to record 1.
    std::string Shown() {
        int status = -1;
        const std::string out = moda_blackbox::Tool(partition_, &status);
        EXPECT_EQ(status, 0) << out;
        const size_t from = std::min(out.size(), out.find("OTA records"));
        return out.substr(from, out.find("  record 1:", from) - from);
    }
    // Sets the status; returns once the monitor waits for `next` for the `count`-th time.
    void Report(const std::string& status, const std::string& next, size_t count) {
        ASSERT_TRUE(SetProperty(kStatus, status));
        ASSERT_TRUE(WaitFor([&] { return log_.Count(kWaiting + next, kTag, ANDROID_LOG_INFO) >= count; }))
                << status << " pass " << count;
    }
    // An update-engine log, `age` seconds older than the newest.
    void WriteLog(const std::string& name, const std::string& text, int age) {
        const std::string path = logDir_ + "/" + name;
        ASSERT_TRUE(tarnis_test::WriteFile(path, text));
        struct timespec times[2] = {{kLogEpoch - age, 0}, {kLogEpoch - age, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    // The update's boot and the merge's boot of update `n`.
    void WriteUpdateLogs(int n) {
        WriteLog("update_engine.20261120-101500", "[2026-11-20 10:15:00.123] Update Boot Timestamp Start\n"
                 "[2026-11-20 10:15:01.000] Using this install plan: initial url: file:///data/ota_package/ota-" +
                 std::to_string(n) + ".zip\r\n"
                 "[2026-11-20 10:31:42.500] Updated Marker written\n", 600);
        WriteLog("update_engine.20261120-104000",
                 "[2026-11-20 10:40:00.456] snapshot: Merge finished with state MergeCompleted\n", 0);
    }

    std::string partition_, logDir_;
};

TEST_F(OTAMonitorModuleTest, ElevenUpdatesOnAFreshV3PartitionWrapIntoSlotZero) {
    MakePartition(200 << 20);
    LoadModules();
    ASSERT_TRUE(WaitFor([&] { return log_.Count(std::string(kWaiting) + "ota_start") == 1; }));

    Report("ota_start", "ota_complete", 1);
    EXPECT_TRUE(log_.HasLine("check_black_box_ota_record_zone: ota record zone magic is wrong", kTag,
                             ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("blackbox v3", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("save_update_metrics_to_black_box_on_start: debuggable: 1, src_slot: _b, src_build: "
                             "V816.0.3", kTag, ANDROID_LOG_INFO));
    // Counted once merged, not at the start.
    bb::OtaRecordZone zone = Zone();
    EXPECT_EQ(zone.versionCode, 12288u);
    EXPECT_EQ(zone.nextIndex, 0u);
    EXPECT_EQ(zone.updateCount, 0u);

    for (int n = 1; n <= 11; ++n) {
        if (n > 1) Report("ota_start", "ota_complete", n);
        // The eleventh update's start reuses slot 0, writing only its own three fields there.
        if (n == 11) {
            EXPECT_STREQ(Zone().packageName[0], "ota-1.zip");
        }
        WriteUpdateLogs(n);
        Report("ota_complete", "ota_start", n + 1);
    }
    zone = Zone();
    EXPECT_STREQ(zone.packageName[1], "ota-2.zip");
    EXPECT_STREQ(zone.packageName[9], "ota-10.zip");
    EXPECT_TRUE(log_.HasLine("save_update_metrics_to_black_box_after_merged: next_index: 1, tgt_slot: _b, "
                             "tgt_build: V816.0.3", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("update_count: 10", kTag, ANDROID_LOG_INFO));
    // Shown by the service tool before any crash has laid down the log table.
    EXPECT_EQ(Shown(), "OTA records: 10 of 10, next index 1\n"
                       "  record 0: ota-11.zip, V816.0.3 (_b) -> V816.0.3 (_b), debuggable 1, "
                       "start 2026-11-20 10:15:00.123, end 2026-11-20 10:31:42.500, merged 2026-11-20 10:40:00.456\n");
}

TEST_F(OTAMonitorModuleTest, StartAlreadyReportedCompletesTheSlotFromTheLogs) {
    MakePartition(190 << 20);
    WriteUpdateLogs(7);
    ASSERT_TRUE(SetProperty(kStatus, "ota_start"));
    LoadModules();
    ASSERT_TRUE(WaitFor([&] { return log_.Count(std::string(kWaiting) + "ota_complete") == 1; }));
    Report("ota_complete", "ota_start", 1);
    EXPECT_NE(Dump({"OTAMonitor"}).find("OTAMonitor: running\nota passes: 1\n"), std::string::npos);

    EXPECT_FALSE(log_.Contains("ota status is start"));
    EXPECT_TRUE(log_.HasLine("ota status is merged, save ota info to blackbox", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("file[0]: " + logDir_ + "/update_engine.20261120-104000", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("file[1]: " + logDir_ + "/update_engine.20261120-101500", kTag, ANDROID_LOG_INFO));
    for (const char* line : {"ota_start_time: 2026-11-20 10:15:00.123", "ota_package_name: ota-7.zip",
                             "ota_end_time: 2026-11-20 10:31:42.500", "ota_merged_time: 2026-11-20 10:40:00.456",
                             "end_time: 2026-11-20 10:31:42.500"}) {
        EXPECT_TRUE(log_.HasLine(line, kTag, ANDROID_LOG_INFO)) << line;
    }
    EXPECT_EQ(Zone().versionCode, 8192u);
    EXPECT_EQ(Shown(), "OTA records: 1 of 10, next index 1\n  record 0: ota-7.zip,  () -> V816.0.3 (_b), debuggable 0, "
                       "start 2026-11-20 10:15:00.123, end 2026-11-20 10:31:42.500, merged 2026-11-20 10:40:00.456\n");
}

TEST_F(OTAMonitorModuleTest, MissingLogsAndLinesLeaveTheirFieldsEmpty) {
    MakePartition(200 << 20);
    LoadModules();
    ASSERT_TRUE(WaitFor([&] { return log_.Count(std::string(kWaiting) + "ota_start") == 1; }));

    // No log at all, then only one: no times, no package.
    Report("ota_start", "ota_complete", 1);
    Report("ota_complete", "ota_start", 2);
    EXPECT_TRUE(log_.HasLine("No update_engine_log files found!", kTag, ANDROID_LOG_INFO));
    WriteLog("update_engine.20261120-104000", "[2026-11-20 10:40:00.456] Merge finished with state MergeCompleted\n",
             0);
    Report("ota_start", "ota_complete", 2);
    Report("ota_complete", "ota_start", 3);
    EXPECT_TRUE(log_.HasLine("Only one update_engine_log file found!", kTag, ANDROID_LOG_INFO));

    // Two logs with only some of the lines, one time without its bracket.
    WriteLog("update_engine.20261120-101500", "[2026-11-20 10:15:00.123 Update Boot Timestamp Start\n"
             "initial url: no-slash-here\n", 600);
    WriteLog("update_engine.20261120-104000", "nothing merged yet\n", 0);
    Report("ota_start", "ota_complete", 3);
    Report("ota_complete", "ota_start", 4);
    const std::string older = logDir_ + "/update_engine.20261120-101500";
    const std::string newer = logDir_ + "/update_engine.20261120-104000";
    for (const std::string& line :
         {"search_ota_start_time_in_ota_log: cannot find ota start time in file: " + older,
          "search_ota_package_name_in_ota_log: cannot find the url in file: " + older,
          "search_ota_end_time_in_ota_log: cannot find ota end time line in file: " + older,
          "search_ota_merged_time_in_ota_log: cannot find ota merged time line in path: " + newer,
          std::string("cannot find the end flag of timestamp")}) {
        EXPECT_TRUE(log_.HasLine(line, kTag, ANDROID_LOG_ERROR)) << line;
    }
    EXPECT_TRUE(log_.HasLine("failed to search ota merged time in ota log", kTag, ANDROID_LOG_INFO));

    const bb::OtaRecordZone zone = Zone();
    EXPECT_EQ(zone.updateCount, 3u);
    std::string filled;
    for (int i = 0; i < 3; ++i) {
        filled += std::string(zone.startTime[i]) + zone.endTime[i] + zone.mergedTime[i] + zone.packageName[i];
        EXPECT_STREQ(zone.tgtBuild[i], "V816.0.3");
    }
    EXPECT_EQ(filled, "");

    // The time is the text between the first brackets, cut to the record's 31 characters.
    EXPECT_EQ(velmar::tarnis::extract_ota_time("no bracket"), nullptr);
    EXPECT_TRUE(log_.HasLine("cannot find the start flag of timestamp", kTag, ANDROID_LOG_ERROR));
    EXPECT_STREQ(velmar::tarnis::extract_ota_time("x [] y").get(), "");
    EXPECT_STREQ(velmar::tarnis::extract_ota_time("[1120/101500.000001:INFO:main.cc(55)] Start").get(),
                 "1120/101500.000001:INFO:main.cc");
}

TEST_F(OTAMonitorModuleTest, WithoutAUsablePartitionTheModuleEnds) {
    LoadModules();
    ASSERT_TRUE(WaitFor([&] { return Stopped("OTAMonitor"); }));
    EXPECT_TRUE(log_.HasLine("ota_monitor_func: blackbox partition is not existed, return directly!", kTag,
                             ANDROID_LOG_ERROR));

    // A version-1 partition has no zone; the module loads again only once its removal is through.
    ASSERT_TRUE(WaitFor(
        [&] { return log_.HasLine("[~ModuleBase] Bye~ OTAMonitor", "Tarnis-ModuleBase", ANDROID_LOG_DEBUG); }));
    MakePartition(160 << 20);
    ASSERT_EQ(Dump({"ModuleManager", "load", "OTAMonitor"}), "Load module OTAMonitor succeed!\n");
    ASSERT_TRUE(WaitFor([&] { return Stopped("OTAMonitor"); }));
    EXPECT_TRUE(log_.HasLine("ota_monitor_func: blackbox v1 is not support ota record zone, return directly!", kTag,
                             ANDROID_LOG_ERROR));
}

}  // namespace
