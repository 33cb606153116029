#include <aidl/vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

android::status_t BnTarnisIntl::onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) {
    if (!enforce(in)) return STATUS_BAD_TYPE;
    if (code != TRANSACTION_transferMessage) return STATUS_UNKNOWN_TRANSACTION;
    std::string action, json;
    if (!readArgs(in, &action, &json)) return STATUS_BAD_VALUE;
    return out->writeStatus(transferMessage(action, json));
}

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
