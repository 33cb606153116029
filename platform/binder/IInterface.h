#pragma once

#include <memory>

#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

#include "platform/binder/BBinder.h"
#include "platform/binder/IBinder.h"

// Classic (libbinder) interfaces, the shape the platform's aidl tool
// generates C++-backend code for: an interface IFoo declares itself with
// DECLARE_META_INTERFACE(Foo) and defines it with IMPLEMENT_META_INTERFACE
// (descriptor, asInterface, the default implementation); BnFoo is a
// BnInterface<IFoo> (the implementation and its local binder in one object),
// BpFoo a BpInterface<IFoo> over the remote binder.
namespace android {

class IInterface : public virtual RefBase {
protected:
    ~IInterface() override = default;
    virtual IBinder* onAsBinder() = 0;
};

template <typename INTERFACE>
sp<INTERFACE> interface_cast(const sp<IBinder>& binder) {
    return INTERFACE::asInterface(binder);
}

template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
public:
    sp<IInterface> queryLocalInterface(const String16& descriptor) override {
        if (descriptor == INTERFACE::descriptor) return sp<IInterface>(static_cast<INTERFACE*>(this));
        return nullptr;
    }
    const String16& getInterfaceDescriptor() const override { return INTERFACE::descriptor; }

protected:
    IBinder* onAsBinder() override { return this; }
};

class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder>& remote) : remote_(remote) {}
    IBinder* remote() const { return remote_.get(); }

private:
    const sp<IBinder> remote_;
};

template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpRefBase {
public:
    explicit BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

protected:
    IBinder* onAsBinder() override { return remote(); }
};

}  // namespace android

// asInterface gives the implementation itself for a local binder of the
// interface and a proxy otherwise, without asking the remote side anything:
// each call carries the interface token, which the service checks, so a
// binder of another interface fails its first call (BAD_TYPE).
#define DECLARE_META_INTERFACE(INTERFACE)                                                              \
public:                                                                                                \
    static const ::android::String16 descriptor;                                                       \
    static ::android::sp<I##INTERFACE> asInterface(const ::android::sp<::android::IBinder>& binder);   \
    virtual const ::android::String16& getInterfaceDescriptor() const;                                 \
    I##INTERFACE();                                                                                    \
    virtual ~I##INTERFACE();                                                                           \
    static bool setDefaultImpl(std::unique_ptr<I##INTERFACE> impl);                                    \
    static const std::unique_ptr<I##INTERFACE>& getDefaultImpl();                                      \
                                                                                                       \
private:                                                                                               \
    static std::unique_ptr<I##INTERFACE> default_impl;                                                 \
                                                                                                       \
public:

#define IMPLEMENT_META_INTERFACE(INTERFACE, NAME)                                                       \
    const ::android::String16 I##INTERFACE::descriptor(NAME);                                          \
    const ::android::String16& I##INTERFACE::getInterfaceDescriptor() const { return descriptor; }     \
    ::android::sp<I##INTERFACE> I##INTERFACE::asInterface(const ::android::sp<::android::IBinder>& binder) { \
        if (binder == nullptr) return nullptr;                                                         \
        ::android::sp<::android::IInterface> local = binder->queryLocalInterface(descriptor);          \
        if (local != nullptr) return static_cast<I##INTERFACE*>(local.get());                          \
        return new Bp##INTERFACE(binder);                                                              \
    }                                                                                                  \
    std::unique_ptr<I##INTERFACE> I##INTERFACE::default_impl;                                          \
    bool I##INTERFACE::setDefaultImpl(std::unique_ptr<I##INTERFACE> impl) {                            \
        if (default_impl || !impl) return false;                                                       \
        default_impl = std::move(impl);                                                                \
        return true;                                                                                   \
    }                                                                                                  \
    const std::unique_ptr<I##INTERFACE>& I##INTERFACE::getDefaultImpl() { return default_impl; }      \
    I##INTERFACE::I##INTERFACE() = default;                                                            \
    I##INTERFACE::~I##INTERFACE() = default;
