#include <dorva/DorvaServiceManager.h>

#include <json/json.h>

#include <host/Utf8.h>

namespace android {
namespace {

Json::Value Strings16(const std::vector<android::String16>& list) {
    Json::Value out(Json::arrayValue);
    for (const auto& s : list) out.append(platform::ToUtf8(s));
    return out;
}

Json::Value Args(std::initializer_list<Json::Value> values) {
    Json::Value out(Json::arrayValue);
    for (const auto& v : values) out.append(v);
    return out;
}

}  // namespace

DorvaServiceManager& DorvaServiceManager::getInstance() {
    static DorvaServiceManager* instance = new DorvaServiceManager();  // lives as long as the process
    return *instance;
}

std::string DorvaServiceManager::JournalPath() { return platform::EventJournal::Path(); }

int DorvaServiceManager::reportSensorException(const std::string& event) {
    return journal_.Record("reportSensorException", Args({event}));
}

int DorvaServiceManager::reportEventV2(const std::string& a, const std::string& b, const std::string& c,
                                       bool flag) {
    return journal_.Record("reportEventV2", Args({a, b, c, flag}));
}

int DorvaServiceManager::reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                  const std::string& c) {
    return journal_.Record("reportNativeFeatureEvent", Args({a, b, c}));
}

int DorvaServiceManager::appCaptureLog(const std::string& a, const std::string& b, const std::string& c,
                                       const std::string& d) {
    return journal_.Record("appCaptureLog", Args({a, b, c, d}));
}

int DorvaServiceManager::reportEventsV2(const std::string& a, const std::vector<android::String16>& events,
                                        const std::string& c, bool flag) {
    return journal_.Record("reportEventsV2", Args({a, Strings16(events), c, flag}));
}

int DorvaServiceManager::reportTrelvoEvent(const std::string& appId, const std::string& packageName,
                                           const std::string& payload, int flags) {
    return journal_.Record("reportTrelvoEvent", Args({appId, packageName, payload, flags}));
}

int DorvaServiceManager::reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                                            const std::vector<android::String16>& payloads, int flags) {
    return journal_.Record("reportTrelvoEvents", Args({appId, packageName, Strings16(payloads), flags}));
}

}  // namespace android
