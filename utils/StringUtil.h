#pragma once

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
};

}  // namespace kolto
}  // namespace velmar
