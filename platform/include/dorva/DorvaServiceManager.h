#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace Json {
class Value;
}

// The quality-service client. On a device it is a closed platform library;
// here every call is recorded as one JSON line in
// <root>/data/misc/tarnis/events.jsonl:
//   {"call":"reportEventV2","args":["a","b","c",true]}
// with the arguments in order (UTF-16 lists as arrays of UTF-8 strings), and
// returns 0. Whatever bytes a caller passes, a line stays valid JSON in valid
// UTF-8: a byte that is not part of valid UTF-8 is written as \udcXX
// ("surrogateescape"), so the bytes can be restored. Each line is written
// with a single append, so lines of concurrent callers (threads or
// processes) never interleave.
//
// To make calls fail, set the property "debug.tarnis.journal_result" to a
// non-zero integer (seen by every process sharing the root), or call
// setResultForTesting in-process. A failing call records nothing and returns
// that value. A journal that cannot be written gives -1 and an error line.
namespace android {

class DorvaServiceManager {
public:
    static DorvaServiceManager& getInstance();

    int reportSensorException(const std::string& event);
    int reportEventV2(const std::string& a, const std::string& b, const std::string& c, bool flag);
    int reportNativeFeatureEvent(const std::string& a, const std::string& b, const std::string& c);
    int appCaptureLog(const std::string& a, const std::string& b, const std::string& c, const std::string& d);
    int reportEventsV2(const std::string& a, const std::vector<std::u16string>& events, const std::string& c,
                       bool flag);
    int reportTrelvoEvent(const std::string& appId, const std::string& packageName, const std::string& payload,
                          int flags);
    int reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                           const std::vector<std::u16string>& payloads, int flags);

    // Non-zero: every call returns it; 0: back to the property / success.
    void setResultForTesting(int result) { forcedResult_ = result; }
    static std::string JournalPath();
    static constexpr const char* kResultProperty = "debug.tarnis.journal_result";

private:
    DorvaServiceManager() = default;
    int record(const char* call, const Json::Value& args);

    std::atomic<int> forcedResult_{0};
};

}  // namespace android
