#pragma once

#include "platform/binder/BpCInterface.h"
#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// Proxy of a remote ITarnisSsiIntl.
class BpTarnisSsiIntl : public ndk::BpCInterface<ITarnisSsiIntl> {
public:
    explicit BpTarnisSsiIntl(const ndk::SpAIBinder& binder) : BpCInterface(binder) {}
    ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) override;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
