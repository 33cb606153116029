// tarnisd and its tool as processes: from a shell, by scripts and installed.
// GCC 12 warns falsely inside <regex> under the sanitizers' optimisation.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include <android-base/properties.h>
#include <binder/IServiceManager.h>
#include <host/Host.h>
#include <host/Utf8.h>

#include "platform/binder/CallerPolicy.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"
#include "service/DorvaNativeDaemon.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/DumpSandbox.h"
#include "tests/support/FwDaemon.h"
#include "tests/support/TempDir.h"

using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using android::DorvaNativeDaemon;
using tarnis_test::BuiltTool;
using tarnis_test::Holds;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WaitFor;
using tarnis_test::WriteFile;

namespace {

const std::string kSsiName = std::string(TarnisSsiImpl::descriptor) + "/default";
// Quotes, a backslash, a tab and another control character; the property also ends in a byte that is no UTF-8.
const std::string kText = "say \"hi\" \\ \tthen\x01 end";
const std::string kProperty = "tarnis.test.odd";
const std::string kPersist = "/mnt/vendor/persist/stability/odd";

// tarnisd on the sandbox script's root, with a stale socket, a persist file and a property of awkward text.
class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string prepare = std::string(TARNIS_SOURCE_DIR) + "/scripts/prepare-sandbox.sh " + root.path();
        ASSERT_EQ(system(("TARNIS_BUILD_DIR=" TARNIS_BUILD_DIR " " + prepare + " >/dev/null").c_str()), 0);
        platform::SetRoot(root.path());
        ASSERT_TRUE(android::base::SetProperty(kProperty, kText + "\xff"));
        ASSERT_TRUE(WriteFile(root.path() + kPersist, kText));
        // A socket file as a daemon that died leaves it.
        ASSERT_TRUE(android::WireIo::Bind(root.Sub("dev/socket/dorvad")).ok());
        ASSERT_TRUE(WriteFile(root.Sub("bin/logcat"), "#!/bin/sh\nhead -c 6000 /dev/urandom | base64\n"));
        ASSERT_EQ(chmod(root.Sub("bin/logcat").c_str(), 0755), 0);
        ASSERT_TRUE(daemon.Start());
        const auto loaded = [&] { return daemon.Run("dump ModuleManager dump").find("Stopped") == std::string::npos; };
        ASSERT_TRUE(WaitFor(loaded));  // the service answers before every module is loaded
    }
    void TearDown() override { platform::SetRoot("/"); }

    // tarnisctl with `args`: exit status, standard output, the first line of standard error.
    int Ctl(const std::string& args, std::string* out, std::string* err) {
        const std::string errFile = root.Sub("ctl.err");
        int status = -1;
        *out = RunShell(daemon.Ctl() + " " + args + " 2>" + errFile, &status);
        *err = ReadFile(errFile);
        err->erase(std::min(err->find('\n'), err->size()));
        return status;
    }

    // What bash completion offers for a command line whose last word is being completed.
    std::string Complete(const std::string& words) {
        const std::string script = root.Sub("complete.sh");
        EXPECT_TRUE(WriteFile(script, "source " TARNIS_SOURCE_DIR "/completion/tarnisctl.bash\nCOMP_WORDS=(" +
                                          BuiltTool("tarnisctl") + " " + words +
                                          ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_tarnisctl\n"
                                          "echo \"${COMPREPLY[*]}\"\n"));
        return RunShell("bash " + script + " 2>&1");
    }

    TempDir root;
    tarnis_test::Daemon daemon{root};
};
using ToolsOutputTest = DaemonTest;

// A root of its own, bare, for faults of the start and of the tool.
class DaemonAlone : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(root.path()); }
    void TearDown() override { platform::SetRoot("/"); }

    TempDir root;
    tarnis_test::Daemon daemon{root};
};

