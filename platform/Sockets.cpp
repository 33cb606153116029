#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <android-base/parseint.h>
#include <cutils/sockets.h>
#include <host/Host.h>

#include "platform/seam/Dirs.h"
#include "platform/Sockets.h"

namespace platform {

std::string ReservedSocketPath(const std::string& name) { return DevicePath("/dev/socket/" + name); }

bool MakeUnixAddress(const std::string& path, struct sockaddr_un* address, socklen_t* length,
                     android::base::unique_fd* dirFd) {
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    std::string target = path;
    if (target.size() >= sizeof(address->sun_path)) {
        const size_t slash = path.rfind('/');
        if (slash == std::string::npos) {
            errno = ENAMETOOLONG;
            return false;
        }
        dirFd->reset(TEMP_FAILURE_RETRY(
            open(slash == 0 ? "/" : path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)));
        if (!dirFd->ok()) return false;
        target = "/proc/self/fd/" + std::to_string(dirFd->get()) + path.substr(slash);
        if (target.size() >= sizeof(address->sun_path)) {
            errno = ENAMETOOLONG;
            return false;
        }
    }
    memcpy(address->sun_path, target.c_str(), target.size());
    *length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + target.size() + 1);
    return true;
}

}  // namespace platform

namespace platform {
namespace host {

bool ProvideControlSocket(const std::string& name, std::string* why) {
    const std::string variable = "ANDROID_SOCKET_" + name;
    if (getenv(variable.c_str()) != nullptr) return true;  // handed over, as by init
    auto fail = [why](const std::string& what) {
        *why = what + ": " + strerror(errno);
        return false;
    };
    if (name.empty() || name.find('/') != std::string::npos) {
        errno = EINVAL;
        return fail("control socket name '" + name + "'");
    }
    const std::string path = ReservedSocketPath(name);
    const std::string dir = path.substr(0, path.rfind('/'));
    if (!MakeDirs(dir)) return fail("cannot create " + dir);
    // Bound under a private name and moved into place, so that the mode is
    // right before any client can see the socket.
    const std::string temp = dir + "/.new." + std::to_string(getpid()) + "." + name;
    unlink(temp.c_str());
    struct sockaddr_un address;
    socklen_t length = 0;
    android::base::unique_fd dirFd;  // held until bind returns
    if (!MakeUnixAddress(temp, &address, &length, &dirFd)) return fail("cannot address " + temp);
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) return fail("cannot create a socket for " + path);
    if (bind(fd.get(), reinterpret_cast<struct sockaddr*>(&address), length) != 0) {
        return fail("cannot bind " + temp);
    }
    dirFd.reset();
    // Other local users reach it as they do on a device, where init sets the mode.
    if (fchmodat(AT_FDCWD, temp.c_str(), 0666, 0) != 0 || listen(fd.get(), 5) != 0) {
        const int saved = errno;
        unlink(temp.c_str());
        errno = saved;
        return fail("cannot prepare " + temp);
    }
    // A socket left by a daemon that died goes; anything else is not ours to remove.
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && !S_ISSOCK(st.st_mode)) {
        unlink(temp.c_str());
        errno = EEXIST;
        return fail(path + " exists and is not a socket");
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        const int saved = errno;
        unlink(temp.c_str());
        errno = saved;
        return fail("cannot publish " + path);
    }
    setenv(variable.c_str(), std::to_string(fd.release()).c_str(), 1);
    return true;
}

}  // namespace host
}  // namespace platform

int android_get_control_socket(const char* name) {
    if (name == nullptr) return -1;
    const std::string variable = std::string("ANDROID_SOCKET_") + name;
    const char* value = getenv(variable.c_str());
    int fd = -1;
    if (value == nullptr || !android::base::ParseInt(value, &fd, 0)) return -1;
    // Only a socket init really handed over counts, not any number in the environment.
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) return -1;
    return fd;
}

int socket_local_client(const char* name, int namespaceId, int type) {
    if (name == nullptr || name[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    socklen_t length;
    android::base::unique_fd dirFd;  // held until connect returns
    if (namespaceId == ANDROID_SOCKET_NAMESPACE_ABSTRACT) {
        const size_t size = strlen(name);
        if (size + 1 > sizeof(address.sun_path)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(address.sun_path + 1, name, size);
        length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + size);
    } else {
        if (namespaceId == ANDROID_SOCKET_NAMESPACE_RESERVED && strchr(name, '/') != nullptr) {
            errno = EINVAL;
            return -1;
        }
        const std::string path = namespaceId == ANDROID_SOCKET_NAMESPACE_RESERVED
                                     ? platform::ReservedSocketPath(name)
                                     : platform::DevicePath(name);
        // Below a deep root the path outgrows sun_path; the binder transport
        // reaches its service sockets the same way.
        if (!platform::MakeUnixAddress(path, &address, &length, &dirFd)) return -1;
    }
    android::base::unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!fd.ok()) return -1;
    if (TEMP_FAILURE_RETRY(connect(fd.get(), reinterpret_cast<struct sockaddr*>(&address), length)) != 0) {
        return -1;  // unique_fd keeps errno when it closes
    }
    return fd.release();
}
