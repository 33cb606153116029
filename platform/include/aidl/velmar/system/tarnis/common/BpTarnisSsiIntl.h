#pragma once

#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>

#include "platform/binder/MessageInterface.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// Proxy of a remote ITarnisSsiIntl.
class BpTarnisSsiIntl : public ndk::BpMessageInterface<ITarnisSsiIntl> {
public:
    using BpMessageInterface::BpMessageInterface;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
