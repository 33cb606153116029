#pragma once

#include <cstddef>
#include <string>

#include <utils/String16.h>
#include <utils/String8.h>

namespace platform {

// The length of the well-formed UTF-8 sequence at `pos`, or 0 when the bytes
// there are not one: overlong forms, surrogates and code points beyond
// U+10FFFF included, which libutils's decoder lets through. Logs and the
// journal escape what does not pass.
size_t Utf8SequenceLength(const std::string& text, size_t pos);

// Appends `text` as a JSON string (RFC 8259), for the event journal and the
// tools' output alike. Valid UTF-8 stays as it is and every other byte XX
// becomes the lone surrogate \udcXX, Python's "surrogateescape": the result
// is valid JSON in valid UTF-8, and a reader that keeps lone surrogates (or
// json.loads(line) then .encode("utf-8", "surrogateescape")) gets the bytes
// back. jsoncpp would copy such bytes through or replace them, losing them
// or the document. Valid UTF-8 never holds a surrogate, so the escape cannot
// be confused with text.
void AppendJsonString(std::string* out, const std::string& text);

// The interfaces carry UTF-16 and the daemon works in UTF-8; these convert
// whole strings, embedded NULs included.
inline std::string ToUtf8(const android::String16& text) {
    const android::String8 utf8(text);
    return std::string(utf8.string(), utf8.size());
}
inline android::String16 ToUtf16(const std::string& text) { return android::String16(text.data(), text.size()); }

}  // namespace platform
