#pragma once

#include <aidl/velmar/system/tarnis/common/BnTarnisSsiIntl.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// The internal message service: the vendor peer's broadcasts come in here.
class TarnisInternal : public BnTarnisSsiIntl {
public:
    ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) override;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
