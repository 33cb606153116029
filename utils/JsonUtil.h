#pragma once

#include <string>

#include <json/json.h>

namespace velmar {
namespace kolto {

// Text <-> JSON value conversions used for configuration, intent extras and
// analytics payloads.
class JsonUtil {
public:
    // Nesting deeper than this is refused before parsing. Our documents (the
    // log configuration, intent extras, analytics payloads) stay within a
    // dozen levels; the limit only keeps hostile input off the reader's
    // recursion.
    static constexpr int kMaxDepth = 64;

    // Parses `text` (comments accepted, not kept) into `out`; true when the
    // parse succeeded. Never throws. On failure `out` is null, an ERROR line
    // under "Tarnis-JsonUtil" gives the reason, and `error`, when given,
    // receives the same one-sentence reason (printable, capped in length).
    static bool ConvertStringToJson(const std::string& text, Json::Value& out, std::string* error = nullptr);
    // The compact one-line form, with the writer's trailing newline.
    static std::string ConvertJsonToString(Json::Value value);
};

}  // namespace kolto
}  // namespace velmar
