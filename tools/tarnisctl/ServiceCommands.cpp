#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <android/binder_manager.h>

#include "tools/tarnisctl/CtlCommand.h"
#include "tools/tarnisctl/JsonWriter.h"
#include "tools/tarnisctl/ServiceConnect.h"

namespace tarnisctl {
namespace {

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using android::base::EndsWith;
using android::base::StartsWith;

// The daemon's module framework answers a dump in text; these are its marks
// (framework/ModuleManager.cpp), which the JSON form reads the answer by.
constexpr char kModuleHeader[] = "Dumping module ";
constexpr char kModuleHeaderEnd[] = ": \n";
constexpr char kSeparator[] = "\n-------------------------------------\n";
constexpr char kStatusHeader[] = "Current Modules:\n-------------------------\nName \t\t Status\n";

int CallDump(AIBinder* binder, int fd, const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    binder_status_t status = AIBinder_dump(binder, fd, argv.data(), static_cast<uint32_t>(argv.size()));
    if (status == STATUS_PERMISSION_DENIED && platform::host::LastBinderError().empty()) {
        // The dump command has no reply to carry a sentence: the caller's uid is ours.
        fprintf(stderr, "permission denied: uid %u may not call dump\n", static_cast<unsigned>(getuid()));
        return 1;
    }
    if (status != STATUS_OK) {
        fprintf(stderr, "dump: %s\n", Explain(status).c_str());
        return 1;
    }
    return 0;
}

int Unreadable() {
    fprintf(stderr, "tarnisctl: dump: the daemon's answer is not in the form --json reads (another version?)\n");
    return 1;
}

// A sentence of the daemon's instead of the data asked for ("Module X not
// found!!", a failed load): for a script, a failure.
int Refusal(const std::string& text) {
    fprintf(stderr, "%s\n", android::base::Trim(text).c_str());
    return 1;
}

// "Dumping module NAME: \n" TEXT SEPARATOR, once per module. A module's text
// may hold anything, so a separator ends it only where the next header (or
// the end) follows.
bool SplitModuleDumps(const std::string& text, std::vector<std::pair<std::string, std::string>>* modules) {
    const std::string header = kModuleHeader, separator = kSeparator;
    size_t pos = 0;
    while (pos < text.size()) {
        if (text.compare(pos, header.size(), header) != 0) return false;
        const size_t nameEnd = text.find(kModuleHeaderEnd, pos + header.size());
        if (nameEnd == std::string::npos) return false;
        const size_t start = nameEnd + strlen(kModuleHeaderEnd);
        size_t end = text.find(separator, start);
        while (end != std::string::npos && end + separator.size() < text.size() &&
               text.compare(end + separator.size(), header.size(), header) != 0) {
            end = text.find(separator, end + 1);
        }
        if (end == std::string::npos) return false;
        modules->emplace_back(text.substr(pos + header.size(), nameEnd - pos - header.size()),
                              text.substr(start, end - start));
        pos = end + separator.size();
    }
    return true;
}

int PrintModuleDumps(const std::string& text) {
    std::vector<std::pair<std::string, std::string>> modules;
    if (!SplitModuleDumps(text, &modules)) return Unreadable();
    JsonWriter out;
    out.BeginObject().Key("modules").BeginArray();
    for (const auto& [name, dump] : modules) {
        out.BeginObject().Key("module").String(name).Key("text").String(dump).EndObject();
    }
    return out.EndArray().EndObject().Print();
}

int PrintModuleStatus(const std::string& text) {
    if (!StartsWith(text, kStatusHeader)) return Unreadable();
    JsonWriter out;
    out.BeginObject().Key("modules").BeginArray();
    for (const std::string& line : android::base::Split(text.substr(strlen(kStatusHeader)), "\n")) {
        if (line.empty()) continue;
        const size_t tab = line.find("\t\t");
        const std::string status = tab == std::string::npos ? "" : line.substr(tab + 2);
        if (status != "Running" && status != "Stopped") return Unreadable();
        out.BeginObject().Key("module").String(line.substr(0, tab)).Key("running").Bool(status == "Running");
        out.EndObject();
    }
    return out.EndArray().EndObject().Print();
}

// The JSON form of what the daemon answered to `args`, read the way the
// module framework chose its answer.
int PrintDumpJson(const std::vector<std::string>& args, const std::string& text) {
    const std::string first = args.empty() ? "" : args[0];
    if (first.empty() || first == "-a") return PrintModuleDumps(text);
    if (first == "ModuleManager" || first == "modulemanager") {
        const std::string command = args.size() > 1 ? args[1] : "";
        if (command == "dump") return PrintModuleStatus(text);
        if (command == "load" && args.size() > 2) {
            if (text != "Load module " + args[2] + " succeed!\n") return Refusal(text);
            JsonWriter out;
            return out.BeginObject().Key("module").String(args[2]).Key("loaded").Bool(true).EndObject().Print();
        }
        return JsonWriter().BeginObject().Key("text").String(text).EndObject().Print();
    }
    const std::string header = kModuleHeader + first + kModuleHeaderEnd;
    if (!StartsWith(text, header)) return Refusal(text);
    if (!EndsWith(text, kSeparator)) return Unreadable();
    const std::string dump = text.substr(header.size(), text.size() - header.size() - strlen(kSeparator));
    return JsonWriter().BeginObject().Key("module").String(first).Key("text").String(dump).EndObject().Print();
}

int Dump(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    ndk::SpAIBinder binder;
    if (!Connect<ITarnisSsi>(&binder)) return 1;
    if (!json) {
        fflush(stdout);
        return CallDump(binder.get(), STDOUT_FILENO, args);
    }
    // The answer is read whole before any of it is printed: a memory file
    // takes it at once, where a pipe would need a reader keeping pace.
    android::base::unique_fd memory(memfd_create("tarnisctl-dump", MFD_CLOEXEC));
    if (!memory.ok()) {
        perror("tarnisctl: dump: a memory file for the answer");
        return 1;
    }
    const int rc = CallDump(binder.get(), memory.get(), args);
    if (rc != 0) return rc;
    std::string text;
    if (lseek(memory.get(), 0, SEEK_SET) != 0 || !android::base::ReadFdToString(memory.get(), &text)) {
        perror("tarnisctl: dump: reading the answer back");
        return 1;
    }
    return PrintDumpJson(args, text);
}

CtlCommandRegister gDump({"dump", "[--json] [ARGS...]",
                          "print the daemon's dump (module framework commands: ModuleManager dump|load NAME)", Dump});

}  // namespace
}  // namespace tarnisctl
