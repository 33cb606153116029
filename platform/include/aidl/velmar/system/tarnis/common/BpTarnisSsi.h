#pragma once

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>

#include "platform/binder/BpCInterface.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// Proxy of a remote ITarnisSsi.
class BpTarnisSsi : public ndk::BpCInterface<ITarnisSsi> {
public:
    explicit BpTarnisSsi(const ndk::SpAIBinder& binder) : BpCInterface(binder) {}

    ndk::ScopedAStatus reportSimpleEvent(int32_t type, const std::string& event) override;
    ndk::ScopedAStatus reportEventV2(const std::string& a, const std::string& b, const std::string& c,
                                     bool flag) override;
    ndk::ScopedAStatus reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                const std::string& c) override;
    ndk::ScopedAStatus appCaptureLog(const std::string& a, const std::string& b, const std::string& c,
                                     const std::string& d) override;
    ndk::ScopedAStatus reportEventsV2(const std::string& a, const std::vector<std::string>& events,
                                      const std::string& c, bool flag) override;
    ndk::ScopedAStatus reportTrelvoEvent(const std::string& appId, const std::string& packageName,
                                         const std::string& payload, int32_t flags) override;
    ndk::ScopedAStatus reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                                          const std::vector<std::string>& payloads, int32_t flags) override;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
