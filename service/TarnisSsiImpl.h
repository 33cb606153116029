#pragma once

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

// The event-reporting service: forwards each report to the quality service
// and carries the module framework's dump.
class TarnisSsiImpl : public BnTarnisSsi {
public:
    TarnisSsiImpl();

    binder_status_t dump(int fd, const char** args, uint32_t numArgs) override;
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

    // The list as UTF-16 strings, order kept.
    static std::vector<android::String16> convertVector(const std::vector<std::string>& list);
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
