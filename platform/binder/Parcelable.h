#pragma once

#include "platform/binder/BinderStatus.h"

// A value that writes itself into a parcel and reads itself back: what a
// generated structured parcelable (and ParcelFileDescriptor) derives from.
namespace android {

class Parcel;

class Parcelable {
public:
    virtual ~Parcelable() = default;
    virtual status_t writeToParcel(Parcel* parcel) const = 0;
    virtual status_t readFromParcel(const Parcel* parcel) = 0;
};

}  // namespace android
