#include <aidl/velmar/system/tarnis/common/BnTarnisSsiIntl.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

android::status_t BnTarnisSsiIntl::onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) {
    if (!enforce(in)) return STATUS_BAD_TYPE;
    if (code != TRANSACTION_transferMessage) return STATUS_UNKNOWN_TRANSACTION;
    std::string action, json;
    if (!readArgs(in, &action, &json)) return STATUS_BAD_VALUE;
    return out->writeStatus(transferMessage(action, json));
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
