// The daemon and its tool as real processes, driven as a user would from a shell.
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

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
#include "tests/service/DaemonProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using tarnis_test::Ctl;
using tarnis_test::DaemonCommand;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::StartDaemon;
using tarnis_test::StopDaemon;
using tarnis_test::WaitServing;
using tarnis_test::TempDir;
using tarnis_test::WaitFor;

namespace {

const std::string kSsiName = std::string(TarnisSsiImpl::descriptor) + "/default";

// Runs `command` with its output on a pipe nobody reads any more: closed
// before the command starts, so every write to it fails, however fast.
int RunIntoClosedPipe(const std::string& command) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    close(fds[0]);
    pid_t child = fork();
    if (child == 0) {
        dup2(fds[1], STDOUT_FILENO);
        freopen("/dev/null", "w", stderr);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return status;
}

bool Alive(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == 0;
}

}  // namespace

TEST(DaemonTest, SurvivesHostileCallersRunsOncePerRootAndStopsCleanly) {
    TempDir root;
    int err = -1;
    // The storage tracker loads only on devices that switch it on.
    RunShell(Ctl(root) + " setprop persist.sys.stability.f2fsTrackEnable true");
    pid_t daemon = StartDaemon(root, root.Sub("out1"), root.Sub("err1"));
    ASSERT_GE(daemon, 0);
    ASSERT_TRUE(WaitServing(root));
    const std::string ctl = Ctl(root);
    int status = -1;
    // Every module of the daemon (ten) is listed, and each one runs once the
    // load, which the service does not wait for, is through.
    std::string modules;
    WaitFor([&] {
        modules = RunShell(ctl + " dump ModuleManager dump", &status);
        return modules.find("Stopped") == std::string::npos;
    });
    const std::string header = "Current Modules:\n-------------------------\nName \t\t Status\n";
    ASSERT_EQ(modules.substr(0, header.size()), header);
    int listed = 0;
    for (size_t line = header.size(); line < modules.size(); ++listed) {
        const size_t end = modules.find('\n', line);
        ASSERT_NE(end, std::string::npos);
        EXPECT_EQ(modules.substr(end - 9, 9), "\t\tRunning") << modules;
        line = end + 1;
    }
    EXPECT_EQ(listed, 10) << modules;
    EXPECT_EQ(ReadFile(root.Sub("out1")), "TarnisSsiImpl impl ready!\n");

    // A reader that goes away costs the daemon one error line, not its life.
    RunIntoClosedPipe(ctl + " dump ModuleManager dump");
    ASSERT_TRUE(Alive(daemon));
    // A document nested past any parser's patience: the tool warns and sends
    // it; the daemon refuses it with a line and goes on.
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    std::string warned = RunShell(ctl + " intent A '" + deep + "' 2>&1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(warned.find("tarnisctl: warning: the intent's JSON is not valid JSON ("), std::string::npos) << warned;
    EXPECT_NE(warned.find("); sending it anyway"), std::string::npos) << warned;
    // The list of a report must parse: a clear usage error, no abort.
    std::string refused = RunShell(ctl + " event reportEventsV2 a '" + deep + "' c false 2>&1", &status);
    EXPECT_EQ(status, 2);
    EXPECT_NE(refused.find("tarnisctl: event reportEventsV2: JSON_LIST "), std::string::npos) << refused;
    ASSERT_TRUE(Alive(daemon));
    EXPECT_EQ(RunShell(ctl + " dump ModuleManager dump", &status).substr(0, 16), "Current Modules:");

    // A second daemon on the same root says so in one line and exits, without
    // aborting (the start-up log lines of its static threads aside).
    std::string second = RunShell("TARNIS_LOG_LEVEL=W " + DaemonCommand(root) + " 2>&1 >/dev/null; echo \"exit $?\"", &err);
    EXPECT_EQ(second, "tarnisd: another tarnisd (pid " + std::to_string(daemon) + ") is already running on root " +
                          root.path() + "\nexit 1\n");

    // SIGTERM: sockets withdrawn, lock given up, exit status 0.
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(RunShell("ls -A " + root.Sub("dev/binder")), "");
    EXPECT_NE(access(root.Sub("dev/.tarnisd.lock").c_str(), F_OK), 0);
    const std::string log = ReadFile(root.Sub("err1"));
    EXPECT_NE(log.find(" E tarnisd : binder: dump of velmar.system.tarnis.common.ITarnisSsi for pid "),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(": the reader went away after 0 of " + std::to_string(modules.size()) + " bytes (Broken pipe)"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("E Tarnis-JsonUtil: "), std::string::npos) << log;
    EXPECT_NE(log.find("I tarnisd : tarnisd: SIGTERM received; withdrawing the services and exiting"),
              std::string::npos)
        << log;
    // A fresh daemon takes the root over.
    pid_t next = StartDaemon(root);
    EXPECT_TRUE(WaitServing(root));
    StopDaemon(next);
}

// A service manager that refuses the registration is fatal: the success line
// is logged first, then the check aborts, and nothing after it happens.
TEST(DaemonTest, AbortsWhenItsServiceIsRefused) {
    TempDir root;
    platform::SetRoot(root.path());
    // This process already serves the name on that root.
    auto squatter = ndk::SharedRefBase::make<TarnisSsiImpl>();
    ASSERT_EQ(AServiceManager_addService(squatter->asBinder().get(), kSsiName.c_str()), STATUS_OK);
    int status = -1;
    std::string err = RunShell(DaemonCommand(root) + " 2>&1 >/dev/null", &status);
    EXPECT_NE(status, 0);
    size_t added = err.find("Velmar Tarnis-System Service is added in ServiceManager...");
    size_t check = err.find("Check failed: status == STATUS_OK (status=");
    EXPECT_NE(added, std::string::npos) << err;
    EXPECT_NE(check, std::string::npos) << err;
    EXPECT_LT(added, check);
    EXPECT_EQ(err.find("Internal Service is added"), std::string::npos);
    android::ServiceManager::instance().removeService(kSsiName);

    // The same for the native daemon service, registered last.
    android::sp<android::DorvaNativeDaemon> dorva = new android::DorvaNativeDaemon();
    ASSERT_EQ(android::defaultServiceManager()->addService(dorva->getInterfaceDescriptor(), dorva), android::OK);
    err = RunShell(DaemonCommand(root) + " 2>&1 >/dev/null", &status);
    EXPECT_NE(status, 0);
    added = err.find("Velmar DorvaNativeDaemon common Impl System Service is added in ServiceManager...");
    check = err.find("Check failed: err == android::OK (err=");
    EXPECT_NE(added, std::string::npos) << err;
    EXPECT_NE(check, std::string::npos) << err;
    EXPECT_LT(added, check);
    android::ServiceManager::instance().removeService(platform::ToUtf8(nuvi::dorva::IDorvaNative::descriptor));
    platform::SetRoot("/");
}

// The tool never waits for ever: a service that accepts and never answers
// costs it its --timeout, and the user reads why.
TEST(DaemonTest, TheToolGivesUpOnASilentServiceWithASentence) {
    TempDir root;
    platform::SetRoot(root.path());
    ASSERT_EQ(system(("mkdir -p " + root.Sub("dev/binder")).c_str()), 0);
    android::base::unique_fd silent = android::WireIo::Bind(android::ServiceManager::SocketPath(kSsiName));
    ASSERT_TRUE(silent.ok());
    ASSERT_EQ(listen(silent.get(), 8), 0);
    int status = -1;
    auto start = std::chrono::steady_clock::now();
    std::string err = RunShell(Ctl(root) + " --timeout 0.5 dump ModuleManager dump 2>&1", &status);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "tarnisctl: no reply from service " + kSsiName + " within 500 ms\n");
    err = RunShell(Ctl(root) + " --timeout soon dump 2>&1 | head -1", &status);
    EXPECT_EQ(err, "tarnisctl: --timeout needs a number of seconds between 0 and 86400, not 'soon'\n");
    // With nobody there at all, it says that instead.
    silent.reset();
    unlink(android::ServiceManager::SocketPath(kSsiName).c_str());
    err = RunShell(Ctl(root) + " dump 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "tarnisctl: service " + kSsiName + " is not running below root " + root.path() +
                       " (is tarnisd running?)\n");
    platform::SetRoot("/");
}

// A capture ordered from a shell: the daemon runs the tools, packs the text
// into a zip beside it and removes the text; refused requests leave nothing.
TEST(DaemonTest, ACaptureOrderedFromAShellEndsAsAZip) {
    TempDir root;
    const std::string prepare = std::string(TARNIS_SOURCE_DIR) + "/scripts/prepare-sandbox.sh " + root.path();
    ASSERT_EQ(system(("TARNIS_BUILD_DIR=" + std::string(TARNIS_BUILD_DIR) + " " + prepare + " >/dev/null").c_str()),
              0);
    // The caller policy the sandbox starts with is the daemon's built-in one, for the user to edit.
    EXPECT_EQ(ReadFile(root.Sub("system/etc/tarnis/caller_policy.conf")), android::CallerPolicy::kDefaultRules);
    pid_t daemon = StartDaemon(root, "/dev/null", root.Sub("err"));
    ASSERT_GE(daemon, 0);
    ASSERT_TRUE(WaitServing(root));
    int status = -1;
    const std::string archive =
        RunShell(Ctl(root) + " capture demo 'a/b:c' --action getprop --param ro.product.device 2>&1", &status);
    ASSERT_EQ(status, 0) << archive;
    const std::string dir = root.Sub("data/dorva/demo/online/");
    ASSERT_EQ(archive.compare(0, dir.size(), dir), 0) << archive;
    const std::string zip = archive.substr(0, archive.size() - 1);
    ASSERT_EQ(zip.compare(zip.size() - 4, 4, ".zip"), 0) << archive;
    // The text went into the archive and is gone from the directory.
    EXPECT_EQ(RunShell("ls " + dir), zip.substr(dir.size()) + "\n");
    const std::string name = zip.substr(dir.size(), zip.size() - dir.size() - 4);
    EXPECT_EQ(name.compare(0, 20, "null_demo_aXbXc_host"), 0) << name;
    EXPECT_EQ(RunShell("unzip -Z1 " + zip), name + "\n");
    const std::string text = RunShell("unzip -p " + zip);
    EXPECT_EQ(text.compare(0, 57, std::string(56, '=') + "\n"), 0) << text;
    EXPECT_NE(text.find("\n== headline: aXbXc\n== debuggable: 1\n== hwlevel: host\n"), std::string::npos) << text;
    EXPECT_NE(text.find("------ (getprop ro.product.device) in "), std::string::npos) << text;
    EXPECT_NE(text.find("s ------\nhost\n[getprop: "), std::string::npos) << text;

    // A type that is not a plain name is refused and nothing is made.
    const std::string refused = RunShell(Ctl(root) + " capture ../x h --action getprop 2>&1", &status);
    EXPECT_EQ(status, 1) << refused;
    EXPECT_NE(access(root.Sub("data/x").c_str(), F_OK), 0);
    EXPECT_NE(access(root.Sub("data/dorva/x").c_str(), F_OK), 0);

    StopDaemon(daemon);
    const std::string log = ReadFile(root.Sub("err"));
    EXPECT_NE(log.find(" I tarnisd : Velmar DorvaNativeDaemon common Impl System Service is added in ServiceManager..."),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(" E dorvad  : Refusing capture: type '../x' is not a plain directory name"), std::string::npos)
        << log;
}
