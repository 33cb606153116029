#pragma once

#include <utility>

#include <android-base/unique_fd.h>

#include "platform/binder/Parcelable.h"

// A descriptor as an interface passes it (attachSockFilter's socket, the
// shared memory of an Ashmem region): owned, written as a duplicate so that
// the sender keeps its own.
namespace android {
namespace os {

class ParcelFileDescriptor : public Parcelable {
public:
    ParcelFileDescriptor() = default;
    explicit ParcelFileDescriptor(base::unique_fd fd) : fd_(std::move(fd)) {}
    int get() const { return fd_.get(); }
    base::unique_fd release() { return std::move(fd_); }
    void reset(base::unique_fd fd = base::unique_fd()) { fd_ = std::move(fd); }

    status_t writeToParcel(Parcel* parcel) const override;
    status_t readFromParcel(const Parcel* parcel) override;

private:
    base::unique_fd fd_;
};

}  // namespace os
}  // namespace android