// `capture -p`: BEGIN with the archive, at least `counts` section counts rising to the total, OK with it; returns it.
std::string FollowedArchive(const std::string& out, size_t counts) {
    std::istringstream lines(out);
    std::string line, begun;
    size_t last = 0, total = 0, seen = 0;
    while (std::getline(lines, line)) {
        size_t done = 0, all = 0;
        if (begun.empty()) {
            EXPECT_EQ(line.compare(0, 6, "BEGIN:"), 0) << out;
            begun = line.substr(6);
        } else if (sscanf(line.c_str(), "PROGRESS:%zu/%zu", &done, &all) == 2) {
            EXPECT_TRUE((done > last || seen == 0) && done <= all && (total == 0 || all == total)) << out;
            last = done, total = all, ++seen;
        } else {
            EXPECT_EQ(line, "OK:" + begun) << out;
            EXPECT_TRUE(last == total && seen >= counts) << out;
            return begun;
        }
    }
    ADD_FAILURE() << "no OK line in:\n" << out;
    return "";
}

}  // namespace

TEST_F(DaemonTest, ServesEveryModuleSurvivesHostileCallersRunsOncePerRootAndStopsCleanly) {
    const std::string modules = daemon.Run("dump ModuleManager dump");
    const std::string header = "Current Modules:\n-------------------------\nName \t\t Status\n";
    ASSERT_EQ(modules.compare(0, header.size(), header), 0) << modules;
    EXPECT_EQ(daemon.Out(), "TarnisSsiImpl impl ready!\n");

    // Nested past any parser's patience: the tool warns and sends it; the daemon refuses it with a line.
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

    // A second daemon on the same root says so in one line (its start-up lines aside) and exits, not aborting.
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
    EXPECT_TRUE(daemon.Start());  // a fresh daemon takes the root over
}

