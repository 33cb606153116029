#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "modules/BootMonitor/BootFailReport.h"
#include "tests/modules/BootMonitor/BootMonitorFixture.h"
#include "utils/BlackBoxLayout.h"

namespace bootmonitor_test {
namespace {

namespace blackbox = velmar::kolto::blackbox;
using android::base::unique_fd;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TestClock;
using tarnis_test::WriteFile;
using velmar::tarnis::BootFailReport;

constexpr char kTag[] = "BootFailReport";
const std::string kEpoch = std::to_string(TestClock::kStartWallMs / 1000);

class BootFailReportTest : public BootMonitorTest {
protected:
    void SetUp() override {
        BootMonitorTest::SetUp();
        RunShell("mkdir -p '" + dir_ + "' '" + Device("/dev/block/by-name") + "'");
        partition_ = Device("/dev/block/by-name/blackbox");
        report_.Load();
    }

    // A sparse partition whose boot-monitor header records `code`, with the
    // first and last bytes of each log area marked, and a byte just past each.
    void Plant(int64_t code, uint64_t identifier = blackbox::kBootFailIdentifier) {
        RunShell("truncate -s 190M '" + partition_ + "'");
        unique_fd fd(open(partition_.c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_TRUE(fd.ok());
        blackbox::BootMonitorHeader header{};
        header.identifier = identifier;
        header.bootIndex = 7;
        header.currentError = code;
        ASSERT_EQ(pwrite(fd.get(), &header, sizeof(header), blackbox::kBootMonitorHeaderOffset),
                  static_cast<ssize_t>(sizeof(header)));
        const struct {
            uint64_t offset;
            size_t size;
        } areas[] = {{blackbox::kUefiLogOffset, blackbox::kUefiLogBytes},
                     {blackbox::kKmsgOffset, blackbox::kKmsgBytes},
                     {blackbox::kPmsgOffset, blackbox::kPmsgBytes}};
        for (const auto& area : areas) {
            ASSERT_EQ(pwrite(fd.get(), "HEAD", 4, area.offset), 4);
            ASSERT_EQ(pwrite(fd.get(), "TAIL", 4, area.offset + area.size - 4), 4);
            ASSERT_EQ(pwrite(fd.get(), "!", 1, area.offset + area.size), 1);
        }
    }
    uint8_t Marker() {
        blackbox::BootMonitorHeader header{};
        unique_fd fd(open(partition_.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(pread(fd.get(), &header, sizeof(header), blackbox::kBootMonitorHeaderOffset),
                  static_cast<ssize_t>(sizeof(header)));
        return header.reported;
    }
    // A whole log area copied out: its size, first and last marks.
    void ExpectArea(const std::string& name, size_t size) {
        const std::string content = ReadFile(dir_ + name);
        ASSERT_EQ(content.size(), size) << name;
        EXPECT_EQ(content.substr(0, 4), "HEAD");
        EXPECT_EQ(content.substr(size - 4), "TAIL");
        struct stat st {};
        ASSERT_EQ(lstat((dir_ + name).c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0664u);
    }

    std::string partition_;
    BootFailReport report_;
};

TEST_F(BootFailReportTest, NothingHappensWithoutARecordedFailure) {
    Plant(901005303, 0x1122334455667788ULL);
    report_.check_ablxbl_fail_report();
    EXPECT_TRUE(log_.HasLine("check  blackbox--bootfail partition boot fail report lumetra\n", kTag,
                             ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_.HasLine("No boot failed\n", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(List(dir_).empty());
    EXPECT_TRUE(JournalEvents().empty());
    EXPECT_EQ(Marker(), 0);

    Plant(901005100);
    report_.check_ablxbl_fail_report();
    EXPECT_TRUE(log_.HasLine("Not an abnormal error type", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(List(dir_).empty());
    EXPECT_EQ(Marker(), 0);

    // A partition that leads out of the root is not opened.
    const std::string outside = root_.Sub("../outside-blackbox");
    ASSERT_EQ(rename(partition_.c_str(), outside.c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), partition_.c_str()), 0);
    report_.check_ablxbl_fail_report();
    EXPECT_TRUE(log_.HasLine("open black_box_log partition fail, error: Too many levels of symbolic links", "",
                             ANDROID_LOG_ERROR));
    unlink(outside.c_str());
}

TEST_F(BootFailReportTest, BootStageFailureIsReportedOnce) {
    android::base::SetProperty("ro.product.device", "tarn");
    android::base::SetProperty("ro.build.version.incremental", "77");
    Plant(901005303);
    // A link planted where the kernel log goes is replaced, not followed.
    const std::string outside = root_.Sub("outside.txt");
    WriteFile(outside, "keep me");
    ASSERT_EQ(symlink(outside.c_str(), (dir_ + "kmsg.txt").c_str()), 0);
    report_.check_ablxbl_fail_report();

    ExpectArea("kmsg.txt", blackbox::kKmsgBytes);
    ExpectArea("pmsg.txt", blackbox::kPmsgBytes);
    EXPECT_EQ(ReadFile(outside), "keep me");
    EXPECT_TRUE(log_.HasLine("summary ZYGOTE_FAIL header->current_error 901005303", kTag, ANDROID_LOG_DEBUG));
    const std::vector<Json::Value> events = JournalEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["call"].asString(), "sendEvent");
    const Json::Value& args = events[0]["args"];
    ASSERT_EQ(args.size(), 2u);
    EXPECT_TRUE(args[0].isIntegral());
    EXPECT_EQ(args[0].asUInt(), 901005303u);
    EXPECT_EQ(args[1]["Digest"].asString(), RunShell("printf '%s' tarn77901005303 | sha1sum | cut -c1-40 | tr -d '\\n'"));
    EXPECT_TRUE(args[1]["BootIndex"].isInt());
    EXPECT_EQ(args[1]["BootIndex"].asInt(), 7);
    EXPECT_TRUE(args[1]["CurrentTime"].isIntegral());
    EXPECT_EQ(args[1]["CurrentTime"].asString(), kEpoch);
    EXPECT_EQ(args[1].size(), 3u);
    const std::string record = Device("/cache/dorva/bootmonitorTimeout.txt");
    EXPECT_EQ(ReadFile(record), "BootmonitorTimeout,77,901005303,ZYGOTE_FAIL,7," + kEpoch + "\n");
    EXPECT_EQ(Marker(), 1);

    // Checked again: the logs come out again, the report does not.
    unlink((dir_ + "kmsg.txt").c_str());
    log_.Clear();
    report_.check_ablxbl_fail_report();
    ExpectArea("kmsg.txt", blackbox::kKmsgBytes);
    EXPECT_TRUE(log_.HasLine("The record of this boot failure has been reported\n", kTag, ANDROID_LOG_DEBUG));
    EXPECT_EQ(JournalEvents().size(), 1u);
    EXPECT_EQ(ReadFile(record), "BootmonitorTimeout,77,901005303,ZYGOTE_FAIL,7," + kEpoch + "\n");
}

TEST_F(BootFailReportTest, UnnamedBootStageFailureIsOnlyMarked) {
    Plant(901005320);
    report_.check_ablxbl_fail_report();
    ExpectArea("kmsg.txt", blackbox::kKmsgBytes);
    ExpectArea("pmsg.txt", blackbox::kPmsgBytes);
    EXPECT_TRUE(log_.HasLine("No abnormal records need to be reported", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(JournalEvents().empty());
    EXPECT_FALSE(Exists(Device("/cache/dorva/bootmonitorTimeout.txt")));
    EXPECT_EQ(Marker(), 1);
}

TEST_F(BootFailReportTest, LoaderFailureBringsTheLoaderLog) {
    Plant(901005210);
    report_.check_ablxbl_fail_report();
    ExpectArea("uefi.txt", blackbox::kUefiLogBytes);
    EXPECT_EQ(List(dir_), std::vector<std::string>{"uefi.txt"});
    const std::vector<Json::Value> events = JournalEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["args"][0].asUInt(), 901005210u);
    EXPECT_EQ(ReadFile(Device("/cache/dorva/bootmonitorTimeout.txt")),
              "BootmonitorTimeout,unknown,901005210,XBL_BOOTFAIL_GET_FVB,7," + kEpoch + "\n");
    EXPECT_EQ(Marker(), 1);
}

// The listener's loop fed through one end of a datagram pair.
class NetlinkListenerTest : public BootFailReportTest {
protected:
    void SetUp() override {
        BootFailReportTest::SetUp();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
        listener_ = pair[0];
        kernel_.reset(pair[1]);
        struct timeval timeout = {0, 50 * 1000};
        setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    }
    void Send(const std::string& text, uint32_t length = BootFailReport::kMessageBytes, size_t bytes = 0) {
        std::vector<char> message(bytes != 0 ? bytes : BootFailReport::kMessageBytes, 0);
        memcpy(message.data(), &length, sizeof(length));
        memcpy(message.data() + 16, text.data(), std::min(text.size(), message.size() - 16));
        ASSERT_EQ(send(kernel_.get(), message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
    }

    int listener_ = -1;
    unique_fd kernel_;
};

TEST_F(NetlinkListenerTest, BootTimeoutsInRangeAreCapturedAndChecked) {
    Plant(901005303, 0);
    FakeLiteDump dump(LiteRecord(), 0);
    Send("boot-timeout[901005349], time[2]");
    Send("boot-timeout[901005350], time[2]");
    Send("boot-timeout:901005301");
    Send("hello kernel", 16 + 12, 16 + 12);
    Send("boot-timeout[901005301], time[1]", 16);
    Send("boot-timeout[901005302], time[1]", 1041, 1041);
    ASSERT_EQ(send(kernel_.get(), "", 0, 0), 0);
    EXPECT_EQ(report_.ReceiveLoop(listener_), 0);

    EXPECT_TRUE(log_.HasLine("NetlinkInit--550: recv_msg: boot-timeout[901005349], time[2]", kTag,
                             ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("recv boot message timeout_event = 901005349, boot_index = 2", kTag,
                             ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("recv boot message timeout_event = 901005350, boot_index = 2", kTag,
                             ANDROID_LOG_INFO));
    // Only the event in range was acted on.
    EXPECT_EQ(Captures(), std::vector<std::string>{"bm_tarnboot_timeout_901005349_unknown_unknown_" + kEpoch +
                                                   ".zip"});
    EXPECT_EQ(log_.Count("checkBlackBoxBootFail", kTag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(log_.Count("No boot failed\n", kTag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_TRUE(log_.HasLine("Failed to parse boot message: boot-timeout:901005301", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("NetlinkInit--550: recv_msg: hello kernel", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("recv message is not boot message", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("msg_len is invalid: 0", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("msg_len is invalid: 1025", kTag, ANDROID_LOG_ERROR));
    EXPECT_EQ(log_.Count("recv boot message timeout_event = ", kTag, ANDROID_LOG_INFO), 2u);
    EXPECT_TRUE(log_.HasLine("recv boot message", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("Connection closed", kTag, ANDROID_LOG_INFO));
}

TEST_F(NetlinkListenerTest, StopEndsAnIdleListenerAndTheHostHasNoWatchdog) {
    std::thread loop([this] { EXPECT_EQ(report_.ReceiveLoop(listener_), 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    report_.Stop();
    loop.join();
    EXPECT_FALSE(log_.Contains("Connection closed"));
    EXPECT_FALSE(log_.Contains("recvfrom error"));

    const int probe = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 23);
    if (probe >= 0) {
        close(probe);
        GTEST_SKIP() << "this kernel speaks the boot-watchdog protocol";
    }
    const std::string why = strerror(errno);
    BootFailReport fresh;
    EXPECT_EQ(fresh.NetlinkInit(), -1);
    EXPECT_TRUE(log_.HasLine("create netlink socket error: " + why, kTag, ANDROID_LOG_ERROR));
}

}  // namespace
}  // namespace bootmonitor_test
