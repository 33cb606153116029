#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "platform/binder/IBinder.h"

// A proxy for a service in another process, reached through its socket.
// Each transaction takes a connection of its own from a small idle pool (or
// opens one), so calls from many client threads run side by side instead of
// queueing behind one another; a connection carries one call at a time.
namespace android {

class BpBinder : public IBinder {
public:
    // A proxy for the service listening at `socketPath`, checked by
    // connecting once; null when nobody accepts there.
    static sp<BpBinder> Connect(const std::string& name, const std::string& socketPath);

    status_t transact(uint32_t code, const Parcel& data, Parcel* reply) override;
    std::string getInterfaceDescriptor() override;
    BpBinder* remoteBinder() override { return this; }
    const std::string& name() const { return name_; }

    BpBinder(std::string name, std::string socketPath, base::unique_fd first);

private:
    base::unique_fd takeConnection(bool* reused);
    void giveBack(base::unique_fd conn);

    const std::string name_;
    const std::string path_;
    std::mutex lock_;
    std::vector<base::unique_fd> idle_;
    std::string descriptor_;  // asked once, under lock_
};

}  // namespace android
