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
// with the parcel (the receiver gets its own), the size beside it. Laid out
// as the structured parcelable of Ashmem.aidl: its size in bytes, then the
// descriptor as a non-null ParcelFileDescriptor and the size.
struct Ashmem {
    android::os::ParcelFileDescriptor fd;
    int64_t size = 0;

    android::status_t writeToParcel(android::Parcel* parcel) const;
    // A shorter writer's missing fields keep their defaults, a newer
    // writer's further ones are skipped.
    android::status_t readFromParcel(const android::Parcel* parcel);
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
