#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>

#include <aidl/velmar/system/tarnis/common/BpTarnisSsi.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

std::shared_ptr<ITarnisSsi> ITarnisSsi::fromBinder(const ndk::SpAIBinder& binder) {
    return ndk::InterfaceFromBinder<ITarnisSsi, BpTarnisSsi>(binder);
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
