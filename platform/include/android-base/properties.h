#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

// System properties, in libbase's shape. On the host they live as one file per
// property in <root>/dev/__properties__/, shared by every process that uses
// the same root: a value set by `tarnisctl setprop` wakes a WaitForProperty in
// the daemon.

namespace android {
namespace base {

std::string GetProperty(const std::string& key, const std::string& default_value);
// "1", "y", "yes", "on", "true" are true; "0", "n", "no", "off", "false" are
// false; anything else gives the default.
bool GetBoolProperty(const std::string& key, bool default_value);
int64_t GetIntProperty(const std::string& key, int64_t default_value,
                       int64_t min = std::numeric_limits<int64_t>::min(),
                       int64_t max = std::numeric_limits<int64_t>::max());
// False when the name is not a valid property name, the value is too long,
// a read-only ("ro.") property already has a value, or the store cannot be
// written.
bool SetProperty(const std::string& key, const std::string& value);
// Blocks (without spinning) until the property holds `expected_value`, or the
// time-out passes; true when it does.
bool WaitForProperty(const std::string& key, const std::string& expected_value,
                     std::chrono::milliseconds relative_timeout = std::chrono::milliseconds::max());
// Blocks until the property exists.
bool WaitForPropertyCreation(const std::string& key,
                             std::chrono::milliseconds relative_timeout = std::chrono::milliseconds::max());

}  // namespace base
}  // namespace android
