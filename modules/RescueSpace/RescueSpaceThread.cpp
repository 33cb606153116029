#define LOG_TAG "RescueSpaceMonitor"

#include "modules/RescueSpace/RescueSpaceThread.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cctype>
#include <deque>
#include <mutex>
#include <sstream>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/Clock.h"
#include "utils/FileUtil.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"

namespace velmar {
namespace tarnis {

namespace paths = kolto::paths;
using kolto::StringUtil;
using android::base::StringPrintf;
using android::base::unique_fd;

namespace {

constexpr char kTimerProperty[] = "persist.sys.stability.dorvad.rescue_space_monitor_timervalue";
constexpr size_t kDefaultTimer = 20;
constexpr size_t kOperationLogLines = 100;
// More than any line the monitor writes; what a longer file holds past the
// kept lines is dropped anyway.
constexpr size_t kMaxOperationLine = 4096;
constexpr unsigned long kCoredumpMaxAgeSeconds = 3600;

// Directories below the rescue base that others fill, with the most each may hold.
const std::vector<std::pair<const char*, uint64_t>>& SizeLimits() {
    static const std::vector<std::pair<const char*, uint64_t>> table = {
            {"dumpstateTemporary/", 52428800}, {"system_optimize/", 4194304}, {"system_archives/", 4194304},
            {"lumetra/", 10485760},            {"fscklog/", 1048576},         {"pwlog/", 1048576},
    };
    return table;
}

std::mutex& StatfsLock() {
    static std::mutex lock;
    return lock;
}
RescueSpaceThread::StatfsFn& StatfsSource() {
    static RescueSpaceThread::StatfsFn fn;
    return fn;
}

int DoStatfs(const char* path, struct statfs* out) {
    RescueSpaceThread::StatfsFn fn;
    {
        std::lock_guard<std::mutex> guard(StatfsLock());
        fn = StatfsSource();
    }
    if (fn) return fn(path, out);
    return statfs(path, out);
}

// The binder's wipe and the cycle may both log; the log is rewritten whole,
// so one writer at a time keeps a line from being lost between them.
std::mutex& OperationLogLock() {
    static std::mutex lock;
    return lock;
}

bool IsTrustedOwner(uid_t id) {
    return id == 0 || id == 1000 || id == 1007 || id == 9997;
}

mode_t ModeFor(const std::string& name) {
    if (name == "update_engine_log") return 02775;
    return 0775;  // the listed directories and every other entry alike
}

std::string LastComponent(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    const size_t slash = trimmed.rfind('/');
    return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string Join(const std::string& dir, const char* name) {
    if (!dir.empty() && dir.back() == '/') return dir + name;
    return dir + "/" + name;
}

// Opens a directory without following a link at its last component: a
// directory swapped for a link after it was examined is refused, not entered.
kolto::ScopedDir OpenDirNoFollow(const std::string& path) {
    std::string target = path;
    while (target.size() > 1 && target.back() == '/') target.pop_back();
    unique_fd fd(TEMP_FAILURE_RETRY(open(target.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    return kolto::AdoptDir(fd);
}

bool IsDotOrDotDot(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

}  // namespace

size_t getTimerValue() {
    const std::string text = android::base::GetProperty(kTimerProperty, "20");
    // Nine digits at most: anything longer is no sensible number of minutes
    // and would not fit the conversion.
    bool digits = !text.empty() && text.size() <= 9;
    for (char c : text) digits = digits && isdigit(static_cast<unsigned char>(c));
    if (!digits) {
        ALOGW("An invalid string was read: %s", StringUtil::ForLog(text).c_str());
        return kDefaultTimer;
    }
    return static_cast<size_t>(std::stoul(text));
}

const RescueSpaceThread::KeepSet& RescueSpaceThread::Level1Keep() {
    static const KeepSet keep = {"update_engine_log", "dorva",  "boot_flag",      "recovery",
                                 "system_optimize",   "lumetra", "system_archives"};
    return keep;
}
const RescueSpaceThread::KeepSet& RescueSpaceThread::Level2Keep() {
    static const KeepSet keep = {"RescuePartyLog", "BootFailure", "UnhealthyBootLog", "stabilityrecord",
                                 "lumetra",        "boot_flag",   "recovery",         "system_optimize",
                                 "system_archives", "update_engine_log"};
    return keep;
}
const RescueSpaceThread::KeepSet& RescueSpaceThread::Level3Keep() {
    static const KeepSet keep = {"boot_flag",       "failkeeper.db",   "LocalExceptionRecord.txt",
                                 "LocalKernelExceptionRecord.txt", "update_engine_log", "system_optimize",
                                 "system_archives", "recovery",        "lumetra"};
    return keep;
}
const RescueSpaceThread::KeepSet& RescueSpaceThread::FactoryResetKeep() {
    static const KeepSet keep = {"recovery"};
    return keep;
}

RescueSpaceThread::RescueSpaceThread()
    : rescueBase_(paths::Get(paths::kRescueBase, android::base::GetBoolProperty("ro.build.ab_update", false))) {
    operationLogPath_ = rescueBase_ + "/recovery/last_rescue_space_monitor_log";
}

void RescueSpaceThread::SetStatfsForTesting(StatfsFn fn) {
    std::lock_guard<std::mutex> guard(StatfsLock());
    StatfsSource() = std::move(fn);
}

bool RescueSpaceThread::IsPartitionSpaceRatioFull(std::string& path) {
    struct statfs info {};
    if (DoStatfs(path.c_str(), &info) != 0) {
        ALOGW("failed to get %s diskrate (%s)\n", StringUtil::ForLog(path).c_str(), strerror(errno));
        return false;
    }
    long used = 0;
    if (info.f_blocks != 0) {
        used = static_cast<long>((static_cast<uint64_t>(info.f_blocks) - info.f_bfree) * 100 / info.f_blocks);
    }
    if (used > 89) {
        ALOGW("Insufficient partition space %ld, please delete the file!!\n", used);
        return true;
    }
    ALOGI("Rescue Partition space is enough, This diskrate is %ld\n", used);
    return false;
}

uint64_t RescueSpaceThread::CountDirSize(const std::string& path) {
    kolto::ScopedDir dir = OpenDirNoFollow(path);
    if (!dir) {
        const std::string reason = strerror(errno);
        ALOGE("Unable to open directory %s: %s\n", StringUtil::ForLog(path).c_str(), reason.c_str());
        LogRescueSpaceMonitorOperate(
                StringPrintf("[CountDirSize] Unable to open directory %s: %s", path.c_str(), reason.c_str()));
        return 0;
    }
    uint64_t total = 0;
    while (struct dirent* entry = readdir(dir.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        const std::string child = Join(path, entry->d_name);
        struct stat st {};
        if (lstat(child.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            total += CountDirSize(child);
        } else if (S_ISREG(st.st_mode)) {
            total += static_cast<uint64_t>(st.st_size);
        }
    }
    return total;
}

void RescueSpaceThread::UpdatePermission(const std::string& path) {
    struct stat st {};
    // A link has no mode of its own to set, and chmod through it would change
    // whatever it points to: it is left as it is, and unlinked as itself.
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) return;
    const mode_t mode = ModeFor(LastComponent(path));
    unique_fd fd;
    if (lstat(path.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
        fd.reset(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    }
    if (fd.get() >= 0) {
        fchmod(fd.get(), mode);
    } else {
        fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW);
    }
    const int statResult = fd.get() >= 0 ? fstat(fd.get(), &st) : lstat(path.c_str(), &st);
    if (statResult != 0) {
        ALOGE("[UpdatePermission] Couldn't stat %s: %s\n", StringUtil::ForLog(path).c_str(), strerror(errno));
        return;
    }
    if (S_ISLNK(st.st_mode)) return;
    // Files left by an unknown owner are opened up so that deleting them works.
    if (!IsTrustedOwner(st.st_uid) || !IsTrustedOwner(st.st_gid)) {
        if (fd.get() >= 0) {
            fchmod(fd.get(), 0777);
        } else {
            fchmodat(AT_FDCWD, path.c_str(), 0777, AT_SYMLINK_NOFOLLOW);
        }
    }
}

bool RescueSpaceThread::DeleteDirectoryFiles(const std::string& path, const KeepSet& keep, bool removeDirectories,
                                             unsigned long maxAgeSeconds) {
    if (path.empty()) {
        ALOGE("Path is empty\n");
        return false;
    }
    bool ok = true;
    const long now = static_cast<long>(kolto::GetClock().WallNowMs() / 1000);
    std::deque<std::string> queue{path};
    std::vector<std::string> directories;
    while (!queue.empty()) {
        const std::string current = queue.front();
        queue.pop_front();
        kolto::ScopedDir dir = OpenDirNoFollow(current);
        if (!dir) {
            const std::string reason = strerror(errno);
            LogRescueSpaceMonitorOperate(StringPrintf("[DeleteDirectoryFiles] Can't open the dir %s (%s)",
                                                      current.c_str(), reason.c_str()));
            ALOGE("[DeleteDirectoryFiles] Can't open the dir %s (%s)\n", StringUtil::ForLog(current).c_str(),
                  reason.c_str());
            ok = false;
            continue;
        }
        while (struct dirent* entry = readdir(dir.get())) {
            if (IsDotOrDotDot(entry->d_name)) continue;
            const std::string child = Join(current, entry->d_name);
            if (keep.count(entry->d_name) != 0) {
                ALOGW("Skip save path(%s)\n", StringUtil::ForLog(child).c_str());
                continue;
            }
            UpdatePermission(child);
            struct stat st {};
            if (lstat(child.c_str(), &st) != 0) {
                if (errno != ENOENT) {
                    const std::string reason = strerror(errno);
                    LogRescueSpaceMonitorOperate(StringPrintf("[DeleteDirectoryFiles] Couldn't stat %s: %s",
                                                              child.c_str(), reason.c_str()));
                    ALOGE("[DeleteDirectoryFiles] Couldn't stat %s: %s\n", StringUtil::ForLog(child).c_str(),
                          reason.c_str());
                }
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                queue.push_back(child);
                if (removeDirectories) directories.push_back(child);
                continue;
            }
            // Anything else, a link included, is unlinked as itself.
            if (maxAgeSeconds != 0) {
                if (now - static_cast<long>(st.st_mtime) >= static_cast<long>(maxAgeSeconds) &&
                    unlink(child.c_str()) != 0) {
                    ALOGE("[Timeout] Couldn't unlink %s: %s\n", StringUtil::ForLog(child).c_str(), strerror(errno));
                    ok = false;
                }
                continue;
            }
            const long size = static_cast<long>(st.st_size);
            if (unlink(child.c_str()) == 0) {
                LogRescueSpaceMonitorOperate(StringPrintf("Unlink file: %s, size: %ld", child.c_str(), size));
                ALOGI("Delete file :%s success\n", StringUtil::ForLog(child).c_str());
            } else {
                const std::string reason = strerror(errno);
                LogRescueSpaceMonitorOperate(StringPrintf("Unlink file failed: %s, size: %ld", child.c_str(), size));
                ALOGE("Couldn't unlink %s: %s\n", StringUtil::ForLog(child).c_str(), reason.c_str());
                ok = false;
            }
        }
    }
    // Deepest first, so that each directory is empty when its turn comes.
    for (auto it = directories.rbegin(); it != directories.rend(); ++it) {
        if (rmdir(it->c_str()) != 0) {
            ALOGE("Delete dir %s fialed! %s", it->c_str(), strerror(errno));
            ok = false;
        }
    }
    return ok;
}

void RescueSpaceThread::LogRescueSpaceMonitorOperate(std::string message) {
    const long now = static_cast<long>(kolto::GetClock().WallNowMs() / 1000);
    std::string content = StringPrintf("%ld: %s", now, message.c_str()) + "\n";
    std::lock_guard<std::mutex> guard(OperationLogLock());
    const char* path = operationLogPath_.c_str();
    // Only the kept lines are needed; a FIFO or device in the log's place is
    // not read at all.
    std::string old;
    if (!kolto::FileUtil::ReadRegularFile(path, &old, kOperationLogLines * kMaxOperationLine)) {
        if (errno != ENOENT) ALOGE("failed to read %s, error: %s", path, strerror(errno));
        old.clear();
    }
    std::istringstream lines(old);
    std::string line;
    for (size_t kept = 0; kept + 1 < kOperationLogLines && std::getline(lines, line); ++kept) {
        content += line + "\n";
    }
    // The new log is written aside and renamed over the old one, so the log is
    // never seen half written and a link planted at its name is replaced, not
    // written through.
    if (!kolto::TempName::WriteWhole(path, content, 0660)) {
        ALOGE("failed to write %s, error: %s", path, strerror(errno));
    }
}

bool RescueSpaceThread::CollectFileList(const std::string& base, std::string* out) {
    bool ok = true;
    std::deque<std::string> queue{base};
    while (!queue.empty()) {
        const std::string current = queue.front();
        queue.pop_front();
        kolto::ScopedDir dir = OpenDirNoFollow(current);
        if (!dir) {
            ALOGE("[GetFileListInfo] Can't open the dir %s (%s)\n", StringUtil::ForLog(current).c_str(),
                  strerror(errno));
            ok = false;
            continue;
        }
        while (struct dirent* entry = readdir(dir.get())) {
            if (IsDotOrDotDot(entry->d_name)) continue;
            const std::string child = Join(current, entry->d_name);
            struct stat st {};
            if (lstat(child.c_str(), &st) != 0) {
                ALOGE("[GetFileListInfo] Couldn't stat %s: %s\n", StringUtil::ForLog(child).c_str(), strerror(errno));
                ok = false;
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                queue.push_back(child);
                continue;
            }
            *out += child + StringPrintf(",  fileSize: %ld, filemode: %u\n", static_cast<long>(st.st_size),
                                         static_cast<unsigned>(st.st_mode));
        }
    }
    return ok;
}

bool RescueSpaceThread::WriteFileList(const std::string& path, const std::string& list) {
    // Written aside and renamed into place: the list is complete or absent.
    if (!kolto::TempName::WriteWhole(path, list, 0660)) {
        ALOGE("Write %s failed! %s\n", StringUtil::ForLog(path).c_str(), strerror(errno));
        return false;
    }
    return true;
}

void RescueSpaceThread::ManageLevels() {
    std::string base = rescueBase_;
    if (!IsPartitionSpaceRatioFull(base)) return;
    ALOGW("Level 1: Insufficient partition space, GradeSpace is first stage\n");
    if (!DeleteDirectoryFiles(base, Level1Keep(), false, 0)) ALOGE("Level 1: Delete other file failed!\n");
    if (!IsPartitionSpaceRatioFull(base)) return;
    ALOGW("Level 2: Insufficient partition space, GradeSpace is second stage\n");
    if (!DeleteDirectoryFiles(base + "dorva/", Level2Keep(), false, 0)) ALOGE("Level 2: Delete file failed!\n");
    if (!IsPartitionSpaceRatioFull(base)) return;
    ALOGW("Level 3: Insufficient partition space, GradeSpace is third stage\n");
    if (base.empty()) {
        ALOGE("Path is empty\n");
        return;
    }
    // The list is taken before the deletion so that what was on the
    // partition can still be told afterwards.
    std::string list;
    CollectFileList(base, &list);
    if (!DeleteDirectoryFiles(base, Level3Keep(), false, 0)) ALOGE("Level 3: Delete all dorva file failed!!!\n");
    const std::string listPath = base + "/dorva/rescue_info.log";
    if (!WriteFileList(listPath, list)) {
        ALOGE("Level 3: Wirte rescue partition file info to %s failed!\n", StringUtil::ForLog(listPath).c_str());
    }
    sync();
}

void RescueSpaceThread::Start() {
    ALOGW("Rescue partition space manager start!!\n");
    ALOGW("Timer value is %zu\n", getTimerValue());
    // What a write killed half-way left beside the operation log.
    kolto::TempName::RemoveLeftovers(operationLogPath_.substr(0, operationLogPath_.find_last_of('/')));
    const bool coredumpProp = android::base::GetBoolProperty("persist.reboot.coredump", false);
    const bool mtbfProp = android::base::GetBoolProperty("persist.mtbf.test", false);
    coredumpManaged_ = !coredumpProp && !mtbfProp;
    if (coredumpManaged_) {
        ALOGW("Coredump space manager system starts!\n");
    } else {
        ALOGW("Disable coredump manager.");
        ALOGW("data_nuvilog_coredump is %d, mtbf_test_prop is %d\n", coredumpProp, mtbfProp);
    }
}

void RescueSpaceThread::RunCycle() {
    static const KeepSet kNothing;
    if (coredumpManaged_) {
        DeleteDirectoryFiles(paths::Get(paths::kNativeCrashCoredumpDir), kNothing, false, kCoredumpMaxAgeSeconds);
    }
    for (const auto& [directory, limit] : SizeLimits()) {
        const std::string dir = rescueBase_ + directory;
        const uint64_t size = CountDirSize(dir);
        if (size > limit) {
            ALOGW("Ready to delete %s file, size = %lu \n", StringUtil::ForLog(dir).c_str(),
                  static_cast<unsigned long>(size));
            if (!DeleteDirectoryFiles(dir, kNothing, true, 0))
                ALOGE("Remove %s file failed!", StringUtil::ForLog(dir).c_str());
        }
    }
    ManageLevels();
}

void RescueSpaceThread::threadLoop() {
    Start();
    for (;;) {
        RunCycle();
        // At least one sleep, whatever the timer says: a value of 0 pauses a
        // minute rather than letting the cycle run back to back.
        size_t sleeps = 0;
        size_t timer = 0;
        do {
            timer = getTimerValue();
            kolto::GetClock().SleepMs(kSleepMs);
            ++sleeps;
        } while (sleeps < timer);
    }
}

void RescueSpaceThread::FactoryResetWipeRescuePartition() {
    ALOGW("Factory Reset Wipe");
    if (!DeleteDirectoryFiles(rescueBase_, FactoryResetKeep(), false, 0)) ALOGE("Factory Reset Wipe failed!\n");
}

}  // namespace tarnis
}  // namespace velmar
