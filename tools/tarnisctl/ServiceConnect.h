#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include <android/binder_auto_utils.h>
#include <android/binder_manager.h>
#include <host/Host.h>

namespace tarnisctl {

// The daemon's service, or null with an error line when it does not run:
// a tool must not hang waiting for a daemon that is not there.
inline ndk::SpAIBinder FindService(const char* descriptor) {
    const std::string instance = std::string(descriptor) + "/default";
    ndk::SpAIBinder binder = AServiceManager_checkService(instance.c_str());
    if (!binder) {
        fprintf(stderr, "tarnisctl: service %s is not running below root %s (is tarnisd running?)\n",
                instance.c_str(), platform::GetRoot().c_str());
    }
    return binder;
}

// The interface behind a service found above; null with the reason printed
// (the daemon may turn the connection away, and then says why).
template <typename Interface>
std::shared_ptr<Interface> Connect(ndk::SpAIBinder* binder) {
    *binder = FindService(Interface::descriptor);
    if (!*binder) return nullptr;
    std::shared_ptr<Interface> service = Interface::fromBinder(*binder);
    if (service) return service;
    const std::string& why = platform::host::LastBinderError();
    if (!why.empty()) {
        fprintf(stderr, "tarnisctl: %s\n", why.c_str());
    } else {
        fprintf(stderr, "tarnisctl: the service at %s is not %s\n", platform::GetRoot().c_str(),
                Interface::descriptor);
    }
    return nullptr;
}

}  // namespace tarnisctl
