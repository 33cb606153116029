#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {

std::string StringUtil::TrimStr(const std::string& s, char c) {
    const size_t first = s.find_first_not_of(c);
    if (first == std::string::npos) return std::string();
    const size_t last = s.find_last_not_of(c);
    return s.substr(first, last - first + 1);
}

bool StringUtil::StartsWith(const std::string& s, const std::string& prefix) {
    return prefix.size() <= s.size() && s.compare(0, prefix.size(), prefix) == 0;
}

bool StringUtil::EndsWith(const std::string& s, const std::string& suffix) {
    return suffix.size() <= s.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void StringUtil::getTailPath(std::string& path, int n) {
    if (n < 1 || path.empty()) return;
    size_t slash = std::string::npos;
    size_t searchFrom = path.size() - 1;
    for (int found = 0; found < n; ++found) {
        slash = path.rfind('/', searchFrom);
        if (slash == std::string::npos) return;  // fewer than n slashes
        if (found + 1 < n) {
            if (slash == 0) return;
            searchFrom = slash - 1;
        }
    }
    path.erase(0, slash + 1);
    // Packaging inserts a doubled slash on purpose so that a file keeps only
    // its bare name; drop that one extra separator.
    if (!path.empty() && path[0] == '/') path.erase(0, 1);
}

}  // namespace kolto
}  // namespace velmar
