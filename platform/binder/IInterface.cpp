#include "platform/binder/IInterface.h"

namespace android {

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    return iface == nullptr ? nullptr : const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) { return asBinder(iface.get()); }

}  // namespace android
