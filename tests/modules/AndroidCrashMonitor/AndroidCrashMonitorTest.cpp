#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"
#include "utils/Cryptography.h"
#include "tests/modules/AndroidCrashMonitor/BlackBoxTestHelpers.h"
#include "tests/support/ModuleTest.h"

namespace {

namespace bb = velmar::kolto::blackbox;
using android::base::GetProperty;
using android::base::SetProperty;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using velmar::tarnis::AndroidCrashMonitorThread;
using namespace blackbox_test;

constexpr char kTag[] = "AndroidCrashMonitor";

class AndroidCrashMonitorTest : public tarnis_test::ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        partition_ = Device("/dev/block/by-name/blackbox");
        ASSERT_EQ(system(("mkdir -p '" + Device("/dev/block/by-name") + "' '" + Device("/data/aee_exp") + "' '" +
                          Device("/proc") + "'")
                                 .c_str()),
                  0);
        ASSERT_EQ(truncate(CreateEmpty(partition_).c_str(), kPartitionBytes), 0);
        SetProperty("ro.build.version.incremental", "eng.1234");
    }
    void TearDown() override {
        AndroidCrashMonitorThread::SetWriteHookForTesting(nullptr);
        ModuleTest::TearDown();
    }

    static std::string CreateEmpty(const std::string& path) {
        android::base::WriteStringToFile("", path);
        return path;
    }

    // A database as the collector leaves it, announced through its property.
    std::string MakeDb(const std::string& name, const std::string& content) {
        const std::string dir = Device("/data/aee_exp/" + name);
        EXPECT_EQ(mkdir(dir.c_str(), 0770), 0);
        EXPECT_TRUE(android::base::WriteStringToFile(content, dir + "/" + name + ".dbg"));
        EXPECT_TRUE(SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/" + name));
        return dir + "/" + name + ".dbg";
    }
    void AppendHistory(const std::string& line) {
        std::string text;
        android::base::ReadFileToString(Device("/data/aee_exp/db_history"), &text);
        ASSERT_TRUE(android::base::WriteStringToFile(text + line + "\n", Device("/data/aee_exp/db_history")));
    }

    bool HasInfo(const std::string& text) { return log_.HasLine(text, kTag, ANDROID_LOG_INFO); }
    bool HasError(const std::string& text) { return log_.HasLine(text, kTag, ANDROID_LOG_ERROR); }

    std::string Tool(const std::string& args, int* status) {
        return RunShell(std::string(TARNIS_BUILD_DIR) + "/tarnis-blackbox " + args + " 2>&1", status);
    }

    std::string partition_;
};

