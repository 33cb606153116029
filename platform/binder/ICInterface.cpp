#include "platform/binder/ICInterface.h"

namespace ndk {

binder_status_t ICInterface::dump(int, const char**, uint32_t) { return STATUS_OK; }

android::status_t ICInterface::onTransact(uint32_t, const android::Parcel&, android::Parcel*) {
    return STATUS_UNKNOWN_TRANSACTION;
}

std::string ICInterface::getTransactionName(uint32_t) const { return ""; }

SpAIBinder ICInterface::localBinder(const std::string& descriptor) {
    std::lock_guard<std::mutex> lock(binderLock_);
    android::sp<android::ABBinder> binder = binder_.promote();
    if (binder == nullptr) {
        std::shared_ptr<ICInterface> self = std::static_pointer_cast<ICInterface>(weak_from_this().lock());
        CHECK(self != nullptr) << "an interface implementation must be made with SharedRefBase::make";
        binder = new android::ABBinder(std::move(self), descriptor);
        binder_ = binder;
    }
    return binder;
}

}  // namespace ndk
