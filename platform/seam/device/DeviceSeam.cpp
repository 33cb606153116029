// The seam's calls on a device, where init, logd, the property service and
// the binder driver do what the host's stand-ins do on a host. Only the
// device build compiles this file.

#include <stdint.h>
#include <stdlib.h>
#include <sys/system_properties.h>

#include <host/Host.h>

namespace platform {

// liblog sends a device's lines to logd, never to standard error, so there
// is nothing on the terminal to hold back; the tools call this to keep the
// log off their own output, which on a device it already is.
void SetStderrLogLevel(int) {}

std::map<std::string, std::string> ListProperties() {
    std::map<std::string, std::string> result;
    __system_property_foreach(
        [](const prop_info* info, void* cookie) {
            __system_property_read_callback(
                info,
                [](void* out, const char* name, const char* value, uint32_t) {
                    (*static_cast<std::map<std::string, std::string>*>(out))[name] = value;
                },
                cookie);
        },
        &result);
    return result;
}

namespace host {

// init starts the daemon with the socket of its service's "socket" line in
// the environment; on a device nobody else may bind in /dev/socket.
bool ProvideControlSocket(const std::string& name, std::string* why) {
    const std::string variable = "ANDROID_SOCKET_" + name;
    if (getenv(variable.c_str()) != nullptr) return true;
    *why = "init handed over no " + variable + " (the service's socket line is missing)";
    return false;
}

// The service manager forgets a process's services when its binder node
// dies, which the process's end brings about.
void WithdrawServices() {}

// The binder driver has no time limit for a call, and libbinder reports a
// failed call by its status alone: the tools print the status.
void SetBinderCallTimeoutMs(int) {}

const std::string& LastBinderError() {
    static const std::string kNone;
    return kNone;
}

// The mark makes the host's own log writer skip its lock and the time zone
// in such a child. On a device the child's rare line (a redirection that
// failed) goes through liblog like any other; there is no writer of ours to
// tell.
void MarkSpawnedChild(bool) {}

}  // namespace host
}  // namespace platform
