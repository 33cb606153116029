// The daemon and its tool as real processes, driven as a user would from a shell.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <binder/IServiceManager.h>
#include <host/Host.h>
#include <host/Utf8.h>

#include "platform/binder/CallerPolicy.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"
#include "service/DorvaNativeDaemon.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/FwDaemon.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using tarnis_test::Holds;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WaitFor;
using tarnis_test::WriteFile;

namespace {

const std::string kSsiName = std::string(TarnisSsiImpl::descriptor) + "/default";

// tarnisd serving a root laid out as a device by the sandbox script, with a
// stale capture socket and a logcat that prints enough for a kept archive.
class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(system(("TARNIS_BUILD_DIR=" + std::string(TARNIS_BUILD_DIR) + " " + TARNIS_SOURCE_DIR +
                          "/scripts/prepare-sandbox.sh " + root.path() + " >/dev/null")
                             .c_str()),
                  0);
        // A socket file as a daemon that died leaves it.
        ASSERT_TRUE(android::WireIo::Bind(root.Sub("dev/socket/dorvad")).ok());
        ASSERT_TRUE(WriteFile(root.Sub("bin/logcat"), "#!/bin/sh\nhead -c 6000 /dev/urandom | base64\n"));
        ASSERT_EQ(chmod(root.Sub("bin/logcat").c_str(), 0755), 0);
        ASSERT_TRUE(daemon.Start());
    }

    TempDir root;
    tarnis_test::Daemon daemon{root};
};

}  // namespace

TEST_F(DaemonTest, ServesEveryModuleSurvivesHostileCallersRunsOncePerRootAndStopsCleanly) {
    // Every module of the daemon is listed, and each one runs once the load,
    // which the service does not wait for, is through.
    std::string modules;
    ASSERT_TRUE(WaitFor([&] {
        modules = daemon.Run("dump ModuleManager dump");
        return modules.find("Stopped") == std::string::npos;
    })) << modules;
    const std::string header = "Current Modules:\n-------------------------\nName \t\t Status\n";
    ASSERT_EQ(modules.compare(0, header.size(), header), 0) << modules;
    // Header and ten modules, none of them "Stopped".
    EXPECT_EQ(std::count(modules.begin(), modules.end(), '\n'), 3 + 10) << modules;
    EXPECT_EQ(daemon.Out(), "TarnisSsiImpl impl ready!\n");

    // A document nested past any parser's patience: the tool warns and sends
    // it; the daemon refuses it with a line and goes on.
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    int status = -1;
    const std::string warned = daemon.Run("intent A '" + deep + "'", &status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Holds(warned, "tarnisctl: warning: the intent's JSON is not valid JSON ("));
    EXPECT_TRUE(Holds(warned, "); sending it anyway"));
    // The list of a report must parse: a clear usage error, no abort.
    EXPECT_TRUE(Holds(daemon.Run("event reportEventsV2 a '" + deep + "' c false", &status),
                      "tarnisctl: event reportEventsV2: JSON_LIST "));
    EXPECT_EQ(status, 2);
    EXPECT_EQ(daemon.Run("dump ModuleManager dump").substr(0, 16), "Current Modules:");

    // A second daemon on the same root says so in one line and exits, without
    // aborting (the start-up log lines of its static threads aside).
    EXPECT_EQ(RunShell("TARNIS_LOG_LEVEL=W " + daemon.Command() + " 2>&1 >/dev/null; echo \"exit $?\""),
              "tarnisd: another tarnisd (pid " + std::to_string(daemon.pid()) + ") is already running on root " +
                  root.path() + "\nexit 1\n");

    // SIGTERM: sockets withdrawn, lock given up, exit status 0.
    status = daemon.Stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(RunShell("ls -A " + root.Sub("dev/binder")), "");
    EXPECT_NE(access(root.Sub("dev/.tarnisd.lock").c_str(), F_OK), 0);
    const std::string log = daemon.Log();
    EXPECT_TRUE(Holds(log, "E Tarnis-JsonUtil: "));
    EXPECT_TRUE(Holds(log, "I tarnisd : tarnisd: SIGTERM received; withdrawing the services and exiting"));
    // A fresh daemon takes the root over.
    EXPECT_TRUE(daemon.Start());
}

