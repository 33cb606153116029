#define LOG_TAG "Tarnis-FileUtil"

#include "utils/TempName.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <cstring>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

// Leaves room for the prefix and the random part within any file system's
// 255-byte name limit.
constexpr size_t kMaxKeptName = 200;
constexpr size_t kRandomPart = 10;

}  // namespace

bool TempName::Is(const std::string& name) { return name.compare(0, sizeof(kPrefix) - 1, kPrefix) == 0; }

std::string TempName::Random(size_t count) {
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::string text;
    unsigned char bytes[64];
    while (text.size() < count) {
        const size_t want = std::min(sizeof(bytes), count - text.size());
        const ssize_t got = TEMP_FAILURE_RETRY(getrandom(bytes, want, 0));
        if (got < 0) {
            // Without the kernel's source, the clock and a counter still keep
            // names apart within this process; O_EXCL keeps them apart on disk.
            static std::atomic<unsigned> serial{0};
            const unsigned long mix = static_cast<unsigned long>(time(nullptr)) * 2654435761u + serial++;
            for (size_t i = 0; i < want; ++i) bytes[i] = static_cast<unsigned char>(mix >> (8 * (i % 8)));
        }
        for (size_t i = 0; i < static_cast<size_t>(got < 0 ? want : got); ++i) {
            text += kChars[bytes[i] % (sizeof(kChars) - 1)];
        }
    }
    return text;
}

android::base::unique_fd TempName::CreateAt(int dirFd, const std::string& finalName, mode_t mode,
                                            std::string* tempName) {
    for (int attempt = 0; attempt < 32; ++attempt) {
        std::string name = std::string(kPrefix) + finalName.substr(0, kMaxKeptName) + "." + Random(kRandomPart);
        android::base::unique_fd fd(TEMP_FAILURE_RETRY(
            openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode)));
        if (fd.ok()) {
            *tempName = std::move(name);
            return fd;
        }
        if (errno != EEXIST) return {};
    }
    return {};
}

bool TempName::WriteWhole(const std::string& hostPath, const std::string& data, mode_t mode, uid_t owner,
                          gid_t group) {
    const size_t slash = hostPath.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : hostPath.substr(0, slash + 1);
    const std::string name = hostPath.substr(slash == std::string::npos ? 0 : slash + 1);
    android::base::unique_fd dirFd(TEMP_FAILURE_RETRY(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (!dirFd.ok()) return false;
    std::string temp;
    android::base::unique_fd out = CreateAt(dirFd.get(), name, mode, &temp);
    if (!out.ok()) return false;
    if ((owner != static_cast<uid_t>(-1) || group != static_cast<gid_t>(-1)) && fchown(out.get(), owner, group) != 0) {
        ALOGD("chown %s failed: %s", StringUtil::ForLog(hostPath).c_str(), strerror(errno));
    }
    const bool done = android::base::WriteFully(out.get(), data.data(), data.size()) &&
                      fchmod(out.get(), mode) == 0 && fsync(out.get()) == 0 &&
                      renameat(dirFd.get(), temp.c_str(), dirFd.get(), name.c_str()) == 0;
    if (!done) {
        const int saved = errno;
        unlinkat(dirFd.get(), temp.c_str(), 0);
        errno = saved;
    }
    return done;
}

int TempName::RemoveLeftovers(const std::string& hostDir) {
    android::base::unique_fd dirFd(
        TEMP_FAILURE_RETRY(open(hostDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    if (!dirFd.ok()) return 0;
    return RemoveLeftovers(dirFd.get(), hostDir);
}

int TempName::RemoveLeftovers(int dirFd, const std::string& shownDir) {
    // A description of its own: the caller's read position stays where it is.
    android::base::unique_fd listFd(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ScopedDir dir = AdoptDir(listFd);
    if (!dir) return 0;
    int removed = 0;
    while (struct dirent* entry = readdir(dir.get())) {
        if (!Is(entry->d_name)) continue;
        struct stat st;
        const bool isDir = fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
        const std::string path = shownDir + "/" + entry->d_name;
        // A tree is removed through the held directory, never by its name.
        const bool gone = isDir ? FileUtil::DeleteDirectoryOrFile(ConfinedPath::Through(dirFd, entry->d_name),
                                                                  nullptr) == 0
                                : unlinkat(dirFd, entry->d_name, 0) == 0;
        if (gone) {
            ++removed;
            ALOGI("removed %s, left unfinished by an earlier run", StringUtil::ForLog(path).c_str());
        } else {
            ALOGW("failed to remove %s, left unfinished by an earlier run: %s", StringUtil::ForLog(path).c_str(),
                  strerror(errno));
        }
    }
    return removed;
}

}  // namespace kolto
}  // namespace velmar
