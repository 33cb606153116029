#define LOG_TAG "dorva-netlink"

#include "utils/wificond/NetlinkUtils.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include <log/log.h>

namespace android {
namespace wificond {
namespace {

constexpr size_t kReceiveBufferSize = 8192;
constexpr int kReplyBudgetMs = 1000;
constexpr char kNl80211FamilyName[] = "nl80211";

// nl80211 numbers, as the kernel publishes them.
constexpr uint8_t kCmdGetStation = 17;
constexpr uint8_t kCmdNewStation = 19;
constexpr uint16_t kAttrIfindex = 3;
constexpr uint16_t kAttrMac = 6;
constexpr uint16_t kAttrStaInfo = 21;
constexpr uint16_t kStaInfoSignal = 7;
constexpr uint16_t kStaInfoTxBitrate = 8;
constexpr uint16_t kStaInfoRxBitrate = 14;
constexpr uint16_t kStaInfoChainSignalAvg = 26;
constexpr uint16_t kRateMcs = 2;
constexpr uint16_t kRateVhtMcs = 6;
constexpr uint16_t kRateHeMcs = 13;
constexpr uint16_t kRateEhtMcs = 19;

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 0;
}

std::vector<uint8_t> U32Bytes(uint32_t value) {
    std::vector<uint8_t> bytes(sizeof(value));
    memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

// Reads the four MCS values present in a rate-info attribute.
void ReadRates(const NL80211NestedAttr& rate, int32_t* mcs, int32_t* vht, int32_t* he,
               int32_t* eht) {
    uint8_t value = 0;
    if (rate.GetU8(kRateMcs, &value)) *mcs = value;
    if (rate.GetU8(kRateVhtMcs, &value)) *vht = value;
    if (rate.GetU8(kRateHeMcs, &value)) *he = value;
    if (rate.GetU8(kRateEhtMcs, &value)) *eht = value;
}

}  // namespace

bool NetlinkUtils::Start() {
    android::base::unique_fd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC));
    if (fd.get() < 0) {
        ALOGE("Failed to create netlink socket");
        return false;
    }
    int size = static_cast<int>(kReceiveBufferSize);
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
        ALOGE("Failed to set uevent socket SO_RCVBUFFORCE option");
        return false;
    }
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ALOGE("Failed to bind netlink socket");
        return false;
    }
    // Replies are matched to requests by sequence; the kernel must have given
    // the socket a port for them to come back to.
    socklen_t len = sizeof(addr);
    if (getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        addr.nl_family != AF_NETLINK) {
        ALOGE("Failed to setup synchronous netlink socket");
        return false;
    }
    fd_ = std::move(fd);
    if (!GetFamily()) {
        ALOGE("Failed to get NL80211 family info");
        return false;
    }
    if (families_.find(kNl80211FamilyName) == families_.end()) {
        ALOGE("Failed to get NL80211 family id");
        return false;
    }
    return true;
}

