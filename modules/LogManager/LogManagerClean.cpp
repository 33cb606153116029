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

bool LogManager::CheckAndClean(const std::string& devicePath, const std::optional<std::string>& arrived) {
    std::optional<LogConfig> found = FindConfig(devicePath);
    if (!found) {
        ALOGE("[%s] get config failed for %s", "CheckAndClean", Esc(devicePath).c_str());
        return false;
    }
    const LogConfig& config = *found;
    const std::string refusal = LogManagerUtil::Refusal(config, devicePath);
    if (!refusal.empty()) {
        ALOGE("[%s] %s, not cleaned", "CheckAndClean", refusal.c_str());
        return false;
    }
    if (!config.children.empty()) {
        ALOGD("[%s] found children items, ignore master folder clean", "CheckAndClean");
        return false;
    }
    ALOGI("[%s] Start Checking %s", "CheckAndClean", Esc(devicePath).c_str());
    std::string why;
    const unique_fd dirFd = OpenLogDir(devicePath, &why);
    if (!dirFd.ok()) {
        ALOGE("[%s] can not open dir %s", "CheckAndClean", Esc(devicePath).c_str());
        return false;
    }
    // What a compression killed with the daemon left behind; later ones are
    // this thread's own and finish before the next check.
    if (swept_.insert(devicePath).second) TempName::RemoveLeftovers(dirFd.get(), devicePath);
    // Before its watch, nothing would keep what a check learns up to date.
    LogDirState unwatched;
    LogDirState& state = listener_ ? dirStates_[devicePath] : unwatched;
    bool full = false;
    if (!MeasureForCheck(devicePath, dirFd.get(), config, arrived, state, &full)) return false;
    const LogDirState::Entries& entries = state.entries();
    uint64_t total = state.total();
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
        return !full;
    }
    if (entries.empty()) {
        ALOGI("[%s] %s is empty, no need clean!", "CheckAndClean", Esc(devicePath).c_str());
        return !full;
    }
    // The entries this check could not remove are the oldest: the ones up to
    // `failedUpTo` are passed over until the next check.
    std::string failedUpTo;
    size_t failed = 0;
    const auto oldest = [&] { return failed == 0 ? entries.begin() : entries.upper_bound(failedUpTo); };
    const auto left = [&] { return entries.size() - failed; };
    const auto removeOldest = [&](const std::string& fileName, const std::string& fullPath) {
        if (DeleteFileUpdateDirConfig(dirFd.get(), fullPath, &total, state.SizeOf(fileName)) != Removal::kFailed) {
            state.Forget(fileName);
            return;
        }
        // What is left of it counts until it can go.
        state.Note(dirFd.get(), fileName, config, GetClock().SteadyNowMs(), false);
        if (state.SizeOf(fileName)) {
            failedUpTo = fileName;
            ++failed;
        }
    };
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
        const bool dueCount = config.maxLogNumber != 0 && left() > config.maxLogNumber;
        const bool dueSize = config.maxSize != 0 && total > limit;
        const bool dueAge = !dueCount && !dueSize && config.maxValidDay != 0 && left() != 0 &&
                            CompareTimeStrExpired(oldest()->first, config.maxValidDay, nowMs, &ageMs);
        if (!dueCount && !dueSize && !dueAge) break;
        dueToSize = dueSize;
        if (left() == 0) {
            // Nothing left to delete, compress or report on: the limits
            // are over by what no longer can be removed.
            ALOGD("[%s] %s is clean, should not enter clean loop again!", "CheckAndClean", Esc(devicePath).c_str());
            return !full;
        }
        const std::string fileName = oldest()->first;
        const std::string fullPath = devicePath + "/" + fileName;
        const std::string reuseFullPath = reusePath + "/" + fileName;
        ALOGI("[%s] fullPath: %s; reusePath: %s; reuseFullPath: %s", "CheckAndClean", Esc(fullPath).c_str(),
              Esc(reusePath).c_str(), Esc(reuseFullPath).c_str());
        ALOGI("[%s] Clean Start: fileName %s, fileNameList size %zu, totalSize %zu, NowTime %ld(ms), "
              "MaxOffsetTime %lu(ms), time offset %lu(ms)",
              "CheckAndClean", Esc(fileName).c_str(), left(), static_cast<size_t>(total), static_cast<long>(nowMs),
              static_cast<unsigned long>(config.maxValidDay * static_cast<uint64_t>(kDayMs)),
              static_cast<unsigned long>(ageMs > 0 ? ageMs : 0));
        if (!reuseOpen || config.reuseMaxSize == 0) {
            ALOGI("[%s] Delete File By Inital Logic.", "CheckAndClean");
            removeOldest(fileName, fullPath);
            continue;
        }
        std::vector<std::string> reuseNames;
        uint64_t reuseTotal = getDirTotalSize(reusePath, reuseNames, config);
        std::sort(reuseNames.begin(), reuseNames.end());
        const uint64_t entrySize = EntrySizeAt(dirFd.get(), fileName);
        if (entrySize > reuseLimit) {
            ALOGI("[%s] Log %s size is too large to move file.", "CheckAndClean", Esc(fileName).c_str());
            removeOldest(fileName, fullPath);
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
            const Removal removal = DeleteFileUpdateDirConfig(reuseFd.get(), reusePath + "/" + reuseNames.front(),
                                                              &reuseTotal, std::nullopt);
            reuseNames.erase(reuseNames.begin());
            if (removal == Removal::kFailed) {
                removeOldest(fileName, fullPath);
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
        removeOldest(fileName, fullPath);
    }

    if (config.compress && left() != 0) CompressEntries(devicePath, dirFd.get(), config, state, failedUpTo);
    if (dueToSize) {
        ReportSizeCleaning(devicePath, dirFd.get(), state, sizeBefore, reuseOpen, reuseClearSize, reuseMoveSize);
    }
    return !full;
}

