#pragma once

#include <json/json.h>

#include <string>

namespace velmar {
namespace kolto {

// Text <-> JSON value conversions used for configuration, intent extras and
// analytics payloads.
class JsonUtil {
public:
    // Parses `text` (comments not kept) into `out`; true when the parse
    // succeeded. On failure `out` holds whatever the reader had built.
    static bool ConvertStringToJson(const std::string& text, Json::Value& out);
    // The compact one-line form, with the writer's trailing newline.
    static std::string ConvertJsonToString(Json::Value value);
};

}  // namespace kolto
}  // namespace velmar
