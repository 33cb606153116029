#pragma once

#include <cstddef>
#include <string>

namespace velmar {
namespace kolto {

// Byte-wise string helpers shared by every module; no locale, no allocation
// beyond the returned copies.
class StringUtil {
public:
    // A copy of `s` without any leading or trailing `c`.
    static std::string TrimStr(const std::string& s, char c);
    // Byte-exact prefix / suffix tests; an empty prefix or suffix matches.
    static bool StartsWith(const std::string& s, const std::string& prefix);
    static bool EndsWith(const std::string& s, const std::string& suffix);
    // Cuts `path` in place down to its last `n` components (text after the
    // n-th "/" from the end, less one leading "/"). Left unchanged when n < 1
    // or the path holds fewer than n slashes.
    static void getTailPath(std::string& path, int n);
    // A printable copy of text that came from outside (a peer, a client, a
    // file), fit for one log line: valid UTF-8 is kept; control characters
    // (C0, DEL and C1) and bytes that are not valid UTF-8 become \xNN, and a
    // backslash is doubled, so the original bytes can always be told back.
    // The copy stops before it would grow beyond maxBytes and then ends with
    // "...[N more bytes]", N counting the bytes of `text` left out.
    static std::string ForLog(const std::string& text, size_t maxBytes = 1024);
};

}  // namespace kolto
}  // namespace velmar
