#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

android::status_t BnTarnisSsi::onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) {
    if (!enforce(in)) return STATUS_BAD_TYPE;
    std::string a, b, c, d;
    std::vector<std::string> list;
    int32_t n = 0;
    bool flag = false;
    ndk::ScopedAStatus status;
    switch (code) {
        case TRANSACTION_reportSimpleEvent:
            if (!readArgs(in, &n, &a)) return STATUS_BAD_VALUE;
            status = reportSimpleEvent(n, a);
            break;
        case TRANSACTION_reportEventV2:
            if (!readArgs(in, &a, &b, &c, &flag)) return STATUS_BAD_VALUE;
            status = reportEventV2(a, b, c, flag);
            break;
        case TRANSACTION_reportNativeFeatureEvent:
            if (!readArgs(in, &a, &b, &c)) return STATUS_BAD_VALUE;
            status = reportNativeFeatureEvent(a, b, c);
            break;
        case TRANSACTION_appCaptureLog:
            if (!readArgs(in, &a, &b, &c, &d)) return STATUS_BAD_VALUE;
            status = appCaptureLog(a, b, c, d);
            break;
        case TRANSACTION_reportEventsV2:
            if (!readArgs(in, &a, &list, &c, &flag)) return STATUS_BAD_VALUE;
            status = reportEventsV2(a, list, c, flag);
            break;
        case TRANSACTION_reportTrelvoEvent:
            if (!readArgs(in, &a, &b, &c, &n)) return STATUS_BAD_VALUE;
            status = reportTrelvoEvent(a, b, c, n);
            break;
        case TRANSACTION_reportTrelvoEvents:
            if (!readArgs(in, &a, &b, &list, &n)) return STATUS_BAD_VALUE;
            status = reportTrelvoEvents(a, b, list, n);
            break;
        default:
            return STATUS_UNKNOWN_TRANSACTION;
    }
    return out->writeStatus(status);
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
