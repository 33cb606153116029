#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "platform/LogCapture.h"
#include "utils/wificond/NL80211Packet.h"
#include "utils/wificond/NetlinkUtils.h"

using android::wificond::NetlinkUtils;
using android::wificond::NL80211Packet;
using android::wificond::StationInfo;

namespace {

constexpr int kError = 6;  // error priority of the log
constexpr char kTag[] = "dorva-netlink";

using Bytes = std::vector<uint8_t>;

// One attribute on the wire: length, type, payload, padding to four bytes.
Bytes Attr(uint16_t type, const Bytes& payload) {
    Bytes out(4);
    const uint16_t len = static_cast<uint16_t>(4 + payload.size());
    memcpy(out.data(), &len, 2);
    memcpy(out.data() + 2, &type, 2);
    out.insert(out.end(), payload.begin(), payload.end());
    out.resize((out.size() + 3) & ~size_t{3}, 0);
    return out;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A whole generic-netlink message of this command around the attributes.
Bytes Message(uint8_t command, const Bytes& attrs, uint32_t seq = 7, uint16_t type = 0x1c) {
    Bytes out(NLMSG_HDRLEN + GENL_HDRLEN, 0);
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(out.size() + attrs.size());
    header.nlmsg_type = type;
    header.nlmsg_seq = seq;
    memcpy(out.data(), &header, sizeof(header));
    out[NLMSG_HDRLEN] = command;
    out.insert(out.end(), attrs.begin(), attrs.end());
    return out;
}

Bytes Rates(uint8_t mcs, int vht, int he, int eht) {
    Bytes out = Attr(2, {mcs});
    if (vht >= 0) out = Cat({out, Attr(6, {static_cast<uint8_t>(vht)})});
    if (he >= 0) out = Cat({out, Attr(13, {static_cast<uint8_t>(he)})});
    if (eht >= 0) out = Cat({out, Attr(19, {static_cast<uint8_t>(eht)})});
    return out;
}

Bytes StaInfo(const Bytes& inner) { return Attr(21, inner); }

Bytes FullStation() {
    return StaInfo(Cat({Attr(7, {static_cast<uint8_t>(-52)}),
                        Attr(26, Cat({Attr(0, {static_cast<uint8_t>(-50)}),
                                      Attr(1, {static_cast<uint8_t>(-55)})})),
                        Attr(8, Rates(7, 9, 11, 13)), Attr(14, Rates(5, 8, 10, 12))}));
}

StationInfo Parse(const Bytes& message) {
    NL80211Packet packet(message);
    EXPECT_TRUE(packet.IsValid());
    StationInfo info;
    NetlinkUtils::ParseStationInfo(packet, info);
    return info;
}

}  // namespace

TEST(NetlinkUtilsTest, StationReplyFillsEveryReportedField) {
    platform::LogCapture capture;
    const StationInfo info = Parse(Message(19, FullStation()));
    EXPECT_EQ(info.signal, -52);
    EXPECT_EQ(info.chainSignalAvg[0], -50);
    EXPECT_EQ(info.chainSignalAvg[1], -55);
    EXPECT_EQ(info.chainSignalAvg[2], 0);
    EXPECT_EQ(info.chainSignalAvg[3], 0);
    EXPECT_EQ(info.txMcs, 7);
    EXPECT_EQ(info.txVhtMcs, 9);
    EXPECT_EQ(info.txHeMcs, 11);
    EXPECT_EQ(info.txEhtMcs, 13);
    EXPECT_EQ(info.rxMcs, 5);
    EXPECT_EQ(info.rxVhtMcs, 8);
    EXPECT_EQ(info.rxHeMcs, 10);
    EXPECT_EQ(info.rxEhtMcs, 12);
    EXPECT_EQ(capture.Count("", kTag, kError), 0u);
}

TEST(NetlinkUtilsTest, MissingPartsKeepTheirDefaultsAndAreLogged) {
    {
        // Legacy rates only; a chain index beyond 3 is reported and skipped.
        platform::LogCapture capture;
        const StationInfo info = Parse(Message(
            19, StaInfo(Cat({Attr(7, {0xC0}),
                             Attr(26, Cat({Attr(2, {0xD0}), Attr(5, {0xE0})})),
                             Attr(8, Rates(3, -1, -1, -1)), Attr(14, Rates(4, -1, -1, -1))}))));
        EXPECT_EQ(info.signal, -64);
        EXPECT_EQ(info.chainSignalAvg[2], -48);
        EXPECT_EQ(info.txMcs, 3);
        EXPECT_EQ(info.rxMcs, 4);
        EXPECT_EQ(info.txVhtMcs, -1);
        EXPECT_EQ(info.txHeMcs, -1);
        EXPECT_EQ(info.rxEhtMcs, -1);
        EXPECT_TRUE(capture.HasLine("Unexpected chain type:5", kTag, kError));
    }
    // A wrong reply or one without the station's attributes: defaults, and why.
    const std::pair<Bytes, const char*> refused[] = {
        {Message(20, FullStation()), "Wrong command in response to a get station request: 20"},
        {Message(19, Attr(3, {1, 0, 0, 0})), "Failed to get NL80211_ATTR_STA_INFO"},
    };
    for (const auto& [message, line] : refused) {
        platform::LogCapture capture;
        const StationInfo info = Parse(message);
        EXPECT_EQ(info.signal, 0);
        EXPECT_EQ(info.txMcs, -1);
        EXPECT_TRUE(capture.HasLine(line, kTag, kError)) << line;
    }
    {
        // Signal and chains present, no bit rates.
        platform::LogCapture capture;
        const StationInfo info =
            Parse(Message(19, StaInfo(Cat({Attr(7, {0xC0}), Attr(26, Attr(0, {0xC1}))}))));
        EXPECT_EQ(info.chainSignalAvg[0], -63);
        EXPECT_EQ(info.rxMcs, -1);
        EXPECT_TRUE(capture.HasLine("Failed to get NL80211_STA_INFO_TX_BITRATE", kTag, kError));
    }
    {
        platform::LogCapture capture;
        const StationInfo info = Parse(Message(19, StaInfo(Attr(8, Rates(1, -1, -1, -1)))));
        EXPECT_EQ(info.txMcs, -1);
        EXPECT_TRUE(capture.HasLine("Failed to get NL80211_STA_INFO_SIGNAL", kTag, kError));
    }
}

TEST(NetlinkUtilsTest, BrokenAttributeLengthsAreRefusedWithoutReadingPastTheEnd) {
    {
        // The station-info attribute claims more bytes than the message has.
        Bytes message = Message(19, FullStation());
        const uint16_t tooLong = 0x7000;
        memcpy(message.data() + NLMSG_HDRLEN + GENL_HDRLEN, &tooLong, 2);
        platform::LogCapture capture;
        const StationInfo info = Parse(message);
        EXPECT_EQ(info.signal, 0);
        EXPECT_TRUE(capture.HasLine("Failed to get list of attributes: invalid nla_len.", kTag, kError));
        EXPECT_TRUE(capture.HasLine("Failed to get NL80211_ATTR_STA_INFO", kTag, kError));
    }
    {
        // An inner attribute shorter than its own header.
        Bytes inner = Attr(7, {0xC0});
        const uint16_t tooShort = 2;
        memcpy(inner.data(), &tooShort, 2);
        platform::LogCapture capture;
        Parse(Message(19, StaInfo(inner)));
        EXPECT_TRUE(capture.HasLine("Failed to get list of nested attributes: invalid nla_len.", kTag,
                                    kError));
        EXPECT_TRUE(capture.HasLine("Failed to get NL80211_STA_INFO_SIGNAL", kTag, kError));
    }
    {
        // A chain list whose last entry runs past the list.
        Bytes chains = Cat({Attr(0, {0xC0}), Attr(1, {0xC1})});
        chains.resize(chains.size() - 4);
        platform::LogCapture capture;
        const StationInfo info = Parse(Message(19, StaInfo(Cat({Attr(7, {0xC0}), Attr(26, chains)}))));
        EXPECT_EQ(info.signal, -64);
        EXPECT_EQ(info.chainSignalAvg[0], 0);
        EXPECT_TRUE(capture.HasLine("Failed to get infos from NL80211_STA_INFO_CHAIN_SIGNAL_AVG", kTag,
                                    kError));
    }
}

TEST(NetlinkUtilsTest, MessageSplittingChecksEveryLength) {
    const Bytes one = Message(19, FullStation(), 3);
    const Bytes two = Message(19, Attr(3, {2, 0, 0, 0}), 4);
    {
        std::vector<std::unique_ptr<const NL80211Packet>> out;
        const Bytes both = Cat({one, two});
        ASSERT_TRUE(NetlinkUtils::SplitMessages(both.data(), both.size(), &out));
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(out[0]->GetMessageSequence(), 3u);
        EXPECT_EQ(out[1]->GetMessageSequence(), 4u);
    }
    {
        // A tail too short for a header.
        platform::LogCapture capture;
        std::vector<std::unique_ptr<const NL80211Packet>> out;
        const Bytes cut = Cat({one, Bytes(two.begin(), two.begin() + 10)});
        EXPECT_FALSE(NetlinkUtils::SplitMessages(cut.data(), cut.size(), &out));
        EXPECT_TRUE(capture.HasLine("payload is broken.", kTag, kError));
    }
    {
        // A header whose length runs past the buffer, and one below a header.
        for (uint32_t len : {uint32_t{4096}, uint32_t{8}}) {
            platform::LogCapture capture;
            Bytes broken = one;
            memcpy(broken.data(), &len, sizeof(len));
            std::vector<std::unique_ptr<const NL80211Packet>> out;
            EXPECT_FALSE(NetlinkUtils::SplitMessages(broken.data(), broken.size(), &out));
            EXPECT_TRUE(capture.HasLine("payload content is broken.", kTag, kError)) << len;
        }
    }
    {
        // A generic message without room for its generic header, and an
        // error message cut short, are dropped; the good one survives.
        Bytes bare(NLMSG_HDRLEN, 0);
        nlmsghdr header{};
        header.nlmsg_len = NLMSG_HDRLEN;
        header.nlmsg_type = 0x1c;
        memcpy(bare.data(), &header, sizeof(header));
        Bytes error(NLMSG_HDRLEN + 4, 0);
        header.nlmsg_len = static_cast<uint32_t>(error.size());
        header.nlmsg_type = NLMSG_ERROR;
        memcpy(error.data(), &header, sizeof(header));
        platform::LogCapture capture;
        std::vector<std::unique_ptr<const NL80211Packet>> out;
        const Bytes all = Cat({bare, error, one});
        ASSERT_TRUE(NetlinkUtils::SplitMessages(all.data(), all.size(), &out));
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out[0]->GetMessageSequence(), 3u);
        EXPECT_TRUE(capture.HasLine("Cannot retrieve generic netlink header.", kTag, kError));
        EXPECT_TRUE(capture.HasLine("Broken error message.", kTag, kError));
        EXPECT_EQ(capture.Count("Discarding incomplete / invalid message.", kTag, kError), 2u);
    }
}

