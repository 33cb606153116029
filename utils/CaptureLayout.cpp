#include "utils/CaptureLayout.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
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

std::string ProgressFile(int client) { return std::string(paths::kCaptureProgressDir) + "/" + std::to_string(client); }

std::string FormatProgress(const Progress& progress) {
    return "archive=" + progress.archive + "\nsections=" + std::to_string(progress.done) + "/" +
           std::to_string(progress.total) + "\n";
}

bool ParseProgress(const std::string& text, Progress* progress) {
    Progress read;
    bool sawSections = false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        if (line.compare(0, 8, "archive=") == 0) {
            read.archive = line.substr(8);
        } else if (line.compare(0, 9, "sections=") == 0) {
            unsigned long long done = 0, total = 0;
            char tail = 0;
            if (sscanf(line.c_str() + 9, "%llu/%llu%c", &done, &total, &tail) != 2 || done > total) return false;
            read.done = static_cast<size_t>(done);
            read.total = static_cast<size_t>(total);
            sawSections = true;
        }
    }
    if (!sawSections) return false;
    *progress = read;
    return true;
}

}  // namespace capture_layout
}  // namespace kolto
}  // namespace velmar
