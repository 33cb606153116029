#include "platform/Sockets.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Root.h"

namespace platform {

std::string ReservedSocketPath(const std::string& name) {
    return DevicePath("/dev/socket/" + name);
}

int ConnectReservedSocket(const std::string& name) {
    if (name.empty() || name.find('/') != std::string::npos) {
        errno = EINVAL;
        return -1;
    }
    const std::string path = ReservedSocketPath(name);
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace platform
