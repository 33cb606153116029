#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>

#include "platform/LogCapture.h"
#include "utils/SocketFilter.h"

using android::SocketFilter;
using android::base::unique_fd;

namespace {

bool RawSocketsRefused() {
    unique_fd probe(socket(AF_PACKET, SOCK_RAW, htons(0x0800)));
    return probe.get() < 0 && (errno == EPERM || errno == EACCES);
}

sockaddr_in Loopback(unsigned port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// A UDP socket on 127.0.0.1 with a port of the kernel's choosing, so that two
// runs of the suite at once never see each other's datagrams.
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

// The frames the filtered socket delivers within a short wait, each as read
// (the copy looped back as outgoing is left out: lo shows every frame twice).
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

// Frames on wlan0 carry an Ethernet header whatever is asked; on another
// interface a TCP match from an address has none to skip. Loopback decides
// the rest of the program by what it lets through.
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
    if (RawSocketsRefused()) GTEST_SKIP() << "skipped: needs root (raw packet sockets)";
    {
        platform::LogCapture capture;
        SocketFilter nowhere(nullptr, nullptr, 0, 0, 0, 0, 0, nullptr, 0, 0, "tarnis-none0");
        EXPECT_FALSE(nowhere.attach().ok());
        EXPECT_TRUE(capture.HasLine("attachSockFilter bind failed", "", 6));
    }

    unsigned senderPort = 0, port = 0, otherPort = 0;
    const unique_fd sender = BoundUdp(&senderPort), receiver = BoundUdp(&port), other = BoundUdp(&otherPort);
    ASSERT_TRUE(sender.ok() && receiver.ok() && other.ok());

    // The program reads the byte 12 past the transport header start as a TCP
    // data offset; for UDP that is payload byte 4, and ' ' (0x20) makes it 8,
    // the UDP header length, so the prefix lines up with the payload.
    const std::string prefix = "TRN1 h";
    const unsigned extra = 3;
    std::vector<unsigned char> bytes(prefix.begin(), prefix.end());
    SocketFilter filter(nullptr, nullptr, 0, 0, IPPROTO_UDP, senderPort, port, bytes.data(),
                        static_cast<unsigned>(bytes.size()), extra, "lo");
    // Traffic the filter refuses, flowing while the socket is made: what
    // came before the filter must not reach the client either.
    std::atomic<bool> quiet{false};
    std::thread noise([&] {
        while (!quiet) SendTo(sender.get(), port, "XRN1 noise");
    });
    unique_fd fd(filter.attach());
    quiet = true;
    noise.join();
    ASSERT_GE(fd.get(), 0);

    // Only the prefix from the sender's port to the receiver's passes.
    const struct {
        int from;
        unsigned to;
        const char* text;
    } sends[] = {
        {sender.get(), port, "TRN1 hello, first"},
        {sender.get(), port, "XRN1 hello, wrong prefix"},
        {sender.get(), otherPort, "TRN1 hello, wrong port"},
        {other.get(), port, "TRN1 hello, wrong source"},
        {sender.get(), port, "TRN1 hello, second"},
    };
    for (const auto& send : sends) {
        ASSERT_EQ(SendTo(send.from, send.to, send.text), static_cast<ssize_t>(strlen(send.text))) << send.text;
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
