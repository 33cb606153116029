#pragma once

// What the files of the crash monitor's worker share: the watch loop
// (AndroidCrashMonitorThread.cpp), the firmware-database ring
// (AndroidCrashMonitorRing.cpp) and the crash history
// (AndroidCrashMonitorHistory.cpp).

#include <cstddef>
#include <string>

#include "utils/StringUtil.h"

namespace velmar {
namespace tarnis {
namespace crash_monitor {

// Paths, names and lines that came from the collector, fit for a log line.
inline std::string Shown(const std::string& text) { return kolto::StringUtil::ForLog(text, 512); }

// The whole buffer at the file position, or false: a write that stops short
// (a full disk) is a failure like an error, with errno ENOSPC when the
// system gave none. Through the test hook when one is set.
bool WriteAll(int fd, const void* data, size_t len);

}  // namespace crash_monitor
}  // namespace tarnis
}  // namespace velmar