TEST_F(AndroidCrashMonitorTest, FreshPartitionIsVersionTwoAndEachDatabaseTakesTheNextSlot) {
    AndroidCrashMonitorThread worker;
    const std::string first = RandomBytes(1000, 1);
    const std::string firstPath = MakeDb("db.fatal.00.NE", first);
    AppendHistory("/data/aee_exp/db.fatal.00.JE, Java (JE), Sun Jan  4 09:00:00 CST 2026");
    AppendHistory("/data/aee_exp/db.fatal.00.NE, Native (NE), Mon Jan  5 10:00:00 CST 2026");
    bool encrypt = false;
    worker.HandleFatalDb(&encrypt);

    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: black_box_log_table_header.magic is bad,should init"));
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: black_box_fw_minidump_header.magic is bad, should init"));
    EXPECT_TRUE(HasInfo("The size of partition " + partition_ + ": 199229440 bytes"));
    EXPECT_TRUE(HasInfo("init_black_box_log_table_header: blackbox v2"));
    EXPECT_TRUE(HasInfo("write_fw_db_to_blackbox: db_size = 1000"));
    EXPECT_TRUE(HasInfo("write_fw_db_to_blackbox: no need encrypt, delete encrypted db file!"));
    EXPECT_TRUE(HasInfo("threadLoop: return of write_fw_db_to_blackbox: 1"));
    EXPECT_TRUE(HasInfo("update_black_box_fw_minidump_header: write blackbox success"));
    EXPECT_TRUE(HasInfo("threadLoop: return of update_black_box_fw_minidump_header: 1"));
    EXPECT_TRUE(HasInfo("begin update_proc_crash_module"));

    const auto table = ReadRecordAt<bb::LogTableHeader>(partition_, bb::kLogTableHeaderOffset);
    EXPECT_EQ(table.magic, bb::kLogTableMagic);
    EXPECT_EQ(table.versionCode, 0x2000u);
    EXPECT_EQ(table.crashHistoryBase4k, 0x9800000u);
    EXPECT_EQ(table.zones[0], 0xA400000u);
    EXPECT_EQ(table.zones[2], 0xA440000u);
    auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    EXPECT_EQ(fw.index, 1u);
    EXPECT_EQ(fw.filled, 1u);
    EXPECT_EQ(fw.position[0], 0x5C00C00u);
    EXPECT_EQ(fw.size[0], 1008u);
    EXPECT_STREQ(fw.name[0], "db.fatal.00.NE");
    EXPECT_EQ(fw.nextPosition, 0x5C00C00u + 1008 + 288);
    EXPECT_EQ(DecryptWithOpenssl(ReadBytes(partition_, 0x5C00C00, 1008 + 288)), first);
    // Not to be encrypted: the plain database stays, the container goes.
    EXPECT_EQ(ReadFile(firstPath), first);
    EXPECT_EQ(RunShell("ls '" + Device("/data/aee_exp/db.fatal.00.NE") + "'"), "db.fatal.00.NE.dbg\n");

    // The history names the kind from the database's own line, the time from
    // the "CST" marker, and counts it.
    const char* kTime = "Mon Jan  5 10:00:00 CST 2026";
    const std::string line = "/data/aee_exp/db.fatal.00.NE, Native (NE), Mon Jan  5 10:00:00 CST 2026";
    const auto history = ReadRecordAt<bb::CrashHistoryHeader>(partition_, 0x9801000);
    EXPECT_EQ(history.currentNum, 1u);
    EXPECT_EQ(history.nextPosition, 1u);
    EXPECT_EQ(history.mainTypeCount[22], 1u);
    EXPECT_EQ(history.typeCount[22], 1u);
    const auto item = ReadRecordAt<bb::CrashHistoryItem>(partition_, 0x9801400);
    EXPECT_EQ(item.mainType, 22u);
    const std::string text =
            std::string("1)[1] eng.1234 | ") + kTime + " | NE | " + line + " | BSP-Android-Stability \n";
    EXPECT_EQ(std::string(item.text), text);
    EXPECT_EQ(item.textLength, text.size());
    EXPECT_EQ(ReadFile(Device("/proc/crash_module")),
              std::string("eng.1234 | NE | BSP-Android-Stability | ") + kTime + " | " + line);
    EXPECT_EQ(GetProperty("vendor.blackbox.write.status", ""), "done");
    EXPECT_EQ(GetProperty("vendor.debug.mtk.aee.db", ""), "null");
    EXPECT_EQ(GetProperty("persist.mtk.fw.minidump.existed", ""), "true");

    // The build asks for encryption: the container stays beside the database,
    // which goes, and the next slot follows the first container.
    SetProperty("ro.boot.db_encrypt", "1");
    const std::string second = RandomBytes(4096 + 7, 2);
    const std::string secondPath = MakeDb("db.fatal.01.SWT", second);
    android::base::WriteStringToFile("stale", Device("/data/aee_exp/db.fatal.01.SWT/old.enc"));
    worker.HandleFatalDb(&encrypt);
    EXPECT_TRUE(encrypt);
    EXPECT_TRUE(HasInfo("threadLoop: db encrypt flag is set to 1, need to enable fw db encrypt"));
    EXPECT_TRUE(HasInfo("delete enc file: " + Device("/data/aee_exp/db.fatal.01.SWT/old.enc") + "\n"));
    fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    EXPECT_EQ(fw.index, 2u);
    EXPECT_EQ(fw.filled, 2u);
    EXPECT_EQ(fw.position[1], 0x5C00C00u + 1296);
    EXPECT_EQ(fw.size[1], 4112u);
    EXPECT_STREQ(fw.name[1], "db.fatal.01.SWT");
    EXPECT_EQ(RunShell("ls '" + Device("/data/aee_exp/db.fatal.01.SWT") + "'"), "db.fatal.01.SWT.dbg.enc\n");
    EXPECT_EQ(ReadFile(secondPath + ".enc"), ReadBytes(partition_, fw.position[1], 4112 + 288));
    EXPECT_EQ(DecryptWithOpenssl(ReadFile(secondPath + ".enc")), second);
}

