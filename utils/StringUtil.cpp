#include "utils/StringUtil.h"

#include <algorithm>
#include <cstdint>

#include <host/Utf8.h>

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

std::string StringUtil::ForLog(const std::string& text, size_t maxBytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(std::min(text.size(), maxBytes) + 32);
    size_t pos = 0;
    while (pos < text.size()) {
        const auto lead = static_cast<uint8_t>(text[pos]);
        size_t length = platform::Utf8SequenceLength(text, pos);
        // C1 controls are valid UTF-8 but some terminals act on them
        // (U+009B starts an escape sequence), so they are escaped like C0.
        const bool c1 = length == 2 && lead == 0xC2 && static_cast<uint8_t>(text[pos + 1]) < 0xA0;
        const bool escape = length == 0 || lead < 0x20 || lead == 0x7F || c1;
        if (length == 0) length = 1;
        char piece[8];
        size_t pieceLength = 0;
        if (lead == '\\') {
            piece[pieceLength++] = '\\';
            piece[pieceLength++] = '\\';
        } else if (escape) {
            for (size_t i = 0; i < length; ++i) {
                const auto b = static_cast<uint8_t>(text[pos + i]);
                piece[pieceLength++] = '\\';
                piece[pieceLength++] = 'x';
                piece[pieceLength++] = kHex[b >> 4];
                piece[pieceLength++] = kHex[b & 0xF];
            }
        } else {
            for (size_t i = 0; i < length; ++i) piece[pieceLength++] = text[pos + i];
        }
        // Never half an escape or half a character.
        if (out.size() + pieceLength > maxBytes) break;
        out.append(piece, pieceLength);
        pos += length;
    }
    if (pos < text.size()) out += "...[" + std::to_string(text.size() - pos) + " more bytes]";
    return out;
}

}  // namespace kolto
}  // namespace velmar
