#define LOG_TAG "Tarnis-JsonUtil"

#include "utils/JsonUtil.h"

#include <exception>

#include <log/log.h>

#include "utils/StringUtil.h"

// The peer daemon and the analytics back end compare our JSON text byte for
// byte with what the classic Reader/FastWriter pair produces (trailing newline
// included), so we keep using them although jsoncpp marks them deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace velmar {
namespace kolto {
namespace {

// The reason quotes bits of the input (jsoncpp names the bad token), so it is
// kept short.
constexpr size_t kMaxReasonBytes = 256;

// The offset of the bracket that first opens more than kMaxDepth levels, or
// npos. jsoncpp's reader recurses once per level and throws past its own
// limit, which would end the daemon; this scan lexes strings and comments as
// that reader does, so brackets inside them do not count and the depth seen
// here is the depth the reader would reach before it gives up on an error.
size_t FindExcessNesting(const std::string& text) {
    const size_t n = text.size();
    int depth = 0;
    size_t i = 0;
    while (i < n) {
        const char c = text[i];
        if (c == '"') {
            // A backslash takes the next byte with it, whatever it is.
            for (++i; i < n && text[i] != '"'; ++i) {
                if (text[i] == '\\') ++i;
            }
            ++i;
        } else if (c == '/' && i + 1 < n && text[i + 1] == '/') {
            i = text.find_first_of("\r\n", i + 2);
            if (i == std::string::npos) return std::string::npos;
        } else if (c == '/' && i + 1 < n && text[i + 1] == '*') {
            i = text.find("*/", i + 2);
            if (i == std::string::npos) return std::string::npos;  // the reader stops there too
            i += 2;
        } else {
            if (c == '[' || c == '{') {
                if (++depth > JsonUtil::kMaxDepth) return i;
            } else if ((c == ']' || c == '}') && depth > 0) {
                --depth;
            }
            ++i;
        }
    }
    return std::string::npos;
}

std::string FirstError(const Json::Reader& reader) {
    const auto errors = reader.getStructuredErrors();
    if (errors.empty()) return "not valid JSON";
    return "not valid JSON at byte " + std::to_string(errors.front().offset_start) + ": " +
           errors.front().message;
}

}  // namespace

bool JsonUtil::ConvertStringToJson(const std::string& text, Json::Value& out, std::string* error) {
    std::string reason;
    const size_t deepAt = FindExcessNesting(text);
    if (deepAt != std::string::npos) {
        reason = "nesting deeper than " + std::to_string(kMaxDepth) + " levels at byte " + std::to_string(deepAt);
    } else {
        try {
            Json::Reader reader;
            if (reader.parse(text, out, false)) return true;
            reason = FirstError(reader);
        } catch (const std::exception& e) {
            // Nothing known throws once the depth is bounded; the reader is a
            // library we do not control, and a peer must not end the daemon.
            reason = std::string("the JSON reader failed: ") + e.what();
        }
    }
    out = Json::Value();
    reason = StringUtil::ForLog(reason, kMaxReasonBytes);
    ALOGE("[%s] %s", "ConvertStringToJson", reason.c_str());
    if (error != nullptr) *error = reason;
    return false;
}

std::string JsonUtil::ConvertJsonToString(Json::Value value) {
    Json::FastWriter writer;
    return writer.write(value);
}

}  // namespace kolto
}  // namespace velmar

#pragma GCC diagnostic pop
