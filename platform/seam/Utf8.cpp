#include "host/Utf8.h"

#include <cstdint>

namespace platform {

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

void AppendJsonString(std::string* out, const std::string& text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out->push_back('"');
    size_t pos = 0;
    while (pos < text.size()) {
        const auto byte = static_cast<unsigned char>(text[pos]);
        const size_t length = Utf8SequenceLength(text, pos);
        if (length == 0) {
            *out += "\\udc";
            out->push_back(kHex[byte >> 4]);
            out->push_back(kHex[byte & 0xF]);
            ++pos;
            continue;
        }
        switch (byte) {
            case '"': *out += "\\\""; break;
            case '\\': *out += "\\\\"; break;
            case '\b': *out += "\\b"; break;
            case '\f': *out += "\\f"; break;
            case '\n': *out += "\\n"; break;
            case '\r': *out += "\\r"; break;
            case '\t': *out += "\\t"; break;
            default:
                if (byte < 0x20) {
                    *out += "\\u00";
                    out->push_back(kHex[byte >> 4]);
                    out->push_back(kHex[byte & 0xF]);
                } else {
                    out->append(text, pos, length);
                }
                break;
        }
        pos += length;
    }
    out->push_back('"');
}

}  // namespace platform
