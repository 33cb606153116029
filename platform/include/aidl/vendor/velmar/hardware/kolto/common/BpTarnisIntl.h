#pragma once

#include "platform/binder/BpCInterface.h"
#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// Proxy of a remote ITarnisIntl.
class BpTarnisIntl : public ndk::BpCInterface<ITarnisIntl> {
public:
    explicit BpTarnisIntl(const ndk::SpAIBinder& binder) : BpCInterface(binder) {}
    ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) override;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
