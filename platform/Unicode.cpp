#include <utils/Unicode.h>

#include <cstdint>

namespace android {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string* out, char32_t cp) {
    if (cp < 0x80) {
        out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

std::u16string Utf8ToUtf16(const std::string& text) {
    std::u16string out;
    out.reserve(text.size());
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    size_t n = text.size();
    size_t i = 0;
    while (i < n) {
        uint8_t b = s[i];
        char32_t cp;
        size_t len;
        char32_t min;
        if (b < 0x80) {
            out.push_back(b);
            ++i;
            continue;
        } else if ((b & 0xE0) == 0xC0) {
            cp = b & 0x1F, len = 2, min = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            cp = b & 0x0F, len = 3, min = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            cp = b & 0x07, len = 4, min = 0x10000;
        } else {
            out.push_back(kReplacement);
            ++i;
            continue;
        }
        size_t j = 1;
        for (; j < len && i + j < n && (s[i + j] & 0xC0) == 0x80; ++j) cp = (cp << 6) | (s[i + j] & 0x3F);
        if (j < len) {
            // Truncated sequence: replace what we consumed, resync on the next byte.
            out.push_back(kReplacement);
            i += j;
            continue;
        }
        i += len;
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            out.push_back(kReplacement);
        } else if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

std::string Utf16ToUtf8(const std::u16string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = kReplacement;
        }
        AppendUtf8(&out, c);
    }
    return out;
}

size_t Utf8SequenceLength(const std::string& text, size_t pos) {
    if (pos >= text.size()) return 0;
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[pos + i]); };
    const uint8_t lead = byte(0);
    if (lead < 0x80) return 1;
    size_t len;
    // The second byte's range is where overlong forms, surrogates and code
    // points beyond U+10FFFF are told apart from good sequences.
    uint8_t low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        len = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        len = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        len = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (text.size() - pos < len) return 0;
    if (byte(1) < low || byte(1) > high) return 0;
    for (size_t i = 2; i < len; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    return len;
}

}  // namespace android
