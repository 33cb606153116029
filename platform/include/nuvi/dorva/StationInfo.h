#pragma once

#include <cstdint>

#include <binder/Parcel.h>

// One Wi-Fi station's statistics as getStationInfo returns them. On the wire
// (as the platform's parcelables are laid out): the total size in bytes,
// itself included, then the thirteen values in declaration order. A reader
// skips values it does not know and takes defaults for values a shorter
// writer left out, so the record can grow.
namespace nuvi {
namespace dorva {

class StationInfo {
public:
    int32_t signal = 0;
    int32_t chainSignalAvg0 = 0;
    int32_t chainSignalAvg1 = 0;
    int32_t chainSignalAvg2 = 0;
    int32_t chainSignalAvg3 = 0;
    int32_t txMcs = -1;
    int32_t txVhtMcs = -1;
    int32_t txHeMcs = -1;
    int32_t txEhtMcs = -1;
    int32_t rxMcs = -1;
    int32_t rxVhtMcs = -1;
    int32_t rxHeMcs = -1;
    int32_t rxEhtMcs = -1;

    android::status_t writeToParcel(android::Parcel* parcel) const;
    android::status_t readFromParcel(const android::Parcel* parcel);

    bool operator==(const StationInfo& other) const;
    bool operator!=(const StationInfo& other) const { return !(*this == other); }
};

}  // namespace dorva
}  // namespace nuvi
