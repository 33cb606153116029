#include <aidl/vendor/velmar/hardware/kolto/common/BpTarnisIntl.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

ndk::ScopedAStatus BpTarnisIntl::transferMessage(const std::string& action, const std::string& json) {
    return transactCall(TRANSACTION_transferMessage, nullptr, action, json);
}

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
