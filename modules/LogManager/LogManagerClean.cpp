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
#include "utils/ZipFile.h"

namespace velmar {
namespace kolto {
namespace {

using android::base::unique_fd;

constexpr char kTrelvoAppId[] = "52000178316";
constexpr char kTrelvoSource[] = "Tarnis.LogManager";

void ReportTrelvo(const char* op, const Json::Value& payload) {
    if (android::DorvaServiceManager::getInstance().reportTrelvoEvent(kTrelvoAppId, kTrelvoSource,
                                                                      JsonUtil::ConvertJsonToString(payload), 0) != 0) {
        ALOGE("[%s] Failed to connect Trelvo Binder!!", op);
    }
}

}  // namespace

using namespace logscan;

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

}  // namespace kolto
}  // namespace velmar
