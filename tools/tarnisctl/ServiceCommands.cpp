#include <json/json.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/Root.h"
#include "platform/binder/ITarnisSsi.h"
#include "platform/binder/ITarnisSsiIntl.h"
#include "platform/binder/NdkBinder.h"
#include "tools/tarnisctl/CtlCommand.h"

namespace tarnisctl {
namespace {

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;

// The daemon's service, or null with an error line when it does not run:
// a tool must not hang waiting for a daemon that is not there.
ndk::SpAIBinder FindService(const char* descriptor) {
    const std::string instance = std::string(descriptor) + "/default";
    ndk::SpAIBinder binder = AServiceManager_checkService(instance.c_str());
    if (!binder) {
        fprintf(stderr, "tarnisctl: service %s is not running below root %s (is tarnisd running?)\n",
                instance.c_str(), platform::GetRoot().c_str());
    }
    return binder;
}

int Report(const char* what, const ndk::ScopedAStatus& status) {
    if (status.isOk()) return 0;
    fprintf(stderr, "%s: %s\n", what, status.getDescription().c_str());
    return 1;
}

int Dump(const std::vector<std::string>& args) {
    ndk::SpAIBinder binder = FindService(ITarnisSsi::descriptor);
    if (!binder) return 1;
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    fflush(stdout);
    binder_status_t status =
        AIBinder_dump(binder.get(), STDOUT_FILENO, argv.data(), static_cast<uint32_t>(argv.size()));
    if (status != STATUS_OK) {
        fprintf(stderr, "dump: failed with status %d\n", status);
        return 1;
    }
    return 0;
}

int Intent(const std::vector<std::string>& args) {
    if (args.size() != 2) return UsageError("intent needs ACTION and JSON");
    ndk::SpAIBinder binder = FindService(ITarnisSsiIntl::descriptor);
    if (!binder) return 1;
    std::shared_ptr<ITarnisSsiIntl> service = ITarnisSsiIntl::fromBinder(binder);
    if (!service) return 1;
    return Report("transferMessage", service->transferMessage(args[0], args[1]));
}

// Parses the arguments of one report operation; false with a message when
// they do not fit.
bool ParseInt(const std::string& text, int32_t* out) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) return false;
    *out = static_cast<int32_t>(value);
    return true;
}

bool ParseBool(const std::string& text, bool* out) {
    if (text == "true" || text == "1") {
        *out = true;
    } else if (text == "false" || text == "0") {
        *out = false;
    } else {
        return false;
    }
    return true;
}

bool ParseList(const std::string& text, std::vector<std::string>* out) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isArray()) return false;
    for (const Json::Value& item : root) {
        if (!item.isString()) return false;
        out->push_back(item.asString());
    }
    return true;
}

constexpr char kEventUsage[] =
    "OPERATION ARGS...\n"
    "      reportSimpleEvent INT TEXT\n"
    "      reportEventV2 A B C BOOL\n"
    "      reportNativeFeatureEvent A B C\n"
    "      appCaptureLog A B C D\n"
    "      reportEventsV2 A JSON_LIST C BOOL\n"
    "      reportTrelvoEvent APP_ID PACKAGE PAYLOAD INT\n"
    "      reportTrelvoEvents APP_ID PACKAGE JSON_LIST INT\n"
    "     (JSON_LIST: a JSON array of strings, e.g. '[\"a\",\"b\"]')";

int Event(const std::vector<std::string>& args) {
    if (args.empty()) return UsageError("event needs an OPERATION");
    const std::string& op = args[0];
    const std::vector<std::string> a(args.begin() + 1, args.end());
    auto wrong = [&](const char* form) { return UsageError("usage: event " + op + " " + form); };
    int32_t number = 0;
    bool flag = false;
    std::vector<std::string> list;

    ndk::SpAIBinder binder;
    auto service = [&]() -> std::shared_ptr<ITarnisSsi> {
        binder = FindService(ITarnisSsi::descriptor);
        return binder ? ITarnisSsi::fromBinder(binder) : nullptr;
    };
    if (op == "reportSimpleEvent") {
        if (a.size() != 2 || !ParseInt(a[0], &number)) return wrong("INT TEXT");
        auto s = service();
        return s ? Report(op.c_str(), s->reportSimpleEvent(number, a[1])) : 1;
    } else if (op == "reportEventV2") {
        if (a.size() != 4 || !ParseBool(a[3], &flag)) return wrong("A B C BOOL");
        auto s = service();
        return s ? Report(op.c_str(), s->reportEventV2(a[0], a[1], a[2], flag)) : 1;
    } else if (op == "reportNativeFeatureEvent") {
        if (a.size() != 3) return wrong("A B C");
        auto s = service();
        return s ? Report(op.c_str(), s->reportNativeFeatureEvent(a[0], a[1], a[2])) : 1;
    } else if (op == "appCaptureLog") {
        if (a.size() != 4) return wrong("A B C D");
        auto s = service();
        return s ? Report(op.c_str(), s->appCaptureLog(a[0], a[1], a[2], a[3])) : 1;
    } else if (op == "reportEventsV2") {
        if (a.size() != 4 || !ParseList(a[1], &list) || !ParseBool(a[3], &flag)) return wrong("A JSON_LIST C BOOL");
        auto s = service();
        return s ? Report(op.c_str(), s->reportEventsV2(a[0], list, a[2], flag)) : 1;
    } else if (op == "reportTrelvoEvent") {
        if (a.size() != 4 || !ParseInt(a[3], &number)) return wrong("APP_ID PACKAGE PAYLOAD INT");
        auto s = service();
        return s ? Report(op.c_str(), s->reportTrelvoEvent(a[0], a[1], a[2], number)) : 1;
    } else if (op == "reportTrelvoEvents") {
        if (a.size() != 4 || !ParseList(a[2], &list) || !ParseInt(a[3], &number)) {
            return wrong("APP_ID PACKAGE JSON_LIST INT");
        }
        auto s = service();
        return s ? Report(op.c_str(), s->reportTrelvoEvents(a[0], a[1], list, number)) : 1;
    }
    return UsageError("unknown event operation " + op);
}

CtlCommandRegister gDump({"dump", "[ARGS...]",
                          "print the daemon's dump (module framework commands: ModuleManager dump|load NAME)", Dump});
CtlCommandRegister gIntent({"intent", "ACTION JSON",
                            "send a broadcast intent (JSON: {\"extras\":[...]}) through ITarnisSsiIntl.transferMessage",
                            Intent});
CtlCommandRegister gEvent({"event", kEventUsage, "call one ITarnisSsi reporting operation", Event});

}  // namespace
}  // namespace tarnisctl