bool LogManager::MeasureForCheck(const std::string& devicePath, int dirFd, const LogConfig& config,
                                 const std::optional<std::string>& arrived, LogDirState& state, bool* full) {
    struct stat dir {};
    const int64_t nowMs = GetClock().SteadyNowMs();
    *full = measureFully_ || fstat(dirFd, &dir) != 0 || state.NeedsFullReading(dir.st_dev, dir.st_ino, nowMs);
    if (!*full) {
        state.Remeasure(dirFd, config, nowMs, arrived ? *arrived : std::string());
        if (arrived) state.Note(dirFd, *arrived, config, nowMs, true);
        return true;
    }
    std::vector<std::string> names;
    ScanResult scan = ScanDirectory(dirFd, config, names, "CheckAndClean", "", ANDROID_LOG_WARN);
    if (!scan.opened) {
        ALOGE("[%s] can not open dir %s", "CheckAndClean", Esc(devicePath).c_str());
        state.Invalidate();
        return false;
    }
    if (!scan.closed) ALOGE("[%s] Close Dir failed!", "CheckAndClean");
    state.Reset(std::move(scan), dir.st_dev, dir.st_ino, nowMs, config.compress);
    if (arrived) state.Arrived(*arrived, nowMs);
    return true;
}

void LogManager::NoteEvent(const std::string& devicePath, const std::string& name, bool gone) {
    auto found = dirStates_.find(devicePath);
    if (found == dirStates_.end() || !found->second.Valid()) return;
    if (gone) {
        found->second.Forget(name);
        return;
    }
    std::optional<LogConfig> config = FindConfig(devicePath);
    std::string why;
    const unique_fd dirFd = config ? OpenLogDir(devicePath, &why) : unique_fd();
    if (!dirFd.ok()) {
        dirStates_.erase(found);
        return;
    }
    found->second.Note(dirFd.get(), name, *config, GetClock().SteadyNowMs(), true);
}



void LogManager::ReportSizeCleaning(const std::string& devicePath, int dirFd, const LogDirState& state,
                                    uint64_t before, bool reuseOpen, int64_t cleared, int64_t moved) {
    // Directories and archives count; so do those the ramdump filter leaves
    // out, which nothing else measures.
    uint64_t after = 0;
    const auto add = [&after](const std::string& name, const EntryInfo& info) {
        if (info.kind == EntryKind::kDir || (info.kind == EntryKind::kFile && Contains(name, ".zip"))) {
            after += info.size;
        }
    };
    for (const auto& [name, info] : state.entries()) add(name, info);
    for (const std::string& name : state.filtered()) {
        struct stat st {};
        if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const int64_t size = S_ISDIR(st.st_mode) ? FileUtil::TreeSizeAt(dirFd, name.c_str(), st.st_size) : st.st_size;
        EntryInfo info{size > 0 ? static_cast<uint64_t>(size) : 0, EntryKind::kOther};
        if (S_ISDIR(st.st_mode)) info.kind = EntryKind::kDir;
        if (S_ISREG(st.st_mode)) info.kind = EntryKind::kFile;
        add(name, info);
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

LogManager::Removal LogManager::DeleteFileUpdateDirConfig(int dirFd, const std::string& devicePath, uint64_t* total,
                                                          std::optional<uint64_t> known) {
    const std::string name = devicePath.substr(devicePath.find_last_of('/') + 1);
    struct stat st {};
    if (dirFd >= 0 && fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
        // Another process cleaned it first: what it held is gone all the same.
        ALOGI("[%s] %s vanished before its removal, skipped", "DeleteFileUpdateDirConfig",
              Esc(paths::Get(devicePath)).c_str());
        if (known) *total = *total > *known ? *total - *known : 0;
        return Removal::kVanished;
    }
    unsigned long removed = 0;
    // Through the directory the check opened: a component renamed or
    // swapped for a link since then leads nowhere else.
    errno = EBADF;
    const int result = dirFd >= 0 ? FileUtil::DeleteDirectoryOrFile(ConfinedPath::Through(dirFd, name), &removed) : -1;
    if (result == 0) {
        ALOGI("[%s] DeleteDirectoryOrFile succeed, removed size %zu bytes (%zu MB)", "DeleteFileUpdateDirConfig",
              static_cast<size_t>(removed), static_cast<size_t>(removed >> 20));
        *total = *total > removed ? *total - removed : 0;
        return Removal::kRemoved;
    }
    ALOGE("[%s] remove %s failed! error:%s. skipped this file for now..., ", "DeleteFileUpdateDirConfig",
          Esc(paths::Get(devicePath)).c_str(), strerror(errno));
    return Removal::kFailed;
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

void LogManager::updatePathSizeMap(const std::string& devicePath, const LogConfig& config, bool fromState) {
    auto known = fromState ? dirStates_.find(devicePath) : dirStates_.end();
    if (known != dirStates_.end()) {
        ALOGD("[%s] update pathSizeMap for %s, totalSize: %zu", "updatePathSizeMap", Esc(devicePath).c_str(),
              static_cast<size_t>(known->second.total()));
        std::lock_guard<std::mutex> guard(stateLock_);
        pathSizeMap_[devicePath] = known->second.total();
        return;
    }
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
