#pragma once

// Sockets from init, in libcutils' shape. On a device init creates the
// daemon's control socket and the reserved sockets ("dumpstate", "uncrypt")
// in /dev/socket/; on the host they are <root>/dev/socket/NAME.

#define ANDROID_SOCKET_NAMESPACE_ABSTRACT 0
#define ANDROID_SOCKET_NAMESPACE_RESERVED 1
#define ANDROID_SOCKET_NAMESPACE_FILESYSTEM 2

extern "C" {
// The descriptor init handed over for the socket `name` (from the
// environment variable ANDROID_SOCKET_<name>), or -1.
int android_get_control_socket(const char* name);
// Connects a close-on-exec socket of `type` to `name` in the given namespace.
// Returns the descriptor, or -1 with errno set.
int socket_local_client(const char* name, int namespaceId, int type);
}