bool NetlinkUtils::GetFamily() {
    NL80211Packet request(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, ++sequence_,
                          static_cast<uint32_t>(getpid()));
    request.AddAttribute(BaseNL80211Attr(
        CTRL_ATTR_FAMILY_NAME,
        std::vector<uint8_t>(kNl80211FamilyName, kNl80211FamilyName + sizeof(kNl80211FamilyName))));
    std::unique_ptr<const NL80211Packet> reply;
    if (!SendMessageAndGetSingleResponse(request, &reply)) return false;
    if (reply->GetMessageType() != GENL_ID_CTRL) {
        ALOGE("Wrong message type for new family message");
        return false;
    }
    if (reply->GetCommand() != CTRL_CMD_NEWFAMILY) {
        ALOGE("Wrong command for new family message");
        return false;
    }
    BaseNL80211Attr attr;
    if (!reply->GetAttribute(CTRL_ATTR_FAMILY_NAME, &attr)) {
        ALOGE("Failed to get family name");
        return false;
    }
    const std::string name(reinterpret_cast<const char*>(attr.Payload()),
                           strnlen(reinterpret_cast<const char*>(attr.Payload()), attr.PayloadSize()));
    if (name != kNl80211FamilyName) {
        ALOGE("Ignoring none nl80211 netlink families");
        return true;
    }
    if (!reply->GetAttribute(CTRL_ATTR_FAMILY_ID, &attr) || attr.PayloadSize() < sizeof(uint16_t)) {
        ALOGE("Failed to get family id");
        return false;
    }
    MessageType family;
    memcpy(&family.familyId, attr.Payload(), sizeof(uint16_t));
    NL80211NestedAttr groups;
    std::vector<NL80211NestedAttr> list;
    if (reply->GetAttribute(CTRL_ATTR_MCAST_GROUPS, &groups) &&
        groups.GetListOfNestedAttributes(&list)) {
        for (const NL80211NestedAttr& group : list) {
            BaseNL80211Attr groupName;
            BaseNL80211Attr groupId;
            if (!group.GetAttribute(CTRL_ATTR_MCAST_GRP_NAME, &groupName)) {
                ALOGE("Failed to get group name");
                return false;
            }
            if (!group.GetAttribute(CTRL_ATTR_MCAST_GRP_ID, &groupId) ||
                groupId.PayloadSize() < sizeof(uint32_t)) {
                ALOGE("Failed to get group id");
                return false;
            }
            uint32_t id = 0;
            memcpy(&id, groupId.Payload(), sizeof(id));
            family.groups[std::string(
                reinterpret_cast<const char*>(groupName.Payload()),
                strnlen(reinterpret_cast<const char*>(groupName.Payload()), groupName.PayloadSize()))] =
                id;
        }
    }
    families_[name] = family;
    return true;
}

bool NetlinkUtils::GetStationInfo(const char* ifname, const char* peerMac, StationInfo& info) {
    std::lock_guard<std::mutex> guard(lock_);
    info = StationInfo();
    const auto family = families_.find(kNl80211FamilyName);
    const uint16_t familyId = family != families_.end() ? family->second.familyId : 0;
    const NL80211Packet request = BuildGetStationRequest(familyId, ++sequence_, ifname, peerMac);
    std::unique_ptr<const NL80211Packet> reply;
    if (!SendMessageAndGetSingleResponse(request, &reply)) {
        ALOGE(" NL80211_CMD_GET_STATION failed");
        return false;
    }
    ParseStationInfo(*reply, info);
    return true;
}

NL80211Packet NetlinkUtils::BuildGetStationRequest(uint16_t familyId, uint32_t sequence,
                                                  const char* ifname, const char* peerMac) {
    NL80211Packet request(familyId, kCmdGetStation, sequence, static_cast<uint32_t>(getpid()));
    request.AddAttribute(
        BaseNL80211Attr(kAttrIfindex, U32Bytes(if_nametoindex(ifname != nullptr ? ifname : ""))));
    if (peerMac != nullptr && strlen(peerMac) == 17) {
        std::vector<uint8_t> mac(6);
        for (size_t i = 0; i < 6; ++i) {
            mac[i] = static_cast<uint8_t>(HexDigit(peerMac[i * 3]) * 16 + HexDigit(peerMac[i * 3 + 1]));
        }
        request.AddAttribute(BaseNL80211Attr(kAttrMac, mac));
    }
    return request;
}

