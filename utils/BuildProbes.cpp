#include "utils/BuildProbes.h"

#include <string>

#include <android-base/properties.h>

namespace android {

bool ismtbftest() { return base::GetBoolProperty("persist.mtbf.test", false); }

bool isomnitest() { return base::GetBoolProperty("persist.omni.test", false); }

bool isUnrelease() {
    // The hardware level does not change while the system runs. It is read
    // on first use rather than during static initialisation, which runs
    // before the daemon knows its root.
    static const std::string hwlevel = base::GetProperty("ro.boot.hwlevel", "unknown");
    return base::GetBoolProperty("ro.zel.development", false) ||
           base::GetBoolProperty("persist.sys.internal_trial_user", false) || hwlevel != "MP";
}

}  // namespace android
