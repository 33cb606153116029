// The commands whose arguments are JSON. They are built into tarnisctl-json
// alone, the one tool that links jsoncpp (and with it the C++ runtime's
// shared library); tarnisctl runs it for them.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>
#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>
#include <android-base/parseint.h>

#include "tools/tarnisctl/CtlCommand.h"
#include "tools/tarnisctl/JsonCommandNames.h"
#include "tools/tarnisctl/ServiceConnect.h"

namespace tarnisctl {
namespace {

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;

bool ParseJson(const std::string& text, Json::Value* root, std::string* error) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), root, error);
    } catch (const std::exception& e) {
        // Nesting past the reader's limit is thrown, not returned.
        *error = std::string("the JSON reader failed: ") + e.what();
        return false;
    }
}

// Arguments that should hold JSON are checked before sending: a mistake is
// pointed out, but the text still goes to the daemon, whose answer decides.
void WarnUnlessJson(const char* what, const std::string& text) {
    Json::Value ignored;
    std::string error;
    if (!ParseJson(text, &ignored, &error)) {
        fprintf(stderr, "tarnisctl: warning: %s is not valid JSON (%s); sending it anyway\n", what, error.c_str());
    }
}

int Intent(const std::vector<std::string>& args) {
    if (args.size() != 2) return UsageError("intent needs ACTION and JSON");
    WarnUnlessJson("the intent's JSON", args[1]);
    ndk::SpAIBinder binder;
    std::shared_ptr<ITarnisSsiIntl> service = Connect<ITarnisSsiIntl>(&binder);
    if (!service) return 1;
    return Report("transferMessage", service->transferMessage(args[0], args[1]));
}

// Parses the arguments of one report operation; false when they do not fit.
bool ParseInt(const std::string& text, int32_t* out) { return android::base::ParseInt(text, out); }

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

// A JSON array of strings; false with the reason otherwise.
bool ParseList(const std::string& text, std::vector<std::string>* out, std::string* why) {
    Json::Value root;
    if (!ParseJson(text, &root, why)) return false;
    if (!root.isArray()) {
        *why = "not a JSON array";
        return false;
    }
    for (const Json::Value& item : root) {
        if (!item.isString()) {
            *why = "an element is not a string";
            return false;
        }
        out->push_back(item.asString());
    }
    return true;
}

int Event(const std::vector<std::string>& args) {
    if (args.empty()) return UsageError("event needs an OPERATION");
    const std::string& op = args[0];
    const std::vector<std::string> a(args.begin() + 1, args.end());
    auto wrong = [&](const char* form) { return UsageError("usage: event " + op + " " + form); };
    int32_t number = 0;
    bool flag = false;
    std::vector<std::string> list;

    std::string why;
    auto badList = [&](const char* form) { return UsageError("event " + op + ": JSON_LIST " + why + "; usage: event " + op + " " + form); };
    ndk::SpAIBinder binder;
    auto service = [&]() { return Connect<ITarnisSsi>(&binder); };
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
        if (a.size() != 4 || !ParseBool(a[3], &flag)) return wrong("A JSON_LIST C BOOL");
        if (!ParseList(a[1], &list, &why)) return badList("A JSON_LIST C BOOL");
        auto s = service();
        return s ? Report(op.c_str(), s->reportEventsV2(a[0], list, a[2], flag)) : 1;
    } else if (op == "reportTrelvoEvent") {
        if (a.size() != 4 || !ParseInt(a[3], &number)) return wrong("APP_ID PACKAGE PAYLOAD INT");
        WarnUnlessJson("PAYLOAD", a[2]);
        auto s = service();
        return s ? Report(op.c_str(), s->reportTrelvoEvent(a[0], a[1], a[2], number)) : 1;
    } else if (op == "reportTrelvoEvents") {
        if (a.size() != 4 || !ParseInt(a[3], &number)) return wrong("APP_ID PACKAGE JSON_LIST INT");
        if (!ParseList(a[2], &list, &why)) return badList("APP_ID PACKAGE JSON_LIST INT");
        for (size_t i = 0; i < list.size(); ++i) WarnUnlessJson(("payload " + std::to_string(i + 1)).c_str(), list[i]);
        auto s = service();
        return s ? Report(op.c_str(), s->reportTrelvoEvents(a[0], a[1], list, number)) : 1;
    }
    return UsageError("unknown event operation " + op);
}

CtlCommandRegister gIntent({kIntentCommand, kIntentUsage, kIntentSummary, Intent});
CtlCommandRegister gEvent({kEventCommand, kEventUsage, kEventSummary, Event});

}  // namespace
}  // namespace tarnisctl
