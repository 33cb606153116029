#include "platform/binder/ParcelFileDescriptor.h"

#include "platform/binder/Parcel.h"

namespace android {
namespace os {

status_t ParcelFileDescriptor::writeToParcel(Parcel* parcel) const {
    return parcel->writeDupParcelFileDescriptor(fd_.get());
}

status_t ParcelFileDescriptor::readFromParcel(const Parcel* parcel) {
    return parcel->readUniqueParcelFileDescriptor(&fd_);
}

}  // namespace os
}  // namespace android
