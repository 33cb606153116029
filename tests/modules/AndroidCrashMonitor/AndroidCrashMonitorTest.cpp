#include "tests/support/CrashMonitorFixture.h"

namespace {

using namespace crash_monitor_test;

TEST_F(AndroidCrashMonitorTest, FreshPartitionIsVersionTwoAndEachDatabaseTakesTheNextSlot) {
    AndroidCrashMonitorThread worker;
    const std::string first = RandomBytes(1000, 1);
    AppendHistory("/data/aee_exp/db.fatal.00.JE, Java (JE), Sun Jan  4 09:00:00 CST 2026");
    const std::string time = "Mon Jan  5 10:00:00 CST 2026";
    const std::string line = "/data/aee_exp/db.fatal.00.NE, Native (NE), " + time;
    AppendHistory(line);
    const std::string firstPath = Handle(worker, "db.fatal.00.NE", first);

    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: black_box_log_table_header.magic is bad,should init"));
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: black_box_fw_minidump_header.magic is bad, should init"));
    EXPECT_TRUE(HasInfo("The size of partition " + partition_ + ": 199229440 bytes"));
    EXPECT_TRUE(HasInfo("init_black_box_log_table_header: blackbox v2"));
    EXPECT_TRUE(HasInfo("write_fw_db_to_blackbox: db_size = 1000"));
    EXPECT_TRUE(HasInfo("write_fw_db_to_blackbox: no need encrypt, delete encrypted db file!"));
    EXPECT_TRUE(HasInfo("update_black_box_fw_minidump_header: write blackbox success"));
    EXPECT_TRUE(HasInfo("threadLoop: return of update_black_box_fw_minidump_header: 1"));
    EXPECT_TRUE(HasInfo("begin update_proc_crash_module"));

    // The history takes the kind from the database's line and the time from "CST"; as the tool reads it.
    int status = -1;
    EXPECT_EQ(Tool(partition_, &status),
              "image: " + partition_ + " (199229440 bytes, partition version 2)\n"
              "log table header: version code 0x2000, history item value 1, crash history at 0x9801000, zones "
              "0xa400000 0xa420000 0xa440000\n"
              "firmware databases: index 1, filled 1, next position 0x5c01110\n"
              "  slot 0: db.fatal.00.NE at 0x5c00c00, 1000 bytes (1008 encrypted)\n  slot 1: empty\n  slot 2: empty\n"
              "crash history: version 0x1001, 1 written, next position 1\n  main type counts: 22:1\n"
              "  type counts: 22:1\n  [slot 0] main type 22, type 22: 1)[1] eng.1234 | " + time + " | NE | " + line +
              " | BSP-Android-Stability\nboot monitor: no failure recorded\nOTA records: not initialised\n");
    // Not to be encrypted: the plain database stays, the container goes.
    EXPECT_EQ(ReadFile(firstPath), first);
    EXPECT_EQ(RunShell("ls '" + Device("/data/aee_exp/db.fatal.00.NE") + "'"), "db.fatal.00.NE.dbg\n");
    EXPECT_EQ(ReadFile(Device("/proc/crash_module")), "eng.1234 | NE | BSP-Android-Stability | " + time + " | " + line);
    EXPECT_TRUE(StatusIs("done"));
    EXPECT_EQ(GetProperty("vendor.debug.mtk.aee.db", ""), "null");
    EXPECT_EQ(GetProperty("persist.mtk.fw.minidump.existed", ""), "true");

    // The build asks for encryption: the container replaces the database; the next slot follows the first.
    SetProperty("ro.boot.db_encrypt", "1");
    const std::string second = RandomBytes(4096 + 7, 2);
    const std::string secondPath = MakeDb("db.fatal.01.SWT", second);
    android::base::WriteStringToFile("stale", Device("/data/aee_exp/db.fatal.01.SWT/old.enc"));
    bool encrypt = false;
    worker.HandleFatalDb(&encrypt);
    EXPECT_TRUE(encrypt);
    EXPECT_TRUE(HasInfo("threadLoop: db encrypt flag is set to 1, need to enable fw db encrypt"));
    EXPECT_TRUE(HasInfo("delete enc file: " + Device("/data/aee_exp/db.fatal.01.SWT/old.enc") + "\n"));
    EXPECT_EQ(Ring(), "index 2, filled 2, next +5696 | [db.fatal.00.NE] +0 1008 | [db.fatal.01.SWT] +1296 4112 | "
                      "[] none 0");
    EXPECT_EQ(RunShell("ls '" + Device("/data/aee_exp/db.fatal.01.SWT") + "'"), "db.fatal.01.SWT.dbg.enc\n");
    EXPECT_EQ(ReadFile(secondPath + ".enc"), ReadBytes(partition_, bb::kFwAreaStart + 1296, 4112 + 288));
    const std::string extracted = ExtractAll();
    EXPECT_EQ(ReadFile(extracted + "db.fatal.00.NE"), first);
    EXPECT_EQ(ReadFile(extracted + "db.fatal.01.SWT"), second);
}

TEST_F(AndroidCrashMonitorTest, RingRestartsAtTheAreaStartAndDropsTheSlotsItOverwrites) {
    AndroidCrashMonitorThread worker;
    Handle(worker, "db.fatal.00.NE", RandomBytes(16, 3));  // initialises the headers
    // Slot 0 at the area start (304 bytes), slot 1 behind it, slot 2 (its copy) far away, no room at the end.
    auto fw = Fw();
    fw.index = 0;
    fw.filled = 3;
    fw.position[1] = bb::kFwAreaStart + 304;
    fw.size[1] = 16;
    fw.position[2] = bb::kFwAreaStart + 100000;
    fw.size[2] = 16;
    strcpy(fw.name[2], "far");
    WriteBytes(partition_, fw.position[2], ReadBytes(partition_, bb::kFwAreaStart, 304).data(), 304);
    fw.nextPosition = bb::kFwAreaEnd - 100;
    PutFw(fw);

    const std::string content = RandomBytes(100, 4);
    Handle(worker, "db.fatal.01.JE", content);
    EXPECT_TRUE(HasInfo("write_fw_db_to_blackbox: current fw_db_size is too large and needs to be rewritten from "
                        "the partition header"));
    // Slot 1's bytes were under the new container: only its position goes.
    EXPECT_EQ(Ring(), "index 1, filled 2, next +400 | [db.fatal.01.JE] +0 112 | [] none 16 | [far] +100000 16");
    EXPECT_EQ(ReadFile(ExtractAll() + "db.fatal.01.JE"), content);

    // The index wrapping without a restart, later slots starting below the new one's end are dropped, bytes intact.
    for (int i = 2; i <= 4; ++i) Handle(worker, "db.fatal.0" + std::to_string(i) + ".NE", RandomBytes(32, 20 + i));
    EXPECT_EQ(Ring(), "index 1, filled 2, next +1360 | [db.fatal.04.NE] +1040 32 | [db.fatal.02.NE] none 32 | "
                      "[db.fatal.03.NE] none 32");
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
    EXPECT_EQ(item.textLength, strlen(item.text));
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
    // The clock moves a second at a time, `seconds` times, the status turning "done" before move `doneAt`.
    AndroidCrashMonitorThread worker;
    const auto waitedFor = [&](int seconds, int doneAt) {
        SetProperty(kStatus, "writing");
        const auto drive = [&] {
            for (int i = 0; i < seconds && clock_.WaitForWaiters(1); ++i) {
                if (i == doneAt) SetProperty(kStatus, "done");
                clock_.Advance(1000);
            }
        };
        return Returns([&] { worker.WaitForWriteStatusDone(); }, drive, [&] { worker.RequestStop(); });
    };
    ASSERT_TRUE(waitedFor(3, 2));
    EXPECT_EQ(log_.Count("wait_blackbox_write_status: propbuf = writing", kTag), 3u);
    EXPECT_TRUE(HasInfo("wait_blackbox_write_status: i = 2"));
    EXPECT_TRUE(HasInfo("wait_blackbox_write_status: propbuf = done"));

    // A collector that never finishes holds the worker 20 seconds, no more.
    log_.Clear();
    ASSERT_TRUE(waitedFor(20, -1));
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
    LoadModulesThenCollectorDir();
    ASSERT_TRUE(WaitFor([] { return StatusIs("done"); }));

    // Files closed while no fatal database is announced are not the monitor's.
    AppendHistory("unrelated");
    ASSERT_TRUE(WaitFor([&] { return log_.HasLine("threadLoop: not fatal db, skip to handle it!", kTag); }));
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.exception.00.JE");
    AppendHistory("not fatal");
    ASSERT_TRUE(WaitFor([&] { return log_.Count("threadLoop: not fatal db, skip to handle it!", kTag) == 2; }));

    // As the collector does: the database, its property, then its history line.
    MakeDb("db.fatal.03.NE", RandomBytes(300000, 5));
    AppendHistory("/data/aee_exp/db.fatal.03.NE, Native (NE), Wed Jan  7 12:00:00 CST 2026");
    ASSERT_TRUE(WaitFor([] { return GetProperty("vendor.debug.mtk.aee.db", "") == "null"; }));
    ASSERT_TRUE(WaitFor([&] { return log_.HasLine("begin update_proc_crash_module", kTag); }));
    EXPECT_TRUE(HasInfo("threadLoop: monitored IN_CLOSE_WRITE event,  begin write fw db to blackbox"));
    // Counted once the database is wholly handled, just after its properties.
    EXPECT_TRUE(WaitFor(
        [&] { return Dump({"AndroidCrashMonitor"}).find("fatal dbs handled: 1\n") != std::string::npos; }));
    EXPECT_NE(Dump({"AndroidCrashMonitor"}).find("aee dir waits: 1\nCrashMonitor: running\n"), std::string::npos);

    int status = -1;
    Json::Value json;
    ASSERT_TRUE(Json::Reader().parse(Tool("--json " + partition_, &status), json));
    EXPECT_EQ(json["firmware_databases"]["slots"][0]["name"].asString(), "db.fatal.03.NE");
    EXPECT_EQ(json["crash_history"]["main_type_counts"]["22"].asInt(), 1);
}

TEST_F(AndroidCrashMonitorTest, MpDeviceWaitsForBootCompletionThenFollowsTheCloudSwitch) {
    SetProperty("ro.boot.hwlevel", "mp");
    SetProperty("ro.boot.db_encrypt", "1");  // not what an MP device goes by
    SetProperty("persist.sys.stability.db_encrypt.enable", "true");
    bool encrypt = false;
    // The worker holds the collector ("writing") until the boot completes, or it is stopped.
    const auto waitThen = [](const std::function<void()>& then) {
        return [then] {
            EXPECT_TRUE(WaitFor([] { return StatusIs("writing"); }));
            then();
        };
    };
    const auto completeBoot = [] { SetProperty("sys.boot_completed", "1"); };
    {
        // Stopped while it waits: nothing written, and the collector let go.
        MakeDb("db.fatal.06.NE", RandomBytes(64, 11));
        AndroidCrashMonitorThread stopped;
        const auto stop = [&] { stopped.RequestStop(); };
        ASSERT_TRUE(Returns([&] { stopped.HandleFatalDb(&encrypt); }, waitThen(stop), completeBoot));
        EXPECT_TRUE(StatusIs("done"));
        EXPECT_FALSE(log_.Contains("write_fw_db_to_blackbox", kTag));
    }
    const std::string path = MakeDb("db.fatal.04.NE", RandomBytes(64, 9));
    AndroidCrashMonitorThread worker;
    const auto stop = [&] { worker.RequestStop(); };
    ASSERT_TRUE(Returns([&] { worker.HandleFatalDb(&encrypt); }, waitThen(completeBoot), stop));
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

TEST_F(AndroidCrashMonitorTest, FifosWhereTheMonitorReadsAndWritesAreSkippedAndItGoesOn) {
    const std::string leftover = Device("/data/aee_exp/db.fatal.08.NE/.tarnis-tmp.db.fatal.08.NE.dbg.enc.k3v9");
    const std::string crashModule = Device("/proc/crash_module"), db = Device("/data/aee_exp/db.fatal.08.NE/");
    ASSERT_EQ(mkdir(db.c_str(), 0770), 0);
    ASSERT_TRUE(android::base::WriteStringToFile("half", leftover));
    for (const std::string& fifo : {crashModule, Device("/data/aee_exp/db_history"), db + "db.fatal.08.NE.dbg"}) {
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0) << fifo;
    }
    LoadModulesThenCollectorDir();
    ASSERT_TRUE(WaitFor([] { return StatusIs("done"); }));
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
    EXPECT_TRUE(StatusIs("done"));
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: " + db + "db.fatal.08.NE.dbg is not a regular file, skipped"));
    EXPECT_TRUE(log_.HasLine("write_blackbox_crash_history: \"/data/aee_exp/db_history\" is not a regular file, the "
                             "crash goes into the history without its line", kTag, ANDROID_LOG_WARN));
    EXPECT_TRUE(HasError("update_proc_crash_module: " + crashModule + ": No such device or address"));

    ASSERT_EQ(unlink(crashModule.c_str()) | unlink(Device("/data/aee_exp/db_history").c_str()), 0);
    MakeDb("db.fatal.09.NE", RandomBytes(64, 12));
    AppendHistory("/data/aee_exp/db.fatal.09.NE, Native (NE), Thu Jan  8 12:00:00 CST 2026");
    EXPECT_TRUE(WaitFor([&] { return ReadFile(crashModule).find("db.fatal.09.NE") != std::string::npos; }));
}

TEST_F(AndroidCrashMonitorTest, HostileDatabasePathsAreRefusedAndNothingOutsideIsTouched) {
    AndroidCrashMonitorThread worker;
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/../../../etc/db.fatal.00.NE");
    EXPECT_EQ(worker.write_fw_db_to_blackbox(true), 0);
    EXPECT_TRUE(HasError("get_db_path: db path refused: \"/data/aee_exp/../../../etc/db.fatal.00.NE/"
                         "db.fatal.00.NE.dbg\" climbs out of \"/data/aee_exp\""));
    EXPECT_TRUE(HasError("write_fw_db_to_blackbox: Get db filepath fail"));

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
    EXPECT_EQ(Ring(), "index 0, filled 0, next none | [] none 0 | [] none 0 | [] none 0");
}

TEST_F(AndroidCrashMonitorTest, ToolCommandLineAndAnImageWithoutLogTable) {
    int status = -1;
    EXPECT_EQ(Tool("--help", &status).rfind("usage: tarnis-blackbox [--json] IMAGE\n", 0), 0u);
    EXPECT_EQ(status, 0);
    std::string out = Tool("--verbose " + partition_, &status);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(out.rfind("tarnis-blackbox: unknown option --verbose\nusage:", 0), 0u) << out;
    out = Tool(partition_ + " extract --out " + root_.path(), &status);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(out.rfind("tarnis-blackbox: extract needs --key and --out\n", 0), 0u) << out;
    EXPECT_EQ(Tool("", &status).rfind("tarnis-blackbox: no image given\n", 0), 0u);
    EXPECT_EQ(status, 2);

    const std::string head = "image: " + partition_ +
                             " (199229440 bytes, partition version 2)\nnot initialised: no log table header yet\n";
    EXPECT_EQ(Tool(partition_, &status), head + "boot monitor: no failure recorded\nOTA records: not initialised\n");
    EXPECT_EQ(status, 0);
    out = Tool("--json " + partition_, &status);
    EXPECT_NE(out.find("\"initialised\" : false,"), std::string::npos) << out;
    EXPECT_EQ(out.find("\"firmware_databases\""), std::string::npos) << out;

    // The boot monitor may record a failure before any crash lays down the log table: shown all the same.
    bb::BootMonitorHeader boot{};
    boot.identifier = bb::kBootFailIdentifier;
    boot.bootIndex = 3;
    boot.currentError = 901005303;
    WriteRecordAt(partition_, bb::kBootMonitorHeaderOffset, boot);
    EXPECT_EQ(Tool(partition_, &status),
              head + "boot monitor: failure 901005303 in boot 3, not reported\nOTA records: not initialised\n");
    EXPECT_EQ(status, 0);

    bb::OtaRecordZone zone{};
    zone.magic = bb::kOtaMagic;
    zone.versionCode = 8192;
    zone.nextIndex = 1;
    zone.updateCount = 1;
    memset(zone.tgtSlot[0], 'b', sizeof(zone.tgtSlot[0]));
    WriteRecordAt(partition_, bb::kOtaZoneOffset, zone);
    ExpectRefused("OTA record 0: a text field is not terminated");
}

TEST_F(AndroidCrashMonitorTest, ToolRefusesDamagedImagesWithTheirReason) {
    AndroidCrashMonitorThread worker;
    Handle(worker, "db.fatal.00.NE", RandomBytes(100, 1));
    WriteRecordAt(partition_, bb::kCrashHistoryDefaultBase, bb::CrashHistoryHeader{});
    int status = -1;
    const std::string out = Tool(partition_, &status);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("crash history: not initialised\n"), std::string::npos) << out;

