#define LOG_TAG "dorvad"

#include "utils/dump/CaptureFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/dump/BuildProbes.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
// Types, headlines and `where` come from the client that asked for the capture.
using velmar::kolto::StringUtil;

constexpr char kHeadlineUnsafe[] = "\"%&'()*/:<>?\\{|}";
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

// A capture directory: mode 0777, owned by the system user. A link in its
// place is refused by create_dir_if_needed and never has its target changed.
bool MakeCaptureDir(const std::string& path, const char* failure) {
    if (create_dir_if_needed(path.c_str(), 0777) != 0) {
        ALOGE("%s%s :%s", failure, path.c_str(), strerror(errno));
        return false;
    }
    if (lchown(path.c_str(), kSystemUid, kSystemUid) != 0) {
        ALOGD("chown %s failed: %s", path.c_str(), strerror(errno));
    }
    fchmodat(AT_FDCWD, path.c_str(), 0777, AT_SYMLINK_NOFOLLOW);
    return true;
}

}  // namespace

std::string CaptureFile::SanitizeHeadline(const std::string& headline) {
    if (headline.empty()) return "null";
    std::string clean = headline;
    for (char& c : clean) {
        if (c != '\0' && strchr(kHeadlineUnsafe, c) != nullptr) c = 'X';
    }
    return clean;
}

bool CaptureFile::MakeLogDir(const std::string& type, const std::string& where, bool offline, int id,
                             bool isRecordInLocal, std::string* logDir) {
    std::string base;
    if (type == "RescuePartyLog" || type == "BootFailure") {
        base = where;
    } else if (id < 0 && isRecordInLocal && !isUnrelease() && !ismtbftest() && !isomnitest()) {
        base = paths::kLocalRecordDir;
    } else {
        base = paths::kDorvaDir;
    }
    // The limit is on the device path: the sandbox root is not part of it.
    if (base.size() + type.size() >= kMaxBaseAndType) {
        ALOGE("The length of where or type is too long and the type is %s\n", StringUtil::ForLog(type).c_str());
        return false;
    }
    if (base == paths::kLocalRecordDir) {
        const std::string dir = paths::Get(base);
        if (create_dir_if_needed(dir.c_str(), 0777) != 0) {
            ALOGE("failed to create log dir %s :%s", dir.c_str(), strerror(errno));
            return false;
        }
        *logDir = dir;
    } else {
        // Mapped once whole, so that an empty `where` still lands below the root.
        const std::string typeDir = paths::Get(base + "/" + type);
        if (!MakeCaptureDir(typeDir, "failed to create log dir ")) return false;
        *logDir = typeDir + "/" + (offline ? "offline" : "online");
        if (!MakeCaptureDir(*logDir, "failed to create dir ")) return false;
    }
    ALOGD("logfile_template:xline_dir=%s", StringUtil::ForLog(*logDir).c_str());
    return true;
}

// Picks the offline slot: the first whose archive is absent, else the one
// with the oldest archive (the earliest slot on a tie).
int CaptureFile::ChooseOfflineSlot(const std::string& logDir, const std::string& type) {
    int oldest = -1;
    struct timespec oldestTime = {0, 0};
    for (int slot = 0; slot < kOfflineSlots; ++slot) {
        const std::string zip = base::StringPrintf("%s/%s_%d", logDir.c_str(), type.c_str(), slot) + ".zip";
        struct stat st;
        if (stat(zip.c_str(), &st) != 0) {
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

std::string CaptureFile::Create(const std::string& logDir, const std::string& type, const std::string& headline,
                                bool offline, int id, bool useId) {
    std::string path;
    base::unique_fd fd;
    if (offline) {
        const int slot = ChooseOfflineSlot(logDir, type);
        path = base::StringPrintf("%s/%s_%s_%d", logDir.c_str(), type.c_str(), headline.c_str(), slot);
        fd.reset(open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600));
    } else {
        const std::string idText = (id >= -2 && useId) ? std::to_string(id) : "null";
        const time_t now = time(nullptr);
        srand(static_cast<unsigned>(now));
        path = base::StringPrintf("%s/%s_%s_%s_%s_%s_%lu_%d", logDir.c_str(), idText.c_str(), type.c_str(),
                                  headline.c_str(), base::GetProperty("ro.product.device", "").c_str(),
                                  base::GetProperty("ro.build.version.incremental", "unknown").c_str(),
                                  static_cast<unsigned long>(now), rand());
        fd.reset(open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600));
    }
    if (!fd.ok()) {
        ALOGE("failed to open tombstone file '%s': %s\n", StringUtil::ForLog(path).c_str(), strerror(errno));
        return "";
    }
    if (fchown(fd.get(), kSystemUid, kSystemUid) != 0) ALOGD("chown %s failed: %s", path.c_str(), strerror(errno));
    fchmod(fd.get(), 0666);
    return path;
}

bool CaptureFile::WriteHeader(const std::string& path, const std::string& headline) {
    ScopedFile file(fopen(path.c_str(), "ae"));
    if (!file) {
        ALOGE("failed to open log file %s :%s", path.c_str(), strerror(errno));
        return false;
    }
    fprintf(file.get(), "%s\n== date: %s\n== headline: %s\n== debuggable: %s\n== hwlevel: %s\n%s\n", kRule.c_str(),
            LocalTime("%Y-%m-%d %H:%M:%S").c_str(), headline.c_str(), base::GetProperty("ro.debuggable", "0").c_str(),
            base::GetProperty("ro.boot.hwlevel", "unkown").c_str(), kRule.c_str());
    return true;
}

void CaptureFile::WriteDateHeader(const std::string& path) {
    ScopedFile file(fopen(path.c_str(), "ae"));
    if (!file) {
        ALOGE("failed to open %s :%s", path.c_str(), strerror(errno));
        return;
    }
    fprintf(file.get(), "%s\n=== Date: %s ===\n%s\n", kRule.c_str(), LocalTime("%Y-%m-%d %H:%M:%S").c_str(),
            kRule.c_str());
}

void CaptureFile::Append(const std::string& path, const std::string& text) {
    ScopedFile file(fopen(path.c_str(), "ae"));
    if (!file) {
        ALOGE("failed to open log file %s :%s", path.c_str(), strerror(errno));
        return;
    }
    fputs(text.c_str(), file.get());
}

}  // namespace android
