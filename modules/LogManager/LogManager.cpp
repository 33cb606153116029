#define LOG_TAG "Tarnis-LogManager"

#include "modules/LogManager/LogManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <any>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <dorva/DorvaServiceManager.h>
#include <host/LogRateLimiter.h>
#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/IntentFilter.h"
#include "framework/ModuleManager.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/LogManager/LogManagerEvent.h"
#include "modules/LogManager/LogManagerUtil.h"
#include "modules/LogManager/LogMgrBroadcastReceiver.h"
#include "modules/LogManager/LogMgrFileEventListener.h"
#include "utils/Clock.h"
#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/JsonUtil.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"
#include "utils/ZipFile.h"

namespace velmar {
namespace kolto {
namespace {

using android::base::unique_fd;

constexpr char kListenerTag[] = "Tarnis-LogMgrFileEventListener";
constexpr char kDisableProp[] = "persist.bsp.logmgr.disable";
constexpr char kReuseProp[] = "persist.sys.abreuse.abstatus";
constexpr char kActionConfigAppend[] = "velmar.tarnis.logmgr.config_append";
constexpr char kActionVendorReady[] = "velmar.tarnis.logmgr.vendor_is_ready";
constexpr char kActionConfigChanged[] = "velmar.tarnis.logmgr.config_changed";
constexpr char kTrelvoAppId[] = "52000178316";
constexpr char kTrelvoSource[] = "Tarnis.LogManager";
constexpr long kLogDirRetryMs = 30 * 1000;
constexpr long kSdcardRetryMs = 10 * 60 * 1000;
constexpr int64_t kDayMs = 86400000;
constexpr int kSystemUid = 1000;

bool IsDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

bool Contains(const std::string& text, const char* piece) { return text.find(piece) != std::string::npos; }

// The size of one entry of the directory `dirFd` as cleaning counts it: a
// regular file's bytes, a directory's tree, nothing for anything else (a
// link is not ours to weigh).
uint64_t EntrySizeAt(int dirFd, const std::string& name) {
    struct stat st {};
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
    if (S_ISREG(st.st_mode)) return static_cast<uint64_t>(st.st_size);
    if (S_ISDIR(st.st_mode)) {
        const int64_t size = FileUtil::TreeSizeAt(dirFd, name.c_str(), st.st_size);
        return size > 0 ? static_cast<uint64_t>(size) : 0;
    }
    return 0;
}

// Outside text (a configured path, an entry's name) as a log line shows it.
std::string Esc(const std::string& text) { return StringUtil::ForLog(text); }

// The tree a device path is opened below: the managed roots, and the reuse
// partition's copies.
const char* TreeOf(const std::string& devicePath) {
    if (const char* root = LogManagerUtil::ManagedRootOf(devicePath)) return root;
    return ConfinedPath::IsBelow(devicePath, paths::kReuseLogRoot) ? paths::kReuseLogRoot : nullptr;
}

// Opens a log directory below its tree, no component a link and no ".."
// leading out; the cleaning then works from this descriptor alone, so a
// component swapped for a link meanwhile cannot lead it anywhere else.
unique_fd OpenLogDir(const std::string& devicePath, std::string* why) {
    const char* tree = TreeOf(devicePath);
    if (tree == nullptr) {
        *why = "\"" + StringUtil::ForLog(devicePath, 256) + "\" is not below a managed log root";
        errno = EXDEV;
        return {};
    }
    return ConfinedPath::Open(devicePath, tree, O_RDONLY | O_DIRECTORY, 0, why);
}

void ReportTrelvo(const char* op, const Json::Value& payload) {
    if (android::DorvaServiceManager::getInstance().reportTrelvoEvent(kTrelvoAppId, kTrelvoSource,
                                                                      JsonUtil::ConvertJsonToString(payload), 0) != 0) {
        ALOGE("[%s] Failed to connect Trelvo Binder!!", op);
    }
}

// Digit groups of "YYYY-M-D?hh-mm-ss" (one or two digits past the year)
// and the separators before each group; '?' is '_' or, when `dashToo`, '-'.
// Every end at which the pattern can stop after `pos`, as a backtracking
// regular expression would try them (longer groups first).
void DateEnds(const std::string& s, size_t pos, size_t group, bool dashToo, std::vector<size_t>* ends) {
    static const char kSeparators[] = {'\0', '-', '-', '_', '-', '-'};
    if (group == 6) {
        ends->push_back(pos);
        return;
    }
    if (group > 0) {
        if (pos >= s.size()) return;
        const char sep = s[pos];
        const bool ok = group == 3 ? (sep == '_' || (dashToo && sep == '-')) : sep == kSeparators[group];
        if (!ok) return;
        ++pos;
    }
    const size_t most = group == 0 ? 4 : 2;
    const size_t least = group == 0 ? 4 : 1;
    size_t digits = 0;
    while (digits < most && pos + digits < s.size() && isdigit(static_cast<unsigned char>(s[pos + digits]))) ++digits;
    for (size_t n = digits; n >= least && n > 0; --n) DateEnds(s, pos + n, group + 1, dashToo, ends);
}

// The first date-time in `name` (leftmost, then longest), as [start, end).
bool FindDate(const std::string& name, size_t* start, size_t* end) {
    for (size_t i = 0; i < name.size(); ++i) {
        std::vector<size_t> ends;
        DateEnds(name, i, 0, true, &ends);
        if (!ends.empty()) {
            *start = i;
            *end = ends.front();
            return true;
        }
    }
    return false;
}

// The whole name reads "ramdump_<anything>_<date>_<time><anything>.<anything>".
bool IsRamdumpName(const std::string& name) {
    static const std::string kPrefix = "ramdump_";
    if (name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
    for (size_t p = kPrefix.size(); p < name.size(); ++p) {
        if (name[p] != '_') continue;
        std::vector<size_t> ends;
        DateEnds(name, p + 1, 0, false, &ends);
        for (size_t end : ends) {
            if (name.find('.', end) != std::string::npos) return true;
        }
    }
    return false;
}

// The date a log entry was named after, as local time; false when its name
// carries none.
bool CompareTimeStrExpired(const std::string& name, uint32_t maxValidDay, int64_t nowMs, int64_t* ageMs) {
    size_t start = 0;
    size_t end = 0;
    if (!FindDate(name, &start, &end)) {
        ALOGD("CompareTimeStrExpired folderName is empty");
        return false;
    }
    std::string date = name.substr(start, end - start);
    ALOGD("[%s] %s find date: %s in file name", "matchedDate", Esc(name).c_str(), Esc(date).c_str());
    // Read as the format reads it: where it stops (a '-' between the date and
    // the time, say), the fields it did not reach stay 0 and the rest counts.
    struct tm tm {};
    (void)strptime(date.c_str(), "%Y-%m-%d_%H-%M-%S", &tm);
    tm.tm_isdst = -1;
    const int64_t folderTime = static_cast<int64_t>(mktime(&tm));
    const int64_t expiredTime = (nowMs - static_cast<int64_t>(maxValidDay) * kDayMs) / 1000;
    ALOGD("folderTime %" PRId64 " expiredTime %" PRId64, folderTime, expiredTime);
    *ageMs = nowMs - folderTime * 1000;
    return folderTime <= expiredTime;
}

}  // namespace

LogManager::LogManager() = default;

LogManager::~LogManager() {
    if (receiver_) InternalBroadcastManager::unregisterReceiver(receiver_.get());
    // Joins the listener's thread: no event reaches this object afterwards.
    listener_.reset();
    std::lock_guard<std::mutex> guard(handlerLock_);
    handler_.reset();
}

bool LogManager::OnInit() {
    if (android::base::GetBoolProperty(kDisableProp, false)) {
        ALOGW("[%s] Will not load caused by disableLogMgr is true", "OnInit");
        return false;
    }
    receiver_ = std::make_unique<LogMgrBroadcastReceiver>(this);
    IntentFilter filter;
    filter.addAction(kActionConfigAppend);
    filter.addAction(kActionVendorReady);
    InternalBroadcastManager::registerReceiver(receiver_.get(), filter);
    return true;
}

void LogManager::OnAllModulesLoaded() {
    {
        std::lock_guard<std::mutex> guard(handlerLock_);
        handler_ = std::make_unique<TarnisHandler>(handlerThread->getLooper(), nullptr);
    }
    if (!FileUtil::FileExist(paths::Get(paths::kSdcardDir))) Post([this] { CheckSdcardReady(); });
    Post([this] { CheckLogDirReady(); });
}

void LogManager::Post(std::function<void()> task) {
    std::lock_guard<std::mutex> guard(handlerLock_);
    if (handler_) handler_->post(std::move(task));
}

TarnisMessageRef LogManager::PostDelayed(std::function<void()> task, long delayMs) {
    std::lock_guard<std::mutex> guard(handlerLock_);
    if (!handler_) return TarnisMessageRef();
    return handler_->postDelayed(std::move(task), delayMs);
}

void LogManager::dump(int fd, const char**, unsigned int) {
    // Any process may dump as often as it likes: the lines of a few dumps a
    // minute reach the log, the output of every one reaches its caller.
    static platform::LogRateLimiter dumpLines(6, 60000);
    uint64_t suppressed = 0;
    const bool logged = dumpLines.Allow(&suppressed);
    if (logged) ALOGI("[%s] dump%s", "dump", platform::LogRateLimiter::Summary(suppressed).c_str());
    std::lock_guard<std::mutex> guard(stateLock_);
    std::string text = "LogManager System Dump:\nPath Sizes:\n";
    for (auto& [path, size] : pathSizeMap_) {
        const bool traces = Contains(path, paths::kTracesDir);
        if (traces) {
            // Traces are written without a file event we would see: measure now.
            std::optional<LogConfig> config = LogManagerUtil::GetConfigByFolderName(path, configs_);
            if (config) {
                std::vector<std::string> names;
                size = getDirTotalSize(path, names, *config);
            }
        }
        if (logged) {
            ALOGI(traces ? "[%s] Path0: %s, Size: %s" : "[%s] Path: %s, Size: %s", "dump", Esc(path).c_str(),
                  FileUtil::formatHumanSize(size).c_str());
        }
        text += path + ": " + FileUtil::formatHumanSize(size) + "\n";
    }
    android::base::WriteStringToFd(text, fd);
}

bool LogManager::IsReuseOpen(const char* op) {
    const bool open = android::base::GetBoolProperty(kReuseProp, false);
    ALOGD("[%s] isReuseOpen %d", op, open ? 1 : 0);
    return open;
}

std::optional<LogConfig> LogManager::FindConfig(const std::string& devicePath) {
    return LogManagerUtil::GetConfigByFolderName(devicePath, configs_);
}

bool LogManager::initConfig() {
    const std::string file = paths::Get(paths::kLogConfig);
    std::string text;
    if (!android::base::ReadFileToString(file, &text, true)) {
        ALOGE("[%s] Read config from config path failed!!", "initConfig");
        return false;
    }
    std::vector<LogConfig> list;
    Json::Value json;
    std::string why;
    const bool clean =
        LogManagerUtil::ParseConfigText(text, "log configuration " + Esc(file), &list, &json, &why);
    // Text that is no JSON document stops here; a document that is not an
    // array of records is an empty list, announced like any other.
    if (json.isNull()) {
        if (!why.empty()) ALOGE("[%s] %s", "initConfig", why.c_str());
        ALOGE("[%s] Config is invalid!!", "initConfig");
        return false;
    }
    if (!clean) ALOGE("[%s] %s", "initConfig", why.c_str());
    {
        std::lock_guard<std::mutex> guard(stateLock_);
        configs_ = std::move(list);
    }
    watchByConfigs(configs_);
    if (!vendorReady_) ALOGW("[%s] Vendor maybe not ready while init config", "initConfig");
    Intent changed(kActionConfigChanged);
    changed.putExtra("config", json);
    // Across to the peer as well: other processes learn the configuration.
    InternalBroadcastManager::sendBroadcast(changed, true);
    return true;
}

void LogManager::CheckLogDirReady() {
    if (FileUtil::IsDirectory(paths::Get(paths::kBspLogRoot))) {
        ALOGI("[%s] log dir is Ready, init config now!", "CheckLogDirReady");
        if (!initConfig()) {
            ALOGE("[%s] Failed to init LogManager Config! Cannot continue!", "CheckLogDirReady");
            removeModule(name, true);
        }
        return;
    }
    ALOGI("[%s] log dir not ready, schedule next check in 30s later", "CheckLogDirReady");
    PostDelayed([this] { CheckLogDirReady(); }, kLogDirRetryMs);
}

void LogManager::CheckSdcardReady() {
    if (!FileUtil::FileExist(paths::Get(paths::kSdcardDir))) {
        ALOGI("[%s] Sdcard not ready, schedule next check in 10 mins later", "CheckSdcardReady");
        PostDelayed([this] { CheckSdcardReady(); }, kSdcardRetryMs);
        return;
    }
    ALOGI("[%s] Sdcard is Ready, trigger sdcard ready callback", "CheckSdcardReady");
    std::vector<LogConfig> onSdcard;
    for (const LogConfig& config : configs_) {
        if (Contains(config.folderPath, paths::kSdcardDir)) onSdcard.push_back(config);
    }
    for (const LogConfig& config : onSdcard) {
        CheckAndClean(config.folderPath);
        updatePathSizeMap(config.folderPath, config);
    }
    watchByConfigs(onSdcard);
}

void LogManager::OnBroadcast(Intent intent) {
    Post([this, intent = std::move(intent)] { HandleBroadcast(intent); });
}

void LogManager::HandleBroadcast(const Intent& intent) {
    if (intent.action == kActionVendorReady) {
        ALOGD("[%s] Vendor ready!", "operator()");
        vendorReady_ = true;
        if (!configs_.empty()) initConfig();
        return;
    }
    if (intent.action != kActionConfigAppend || intent.extras.empty()) return;
    auto found = intent.extras.find("config");
    if (found == intent.extras.end()) return;
    const ExtraValue& extra = found->second;
    if (const Json::Value* value = std::get_if<Json::Value>(&extra)) {
        if (value->isArray()) {
            AppendConfigs(LogManagerUtil::GenerateConfigList(*value));
            return;
        }
        if (value->isObject()) {
            LogConfig record;
            std::vector<std::string> names = LogConfig::MemberNames();
            Json::Value copy = *value;
            std::string why;
            if (record.TARNIS_CONVER_JSON_TO_OBJECT(copy, names, &why) &&
                !(record.folderName.empty() && record.folderPath.empty())) {
                AppendConfigs({record});
                return;
            }
            if (!why.empty()) ALOGE("[%s] %s", "operator()", why.c_str());
        }
        ALOGE("[%s] Intent extra is invalid for log manager!!", "operator()");
        return;
    }
    if (const std::any* object = std::get_if<std::any>(&extra)) {
        try {
            AppendConfigs({std::any_cast<LogConfig>(*object)});
        } catch (const std::bad_any_cast& e) {
            ALOGE("[%s] obj is not a valid LogConfig! e.what %s", "operator()", e.what());
        }
        return;
    }
    ALOGE("[%s] Intent extra is invalid for log manager!!", "operator()");
}

void LogManager::AppendConfigs(std::vector<LogConfig> added) {
    if (added.empty()) return;
    const size_t first = configs_.size();
    {
        std::lock_guard<std::mutex> guard(stateLock_);
        for (LogConfig& config : added) configs_.push_back(std::move(config));
        LogManagerUtil::SetParents(configs_);
    }
    watchByConfigs(std::vector<LogConfig>(configs_.begin() + static_cast<long>(first), configs_.end()));
}

void LogManager::watchByConfigs(const std::vector<LogConfig>& configs) {
    std::vector<std::pair<std::string, unique_fd>> watched;
    const auto consider = [&watched](const LogConfig& config) {
        if (config.folderName.empty() && config.folderPath.empty()) return;
        if (config.maxSize == 0 && config.maxValidDay == 0 && config.maxLogNumber == 0 && !config.pushEventOnly) {
            return;
        }
        if (config.inVendor) return;
        const std::string path = LogManagerUtil::GetFullPathByConfig(config, false);
        std::string why = LogManagerUtil::Refusal(config, path);
        if (!why.empty()) {
            ALOGE("[%s] %s, not watched", "watchByConfigs", why.c_str());
            return;
        }
        const char* root = LogManagerUtil::ManagedRootOf(path);
        unique_fd dir;
        if (config.folderPath.empty()) {
            // A derived path starts at one of the daemon's own log roots.
            const std::string top = paths::Get(root);
            if (!FileUtil::IsDirectory(top)) FileUtil::CreateDirectoryWithOwner(top, -1, -1);
            dir = ConfinedPath::MakeDirs(path, root, 0775, &why);
            if (dir.ok()) {
                if (fchown(dir.get(), kSystemUid, kSystemUid) != 0) {
                    ALOGD("[%s] chown %s failed: %s", "watchByConfigs", Esc(path).c_str(), strerror(errno));
                }
                fchmod(dir.get(), 0777);
            }
        } else {
            dir = ConfinedPath::Open(path, root, O_RDONLY | O_DIRECTORY, 0, &why);
        }
        if (!dir.ok()) {
            ALOGE("[%s] %s: %s, not watched", "watchByConfigs", LogManagerUtil::Label(config).c_str(), why.c_str());
            return;
        }
        watched.emplace_back(path, std::move(dir));
    };
    for (const LogConfig& top : configs) {
        for (const LogConfig& child : top.children) consider(child);
        consider(top);
    }
    if (!listener_) {
        for (const auto& [path, dir] : watched) {
            CheckAndClean(path);
            if (std::optional<LogConfig> found = FindConfig(path)) updatePathSizeMap(path, *found);
        }
        listener_ = std::make_unique<LogMgrFileEventListener>(this);
    }
    // The watch goes on the directory checked above, whatever its path
    // leads to by now.
    for (const auto& [path, dir] : watched) listener_->Watch(path, dir.get(), kWatchMask);
}

void LogManager::OnFileEvent(uint32_t, std::optional<std::string> name, const std::string& devicePath) {
    // Our own archives, and the hidden names they are written under first
    // (".tarnis-tmp.<entry>.zip.<random>"): packing must not start another check.
    if (name && Contains(*name, ".zip")) return;
    __android_log_print(ANDROID_LOG_DEBUG, kListenerTag, "[%s] fileName: %s, basePath: %s", "OnFileEvent",
                        name ? Esc(*name).c_str() : "", Esc(devicePath).c_str());
    Post([this, devicePath] {
        CheckAndClean(devicePath);
        ALOGD("[%s] CheckAndClean %s", "operator()", Esc(devicePath).c_str());
        if (std::optional<LogConfig> config = FindConfig(devicePath)) updatePathSizeMap(devicePath, *config);
    });
}

namespace {

// Lists the entries of one log directory and adds up their sizes. Nothing
// is followed through a link, and an entry gone by the time it is looked at
// is left out: another process may be cleaning too.
struct ScanResult {
    bool opened = false;
    bool closed = true;
    int error = 0;
    uint64_t total = 0;
    std::map<std::string, uint64_t> sizes;  // what each entry counted for
};

ScanResult ScanDirectory(int dirFd, const LogConfig& config, std::vector<std::string>& names, const char* op,
                         const char* prefix, int unknownPrio) {
    ScanResult result;
    // A description of its own, read from the start, for the caller's
    // descriptor is used again afterwards.
    android::base::unique_fd own(dirFd >= 0 ? openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
    const int fd = own.get();
    ScopedDir dir = AdoptDir(own);
    if (!dir) {
        result.error = dirFd >= 0 ? errno : EBADF;
        return result;
    }
    result.opened = true;
    while (struct dirent* entry = readdir(dir.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        const std::string fileName = entry->d_name;
        // An archive being written, or left by a killed compression: not a
        // log entry, never counted, deleted or packed as one.
        if (TempName::Is(fileName)) continue;
        if (config.watchSSRRamdumpHack && !IsRamdumpName(fileName)) {
            ALOGD("[%s] %sOldRamdumpFileFormatHack: fileName %s not matched regex, skip!", op, prefix,
                  Esc(fileName).c_str());
            continue;
        }
        struct stat st {};
        if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ALOGI("[%s] %s%s vanished while checking, skipped", op, prefix, Esc(fileName).c_str());
            continue;
        }
        if (S_ISREG(st.st_mode)) {
            if (Contains(fileName, ".zip")) ALOGD("[%s] %sDetected zipped log %s", op, prefix, Esc(fileName).c_str());
            result.total += static_cast<uint64_t>(st.st_size);
            result.sizes[fileName] = static_cast<uint64_t>(st.st_size);
        } else if (S_ISDIR(st.st_mode)) {
            const int64_t size = FileUtil::TreeSizeAt(fd, entry->d_name, st.st_size);
            if (size < 0) {
                ALOGI("[%s] %s%s vanished while checking, skipped", op, prefix, Esc(fileName).c_str());
                continue;
            }
            result.total += static_cast<uint64_t>(size);
            result.sizes[fileName] = static_cast<uint64_t>(size);
        } else {
            __android_log_print(unknownPrio, LOG_TAG,
                                "[%s] %sOnly directory with date named is allowed, but unknown file %s was detected!!",
                                op, prefix, Esc(fileName).c_str());
        }
        names.push_back(fileName);
    }
    if (closedir(dir.release()) != 0) {
        result.closed = false;
        result.error = errno;
    }
    return result;
}

}  // namespace

void LogManager::CheckAndClean(const std::string& devicePath) {
    std::optional<LogConfig> found = FindConfig(devicePath);
    if (!found) {
        ALOGE("[%s] get config failed for %s", "CheckAndClean", Esc(devicePath).c_str());
        return;
    }
    const LogConfig& config = *found;
    const std::string refusal = LogManagerUtil::Refusal(config, devicePath);
    if (!refusal.empty()) {
        ALOGE("[%s] %s, not cleaned", "CheckAndClean", refusal.c_str());
        return;
    }
    if (!config.children.empty()) {
        ALOGD("[%s] found children items, ignore master folder clean", "CheckAndClean");
        return;
    }
    ALOGI("[%s] Start Checking %s", "CheckAndClean", Esc(devicePath).c_str());
    std::string why;
    const unique_fd dirFd = OpenLogDir(devicePath, &why);
    if (!dirFd.ok()) {
        ALOGE("[%s] can not open dir %s", "CheckAndClean", Esc(devicePath).c_str());
        return;
    }
    // What a compression killed with the daemon left behind; later ones are
    // this thread's own and finish before the next check.
    if (swept_.insert(devicePath).second) TempName::RemoveLeftovers(dirFd.get(), devicePath);
    std::vector<std::string> names;
    const ScanResult scan = ScanDirectory(dirFd.get(), config, names, "CheckAndClean", "", ANDROID_LOG_WARN);
    if (!scan.opened) {
        ALOGE("[%s] can not open dir %s", "CheckAndClean", Esc(devicePath).c_str());
        return;
    }
    if (!scan.closed) ALOGE("[%s] Close Dir failed!", "CheckAndClean");
    uint64_t total = scan.total;
    const uint64_t sizeBefore = total;
    // In range: the record was refused above otherwise.
    const uint64_t limit = config.maxSize << 10;

    if (config.pushEventOnly) {
        // A limit of 0 is one every directory with anything in it exceeds.
        if (total > limit) {
            Json::Value event(Json::objectValue);
            event["EVENT_NAME"] = kAlarmEventName;
            event["dirSize"] = static_cast<Json::UInt64>(total);
            event["folderPath"] = devicePath;
            ReportTrelvo("reportLogMonitorEvent", event);
        }
        return;
    }
    if (names.empty()) {
        ALOGI("[%s] %s is empty, no need clean!", "CheckAndClean", Esc(devicePath).c_str());
        return;
    }
    std::sort(names.begin(), names.end());
    const bool reuseOpen = IsReuseOpen("CheckAndClean");
    const uint64_t reuseLimit = config.reuseMaxSize << 10;
    std::string reusePath = std::string(paths::kReuseLogRoot) + "/";
    if (config.parent) reusePath += config.parent->folderName + "/";
    reusePath += config.folderName;

    bool dueToSize = false;
    int64_t reuseClearSize = 0;
    int64_t reuseMoveSize = 0;
    for (;;) {
        const int64_t nowMs = GetClock().WallNowMs();
        int64_t ageMs = 0;
        const bool dueCount = config.maxLogNumber != 0 && names.size() > config.maxLogNumber;
        const bool dueSize = config.maxSize != 0 && total > limit;
        const bool dueAge = !dueCount && !dueSize && config.maxValidDay != 0 && !names.empty() &&
                            CompareTimeStrExpired(names.front(), config.maxValidDay, nowMs, &ageMs);
        if (!dueCount && !dueSize && !dueAge) break;
        dueToSize = dueSize;
        if (names.empty()) {
            // Nothing left to delete, compress or report on: the limits
            // are over by what no longer can be removed.
            ALOGD("[%s] %s is clean, should not enter clean loop again!", "CheckAndClean", Esc(devicePath).c_str());
            return;
        }
        const std::string fileName = names.front();
        const std::string fullPath = devicePath + "/" + fileName;
        const std::string reuseFullPath = reusePath + "/" + fileName;
        ALOGI("[%s] fullPath: %s; reusePath: %s; reuseFullPath: %s", "CheckAndClean", Esc(fullPath).c_str(),
              Esc(reusePath).c_str(), Esc(reuseFullPath).c_str());
        ALOGI("[%s] Clean Start: fileName %s, fileNameList size %zu, totalSize %zu, NowTime %ld(ms), "
              "MaxOffsetTime %lu(ms), time offset %lu(ms)",
              "CheckAndClean", Esc(fileName).c_str(), names.size(), static_cast<size_t>(total),
              static_cast<long>(nowMs), static_cast<unsigned long>(config.maxValidDay * static_cast<uint64_t>(kDayMs)),
              static_cast<unsigned long>(ageMs > 0 ? ageMs : 0));
        if (!reuseOpen || config.reuseMaxSize == 0) {
            ALOGI("[%s] Delete File By Inital Logic.", "CheckAndClean");
            DeleteFileUpdateDirConfig(dirFd.get(), fullPath, &total, names, &scan.sizes);
            continue;
        }
        std::vector<std::string> reuseNames;
        uint64_t reuseTotal = getDirTotalSize(reusePath, reuseNames, config);
        std::sort(reuseNames.begin(), reuseNames.end());
        const uint64_t entrySize = EntrySizeAt(dirFd.get(), fileName);
        if (entrySize > reuseLimit) {
            ALOGI("[%s] Log %s size is too large to move file.", "CheckAndClean", Esc(fileName).c_str());
            DeleteFileUpdateDirConfig(dirFd.get(), fullPath, &total, names, &scan.sizes);
            break;
        }
        const uint64_t reuseBefore = reuseTotal;
        std::string reuseWhy;
        unique_fd reuseFd = OpenLogDir(reusePath, &reuseWhy);
        bool stop = false;
        // The flag is read again at each step: the partition may be taken
        // back from the logs while a cleaning runs.
        while (IsReuseOpen("CheckAndClean") && reuseTotal + entrySize > reuseLimit && !reuseNames.empty()) {
            ALOGI("[%s] Start delete A/B reused partition file: %s", "CheckAndClean", Esc(reuseNames.front()).c_str());
            if (!DeleteFileUpdateDirConfig(reuseFd.get(), reusePath + "/" + reuseNames.front(), &reuseTotal,
                                           reuseNames)) {
                DeleteFileUpdateDirConfig(dirFd.get(), fullPath, &total, names, &scan.sizes);
                stop = true;
                break;
            }
        }
        if (stop) break;
        reuseClearSize = static_cast<int64_t>(reuseBefore - reuseTotal);
        ALOGI("[%s] Start move file to A/B reused partition", "CheckAndClean");
        const std::string reuseTop = paths::Get(paths::kReuseLogRoot);
        if (!FileUtil::IsDirectory(reuseTop)) FileUtil::CreateDirectoryWithOwner(reuseTop, -1, -1);
        reuseFd = ConfinedPath::MakeDirs(reusePath, paths::kReuseLogRoot, 0775, &reuseWhy);
        if (reuseFd.ok()) {
            if (fchown(reuseFd.get(), kSystemUid, kSystemUid) != 0) {
                // Ours already when the daemon runs as the system user.
            }
            fchmod(reuseFd.get(), 0777);
        }
        // Only what is ours goes, read through a descriptor of its own: the
        // target of a link, or of a link swapped in meanwhile, stays where it is.
        const unique_fd entry(openat(dirFd.get(), fileName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat st {};
        const bool copyable =
            entry.ok() && fstat(entry.get(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode));
        const std::string reuseCopy = reuseFd.ok() ? ConfinedPath::Through(reuseFd.get(), fileName) : "";
        if (!reuseFd.ok()) {
            ALOGW("[%s] %s", "CheckAndClean", reuseWhy.c_str());
            errno = ENOENT;
        } else if (!copyable) {
            errno = entry.ok() ? EINVAL : errno;
        }
        if (!IsReuseOpen("CheckAndClean")) {
            // Taken back meanwhile: the entry goes without a copy.
        } else if (reuseFd.ok() && copyable &&
                   FileUtil::CopyFileOrDirectory(ConfinedPath::Through(entry.get()), reuseCopy)) {
            reuseMoveSize = static_cast<int64_t>(entrySize);
            FileUtil::ChangeMode(reuseCopy, 0777);
            ALOGI("[%s] Move file %s to A/B reused partition %s succeed, moved size %zu bytes.", "CheckAndClean",
                  Esc(fullPath).c_str(), Esc(reuseFullPath).c_str(), static_cast<size_t>(entrySize));
        } else {
            ALOGW("[%s] Move file %s to A/B reused partition %s failed,error: %s", "CheckAndClean",
                  Esc(fullPath).c_str(), Esc(reuseFullPath).c_str(), strerror(errno));
        }
        DeleteFileUpdateDirConfig(dirFd.get(), fullPath, &total, names, &scan.sizes);
    }

    if (config.compress && !names.empty()) CompressEntries(devicePath, dirFd.get(), config, names);
    if (dueToSize) ReportSizeCleaning(devicePath, dirFd.get(), sizeBefore, reuseOpen, reuseClearSize, reuseMoveSize);
}

void LogManager::CompressEntries(const std::string& devicePath, int dirFd, const LogConfig& config,
                                 const std::vector<std::string>& names) {
    size_t count = names.size();
    // The newest entry may still be written to.
    if (config.compressLatestAfterSec == 0 && (config.delayCompress || listener_)) --count;
    for (size_t i = 0; i < count; ++i) {
        const std::string fullPath = devicePath + "/" + names[i];
        if (Contains(names[i], ".zip") || fullPath == pendingCompressPath_) continue;
        ALOGD("[%s] Compress loop: fullPath %s", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
        if (listener_ && config.compressLatestAfterSec != 0) {
            if (!pendingCompressPath_.empty()) {
                ALOGI("[%s] Last delay compress is not trigger, trigger it directly", "CheckAndClean");
                std::lock_guard<std::mutex> guard(handlerLock_);
                if (handler_) handler_->removeMessage(pendingCompressMsg_, false);
            }
            // The pending task itself runs now, taken out of the queue.
            if (!pendingCompressPath_.empty()) RunDelayedCompress(pendingCompressPath_);
            pendingCompressPath_ = fullPath;
            pendingCompressMsg_ = PostDelayed([this, fullPath] { RunDelayedCompress(fullPath); },
                                              static_cast<long>(config.compressLatestAfterSec) * 1000);
            ALOGI("[%s] Scheduled delayed compress task for %s", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
            continue;
        }
        if (CompressAt(dirFd, names[i], paths::Get(fullPath))) {
            ALOGD("[%s] Compressed: %s", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
        } else {
            ALOGE("[%s] Compress the path: %s returned error!", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
        }
    }
}

bool LogManager::CompressEntry(const std::string& deviceFullPath) {
    const size_t slash = deviceFullPath.find_last_of('/');
    const std::string deviceDir = deviceFullPath.substr(0, slash);
    std::string why;
    const unique_fd dirFd = OpenLogDir(deviceDir, &why);
    if (!dirFd.ok()) {
        ALOGE("[%s] %s, %s not compressed", "Compress", why.c_str(), Esc(deviceFullPath).c_str());
        return false;
    }
    return CompressAt(dirFd.get(), deviceFullPath.substr(slash + 1), paths::Get(deviceFullPath));
}

void LogManager::ReportSizeCleaning(const std::string& devicePath, int dirFd, uint64_t before, bool reuseOpen,
                                    int64_t cleared, int64_t moved) {
    uint64_t after = 0;
    android::base::unique_fd own(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int fd = own.get();
    ScopedDir dir = AdoptDir(own);
    if (!dir) {
        ALOGE("[%s] can not open dir %s", "CheckAndClean", Esc(devicePath).c_str());
    } else {
        while (struct dirent* entry = readdir(dir.get())) {
            if (IsDotOrDotDot(entry->d_name) || TempName::Is(entry->d_name)) continue;
            struct stat st {};
            if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (S_ISDIR(st.st_mode)) {
                const int64_t size = FileUtil::TreeSizeAt(fd, entry->d_name, st.st_size);
                if (size > 0) after += static_cast<uint64_t>(size);
            } else if (S_ISREG(st.st_mode) && Contains(entry->d_name, ".zip")) {
                after += static_cast<uint64_t>(st.st_size);
            }
        }
        if (closedir(dir.release()) != 0) ALOGE("[%s] Close Dir failed! error: %s", "CheckAndClean", strerror(errno));
    }
    LogManagerEvent event;
    event.dirFullPath = devicePath;
    event.dirSizeBefore = static_cast<int64_t>(before);
    event.dirSizeAfter = static_cast<int64_t>(after);
    event.isReuseOpen = reuseOpen;
    event.reuseClearSize = cleared;
    event.reuseMoveSize = moved;
    Json::Value json;
    event.ToJson(json);
    ReportTrelvo("reportLogMgrEvent", json);
}

bool LogManager::DeleteFileUpdateDirConfig(int dirFd, const std::string& devicePath, uint64_t* total,
                                           std::vector<std::string>& names,
                                           const std::map<std::string, uint64_t>* sizes) {
    const std::string name = devicePath.substr(devicePath.find_last_of('/') + 1);
    struct stat st {};
    if (dirFd >= 0 && fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
        // Another process cleaned it first: what it held is gone all the same.
        ALOGI("[%s] %s vanished before its removal, skipped", "DeleteFileUpdateDirConfig",
              Esc(paths::Get(devicePath)).c_str());
        if (!names.empty()) {
            auto known =
                sizes != nullptr ? sizes->find(names.front()) : std::map<std::string, uint64_t>::const_iterator();
            if (sizes != nullptr && known != sizes->end()) *total = *total > known->second ? *total - known->second : 0;
            names.erase(names.begin());
        }
        return true;
    }
    unsigned long removed = 0;
    // Through the directory the check opened: a component renamed or
    // swapped for a link since then leads nowhere else.
    errno = EBADF;
    const int result = dirFd >= 0 ? FileUtil::DeleteDirectoryOrFile(ConfinedPath::Through(dirFd, name), &removed) : -1;
    if (result == 0) {
        ALOGI("[%s] DeleteDirectoryOrFile succeed, removed size %zu bytes (%zu MB)", "DeleteFileUpdateDirConfig",
              static_cast<size_t>(removed), static_cast<size_t>(removed >> 20));
        if (!names.empty()) names.erase(names.begin());
        *total = *total > removed ? *total - removed : 0;
        return true;
    }
    ALOGE("[%s] remove %s failed! error:%s. skipped this file for now..., ", "DeleteFileUpdateDirConfig",
          Esc(paths::Get(devicePath)).c_str(), strerror(errno));
    if (!names.empty()) names.erase(names.begin());
    return false;
}

uint64_t LogManager::getDirTotalSize(const std::string& devicePath, std::vector<std::string>& names,
                                     const LogConfig& config) {
    std::string why;
    const unique_fd dirFd = OpenLogDir(devicePath, &why);
    const ScanResult scan =
        ScanDirectory(dirFd.get(), config, names, "getDirTotalSize", "CheckAndClean: ", ANDROID_LOG_INFO);
    if (!dirFd.ok() || !scan.opened) {
        ALOGE("[%s] CheckAndClean: can not open dir %s error: %s", "getDirTotalSize", Esc(devicePath).c_str(),
              dirFd.ok() ? strerror(scan.error) : why.c_str());
        return 0;
    }
    if (!scan.closed) {
        ALOGE("[%s] Close Dir failed!", "getDirTotalSize");
        return 0;
    }
    return scan.total;
}

void LogManager::updatePathSizeMap(const std::string& devicePath, const LogConfig& config) {
    std::vector<std::string> names;
    std::string why;
    const unique_fd dirFd = OpenLogDir(devicePath, &why);
    // Measured as getDirTotalSize measures: its lines, prefix and levels.
    const ScanResult scan =
        ScanDirectory(dirFd.get(), config, names, "getDirTotalSize", "CheckAndClean: ", ANDROID_LOG_INFO);
    if (!scan.opened) {
        ALOGE("[%s] can not open dir %s", "updatePathSizeMap", Esc(devicePath).c_str());
        return;
    }
    ALOGD("[%s] update pathSizeMap for %s, totalSize: %zu", "updatePathSizeMap", Esc(devicePath).c_str(),
          static_cast<size_t>(scan.total));
    std::lock_guard<std::mutex> guard(stateLock_);
    pathSizeMap_[devicePath] = scan.total;
}

void LogManager::RunDelayedCompress(std::string devicePath) {
    ALOGI("[%s] delayed compress task running for %s", "operator()", Esc(paths::Get(devicePath)).c_str());
    if (pendingCompressPath_ == devicePath) {
        pendingCompressPath_.clear();
        pendingCompressMsg_ = TarnisMessageRef();
    }
    CompressEntry(devicePath);
}

bool LogManager::Compress(const std::string& hostPath) {
    const size_t slash = hostPath.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : hostPath.substr(0, slash);
    const unique_fd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd.ok()) {
        ALOGW("[%s] %s cannot be opened, not compressed", "Compress", Esc(hostPath).c_str());
        return false;
    }
    return CompressAt(dirFd.get(), slash == std::string::npos ? hostPath : hostPath.substr(slash + 1), hostPath);
}

bool LogManager::CompressAt(int dirFd, const std::string& name, const std::string& hostPath) {
    // Pinned before it is read: a link swapped in for the entry afterwards is
    // not packed, and a link's target never is.
    const unique_fd entry(openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!entry.ok() || fstat(entry.get(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
        ALOGW("[%s] %s is not a regular file or directory, not compressed", "Compress", Esc(hostPath).c_str());
        return false;
    }
    // The packer enters a directory given to it but opens a file without
    // following its last component, so a file is read through its directory.
    const std::string source =
        S_ISDIR(st.st_mode) ? ConfinedPath::Through(entry.get()) : ConfinedPath::Through(dirFd, name);
    const std::string archiveName = name + ".zip";
    const std::string archive = ConfinedPath::Through(dirFd, archiveName);
    ZipFile zip({source}, 0);
    zip.nameAs(source, hostPath);
    // Written under a temporary name in the same directory, renamed into place.
    if (!zip.create(archive)) {
        ALOGE("[%s] Create new zip failed!!", "Compress");
        return false;
    }
    if (!zip.close()) {
        FileUtil::DeleteDirectoryOrFile(archive, nullptr);
        return false;
    }
    // The packer skips what it cannot read and still finishes the archive;
    // the entry goes only when every file of it is in the archive whole.
    if (!zip.complete()) {
        const ZipMissing& first = zip.missing().front();
        ALOGE("[%s] %s is incomplete (%s %s), the entry is kept", "Compress", Esc(hostPath + ".zip").c_str(),
              Esc(first.path).c_str(), first.why.c_str());
        FileUtil::DeleteDirectoryOrFile(archive, nullptr);
        return false;
    }
    FileUtil::DeleteDirectoryOrFile(ConfinedPath::Through(dirFd, name), nullptr);
    FileUtil::ChangeMode(archive, 0775);
    return true;
}

}  // namespace kolto
}  // namespace velmar
