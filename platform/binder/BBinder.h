#pragma once

#include <memory>
#include <string>

#include "platform/binder/IBinder.h"

namespace ndk {
class ICInterface;
}

// The local binder object of an interface implementation. It keeps the
// implementation alive (a registered service lives as long as the service
// manager holds its binder) and hands each transaction to its stub.
namespace android {

class BBinder : public IBinder {
public:
    BBinder(std::shared_ptr<ndk::ICInterface> impl, std::string descriptor);

    status_t transact(uint32_t code, const Parcel& data, Parcel* reply) override;
    std::string getInterfaceDescriptor() override { return descriptor_; }
    BBinder* localBinder() override { return this; }
    // The implementation: what an in-process caller is given instead of a proxy.
    const std::shared_ptr<ndk::ICInterface>& interface() const { return impl_; }

private:
    status_t handleDump(const Parcel& data);

    std::shared_ptr<ndk::ICInterface> impl_;
    std::string descriptor_;
};

}  // namespace android
