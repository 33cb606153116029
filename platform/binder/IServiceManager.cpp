#include "platform/binder/IServiceManager.h"

#include <android-base/logging.h>
#include <host/Utf8.h>

#include "platform/binder/ServiceManager.h"

namespace android {

status_t IServiceManager::addService(const android::String16& name, const sp<IBinder>& service, bool,
                                     int dumpsysPriority) {
    constexpr int kAllFlags = DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH |
                              DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT;
    if ((dumpsysPriority & ~kAllFlags) != 0) {
        LOG(ERROR) << "addService: invalid dump priority " << dumpsysPriority;
        return BAD_VALUE;
    }
    return ServiceManager::instance().addService(platform::ToUtf8(name), service);
}

sp<IBinder> IServiceManager::checkService(const android::String16& name) {
    return ServiceManager::instance().checkService(platform::ToUtf8(name));
}

sp<IBinder> IServiceManager::getService(const android::String16& name) { return waitForService(name); }

sp<IBinder> IServiceManager::waitForService(const android::String16& name) {
    return ServiceManager::instance().waitForService(platform::ToUtf8(name));
}

bool IServiceManager::isDeclared(const android::String16& name) {
    return ServiceManager::instance().isDeclared(platform::ToUtf8(name));
}

sp<IServiceManager> defaultServiceManager() {
    static const sp<IServiceManager> manager = new IServiceManager();
    return manager;
}

}  // namespace android
