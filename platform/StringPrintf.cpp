#include <cstdio>

#include <android-base/stringprintf.h>

namespace android {
namespace base {

void StringAppendV(std::string* dst, const char* fmt, va_list ap) {
    char small[256];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof(small)) {
        dst->append(small, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    va_copy(copy, ap);
    vsnprintf(&big[0], big.size(), fmt, copy);
    va_end(copy);
    dst->append(big.data(), static_cast<size_t>(n));
}

std::string StringPrintf(const char* fmt, ...) {
    std::string out;
    va_list ap;
    va_start(ap, fmt);
    StringAppendV(&out, fmt, ap);
    va_end(ap);
    return out;
}

void StringAppendF(std::string* dst, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    StringAppendV(dst, fmt, ap);
    va_end(ap);
}

}  // namespace base
}  // namespace android