    const bb::FwMinidumpHeader good = Fw();
    bb::FwMinidumpHeader fw = good;
    fw.position[1] = bb::kFwAreaEnd - 200;
    fw.size[1] = 16;
    PutFw(fw);
    ExpectRefused("firmware-database slot 1: container at 0x97ffb38 of 16 bytes lies outside the area "
                  "0x5c00c00..0x97ffc00");

    fw = good;
    memset(fw.name[0], 'x', sizeof(fw.name[0]));
    PutFw(fw);
    ExpectRefused("firmware-database slot 0: the database name is not terminated");
    PutFw(good);
    WriteBytes(partition_, bb::kFwAreaStart + 3, "x", 1);
    ExpectRefused("firmware-database slot 0: container at 0x5c00c00: size field 0 is not a decimal number");
    WriteBytes(partition_, bb::kFwAreaStart, "90\0\0", 4);
    ExpectRefused("firmware-database slot 0: container at 0x5c00c00: plain size 90 does not round up to 112");
    WriteBytes(partition_, bb::kFwAreaStart, "100\0", 4);

    const auto table = ReadRecordAt<bb::LogTableHeader>(partition_, bb::kLogTableHeaderOffset);
    bb::LogTableHeader bad = table;
    bad.crashHistoryBase4k = 0xBF00000;
    WriteRecordAt(partition_, bb::kLogTableHeaderOffset, bad);
    ExpectRefused("image is truncated: the crash history at 0xbf01000 ends beyond its 199229440 bytes");
    bad.magic = 0x1234;
    WriteRecordAt(partition_, bb::kLogTableHeaderOffset, bad);
    ExpectRefused("log table header: wrong magic 0x1234");
    WriteRecordAt(partition_, bb::kLogTableHeaderOffset, table);