TEST_F(AndroidCrashMonitorTest, RingRestartsAtTheAreaStartAndDropsTheSlotsItOverwrites) {
    AndroidCrashMonitorThread worker;
    MakeDb("db.fatal.00.NE", RandomBytes(16, 3));
    bool encrypt = false;
    worker.HandleFatalDb(&encrypt);  // initialises the headers
    // Slot 0 at the area start (304 bytes), slot 1 right behind it, slot 2
    // far away, and no room left at the end of the area.
    auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    fw.index = 0;
    fw.filled = 3;
    fw.position[1] = 0x5C00C00 + 304;
    fw.size[1] = 16;
    fw.position[2] = 0x5C00C00 + 100000;
    fw.size[2] = 16;
    fw.nextPosition = bb::kFwAreaEnd - 100;
    WriteRecordAt(partition_, bb::kFwMinidumpHeaderOffset, fw);

    const std::string content = RandomBytes(100, 4);
    MakeDb("db.fatal.01.JE", content);
    worker.HandleFatalDb(&encrypt);
    EXPECT_TRUE(HasInfo("write_fw_db_to_blackbox: current fw_db_size is too large and needs to be rewritten from "
                        "the partition header"));
    fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    EXPECT_EQ(fw.index, 1u);
    EXPECT_EQ(fw.position[0], 0x5C00C00u);
    EXPECT_EQ(fw.size[0], 112u);
    EXPECT_STREQ(fw.name[0], "db.fatal.01.JE");
    EXPECT_EQ(fw.position[1], 0u);  // its bytes were under the new container
    EXPECT_EQ(fw.size[1], 16u);      // only its position goes
    EXPECT_EQ(fw.position[2], 0x5C00C00u + 100000);
    EXPECT_EQ(fw.filled, 2u);
    EXPECT_EQ(fw.nextPosition, 0x5C00C00u + 400);
    EXPECT_EQ(DecryptWithOpenssl(ReadBytes(partition_, 0x5C00C00, 400)), content);
}

TEST_F(AndroidCrashMonitorTest, FourthDatabaseDropsTheSlotsAfterItThatLieBelowItsEnd) {
    // The ring's listing rule once the index wraps without a restart: the
    // slots after the new one start below its end, so they leave the header
    // and the count, although their bytes are still intact.
    AndroidCrashMonitorThread worker;
    bool encrypt = false;
    for (int i = 0; i < 4; ++i) {
        MakeDb("db.fatal.0" + std::to_string(i) + ".NE", RandomBytes(32, 20 + i));
        worker.HandleFatalDb(&encrypt);
    }
    const auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    EXPECT_EQ(fw.index, 1u);
    EXPECT_EQ(fw.position[0], 0x5C00C00u + 3 * 320);
    EXPECT_STREQ(fw.name[0], "db.fatal.03.NE");
    EXPECT_EQ(fw.position[1], 0u);
    EXPECT_EQ(fw.position[2], 0u);
    EXPECT_EQ(fw.filled, 2u);
    EXPECT_EQ(fw.nextPosition, 0x5C00C00u + 4 * 320);
}

TEST_F(AndroidCrashMonitorTest, HistoryWrapsAtSlot509AndCountsOnlyKnownTypes) {
    AndroidCrashMonitorThread worker;
    EXPECT_EQ(worker.write_fw_db_to_blackbox(false), 0);  // no database: loads the headers only
    EXPECT_TRUE(HasError("get_db_name: No reboot db"));
    bb::CrashHistoryHeader header{};
    memcpy(header.magic, bb::kCrashHistoryMagic, 8);
    header.version = 0x1001;
    header.slotCount = 509;
    header.currentNum = 1000;
    header.nextPosition = 509;
    header.counterMarker = bb::kCrashCounterMarker;
    header.mainTypeCount[21] = 7;
    WriteRecordAt(partition_, 0x9801000, header);

    AndroidCrashMonitorThread::CrashRecord record;
    record.mainType = record.type = 21;
    record.kind = "JE";
    record.time = "Tue Jan  6 11:00:00 CST 2026";
    record.line = "db.fatal.02.JE line";
    EXPECT_EQ(worker.WriteCrashHistoryRecord(record), 1);
    EXPECT_TRUE(HasInfo("write_blackbox_crash_history: crash main type: 21"));
    auto item = ReadRecordAt<bb::CrashHistoryItem>(partition_, 0x9801400);
    EXPECT_EQ(std::string(item.text), "1001)[1] eng.1234 | Tue Jan  6 11:00:00 CST 2026 | JE | db.fatal.02.JE line | "
                                      "BSP-Android-Stability \n");
    header = ReadRecordAt<bb::CrashHistoryHeader>(partition_, 0x9801000);
    EXPECT_EQ(header.nextPosition, 1u);
    EXPECT_EQ(header.currentNum, 1001u);
    EXPECT_EQ(header.mainTypeCount[21], 8u);
    EXPECT_EQ(header.mainTypeTag, 26u);
    EXPECT_EQ(header.typeTag, 26u);

    record.mainType = 40;
    record.type = 64;
    EXPECT_EQ(worker.WriteCrashHistoryRecord(record), 1);
    EXPECT_TRUE(HasError("crash_history: crash_main type overflowed"));
    EXPECT_TRUE(HasError("crash_history: crash type overflowed"));
    item = ReadRecordAt<bb::CrashHistoryItem>(partition_, 0x9801400 + 1024);
    EXPECT_EQ(item.mainType, 40u);
    const auto after = ReadRecordAt<bb::CrashHistoryHeader>(partition_, 0x9801000);
    EXPECT_EQ(after.nextPosition, 2u);
    EXPECT_EQ(memcmp(after.mainTypeCount, header.mainTypeCount, sizeof(header.mainTypeCount)), 0);
    EXPECT_EQ(memcmp(after.typeCount, header.typeCount, sizeof(header.typeCount)), 0);
}

