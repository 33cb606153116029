#define LOG_TAG "dorvad"

// The directory helpers that the capture code shares with the rest of the
// daemon.

#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <log/log.h>
#include "utils/dump/CaptureLogUtil.h"

namespace android {
namespace {

class ScopedDir {
public:
    explicit ScopedDir(DIR* dir) : dir_(dir) {}
    ~ScopedDir() {
        if (dir_ != nullptr) closedir(dir_);
    }
    ScopedDir(const ScopedDir&) = delete;
    ScopedDir& operator=(const ScopedDir&) = delete;
    DIR* get() const { return dir_; }

private:
    DIR* dir_;
};

class ScopedFd {
public:
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd() {
        if (fd_ >= 0) close(fd_);
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

bool IsDirEntry(int dirFd, const struct dirent* entry) {
    if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
    struct stat st;
    return fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

// Removes what `dir` holds, depth first, working relative to directory
// descriptors and never following a link out of the tree.
int DeleteContents(DIR* dir, const std::function<bool(const char*, bool)>& exclude) {
    int result = 0;
    const int dirFd = dirfd(dir);
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        const bool isDir = IsDirEntry(dirFd, entry);
        if (exclude && exclude(name, isDir)) continue;
        if (isDir) {
            ScopedFd subFd(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (subFd.get() < 0) {
                ALOGE("Couldn't openat %s: %s\n", name, strerror(errno));
                result = -1;
                continue;
            }
            ScopedDir subDir(fdopendir(subFd.get()));
            if (subDir.get() == nullptr) {
                ALOGE("Couldn't fdopendir %s: %s\n", name, strerror(errno));
                result = -1;
                continue;
            }
            subFd.release();  // owned by subDir now
            if (DeleteContents(subDir.get(), exclude) < 0) result = -1;
            if (unlinkat(dirFd, name, AT_REMOVEDIR) < 0) {
                ALOGE("Couldn't unlinkat %s: %s\n", name, strerror(errno));
                result = -1;
            }
        } else if (unlinkat(dirFd, name, 0) < 0) {
            ALOGE("Couldn't unlinkat %s: %s\n", name, strerror(errno));
            result = -1;
        }
    }
    return result;
}

}  // namespace

int create_dir_if_needed(const char* path, unsigned mode) {
    struct stat st;
    if (stat(path, &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            ALOGE("%s is not a dir.", path);
            return -1;
        }
        const unsigned actual = st.st_mode & 07777;
        if (actual != mode) {
            ALOGW("%sperm %o expected %o", path, actual, mode);
            chmod(path, mode);
        }
        return 0;
    }
    if (errno != ENOENT) return -1;
    return mkdir(path, mode);
}

int delete_dir_contents(const char* path, bool deleteSelf,
                        std::function<bool(const char* name, bool isDir)> exclude) {
    ScopedDir dir(opendir(path));
    if (dir.get() == nullptr) {
        ALOGE("Couldn't opendir %s: %s\n", path, strerror(errno));
        return -1;
    }
    int result = DeleteContents(dir.get(), exclude);
    if (deleteSelf && rmdir(path) < 0) {
        ALOGE("Couldn't rmdir %s: %s\n", path, strerror(errno));
        result = -1;
    }
    return result;
}

int copy_file(const char* from, const char* to) {
    ScopedFd source(open(from, O_RDONLY | O_CLOEXEC));
    if (source.get() < 0) {
        ALOGE("Failed to open copy from %s  reason: %s", from, strerror(errno));
        return -1;
    }
    ScopedFd target(open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664));
    if (target.get() < 0) {
        ALOGE("Failed to open copy to %s  reason: %s", to, strerror(errno));
        return -1;
    }
    struct stat st;
    if (fstat(source.get(), &st) < 0) {
        ALOGE("Failed to stat file: %s  reason: %s", from, strerror(errno));
        return -1;
    }
    off_t offset = 0;
    while (offset < st.st_size) {
        const ssize_t n = sendfile(target.get(), source.get(), &offset,
                                   static_cast<size_t>(st.st_size - offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ALOGE("Copying failed from:%s to %s  reason: %s", from, to,
                  n < 0 ? strerror(errno) : "unexpected end of file");
            return -1;
        }
    }
    return 0;
}

}  // namespace android
