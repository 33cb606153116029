#pragma once

#include <cstdint>

#include <binder/Parcel.h>
#include <binder/ParcelFileDescriptor.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// A shared memory region handed to the vendor HAL: its descriptor travels
// with the parcel (the receiver gets its own), the size beside it.
struct Ashmem {
    android::os::ParcelFileDescriptor fd;
    int64_t size = 0;

    android::status_t writeToParcel(android::Parcel* out) const {
        android::status_t st = out->write(fd);
        return st == android::OK ? out->writeInt64(size) : st;
    }
    android::status_t readFromParcel(const android::Parcel& in) {
        android::status_t st = in.read(&fd);
        return st == android::OK ? in.readInt64(&size) : st;
    }
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
