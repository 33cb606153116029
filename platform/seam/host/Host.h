#pragma once

#include <map>
#include <string>

#include <android-base/unique_fd.h>

// What only a host run needs, in one place: the root below which every device
// path resolves, the log's output on a terminal, the property store as files,
// one daemon per root, and client-side limits for binder calls. On a device
// init, logd and binder provide these, and platform/seam/device gives the
// same calls their device meaning; the daemon's entry point, its tools and
// the one path table reach them here and nowhere else. The calls marked
// "host only" serve the host's stand-ins and their tests, and a device
// build has no definition of them.
namespace platform {

// Sets the root for the whole process. An empty string or "/" means the real
// paths. Trailing slashes are dropped.
void SetRoot(const std::string& root);

// The root in use: the last SetRoot, else $TARNIS_ROOT, else "/".
std::string GetRoot();

// Maps an absolute device path ("/data/dorva/") below the root. Relative paths
// and paths already below the root are returned unchanged, so mapping twice is
// harmless.
std::string DevicePath(const std::string& absolutePath);

// The tag used when a caller gives none; the program's name unless set.
// Host only.
void SetDefaultLogTag(const std::string& tag);
const char* DefaultLogTag();

// Lines below this priority are not printed to standard error (they still
// reach log captures). Defaults to $TARNIS_LOG_LEVEL (V, D, I, W, E) or V.
void SetStderrLogLevel(int prio);

// Every property with its value, in name order.
std::map<std::string, std::string> ListProperties();
// The directory that holds the store for the current root. Host only.
std::string PropertyStoreDir();
// True for names the store accepts: letters, digits and ". _ - : @", not
// starting with a dot, at most 256 bytes.
bool IsValidPropertyName(const std::string& key);

// The file-system path of the reserved socket `name` (<root>/dev/socket/NAME).
// Host only.
std::string ReservedSocketPath(const std::string& name);

}  // namespace platform

namespace platform {
namespace host {

// Takes the lock that makes this the only `name` running on the current root.
// On failure the result is not ok() and `why` says who holds it (or what went wrong).
android::base::unique_fd AcquireInstanceLock(const std::string& name, std::string* why);
// Gives the lock up and removes its file (before a clean exit).
void ReleaseInstanceLock(const std::string& name, android::base::unique_fd lock);

// Stands in for init's control socket `name` when the environment holds
// none (ANDROID_SOCKET_<name> unset): binds <root>/dev/socket/NAME (a stream
// socket, mode 0666 as init would set it, replacing a stale socket file but
// never a file of another kind), listens, and exports the descriptor in
// ANDROID_SOCKET_<name> for android_get_control_socket. Call before any
// thread reads the environment. False with `why` set when it cannot.
bool ProvideControlSocket(const std::string& name, std::string* why);

// Withdraws every binder service this process added: their sockets are
// removed, so clients see at once that nobody serves them.
void WithdrawServices();

// A time limit for every binder call this process makes (< 0: none), and the
// sentence that says why the last failed call of this thread failed.
void SetBinderCallTimeoutMs(int timeoutMs);
const std::string& LastBinderError();

// Marks the calling thread as running a child that borrows this process's
// memory until it execs (set in the child, cleared by the parent after): the
// log then behaves as in the child of a fork, taking no lock and reading no
// time zone.
void MarkSpawnedChild(bool inChild);

}  // namespace host
}  // namespace platform
