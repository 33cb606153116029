#include "utils/ConfinedPath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

using android::base::unique_fd;

// Cleared the first time the kernel (or a seccomp filter) turns openat2 down;
// every later call walks by hand.
std::atomic<bool> gHaveOpenat2{true};

std::vector<std::string> Components(const std::string& path) {
    std::vector<std::string> names;
    size_t begin = 0;
    while (begin <= path.size()) {
        size_t end = path.find('/', begin);
        if (end == std::string::npos) end = path.size();
        if (end > begin) names.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return names;
}

// Callers read errno after a refusal; building the sentence must not change it.
std::string Shown(const std::string& path) {
    const int saved = errno;
    std::string shown = "\"" + StringUtil::ForLog(path, 256) + "\"";
    errno = saved;
    return shown;
}

std::string Join(const std::vector<std::string>& names, size_t from, size_t to) {
    std::string joined;
    for (size_t i = from; i < to; ++i) {
        if (!joined.empty()) joined += "/";
        joined += names[i];
    }
    return joined;
}

bool IsLinkAt(int dirFd, const std::string& name) {
    struct stat st;
    return fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

// One component at a time from `topFd`, never through a link: what openat2
// does in the kernel, for kernels without it. Sets errno ELOOP for a link.
int WalkOpen(int topFd, const std::vector<std::string>& names, int flags, mode_t mode) {
    if (names.empty()) return openat(topFd, ".", flags, mode);
    unique_fd held;
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        const int dir = held.ok() ? held.get() : topFd;
        unique_fd next(openat(dir, names[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.ok()) {
            if ((errno == ENOTDIR || errno == ELOOP) && IsLinkAt(dir, names[i])) errno = ELOOP;
            return -1;
        }
        held = std::move(next);
    }
    const int dir = held.ok() ? held.get() : topFd;
    const int fd = openat(dir, names.back().c_str(), flags, mode);
    if (fd < 0 && (errno == ENOTDIR || errno == ELOOP) && IsLinkAt(dir, names.back())) errno = ELOOP;
    return fd;
}

unique_fd OpenBeneath(int topFd, const std::string& relative, int flags, mode_t mode) {
    flags |= O_CLOEXEC | O_NOFOLLOW;
    if (gHaveOpenat2.load(std::memory_order_relaxed)) {
        struct open_how how;
        memset(&how, 0, sizeof(how));
        how.flags = static_cast<uint64_t>(flags);
        how.mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        const char* name = relative.empty() ? "." : relative.c_str();
        for (;;) {
            const long fd = syscall(SYS_openat2, topFd, name, &how, sizeof(how));
            if (fd >= 0) return unique_fd(static_cast<int>(fd));
            if (errno == EINTR || errno == EAGAIN) continue;  // EAGAIN: a rename raced the walk
            // ENOTDIR is also what a link at the end gives with O_DIRECTORY:
            // the walk below tells the two apart.
            if (errno != ENOSYS && errno != EPERM && errno != ENOTDIR) return {};
            // EPERM could be the file's own; the walk below tells them apart.
            if (errno == ENOSYS) gHaveOpenat2.store(false, std::memory_order_relaxed);
            break;
        }
    }
    return unique_fd(TEMP_FAILURE_RETRY(WalkOpen(topFd, Components(relative), flags, mode)));
}

std::string Reason(const std::string& shownPath, int error) {
    if (error == ELOOP || error == EXDEV) return shownPath + " passes through a symbolic link";
    return shownPath + " cannot be opened: " + strerror(error);
}

unique_fd OpenTop(const std::string& deviceTop, std::string* why) {
    const std::string top = paths::Get(deviceTop);
    unique_fd fd(TEMP_FAILURE_RETRY(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (!fd.ok() && why != nullptr) *why = Shown(deviceTop) + " cannot be opened: " + strerror(errno);
    return fd;
}

}  // namespace

bool ConfinedPath::Relative(const std::string& devicePath, const std::string& deviceTop, std::string* relative,
                            std::string* why) {
    errno = EXDEV;
    if (devicePath.empty() || devicePath[0] != '/') {
        if (why != nullptr) *why = Shown(devicePath) + " is not an absolute path";
        return false;
    }
    std::vector<std::string> names;
    for (const std::string& name : Components(devicePath)) {
        if (name == ".") continue;
        if (name != "..") {
            names.push_back(name);
            continue;
        }
        if (names.empty()) {
            if (why != nullptr) *why = Shown(devicePath) + " climbs out of " + Shown(deviceTop);
            return false;
        }
        names.pop_back();
    }
    const std::vector<std::string> top = Components(deviceTop);
    bool below = names.size() >= top.size();
    for (size_t i = 0; below && i < top.size(); ++i) below = names[i] == top[i];
    if (!below) {
        if (why != nullptr) *why = Shown(devicePath) + " is not below " + Shown(deviceTop);
        return false;
    }
    if (relative != nullptr) *relative = Join(names, top.size(), names.size());
    errno = 0;
    return true;
}

bool ConfinedPath::IsBelow(const std::string& devicePath, const std::string& deviceTop) {
    return Relative(devicePath, deviceTop, nullptr, nullptr);
}

unique_fd ConfinedPath::OpenAt(int topFd, const std::string& relative, int flags, mode_t mode, std::string* why) {
    for (const std::string& name : Components(relative)) {
        if (name == "..") {
            if (why != nullptr) *why = Shown(relative) + " climbs out of its directory";
            errno = EXDEV;
            return {};
        }
    }
    unique_fd fd = OpenBeneath(topFd, relative, flags, mode);
    if (!fd.ok() && why != nullptr) *why = Reason(Shown(relative), errno);
    return fd;
}

unique_fd ConfinedPath::Open(const std::string& devicePath, const std::string& deviceTop, int flags, mode_t mode,
                             std::string* why) {
    std::string relative;
    if (!Relative(devicePath, deviceTop, &relative, why)) return {};
    unique_fd top = OpenTop(deviceTop, why);
    if (!top.ok()) return {};
    unique_fd fd = OpenBeneath(top.get(), relative, flags, mode);
    if (!fd.ok() && why != nullptr) *why = Reason(Shown(devicePath), errno);
    return fd;
}

unique_fd ConfinedPath::OpenRegular(const std::string& devicePath, const std::string& deviceTop, int flags,
                                    mode_t mode, std::string* why) {
    unique_fd fd = Open(devicePath, deviceTop, flags | O_NONBLOCK, mode, why);
    if (!fd.ok()) return fd;
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        if (why != nullptr) *why = Shown(devicePath) + " is not a regular file";
        return {};
    }
    // Regular files ignore O_NONBLOCK; cleared all the same so that the
    // descriptor behaves as an ordinary one wherever it is handed on.
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    return fd;
}

unique_fd ConfinedPath::OpenParent(const std::string& devicePath, const std::string& deviceTop, std::string* leaf,
                                   std::string* why) {
    std::string relative;
    if (!Relative(devicePath, deviceTop, &relative, why)) return {};
    const std::vector<std::string> names = Components(relative);
    if (names.empty()) {
        if (why != nullptr) *why = Shown(devicePath) + " is the top of its tree, not an entry in it";
        return {};
    }
    unique_fd top = OpenTop(deviceTop, why);
    if (!top.ok()) return {};
    unique_fd dir = OpenBeneath(top.get(), Join(names, 0, names.size() - 1), O_RDONLY | O_DIRECTORY, 0);
    if (!dir.ok()) {
        if (why != nullptr) *why = Reason(Shown(devicePath), errno);
        return {};
    }
    *leaf = names.back();
    return dir;
}

unique_fd ConfinedPath::MakeDirs(const std::string& devicePath, const std::string& deviceTop, mode_t mode,
                                 std::string* why) {
    std::string relative;
    if (!Relative(devicePath, deviceTop, &relative, why)) return {};
    unique_fd dir = OpenTop(deviceTop, why);
    for (const std::string& name : Components(relative)) {
        if (!dir.ok()) return {};
        if (mkdirat(dir.get(), name.c_str(), mode) != 0 && errno != EEXIST) {
            if (why != nullptr) *why = Shown(devicePath) + " cannot be made: " + strerror(errno);
            return {};
        }
        dir = OpenBeneath(dir.get(), name, O_RDONLY | O_DIRECTORY, 0);
        if (!dir.ok() && why != nullptr) *why = Reason(Shown(devicePath), errno);
    }
    return dir;
}

std::string ConfinedPath::Through(int dirFd, const std::string& name) {
    std::string path = "/proc/self/fd/" + std::to_string(dirFd);
    if (!name.empty()) path += "/" + name;
    return path;
}

void ConfinedPath::UseWalkForTesting(bool walk) { gHaveOpenat2.store(!walk); }

bool ConfinedPath::Remove(const std::string& devicePath, const std::string& deviceTop, std::string* why) {
    std::string leaf;
    unique_fd dir = OpenParent(devicePath, deviceTop, &leaf, why);
    if (!dir.ok()) return false;
    if (unlinkat(dir.get(), leaf.c_str(), 0) == 0 || errno == ENOENT) return true;
    if (why != nullptr) *why = Shown(devicePath) + " cannot be removed: " + strerror(errno);
    return false;
}

}  // namespace kolto
}  // namespace velmar
