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
