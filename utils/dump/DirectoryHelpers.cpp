#define LOG_TAG "dorvad"

#include "utils/dump/DirectoryHelpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/ScopedDir.h"

namespace android {
namespace {

using velmar::kolto::ScopedDir;

// "dir/" names what a link at "dir" points to; "dir" names the link itself.
std::string WithoutTrailingSlashes(const char* path) {
    std::string clean = path;
    while (clean.size() > 1 && clean.back() == '/') clean.pop_back();
    return clean;
}

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
            base::unique_fd subFd(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!subFd.ok()) {
                ALOGE("Couldn't openat %s: %s\n", name, strerror(errno));
                result = -1;
                continue;
            }
            ScopedDir subDir = velmar::kolto::AdoptDir(subFd);
            if (!subDir) {
                ALOGE("Couldn't fdopendir %s: %s\n", name, strerror(errno));
                result = -1;
                continue;
            }
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
    // Looked at and corrected through a descriptor that refuses a link, so a
    // link planted in the directory's place never has its target's mode changed.
    base::unique_fd dir(open(WithoutTrailingSlashes(path).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.ok()) {
        if (errno == ENOENT) return mkdir(path, mode);
        if (errno == ENOTDIR || errno == ELOOP) ALOGE("%s is not a dir.", path);
        return -1;
    }
    struct stat st;
    if (fstat(dir.get(), &st) != 0) return -1;
    const unsigned actual = st.st_mode & 07777;
    if (actual != mode) {
        ALOGW("%sperm %o expected %o", path, actual, mode);
        fchmod(dir.get(), mode);
    }
    return 0;
}

int delete_dir_contents(const char* path, bool deleteSelf,
                        std::function<bool(const char* name, bool isDir)> exclude) {
    // A link in the directory's place is not followed: its target's
    // contents are not ours to remove.
    base::unique_fd fd(open(WithoutTrailingSlashes(path).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    ScopedDir dir = velmar::kolto::AdoptDir(fd);
    if (!dir) {
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
    base::unique_fd source(open(from, O_RDONLY | O_CLOEXEC));
    if (!source.ok()) {
        ALOGE("Failed to open copy from %s  reason: %s", from, strerror(errno));
        return -1;
    }
    // A link planted where the copy goes is refused, not written through.
    base::unique_fd target(open(to, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0664));
    if (!target.ok()) {
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
        const ssize_t n =
            TEMP_FAILURE_RETRY(sendfile(target.get(), source.get(), &offset, static_cast<size_t>(st.st_size - offset)));
        if (n <= 0) {
            ALOGE("Copying failed from:%s to %s  reason: %s", from, to,
                  n < 0 ? strerror(errno) : "unexpected end of file");
            return -1;
        }
    }
    return 0;
}

}  // namespace android
