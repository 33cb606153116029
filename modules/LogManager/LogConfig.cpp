#include "modules/LogManager/LogConfig.h"

#include <exception>

#include "modules/LogManager/JsonHelper.h"

namespace velmar {
namespace kolto {
namespace {

// One text so that the key list and the member list are read side by side.
constexpr char kMemberNames[] =
    "folderName, folderPath, children, compress, delayCompress, pushEventOnly, watchSSRRamdumpHack, "
    "inVendor, maxSize, reuseMaxSize, maxValidDay, compressLatestAfterSec, maxLogNumber";
constexpr size_t kMemberCount = 13;

}  // namespace

const std::vector<std::string>& LogConfig::MemberNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const std::string& piece : JsonHelper::StringSplit(kMemberNames, ",")) {
            out.push_back(JsonHelper::StringTrim(piece));
        }
        return out;
    }();
    return names;
}

bool LogConfig::TARNIS_CONVER_JSON_TO_OBJECT(Json::Value& json, std::vector<std::string>& names) {
    return TARNIS_CONVER_JSON_TO_OBJECT(json, names, nullptr);
}

bool LogConfig::TARNIS_CONVER_JSON_TO_OBJECT(Json::Value& json, std::vector<std::string>& names, std::string* why) {
    if (names.size() != kMemberCount) {
        if (why != nullptr) {
            *why = "the record reader was given " + std::to_string(names.size()) + " member names, not " +
                   std::to_string(kMemberCount);
        }
        return false;
    }
    // Read through a const view: the non-const operator[] would add every
    // absent key to the caller's document.
    const Json::Value& record = json;
    try {
        return JsonHelper::WriteMembers(record, names[0], folderName, why) &&
               JsonHelper::WriteMembers(record, names[1], folderPath, why) &&
               JsonHelper::WriteMembers(record, names[2], children, why) &&
               JsonHelper::WriteMembers(record, names[3], compress, why) &&
               JsonHelper::WriteMembers(record, names[4], delayCompress, why) &&
               JsonHelper::WriteMembers(record, names[5], pushEventOnly, why) &&
               JsonHelper::WriteMembers(record, names[6], watchSSRRamdumpHack, why) &&
               JsonHelper::WriteMembers(record, names[7], inVendor, why) &&
               JsonHelper::WriteMembers(record, names[8], maxSize, why) &&
               JsonHelper::WriteMembers(record, names[9], reuseMaxSize, why) &&
               JsonHelper::WriteMembers(record, names[10], maxValidDay, why) &&
               JsonHelper::WriteMembers(record, names[11], compressLatestAfterSec, why) &&
               JsonHelper::WriteMembers(record, names[12], maxLogNumber, why);
    } catch (const std::exception& e) {
        // The types are checked before every read; this only keeps a jsoncpp
        // surprise from ending the daemon over a configuration file.
        if (why != nullptr) *why = std::string("the JSON library failed: ") + e.what();
        return false;
    }
}

}  // namespace kolto
}  // namespace velmar
