#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>

#include <aidl/velmar/system/tarnis/common/BpTarnisSsiIntl.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

std::shared_ptr<ITarnisSsiIntl> ITarnisSsiIntl::fromBinder(const ndk::SpAIBinder& binder) {
    return ndk::InterfaceFromBinder<ITarnisSsiIntl, BpTarnisSsiIntl>(binder);
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
