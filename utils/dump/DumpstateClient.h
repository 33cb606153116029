#pragma once

#include <string>

namespace android {

// The platform's bug-report services, reached over the reserved "dumpstate"
// socket. Each exchange starts its service through init before it connects
// and stops it afterwards, whatever the outcome.
class DumpstateClient {
public:
    // Asks "tarnBugreportState" for a full report into `logDir` and returns
    // the device path of the report it names, or "" when there is none.
    static std::string RequestBugreport(const std::string& logDir, const std::string& param);
    // Has "nuvibmdump" make the light boot-monitor report `target`, and waits
    // for its 255-byte status.
    static void RequestLiteBugreport(const std::string& target);
};

}  // namespace android
