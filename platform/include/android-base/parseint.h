#pragma once

#include <errno.h>
#include <stdlib.h>

#include <limits>
#include <string>
#include <type_traits>

// Whole-string integer parsing in libbase's shape: no exceptions, no partial
// matches, range checked. Base 0 rules (decimal, 0x hex, 0 octal).
namespace android {
namespace base {

template <typename T>
bool ParseUint(const char* s, T* out, T max = std::numeric_limits<T>::max(), bool allow_suffixes = false) {
    static_assert(std::is_unsigned<T>::value, "ParseUint takes an unsigned type");
    (void)allow_suffixes;
    while (*s == ' ' || *s == '\t') ++s;
    if (*s == '-' || *s == '\0') {
        errno = EINVAL;
        return false;
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long value = strtoull(s, &end, 0);
    if (errno != 0) return false;
    if (end == s || *end != '\0') {
        errno = EINVAL;
        return false;
    }
    if (value > max) {
        errno = ERANGE;
        return false;
    }
    if (out != nullptr) *out = static_cast<T>(value);
    return true;
}

template <typename T>
bool ParseUint(const std::string& s, T* out, T max = std::numeric_limits<T>::max(), bool allow_suffixes = false) {
    return ParseUint(s.c_str(), out, max, allow_suffixes);
}

template <typename T>
bool ParseInt(const char* s, T* out, T min = std::numeric_limits<T>::min(), T max = std::numeric_limits<T>::max()) {
    static_assert(std::is_signed<T>::value, "ParseInt takes a signed type");
    while (*s == ' ' || *s == '\t') ++s;
    if (*s == '\0') {
        errno = EINVAL;
        return false;
    }
    errno = 0;
    char* end = nullptr;
    long long value = strtoll(s, &end, 0);
    if (errno != 0) return false;
    if (end == s || *end != '\0') {
        errno = EINVAL;
        return false;
    }
    if (value < min || value > max) {
        errno = ERANGE;
        return false;
    }
    if (out != nullptr) *out = static_cast<T>(value);
    return true;
}

template <typename T>
bool ParseInt(const std::string& s, T* out, T min = std::numeric_limits<T>::min(),
              T max = std::numeric_limits<T>::max()) {
    return ParseInt(s.c_str(), out, min, max);
}

}  // namespace base
}  // namespace android