TEST(NetlinkUtilsTest, GetStationRequestCarriesTheInterfaceAndAWellFormedMac) {
    const NL80211Packet request =
        NetlinkUtils::BuildGetStationRequest(0x1c, 9, "lo", "0A:1b:2C:3d:4E:5f");
    const Bytes& data = request.GetConstData();
    ASSERT_TRUE(NL80211Packet(data).IsValid());
    EXPECT_EQ(request.GetMessageType(), 0x1c);
    EXPECT_EQ(request.GetCommand(), 17);
    EXPECT_EQ(request.GetMessageSequence(), 9u);
    const uint32_t lo = if_nametoindex("lo");
    ASSERT_NE(lo, 0u);
    Bytes loBytes(4);
    memcpy(loBytes.data(), &lo, 4);
    const Bytes ifindex = Attr(3, loBytes);
    const Bytes mac = Attr(6, {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F});
    EXPECT_EQ(Bytes(data.begin() + NLMSG_HDRLEN + GENL_HDRLEN, data.end()), Cat({ifindex, mac}));

    // One character short or long: the request goes without the MAC.
    for (const char* text : {"0A:1b:2C:3d:4E:5", "0A:1b:2C:3d:4E:5f0"}) {
        const Bytes bytes = NetlinkUtils::BuildGetStationRequest(0x1c, 9, "lo", text).GetConstData();
        EXPECT_EQ(Bytes(bytes.begin() + NLMSG_HDRLEN + GENL_HDRLEN, bytes.end()), ifindex) << text;
    }
}

TEST(NetlinkUtilsTest, StartFindsNl80211OrSaysWhyNot) {
    // Every Linux kernel has generic netlink; qemu-user (the arm64 pass)
    // refuses the protocol because it cannot translate its messages.
    const int probe = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (probe < 0 && errno == EPROTONOSUPPORT) GTEST_SKIP() << "no generic netlink here (qemu-user)";
    if (probe >= 0) close(probe);
    platform::LogCapture capture;
    NetlinkUtils utils;
    if (utils.Start()) {
        EXPECT_EQ(capture.Count("", kTag, kError), 0u);
        return;
    }
    // Forcing the receive buffer needs CAP_NET_ADMIN; with it, a kernel
    // without cfg80211 has the controller refuse the family lookup.
    if (capture.HasLine("Failed to set uevent socket SO_RCVBUFFORCE option", kTag, kError)) return;
    EXPECT_TRUE(capture.HasLine("Failed to get NL80211 family info", kTag, kError));
}
