#pragma once

#include <string>
#include <vector>

#include <utils/String16.h>

#include "platform/EventJournal.h"

// The quality-service client. On a device it is a closed platform library;
// here every call is recorded as one line of the event journal
// (platform/EventJournal.h), UTF-16 lists as arrays of UTF-8 strings, and
// returns 0 (or the journal's forced result).
namespace android {

class DorvaServiceManager {
public:
    static DorvaServiceManager& getInstance();

    int reportSensorException(const std::string& event);
    int reportEventV2(const std::string& a, const std::string& b, const std::string& c, bool flag);
    int reportNativeFeatureEvent(const std::string& a, const std::string& b, const std::string& c);
    int appCaptureLog(const std::string& a, const std::string& b, const std::string& c, const std::string& d);
    int reportEventsV2(const std::string& a, const std::vector<android::String16>& events, const std::string& c,
                       bool flag);
    int reportTrelvoEvent(const std::string& appId, const std::string& packageName, const std::string& payload,
                          int flags);
    int reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                           const std::vector<android::String16>& payloads, int flags);

    // Non-zero: every call returns it; 0: back to the property / success.
    void setResultForTesting(int result) { journal_.SetResultForTesting(result); }
    static std::string JournalPath();
    static constexpr const char* kResultProperty = platform::EventJournal::kResultProperty;

private:
    DorvaServiceManager() = default;

    platform::EventJournal journal_{"DorvaServiceManager"};
};

}  // namespace android
