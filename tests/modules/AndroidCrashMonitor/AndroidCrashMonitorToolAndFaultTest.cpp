#include "tests/support/CrashMonitorFixture.h"

namespace {

using namespace crash_monitor_test;

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
    EXPECT_TRUE(S_ISREG(tarnis_test::ModeOf(out + "/db.fatal.00.JE")));
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

    // The wrong private key unwraps nothing.
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

    // The next run writes C in full, and both survivors decrypt.
    bool encrypt = false;
    worker_.HandleFatalDb(&encrypt);
    EXPECT_TRUE(log_.Contains("removed " + Device("/data/aee_exp/db.fatal.0C.NE/.tarnis-tmp.db.fatal.0C.NE.dbg.enc."),
                              "Tarnis-FileUtil"));  // the orphan
    const std::string extracted = ExtractAll();
    EXPECT_EQ(ReadFile(extracted + "db.fatal.0C.NE"), c_);
    EXPECT_EQ(ReadFile(extracted + "db.fatal.0B.NE"), b_);
}

}  // namespace
