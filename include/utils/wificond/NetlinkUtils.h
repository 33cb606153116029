#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "utils/wificond/NL80211Packet.h"

namespace android {
namespace wificond {

// One station's link statistics. Anything the kernel does not report keeps
// its default: 0 for the signals, -1 for the rate indices.
struct StationInfo {
    int32_t signal = 0;
    int32_t chainSignalAvg[4] = {0, 0, 0, 0};
    int32_t txMcs = -1, txVhtMcs = -1, txHeMcs = -1, txEhtMcs = -1;
    int32_t rxMcs = -1, rxVhtMcs = -1, rxHeMcs = -1, rxEhtMcs = -1;
};

struct MessageType {
    uint16_t familyId = 0;
    std::map<std::string, uint32_t> groups;
};

// A small generic-netlink client for nl80211 station queries.
class NetlinkUtils {
public:
    bool Start();
    bool GetStationInfo(const char* ifname, const char* peerMac, StationInfo& info);
    bool SendMessageAndGetSingleResponse(const NL80211Packet& request,
                                         std::unique_ptr<const NL80211Packet>* response);

    // The get-station request for one interface; the peer's MAC goes with it
    // only when its text has the exact "aa:bb:cc:dd:ee:ff" length.
    static NL80211Packet BuildGetStationRequest(uint16_t familyId, uint32_t sequence,
                                                const char* ifname, const char* peerMac);
    // Reads a new-station reply into `info`; what cannot be read is logged
    // and keeps its default.
    static void ParseStationInfo(const NL80211Packet& reply, StationInfo& info);
    // Cuts a received buffer into messages; false, with a log line, when a
    // length is broken. Messages that are not valid are dropped.
    static bool SplitMessages(const uint8_t* data, size_t size,
                              std::vector<std::unique_ptr<const NL80211Packet>>* out);

private:
    bool GetFamily();

    android::base::unique_fd fd_;
    uint32_t sequence_ = 0;
    std::map<std::string, MessageType> families_;
    std::mutex lock_;
};

}  // namespace wificond
}  // namespace android
