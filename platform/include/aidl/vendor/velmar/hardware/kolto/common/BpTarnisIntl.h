#pragma once

#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>

#include "platform/binder/MessageInterface.h"

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// Proxy of a remote ITarnisIntl.
class BpTarnisIntl : public ndk::BpMessageInterface<ITarnisIntl> {
public:
    using BpMessageInterface::BpMessageInterface;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
