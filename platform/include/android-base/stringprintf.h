#pragma once

#include <stdarg.h>

#include <string>

// printf into a std::string, in libbase's shape.
namespace android {
namespace base {

std::string StringPrintf(const char* fmt, ...) __attribute__((__format__(__printf__, 1, 2)));
void StringAppendF(std::string* dst, const char* fmt, ...) __attribute__((__format__(__printf__, 2, 3)));
void StringAppendV(std::string* dst, const char* fmt, va_list ap) __attribute__((__format__(__printf__, 2, 0)));

}  // namespace base
}  // namespace android