void NetlinkUtils::ParseStationInfo(const NL80211Packet& reply, StationInfo& info) {
    if (reply.GetCommand() != kCmdNewStation) {
        ALOGE("Wrong command in response to a get station request: %d", reply.GetCommand());
        return;
    }
    NL80211NestedAttr staInfo;
    if (!reply.GetAttribute(kAttrStaInfo, &staInfo)) {
        ALOGE("Failed to get NL80211_ATTR_STA_INFO");
        return;
    }
    uint8_t signal = 0;
    if (!staInfo.GetU8(kStaInfoSignal, &signal)) {
        ALOGE("Failed to get NL80211_STA_INFO_SIGNAL");
        return;
    }
    info.signal = static_cast<int8_t>(signal);
    NL80211NestedAttr chains;
    if (!staInfo.GetAttribute(kStaInfoChainSignalAvg, &chains)) {
        ALOGE("Failed to get NL80211_STA_INFO_CHAIN_SIGNAL_AVG");
        return;
    }
    std::vector<NL80211NestedAttr> chainList;
    if (!chains.GetListOfNestedAttributes(&chainList)) {
        ALOGE("Failed to get infos from NL80211_STA_INFO_CHAIN_SIGNAL_AVG");
        return;
    }
    for (const NL80211NestedAttr& chain : chainList) {
        const uint16_t index = chain.GetAttributeId();
        if (index > 3) {
            ALOGE("Unexpected chain type:%d", index);
            continue;
        }
        if (chain.PayloadSize() >= 1) info.chainSignalAvg[index] = static_cast<int8_t>(chain.Payload()[0]);
    }
    NL80211NestedAttr rate;
    if (!staInfo.GetAttribute(kStaInfoTxBitrate, &rate)) {
        ALOGE("Failed to get NL80211_STA_INFO_TX_BITRATE");
        return;
    }
    ReadRates(rate, &info.txMcs, &info.txVhtMcs, &info.txHeMcs, &info.txEhtMcs);
    if (!staInfo.GetAttribute(kStaInfoRxBitrate, &rate)) {
        ALOGE("Failed to get NL80211_STA_INFO_RX_BITRATE");
        return;
    }
    ReadRates(rate, &info.rxMcs, &info.rxVhtMcs, &info.rxHeMcs, &info.rxEhtMcs);
}

bool NetlinkUtils::SplitMessages(const uint8_t* data, size_t size,
                                 std::vector<std::unique_ptr<const NL80211Packet>>* out) {
    size_t offset = 0;
    while (offset < size) {
        if (size - offset < NLMSG_HDRLEN) {
            ALOGE("payload is broken.");
            return false;
        }
        nlmsghdr header;
        memcpy(&header, data + offset, sizeof(header));
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > size - offset) {
            ALOGE("payload content is broken.");
            return false;
        }
        auto packet = std::make_unique<NL80211Packet>(
            std::vector<uint8_t>(data + offset, data + offset + header.nlmsg_len));
        if (packet->IsValid()) {
            out->push_back(std::move(packet));
        } else {
            ALOGE("Receive invalid packet");
            ALOGE("Discarding incomplete / invalid message.");
        }
        offset += NLMSG_ALIGN(header.nlmsg_len);
    }
    return true;
}

bool NetlinkUtils::SendMessageAndGetSingleResponse(const NL80211Packet& request,
                                                   std::unique_ptr<const NL80211Packet>* response) {
    const std::vector<uint8_t>& bytes = request.GetConstData();
    if (fd_.get() < 0 ||
        send(fd_.get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        ALOGE(" Failed to send netlink message");
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReplyBudgetMs);
    std::vector<uint8_t> buffer(kReceiveBufferSize);
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now()).count();
        pollfd pfd{fd_.get(), POLLIN, 0};
        const int ready = left > 0 ? poll(&pfd, 1, static_cast<int>(left)) : 0;
        if (ready < 0) {
            if (errno == EINTR) continue;
            ALOGE("Failed to poll netlink fd");
            return false;
        }
        if (ready == 0) {
            ALOGE("Failed to poll netlink fd: time out ");
            ALOGE("Timeout waiting for netlink reply messages");
            return false;
        }
        const ssize_t n = recv(fd_.get(), buffer.data(), buffer.size(), 0);
        if (n <= 0) {
            ALOGE("Failed to read packet from buffer");
            return false;
        }
        std::vector<std::unique_ptr<const NL80211Packet>> messages;
        if (!SplitMessages(buffer.data(), static_cast<size_t>(n), &messages)) return false;
        for (auto& message : messages) {
            if (message->GetMessageType() == NLMSG_OVERRUN) {
                ALOGE("Get message overrun notification");
                continue;
            }
            if (message->GetMessageSequence() != request.GetMessageSequence()) {
                ALOGE("No handler for message: %d", message->GetMessageSequence());
                continue;
            }
            // The kernel answers a refused request with an error message.
            if (message->GetMessageType() == NLMSG_ERROR && message->GetErrorCode() != 0) {
                return false;
            }
            *response = std::move(message);
            return true;
        }
    }
}

}  // namespace wificond
}  // namespace android
