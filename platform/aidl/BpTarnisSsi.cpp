#include <aidl/velmar/system/tarnis/common/BpTarnisSsi.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

ndk::ScopedAStatus BpTarnisSsi::reportSimpleEvent(int32_t type, const std::string& event) {
    return transactCall(TRANSACTION_reportSimpleEvent, nullptr, type, event);
}

ndk::ScopedAStatus BpTarnisSsi::reportEventV2(const std::string& a, const std::string& b,
                                              const std::string& c, bool flag) {
    return transactCall(TRANSACTION_reportEventV2, nullptr, a, b, c, flag);
}

ndk::ScopedAStatus BpTarnisSsi::reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                         const std::string& c) {
    return transactCall(TRANSACTION_reportNativeFeatureEvent, nullptr, a, b, c);
}

ndk::ScopedAStatus BpTarnisSsi::appCaptureLog(const std::string& a, const std::string& b,
                                              const std::string& c, const std::string& d) {
    return transactCall(TRANSACTION_appCaptureLog, nullptr, a, b, c, d);
}

ndk::ScopedAStatus BpTarnisSsi::reportEventsV2(const std::string& a, const std::vector<std::string>& events,
                                               const std::string& c, bool flag) {
    return transactCall(TRANSACTION_reportEventsV2, nullptr, a, events, c, flag);
}

ndk::ScopedAStatus BpTarnisSsi::reportTrelvoEvent(const std::string& appId, const std::string& packageName,
                                                  const std::string& payload, int32_t flags) {
    return transactCall(TRANSACTION_reportTrelvoEvent, nullptr, appId, packageName, payload, flags);
}

ndk::ScopedAStatus BpTarnisSsi::reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                                                   const std::vector<std::string>& payloads,
                                                   int32_t flags) {
    return transactCall(TRANSACTION_reportTrelvoEvents, nullptr, appId, packageName, payloads, flags);
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
