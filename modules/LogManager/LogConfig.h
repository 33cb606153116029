#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

namespace velmar {
namespace kolto {

// One managed log directory, as written in the log configuration (a JSON
// array of these records; the JSON keys are the member names).
struct LogConfig {
    std::string folderName;
    std::string folderPath;
    std::vector<LogConfig> children;
    bool compress = false;
    bool delayCompress = false;
    bool pushEventOnly = false;
    bool watchSSRRamdumpHack = false;
    bool inVendor = false;
    uint64_t maxSize = 0;
    uint64_t reuseMaxSize = 0;
    uint32_t maxValidDay = 0;
    uint32_t compressLatestAfterSec = 0;
    uint32_t maxLogNumber = 0;

    // The record this one sits in, null for a top-level record; set by
    // LogManagerUtil::SetParents once a whole list is read. A copy rather
    // than a pointer: lists grow (moving their records) and lookups hand out
    // copies, either of which would leave a pointer dangling. The copy has
    // no children, so that records do not hold each other.
    std::shared_ptr<const LogConfig> parent;

    // The JSON keys, in member order: the i-th name binds the i-th member.
    static const std::vector<std::string>& MemberNames();

    // Fills the record from one JSON object, the i-th of `names` naming the
    // key of the i-th member. Members are read in order and the first that
    // cannot be read fails the record (members before it keep what they
    // read). A null value leaves every member as it is. Never throws.
    bool TARNIS_CONVER_JSON_TO_OBJECT(Json::Value& json, std::vector<std::string>& names);
    // The same; on failure `why`, when given, says which member is wrong and how.
    bool TARNIS_CONVER_JSON_TO_OBJECT(Json::Value& json, std::vector<std::string>& names, std::string* why);
};

}  // namespace kolto
}  // namespace velmar
