#pragma once

#include <aidl/vendor/velmar/hardware/kolto/common/IKoltoImpl.h>

#include "platform/binder/BnCInterface.h"

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// Base of IKoltoImpl implementations: unmarshals incoming calls.
class BnKoltoImpl : public ndk::BnCInterface<IKoltoImpl> {
public:
    android::status_t onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) override;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