TEST_F(AndroidCrashMonitorTest, WaitsUpToTwentySecondsOnTheClockForTheCollector) {
    AndroidCrashMonitorThread worker;
    SetProperty("vendor.blackbox.write.status", "writing");
    std::thread waiter([&worker] { worker.WaitForWriteStatusDone(); });
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(clock_.WaitForWaiters(1));
        clock_.Advance(1000);
    }
    ASSERT_TRUE(clock_.WaitForWaiters(1));
    SetProperty("vendor.blackbox.write.status", "done");
    clock_.Advance(1000);
    waiter.join();
    EXPECT_EQ(log_.Count("wait_blackbox_write_status: propbuf = writing", kTag), 3u);
    EXPECT_TRUE(HasInfo("wait_blackbox_write_status: i = 2"));
    EXPECT_TRUE(HasInfo("wait_blackbox_write_status: propbuf = done"));

    // A collector that never finishes holds the worker 20 seconds, no more.
    log_.Clear();
    SetProperty("vendor.blackbox.write.status", "writing");
    std::thread stuck([&worker] { worker.WaitForWriteStatusDone(); });
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(clock_.WaitForWaiters(1));
        clock_.Advance(1000);
    }
    stuck.join();
    EXPECT_EQ(log_.Count("wait_blackbox_write_status: propbuf = writing", kTag), 20u);
    EXPECT_TRUE(HasInfo("wait_blackbox_write_status: i = 19"));
}

TEST_F(AndroidCrashMonitorTest, ModuleWaitsForTheCollectorDirectoryThenGivesUp) {
    ASSERT_EQ(rmdir(Device("/data/aee_exp").c_str()), 0);
    LoadModules();
    EXPECT_TRUE(log_.HasLine("[OnInit] tarnis AndroidCrashMonitor OnInit", "Tarnis-AndroidCrashMonitorModule"));
    EXPECT_TRUE(HasInfo("[OnAllModulesLoaded] begin wait for mtk aee dir ready"));
    for (int i = 0; i < 120; ++i) AdvanceAndSettle(1000);
    EXPECT_EQ(log_.Count("[WaitAeeDirReady] wait for aee dir ready", kTag), 120u);
    EXPECT_TRUE(HasInfo("[OnAllModulesLoaded] load Mtk AndroidCrashMonitor module"));
    ASSERT_TRUE(WaitFor([&] { return log_.HasLine("[OnAllModulesLoaded] quited!!", kTag); }));
    EXPECT_TRUE(HasError("threadLoop: Failed to add watch for directory " + Device("/data/aee_exp") +
                         ", error = 2(No such file or directory)\n"));
    EXPECT_TRUE(HasInfo("[OnAllModulesLoaded] Mtk AndroidCrashMonitor done~"));
}

