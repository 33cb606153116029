// tarnisctl for scripts: its --json forms read back by a real JSON reader against tarnisd in a sandbox, the
// install that puts the tools and their files in place, and the completion that asks the tool itself.
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include <android-base/properties.h>
#include <host/Host.h>

#include "tests/support/FwDaemon.h"
#include "tests/support/TempDir.h"

using tarnis_test::BuiltTool;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;

namespace {

// Quotes, a backslash, a tab and another control character; the property also ends in a byte that is no UTF-8.
const std::string kText = "say \"hi\" \\ \tthen\x01 end";
const std::string kProperty = "tarnis.test.odd";
const std::string kPersist = "/mnt/vendor/persist/stability/odd";

struct Field {
    std::string name;  // empty: the array's element itself
    Json::ValueType type;
    std::vector<Field> each;  // what every element of an array holds
};

// One document and nothing after it, as a strict reader takes it.
bool Parse(const std::string& text, Json::Value* document, std::string* why) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), document, why);
}

::testing::AssertionResult Holds(const Json::Value& value, const std::vector<Field>& fields) {
    for (const Field& field : fields) {
        const Json::Value& member = field.name.empty() ? value : value[field.name];
        if (member.type() != field.type) {
            return ::testing::AssertionFailure() << "'" << field.name << "' is not of type " << field.type;
        }
        if (field.type != Json::arrayValue) continue;
        for (const Json::Value& element : member) {
            ::testing::AssertionResult inner = Holds(element, field.each);
            if (!inner) return inner << " in '" << field.name << "'";
        }
    }
    return ::testing::AssertionSuccess();
}

class ToolsOutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string prepare = std::string(TARNIS_SOURCE_DIR) + "/scripts/prepare-sandbox.sh " + root.path();
        ASSERT_EQ(system(("TARNIS_BUILD_DIR=" TARNIS_BUILD_DIR " " + prepare + " >/dev/null").c_str()), 0);
        platform::SetRoot(root.path());
        ASSERT_TRUE(android::base::SetProperty(kProperty, kText + "\xff"));
        ASSERT_TRUE(WriteFile(root.path() + kPersist, kText));
        ASSERT_TRUE(daemon.Start());
        ASSERT_TRUE(tarnis_test::WaitFor([&] {
            return daemon.Run("dump ModuleManager dump").find("Stopped") == std::string::npos;
        }));
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

}  // namespace

