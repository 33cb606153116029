#pragma once

#include <memory>
#include <string>

#include "platform/binder/BBinder.h"

namespace ndk {
class ICInterface;
}

// The local binder of an NDK interface implementation (the NDK's own name
// for it). It keeps the implementation alive (a registered service lives as
// long as the service manager holds its binder) and hands each transaction,
// the dump and the method names to it.
namespace android {

class ABBinder : public BBinder {
public:
    ABBinder(std::shared_ptr<ndk::ICInterface> impl, const std::string& descriptor);

    const String16& getInterfaceDescriptor() const override { return descriptor_; }
    status_t dump(int fd, const Vector<String16>& args) override;
    // The implementation: what an in-process caller is given instead of a proxy.
    const std::shared_ptr<ndk::ICInterface>& interface() const { return impl_; }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override;
    std::string transactionName(uint32_t code) const override;

private:
    const std::shared_ptr<ndk::ICInterface> impl_;
    const String16 descriptor_;
};

}  // namespace android
