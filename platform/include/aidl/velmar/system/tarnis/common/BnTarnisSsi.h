#pragma once

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>

#include "platform/binder/BnCInterface.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// Base of ITarnisSsi implementations: unmarshals incoming calls.
class BnTarnisSsi : public ndk::BnCInterface<ITarnisSsi> {
public:
    android::status_t onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) override;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
