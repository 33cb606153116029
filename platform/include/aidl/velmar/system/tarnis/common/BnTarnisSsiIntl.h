#pragma once

#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>

#include "platform/binder/MessageInterface.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// Base of ITarnisSsiIntl implementations: unmarshals incoming calls.
class BnTarnisSsiIntl : public ndk::BnMessageInterface<ITarnisSsiIntl> {};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
