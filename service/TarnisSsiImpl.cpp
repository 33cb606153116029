#include "service/TarnisSsiImpl.h"

#include <unistd.h>

#include <cstdio>

#include <dorva/DorvaServiceManager.h>
#include <host/Utf8.h>

#include "framework/ModuleManager.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

TarnisSsiImpl::TarnisSsiImpl() {
    printf("TarnisSsiImpl impl ready!\n");
    fflush(stdout);
}

binder_status_t TarnisSsiImpl::dump(int fd, const char** args, uint32_t numArgs) {
    ::velmar::kolto::ModuleManager::dump(fd, args, numArgs);
    fsync(fd);
    return STATUS_OK;
}

std::vector<android::String16> TarnisSsiImpl::convertVector(const std::vector<std::string>& list) {
    std::vector<android::String16> converted;
    converted.reserve(list.size());
    for (const std::string& item : list) converted.push_back(platform::ToUtf16(item));
    return converted;
}

// The reports never fail on the library's account, except the two analytics
// ones, whose callers need to know that an event was lost.
ndk::ScopedAStatus TarnisSsiImpl::reportSimpleEvent(int32_t, const std::string& event) {
    android::DorvaServiceManager::getInstance().reportSensorException(event);
    return ndk::ScopedAStatus::ok();
}

ndk::ScopedAStatus TarnisSsiImpl::reportEventV2(const std::string& a, const std::string& b, const std::string& c,
                                                bool flag) {
    android::DorvaServiceManager::getInstance().reportEventV2(a, b, c, flag);
    return ndk::ScopedAStatus::ok();
}

ndk::ScopedAStatus TarnisSsiImpl::reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                           const std::string& c) {
    android::DorvaServiceManager::getInstance().reportNativeFeatureEvent(a, b, c);
    return ndk::ScopedAStatus::ok();
}

ndk::ScopedAStatus TarnisSsiImpl::appCaptureLog(const std::string& a, const std::string& b, const std::string& c,
                                                const std::string& d) {
    android::DorvaServiceManager::getInstance().appCaptureLog(a, b, c, d);
    return ndk::ScopedAStatus::ok();
}

ndk::ScopedAStatus TarnisSsiImpl::reportEventsV2(const std::string& a, const std::vector<std::string>& events,
                                                 const std::string& c, bool flag) {
    android::DorvaServiceManager::getInstance().reportEventsV2(a, convertVector(events), c, flag);
    return ndk::ScopedAStatus::ok();
}

ndk::ScopedAStatus TarnisSsiImpl::reportTrelvoEvent(const std::string& appId, const std::string& packageName,
                                                    const std::string& payload, int32_t flags) {
    int result = android::DorvaServiceManager::getInstance().reportTrelvoEvent(appId, packageName, payload, flags);
    return result == 0 ? ndk::ScopedAStatus::ok() : ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR);
}

ndk::ScopedAStatus TarnisSsiImpl::reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                                                     const std::vector<std::string>& payloads, int32_t flags) {
    int result = android::DorvaServiceManager::getInstance().reportTrelvoEvents(appId, packageName,
                                                                                convertVector(payloads), flags);
    return result == 0 ? ndk::ScopedAStatus::ok() : ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR);
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