TEST_F(AndroidCrashMonitorTest, FatalDatabaseFromTheCollectorReachesThePartitionAndTheTool) {
    LoadModules();
    ASSERT_TRUE(WaitFor([] { return GetProperty("vendor.blackbox.write.status", "") == "done"; }));

    // Files closed while no fatal database is announced are not the monitor's.
    AppendHistory("unrelated");
    ASSERT_TRUE(WaitFor([&] { return log_.HasLine("threadLoop: not fatal db, skip to handle it!", kTag); }));
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.exception.00.JE");
    AppendHistory("not fatal");
    ASSERT_TRUE(WaitFor([&] { return log_.Count("threadLoop: not fatal db, skip to handle it!", kTag) == 2; }));

    // As the collector does: the database, its property, then its history line.
    const std::string content = RandomBytes(300000, 5);
    const std::string path = MakeDb("db.fatal.03.NE", content);
    AppendHistory("/data/aee_exp/db.fatal.03.NE, Native (NE), Wed Jan  7 12:00:00 CST 2026");
    ASSERT_TRUE(WaitFor([] { return GetProperty("vendor.debug.mtk.aee.db", "") == "null"; }));
    ASSERT_TRUE(WaitFor([&] { return log_.HasLine("begin update_proc_crash_module", kTag); }));
    EXPECT_TRUE(HasInfo("threadLoop: monitored IN_CLOSE_WRITE event,  begin write fw db to blackbox"));
    // Counted once the database is wholly handled, just after its properties.
    EXPECT_TRUE(WaitFor(
        [&] { return Dump({"AndroidCrashMonitor"}).find("fatal dbs handled: 1\n") != std::string::npos; }));

    int status = -1;
    std::string out = Tool(partition_, &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("  slot 0: db.fatal.03.NE at 0x5c00c00, 300000 bytes (300000 encrypted)\n"),
              std::string::npos)
            << out;
    EXPECT_NE(out.find("  [slot 0] main type 22, type 22: 1)[1] eng.1234 | Wed Jan  7 12:00:00 CST 2026 | NE | "
                       "/data/aee_exp/db.fatal.03.NE, Native (NE), Wed Jan  7 12:00:00 CST 2026 | "
                       "BSP-Android-Stability\n"),
              std::string::npos)
            << out;
    EXPECT_NE(out.find("boot monitor: no failure recorded\n"), std::string::npos) << out;
    EXPECT_NE(out.find("OTA records: not initialised\n"), std::string::npos) << out;

    Json::Value json;
    ASSERT_TRUE(Json::Reader().parse(Tool("--json " + partition_, &status), json));
    EXPECT_EQ(json["firmware_databases"]["slots"][0]["name"].asString(), "db.fatal.03.NE");
    EXPECT_EQ(json["crash_history"]["main_type_counts"]["22"].asInt(), 1);

    const std::string outDir = root_.Sub("extracted");
    ASSERT_EQ(mkdir(outDir.c_str(), 0700), 0);
    out = Tool(partition_ + " extract --key " TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem --out " + outDir,
               &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(ReadFile(outDir + "/db.fatal.03.NE"), content);
    EXPECT_EQ(ReadFile(path), content);  // not encrypted: the database stays
}

TEST_F(AndroidCrashMonitorTest, MpDeviceWaitsForBootCompletionThenFollowsTheCloudSwitch) {
    SetProperty("ro.boot.hwlevel", "mp");
    SetProperty("ro.boot.db_encrypt", "1");  // not what an MP device goes by
    SetProperty("persist.sys.stability.db_encrypt.enable", "true");
    const std::string path = MakeDb("db.fatal.04.NE", RandomBytes(64, 9));
    AndroidCrashMonitorThread worker;
    bool encrypt = false;
    std::thread handler([&] { worker.HandleFatalDb(&encrypt); });
    EXPECT_TRUE(WaitFor([] { return GetProperty("vendor.blackbox.write.status", "") == "writing"; }));
    // Still waiting for the boot to complete: nothing written yet.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(log_.Contains("write_fw_db_to_blackbox", kTag));
    SetProperty("sys.boot_completed", "1");
    handler.join();
    EXPECT_TRUE(encrypt);
    EXPECT_TRUE(HasInfo("threadLoop: MP device, cloud control property is true, need to enable fw db encrypt"));
    EXPECT_FALSE(log_.Contains("db encrypt flag is set to 1", kTag));
    EXPECT_EQ(ReadFile(path + ".enc").size(), 64u + 288);

    SetProperty("persist.sys.stability.db_encrypt.enable", "false");
    MakeDb("db.fatal.05.NE", RandomBytes(64, 10));
    worker.HandleFatalDb(&encrypt);
    EXPECT_FALSE(encrypt);
    EXPECT_TRUE(HasInfo("threadLoop: MP device, cloud control property is not true, need to disable fw db encrypt"));
}

TEST_F(AndroidCrashMonitorTest, StopEndsTheWaitForBootCompletion) {
    SetProperty("ro.boot.hwlevel", "MP");
    MakeDb("db.fatal.06.NE", RandomBytes(64, 11));
    AndroidCrashMonitorThread worker;
    bool encrypt = false;
    std::thread handler([&] { worker.HandleFatalDb(&encrypt); });
    ASSERT_TRUE(WaitFor([] { return GetProperty("vendor.blackbox.write.status", "") == "writing"; }));
    worker.RequestStop();
    handler.join();
    EXPECT_EQ(GetProperty("vendor.blackbox.write.status", ""), "done");
    EXPECT_FALSE(log_.Contains("write_fw_db_to_blackbox", kTag));
}

TEST_F(AndroidCrashMonitorTest, FifosWhereTheMonitorReadsAndWritesAreSkippedAndItGoesOn) {
    const std::string leftover = Device("/data/aee_exp/db.fatal.08.NE/.tarnis-tmp.db.fatal.08.NE.dbg.enc.k3v9");
    const std::string crashModule = Device("/proc/crash_module"), db = Device("/data/aee_exp/db.fatal.08.NE/");
    ASSERT_EQ(mkdir(db.c_str(), 0770), 0);
    ASSERT_TRUE(android::base::WriteStringToFile("half", leftover));
    for (const std::string& fifo : {crashModule, Device("/data/aee_exp/db_history"), db + "db.fatal.08.NE.dbg"}) {
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0) << fifo;
    }
    LoadModules();
    ASSERT_TRUE(WaitFor([] { return GetProperty("vendor.blackbox.write.status", "") == "done"; }));
    EXPECT_NE(access(leftover.c_str(), F_OK), 0);  // swept at start

    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.08.NE");
    ASSERT_TRUE(android::base::WriteStringToFile("", Device("/data/aee_exp/trigger")));
    const auto handled = [] { return GetProperty("vendor.debug.mtk.aee.db", "") == "null"; };
    if (!WaitFor(handled)) {
        // A worker held in open() is let go, so that the failure shows here.
        android::base::unique_fd reader(open(crashModule.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        WaitFor(handled);
        FAIL() << "the worker was held";
    }
    EXPECT_EQ(GetProperty("vendor.blackbox.write.status", ""), "done");
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: " + db + "db.fatal.08.NE.dbg is not a regular file, skipped"));
    EXPECT_TRUE(log_.HasLine("write_blackbox_crash_history: \"/data/aee_exp/db_history\" is not a regular file, the "
                             "crash goes into the history without its line", kTag, ANDROID_LOG_WARN));
    EXPECT_TRUE(HasError("update_proc_crash_module: " + crashModule + ": No such device or address"));

    // The next database is preserved as usual.
    ASSERT_EQ(unlink(crashModule.c_str()) | unlink(Device("/data/aee_exp/db_history").c_str()), 0);
    MakeDb("db.fatal.09.NE", RandomBytes(64, 12));
    AppendHistory("/data/aee_exp/db.fatal.09.NE, Native (NE), Thu Jan  8 12:00:00 CST 2026");
    EXPECT_TRUE(WaitFor([&] { return ReadFile(crashModule).find("db.fatal.09.NE") != std::string::npos; }));
}

TEST_F(AndroidCrashMonitorTest, HostileDatabasePathsAreRefusedAndNothingOutsideIsTouched) {
    AndroidCrashMonitorThread worker;
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/../../../etc/db.fatal.00.NE");
    EXPECT_EQ(worker.write_fw_db_to_blackbox(true), 0);
    EXPECT_TRUE(HasError("get_db_path: db path refused: \"/data/aee_exp/../../../etc/db.fatal.00.NE/db.fatal.00.NE.dbg\" "
                         "climbs out of \"/data/aee_exp\""));
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: Get db filepath fail"));

    // A link in place of the database's directory.
    const std::string outside = root_.Sub("outside");
    ASSERT_EQ(mkdir(outside.c_str(), 0700), 0);
    ASSERT_TRUE(android::base::WriteStringToFile("plain", outside + "/db.fatal.01.NE.dbg"));
    ASSERT_TRUE(android::base::WriteStringToFile("old", outside + "/old.enc"));
    ASSERT_EQ(symlink(outside.c_str(), Device("/data/aee_exp/db.fatal.01.NE").c_str()), 0);
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.01.NE");
    bool encrypt = true;
    worker.HandleFatalDb(&encrypt);
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: db directory refused: \"/data/aee_exp/db.fatal.01.NE\" passes "
                         "through a symbolic link"));
    EXPECT_EQ(ReadFile(outside + "/old.enc"), "old");
    EXPECT_EQ(ReadFile(outside + "/db.fatal.01.NE.dbg"), "plain");
    EXPECT_EQ(RunShell("ls '" + outside + "'"), "db.fatal.01.NE.dbg\nold.enc\n");
    const auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    EXPECT_EQ(fw.filled, 0u);
    EXPECT_EQ(fw.position[0], 0u);
}

