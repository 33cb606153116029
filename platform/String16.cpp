#include <utils/String16.h>

#include <utils/Unicode.h>

namespace android {

// One converter for the whole daemon: the binder boundary and the capture
// code must agree on what a malformed string becomes.
std::string String8(const String16& text) { return android::Utf16ToUtf8(text); }

String16 String16FromUtf8(const std::string& text) { return android::Utf8ToUtf16(text); }

}  // namespace android
