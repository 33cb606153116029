#include <nuvi/dorva/StationInfo.h>

#include <cstddef>

namespace nuvi {
namespace dorva {
namespace {

constexpr size_t kFields = 13;

}  // namespace

android::status_t StationInfo::writeToParcel(android::Parcel* parcel) const {
    const int32_t values[kFields] = {signal,   chainSignalAvg0, chainSignalAvg1, chainSignalAvg2, chainSignalAvg3,
                                     txMcs,    txVhtMcs,        txHeMcs,         txEhtMcs,        rxMcs,
                                     rxVhtMcs, rxHeMcs,         rxEhtMcs};
    android::status_t st = parcel->writeInt32(static_cast<int32_t>(sizeof(int32_t) * (1 + kFields)));
    for (size_t i = 0; st == android::OK && i < kFields; ++i) st = parcel->writeInt32(values[i]);
    return st;
}

android::status_t StationInfo::readFromParcel(const android::Parcel* parcel) {
    const size_t start = parcel->dataPosition();
    int32_t size = 0;
    android::status_t st = parcel->readInt32(&size);
    if (st != android::OK) return st;
    if (size < static_cast<int32_t>(sizeof(int32_t)) || static_cast<size_t>(size) > parcel->dataAvail() + sizeof(int32_t)) {
        return android::BAD_VALUE;
    }
    const size_t end = start + static_cast<size_t>(size);
    int32_t* const fields[kFields] = {&signal,   &chainSignalAvg0, &chainSignalAvg1, &chainSignalAvg2, &chainSignalAvg3,
                                      &txMcs,    &txVhtMcs,        &txHeMcs,         &txEhtMcs,        &rxMcs,
                                      &rxVhtMcs, &rxHeMcs,         &rxEhtMcs};
    for (size_t i = 0; i < kFields && parcel->dataPosition() + sizeof(int32_t) <= end; ++i) {
        st = parcel->readInt32(fields[i]);
        if (st != android::OK) return st;
    }
    parcel->setDataPosition(end);
    return android::OK;
}

bool StationInfo::operator==(const StationInfo& o) const {
    return signal == o.signal && chainSignalAvg0 == o.chainSignalAvg0 && chainSignalAvg1 == o.chainSignalAvg1 &&
           chainSignalAvg2 == o.chainSignalAvg2 && chainSignalAvg3 == o.chainSignalAvg3 && txMcs == o.txMcs &&
           txVhtMcs == o.txVhtMcs && txHeMcs == o.txHeMcs && txEhtMcs == o.txEhtMcs && rxMcs == o.rxMcs &&
           rxVhtMcs == o.rxVhtMcs && rxHeMcs == o.rxHeMcs && rxEhtMcs == o.rxEhtMcs;
}

}  // namespace dorva
}  // namespace nuvi
