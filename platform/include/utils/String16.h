#pragma once

#include <string>
#include <vector>

// Classic binder hands the capture code UTF-16 strings and vectors of them.
// On the host they are plain standard containers; the capture code works on
// UTF-8 and converts once, at its entry points.
namespace android {

using String16 = std::u16string;
template <typename T>
using Vector = std::vector<T>;

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string String8(const String16& text);
// UTF-8 to UTF-16; a malformed sequence becomes U+FFFD.
String16 String16FromUtf8(const std::string& text);

}  // namespace android
