#pragma once

#include <chrono>
#include <string>

#include <android-base/properties.h>

// libbase declares the property waits for bionic only, where the property
// area can be watched; the host's shared store can be too (platform/), so the
// daemon's waits are declared here for a host build. On a device this adds
// nothing.
#if !defined(__BIONIC__)
namespace android {
namespace base {

bool WaitForProperty(const std::string& key, const std::string& expected_value,
                     std::chrono::milliseconds relative_timeout = std::chrono::milliseconds::max());
bool WaitForPropertyCreation(const std::string& key,
                             std::chrono::milliseconds relative_timeout = std::chrono::milliseconds::max());

}  // namespace base
}  // namespace android
#endif
