// The daemon's wifi helpers: station queries over nl80211 and the packet filter.
#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>

#include "platform/LogCapture.h"
#include "utils/SocketFilter.h"
#include "utils/wificond/NL80211Packet.h"
#include "utils/wificond/NetlinkUtils.h"

using android::wificond::NetlinkUtils;
using android::wificond::NL80211Packet;
using android::wificond::StationInfo;
using android::SocketFilter;
using android::base::unique_fd;

namespace {

constexpr int kError = 6;  // error priority of the log
constexpr char kTag[] = "dorva-netlink";
constexpr size_t kAttrsAt = NLMSG_HDRLEN + GENL_HDRLEN;

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

// `bytes` with `value` written at `at`: a header, or a length field broken.
template <typename T>
Bytes Patched(Bytes bytes, size_t at, T value) {
    memcpy(bytes.data() + at, &value, sizeof(value));
    return bytes;
}

// One attribute on the wire: length, type, payload, padding to four bytes.
Bytes Attr(uint16_t type, const Bytes& payload) {
    Bytes out = Patched(Patched(Bytes(4), 0, static_cast<uint16_t>(4 + payload.size())), 2, type);
    out.insert(out.end(), payload.begin(), payload.end());
    out.resize((out.size() + 3) & ~size_t{3}, 0);
    return out;
}

Bytes Cat(std::initializer_list<Bytes> pieces) {
    Bytes out;
    for (const Bytes& p : pieces) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A whole generic-netlink message of this command around the attributes.
Bytes Message(uint8_t command, const Bytes& attrs, uint32_t seq = 7) {
    const nlmsghdr header{static_cast<uint32_t>(kAttrsAt + attrs.size()), 0x1c, 0, seq, 0};
    Bytes out = Patched(Bytes(kAttrsAt, 0), 0, header);
    out[NLMSG_HDRLEN] = command;
    out.insert(out.end(), attrs.begin(), attrs.end());
    return out;
}

Bytes U8(uint16_t type, int value) { return Attr(type, {static_cast<uint8_t>(value)}); }
// A rate with only the legacy MCS, or with the VHT, HE and EHT ones too.
Bytes Rates(int mcs) { return U8(2, mcs); }
Bytes Rates(int mcs, int vht, int he, int eht) { return Cat({U8(2, mcs), U8(6, vht), U8(13, he), U8(19, eht)}); }

Bytes StaInfo(std::initializer_list<Bytes> inner) { return Attr(21, Cat(inner)); }
const Bytes kSignal = Attr(7, {0xC0});  // -64 dBm
const Bytes kChains = Attr(26, Attr(0, {0xC1}));

Bytes FullStation() {
    return StaInfo({U8(7, -52), Attr(26, Cat({U8(0, -50), U8(1, -55)})), Attr(8, Rates(7, 9, 11, 13)),
                    Attr(14, Rates(5, 8, 10, 12))});
}

Lines Errors(const platform::LogCapture& capture) {
    Lines out;
    for (const platform::LogLine& line : capture.Lines()) {
        if (line.tag == kTag && line.prio == kError) out.push_back(line.text);
    }
    return out;
}

// signal, the four chains, tx mcs/vht/he/eht, rx mcs/vht/he/eht.
std::vector<int> Fields(const StationInfo& i) {
    return {i.signal,   i.chainSignalAvg[0], i.chainSignalAvg[1], i.chainSignalAvg[2], i.chainSignalAvg[3],
            i.txMcs,    i.txVhtMcs,          i.txHeMcs,           i.txEhtMcs,          i.rxMcs,
            i.rxVhtMcs, i.rxHeMcs,           i.rxEhtMcs};
}
const std::vector<int> kDefaults = {0, 0, 0, 0, 0, -1, -1, -1, -1, -1, -1, -1, -1};
const std::vector<int> kSignalOnly = {-64, 0, 0, 0, 0, -1, -1, -1, -1, -1, -1, -1, -1};

}  // namespace

// What cannot be read keeps its default and is logged; nothing is read past a length that claims too much.
TEST(NetlinkUtilsTest, StationReplyFieldsAndWhatIsMissing) {
    const std::tuple<const char*, Bytes, std::vector<int>, Lines> cases[] = {
        {"every field", Message(19, FullStation()), {-52, -50, -55, 0, 0, 7, 9, 11, 13, 5, 8, 10, 12}, {}},
        {"legacy rates, the last chain, one beyond",
         Message(19, StaInfo({kSignal, Attr(26, Cat({Attr(2, {0xD0}), Attr(3, {0xC8}), Attr(5, {0xE0})})),
                              Attr(8, Rates(3)), Attr(14, Rates(4))})),
         {-64, 0, 0, -48, -56, 3, -1, -1, -1, 4, -1, -1, -1},
         {"Unexpected chain type:5"}},
        {"wrong command", Message(20, FullStation()), kDefaults,
         {"Wrong command in response to a get station request: 20"}},
        {"no station info", Message(19, Attr(3, {1, 0, 0, 0})), kDefaults, {"Failed to get NL80211_ATTR_STA_INFO"}},
        {"no signal", Message(19, StaInfo({Attr(8, Rates(1))})), kDefaults,
         {"Failed to get NL80211_STA_INFO_SIGNAL"}},
        {"no chains", Message(19, StaInfo({kSignal, Attr(8, Rates(1))})), kSignalOnly,
         {"Failed to get NL80211_STA_INFO_CHAIN_SIGNAL_AVG"}},
        {"no bit rates", Message(19, StaInfo({kSignal, kChains})), {-64, -63, 0, 0, 0, -1, -1, -1, -1, -1, -1, -1, -1},
         {"Failed to get NL80211_STA_INFO_TX_BITRATE"}},
        {"no receive rate", Message(19, StaInfo({kSignal, kChains, Attr(8, Cat({Rates(3), U8(6, 4)}))})),
         {-64, -63, 0, 0, 0, 3, 4, -1, -1, -1, -1, -1, -1},
         {"Failed to get NL80211_STA_INFO_RX_BITRATE"}},
        {"station info longer than the message", Patched(Message(19, FullStation()), kAttrsAt, uint16_t{0x7000}),
         kDefaults,
         {"Failed to get list of attributes: invalid nla_len.", "Failed to get NL80211_ATTR_STA_INFO"}},
        {"inner attribute shorter than its header", Message(19, StaInfo({Patched(kSignal, 0, uint16_t{2})})),
         kDefaults,
         {"Failed to get list of nested attributes: invalid nla_len.", "Failed to get NL80211_STA_INFO_SIGNAL"}},
        {"last chain runs past the list",
         Message(19, StaInfo({kSignal, Attr(26, Cat({Attr(0, {0xC0}), Bytes{5, 0, 1, 0}}))})), kSignalOnly,
         {"Failed to get list of nested attributes: invalid nla_len.",
          "Failed to get infos from NL80211_STA_INFO_CHAIN_SIGNAL_AVG"}},
    };
    for (const auto& [what, message, fields, errors] : cases) {
        SCOPED_TRACE(what);
        platform::LogCapture capture;
        NL80211Packet packet(message);
        ASSERT_TRUE(packet.IsValid());
        StationInfo info;
        NetlinkUtils::ParseStationInfo(packet, info);
        EXPECT_EQ(Fields(info), fields);
        EXPECT_EQ(Errors(capture), errors);
    }
}

TEST(NetlinkUtilsTest, MessageSplittingChecksEveryLength) {
    const Bytes one = Message(19, FullStation(), 3);
    const Bytes two = Message(19, Attr(3, {2, 0, 0, 0}), 4);
    const std::string dropped = "Discarding incomplete / invalid message.";
    const Bytes bare = Patched(Bytes(one.begin(), one.begin() + NLMSG_HDRLEN), 0, uint32_t{NLMSG_HDRLEN});
    // What, the data, whether it splits, the sequences of the messages kept, the error lines.
    const std::tuple<const char*, Bytes, bool, std::vector<uint32_t>, Lines> cases[] = {
        {"two messages", Cat({one, two}), true, {3, 4}, {}},
        {"a tail too short for a header", Cat({one, Bytes(two.begin(), two.begin() + 10)}), false, {},
         {"payload is broken."}},
        {"a length past the buffer", Patched(one, 0, uint32_t{4096}), false, {}, {"payload content is broken."}},
        {"a length below a header", Patched(one, 0, uint32_t{8}), false, {}, {"payload content is broken."}},
        // A message too short for its generic header and a cut error message go; the good one after stays.
        {"invalid messages", Cat({bare, Patched(Message(0, {}), 4, uint16_t{NLMSG_ERROR}), one}), true, {3},
         {"Cannot retrieve generic netlink header.", "Receive invalid packet", dropped, "Broken error message.",
          "Receive invalid packet", dropped}},
    };
    for (const auto& [what, data, ok, sequences, errors] : cases) {
        SCOPED_TRACE(what);
        platform::LogCapture capture;
        std::vector<std::unique_ptr<const NL80211Packet>> out;
        ASSERT_EQ(NetlinkUtils::SplitMessages(data.data(), data.size(), &out), ok);
        EXPECT_EQ(Errors(capture), errors);
        if (!ok) continue;
        std::vector<uint32_t> kept;
        for (const auto& packet : out) kept.push_back(packet->GetMessageSequence());
        EXPECT_EQ(kept, sequences);
    }
}

TEST(NetlinkUtilsTest, GetStationRequestCarriesTheInterfaceAndAWellFormedMac) {
    const NL80211Packet request = NetlinkUtils::BuildGetStationRequest(0x1c, 9, "lo", "0A:1b:2C:3d:4E:5f");
    const Bytes& data = request.GetConstData();
    ASSERT_TRUE(NL80211Packet(data).IsValid());
    EXPECT_EQ(request.GetMessageType(), 0x1c);
    EXPECT_EQ(request.GetCommand(), 17);
    EXPECT_EQ(request.GetMessageSequence(), 9u);
    const uint32_t lo = if_nametoindex("lo");
    ASSERT_NE(lo, 0u);
    const Bytes ifindex = Patched(Attr(3, Bytes(4)), 4, lo);
    const Bytes mac = Attr(6, {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F});
    EXPECT_EQ(Bytes(data.begin() + kAttrsAt, data.end()), Cat({ifindex, mac}));

    // One character short or long: the request goes without the MAC.
    for (const char* text : {"0A:1b:2C:3d:4E:5", "0A:1b:2C:3d:4E:5f0"}) {
        const Bytes bytes = NetlinkUtils::BuildGetStationRequest(0x1c, 9, "lo", text).GetConstData();
        EXPECT_EQ(Bytes(bytes.begin() + kAttrsAt, bytes.end()), ifindex) << text;
    }
}

TEST(NetlinkUtilsTest, StartFindsNl80211OrSaysWhyNot) {
    // qemu-user (the arm64 pass) cannot translate generic netlink messages.
    const int probe = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (probe < 0 && errno == EPROTONOSUPPORT) GTEST_SKIP() << "no generic netlink here (qemu-user)";
    if (probe >= 0) close(probe);
    platform::LogCapture capture;
    NetlinkUtils utils;
    if (utils.Start()) {
        EXPECT_EQ(Errors(capture), Lines{});
        return;
    }
    // Without CAP_NET_ADMIN the buffer is refused; without cfg80211, the family.
    if (capture.HasLine("Failed to set uevent socket SO_RCVBUFFORCE option", kTag, kError)) return;
    EXPECT_TRUE(capture.HasLine("Failed to get NL80211 family info", kTag, kError));
}

namespace {

sockaddr_in Loopback(unsigned port) {
    return sockaddr_in{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

// A UDP socket on 127.0.0.1 on a port the kernel chooses: two runs at once never see each other's datagrams.
unique_fd BoundUdp(unsigned* port) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in addr = Loopback(0);
    socklen_t len = sizeof(addr);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return unique_fd();
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

ssize_t SendTo(int fd, unsigned port, const std::string& text) {
    const sockaddr_in to = Loopback(port);
    return sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
}

// The frames delivered within a short wait, less lo's outgoing copy of each.
std::vector<std::string> Received(int fd) {
    std::vector<std::string> frames;
    pollfd pfd{fd, POLLIN, 0};
    while (frames.size() < 64 && poll(&pfd, 1, 300) > 0) {
        char buf[2048];
        sockaddr_ll from{};
        socklen_t len = sizeof(from);
        ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n <= 0) break;
        if (from.sll_pkttype == PACKET_OUTGOING) continue;
        frames.emplace_back(buf, static_cast<size_t>(n));
    }
    return frames;
}

}  // namespace

TEST(SocketFilterTest, ParseMacAddressReadsHexPairsAndStopsAtABadPart) {
    using Mac = std::vector<unsigned char>;
    const auto parse = [](const char* text) {
        Mac mac = {1, 2, 3, 4, 5, 6};
        android::parseMacAddress(text, mac.data());
        return mac;
    };
    EXPECT_EQ(parse("AA:bb:0c:D1:e2:F3"), (Mac{0xAA, 0xBB, 0x0C, 0xD1, 0xE2, 0xF3}));
    // A group of one character ends parsing; groups beyond six are ignored.
    EXPECT_EQ(parse("AA:B:CC"), (Mac{0xAA, 2, 3, 4, 5, 6}));
    EXPECT_EQ(parse("11:12:13:14:15:16:17"), (Mac{0x11, 0x12, 0x13, 0x14, 0x15, 0x16}));
    // A stray character counts as 0 and is reported once per character.
    platform::LogCapture capture;
    EXPECT_EQ(parse("zA:1g:00:00:00:00"), (Mac{0x0A, 0x10, 0, 0, 0, 0}));
    EXPECT_TRUE(capture.HasLine("invalid character in bssid z", "", 6));
    EXPECT_TRUE(capture.HasLine("invalid character in bssid g", "", 6));
    EXPECT_EQ(capture.Count("invalid character", "", 6), 2u);
}

// wlan0 frames always carry an Ethernet header; a TCP match from an address elsewhere has none to skip.
TEST(SocketFilterTest, ProgramSkipsALinkHeaderOnlyWhereOneComes) {
    for (const auto& [ifname, header] : {std::pair{"wlan0", 14u}, std::pair{"eth1", 0u}}) {
        SCOPED_TRACE(ifname);
        SocketFilter filter(nullptr, nullptr, 0x0A000001, 0, 6, 0, 0, nullptr, 0, 100, ifname);
        const auto& p = filter.program();
        ASSERT_EQ(p.size(), 16u);
        EXPECT_EQ(p[0].k, header + 12);  // the source address
        EXPECT_EQ(p[1].k, 0x0A000001u);
        EXPECT_EQ(p[4].k, header + 6);  // the fragment field: only a first fragment passes
        EXPECT_EQ(p[5].k, 0x1FFFu);
        EXPECT_EQ(p[5].jt, 16 - 5 - 2);  // to the reject at the end
        EXPECT_EQ(p[13].k, header + 100);  // the cut: the headers and the bytes asked for
    }
}

TEST(SocketFilterTest, AttachOnLoopbackDeliversOnlyMatchingDatagramsCut) {
    const unique_fd raw(socket(AF_PACKET, SOCK_RAW, htons(0x0800)));
    if (!raw.ok() && (errno == EPERM || errno == EACCES)) GTEST_SKIP() << "skipped: needs root (raw packet sockets)";
    platform::LogCapture capture;
    SocketFilter nowhere(nullptr, nullptr, 0, 0, 0, 0, 0, nullptr, 0, 0, "tarnis-none0");
    EXPECT_FALSE(nowhere.attach().ok());
    EXPECT_TRUE(capture.HasLine("attachSockFilter bind failed", "", 6));

    unsigned senderPort = 0, port = 0, otherPort = 0;
    const unique_fd sender = BoundUdp(&senderPort), receiver = BoundUdp(&port), other = BoundUdp(&otherPort);
    ASSERT_TRUE(sender.ok() && receiver.ok() && other.ok());

    // The program takes UDP payload byte 4 for a TCP data offset: ' ' (0x20) makes it the 8-byte UDP header.
    const std::string prefix = "TRN1 h";
    const unsigned extra = 3;
    std::vector<unsigned char> bytes(prefix.begin(), prefix.end());
    SocketFilter filter(nullptr, nullptr, 0, 0, IPPROTO_UDP, senderPort, port, bytes.data(),
                        static_cast<unsigned>(bytes.size()), extra, "lo");
    // Refused traffic flowing while the socket is made must not reach the client either.
    std::atomic<bool> quiet{false};
    std::thread noise([&] { while (!quiet) SendTo(sender.get(), port, "XRN1 noise"); });
    unique_fd fd(filter.attach());
    quiet = true;
    noise.join();
    ASSERT_GE(fd.get(), 0);

    // Only the prefix from the sender's port to the receiver's passes.
    const std::tuple<int, unsigned, const char*> sends[] = {
        {sender.get(), port, "TRN1 hello, first"},
        {sender.get(), port, "XRN1 hello, wrong prefix"},
        {sender.get(), otherPort, "TRN1 hello, wrong port"},
        {other.get(), port, "TRN1 hello, wrong source"},
        {sender.get(), port, "TRN1 hello, second"},
    };
    for (const auto& [from, to, text] : sends) {
        ASSERT_EQ(SendTo(from, to, text), static_cast<ssize_t>(strlen(text))) << text;
    }

    const std::vector<std::string> frames = Received(fd.get());
    ASSERT_EQ(frames.size(), 2u);
    const size_t headers = 14 + sizeof(iphdr) + sizeof(udphdr);
    for (const std::string& frame : frames) {
        ASSERT_EQ(frame.size(), headers + extra);
        const auto* udp = reinterpret_cast<const udphdr*>(frame.data() + 14 + sizeof(iphdr));
        EXPECT_EQ(ntohs(udp->source), senderPort);
        EXPECT_EQ(ntohs(udp->dest), port);
        EXPECT_EQ(frame.substr(headers), "TRN");
    }
}
