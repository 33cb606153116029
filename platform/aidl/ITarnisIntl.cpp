#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>

#include <aidl/vendor/velmar/hardware/kolto/common/BpTarnisIntl.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

std::shared_ptr<ITarnisIntl> ITarnisIntl::fromBinder(const ndk::SpAIBinder& binder) {
    return ndk::InterfaceFromBinder<ITarnisIntl, BpTarnisIntl>(binder);
}

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