// Every form parses as one strict document with the fields a script relies on; a failure prints no document
// and keeps its sentence and exit status.
TEST_F(ToolsOutputTest, EachCommandsJsonFormHasItsFieldsAndFailuresStaySentences) {
    const Field name{"module", Json::stringValue, {}}, text{"text", Json::stringValue, {}};
    const struct {
        std::string args;
        int status;
        std::vector<Field> fields;
        std::vector<std::string> at;  // a member whose value (as text) is `is`; for a failure, its sentence
        std::string is;
    } cases[] = {
        {"getprop --json " + kProperty, 0, {{"name", Json::stringValue, {}}, {"value", Json::stringValue, {}}},
         {"name"}, kProperty},
        {"getprop --json", 0, {{"properties", Json::objectValue, {}}}, {"properties", "ro.product.device"}, "host"},
        {"dump --json", 0, {{"modules", Json::arrayValue, {name, text}}}, {"modules", "0", "module"},
         "AndroidCrashMonitor"},
        {"dump --json ModuleManager dump", 0,
         {{"modules", Json::arrayValue, {name, {"running", Json::booleanValue, {}}}}}, {"modules", "0", "running"},
         "true"},
        {"dump --json CaptureServer", 0, {name, text}, {"text"},
         "dorvad: running\nrequests: 0 served, 0 refused, 0 dropped\n"},
        {"dump --json ModuleManager", 0, {text}, {}, ""},
        {"station-info --json tarnis-none0 aa:bb:cc:dd:ee:ff", 0,
         {{"interface", Json::stringValue, {}}, {"peer", Json::stringValue, {}}, {"signal", Json::intValue, {}},
          {"chain_signal_avg", Json::arrayValue, {{"", Json::intValue, {}}}}, {"tx_mcs", Json::intValue, {}},
          {"tx_vht_mcs", Json::intValue, {}}, {"tx_he_mcs", Json::intValue, {}}, {"tx_eht_mcs", Json::intValue, {}},
          {"rx_mcs", Json::intValue, {}}, {"rx_vht_mcs", Json::intValue, {}}, {"rx_he_mcs", Json::intValue, {}},
          {"rx_eht_mcs", Json::intValue, {}}},
         {"rx_eht_mcs"}, "-1"},
        {"persist --json list", 0, {{"files", Json::arrayValue, {{"", Json::stringValue, {}}}}}, {"files", "0"},
         kPersist},
        {"persist --json read " + kPersist, 0, {{"path", Json::stringValue, {}}, text}, {"text"}, kText},
        {"persist --json create " + kPersist + "2", 0,
         {{"path", Json::stringValue, {}}, {"result", Json::intValue, {}}}, {"result"}, "0"},
        {"run-command --json cat /proc/version 5", 0, {{"result", Json::intValue, {}}}, {"result"}, "0"},
        {"run-batch --json /data/batch.txt 5 --action cat --param /proc/version", 0,
         {{"path", Json::stringValue, {}}}, {"path"}, root.Sub("data/batch.txt")},
        {"capture --json demo h --action getprop --param ro.product.device", 0, {{"archive", Json::stringValue, {}}},
         {},
         ""},
        {"capture-request --json BootFailure", 0, {{"archive", Json::stringValue, {}}}, {}, ""},
        {"capture --json ../x h --action getprop", 1, {}, {},
         "tarnisctl: the daemon finished the capture but made no archive of it; its log says why (a refused type or "
         "directory, or no space)"},
        {"dump --json NoSuchModule", 1, {}, {}, "Module NoSuchModule not found!!"},
        {"dump --json ModuleManager load NoSuchModule", 1, {}, {},
         "Load module NoSuchModule failed! See Logcat for details."},
        {"run-command --json rm -rf,/ 5", 1, {}, {}, "runCommand:152: Command not allowed"},
        {"getprop --json a b c", 2, {}, {}, "tarnisctl: getprop takes at most NAME and DEFAULT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out, err;
        ASSERT_EQ(Ctl(c.args, &out, &err), c.status) << out << err;
        if (c.status != 0) {
            EXPECT_EQ(out, "");
            EXPECT_EQ(err, c.is);
            continue;
        }
        EXPECT_EQ(err, "");
        Json::Value document;
        std::string why;
        ASSERT_TRUE(Parse(out, &document, &why)) << why << "\n" << out;
        EXPECT_TRUE(Holds(document, c.fields)) << out;
        if (c.at.empty()) continue;
        const Json::Value* member = &document;
        for (const std::string& key : c.at) {
            member = member->isArray() ? &(*member)[std::stoi(key)] : &(*member)[key];
        }
        EXPECT_EQ(member->asString(), c.is) << out;
    }

    // The byte that is no UTF-8 travels as the surrogate escape the journal uses, the rest as RFC 8259 spells it.
    std::string out, err;
    ASSERT_EQ(Ctl("getprop --json " + kProperty, &out, &err), 0);
    EXPECT_EQ(out, "{\"name\":\"" + kProperty + "\",\"value\":\"say \\\"hi\\\" \\\\ \\tthen\\u0001 end\\udcff\"}\n");
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
    std::string out, err;
    ASSERT_EQ(Ctl("dump --json ModuleManager dump", &out, &err), 0);
    Json::Value modules;
    ASSERT_TRUE(Parse(out, &modules, &err)) << err;
    std::string names = "ModuleManager";
    for (const Json::Value& module : modules["modules"]) names += " " + module["module"].asString();

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
        {r + "dump ''", names},
        {"--root=" + root.path() + " dump ModuleManager load Res", "RescueSpace"},
        {"--root " + empty.path() + " dump ''", "ModuleManager"},
    };
    for (const auto& c : cases) EXPECT_EQ(Complete(c.words), c.offered + "\n") << c.words;
}
