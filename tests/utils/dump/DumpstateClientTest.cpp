#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/dump/CaptureLogUtil.h"

using android::CaptureLogUtil;
using android::String16;
using tarnis_test::FakeDumpstate;
using tarnis_test::SandboxTest;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WriteFile;

namespace {

class DumpstateClientTest : public SandboxTest {
protected:
    // A full-report request from a capture that stays as text, so that the
    // report it receives is left for the test to see.
    std::vector<String16> RequestFullReport() {
        String16 type = platform::ToUtf16("hangTemp");
        String16 headline = platform::ToUtf16("report");
        std::vector<String16> actions{platform::ToUtf16("tarnbugreport")};
        std::vector<String16> params{platform::ToUtf16("full")};
        String16 where;
        std::vector<String16> files;
        CaptureLogUtil::dump_all(type, headline, actions, params, false, -1, false, where, files, false);
        return files;
    }
};

}  // namespace

// Below a root deeper than a socket address can spell, the reserved socket
// is still reached: through its directory, as the binder transport does.
TEST_F(DumpstateClientTest, ConnectsBelowARootDeeperThanASocketAddressAllows) {
    const std::string deep = root_.Sub(std::string(60, 'd') + "/" + std::string(60, 'e'));
    RunShell("mkdir -p '" + deep + "/cache/dorva' '" + deep + "/data/dorva'");
    platform::SetRoot(deep);
    ASSERT_GE(platform::ReservedSocketPath("dumpstate").size(), sizeof(sockaddr_un::sun_path));
    {
        FakeDumpstate server(true, [](const std::string&) { return std::string("pong"); });
        android::base::unique_fd fd(socket_local_client("dumpstate", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
        ASSERT_TRUE(fd.ok()) << strerror(errno);
        ASSERT_EQ(send(fd.get(), "ping", 4, MSG_NOSIGNAL), 4);
        char reply[8] = {};
        EXPECT_EQ(recv(fd.get(), reply, sizeof(reply) - 1, MSG_WAITALL), 4);
        EXPECT_STREQ(reply, "pong");
        EXPECT_EQ(server.Request(), "ping");
    }
    // With nobody listening the socket file is missing, not the name too long.
    EXPECT_EQ(socket_local_client("dumpstate", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(socket_local_client("../dumpstate", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM), -1);
    EXPECT_EQ(errno, EINVAL);

    // And the light boot-monitor dump that talks to it.
    platform::LogCapture log;
    {
        FakeDumpstate server(false, [](const std::string&) { return std::string(255, 's'); });
        CaptureLogUtil::dump_lite_bugreport("boot_3", "/data/dorva/lite.txt");
    }
    EXPECT_TRUE(log.HasLine("read response from dumpstate: " + std::string(255, 's'), "dorvad", ANDROID_LOG_DEBUG));
    EXPECT_EQ(ReadFile(deep + "/cache/dorva/bootmonitor_log.txt"), deep + "/data/dorva/lite.txt");
}

TEST_F(DumpstateClientTest, FullReportReplyIsAtMost511BytesAndMustNameAFile) {
    // A report whose device path is 511 bytes, and a reply that fills the
    // whole 512-byte buffer: the last byte is not part of the path.
    const std::string dir = "/data/dorva//hangTemp/online/" + std::string(200, 'r') + "/" + std::string(200, 's');
    const std::string report = dir + "/" + std::string(511 - dir.size() - 1, 'f');
    ASSERT_EQ(report.size(), 511u);
    RunShell("mkdir -p '" + Path(dir) + "'");
    WriteFile(Path(report), "report");
    {
        FakeDumpstate server(true, [&](const std::string&) { return report + "Z"; });
        const std::vector<String16> files = RequestFullReport();
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(platform::ToUtf8(files[0]), Path(report));
        EXPECT_EQ(server.Request(), Path("/data/dorva//hangTemp/online") + "|full");
    }
    // A reply that names no file leaves the capture without a report.
    platform::LogCapture log;
    {
        FakeDumpstate server(true, [](const std::string&) { return std::string("/data/dorva/none.zip"); });
        EXPECT_TRUE(RequestFullReport().empty());
    }
    EXPECT_TRUE(log.HasLine("recv response from dumpstate: /data/dorva/none.zip", "dorvad", ANDROID_LOG_INFO));
    EXPECT_TRUE(log.HasLine("file stat get failed: No such file or directory", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_EQ(android::base::GetProperty("ctl.stop", ""), "tarnBugreportState");
}
