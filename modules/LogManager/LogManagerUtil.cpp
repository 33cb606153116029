#define LOG_TAG "Tarnis-LogManagerUtil"

#include "modules/LogManager/LogManagerUtil.h"

#include <errno.h>
#include <string.h>

#include <cstdint>
#include <limits>
#include <memory>

#include <android-base/file.h>
#include <log/log.h>

#include "modules/LogManager/JsonHelper.h"
#include "utils/ConfinedPath.h"
#include "utils/JsonUtil.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

void SetParentsBelow(std::vector<LogConfig>& records, const std::shared_ptr<const LogConfig>& parent) {
    for (LogConfig& record : records) {
        record.parent = parent;
        if (record.children.empty()) continue;
        // The copy leaves the children out: moved aside rather than copied and dropped.
        std::vector<LogConfig> children = std::move(record.children);
        record.children.clear();
        auto snapshot = std::make_shared<const LogConfig>(record);
        record.children = std::move(children);
        SetParentsBelow(record.children, snapshot);
    }
}

const char* KindOf(const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            return "a number";
        case Json::stringValue:
            return "a string";
        case Json::booleanValue:
            return "a boolean";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
    }
    return "of an unknown kind";
}

std::string FolderNameOf(const Json::Value& record) {
    if (!record.isObject() || !record.isMember("folderName") || !record["folderName"].isString()) return "";
    return " (folderName \"" + StringUtil::ForLog(record["folderName"].asString(), 80) + "\")";
}

// The most KiB whose byte count (shifted by 10) fits in 64 bits.
constexpr uint64_t kMaxKiB = std::numeric_limits<uint64_t>::max() >> 10;
// Days whose milliseconds (86,400,000 a day) fit in a signed 64-bit time.
constexpr uint64_t kMaxValidDay = static_cast<uint64_t>(std::numeric_limits<int64_t>::max() / 86400000);
// Seconds whose milliseconds fit in the handler's delay (a long: 32 bits on
// some devices).
constexpr uint64_t kMaxDelaySec = static_cast<uint64_t>(std::numeric_limits<long>::max() / 1000);

bool NamesNoDirectory(const LogConfig& record) { return record.folderName.empty() && record.folderPath.empty(); }

// Reads every element on its own so that one bad record costs that record
// only; each one left out adds a reason to `problems`.
std::vector<LogConfig> ReadEachRecord(const Json::Value& root, std::vector<std::string>& problems) {
    std::vector<LogConfig> kept;
    std::vector<std::string> names = LogConfig::MemberNames();
    for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
        const Json::Value& element = root[i];
        const std::string label = "record " + std::to_string(i) + FolderNameOf(element);
        LogConfig record;
        std::string reason;
        // The reader only looks: no write reaches the document.
        if (!record.TARNIS_CONVER_JSON_TO_OBJECT(const_cast<Json::Value&>(element), names, &reason)) {
            problems.push_back(label + " skipped: " + reason);
            continue;
        }
        if (NamesNoDirectory(record)) {
            problems.push_back(label + " skipped: it has no folderName and no folderPath");
            continue;
        }
        // A child without a name would stand for its parent's whole directory.
        std::vector<LogConfig> children;
        for (size_t j = 0; j < record.children.size(); ++j) {
            if (NamesNoDirectory(record.children[j])) {
                problems.push_back(label + " children[" + std::to_string(j) +
                                   "] skipped: it has no folderName and no folderPath");
            } else {
                children.push_back(std::move(record.children[j]));
            }
        }
        record.children = std::move(children);
        kept.push_back(std::move(record));
    }
    return kept;
}

}  // namespace

std::vector<LogConfig> LogManagerUtil::GenerateConfigList(Json::Value root) {
    std::vector<LogConfig> list;
    std::string reason;
    const bool converted = JsonHelper::JsonToObject(list, root, &reason);
    SetParents(list);
    if (!converted) {
        ALOGE("[%s] %s", "GenerateConfigList", reason.c_str());
        ALOGE("[%s] Failed to convert Json to valid config!", "GenerateConfigList");
    }
    return list;
}

void LogManagerUtil::SetParents(std::vector<LogConfig>& list) { SetParentsBelow(list, nullptr); }

std::string LogManagerUtil::GetFullPathByConfig(const LogConfig& config, bool inVendor) {
    if (!config.folderPath.empty()) return config.folderPath;
    std::string base;
    if (config.parent != nullptr) {
        base = GetFullPathByConfig(*config.parent, config.parent->inVendor);
    } else {
        base = (inVendor || config.inVendor) ? paths::kVendorLogRoot : paths::kBspLogRoot;
    }
    return base + "/" + config.folderName;
}

std::optional<LogConfig> LogManagerUtil::GetConfigByFolderName(const std::string& name,
                                                               const std::vector<LogConfig>& configs) {
    const auto matches = [&name](const LogConfig& config) {
        return config.folderName == name || GetFullPathByConfig(config, false) == name;
    };
    for (const LogConfig& top : configs) {
        if (matches(top)) return top;
        for (const LogConfig& child : top.children) {
            if (matches(child)) return child;
        }
    }
    ALOGE("[%s] ERR! config not found for %s", "GetConfigByFolderName", StringUtil::ForLog(name).c_str());
    return std::nullopt;
}

