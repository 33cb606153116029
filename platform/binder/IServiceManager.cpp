#include "platform/binder/IServiceManager.h"

#include <android-base/logging.h>
#include <utils/Unicode.h>

#include "platform/binder/ServiceManager.h"

namespace android {

status_t IServiceManager::addService(const std::u16string& name, const sp<IBinder>& service, bool,
                                     int dumpsysPriority) {
    constexpr int kAllFlags = DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH |
                              DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT;
    if ((dumpsysPriority & ~kAllFlags) != 0) {
        LOG(ERROR) << "addService: invalid dump priority " << dumpsysPriority;
        return BAD_VALUE;
    }
    return ServiceManager::instance().addService(android::Utf16ToUtf8(name), service);
}

sp<IBinder> IServiceManager::checkService(const std::u16string& name) {
    return ServiceManager::instance().checkService(android::Utf16ToUtf8(name));
}

sp<IBinder> IServiceManager::getService(const std::u16string& name) { return waitForService(name); }

sp<IBinder> IServiceManager::waitForService(const std::u16string& name) {
    return ServiceManager::instance().waitForService(android::Utf16ToUtf8(name));
}

bool IServiceManager::isDeclared(const std::u16string& name) {
    return ServiceManager::instance().isDeclared(android::Utf16ToUtf8(name));
}

sp<IServiceManager> defaultServiceManager() {
    static sp<IServiceManager> manager = std::make_shared<IServiceManager>();
    return manager;
}

}  // namespace android
