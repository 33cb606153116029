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

// The interfaces carry UTF-16 and the daemon works in UTF-8; these convert
// whole strings, embedded NULs included.
inline std::string ToUtf8(const android::String16& text) {
    const android::String8 utf8(text);
    return std::string(utf8.string(), utf8.size());
}
inline android::String16 ToUtf16(const std::string& text) { return android::String16(text.data(), text.size()); }

}  // namespace platform
