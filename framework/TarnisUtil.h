#pragma once

#include <memory>

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>
#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>

namespace velmar {
namespace kolto {

// Process-wide handles of the daemon's own services and of the vendor peer's.
// Start-up stores the daemon's local objects, so in-process callers reach
// them directly; while a handle is empty every call looks the service up.
class TarnisUtil {
public:
    using ITarnisSsi = aidl::velmar::system::tarnis::common::ITarnisSsi;
    using ITarnisSsiIntl = aidl::velmar::system::tarnis::common::ITarnisSsiIntl;
    using ITarnisIntl = aidl::vendor::velmar::hardware::kolto::common::ITarnisIntl;

    // The cached handle, else the service from the service manager: empty at
    // once when it is not declared, else after waiting for it to run.
    static std::shared_ptr<ITarnisSsi> GetTarnisSsiAidl();
    static std::shared_ptr<ITarnisIntl> GetTarnisIntl();
    static std::shared_ptr<ITarnisSsiIntl> GetTarnisSsiIntl();

    static void SetTarnisSsiAidl(std::shared_ptr<ITarnisSsi> handle);
    static void SetTarnisSsiIntl(std::shared_ptr<ITarnisSsiIntl> handle);
    // True when this end holds the system internal service: it is the system
    // daemon and its peer is the vendor one.
    static bool HasTarnisSsiIntl();
};

}  // namespace kolto
}  // namespace velmar
