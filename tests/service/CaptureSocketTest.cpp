// The capture socket of a host run: tarnisd makes it, tarnisctl asks on it.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/service/DaemonProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

using tarnis_test::Ctl;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::StartDaemon;
using tarnis_test::StopDaemon;
using tarnis_test::WaitServing;
using tarnis_test::TempDir;
using tarnis_test::WaitFor;
using tarnis_test::WriteFile;

TEST(CaptureSocketTest, DaemonBindsTheSocketAndTarnisctlGetsTheArchive) {
    TempDir root;
    RunShell("mkdir -p " + root.Sub("dev/socket") + " " + root.Sub("cache") + " " + root.Sub("bin"));
    // A socket file left by a daemon that died is replaced.
    {
        int stale = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        const std::string path = root.Sub("dev/socket/dorvad");
        ASSERT_LT(path.size(), sizeof(address.sun_path));
        memcpy(address.sun_path, path.c_str(), path.size());
        ASSERT_EQ(bind(stale, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)), 0);
        close(stale);
    }
    // The capture's logcat: enough text for an archive that is kept.
    ASSERT_TRUE(WriteFile(root.Sub("bin/logcat"), "#!/bin/sh\nhead -c 6000 /dev/urandom | base64\n"));
    ASSERT_EQ(chmod(root.Sub("bin/logcat").c_str(), 0755), 0);

    pid_t daemon = StartDaemon(root, "/dev/null", root.Sub("err"));
    ASSERT_TRUE(WaitServing(root));
    struct stat st;
    ASSERT_EQ(lstat(root.Sub("dev/socket/dorvad").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);

    int status = -1;
    const std::string archive = RunShell(Ctl(root) + " capture-request BootFailure --timeout 60", &status);
    EXPECT_EQ(status, 0);
    const std::string prefix = root.Sub("cache/dorva/BootFailure/BootFailure_");
    EXPECT_EQ(archive.substr(0, prefix.size()), prefix) << archive;
    ASSERT_GT(archive.size(), 5u);
    EXPECT_EQ(RunShell("unzip -tq '" + archive.substr(0, archive.size() - 1) + "' >/dev/null && echo ok"), "ok\n");

    // A name that would leave the base is answered, and nothing is made.
    const std::string refused = RunShell(Ctl(root) + " capture-request ../x 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(refused.find("finished but left no archive"), std::string::npos) << refused;
    EXPECT_NE(access(root.Sub("cache/x").c_str(), F_OK), 0);
    StopDaemon(daemon);
    EXPECT_NE(ReadFile(root.Sub("err")).find("CaptureServerThread: refusing dump request ../x: not a plain name"),
              std::string::npos);
}

TEST(CaptureSocketTest, AFileThatIsNotASocketIsLeftAlone) {
    TempDir root;
    RunShell("mkdir -p " + root.Sub("dev/socket"));
    ASSERT_TRUE(WriteFile(root.Sub("dev/socket/dorvad"), "precious"));
    pid_t daemon = StartDaemon(root, "/dev/null", root.Sub("err"));
    ASSERT_TRUE(WaitServing(root));
    // The capture server starts on its own thread, after the service answers.
    EXPECT_TRUE(WaitFor([&] {
        return ReadFile(root.Sub("err")).find("Failed to get socket from environment") != std::string::npos;
    }));
    StopDaemon(daemon);
    EXPECT_EQ(ReadFile(root.Sub("dev/socket/dorvad")), "precious");
    const std::string log = ReadFile(root.Sub("err"));
    EXPECT_NE(log.find("tarnisd: no capture socket: " + root.Sub("dev/socket/dorvad") +
                       " exists and is not a socket: File exists"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("Failed to get socket from environment: No such file or directory"), std::string::npos) << log;
    EXPECT_EQ(RunShell("ls -A " + root.Sub("dev/socket")), "dorvad\n");  // no temporary left behind
}
