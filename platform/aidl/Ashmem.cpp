#include <aidl/vendor/velmar/hardware/kolto/common/Ashmem.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

android::status_t Ashmem::writeToParcel(android::Parcel* parcel) const {
    const size_t start = parcel->dataPosition();
    android::status_t st = parcel->writeInt32(0);
    if (st == android::OK) st = parcel->writeParcelable(fd);
    if (st == android::OK) st = parcel->writeInt64(size);
    if (st != android::OK) return st;
    const size_t end = parcel->dataPosition();
    parcel->setDataPosition(start);
    st = parcel->writeInt32(static_cast<int32_t>(end - start));
    parcel->setDataPosition(end);
    return st;
}

android::status_t Ashmem::readFromParcel(const android::Parcel* parcel) {
    const size_t start = parcel->dataPosition();
    int32_t total;
    android::status_t st = parcel->readInt32(&total);
    if (st != android::OK) return st;
    if (total < 4 || static_cast<size_t>(total) > parcel->dataSize() - start) return android::BAD_VALUE;
    const size_t end = start + static_cast<size_t>(total);
    if (parcel->dataPosition() < end) st = parcel->readParcelable(&fd);
    if (st == android::OK && parcel->dataPosition() < end) st = parcel->readInt64(&size);
    if (st == android::OK) parcel->setDataPosition(end);
    return st;
}

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
