#define LOG_TAG "Tarnis-LogManager"

#include "modules/LogManager/LogDirScan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <ctime>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "modules/LogManager/LogManagerUtil.h"
#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/TempName.h"

namespace velmar {
namespace kolto {
namespace logscan {
namespace {

using android::base::unique_fd;

// The tree a device path is opened below: the managed roots, and the reuse
// partition's copies.
const char* TreeOf(const std::string& devicePath) {
    if (const char* root = LogManagerUtil::ManagedRootOf(devicePath)) return root;
    return ConfinedPath::IsBelow(devicePath, paths::kReuseLogRoot) ? paths::kReuseLogRoot : nullptr;
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

}  // namespace

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

unique_fd OpenLogDir(const std::string& devicePath, std::string* why) {
    const char* tree = TreeOf(devicePath);
    if (tree == nullptr) {
        *why = "\"" + StringUtil::ForLog(devicePath, 256) + "\" is not below a managed log root";
        errno = EXDEV;
        return {};
    }
    return ConfinedPath::Open(devicePath, tree, O_RDONLY | O_DIRECTORY, 0, why);
}

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

Seen MeasureEntry(int dirFd, const std::string& name, const LogConfig& config, const char* op, const char* prefix,
                  int unknownPrio, EntryInfo* info) {
    // An archive being written, or left by a killed compression: not a log
    // entry, never counted, deleted or packed as one.
    if (TempName::Is(name)) return Seen::kTemporary;
    if (config.watchSSRRamdumpHack && !IsRamdumpName(name)) {
        ALOGD("[%s] %sOldRamdumpFileFormatHack: fileName %s not matched regex, skip!", op, prefix, Esc(name).c_str());
        return Seen::kFiltered;
    }
    struct stat st {};
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        ALOGI("[%s] %s%s vanished while checking, skipped", op, prefix, Esc(name).c_str());
        return Seen::kVanished;
    }
    *info = EntryInfo();
    if (S_ISREG(st.st_mode)) {
        if (Contains(name, ".zip")) ALOGD("[%s] %sDetected zipped log %s", op, prefix, Esc(name).c_str());
        *info = {static_cast<uint64_t>(st.st_size), EntryKind::kFile};
    } else if (S_ISDIR(st.st_mode)) {
        const int64_t size = FileUtil::TreeSizeAt(dirFd, name.c_str(), st.st_size);
        if (size < 0) {
            ALOGI("[%s] %s%s vanished while checking, skipped", op, prefix, Esc(name).c_str());
            return Seen::kVanished;
        }
        *info = {static_cast<uint64_t>(size), EntryKind::kDir};
    } else {
        __android_log_print(unknownPrio, LOG_TAG,
                            "[%s] %sOnly directory with date named is allowed, but unknown file %s was detected!!", op,
                            prefix, Esc(name).c_str());
    }
    return Seen::kCounted;
}

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
        EntryInfo info;
        const Seen seen = MeasureEntry(fd, fileName, config, op, prefix, unknownPrio, &info);
        if (seen == Seen::kFiltered) result.filtered.push_back(fileName);
        if (seen != Seen::kCounted) continue;
        result.total += info.size;
        result.entries.emplace(fileName, info);
        names.push_back(fileName);
    }
    if (closedir(dir.release()) != 0) {
        result.closed = false;
        result.error = errno;
    }
    return result;
}

bool LogDirState::NeedsFullReading(dev_t dev, ino_t ino, int64_t nowMs) const {
    // Another directory at the same path (the old one removed or moved
    // away) sent its events to a watch that is gone.
    return !valid_ || dev != dev_ || ino != ino_ || nowMs - readMs_ >= kFullPeriodMs || nowMs < readMs_;
}

void LogDirState::Reset(ScanResult&& scan, dev_t dev, ino_t ino, int64_t nowMs, bool trackUnpacked) {
    entries_ = std::move(scan.entries);
    total_ = scan.total;
    filtered_.reset();
    if (!scan.filtered.empty()) filtered_ = std::make_unique<Names>(scan.filtered.begin(), scan.filtered.end());
    unpacked_.reset();
    if (trackUnpacked) {
        unpacked_ = std::make_unique<Names>();
        for (const auto& [name, info] : entries_) {
            if (!Contains(name, ".zip")) unpacked_->insert(unpacked_->end(), name);
        }
    }
    // Those still there may still be filling.
    arrivals_.erase(std::remove_if(arrivals_.begin(), arrivals_.end(),
                                   [this](const auto& a) { return entries_.count(a.first) == 0; }),
                    arrivals_.end());
    valid_ = true;
    dev_ = dev;
    ino_ = ino;
    readMs_ = nowMs;
}

void LogDirState::Put(const std::string& name, const EntryInfo& info) {
    auto [it, inserted] = entries_.emplace(name, info);
    if (!inserted) {
        total_ -= std::min(total_, it->second.size);
        it->second = info;
    }
    total_ += info.size;
    if (unpacked_ && !Contains(name, ".zip")) unpacked_->insert(name);
}

void LogDirState::Forget(const std::string& name) {
    auto found = entries_.find(name);
    if (found != entries_.end()) {
        total_ -= std::min(total_, found->second.size);
        entries_.erase(found);
    }
    if (unpacked_) unpacked_->erase(name);
    if (filtered_) filtered_->erase(name);
}

std::optional<uint64_t> LogDirState::SizeOf(const std::string& name) const {
    auto found = entries_.find(name);
    if (found == entries_.end()) return std::nullopt;
    return found->second.size;
}

void LogDirState::Note(int dirFd, const std::string& name, const LogConfig& config, int64_t nowMs, bool arrived) {
    EntryInfo info;
    switch (MeasureEntry(dirFd, name, config, "CheckAndClean", "", ANDROID_LOG_WARN, &info)) {
        case Seen::kTemporary:
            return;
        case Seen::kFiltered:
            if (!filtered_) filtered_ = std::make_unique<Names>();
            filtered_->insert(name);
            return;
        case Seen::kVanished:
            Forget(name);
            return;
        case Seen::kCounted:
            break;
    }
    Put(name, info);
    if (arrived) Arrived(name, nowMs);
}

void LogDirState::Arrived(const std::string& name, int64_t nowMs) {
    const auto same = [&name](const auto& a) { return a.first == name; };
    arrivals_.erase(std::remove_if(arrivals_.begin(), arrivals_.end(), same), arrivals_.end());
    arrivals_.emplace_back(name, nowMs);
    if (arrivals_.size() > kArrivalsRemeasured) arrivals_.erase(arrivals_.begin());
}

void LogDirState::Remeasure(int dirFd, const std::string& name, const LogConfig& config) {
    auto found = entries_.find(name);
    // A link or a fifo stays what it is until an event says otherwise.
    if (found == entries_.end() || found->second.kind == EntryKind::kOther) return;
    EntryInfo info;
    if (MeasureEntry(dirFd, name, config, "CheckAndClean", "", ANDROID_LOG_WARN, &info) == Seen::kCounted) {
        Put(name, info);
    } else {
        Forget(name);
    }
}

void LogDirState::Remeasure(int dirFd, const LogConfig& config, int64_t nowMs, const std::string& arriving) {
    arrivals_.erase(std::remove_if(arrivals_.begin(), arrivals_.end(),
                                   [nowMs](const auto& a) { return nowMs - a.second >= kArrivalWindowMs; }),
                    arrivals_.end());
    const auto arrived = [this, &arriving](const std::string& name) {
        return name == arriving || std::any_of(arrivals_.begin(), arrivals_.end(),
                                               [&name](const auto& a) { return a.first == name; });
    };
    std::vector<std::string> names;
    for (auto it = entries_.rbegin(); it != entries_.rend() && names.size() < kNewestRemeasured; ++it) {
        if (!arrived(it->first)) names.push_back(it->first);
    }
    for (const auto& [name, at] : arrivals_) {
        if (name != arriving) names.push_back(name);
    }
    for (const std::string& name : names) Remeasure(dirFd, name, config);
}

}  // namespace logscan
}  // namespace kolto
}  // namespace velmar