const char* LogManagerUtil::ManagedRootOf(const std::string& devicePath) {
    for (const char* root : {paths::kBspLogRoot, paths::kVendorLogRoot, paths::kSdcardDir, paths::kTracesDir}) {
        if (ConfinedPath::IsBelow(devicePath, root)) return root;
    }
    return nullptr;
}

std::string LogManagerUtil::Label(const LogConfig& config) {
    return "record \"" + StringUtil::ForLog(config.folderName.empty() ? config.folderPath : config.folderName, 256) +
           "\"";
}

std::string LogManagerUtil::Refusal(const LogConfig& config, const std::string& devicePath) {
    const std::string label = Label(config);
    const auto shown = [](const std::string& text) { return "\"" + StringUtil::ForLog(text, 256) + "\""; };
    // The names also build the record's path on the reuse partition.
    const auto plainName = [](const std::string& name) {
        return name != "." && name != ".." && name.find('/') == std::string::npos;
    };
    if (!plainName(config.folderName)) {
        return label + ": folderName " + shown(config.folderName) + " is not a plain name";
    }
    if (config.parent && !plainName(config.parent->folderName)) {
        return label + ": its parent's folderName " + shown(config.parent->folderName) + " is not a plain name";
    }
    // Even a ".." that stays inside a root is refused: a record names its
    // directory plainly or not at all.
    const std::string padded = devicePath + "/";
    if (padded.find("/../") != std::string::npos || padded.find("/./") != std::string::npos) {
        return label + ": " + shown(devicePath) + " steps through \".\" or \"..\"";
    }
    if (ManagedRootOf(devicePath) == nullptr) {
        return label + ": " + shown(devicePath) + " is not below a managed log root";
    }
    // Each limit is checked before it is shifted or multiplied, so that no
    // value wraps into a small one (a size limit of 0 bytes deletes all).
    struct Range {
        const char* field;
        uint64_t value;
        uint64_t most;
    };
    const Range ranges[] = {
        {"maxSize", config.maxSize, kMaxKiB},
        {"reuseMaxSize", config.reuseMaxSize, kMaxKiB},
        {"maxValidDay", config.maxValidDay, kMaxValidDay},
        {"compressLatestAfterSec", config.compressLatestAfterSec, kMaxDelaySec},
    };
    for (const Range& range : ranges) {
        if (range.value > range.most) {
            return label + ": " + range.field + " " + std::to_string(range.value) + " is out of range (at most " +
                   std::to_string(range.most) + ")";
        }
    }
    return "";
}

bool LogManagerUtil::ReadConfigFile(const std::string& hostPath, std::vector<LogConfig>* out, Json::Value* json,
                                    std::string* why) {
    if (out != nullptr) out->clear();
    if (json != nullptr) *json = Json::Value();
    if (why != nullptr) why->clear();
    const std::string file = "log configuration " + StringUtil::ForLog(hostPath);
    const auto fail = [why](const std::string& reason) {
        ALOGE("[%s] %s", "ReadConfigFile", reason.c_str());
        if (why != nullptr) *why = reason;
        return false;
    };

    std::string text;
    // The file may be a link into another partition.
    if (!android::base::ReadFileToString(hostPath, &text, true)) {
        return fail(file + " is not readable: " + strerror(errno));
    }
    return ParseConfigText(text, file, out, json, why);
}

bool LogManagerUtil::ParseConfigText(const std::string& text, const std::string& file, std::vector<LogConfig>* out,
                                     Json::Value* json, std::string* why) {
    if (out != nullptr) out->clear();
    if (json != nullptr) *json = Json::Value();
    if (why != nullptr) why->clear();
    const auto fail = [why](const std::string& reason) {
        ALOGE("[%s] %s", "ReadConfigFile", reason.c_str());
        if (why != nullptr) *why = reason;
        return false;
    };
    Json::Value root;
    std::string parseError;
    if (!JsonUtil::ConvertStringToJson(text, root, &parseError)) {
        return fail(file + " is not JSON: " + parseError);
    }
    if (json != nullptr) *json = root;
    if (!root.isArray()) {
        return fail(file + " is not an array of records: it is " + KindOf(root));
    }

    std::vector<LogConfig> list = GenerateConfigList(root);
    std::vector<std::string> problems;
    const bool allRead = list.size() == root.size();
    bool allNamed = true;
    for (const LogConfig& record : list) {
        if (NamesNoDirectory(record)) allNamed = false;
        for (const LogConfig& child : record.children) {
            if (NamesNoDirectory(child)) allNamed = false;
        }
    }
    if (!allRead || !allNamed) {
        list = ReadEachRecord(root, problems);
        SetParents(list);
    }
    if (out != nullptr) *out = std::move(list);
    if (problems.empty()) return true;
    std::string reason = file + ":";
    for (size_t i = 0; i < problems.size(); ++i) reason += (i == 0 ? " " : "; ") + problems[i];
    return fail(reason);
}

}  // namespace kolto
}  // namespace velmar
