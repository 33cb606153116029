#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

namespace android {
namespace base {

bool ReadFdToString(int fd, std::string* content) {
    content->clear();
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
        content->reserve(static_cast<size_t>(st.st_size));
    }
    char buf[64 * 1024];
    for (;;) {
        ssize_t n = TEMP_FAILURE_RETRY(read(fd, buf, sizeof(buf)));
        if (n < 0) return false;
        if (n == 0) return true;
        content->append(buf, static_cast<size_t>(n));
    }
}

bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks) {
    const int flags = O_RDONLY | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags)));
    if (!fd.ok()) {
        content->clear();
        return false;
    }
    return ReadFdToString(fd.get(), content);
}

bool WriteStringToFd(const std::string& content, int fd) { return WriteFully(fd, content.data(), content.size()); }

bool WriteStringToFile(const std::string& content, const std::string& path, bool follow_symlinks) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags, 0666)));
    return fd.ok() && WriteStringToFd(content, fd.get());
}

bool WriteStringToFile(const std::string& content, const std::string& path, mode_t mode, uid_t owner,
                       gid_t group, bool follow_symlinks) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags, mode)));
    if (!fd.ok()) return false;
    // Mode and owner are set on the descriptor, so a path swapped meanwhile
    // cannot receive them.
    if (fchmod(fd.get(), mode) != 0 || fchown(fd.get(), owner, group) != 0) return false;
    return WriteStringToFd(content, fd.get());
}

bool ReadFully(int fd, void* data, size_t byte_count) {
    auto* p = static_cast<uint8_t*>(data);
    while (byte_count > 0) {
        ssize_t n = TEMP_FAILURE_RETRY(read(fd, p, byte_count));
        if (n <= 0) return false;
        p += n;
        byte_count -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteFully(int fd, const void* data, size_t byte_count) {
    const auto* p = static_cast<const uint8_t*>(data);
    while (byte_count > 0) {
        ssize_t n = TEMP_FAILURE_RETRY(write(fd, p, byte_count));
        if (n < 0) return false;
        p += n;
        byte_count -= static_cast<size_t>(n);
    }
    return true;
}

std::string Dirname(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return path.empty() ? "." : "/";
    size_t slash = path.rfind('/', end);
    if (slash == std::string::npos) return ".";
    size_t keep = path.find_last_not_of('/', slash);
    return keep == std::string::npos ? "/" : path.substr(0, keep + 1);
}

std::string Basename(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return path.empty() ? "." : "/";
    size_t slash = path.rfind('/', end);
    return path.substr(slash == std::string::npos ? 0 : slash + 1, end - (slash == std::string::npos ? 0 : slash + 1) + 1);
}

}  // namespace base
}  // namespace android