// Captures ordered from a shell, through the service and the capture socket, end as zip archives.
TEST_F(DaemonTest, CapturesOrderedFromAShellEndAsZips) {
    // The caller policy the sandbox starts with is the daemon's built-in one, for the user to edit.
    EXPECT_EQ(ReadFile(root.Sub("system/etc/tarnis/caller_policy.conf")), android::CallerPolicy::kDefaultRules);
    int status = -1;
    // The slow tool holds the third section back while the first two are in.
    const std::string order = "capture -p demo 'a/b:c' --action getprop --param ro.product.device --action top "
                              "--param -b,-n,2,-d,0.5 --action df --param ''";
    const std::string zip = FollowedArchive(daemon.Run(order, &status), 2);
    ASSERT_EQ(status, 0) << zip;
    // The text went into the archive, named for the capture, and is gone from the directory.
    const std::string dir = root.Sub("data/dorva/demo/online/"), name = "null_demo_aXbXc_host_";
    ASSERT_EQ(zip.compare(0, dir.size() + name.size(), dir + name), 0) << zip;
    ASSERT_EQ(zip.compare(zip.size() - 4, 4, ".zip"), 0) << zip;
    EXPECT_EQ(RunShell("ls " + dir), zip.substr(dir.size()) + "\n");
    EXPECT_EQ(RunShell("unzip -Z1 " + zip), zip.substr(dir.size(), zip.size() - dir.size() - 4) + "\n");
    // The tools run are the sandbox's, found on the PATH the daemon set up.
    EXPECT_TRUE(Holds(RunShell("unzip -p " + zip), "s ------\nhost\n[getprop: "));
    const std::string refused = daemon.Run("capture demo h --action getprop --file /etc/passwd -p", &status);
    EXPECT_EQ(refused.compare(0, 16, "FAIL:captureLog:"), 0) << refused;
    EXPECT_EQ(status, 1);
    for (const std::string tool : {"tarnisd", "tarnisctl", "tarnis-blackbox"}) {
        const std::regex version(tool + " [0-9]+\\.[0-9]+\\.[0-9]+ \\(([0-9a-f]+(-dirty)?|unknown)\\)\n");
        EXPECT_TRUE(std::regex_match(RunShell(tarnis_test::BuiltTool(tool) + " --version"), version)) << tool;
    }

    // The stale socket file was replaced by one anybody may connect to.
    struct stat st;
    ASSERT_EQ(lstat(root.Sub("dev/socket/dorvad").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    // A name that would leave the base is answered; the tool says nothing came of it.
    EXPECT_TRUE(Holds(daemon.Run("capture-request ../x", &status), "finished but left no archive"));
    EXPECT_EQ(status, 1);
}

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

// A refused registration is fatal: the success line first, then the check aborts, and nothing after it.
TEST_F(DaemonAlone, AbortsWhenItsServiceIsRefused) {
    // This process already serves the name: the system service (registered first), then the native one (last).
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

// A service that accepts and never answers costs the tool its --timeout, and the user reads why.
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
    silent.reset();
    unlink(android::ServiceManager::SocketPath(kSsiName).c_str());
    EXPECT_EQ(daemon.Run("dump", &status), "tarnisctl: service " + kSsiName + " is not running below root " +
                                             root.path() + " (is tarnisd running?)\n");
    EXPECT_EQ(status, 1);
}

// Each form is one strict document; a failure prints none and keeps its sentence and exit status.
TEST_F(ToolsOutputTest, EachCommandsJsonFormAndFailuresStaySentences) {
    const std::string persist = "{\"path\":\"" + kPersist;
    const struct {
        std::string args;
        int status;
        std::string said;  // the document, or for a failure the sentence on standard error
    } cases[] = {
        // The byte that is no UTF-8 travels as the surrogate escape the journal uses, the rest as RFC 8259 spells it.
        {"getprop --json " + kProperty, 0,
         "{\"name\":\"" + kProperty + "\",\"value\":\"say \\\"hi\\\" \\\\ \\tthen\\u0001 end\\udcff\"}"},
        {"dump --json CaptureServer", 0,
         R"({"module":"CaptureServer","text":"dorvad: running\nrequests: 0 served, 0 refused, 0 dropped\n"})"},
        {"dump --json ModuleManager", 0,
         R"({"text":"Tarnis ModuleManager:\nload <module name> \t\t Load a module that is not running\n)"
         R"(dump \t\t Get Current Modules Status.\n"})"},
        {"dump --json ModuleManager dump", 0,
         R"({"modules":[{"module":"AndroidCrashMonitor","running":true},{"module":"BootLogDumper","running":true},)"
         R"({"module":"BootMonitor","running":true},{"module":"CaptureServer","running":true},)"
         R"({"module":"F2fsTrack","running":true},{"module":"KernelTrack","running":true},)"
         R"({"module":"LogManager","running":true},{"module":"OTAMonitor","running":true},)"
         R"({"module":"RescueSpace","running":true},{"module":"TombstoneMonitor","running":true}]})"},
        {"station-info --json tarnis-none0 aa:bb:cc:dd:ee:ff", 0,
         R"({"interface":"tarnis-none0","peer":"aa:bb:cc:dd:ee:ff","signal":0,"chain_signal_avg":[0,0,0,0],)"
         R"("tx_mcs":-1,"tx_vht_mcs":-1,"tx_he_mcs":-1,"tx_eht_mcs":-1,"rx_mcs":-1,"rx_vht_mcs":-1,"rx_he_mcs":-1,)"
         R"("rx_eht_mcs":-1})"},
        {"persist --json list", 0, "{\"files\":[\"" + kPersist + "\"]}"},
        {"persist --json read " + kPersist, 0, persist + R"(","text":"say \"hi\" \\ \tthen\u0001 end"})"},
        {"persist --json create " + kPersist + "2", 0, persist + "2\",\"result\":0}"},
        {"run-command --json cat /proc/version 5", 0, R"({"result":0})"},
        {"run-batch --json /data/batch.txt 5 --action cat --param /proc/version", 0,
         "{\"path\":\"" + root.Sub("data/batch.txt") + "\"}"},
        {"capture --json ../x h --action getprop", 1,
         "tarnisctl: the daemon finished the capture but made no archive of it; its log says why (a refused type or "
         "directory, or no space)"},
        {"dump --json NoSuchModule", 1, "Module NoSuchModule not found!!"},
        {"dump --json ModuleManager load NoSuchModule", 1, "Load module NoSuchModule failed! See Logcat for details."},
        {"getprop --json a b c", 2, "tarnisctl: getprop takes at most NAME and DEFAULT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out, err;
        ASSERT_EQ(Ctl(c.args, &out, &err), c.status) << out << err;
        EXPECT_EQ(c.status == 0 ? out : err, c.status == 0 ? c.said + "\n" : c.said);
        EXPECT_EQ(c.status == 0 ? err : out, "");
    }

    // Where values vary: one document and nothing after it, as a strict reader takes it; the members scripts use.
    Json::CharReaderBuilder strict;
    Json::CharReaderBuilder::strictMode(&strict.settings_);
    const std::unique_ptr<Json::CharReader> reader(strict.newCharReader());
    const auto read = [&](const std::string& args) {
        std::string out, err;
        Json::Value document;
        EXPECT_EQ(Ctl(args, &out, &err), 0) << err;
        EXPECT_TRUE(reader->parse(out.data(), out.data() + out.size(), &document, &err)) << err << "\n" << out;
        return document;
    };
    EXPECT_EQ(read("getprop --json " + kProperty)["name"], kProperty);
    EXPECT_EQ(read("getprop --json")["properties"]["ro.product.device"], "host");
    const Json::Value modules = read("dump --json")["modules"];
    EXPECT_EQ(modules[0]["module"], "AndroidCrashMonitor");
    for (const Json::Value& module : modules) EXPECT_TRUE(module["text"].isString()) << module;
    const std::string capture =
        read("capture --json demo h --action getprop --param ro.product.device")["archive"].asString();
    EXPECT_EQ(capture.rfind(root.Sub("data/dorva/demo/online/null_demo_h_host_"), 0), 0u) << capture;
    // This sandbox is an A/B device: the archive is kept on the rescue partition.
    const std::string kept = read("capture-request --json BootFailure")["archive"].asString();
    EXPECT_EQ(kept.rfind(root.Sub("mnt/rescue/dorva/BootFailure/BootFailure_"), 0), 0u) << kept;
    EXPECT_EQ(RunShell("unzip -tq '" + kept + "' >/dev/null && echo ok"), "ok\n");
}

