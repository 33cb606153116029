#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <android-base/logging.h>
#include <utils/RefBase.h>
#include <utils/String8.h>

#include "platform/binder/ABBinder.h"
#include "platform/binder/IBinder.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/ScopedAStatus.h"

// Base of every NDK interface, local or proxy. An implementation is created
// with SharedRefBase::make<T>(...) and reached by its interface type;
// asBinder() gives the binder to register or pass on, fromBinder() (on each
// interface) turns a binder back into the interface: the implementation
// itself when the binder is its local one, a proxy when it is another
// process's.
namespace ndk {

class SharedRefBase : public std::enable_shared_from_this<SharedRefBase> {
public:
    virtual ~SharedRefBase() = default;
    template <typename T, typename... Args>
    static std::shared_ptr<T> make(Args&&... args) {
        return std::make_shared<T>(std::forward<Args>(args)...);
    }
    template <typename T = SharedRefBase>
    std::shared_ptr<T> ref() {
        return std::static_pointer_cast<T>(shared_from_this());
    }
};

class ICInterface : public SharedRefBase {
public:
    virtual SpAIBinder asBinder() = 0;
    virtual bool isRemote() = 0;
    // The binder dump entry point; implementations that have something to
    // say override it.
    virtual binder_status_t dump(int fd, const char** args, uint32_t numArgs);
    // Unmarshals one transaction for a local object (the Bn classes).
    virtual android::status_t onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out);
    // The method a transaction code calls ("" when the code names none).
    virtual std::string getTransactionName(uint32_t code) const;

protected:
    // The local binder of this object, made on first use and shared while
    // anyone holds it.
    SpAIBinder localBinder(const std::string& descriptor);

private:
    std::mutex binderLock_;
    android::wp<android::ABBinder> binder_;
};

// The body of every interface's fromBinder: a remote binder is asked for its
// descriptor first (once; the proxy keeps it), so a binder of another
// interface gives null rather than a proxy whose every call fails.
template <typename I, typename Bp>
std::shared_ptr<I> InterfaceFromBinder(const SpAIBinder& binder) {
    if (binder == nullptr) return nullptr;
    const android::String16 wanted(I::descriptor);
    if (android::BBinder* local = binder->localBinder()) {
        auto* own = dynamic_cast<android::ABBinder*>(local);
        if (own == nullptr || own->getInterfaceDescriptor() != wanted) return nullptr;
        return std::static_pointer_cast<I>(own->interface());
    }
    const android::String16& descriptor = binder->getInterfaceDescriptor();
    if (descriptor != wanted) {
        LOG(ERROR) << "Binder of interface \"" << android::String8(descriptor).string() << "\" is not a "
                   << I::descriptor;
        return nullptr;
    }
    return SharedRefBase::make<Bp>(binder);
}

}  // namespace ndk
