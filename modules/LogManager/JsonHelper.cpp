#include "modules/LogManager/JsonHelper.h"

#include <limits>

#include "utils/JsonUtil.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

// A wrong value is quoted in the reason; an object may be long.
constexpr size_t kMaxShownBytes = 80;

std::string Shown(const Json::Value& value) {
    std::string text = JsonUtil::ConvertJsonToString(value);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return StringUtil::ForLog(text, kMaxShownBytes);
}

// Points `value` at member `name` of `record`, or sets it null when the
// member is to keep its default (a null record, an absent member).
bool FindMember(const Json::Value& record, const std::string& name, const Json::Value*& value, std::string* why) {
    value = nullptr;
    if (record.isNull()) return true;
    if (!record.isObject()) {
        if (why != nullptr) *why = "the record is not a JSON object but " + Shown(record);
        return false;
    }
    if (record.isMember(name)) value = &record[name];
    return true;
}

bool WrongType(const std::string& name, const std::string& expected, const Json::Value& value, std::string* why) {
    if (why != nullptr) {
        *why = "member \"" + name + "\" has the wrong type: " + name + " must be " + expected + ", not " +
               Shown(value);
    }
    return false;
}

// ` (folderName "x")` when the record names its folder, to find it in the file.
std::string Label(const Json::Value& record) {
    if (!record.isObject() || !record.isMember("folderName") || !record["folderName"].isString()) return "";
    return " (folderName \"" + StringUtil::ForLog(record["folderName"].asString(), kMaxShownBytes) + "\")";
}

// Reads `array` element by element into `out`; `open` and `close` around
// the index name the element in `why`.
bool ReadRecords(std::vector<LogConfig>& out, const Json::Value& array, const std::string& open,
                 const std::string& close, std::string* why) {
    std::vector<std::string> names = LogConfig::MemberNames();
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        const Json::Value& element = array[i];
        LogConfig record;
        std::string reason;
        // The reader only looks: no write reaches the caller's document.
        if (!record.TARNIS_CONVER_JSON_TO_OBJECT(const_cast<Json::Value&>(element), names, &reason)) {
            if (why != nullptr) *why = open + std::to_string(i) + close + Label(element) + ": " + reason;
            return false;
        }
        out.push_back(std::move(record));
    }
    return true;
}

}  // namespace

std::vector<std::string> JsonHelper::StringSplit(const std::string& text, const std::string& separator) {
    if (separator.empty()) return {text};
    std::vector<std::string> pieces;
    size_t start = 0;
    for (size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, start)) {
        pieces.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

std::string JsonHelper::StringTrim(const std::string& text) {
    static constexpr char kBlanks[] = " \t\r\n\f\v";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool JsonHelper::JsonToObject(std::vector<LogConfig>& out, const Json::Value& array) {
    return JsonToObject(out, array, nullptr);
}

bool JsonHelper::JsonToObject(std::vector<LogConfig>& out, const Json::Value& array, std::string* why) {
    out.clear();
    if (!array.isArray()) {
        if (why != nullptr) *why = "expected an array of records, not " + Shown(array);
        return false;
    }
    return ReadRecords(out, array, "record ", "", why);
}

bool JsonHelper::WriteMembers(const Json::Value& json, const std::string& name, std::string& member,
                              std::string* why) {
    member.clear();
    const Json::Value* value = nullptr;
    if (!FindMember(json, name, value, why)) return false;
    if (value == nullptr) return true;
    switch (value->type()) {
        case Json::nullValue:
            return true;
        case Json::stringValue:
            member = value->asString();
            return true;
        // Kept as written so that a record may carry structured settings in a string member.
        case Json::objectValue:
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            member = JsonUtil::ConvertJsonToString(*value);
            return true;
        default:
            return WrongType(name, "a string, an object or a number", *value, why);
    }
}

bool JsonHelper::WriteMembers(const Json::Value& json, const std::string& name, bool& member, std::string* why) {
    const Json::Value* value = nullptr;
    if (!FindMember(json, name, value, why)) return false;
    if (value == nullptr) return true;
    if (!value->isBool()) return WrongType(name, "true or false", *value, why);
    member = value->asBool();
    return true;
}

bool JsonHelper::WriteMembers(const Json::Value& json, const std::string& name, uint64_t& member,
                              std::string* why) {
    const Json::Value* value = nullptr;
    if (!FindMember(json, name, value, why)) return false;
    if (value == nullptr) return true;
    if (!value->isUInt64()) {
        return WrongType(name,
                         "a whole number from 0 to " + std::to_string(std::numeric_limits<uint64_t>::max()),
                         *value, why);
    }
    member = value->asUInt64();
    return true;
}

bool JsonHelper::WriteMembers(const Json::Value& json, const std::string& name, uint32_t& member,
                              std::string* why) {
    const Json::Value* value = nullptr;
    if (!FindMember(json, name, value, why)) return false;
    if (value == nullptr) return true;
    if (!value->isUInt()) {
        return WrongType(name,
                         "a whole number from 0 to " + std::to_string(std::numeric_limits<uint32_t>::max()),
                         *value, why);
    }
    member = value->asUInt();
    return true;
}

bool JsonHelper::WriteMembers(const Json::Value& json, const std::string& name, std::vector<LogConfig>& member,
                              std::string* why) {
    const Json::Value* value = nullptr;
    if (!FindMember(json, name, value, why)) return false;
    if (value == nullptr) return true;
    if (!value->isArray()) return WrongType(name, "an array of records", *value, why);
    member.clear();
    return ReadRecords(member, *value, name + "[", "]", why);
}

bool JsonHelper::ReadMembers(Json::Value& json, const std::string& name, const std::string& member) {
    if (!json.isNull() && !json.isObject()) return false;
    json[name] = member;
    return true;
}

bool JsonHelper::ReadMembers(Json::Value& json, const std::string& name, const char* member) {
    return ReadMembers(json, name, std::string(member != nullptr ? member : ""));
}

bool JsonHelper::ReadMembers(Json::Value& json, const std::string& name, int64_t member) {
    if (!json.isNull() && !json.isObject()) return false;
    json[name] = static_cast<Json::Int64>(member);
    return true;
}

bool JsonHelper::ReadMembers(Json::Value& json, const std::string& name, bool member) {
    if (!json.isNull() && !json.isObject()) return false;
    json[name] = member;
    return true;
}

}  // namespace kolto
}  // namespace velmar