    ASSERT_EQ(truncate(partition_.c_str(), bb::kFwAreaStart + 100), 0);
    ExpectRefused("image is truncated: firmware-database slot 0 ends beyond its 96472164 bytes");
    ASSERT_EQ(truncate(partition_.c_str(), 0x420), 0);
    ExpectRefused("image is truncated: the log table header at 0x400 does not fit in its 1056 bytes");
}

TEST_F(AndroidCrashMonitorTest, ToolExtractionNeverFollowsALinkAndRefusesNamesThatAreNotFileNames) {
    const std::string plain = RandomBytes(5000, 2);
    AndroidCrashMonitorThread worker;
    Handle(worker, "db.fatal.00.JE", plain);
    const std::string out = root_.Sub("out");
    ASSERT_EQ(mkdir(out.c_str(), 0700), 0);
    const std::string outside = root_.Sub("outside");
    tarnis_test::WriteFile(outside, "keep");
    ASSERT_EQ(symlink(outside.c_str(), (out + "/db.fatal.00.JE").c_str()), 0);
    int status = -1;
    EXPECT_EQ(Extract(out, &status), "slot 0: db.fatal.00.JE -> " + out + "/db.fatal.00.JE (5000 bytes)\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFile(out + "/db.fatal.00.JE"), plain);
    EXPECT_EQ(ReadFile(outside), "keep");

    // An output directory that is a link is refused, as is a slot name with a path in it.
    ASSERT_EQ(symlink(out.c_str(), root_.Sub("linked").c_str()), 0);
    std::string text = Extract(root_.Sub("linked"), &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(text.rfind("tarnis-blackbox: cannot open the output directory " + root_.Sub("linked"), 0), 0u) << text;
    const bb::FwMinidumpHeader good = Fw();
    bb::FwMinidumpHeader fw = good;
    strcpy(fw.name[0], "../escape");
    PutFw(fw);
    text = Tool("--json " + partition_ + " extract --key " + kTestKey + " --out " + out, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(text.find("slot 0 (../escape): the slot's name is not a plain file name\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\"ok\" : false"), std::string::npos) << text;
    EXPECT_NE(access(root_.Sub("escape").c_str(), F_OK), 0);

    RunShell("openssl genrsa -out " + root_.Sub("other.pem") + " 2048 2>/dev/null");
    PutFw(good);
    text = Extract(out, &status, root_.Sub("other.pem"));
    EXPECT_EQ(status, 1);
    EXPECT_NE(text.find("slot 0 (db.fatal.00.JE): the key does not unwrap with this private key\n"), std::string::npos)
            << text;
}

// A in slot 0 at the area start, B in slot 1 a mebibyte further, no room at the end: C goes over A, not B.
class AndroidCrashMonitorFaultTest : public AndroidCrashMonitorTest {
protected:
    void SetUp() override {
        AndroidCrashMonitorTest::SetUp();
        Handle(worker_, "db.fatal.0A.NE", RandomBytes(100, 6));
        auto fw = Fw();
        fw.nextPosition = bb::kFwAreaStart + (1 << 20);
        PutFw(fw);
        b_ = RandomBytes(200, 7);
        Handle(worker_, "db.fatal.0B.NE", b_);
        fw = Fw();
        fw.nextPosition = bb::kFwAreaEnd - 100;
        PutFw(fw);
        c_ = RandomBytes(1000, 8);
        cPath_ = MakeDb("db.fatal.0C.NE", c_);
        struct stat st;
        ASSERT_EQ(stat(partition_.c_str(), &st), 0);
        partitionIno_ = st.st_ino;
        log_.Clear();
    }

    // Writes to the partition's container area go through `partition`; the others as usual.
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
    for (const bool keyFails : {false, true}) {
        // The random source fails, or the disk fills while the wrapped key goes into the staged container.
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
        // The restart took A's slot 0; the failure empties it (its name stays) and rewinds the ring.
        EXPECT_EQ(Ring(), "index 0, filled 1, next +0 | [db.fatal.0C.NE] none 0 | [db.fatal.0B.NE] +1048576 208 | "
                          "[] none 0");
        EXPECT_EQ(ReadFile(cPath_), c_);
        EXPECT_EQ(RunShell("ls -A '" + Device("/data/aee_exp/db.fatal.0C.NE") + "'"), "db.fatal.0C.NE.dbg\n");
    }
    EXPECT_TRUE(HasError("write encrypted data failed 28(No space left on device)\n"));

    // A failure before any slot is chosen rewinds to 0; the next write goes where the ring goes on, not there.
    AndroidCrashMonitorThread::SetWriteHookForTesting(nullptr);
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.0D.NE");  // no such database
    bool encrypt = false;
    worker_.HandleFatalDb(&encrypt);
    EXPECT_EQ(Fw().nextPosition, 0u);
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.0C.NE");
    worker_.HandleFatalDb(&encrypt);
    EXPECT_EQ(Ring(), "index 1, filled 2, next +1296 | [db.fatal.0C.NE] +0 1008 | [db.fatal.0B.NE] +1048576 208 | "
                      "[] none 0");
    const std::string extracted = ExtractAll();
    EXPECT_EQ(ReadFile(extracted + "db.fatal.0C.NE"), c_);
    EXPECT_EQ(ReadFile(extracted + "db.fatal.0B.NE"), b_);
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
        alarm(30);
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

    bool encrypt = false;
    worker_.HandleFatalDb(&encrypt);
    EXPECT_TRUE(log_.Contains("removed " + Device("/data/aee_exp/db.fatal.0C.NE/.tarnis-tmp.db.fatal.0C.NE.dbg.enc."),
                              "Tarnis-FileUtil"));  // the orphan
    const std::string extracted = ExtractAll();
    EXPECT_EQ(ReadFile(extracted + "db.fatal.0C.NE"), c_);
    EXPECT_EQ(ReadFile(extracted + "db.fatal.0B.NE"), b_);
}

}  // namespace