// The partition as a fault finds it: A in slot 0 at the area start, B in
// slot 1 a mebibyte further, and no room at the end, so that the next
// database C goes to slot 0 over A's bytes but not over B's.
class AndroidCrashMonitorFaultTest : public AndroidCrashMonitorTest {
protected:
    void SetUp() override {
        AndroidCrashMonitorTest::SetUp();
        bool encrypt = false;
        MakeDb("db.fatal.0A.NE", RandomBytes(100, 6));
        worker_.HandleFatalDb(&encrypt);
        auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
        fw.nextPosition = 0x5C00C00 + (1 << 20);
        WriteRecordAt(partition_, bb::kFwMinidumpHeaderOffset, fw);
        b_ = RandomBytes(200, 7);
        MakeDb("db.fatal.0B.NE", b_);
        worker_.HandleFatalDb(&encrypt);
        fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
        fw.nextPosition = bb::kFwAreaEnd - 100;
        WriteRecordAt(partition_, bb::kFwMinidumpHeaderOffset, fw);
        c_ = RandomBytes(1000, 8);
        cPath_ = MakeDb("db.fatal.0C.NE", c_);
        struct stat st;
        ASSERT_EQ(stat(partition_.c_str(), &st), 0);
        partitionIno_ = st.st_ino;
        log_.Clear();
    }

