#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "modules/LogManager/LogConfig.h"

namespace velmar {
namespace kolto {

// Reading records out of JSON and writing event fields into it. Nothing here
// throws on unexpected input: a value of the wrong kind makes the call
// return false and, where a `why` is taken, a sentence naming the member.
class JsonHelper {
public:
    // The pieces between each `separator` (n separators give n + 1 pieces,
    // empty ones included); the whole text when the separator is empty.
    static std::vector<std::string> StringSplit(const std::string& text, const std::string& separator);
    // A copy without leading and trailing blanks (spaces, tabs, line ends).
    static std::string StringTrim(const std::string& text);

    // Clears `out`, then appends the record of each element of `array` in
    // order. False when `array` is not an array, or at the first element
    // that cannot be read (the records before it stay in `out`).
    static bool JsonToObject(std::vector<LogConfig>& out, const Json::Value& array);
    // The same; on failure `why` names the element (0-based) and the reason.
    static bool JsonToObject(std::vector<LogConfig>& out, const Json::Value& array, std::string* why);

    // Reads member `name` of the record `json` into `member`. A null record
    // or an absent member leaves `member` at its default and succeeds; a
    // record that is not an object fails.
    // Strings: a string as is; an object or a number as its compact JSON
    // text (with the writer's trailing newline); null as empty.
    static bool WriteMembers(const Json::Value& json, const std::string& name, std::string& member,
                             std::string* why = nullptr);
    // Only true or false.
    static bool WriteMembers(const Json::Value& json, const std::string& name, bool& member,
                             std::string* why = nullptr);
    // Whole numbers that fit, integral doubles such as 1.0 included.
    static bool WriteMembers(const Json::Value& json, const std::string& name, uint64_t& member,
                             std::string* why = nullptr);
    static bool WriteMembers(const Json::Value& json, const std::string& name, uint32_t& member,
                             std::string* why = nullptr);
    // An array of records, each read by these same rules.
    static bool WriteMembers(const Json::Value& json, const std::string& name, std::vector<LogConfig>& member,
                             std::string* why = nullptr);

    // Sets `json[name]` to the value, replacing what was there. A null
    // `json` becomes an object; false (and `json` unchanged) when it is
    // neither null nor an object.
    static bool ReadMembers(Json::Value& json, const std::string& name, const std::string& member);
    // Without this a string literal would pick the bool overload.
    static bool ReadMembers(Json::Value& json, const std::string& name, const char* member);
    static bool ReadMembers(Json::Value& json, const std::string& name, int64_t member);
    static bool ReadMembers(Json::Value& json, const std::string& name, bool member);
};

}  // namespace kolto
}  // namespace velmar