// Captures ordered from a shell, through the binder service and through the
// capture socket, end as zip archives; refused requests fail the tool.
TEST_F(DaemonTest, CapturesOrderedFromAShellEndAsZips) {
    // The caller policy the sandbox starts with is the daemon's built-in one, for the user to edit.
    EXPECT_EQ(ReadFile(root.Sub("system/etc/tarnis/caller_policy.conf")), android::CallerPolicy::kDefaultRules);
    int status = -1;
    const std::string archive =
        daemon.Run("capture demo 'a/b:c' --action getprop --param ro.product.device", &status);
    ASSERT_EQ(status, 0) << archive;
    // The text went into the archive and is gone from the directory.
    const std::string dir = root.Sub("data/dorva/demo/online/");
    ASSERT_EQ(archive.compare(0, dir.size(), dir), 0) << archive;
    const std::string zip = archive.substr(0, archive.size() - 1);
    ASSERT_EQ(zip.compare(zip.size() - 4, 4, ".zip"), 0) << archive;
    EXPECT_EQ(RunShell("ls " + dir), zip.substr(dir.size()) + "\n");
    const std::string name = zip.substr(dir.size(), zip.size() - dir.size() - 4);
    EXPECT_EQ(name.compare(0, 20, "null_demo_aXbXc_host"), 0) << name;
    EXPECT_EQ(RunShell("unzip -Z1 " + zip), name + "\n");
    // The tools run are the sandbox's, found on the PATH the daemon set up.
    EXPECT_TRUE(Holds(RunShell("unzip -p " + zip), "s ------\nhost\n[getprop: "));
    daemon.Run("capture ../x h --action getprop", &status);
    EXPECT_EQ(status, 1);

    // The stale socket file was replaced by one anybody may connect to.
    struct stat st;
    ASSERT_EQ(lstat(root.Sub("dev/socket/dorvad").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    const std::string kept = daemon.Run("capture-request BootFailure --timeout 60", &status);
    EXPECT_EQ(status, 0);
    // This sandbox is an A/B device: the archive is kept on the rescue partition.
    const std::string prefix = root.Sub("mnt/rescue/dorva/BootFailure/BootFailure_");
    ASSERT_EQ(kept.compare(0, prefix.size(), prefix), 0) << kept;
    EXPECT_EQ(RunShell("unzip -tq '" + kept.substr(0, kept.size() - 1) + "' >/dev/null && echo ok"), "ok\n");
    // A name that would leave the base is answered; the tool says nothing came of it.
    EXPECT_TRUE(Holds(daemon.Run("capture-request ../x", &status), "finished but left no archive"));
    EXPECT_EQ(status, 1);
}

// A root of its own, bare, for faults of the start and of the tool.
class DaemonAlone : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(root.path()); }
    void TearDown() override { platform::SetRoot("/"); }

    TempDir root;
    tarnis_test::Daemon daemon{root};
};

TEST_F(DaemonAlone, AFileThatIsNotASocketIsLeftAlone) {
    RunShell("mkdir -p " + root.Sub("dev/socket"));
    ASSERT_TRUE(WriteFile(root.Sub("dev/socket/dorvad"), "precious"));
    ASSERT_TRUE(daemon.Start());
    // The capture server starts on its own thread, after the service answers.
    ASSERT_TRUE(WaitFor([&] { return Holds(daemon.Log(), "Failed to get socket from environment"); }));
    daemon.Stop();
    EXPECT_EQ(ReadFile(root.Sub("dev/socket/dorvad")), "precious");
    EXPECT_TRUE(Holds(daemon.Log(), "tarnisd: no capture socket: " + root.Sub("dev/socket/dorvad") +
                                        " exists and is not a socket: File exists"));
    EXPECT_EQ(RunShell("ls -A " + root.Sub("dev/socket")), "dorvad\n");  // no temporary left behind
}

// A service manager that refuses the registration is fatal: the success line
// is logged first, then the check aborts, and nothing after it happens.
TEST_F(DaemonAlone, AbortsWhenItsServiceIsRefused) {
    // This process already serves the name on that root: the system service,
    // registered first, then the native daemon service, registered last.
    auto squatter = ndk::SharedRefBase::make<TarnisSsiImpl>();
    android::sp<android::DorvaNativeDaemon> dorva = new android::DorvaNativeDaemon();
    const std::string dorvaName = platform::ToUtf8(dorva->getInterfaceDescriptor());
    const struct {
        std::function<bool()> squat;
        std::string name, added, check, never;
    } cases[] = {
        {[&] { return AServiceManager_addService(squatter->asBinder().get(), kSsiName.c_str()) == STATUS_OK; },
         kSsiName, "Velmar Tarnis-System Service is added in ServiceManager...",
         "Check failed: status == STATUS_OK (status=", "Internal Service is added"},
        {[&] {
             return android::defaultServiceManager()->addService(dorva->getInterfaceDescriptor(), dorva) == android::OK;
         },
         dorvaName, "Velmar DorvaNativeDaemon common Impl System Service is added in ServiceManager...",
         "Check failed: err == android::OK (err=", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.squat());
        int status = -1;
        const std::string err = RunShell(daemon.Command() + " 2>&1 >/dev/null", &status);
        EXPECT_NE(status, 0);
        const size_t added = err.find(c.added);
        EXPECT_TRUE(Holds(err, c.check));
        EXPECT_LT(added, err.find(c.check)) << err;
        EXPECT_TRUE(c.never.empty() || err.find(c.never) == std::string::npos) << err;
        android::ServiceManager::instance().removeService(c.name);
    }
}

// The tool never waits for ever: a service that accepts and never answers
// costs it its --timeout, and the user reads why.
TEST_F(DaemonAlone, TheToolGivesUpOnASilentServiceWithASentence) {
    ASSERT_EQ(system(("mkdir -p " + root.Sub("dev/binder")).c_str()), 0);
    android::base::unique_fd silent = android::WireIo::Bind(android::ServiceManager::SocketPath(kSsiName));
    ASSERT_TRUE(silent.ok());
    ASSERT_EQ(listen(silent.get(), 8), 0);
    int status = -1;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon.Run("--timeout 0.5 dump ModuleManager dump", &status),
              "tarnisctl: no reply from service " + kSsiName + " within 500 ms\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(RunShell(daemon.Ctl() + " --timeout soon dump 2>&1 | head -1"),
              "tarnisctl: --timeout needs a number of seconds between 0 and 86400, not 'soon'\n");
    // With nobody there at all, it says that instead.
    silent.reset();
    unlink(android::ServiceManager::SocketPath(kSsiName).c_str());
    EXPECT_EQ(daemon.Run("dump", &status), "tarnisctl: service " + kSsiName + " is not running below root " +
                                             root.path() + " (is tarnisd running?)\n");
    EXPECT_EQ(status, 1);
}