    // Writes to the partition's container area go through `partition`; the
    // others as usual.
    void HookPartitionWrites(std::function<ssize_t(int, const void*, size_t, off_t)> partition) {
        const ino_t ino = partitionIno_;
        AndroidCrashMonitorThread::SetWriteHookForTesting(
                [ino, partition](int fd, const void* buf, size_t len, off_t offset) -> ssize_t {
                    struct stat st;
                    if (offset >= bb::kFwAreaStart && offset < bb::kFwAreaEnd && fstat(fd, &st) == 0 &&
                        st.st_ino == ino) {
                        return partition(fd, buf, len, offset);
                    }
                    return offset < 0 ? write(fd, buf, len) : pwrite(fd, buf, len, offset);
                });
    }
    // What the tool reads back, which must be a consistent image.
    std::string ToolSlots() {
        int status = -1;
        const std::string out = Tool(partition_, &status);
        EXPECT_EQ(status, 0) << out;
        const size_t from = out.find("firmware databases");
        return from == std::string::npos ? out : out.substr(from, out.find("crash history", from) - from);
    }

    AndroidCrashMonitorThread worker_;
    std::string b_, c_, cPath_;
    ino_t partitionIno_ = 0;
};

TEST_F(AndroidCrashMonitorFaultTest, FailedWritesRewindTheRingAndTheNextWriteOverwritesNothingListed) {
    const uint32_t bAt = 0x5C00C00 + (1 << 20);
    for (const bool keyFails : {false, true}) {
        // The random source fails, or the disk fills while the wrapped key
        // is appended to the staged container.
        velmar::kolto::cryptography::SetRandomSourceForTesting(keyFails ? "/nonexistent/urandom" : nullptr);
        AndroidCrashMonitorThread::SetWriteHookForTesting([](int fd, const void* buf, size_t len, off_t offset) {
            if (len == bb::kWrappedKeyBytes && offset < 0) {
                errno = ENOSPC;
                return ssize_t{-1};
            }
            return offset < 0 ? write(fd, buf, len) : pwrite(fd, buf, len, offset);
        });
        SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.0C.NE");
        bool encrypt = true;
        worker_.HandleFatalDb(&encrypt);
        velmar::kolto::cryptography::SetRandomSourceForTesting(nullptr);
        EXPECT_TRUE(HasError(keyFails ? "write_fw_db_to_blackbox: no AES key from the random source, nothing written"
                                      : "write_fw_db_to_blackbox: write encrypted aes key failed!"));
        EXPECT_TRUE(HasInfo("update_black_box_fw_minidump_header: write blackbox failed"));
        // The restart took slot 0 and gave up A's listing; the failure empties
        // the slot (its name stays) and rewinds the ring to where it began.
        const auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
        EXPECT_EQ(fw.index, 0u);
        EXPECT_EQ(fw.filled, 1u);
        EXPECT_EQ(fw.nextPosition, 0x5C00C00u);
        EXPECT_EQ(fw.position[0], 0u);
        EXPECT_EQ(fw.size[0], 0u);
        EXPECT_STREQ(fw.name[0], "db.fatal.0C.NE");
        EXPECT_EQ(fw.position[1], bAt);
        EXPECT_EQ(fw.size[1], 208u);
        EXPECT_EQ(ReadFile(cPath_), c_);
        EXPECT_EQ(RunShell("ls -A '" + Device("/data/aee_exp/db.fatal.0C.NE") + "'"), "db.fatal.0C.NE.dbg\n");
    }
    EXPECT_TRUE(HasError("write encrypted data failed 28(No space left on device)\n"));

    // A failure before any slot is chosen rewinds to the empty slot's
    // position, 0; the next write goes where the ring goes on, not there.
    AndroidCrashMonitorThread::SetWriteHookForTesting(nullptr);
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.0D.NE");  // no such database
    bool encrypt = false;
    worker_.HandleFatalDb(&encrypt);
    EXPECT_EQ(ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset).nextPosition, 0u);
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.0C.NE");
    worker_.HandleFatalDb(&encrypt);
    const auto fw = ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset);
    EXPECT_EQ(fw.position[0], 0x5C00C00u);
    EXPECT_EQ(fw.position[1], bAt);
    EXPECT_EQ(DecryptWithOpenssl(ReadBytes(partition_, 0x5C00C00, 1008 + 288)), c_);
    EXPECT_EQ(DecryptWithOpenssl(ReadBytes(partition_, bAt, 208 + 288)), b_);
}

