#define LOG_TAG "dorvad"

#include "utils/CaptureLayout.h"
#include "utils/dump/CaptureFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/BuildProbes.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/ConfinedPath.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
// Types, headlines and `where` come from the client that asked for the capture.
using velmar::kolto::StringUtil;

constexpr int kOfflineSlots = 5;
constexpr size_t kMaxBaseAndType = 100;
const std::string kRule(56, '=');

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
using ScopedFile = std::unique_ptr<FILE, FileCloser>;

std::string LocalTime(const char* format) {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[64];
    strftime(text, sizeof(text), format, &local);
    return text;
}

// Opens the capture directory `name` below `parentFd`, making it when
// missing: mode 0777, owned by the system user. Owner and mode are set
// through the descriptor, so a link in its place (refused here) never has
// its target changed, even when planted between the checks.
base::unique_fd OpenCaptureDir(int parentFd, const std::string& name, const std::string& shown,
                               const char* failure) {
    if (mkdirat(parentFd, name.c_str(), 0777) != 0 && errno != EEXIST) {
        ALOGE("%s%s :%s", failure, shown.c_str(), strerror(errno));
        return {};
    }
    base::unique_fd dir(openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.ok()) {
        // The kernel says ELOOP or ENOTDIR for a link; the log says which it was.
        const int openErrno = errno;
        struct stat st;
        const bool link = fstatat(parentFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
        ALOGE("%s%s :%s", failure, shown.c_str(), link ? "a symbolic link is in its place" : strerror(openErrno));
        return {};
    }
    if (fchown(dir.get(), kSystemUid, kSystemUid) != 0) ALOGD("chown %s failed: %s", shown.c_str(), strerror(errno));
    fchmod(dir.get(), 0777);
    return dir;
}

std::string WithoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// "." and ".." of a device path resolved by their names alone, as the
// device would from "/": ".." at the top stays there.
std::string Normalize(const std::string& path) {
    std::vector<std::string> names;
    size_t begin = 0;
    while (begin <= path.size()) {
        size_t end = path.find('/', begin);
        if (end == std::string::npos) end = path.size();
        const std::string name = path.substr(begin, end - begin);
        if (name == "..") {
            if (!names.empty()) names.pop_back();
        } else if (!name.empty() && name != ".") {
            names.push_back(name);
        }
        begin = end + 1;
    }
    std::string clean;
    for (const std::string& name : names) clean += "/" + name;
    if (clean.empty()) return "/";
    if (path.back() == '/') clean += "/";
    return clean;
}

// Text for the capture file, opened by name; a link in its place is refused.
ScopedFile OpenForAppend(const std::string& path) {
    base::unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0666));
    return ScopedFile(velmar::kolto::AdoptFile(fd, "a"));
}

bool WriteAll(int fd, const std::string& path, const std::string& text) {
    if (base::WriteFully(fd, text.data(), text.size())) return true;
    ALOGE("failed to write log file %s :%s", StringUtil::ForLog(path).c_str(), strerror(errno));
    return false;
}

}  // namespace

std::string CaptureFile::SanitizeHeadline(const std::string& headline) {
    return velmar::kolto::capture_layout::SanitizeHeadline(headline);
}

bool CaptureFile::IsPlainName(const std::string& type) {
    // A control byte would let the name forge lines wherever it is logged.
    for (char c : type) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
    }
    return !type.empty() && type != "." && type != ".." && type.find('/') == std::string::npos;
}

std::string CaptureFile::ResolveWhere(const std::string& where) {
    std::string top;
    return OpenWhere(where, &top).ok() ? Normalize(where) : "";
}

// The client's `where`, opened below the partition it names, with no link on
// the way; `top` gets that partition.
base::unique_fd CaptureFile::OpenWhere(const std::string& where, std::string* top) {
    for (const char* partition : {paths::kDataMountPoint, paths::kRescueBase.rescue, paths::kRescueBase.cache}) {
        if (!velmar::kolto::ConfinedPath::IsBelow(where, partition)) continue;
        *top = partition;
        return velmar::kolto::ConfinedPath::Open(where, partition, O_RDONLY | O_DIRECTORY, 0, nullptr);
    }
    return {};
}

