#pragma once

#include <cstddef>
#include <string>

// Strings are UTF-8 inside the daemon; classic binder interfaces carry UTF-16
// (std::u16string, the host's android::String16). These convert at the
// boundary. Malformed input never fails: a bad UTF-8 sequence or an unpaired
// surrogate becomes U+FFFD, so a hostile caller cannot make a call vanish.
namespace android {

std::u16string Utf8ToUtf16(const std::string& text);
std::string Utf16ToUtf8(const std::u16string& text);

// The length (1 to 4) of the well-formed UTF-8 sequence that starts at
// text[pos], or 0 when none does there: a stray continuation byte, an
// overlong form, a surrogate, a code point above U+10FFFF, a sequence cut
// short, or pos past the end. Writers of logs and journals use it to keep
// valid text as it is and to escape exactly the bytes that are not.
size_t Utf8SequenceLength(const std::string& text, size_t pos);

}  // namespace android