TEST_F(AndroidCrashMonitorFaultTest, PartitionWriteCutShortListsOnlyIntactContainers) {
    size_t written = 0;
    HookPartitionWrites([&written](int fd, const void* buf, size_t len, off_t offset) -> ssize_t {
        if (written >= 600) {
            errno = ENOSPC;
            return -1;
        }
        const ssize_t n = pwrite(fd, buf, std::min<size_t>(len, 600 - written), offset);
        written += static_cast<size_t>(n);
        return n;
    });
    bool encrypt = false;
    worker_.HandleFatalDb(&encrypt);
    EXPECT_TRUE(HasError("[write_file_to_blackbox] Failed to write all encrypted data to the target device " +
                         partition_));
    EXPECT_TRUE(HasInfo("threadLoop: return of write_fw_db_to_blackbox: 0"));
    const std::string slots = ToolSlots();
    EXPECT_NE(slots.find("  slot 0: empty\n"), std::string::npos) << slots;
    EXPECT_NE(slots.find("  slot 1: db.fatal.0B.NE at 0x5d00c00, 200 bytes"), std::string::npos) << slots;
    EXPECT_EQ(ReadFile(cPath_), c_);
}

TEST_F(AndroidCrashMonitorFaultTest, DaemonKilledMidContainerLeavesAConsistentImage) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        size_t written = 0;
        HookPartitionWrites([&written](int fd, const void* buf, size_t len, off_t offset) -> ssize_t {
            const ssize_t n = pwrite(fd, buf, std::min<size_t>(len, 500), offset);
            written += static_cast<size_t>(n);
            if (written >= 500) _exit(3);
            return n;
        });
        AndroidCrashMonitorThread worker;
        bool encrypt = true;
        worker.HandleFatalDb(&encrypt);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    log_.Clear();
    const std::string slots = ToolSlots();
    EXPECT_NE(slots.find("  slot 0: empty\n"), std::string::npos) << slots;
    EXPECT_NE(slots.find("  slot 1: db.fatal.0B.NE"), std::string::npos) << slots;
    EXPECT_EQ(ReadFile(cPath_), c_);

    // The next run writes C in full, and both survivors decrypt.
    bool encrypt = false;
    worker_.HandleFatalDb(&encrypt);
    EXPECT_TRUE(log_.Contains("removed " + Device("/data/aee_exp/db.fatal.0C.NE/.tarnis-tmp.db.fatal.0C.NE.dbg.enc."),
                              "Tarnis-FileUtil"));  // the orphan
    const std::string outDir = root_.Sub("out");
    ASSERT_EQ(mkdir(outDir.c_str(), 0700), 0);
    int toolStatus = -1;
    const std::string out =
            Tool(partition_ + " extract --key " TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem --out " + outDir,
                 &toolStatus);
    EXPECT_EQ(toolStatus, 0) << out;
    EXPECT_EQ(ReadFile(outDir + "/db.fatal.0C.NE"), c_);
    EXPECT_EQ(ReadFile(outDir + "/db.fatal.0B.NE"), b_);
}

}  // namespace
