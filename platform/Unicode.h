#pragma once

#include <string>

// Strings are UTF-8 inside the daemon; classic binder interfaces carry UTF-16
// (std::u16string, the host's android::String16). These convert at the
// boundary. Malformed input never fails: a bad UTF-8 sequence or an unpaired
// surrogate becomes U+FFFD, so a hostile caller cannot make a call vanish.
namespace platform {

std::u16string Utf8ToUtf16(const std::string& text);
std::string Utf16ToUtf8(const std::u16string& text);

}  // namespace platform
