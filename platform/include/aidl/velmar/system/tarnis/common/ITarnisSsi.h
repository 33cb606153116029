#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/binder/ICInterface.h"

// The event-reporting interface of the daemon. Transaction codes follow the
// declaration order from FIRST_CALL_TRANSACTION; dump is the binder's own
// dump transaction (ICInterface::dump).
namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

class ITarnisSsi : public ndk::ICInterface {
public:
    static constexpr const char* descriptor = "velmar.system.tarnis.common.ITarnisSsi";

    enum : uint32_t {
        TRANSACTION_reportSimpleEvent = FIRST_CALL_TRANSACTION + 0,
        TRANSACTION_reportEventV2 = FIRST_CALL_TRANSACTION + 1,
        TRANSACTION_reportNativeFeatureEvent = FIRST_CALL_TRANSACTION + 2,
        TRANSACTION_appCaptureLog = FIRST_CALL_TRANSACTION + 3,
        TRANSACTION_reportEventsV2 = FIRST_CALL_TRANSACTION + 4,
        TRANSACTION_reportTrelvoEvent = FIRST_CALL_TRANSACTION + 5,
        TRANSACTION_reportTrelvoEvents = FIRST_CALL_TRANSACTION + 6,
    };
    // The method of each code, in the same order (the caller policy names them).
    static constexpr const char* kTransactionNames[] = {
        "reportSimpleEvent", "reportEventV2", "reportNativeFeatureEvent", "appCaptureLog", "reportEventsV2",
        "reportTrelvoEvent", "reportTrelvoEvents",
    };

    // The implementation itself for a local binder, a proxy for a remote one,
    // null for a binder of another interface.
    static std::shared_ptr<ITarnisSsi> fromBinder(const ndk::SpAIBinder& binder);

    virtual ndk::ScopedAStatus reportSimpleEvent(int32_t type, const std::string& event) = 0;
    virtual ndk::ScopedAStatus reportEventV2(const std::string& a, const std::string& b,
                                             const std::string& c, bool flag) = 0;
    virtual ndk::ScopedAStatus reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                        const std::string& c) = 0;
    virtual ndk::ScopedAStatus appCaptureLog(const std::string& a, const std::string& b,
                                             const std::string& c, const std::string& d) = 0;
    virtual ndk::ScopedAStatus reportEventsV2(const std::string& a, const std::vector<std::string>& events,
                                              const std::string& c, bool flag) = 0;
    virtual ndk::ScopedAStatus reportTrelvoEvent(const std::string& appId, const std::string& packageName,
                                                 const std::string& payload, int32_t flags) = 0;
    virtual ndk::ScopedAStatus reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                                                  const std::vector<std::string>& payloads,
                                                  int32_t flags) = 0;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
