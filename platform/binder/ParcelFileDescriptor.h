#pragma once

#include <utility>

#include <android-base/unique_fd.h>

// A descriptor as a classic interface returns it (attachSockFilter's socket):
// owned, moved out of the reply parcel. Parcel::write duplicates it, so the
// sender keeps its own.
namespace android {
namespace os {

class ParcelFileDescriptor {
public:
    ParcelFileDescriptor() = default;
    explicit ParcelFileDescriptor(base::unique_fd fd) : fd_(std::move(fd)) {}
    int get() const { return fd_.get(); }
    const base::unique_fd& getFileDescriptor() const { return fd_; }
    int release() { return fd_.release(); }
    void reset(base::unique_fd fd = base::unique_fd()) { fd_ = std::move(fd); }

private:
    base::unique_fd fd_;
};

}  // namespace os
}  // namespace android
