#include <aidl/velmar/system/tarnis/common/BpTarnisSsiIntl.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

ndk::ScopedAStatus BpTarnisSsiIntl::transferMessage(const std::string& action, const std::string& json) {
    return transactCall(TRANSACTION_transferMessage, nullptr, action, json);
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
