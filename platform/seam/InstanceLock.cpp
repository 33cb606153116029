#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <host/Host.h>

#include "platform/seam/Dirs.h"

namespace platform {
namespace host {
namespace {

// A host root's /dev is the sandbox's own. On a device /dev belongs to init
// and is not the daemon's to write, so the lock lives in the directory init
// makes for the daemon before starting it.
#if defined(__ANDROID__)
constexpr char kLockDir[] = "/data/misc/tarnis";
#else
constexpr char kLockDir[] = "/dev";
#endif

std::string LockPath(const std::string& name) { return DevicePath(std::string(kLockDir) + "/." + name + ".lock"); }

}  // namespace

android::base::unique_fd AcquireInstanceLock(const std::string& name, std::string* why) {
    const std::string path = LockPath(name);
    MakeDirs(DevicePath(kLockDir));
    android::base::unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!fd.ok()) {
        *why = "cannot open " + path + ": " + strerror(errno);
        return fd;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        const int saved = errno;
        char pid[32] = {};
        ssize_t n = pread(fd.get(), pid, sizeof(pid) - 1, 0);
        std::string holder = n > 0 ? std::string(pid, static_cast<size_t>(n)) : "";
        while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) holder.pop_back();
        if (saved == EWOULDBLOCK) {
            *why = "another " + name + (holder.empty() ? "" : " (pid " + holder + ")") +
                   " is already running on root " + GetRoot();
        } else {
            *why = "cannot lock " + path + ": " + strerror(saved);
        }
        return android::base::unique_fd();
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd.get(), 0) != 0 || pwrite(fd.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        *why = "cannot write " + path + ": " + strerror(errno);
        return android::base::unique_fd();
    }
    return fd;
}

void ReleaseInstanceLock(const std::string& name, android::base::unique_fd lock) {
    // Unlinked while still held, so that a new daemon never locks a file
    // that is about to disappear under it.
    if (lock.ok()) unlink(LockPath(name).c_str());
    lock.reset();
}

}  // namespace host
}  // namespace platform
