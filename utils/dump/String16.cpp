#include "utils/dump/String16.h"

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

void AppendUtf16(String16* out, char32_t cp) {
    if (cp < 0x10000) {
        out->push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

}  // namespace

std::string String8(const String16& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t unit = text[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            AppendUtf8(&out, 0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            AppendUtf8(&out, kReplacement);
        } else {
            AppendUtf8(&out, unit);
        }
    }
    return out;
}

String16 String16FromUtf8(const std::string& text) {
    String16 out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        size_t extra = 0;
        char32_t cp = 0;
        char32_t min = 0;
        if (lead < 0x80) {
            cp = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            extra = 1, cp = lead & 0x1F, min = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, cp = lead & 0x0F, min = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, cp = lead & 0x07, min = 0x10000;
        } else {
            AppendUtf16(&out, kReplacement);
            ++i;
            continue;
        }
        size_t j = 1;
        for (; j <= extra && i + j < text.size(); ++j) {
            const unsigned char next = static_cast<unsigned char>(text[i + j]);
            if ((next & 0xC0) != 0x80) break;
            cp = (cp << 6) | (next & 0x3F);
        }
        if (j != extra + 1 || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            AppendUtf16(&out, kReplacement);
            i += j;
            continue;
        }
        AppendUtf16(&out, cp);
        i += extra + 1;
    }
    return out;
}

}  // namespace android