// What an install puts where, and that the installed tarnisctl runs and finds its sibling for the JSON commands.
TEST_F(ToolsOutputTest, InstallPutsToolsInitServiceConfigAndCompletionInPlace) {
    TempDir prefix;
    int status = -1;
    const std::string said =
        RunShell("cmake --install " TARNIS_BUILD_DIR " --prefix " + prefix.path() + " 2>&1", &status);
    ASSERT_EQ(status, 0) << said;
    for (const char* tool : {"tarnisd", "tarnisctl", "tarnisctl-json", "tarnis-blackbox"}) {
        EXPECT_EQ(access(prefix.Sub(std::string("bin/") + tool).c_str(), X_OK), 0) << tool;
    }
    const std::string source = TARNIS_SOURCE_DIR;
    EXPECT_EQ(ReadFile(prefix.Sub("etc/init/tarnisd.rc")), ReadFile(source + "/init/tarnisd.rc"));
    // The one default configuration, as the sandbox got it.
    EXPECT_EQ(ReadFile(prefix.Sub("etc/tarnsys/log_config.json")),
              ReadFile(root.Sub("system_ext/etc/tarnsys/log_config.json")));
    EXPECT_EQ(ReadFile(prefix.Sub("share/bash-completion/completions/tarnisctl")),
              ReadFile(source + "/completion/tarnisctl.bash"));

    const std::string installed = prefix.Sub("bin/tarnisctl");
    EXPECT_EQ(RunShell(installed + " --version", &status).rfind("tarnisctl ", 0), 0u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(RunShell(installed + " --root " + root.path() + " event reportSimpleEvent 7 x 2>&1", &status), "");
    EXPECT_EQ(status, 0);
}

// Commands and their options from the tool's help, modules from the daemon on the line's root, none without one.
TEST_F(ToolsOutputTest, CompletionAsksTheToolAndTheDaemon) {
    TempDir empty;
    const std::string r = "--root " + root.path() + " ";
    const struct {
        std::string words;
        std::string offered;
    } cases[] = {
        {"st", "station-info"},
        {"--r", "--root"},
        {"--timeout 3 pe", "persist"},
        {r + "getprop --", "--help --json"},
        {r + "persist --json r", "read"},
        {r + "core-filter 12 o", "on off"},
        {r + "dump ''", "ModuleManager AndroidCrashMonitor BootLogDumper BootMonitor CaptureServer F2fsTrack "
                        "KernelTrack LogManager OTAMonitor RescueSpace TombstoneMonitor"},
        {"--root=" + root.path() + " dump ModuleManager load Res", "RescueSpace"},
        {"--root " + empty.path() + " dump ''", "ModuleManager"},
    };
    for (const auto& c : cases) EXPECT_EQ(Complete(c.words), c.offered + "\n") << c.words;
}
