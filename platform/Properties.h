#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <string>

// System properties. On the host they live as one file per property in
// <root>/dev/__properties__/, shared by every process that uses the same root:
// a value set by `tarnisctl setprop` wakes a WaitForProperty in the daemon.

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

extern "C" {
// Copies the value (or the default when the property is unset or empty) into
// `value`, which must hold PROPERTY_VALUE_MAX bytes; returns its length.
int property_get(const char* key, char* value, const char* default_value);
// 0 on success, -1 when the store refused the value.
int property_set(const char* key, const char* value);
}

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

namespace platform {

// Every property with its value, in name order.
std::map<std::string, std::string> ListProperties();
// The directory that holds the store for the current root.
std::string PropertyStoreDir();
// True for names the store accepts: letters, digits and ". _ - : @", not
// starting with a dot, at most 256 bytes.
bool IsValidPropertyName(const std::string& key);

}  // namespace platform
