#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <android-base/properties.h>
#include <host/Host.h>

#include "tools/tarnisctl/CtlCommand.h"
#include "tools/tarnisctl/JsonWriter.h"

namespace tarnisctl {
namespace {

int GetProp(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    if (args.size() > 2) return UsageError("getprop takes at most NAME and DEFAULT");
    if (args.empty()) {
        const std::map<std::string, std::string> properties = platform::ListProperties();
        if (!json) {
            for (const auto& [name, value] : properties) printf("[%s]: [%s]\n", name.c_str(), value.c_str());
            return 0;
        }
        JsonWriter out;
        out.BeginObject().Key("properties").BeginObject();
        for (const auto& [name, value] : properties) out.Key(name).String(value);
        return out.EndObject().EndObject().Print();
    }
    const std::string value = android::base::GetProperty(args[0], args.size() > 1 ? args[1] : "");
    if (!json) {
        printf("%s\n", value.c_str());
        return 0;
    }
    return JsonWriter().BeginObject().Key("name").String(args[0]).Key("value").String(value).EndObject().Print();
}

int SetProp(const std::vector<std::string>& args) {
    if (args.size() != 2) return UsageError("setprop needs NAME and VALUE");
    if (!platform::IsValidPropertyName(args[0])) {
        fprintf(stderr, "tarnisctl: invalid property name '%s'\n", args[0].c_str());
        return 1;
    }
    if (!android::base::SetProperty(args[0], args[1])) {
        fprintf(stderr, "tarnisctl: failed to set property '%s' to '%s'\n", args[0].c_str(),
                args[1].c_str());
        return 1;
    }
    return 0;
}

CtlCommandRegister gGetProp({"getprop", "[--json] [NAME [DEFAULT]]",
                             "print a property (or DEFAULT), or every property when no NAME is given",
                             GetProp});
CtlCommandRegister gSetProp({"setprop", "NAME VALUE", "set a property", SetProp});

}  // namespace
}  // namespace tarnisctl