bool CaptureFile::MakeLogDir(const std::string& type, const std::string& where, bool offline, int id,
                             bool isRecordInLocal, std::string* logDir, base::unique_fd* dirFd) {
    namespace layout = velmar::kolto::capture_layout;
    const std::string base = layout::CaptureBase(type, where, id, isRecordInLocal);
    // The limit is on the device path: the sandbox root is not part of it.
    if (base.size() + type.size() >= kMaxBaseAndType) {
        ALOGE("The length of where or type is too long and the type is %s\n", StringUtil::ForLog(type).c_str());
        return false;
    }
    if (base == paths::kLocalRecordDir) {
        const std::string dir = paths::Get(base);
        if (create_dir_if_needed(dir.c_str(), 0777) != 0) {
            ALOGE("failed to create log dir %s :%s", StringUtil::ForLog(dir).c_str(), strerror(errno));
            return false;
        }
        dirFd->reset(open(WithoutTrailingSlashes(dir).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!dirFd->ok()) {
            ALOGE("failed to create log dir %s :%s", StringUtil::ForLog(dir).c_str(), strerror(errno));
            return false;
        }
        *logDir = dir;
    } else {
        // The capture base is the daemon's own; a `where` is the client's and
        // is reached below its partition, through no link.
        const std::string typeDir = paths::Get(base + "/" + type);
        base::unique_fd baseFd;
        if (base != paths::kDorvaDir) {
            std::string top;
            baseFd = OpenWhere(base, &top);
            if (!baseFd.ok()) {
                ALOGE("failed to create log dir %s :%s", StringUtil::ForLog(typeDir).c_str(), strerror(errno));
                return false;
            }
        }
        const base::unique_fd typeFd =
            baseFd.ok() ? OpenCaptureDir(baseFd.get(), type, typeDir, "failed to create log dir ")
                        : OpenCaptureDir(AT_FDCWD, typeDir, typeDir, "failed to create log dir ");
        if (!typeFd.ok()) return false;
        // Found below the type directory's descriptor: the type directory is
        // world-writable, and its "online" may be renamed away and a link
        // planted under that name at any time.
        const std::string leaf = offline ? "offline" : "online";
        *logDir = paths::Get(layout::CaptureDir(base, type, offline));
        *dirFd = OpenCaptureDir(typeFd.get(), leaf, *logDir, "failed to create dir ");
        if (!dirFd->ok()) return false;
    }
    ALOGD("logfile_template:xline_dir=%s", StringUtil::ForLog(*logDir).c_str());
    return true;
}

// A capture text left by a capture that was killed, or planted in the
// world-writable directory, is taken for stale once no capture could still
// be writing it: past the longest packing time and then some.
static bool IsStaleText(int dirFd, const std::string& name) {
    struct stat st;
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    return time(nullptr) - st.st_mtime > CaptureFile::kStaleTextSeconds;
}

// Picks the offline slot: the first whose archive is absent, else the one
// with the oldest archive (the earliest slot on a tie). A slot whose text a
// running capture still writes is passed over, so two captures never share
// one.
int CaptureFile::ChooseOfflineSlot(int dirFd, const std::string& type, const std::string& headline) {
    int oldest = -1;
    struct timespec oldestTime = {0, 0};
    for (int slot = 0; slot < kOfflineSlots; ++slot) {
        const std::string text = base::StringPrintf("%s_%s_%d", type.c_str(), headline.c_str(), slot);
        struct stat st;
        if (fstatat(dirFd, text.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !IsStaleText(dirFd, text)) continue;
        if (fstatat(dirFd, (text + ".zip").c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) return slot;
            continue;
        }
        if (oldest < 0 || st.st_mtim.tv_sec < oldestTime.tv_sec ||
            (st.st_mtim.tv_sec == oldestTime.tv_sec && st.st_mtim.tv_nsec < oldestTime.tv_nsec)) {
            oldest = slot;
            oldestTime = st.st_mtim;
        }
    }
    if (oldest < 0) {
        ALOGE("Failed to find a valid tombstone, default to using tombstone 0.\n");
        return 0;
    }
    return oldest;
}

std::string CaptureFile::Create(int dirFd, const std::string& logDir, const std::string& type,
                                const std::string& headline, bool offline, int id, bool useId,
                                base::unique_fd* fd) {
    // Created exclusively in both cases: a capture never writes into
    // another's text. A stale text in the way is removed once.
    const int flags = O_CREAT | O_EXCL | O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC;
    std::string name;
    for (int attempt = 0; attempt < 8 && !fd->ok(); ++attempt) {
        if (offline) {
            name = base::StringPrintf("%s_%s_%d", type.c_str(), headline.c_str(),
                                      ChooseOfflineSlot(dirFd, type, headline));
        } else {
            // The random part comes from the kernel: two captures of one
            // type and headline in the same second get names of their own.
            const std::string idText = (id >= -2 && useId) ? std::to_string(id) : "null";
            const time_t now = time(nullptr);
            uint32_t random = 0;
            const std::string bytes = velmar::kolto::TempName::Random(9);
            for (char c : bytes) random = random * 31 + static_cast<unsigned char>(c);
            name = base::StringPrintf("%s_%s_%s_%s_%s_%lu_%d", idText.c_str(), type.c_str(), headline.c_str(),
                                      base::GetProperty("ro.product.device", "").c_str(),
                                      base::GetProperty("ro.build.version.incremental", "unknown").c_str(),
                                      static_cast<unsigned long>(now), static_cast<int>(random & 0x7fffffff));
        }
        fd->reset(TEMP_FAILURE_RETRY(openat(dirFd, name.c_str(), flags, 0600)));
        if (!fd->ok() && errno == EEXIST && IsStaleText(dirFd, name)) {
            ALOGW("removing stale capture text %s", StringUtil::ForLog(logDir + "/" + name).c_str());
            unlinkat(dirFd, name.c_str(), 0);
        } else if (!fd->ok() && errno != EEXIST) {
            break;
        }
    }
    const std::string path = logDir + "/" + name;
    if (!fd->ok()) {
        ALOGE("failed to open tombstone file '%s': %s\n", StringUtil::ForLog(path).c_str(), strerror(errno));
        return "";
    }
    if (fchown(fd->get(), kSystemUid, kSystemUid) != 0)
        ALOGD("chown %s failed: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    fchmod(fd->get(), 0666);
    return path;
}

void CaptureFile::RemoveLeftovers() {
    using velmar::kolto::TempName;
    int removed = TempName::RemoveLeftovers(WithoutTrailingSlashes(paths::Get(paths::kLocalRecordDir)));
    const std::string base = WithoutTrailingSlashes(paths::Get(paths::kDorvaDir));
    base::unique_fd baseFd(open(base.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    velmar::kolto::ScopedDir dir = velmar::kolto::AdoptDir(baseFd);
    while (dir) {
        struct dirent* entry = readdir(dir.get());
        if (entry == nullptr) break;
        if (!IsPlainName(entry->d_name)) continue;
        for (const char* leaf : {"online", "offline"}) {
            removed += TempName::RemoveLeftovers(base + "/" + entry->d_name + "/" + leaf);
        }
    }
    if (removed > 0) ALOGI("removed %d unfinished archives of earlier captures", removed);
}

bool CaptureFile::StillInPlace(int dirFd, const std::string& logDir) {
    const base::unique_fd now(
        open(WithoutTrailingSlashes(logDir).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found, held;
    return now.ok() && fstat(now.get(), &found) == 0 && fstat(dirFd, &held) == 0 && found.st_dev == held.st_dev &&
           found.st_ino == held.st_ino;
}

bool CaptureFile::WriteHeader(int fd, const std::string& path, const std::string& headline) {
    return WriteAll(fd, path,
                    base::StringPrintf("%s\n== date: %s\n== headline: %s\n== debuggable: %s\n== hwlevel: %s\n%s\n",
                                       kRule.c_str(), LocalTime("%Y-%m-%d %H:%M:%S").c_str(), headline.c_str(),
                                       base::GetProperty("ro.debuggable", "0").c_str(),
                                       base::GetProperty("ro.boot.hwlevel", "unkown").c_str(), kRule.c_str()));
}

void CaptureFile::Append(int fd, const std::string& path, const std::string& text) { WriteAll(fd, path, text); }

void CaptureFile::WriteDateHeader(const std::string& path) {
    ScopedFile file(OpenForAppend(path));
    if (!file) {
        ALOGE("failed to open %s :%s", StringUtil::ForLog(path).c_str(), strerror(errno));
        return;
    }
    fprintf(file.get(), "%s\n=== Date: %s ===\n%s\n", kRule.c_str(), LocalTime("%Y-%m-%d %H:%M:%S").c_str(),
            kRule.c_str());
}

}  // namespace android
