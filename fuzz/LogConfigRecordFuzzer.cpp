// Feeds arbitrary text to the reader of the log configuration, as the file
// would hold it (an array of records) and as an append broadcast carries it
// (an array, or one record object). Nothing may throw or crash. What the
// reader keeps names a directory, every child knows its parent, and a clean
// read keeps every record with exactly the values written: a number is taken
// only when it fits its member (0 to 2^64-1, or 0 to 2^32-1), whatever its
// spelling (1e3, 4294967295.0, -0), and a wrong kind is never taken.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/LogManager/LogConfig.h"
#include "modules/LogManager/LogManagerUtil.h"

namespace {

using velmar::kolto::LogConfig;
using velmar::kolto::LogManagerUtil;

// Whether `value` is a whole number from 0 to `max`, judged from the value's
// own kind rather than by the library's range helpers the reader uses.
bool Fits(const Json::Value& value, uint64_t max) {
    switch (value.type()) {
        case Json::intValue:
            return value.asLargestInt() >= 0 && static_cast<uint64_t>(value.asLargestInt()) <= max;
        case Json::uintValue:
            return value.asLargestUInt() <= max;
        case Json::realValue: {
            const double d = value.asDouble();
            // 2^64 itself is the first double past the unsigned 64-bit range.
            const double limit = max == std::numeric_limits<uint64_t>::max() ? 18446744073709551616.0
                                                                              : static_cast<double>(max) + 1.0;
            return d >= 0.0 && d < limit && std::floor(d) == d;
        }
        default:
            return false;
    }
}

// Whether the reader must take `json` as a record: every member it knows is
// of a kind that member takes, children included. Unknown members do not count.
bool Acceptable(const Json::Value& json) {
    if (json.isNull()) return true;
    if (!json.isObject()) return false;
    for (const char* key : {"folderName", "folderPath"}) {
        if (!json.isMember(key)) continue;
        // Text as it is; an object or a number as its JSON text; null as empty.
        const Json::ValueType type = json[key].type();
        if (type == Json::booleanValue || type == Json::arrayValue) return false;
    }
    for (const char* key : {"compress", "delayCompress", "pushEventOnly", "watchSSRRamdumpHack", "inVendor"}) {
        if (json.isMember(key) && !json[key].isBool()) return false;
    }
    for (const char* key : {"maxSize", "reuseMaxSize"}) {
        if (json.isMember(key) && !Fits(json[key], std::numeric_limits<uint64_t>::max())) return false;
    }
    for (const char* key : {"maxValidDay", "compressLatestAfterSec", "maxLogNumber"}) {
        if (json.isMember(key) && !Fits(json[key], std::numeric_limits<uint32_t>::max())) return false;
    }
    if (json.isMember("children")) {
        const Json::Value& children = json["children"];
        if (!children.isArray()) return false;
        for (const Json::Value& child : children) {
            if (!Acceptable(child)) return false;
        }
    }
    return true;
}

uint64_t Whole(const Json::Value& value) {
    if (value.type() == Json::realValue) return static_cast<uint64_t>(value.asDouble());
    return value.asLargestUInt();
}

// A clean read kept `record` from `json` with the written values.
void CheckRecord(const LogConfig& record, const Json::Value& json) {
    if (json.isNull()) return;
    if (!json.isObject()) abort();
    const struct {
        const char* key;
        uint64_t max;
        uint64_t got;
    } numbers[] = {
        {"maxSize", std::numeric_limits<uint64_t>::max(), record.maxSize},
        {"reuseMaxSize", std::numeric_limits<uint64_t>::max(), record.reuseMaxSize},
        {"maxValidDay", std::numeric_limits<uint32_t>::max(), record.maxValidDay},
        {"compressLatestAfterSec", std::numeric_limits<uint32_t>::max(), record.compressLatestAfterSec},
        {"maxLogNumber", std::numeric_limits<uint32_t>::max(), record.maxLogNumber},
    };
    for (const auto& number : numbers) {
        if (!json.isMember(number.key)) {
            if (number.got != 0) abort();
            continue;
        }
        const Json::Value& value = json[number.key];
        if (!Fits(value, number.max) || Whole(value) != number.got) abort();
    }
    const struct {
        const char* key;
        bool got;
    } flags[] = {
        {"compress", record.compress},
        {"delayCompress", record.delayCompress},
        {"pushEventOnly", record.pushEventOnly},
        {"watchSSRRamdumpHack", record.watchSSRRamdumpHack},
        {"inVendor", record.inVendor},
    };
    for (const auto& flag : flags) {
        if (!json.isMember(flag.key)) {
            if (flag.got) abort();
            continue;
        }
        if (!json[flag.key].isBool() || json[flag.key].asBool() != flag.got) abort();
    }
    if (json.isMember("folderName") && json["folderName"].isString() &&
        json["folderName"].asString() != record.folderName) {
        abort();
    }
    if (json.isMember("children")) {
        const Json::Value& children = json["children"];
        if (!children.isArray() || children.size() != record.children.size()) abort();
        for (Json::ArrayIndex i = 0; i < children.size(); ++i) CheckRecord(record.children[i], children[i]);
    } else if (!record.children.empty()) {
        abort();
    }
}

bool NamesDirectory(const LogConfig& record) { return !record.folderName.empty() || !record.folderPath.empty(); }

// Every record of the list can be found again by its own directory, and a
// child's directory lies below its parent's unless it names its own path.
void CheckLookups(const std::vector<LogConfig>& list) {
    for (const LogConfig& top : list) {
        if (top.parent != nullptr) abort();
        const std::string topPath = LogManagerUtil::GetFullPathByConfig(top, false);
        if (topPath.empty() || !LogManagerUtil::GetConfigByFolderName(topPath, list)) abort();
        for (const LogConfig& child : top.children) {
            if (child.parent == nullptr || child.parent->folderName != top.folderName ||
                child.parent->folderPath != top.folderPath || !child.parent->children.empty()) {
                abort();
            }
            const std::string childPath = LogManagerUtil::GetFullPathByConfig(child, false);
            if (child.folderPath.empty() &&
                childPath != LogManagerUtil::GetFullPathByConfig(top, top.inVendor) + "/" + child.folderName) {
                abort();
            }
            if (!LogManagerUtil::GetConfigByFolderName(childPath, list)) abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    const std::string text(reinterpret_cast<const char*>(data), size);

    // The file.
    std::vector<LogConfig> list;
    Json::Value root;
    std::string why;
    const bool clean = LogManagerUtil::ParseConfigText(text, "fuzz input", &list, &root, &why);
    if (clean != why.empty()) abort();
    if (!root.isArray()) {
        if (clean || !list.empty()) abort();
    } else {
        if (list.size() > root.size()) abort();
        for (const LogConfig& record : list) {
            if (!NamesDirectory(record)) abort();
            for (const LogConfig& child : record.children) {
                if (!NamesDirectory(child)) abort();
            }
        }
        if (clean) {
            if (list.size() != root.size()) abort();
            for (const Json::Value& element : root) {
                if (!Acceptable(element)) abort();
            }
            for (Json::ArrayIndex i = 0; i < root.size(); ++i) CheckRecord(list[i], root[i]);
        }
        // Each lookup walks the whole list; long lists only slow the search down.
        if (list.size() <= 64) CheckLookups(list);

        // An appended array: every record up to the first that cannot be read.
        const std::vector<LogConfig> appended = LogManagerUtil::GenerateConfigList(root);
        Json::ArrayIndex readable = 0;
        while (readable < root.size() && Acceptable(root[readable])) ++readable;
        if (appended.size() != readable) abort();
        for (size_t i = 0; i < appended.size(); ++i) CheckRecord(appended[i], root[static_cast<Json::ArrayIndex>(i)]);
    }

    // An appended single record.
    if (root.isObject()) {
        LogConfig record;
        std::vector<std::string> names = LogConfig::MemberNames();
        std::string reason;
        Json::Value copy = root;
        const bool read = record.TARNIS_CONVER_JSON_TO_OBJECT(copy, names, &reason);
        if (read != Acceptable(root)) abort();
        if (read) {
            if (!reason.empty()) abort();
            CheckRecord(record, root);
        } else if (reason.empty()) {
            abort();
        }
        // The reader only looks.
        if (!(copy == root)) abort();
    }
    return 0;
}
