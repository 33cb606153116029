// Arbitrary bytes as a buffer read from the generic-netlink socket: cut into
// messages, each parsed as a station reply and walked attribute by attribute.
// The kernel is trusted in principle, but a reply that does not add up must
// cost a log line, never a read past the buffer.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <host/Host.h>
#include <log/log.h>

#include "utils/wificond/NL80211Packet.h"
#include "utils/wificond/NetlinkUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
        return true;
    }();
    (void)quiet;
    std::vector<std::unique_ptr<const android::wificond::NL80211Packet>> messages;
    android::wificond::NetlinkUtils::SplitMessages(data, size, &messages);
    for (const auto& message : messages) {
        android::wificond::StationInfo info;
        android::wificond::NetlinkUtils::ParseStationInfo(*message, info);
        std::vector<android::wificond::BaseNL80211Attr> attributes;
        message->GetAttributes(&attributes);
    }
    return 0;
}
