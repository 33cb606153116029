#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include <android-base/unique_fd.h>

// Unix socket addresses for paths of any depth, for the stand-ins that bind
// or connect below the root (reserved sockets, binder service sockets).
namespace platform {

// Fills `address` and `length` for the socket file `path`. A path too long
// for sun_path (108 bytes: a deep root) is reached through its directory: the
// directory is opened into `dirFd` and the address names
// /proc/self/fd/N/NAME, which the kernel resolves as it would the whole path.
// `dirFd` must stay open until bind or connect has returned. False with errno
// set (ENAMETOOLONG when even the short form does not fit).
bool MakeUnixAddress(const std::string& path, struct sockaddr_un* address, socklen_t* length,
                     android::base::unique_fd* dirFd);

}  // namespace platform
