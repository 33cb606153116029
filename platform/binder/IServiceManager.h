#pragma once

#include <string>

#include <utils/String16.h>

#include "platform/binder/IBinder.h"

// The classic (libbinder) view of the same service manager, for services
// registered under UTF-16 names: defaultServiceManager()->addService(...).
namespace android {

class IServiceManager : public virtual RefBase {
public:
    // The platform's dump priority flags; DEFAULT is what addService uses
    // unless told otherwise.
    static constexpr int DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0;
    static constexpr int DUMP_FLAG_PRIORITY_HIGH = 1 << 1;
    static constexpr int DUMP_FLAG_PRIORITY_NORMAL = 1 << 2;
    static constexpr int DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3;

    // allowIsolated and dumpsysPriority are recorded by the platform's
    // manager; the host has no isolated processes and no dumpsys, so they
    // only have to be valid.
    status_t addService(const android::String16& name, const sp<IBinder>& service, bool allowIsolated = false,
                        int dumpsysPriority = DUMP_FLAG_PRIORITY_DEFAULT);
    sp<IBinder> checkService(const android::String16& name);
    // Waits for a declared service (as waitForService), null at once otherwise.
    sp<IBinder> getService(const android::String16& name);
    sp<IBinder> waitForService(const android::String16& name);
    bool isDeclared(const android::String16& name);
};

sp<IServiceManager> defaultServiceManager();

}  // namespace android
