#pragma once

#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>

#include "platform/binder/MessageInterface.h"

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// Base of ITarnisIntl implementations: unmarshals incoming calls.
class BnTarnisIntl : public ndk::BnMessageInterface<ITarnisIntl> {};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
