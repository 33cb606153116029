#pragma once

#include <string>

// Reserved local sockets ("dumpstate", "uncrypt"): on a device init creates
// them in /dev/socket/; on the host they are <root>/dev/socket/NAME, made by
// whichever sandbox service listens there.
namespace platform {

// The file-system path of the reserved socket `name`.
std::string ReservedSocketPath(const std::string& name);

// Connects a close-on-exec stream socket to the reserved socket `name`
// (as socket_local_client with the reserved namespace does). Returns the
// descriptor, or -1 with errno set.
int ConnectReservedSocket(const std::string& name);

}  // namespace platform
