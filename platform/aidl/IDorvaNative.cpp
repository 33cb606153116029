#include <nuvi/dorva/IDorvaNative.h>

#include <nuvi/dorva/BpDorvaNative.h>
#include <host/Utf8.h>

namespace nuvi {
namespace dorva {

std::shared_ptr<IDorvaNative> IDorvaNative::asInterface(const android::sp<android::IBinder>& binder) {
    return ndk::ClassicInterfaceFromBinder<IDorvaNative, BpDorvaNative>(binder);
}

const android::String16& IDorvaNative::getInterfaceDescriptor() {
    static const android::String16 name = platform::ToUtf16(descriptor);
    return name;
}

}  // namespace dorva
}  // namespace nuvi
