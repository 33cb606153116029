#include "platform/binder/IBinder.h"

#include "platform/binder/IInterface.h"

namespace android {

sp<IInterface> IBinder::queryLocalInterface(const String16&) { return nullptr; }

}  // namespace android
