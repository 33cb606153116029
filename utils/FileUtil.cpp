#define LOG_TAG "Tarnis-FileUtil"

#include "utils/FileUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <host/Host.h>
#include <log/log.h>

#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

// Opens a directory below an already opened one without following a link, so
// that a link swapped in for a subdirectory never leads the walk elsewhere.
ScopedDir OpenDirAt(int parentFd, const char* name) {
    android::base::unique_fd fd(openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return AdoptDir(fd);
}

bool IsDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

constexpr long kDirentBufferBytes = 32768;

// The entries of a directory as getdents64 hands them over.
struct KernelDirent {
    uint64_t ino;
    int64_t off;
    unsigned short reclen;
    unsigned char type;
    char name[];
};

// Bytes below the open directory `fd`, nothing reached through a link.
// A log check walks every entry of a log directory, so system calls are the
// whole cost: the directory is read with getdents64 directly, since
// fdopendir costs an fstat and an fcntl per directory.
int64_t ContentSize(int fd) {
    struct stat st {};
    int64_t total = 0;
    // On the heap: the walk recurses, and a thread's stack is not ours to size.
    std::unique_ptr<char[]> buffer(new char[kDirentBufferBytes]);
    for (;;) {
        const long got = syscall(SYS_getdents64, fd, buffer.get(), kDirentBufferBytes);
        if (got <= 0) break;
        for (long at = 0; at < got;) {
            const auto* entry = reinterpret_cast<const KernelDirent*>(buffer.get() + at);
            at += entry->reclen;
            if (IsDotOrDotDot(entry->name)) continue;
            if (fstatat(fd, entry->name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (S_ISDIR(st.st_mode)) {
                const int64_t sub = FileUtil::TreeSizeAt(fd, entry->name, st.st_size);
                if (sub > 0) total += sub;
            } else {
                total += st.st_size;
            }
        }
    }
    return total;
}

// Empties the directory open as `dir` and removes each entry; links and other
// non-directories are unlinked as themselves. Adds the bytes removed to
// `freed` and the directory's own size at the end (the caller removes it).
int EmptyDirectory(ScopedDir dir, unsigned long* freed) {
    const int fd = dirfd(dir.get());
    struct stat st {};
    while (struct dirent* entry = readdir(dir.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
        if (S_ISDIR(st.st_mode)) {
            ScopedDir sub = OpenDirAt(fd, entry->d_name);
            if (!sub) return -1;
            unsigned long subFreed = 0;
            int result = EmptyDirectory(std::move(sub), &subFreed);
            *freed += subFreed;
            if (result != 0) return result;
            result = unlinkat(fd, entry->d_name, AT_REMOVEDIR);
            if (result != 0) return result;
        } else {
            *freed += st.st_size;
            int result = unlinkat(fd, entry->d_name, 0);
            if (result != 0) return result;
        }
    }
    if (fstat(fd, &st) == 0) *freed += st.st_size;
    return 0;
}

constexpr size_t kCopyChunk = 64 * 1024;

bool AllZero(const char* buf, size_t len) {
    for (size_t i = 0; i < len; ++i) {
        if (buf[i] != 0) return false;
    }
    return true;
}

bool WriteAllAt(int fd, const char* buf, size_t len, off_t at) {
    while (len > 0) {
        const ssize_t put = TEMP_FAILURE_RETRY(pwrite(fd, buf, len, at));
        if (put <= 0) return false;
        buf += put;
        len -= static_cast<size_t>(put);
        at += put;
    }
    return true;
}

// Copies [from, to) of `in` to the same offsets of `out`; a block of zeros
// is left a hole. Stops early, setting *end, when the source shrank.
bool CopyRange(int in, int out, off_t from, off_t to, off_t* end) {
    char buf[kCopyChunk];
    for (off_t at = from; at < to;) {
        const size_t want = static_cast<size_t>(std::min<off_t>(to - at, sizeof(buf)));
        const ssize_t got = TEMP_FAILURE_RETRY(pread(in, buf, want, at));
        if (got < 0) return false;
        if (got == 0) {
            *end = at;
            return true;
        }
        if (!AllZero(buf, static_cast<size_t>(got)) &&
            !WriteAllAt(out, buf, static_cast<size_t>(got), at)) {
            return false;
        }
        at += got;
    }
    return true;
}

bool CopyRegularFile(const std::string& src, const std::string& dst) {
    android::base::unique_fd in(open(src.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (in.get() < 0) {
        ALOGE("[%s] Error opening source file: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    struct stat st {};
    const int statError = fstat(in.get(), &st) != 0 ? errno : 0;
    if (statError != 0 || !S_ISREG(st.st_mode)) {
        // A fifo or a device has no end to copy up to: refuse it.
        ALOGE("[%s] Error opening source file: %s", "CopyFileOrDirectory",
              strerror(statError != 0 ? statError : EINVAL));
        return false;
    }
    // Never write through a link planted at the destination.
    android::base::unique_fd out(open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (out.get() < 0) {
        ALOGE("[%s] Error opening destination file: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    // A sparse log stays sparse: its holes are not written out as zeros.
    if (!FileUtil::CopySparse(in.get(), out.get(), st.st_size)) {
        ALOGE("[%s] Error copying to destination file: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    return true;
}

bool CopyTree(const std::string& src, const std::string& dst, bool topLevel);

// One entry of a tree being copied: links that do not lead to a regular file
// are recreated as links, so that a link to a directory (perhaps to one of its
// own parents) is never entered.
bool CopyEntry(const std::string& src, const std::string& dst) {
    struct stat st {};
    if (lstat(src.c_str(), &st) != 0) {
        ALOGE("[%s] Error checking path: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    if (S_ISLNK(st.st_mode)) {
        struct stat target {};
        if (stat(src.c_str(), &target) != 0 || !S_ISREG(target.st_mode)) {
            std::string link(static_cast<size_t>(st.st_size > 0 ? st.st_size : 0) + 1, '\0');
            ssize_t len = readlink(src.c_str(), &link[0], link.size());
            if (len < 0 || symlink(link.substr(0, len).c_str(), dst.c_str()) != 0) {
                ALOGE("[%s] Error copying link: %s", "CopyFileOrDirectory", strerror(errno));
                return false;
            }
            return true;
        }
        return CopyRegularFile(src, dst);
    }
    return CopyTree(src, dst, false);
}

bool CopyTree(const std::string& src, const std::string& dst, bool topLevel) {
    struct stat st {};
    int statResult = topLevel ? stat(src.c_str(), &st) : lstat(src.c_str(), &st);
    if (statResult != 0) {
        ALOGE("[%s] Error checking path: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    if (!S_ISDIR(st.st_mode)) return CopyRegularFile(src, dst);

    ScopedDir dir(topLevel ? opendir(src.c_str()) : OpenDirAt(AT_FDCWD, src.c_str()).release());
    if (!dir) {
        ALOGE("[%s] Error opening directory: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    if (mkdir(dst.c_str(), 0755) != 0) {
        ALOGE("[%s] Error creating directory: %s", "CopyFileOrDirectory", strerror(errno));
        return false;
    }
    while (struct dirent* entry = readdir(dir.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        if (!CopyEntry(src + "/" + entry->d_name, dst + "/" + entry->d_name)) return false;
    }
    return true;
}

}  // namespace

bool FileUtil::FileExist(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool FileUtil::ChangeMode(const std::string& path, const unsigned int& mode) {
    // A link planted at the path would hand its target's mode to whoever
    // planted it; the C library refuses a mode change on a link itself.
    if (fchmodat(AT_FDCWD, path.c_str(), static_cast<mode_t>(mode), AT_SYMLINK_NOFOLLOW) == 0) return true;
    if (errno == EOPNOTSUPP) ALOGW("[%s] %s is a link, mode left alone", "ChangeMode", path.c_str());
    return false;
}

bool FileUtil::CreateDirectoryWithOwner(const std::string& path, int uid, int gid) {
    if (!FileExist(path)) {
        const std::string trimmed = StringUtil::TrimStr(path, '/');
        if (trimmed.empty()) {
            ALOGE("[%s] mkdir %s failed, %s, err:%s", "CreateDirectory", path.c_str(),
                  path.c_str(), strerror(EINVAL));
            return false;
        }
        // A relative path is taken as beginning at the root. On a device that
        // is "/", but a sandboxed host daemon must not create "/a/b" on the
        // host, so the walk starts at the mapped root. Absolute paths are
        // used as given: their callers have already mapped them.
        std::string base;
        if (path[0] != '/') {
            base = platform::DevicePath("/");
            while (!base.empty() && base.back() == '/') base.pop_back();
        }
        std::string work = base + "/" + trimmed + "/";
        size_t firstCreated = std::string::npos;
        for (size_t pos = base.size() + 1; pos < work.size(); ++pos) {
            if (work[pos] != '/') continue;
            const std::string prefix = work.substr(0, pos);
            if (access(prefix.c_str(), F_OK) == 0) continue;
            if (mkdir(prefix.c_str(), 0777) != 0) {
                ALOGE("[%s] mkdir %s failed, %s, err:%s", "CreateDirectory", prefix.c_str(),
                      path.c_str(), strerror(errno));
                return false;
            }
            if (firstCreated == std::string::npos) firstCreated = pos;
        }
        // The creation mode went through the umask; settle 0775 on everything
        // we created (only the deepest directory when it all existed).
        std::string dir = work;
        for (;;) {
            const size_t cut = dir.rfind('/');
            if (cut == std::string::npos || cut <= base.size()) break;
            dir.resize(cut);
            if (access(dir.c_str(), F_OK) != 0 || chmod(dir.c_str(), 0775) != 0) {
                ALOGE("[%s] change mode %s failed", "CreateDirectory", dir.c_str());
                return false;
            }
            if (firstCreated == std::string::npos || dir.size() <= firstCreated) break;
        }
    }
    // Only the requested directory changes hands, and the path as the caller
    // wrote it. The result is deliberately ignored: callers mostly run as the
    // owner already and the directory is usable either way.
    if (chown(path.c_str(), uid, gid) != 0) {
    }
    return true;
}

bool FileUtil::IsDirectory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int32_t FileUtil::GetFileSize(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return 0;
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(st.st_size)));
}

long FileUtil::GetDirectorySize(const std::string& path) {
    // The top-level path may itself be a link to a directory; only links met
    // inside the tree are counted as links.
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.ok()) {
        ALOGE("[%s] Cannot open dir: %s", "GetDirectorySize", path.c_str());
        return -1;
    }
    struct stat st {};
    const int64_t own = lstat(path.c_str(), &st) == 0 ? st.st_size : 0;
    return static_cast<long>(own + ContentSize(fd.get()));
}

int64_t FileUtil::TreeSizeAt(int parentFd, const char* name, int64_t ownSize) {
    android::base::unique_fd fd(openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.ok()) return -1;
    return ownSize + ContentSize(fd.get());
}

int FileUtil::DeleteDirectoryOrFile(const std::string& path, unsigned long* freed) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) {
        // A file, or a link removed as a link whatever it points at.
        if (freed != nullptr) *freed = static_cast<unsigned long>(st.st_size);
        return unlink(path.c_str());
    }
    ScopedDir dir = OpenDirAt(AT_FDCWD, path.c_str());
    if (!dir) return -1;
    unsigned long removed = 0;
    int result = EmptyDirectory(std::move(dir), &removed);
    if (result == 0) result = rmdir(path.c_str());
    if (freed != nullptr) *freed = removed;
    return result;
}

bool FileUtil::CopyFileOrDirectory(const std::string& src, const std::string& dst) {
    return CopyTree(src, dst, true);
}

bool FileUtil::GetFileListOnDirectory(const std::string& dir, std::vector<std::string>& out) {
    ScopedDir handle(opendir(dir.c_str()));
    if (!handle) {
        ALOGE("[%s] Open dir error...", "GetFileListOnDirectory");
        return false;
    }
    while (struct dirent* entry = readdir(handle.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        const std::string full = dir + "/" + entry->d_name;
        if (entry->d_type == DT_DIR) {
            GetFileListOnDirectory(full, out);
        } else if (entry->d_type == DT_REG || entry->d_type == DT_LNK) {
            out.push_back(full);
        }
    }
    return true;
}

std::string FileUtil::formatHumanSize(unsigned long bytes) {
    if (bytes == 0) return "0 bytes";
    static const char kUnits[] = {'B', 'K', 'M', 'G'};
    double size = static_cast<double>(bytes);
    int unit = 0;
    while (size >= 1024.0 && unit < 3) {
        size /= 1024.0;
        ++unit;
    }
    char text[50];
    snprintf(text, sizeof(text), "%.2f %cB", size, kUnits[unit]);
    return text;
}

// The first `length` bytes of `in` into `out`, holes kept as holes: only the
// data extents are read, and the size is set at the end.
bool FileUtil::CopySparse(int in, int out, off_t length) {
    off_t end = length;
    for (off_t at = 0; at < end;) {
        off_t data = lseek(in, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;  // a hole up to the end
        off_t hole = data < 0 ? -1 : lseek(in, data, SEEK_HOLE);
        if (data < 0 || hole < 0) {
            // No extent map here: every block is read, zero ones skipped.
            data = at;
            hole = end;
        }
        if (data >= end) break;
        if (!CopyRange(in, out, data, std::min(hole, end), &end)) return false;
        at = std::max(hole, data + 1);
    }
    return ftruncate(out, end) == 0;
}


bool FileUtil::ReadRegularFile(const std::string& path, std::string* text, size_t maxBytes) {
    android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC)));
    struct stat st {};
    if (!fd.ok() || fstat(fd.get(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return false;
    }
    text->clear();
    char buffer[4096];
    while (text->size() < maxBytes) {
        const ssize_t got =
            TEMP_FAILURE_RETRY(read(fd.get(), buffer, std::min(sizeof(buffer), maxBytes - text->size())));
        if (got < 0) return false;
        if (got == 0) break;
        text->append(buffer, static_cast<size_t>(got));
    }
    return true;
}

}  // namespace kolto
}  // namespace velmar
