// Feeds arbitrary text to the daemon's one JSON reader (peer broadcasts, the
// log configuration, anything read from outside). It must never throw or
// crash; what it accepts must survive a write and a second read: the written
// text parses again and writes back identically, and when every string of the
// document is valid UTF-8 (the writer escapes anything else as U+FFFD) the
// second reading is the same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <log/log.h>
#include <host/Utf8.h>

#include "fuzz/QuietLog.h"
#include "utils/JsonUtil.h"

namespace {

bool IsUtf8(const std::string& text) {
    for (size_t pos = 0; pos < text.size();) {
        const size_t length = platform::Utf8SequenceLength(text, pos);
        if (length == 0) return false;
        pos += length;
    }
    return true;
}

bool StringsAreUtf8(const Json::Value& value) {
    if (value.isString()) return IsUtf8(value.asString());
    if (value.isArray()) {
        for (const Json::Value& item : value) {
            if (!StringsAreUtf8(item)) return false;
        }
    } else if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            if (!IsUtf8(name) || !StringsAreUtf8(value[name])) return false;
        }
    }
    return true;
}

// The writer replaces bytes that are not UTF-8 with U+FFFD; in a member name
// that changes where the member sorts, so such a document is written in a
// different order the second time.
bool NamesAreUtf8(const Json::Value& value) {
    if (value.isArray()) {
        for (const Json::Value& item : value) {
            if (!NamesAreUtf8(item)) return false;
        }
    } else if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            if (!IsUtf8(name) || !NamesAreUtf8(value[name])) return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    using velmar::kolto::JsonUtil;
    const std::string text(reinterpret_cast<const char*>(data), size);
    Json::Value value;
    std::string error;
    if (!JsonUtil::ConvertStringToJson(text, value, &error)) {
        if (!value.isNull() || error.empty()) abort();
        return 0;
    }
    const std::string written = JsonUtil::ConvertJsonToString(value);
    Json::Value again;
    if (!JsonUtil::ConvertStringToJson(written, again)) abort();
    if (!NamesAreUtf8(value)) return 0;
    if (JsonUtil::ConvertJsonToString(again) != written) abort();
    if (StringsAreUtf8(value) && !(again == value)) abort();
    return 0;
}
