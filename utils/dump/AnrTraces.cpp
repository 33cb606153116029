#define LOG_TAG "dorvad"

#include "utils/dump/AnrTraces.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
using velmar::kolto::StringUtil;

constexpr size_t kMaxTraces = 10;
constexpr size_t kHeadBytes = 1024;
// Three hours in milliseconds, less one: the stamp's largest value that
// still counts as a recent restart.
constexpr uint32_t kWatchdogTimestampLimit = 10799999;

// Whether the watchdog stamp allows the traces: present, decimal digits
// only, and no greater than the limit.
bool RecentWatchdogRestart() {
    const std::string stamp = base::GetProperty("sys.service.watchdog.timestamp", "");
    ALOGW("get watchdog timestamp: %s\n", stamp.c_str());
    if (stamp.empty()) {
        ALOGW("failed to get watchdog timestamp prop ");
        return false;
    }
    if (stamp.find_first_not_of("0123456789") != std::string::npos) return false;
    // Decimal whatever its leading zeros (the parser would read them as octal).
    const size_t first = stamp.find_first_not_of('0');
    if (first == std::string::npos) return true;
    uint32_t value;
    return base::ParseUint(stamp.substr(first), &value, kWatchdogTimestampLimit);
}

// The fingerprint in a trace's head: the first "Build fingerprint: '...'"
// whose quotes close on the same line (what the pattern
// .*?Build fingerprint: '(.*?)'.*? finds).
bool FindFingerprint(const std::string& head, std::string* fingerprint) {
    static const std::string kKey = "Build fingerprint: '";
    for (size_t at = head.find(kKey); at != std::string::npos; at = head.find(kKey, at + 1)) {
        const size_t begin = at + kKey.size();
        const size_t end = head.find_first_of("'\n\r", begin);
        if (end != std::string::npos && head[end] == '\'') {
            *fingerprint = head.substr(begin, end - begin);
            return true;
        }
    }
    return false;
}

}  // namespace

void AnrTraces::Collect() {
    if (!RecentWatchdogRestart()) return;
    ALOGW("==================Start Get data/anr log for BootMonitor======================\n");
    const std::string fingerprint = base::GetProperty("ro.build.fingerprint", "");
    const std::string anrDir = paths::Get(paths::kAnrDir);
    velmar::kolto::ScopedDir dir(opendir(anrDir.c_str()));
    if (!dir) {
        ALOGE("Unable to open directory %s: %s\n", anrDir.c_str(), strerror(errno));
        return;
    }
    while (struct dirent* entry = readdir(dir.get())) {
        const std::string path = anrDir + entry->d_name;
        struct stat lst;
        if (lstat(path.c_str(), &lst) != 0 || !S_ISREG(lst.st_mode)) continue;
        fchmodat(AT_FDCWD, path.c_str(), 0660, AT_SYMLINK_NOFOLLOW);
        base::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
        if (!fd.ok()) {
            ALOGE("Unable to open dump file %s: %s\n", StringUtil::ForLog(path).c_str(), strerror(errno));
            continue;
        }
        struct stat st;
        if (fstat(fd.get(), &st) != 0) {
            ALOGE("Unable to stat dump file %s: %s\n", StringUtil::ForLog(path).c_str(), strerror(errno));
            continue;
        }
        char head[kHeadBytes];
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), head, sizeof(head)));
        const std::string text(head, n > 0 ? static_cast<size_t>(n) : 0);
        std::string traceFingerprint;
        if (!FindFingerprint(text, &traceFingerprint)) {
            ALOGE("Faild to match %s\n", StringUtil::ForLog(path).c_str());
            continue;
        }
        ALOGE("=============match success!!!=============\n");
        if (traceFingerprint != fingerprint) {
            ALOGE("read file for %d byte, build.fingerprint prop mismatch\n", static_cast<int>(text.size()));
            continue;
        }
        traces_.push_back(DumpData{entry->d_name, std::move(fd), st.st_mtim});
    }
    std::sort(traces_.begin(), traces_.end(), NewerDumpFirst);
    while (traces_.size() > kMaxTraces) traces_.pop_back();
}

}  // namespace android
