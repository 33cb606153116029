#include <cutils/sockets.h>
#include <host/Host.h>

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

namespace platform {

std::string ReservedSocketPath(const std::string& name) { return DevicePath("/dev/socket/" + name); }

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
        if (path.size() >= sizeof(address.sun_path)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        length = sizeof(address);
    }
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<struct sockaddr*>(&address), length);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}
