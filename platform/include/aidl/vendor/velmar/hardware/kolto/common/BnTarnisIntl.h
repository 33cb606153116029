#pragma once

#include "platform/binder/BnCInterface.h"
#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// Base of ITarnisIntl implementations: unmarshals incoming calls.
class BnTarnisIntl : public ndk::BnCInterface<ITarnisIntl> {
public:
    android::status_t onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) override;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
