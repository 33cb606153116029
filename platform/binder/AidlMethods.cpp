#include "platform/binder/AidlMethods.h"


namespace android {
namespace {

struct Method {
    const char* descriptor;
    uint32_t code;
    const char* name;
};

const Method kMethods[] = {
#define AIDL_METHOD(descriptor, code, name) {descriptor, code, name},
#include "aidl_methods.inc"
#undef AIDL_METHOD
};

}  // namespace

std::string AidlMethodName(const std::string& descriptor, uint32_t code) {
    for (const Method& method : kMethods) {
        if (method.code == code && descriptor == method.descriptor) return method.name;
    }
    return "";
}

}  // namespace android
