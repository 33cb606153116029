#include "tests/support/CrashMonitorFixture.h"

namespace {

using namespace crash_monitor_test;

// The partition as a fault finds it: A in slot 0 at the area start, B in
// slot 1 a mebibyte further, and no room at the end, so that the next
// database C goes to slot 0 over A's bytes but not over B's.
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
        EXPECT_EQ(Ring(), "index 0, filled 1, next +0 | [db.fatal.0C.NE] none 0 | [db.fatal.0B.NE] +1048576 208 | "
                          "[] none 0");
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
    EXPECT_EQ(Fw().nextPosition, 0u);
    SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/db.fatal.0C.NE");
    worker_.HandleFatalDb(&encrypt);
    EXPECT_EQ(Ring(), "index 1, filled 2, next +1296 | [db.fatal.0C.NE] +0 1008 | [db.fatal.0B.NE] +1048576 208 | "
                      "[] none 0");
    EXPECT_EQ(DecryptWithOpenssl(ReadBytes(partition_, bb::kFwAreaStart, 1008 + 288)), c_);
    EXPECT_EQ(DecryptWithOpenssl(ReadBytes(partition_, bb::kFwAreaStart + (1 << 20), 208 + 288)), b_);
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
    const std::string outDir = root_.Sub("out");
    ASSERT_EQ(mkdir(outDir.c_str(), 0700), 0);
    int toolStatus = -1;
    const std::string out = Extract(outDir, &toolStatus);
    EXPECT_EQ(toolStatus, 0) << out;
    EXPECT_EQ(ReadFile(outDir + "/db.fatal.0C.NE"), c_);
    EXPECT_EQ(ReadFile(outDir + "/db.fatal.0B.NE"), b_);
}


}  // namespace
