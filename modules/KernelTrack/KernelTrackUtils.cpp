#define LOG_TAG "Tarnis-KernelStatsTrack"

#include "modules/KernelTrack/KernelTrackUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>

#include <android-base/unique_fd.h>
#include <dorva/DorvaServiceManager.h>
#include <log/log.h>

#include "utils/JsonUtil.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace KernelTrack {

namespace {

// The kernel's tables are a few kilobytes; anything far larger is not one.
constexpr size_t kMaxStatsBytes = 1 << 20;
// A line that is not a count may be anything up to a whole read of binary:
// its head, escaped, says enough.
constexpr size_t kMaxLoggedLine = 256;

std::string Shown(const std::string& text, size_t max = 512) { return StringUtil::ForLog(text, max); }

std::string Trim(const std::string& text) {
    static constexpr char kBlanks[] = " \t\r\n";
    const size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos) return "";
    const size_t end = text.find_last_not_of(kBlanks);
    return text.substr(begin, end - begin + 1);
}

enum class Conversion { kOk, kInvalid, kOutOfRange };

// Decimal, optionally signed, nothing else: "12 ms" is not a count.
Conversion ToInt32(const std::string& text, int32_t* out) {
    size_t pos = 0;
    if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) ++pos;
    if (pos == text.size()) return Conversion::kInvalid;
    for (size_t i = pos; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return Conversion::kInvalid;
    }
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (errno == ERANGE || value < std::numeric_limits<int32_t>::min() ||
        value > std::numeric_limits<int32_t>::max()) {
        return Conversion::kOutOfRange;
    }
    *out = static_cast<int32_t>(value);
    return Conversion::kOk;
}

bool ReadStatsFile(const std::string& path, std::string* text) {
    // Non-blocking, so that a FIFO planted in a node's place cannot hold the run.
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) {
        ALOGE("[%s] Failed to open %s, err %s", "parseKernelInfo", Shown(path).c_str(), strerror(errno));
        return false;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        ALOGE("[%s] Failed to open %s, err %s", "parseKernelInfo", Shown(path).c_str(), "not a regular file");
        return false;
    }
    char buffer[4096];
    while (text->size() < kMaxStatsBytes) {
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), buffer, sizeof(buffer)));
        if (n < 0) {
            ALOGE("[%s] Failed to open %s, err %s", "parseKernelInfo", Shown(path).c_str(), strerror(errno));
            return false;
        }
        if (n == 0) break;
        text->append(buffer, static_cast<size_t>(n));
    }
    return true;
}

}  // namespace

Json::Value KernelTrackUtils::parseKernelText(const std::string& text) {
    Json::Value node(Json::objectValue);
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::string name = Trim(line.substr(0, colon));
        const std::string value = Trim(line.substr(colon + 1));
        int32_t number = 0;
        switch (ToInt32(value, &number)) {
            case Conversion::kOk:
                node[name] = number;
                break;
            case Conversion::kInvalid:
                ALOGE("[%s] Invalid argument: %s", "parseKernelInfo", Shown(line, kMaxLoggedLine).c_str());
                break;
            case Conversion::kOutOfRange:
                ALOGE("[%s] Out of range: %s", "parseKernelInfo", Shown(line, kMaxLoggedLine).c_str());
                break;
        }
    }
    return node;
}

bool KernelTrackUtils::parseKernelInfo(const std::string& path, Json::Value* out) {
    std::string text;
    if (!ReadStatsFile(path, &text)) return false;
    if (text.empty()) {
        ALOGE("[%s] File content is empty: %s", __func__, Shown(path).c_str());
        return false;
    }
    *out = parseKernelText(text);
    return true;
}

Json::Value KernelTrackUtils::convertFieldsToJSON(const std::string& eventName,
                                                  const std::vector<std::string>& fields, const Json::Value& node) {
    Json::Value event(Json::objectValue);
    event["EVENT_NAME"] = eventName;
    for (const std::string& field : fields) {
        if (!node.isObject() || !node.isMember(field)) {
            ALOGW("[%s] %s not found in jsonNode.", __func__, field.c_str());
            continue;
        }
        event[field] = node[field];
    }
    return event;
}

bool KernelTrackUtils::allFieldsEmptyOrZero(const Json::Value& event, const std::vector<std::string>& fields) {
    for (const std::string& field : fields) {
        if (event.isMember(field) && event[field].isInt() && event[field].asInt() != 0) return false;
    }
    return true;
}

bool KernelTrackUtils::reportKernelStatsEvent(const std::string& path, const std::string& eventName,
                                              const std::vector<std::string>& fields) {
    Json::Value node;
    if (!parseKernelInfo(path, &node) || node.empty()) {
        ALOGE("[%s] Failed to parse event %s, which kernel info from %s", __func__, eventName.c_str(),
              Shown(path).c_str());
        return false;
    }
    const Json::Value event = convertFieldsToJSON(eventName, fields, node);
    if (allFieldsEmptyOrZero(event, fields)) {
        ALOGI("[%s] All values are empty or 0, no report", __func__);
        return false;
    }
    if (event.empty()) {
        ALOGE("[%s] Empty JSON value received, no report", __func__);
        return false;
    }
    // The compact writer's text as it is, its closing newline included: the
    // analytics backend reads the same bytes from every reporter.
    const std::string data = JsonUtil::ConvertJsonToString(event);
    if (data.empty()) {
        ALOGE("[%s] Empty JSON string received, no report", __func__);
        return false;
    }
    if (android::DorvaServiceManager::getInstance().reportTrelvoEvent(kTrelvoAppId, kTrelvoSource, data, 0) != 0) {
        ALOGE("[%s] Failed to connect Trelvo Binder!!", "trelvoReport");
        ALOGE("[%s] Failed to report event %s, which kernel info from %s", __func__, eventName.c_str(),
              Shown(path).c_str());
        return false;
    }
    ALOGI("[%s] Successfully report event %s, which kernel info from %s", __func__, eventName.c_str(),
          Shown(path).c_str());
    return true;
}

bool KernelTrackUtils::clearKernelNode(const std::string& path) {
    ALOGI("[%s] clearKernelNode start: %s", __func__, Shown(path).c_str());
    // The mode is opened up only on the node itself, never through a link
    // planted in its place; the open below refuses links as well.
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && !S_ISLNK(st.st_mode)) chmod(path.c_str(), 0666);
    android::base::unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (fd.get() < 0) {
        ALOGE("[%s] Failed to open %s, err %s", __func__, Shown(path).c_str(), strerror(errno));
        return false;
    }
    static constexpr char kReset[] = "1\n";
    const ssize_t written = TEMP_FAILURE_RETRY(write(fd.get(), kReset, 2));
    return written == 2;
}

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
