#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/binder/IBinder.h"

// The service manager of the host: a directory of sockets, one per running
// service, below <root>/dev/binder/. A service name may hold any bytes ("/"
// included): its socket file name keeps letters, digits, ".", "_" and "-"
// and writes every other byte as %XX (so ".../ITarnisSsi/default" becomes
// "...ITarnisSsi%2Fdefault"); names whose encoding is longer than 100 bytes
// are cut and end in "~" plus a 64-bit hash of the whole name.
//
// A service appears atomically: its socket is bound under a temporary name,
// set listening, then renamed into place, so a client that sees the file can
// connect. Waiting for a service watches the directory with inotify.
//
// Declared instances (what the device's VINTF manifests would list) are the
// lines of the text files <root>/system/etc/vintf/manifest.txt and
// <root>/vendor/etc/vintf/manifest.txt, one instance name per line, "#"
// starting a comment. An instance whose socket is present (a running
// service, e.g. the daemon's own once added) counts as declared as well.
namespace android {

class ServiceManager {
public:
    static ServiceManager& instance();

    // Publishes `binder` under `name` and serves it from this process's pool.
    // A name another live process serves is refused (STATUS_ALREADY_EXISTS);
    // a stale socket left by a dead one is replaced.
    status_t addService(const std::string& name, const sp<IBinder>& binder);
    // The service if it runs now, else null; never blocks. A service added by
    // this process is returned as its local binder.
    sp<IBinder> checkService(const std::string& name);
    bool isDeclared(const std::string& name);
    // Null at once when `name` is not declared; otherwise blocks until the
    // service runs (timeoutMs < 0: for ever) and returns it.
    sp<IBinder> waitForService(const std::string& name, int timeoutMs = -1);
    // Withdraws a service this process added: no new clients reach it.
    bool removeService(const std::string& name);
    // Withdraws every service this process added (a daemon that is stopping).
    void removeAllServices();
    // Names of the services whose sockets are present.
    std::vector<std::string> listServices();

    static std::string ServiceDir();
    static std::string SocketPath(const std::string& name);
    static std::string EncodeName(const std::string& name);
    // The inverse of EncodeName (empty for hashed or invalid file names).
    static std::string DecodeName(const std::string& fileName);

private:
    ServiceManager() = default;
    bool inManifest(const std::string& name);

    std::mutex lock_;
    // Services this process added, by socket path (the root may differ
    // between them in tests).
    std::map<std::string, sp<IBinder>> local_;
};

}  // namespace android
