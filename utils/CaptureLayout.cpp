#include "utils/CaptureLayout.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

#include <android-base/unique_fd.h>

#include "utils/BuildProbes.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"

namespace velmar {
namespace kolto {
namespace capture_layout {
namespace {

constexpr char kHeadlineUnsafe[] = "\"%&'()*/:<>?\\{|}";
const char* const kRebootRequests[] = {"VoldFailed", "ApexdFailed"};

bool EndsWith(const std::string& text, const char* suffix) {
    const size_t n = strlen(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

bool Later(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

}  // namespace

std::string SanitizeHeadline(const std::string& headline) {
    if (headline.empty()) return "null";
    std::string clean = headline;
    for (char& c : clean) {
        if (c != '\0' && strchr(kHeadlineUnsafe, c) != nullptr) c = 'X';
    }
    return clean;
}

std::string CaptureBase(const std::string& type, const std::string& where, int id, bool recordInLocal) {
    if (type == "RescuePartyLog" || type == "BootFailure") return where;
    if (id < 0 && recordInLocal && !android::isUnrelease() && !android::ismtbftest() && !android::isomnitest()) {
        return paths::kLocalRecordDir;
    }
    return paths::kDorvaDir;
}

std::string CaptureDir(const std::string& base, const std::string& type, bool offline) {
    if (base == paths::kLocalRecordDir) return base;
    return base + "/" + type + "/" + (offline ? "offline" : "online");
}

std::string ArchiveMark(const std::string& type, const std::string& headline) { return type + "_" + headline + "_"; }

bool IsRebootRequest(const std::string& name) {
    for (const char* request : kRebootRequests) {
        if (name == request) return true;
    }
    return false;
}

std::string CaptureServerDir(const std::string& name, bool abUpdate) {
    return IsRebootRequest(name) ? paths::kLocalRecordDir : paths::kCaptureServerDir.For(abUpdate);
}

std::string FindNewestArchive(const std::vector<std::string>& dirs, const std::string& mark, bool atStart,
                              const struct timespec& since) {
    std::string best;
    struct timespec bestTime {};
    for (const std::string& dir : dirs) {
        android::base::unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const ScopedDir entries = AdoptDir(fd);
        if (!entries) continue;
        while (const struct dirent* entry = readdir(entries.get())) {
            const std::string name = entry->d_name;
            const size_t at = name.find(mark);
            if (at == std::string::npos || (atStart && at != 0)) continue;
            if (!EndsWith(name, ".zip") && !EndsWith(name, ".zip.mtk")) continue;
            struct stat st;
            if (fstatat(dirfd(entries.get()), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) {
                continue;
            }
            if (Later(since, st.st_mtim)) continue;
            // Shown to people and scripts: without the doubled separators
            // that joining device paths leaves.
            std::string path = dir + "/" + name;
            for (size_t at = path.find("//"); at != std::string::npos; at = path.find("//", at)) path.erase(at, 1);
            if (best.empty() || Later(st.st_mtim, bestTime) ||
                (st.st_mtim.tv_sec == bestTime.tv_sec && st.st_mtim.tv_nsec == bestTime.tv_nsec && path > best)) {
                best = path;
                bestTime = st.st_mtim;
            }
        }
    }
    return best;
}

}  // namespace capture_layout
}  // namespace kolto
}  // namespace velmar
