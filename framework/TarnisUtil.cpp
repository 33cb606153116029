#include "framework/TarnisUtil.h"

#include <mutex>
#include <string>

#include <android/binder_manager.h>
#include <android/binder_process.h>

namespace velmar {
namespace kolto {
namespace {

struct Handles {
    std::mutex lock;
    std::shared_ptr<TarnisUtil::ITarnisSsi> ssi;
    std::shared_ptr<TarnisUtil::ITarnisSsiIntl> ssiIntl;
};

Handles& Cache() {
    static auto* handles = new Handles;
    return *handles;
}

template <typename I>
std::shared_ptr<I> Lookup() {
    const std::string name = std::string(I::descriptor) + "/default";
    if (!AServiceManager_isDeclared(name.c_str())) return nullptr;
    // Not stored: the cache belongs to start-up.
    return I::fromBinder(AServiceManager_waitForService(name.c_str()));
}

}  // namespace

std::shared_ptr<TarnisUtil::ITarnisSsi> TarnisUtil::GetTarnisSsiAidl() {
    {
        std::lock_guard<std::mutex> guard(Cache().lock);
        if (Cache().ssi) return Cache().ssi;
    }
    return Lookup<ITarnisSsi>();
}

std::shared_ptr<TarnisUtil::ITarnisIntl> TarnisUtil::GetTarnisIntl() { return Lookup<ITarnisIntl>(); }

std::shared_ptr<TarnisUtil::ITarnisSsiIntl> TarnisUtil::GetTarnisSsiIntl() {
    {
        std::lock_guard<std::mutex> guard(Cache().lock);
        if (Cache().ssiIntl) return Cache().ssiIntl;
    }
    return Lookup<ITarnisSsiIntl>();
}

void TarnisUtil::SetTarnisSsiAidl(std::shared_ptr<ITarnisSsi> handle) {
    std::lock_guard<std::mutex> guard(Cache().lock);
    Cache().ssi = std::move(handle);
}

void TarnisUtil::SetTarnisSsiIntl(std::shared_ptr<ITarnisSsiIntl> handle) {
    std::lock_guard<std::mutex> guard(Cache().lock);
    Cache().ssiIntl = std::move(handle);
}

bool TarnisUtil::HasTarnisSsiIntl() {
    std::lock_guard<std::mutex> guard(Cache().lock);
    return Cache().ssiIntl != nullptr;
}

}  // namespace kolto
}  // namespace velmar
