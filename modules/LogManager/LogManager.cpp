#define LOG_TAG "Tarnis-LogManager"

#include "modules/LogManager/LogManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
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
#include "modules/LogManager/LogDirScan.h"
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
constexpr long kLogDirRetryMs = 30 * 1000;
constexpr long kSdcardRetryMs = 10 * 60 * 1000;
static_assert(LogManager::kWatchMask ==
              (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR));

}  // namespace

using namespace logscan;

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

void LogManager::PostInOrder(std::function<void()> task) {
    // post() puts a task at the head of the queue; one due now goes after
    // those already queued. What the events tell must be learnt in their order.
    PostDelayed(std::move(task), 0);
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
    // Records may have changed what each directory counts.
    dirStates_.clear();
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
        const bool fromState = CheckAndClean(config.folderPath);
        updatePathSizeMap(config.folderPath, config, fromState);
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
    dirStates_.clear();
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
            const bool fromState = CheckAndClean(path);
            if (std::optional<LogConfig> found = FindConfig(path)) updatePathSizeMap(path, *found, fromState);
        }
        listener_ = std::make_unique<LogMgrFileEventListener>(this);
    }
    // The watch goes on the directory checked above, whatever its path
    // leads to by now. What changed there before it was in place came
    // with no event: the first check after it reads the directory in full.
    for (const auto& [path, dir] : watched) {
        listener_->Watch(path, dir.get(), kWatchMask);
        dirStates_.erase(path);
    }
}

void LogManager::OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& devicePath) {
    // An entry removed or moved away (by us or by another process) leaves
    // less to clean: what is known of it goes, and no check starts.
    if (name && (mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        PostInOrder([this, devicePath, name = *name] { NoteEvent(devicePath, name, true); });
        return;
    }
    // Our own archives, and the hidden names they are written under first
    // (".tarnis-tmp.<entry>.zip.<random>"): packing must not start another
    // check. An archive another process puts there still counts.
    if (name && Contains(*name, ".zip")) {
        if (!TempName::Is(*name)) PostInOrder([this, devicePath, name = *name] { NoteEvent(devicePath, name, false); });
        return;
    }
    __android_log_print(ANDROID_LOG_DEBUG, kListenerTag, "[%s] fileName: %s, basePath: %s", "OnFileEvent",
                        name ? Esc(*name).c_str() : "", Esc(devicePath).c_str());
    PostInOrder([this, devicePath, name = std::move(name)] {
        const bool fromState = CheckAndClean(devicePath, name);
        ALOGD("[%s] CheckAndClean %s", "operator()", Esc(devicePath).c_str());
        if (std::optional<LogConfig> config = FindConfig(devicePath)) updatePathSizeMap(devicePath, *config, fromState);
    });
}

void LogManager::OnEventsLost() {
    ALOGW("[%s] file events were lost: each log directory is read in full at its next check", "OnEventsLost");
    // Ahead of the events still queued: the checks they start read in full.
    Post([this] { dirStates_.clear(); });
}

}  // namespace kolto
}  // namespace velmar
