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

// A UDP socket on 127.0.0.1 with a port of the kernel's choosing, so that two
// runs of the suite at once never see each other's datagrams.
unique_fd BoundUdp(unsigned* port) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return unique_fd();
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

void SendTo(int fd, unsigned port, const std::string& text) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)),
              static_cast<ssize_t>(text.size()));
}

// The frames the filtered socket delivers within a short wait, each as read
// (the copy looped back as outgoing is left out: lo shows every frame twice).
std::vector<std::string> Received(int fd) {
    std::vector<std::string> frames;
    pollfd pfd{fd, POLLIN, 0};
    while (poll(&pfd, 1, 300) > 0) {
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
    unsigned char mac[6] = {};
    android::parseMacAddress("AA:bb:0c:D1:e2:F3", mac);
    EXPECT_EQ(std::vector<unsigned char>(mac, mac + 6),
              (std::vector<unsigned char>{0xAA, 0xBB, 0x0C, 0xD1, 0xE2, 0xF3}));

    // A part of one character ends parsing: only the first byte is written.
    unsigned char partial[6] = {1, 2, 3, 4, 5, 6};
    android::parseMacAddress("AA:B:CC", partial);
    EXPECT_EQ(std::vector<unsigned char>(partial, partial + 6),
              (std::vector<unsigned char>{0xAA, 2, 3, 4, 5, 6}));

    // Extra parts beyond six are ignored.
    unsigned char seven[6] = {};
    android::parseMacAddress("01:02:03:04:05:06:07", seven);
    EXPECT_EQ(std::vector<unsigned char>(seven, seven + 6),
              (std::vector<unsigned char>{1, 2, 3, 4, 5, 6}));

    // A stray character counts as 0 and is reported once per character.
    platform::LogCapture capture;
    unsigned char bad[6] = {};
    android::parseMacAddress("zA:1g:00:00:00:00", bad);
    EXPECT_EQ(bad[0], 0x0A);
    EXPECT_EQ(bad[1], 0x10);
    EXPECT_TRUE(capture.HasLine("invalid character in bssid z", "", 6));
    EXPECT_TRUE(capture.HasLine("invalid character in bssid g", "", 6));
}

TEST(SocketFilterTest, ProgramShapeFollowsTheRequestedFields) {
    // wlan0 with nothing asked: fragment test, header lengths into X, cut.
    SocketFilter open(nullptr, "", 0, 0, 0, 0, 0, nullptr, 0, 100, "wlan0");
    const auto& p = open.program();
    ASSERT_EQ(p.size(), 12u);
    EXPECT_EQ(p[0].code, 0x28);
    EXPECT_EQ(p[0].k, 20u);  // 14 + 6: the fragment field
    EXPECT_EQ(p[1].code, 0x45);
    EXPECT_EQ(p[1].jt, 12 - 1 - 2);  // to the reject at the end
    EXPECT_EQ(p[8].code, 0x87);
    EXPECT_EQ(p[9].code, 0x04);
    EXPECT_EQ(p[9].k, 114u);
    EXPECT_EQ(p[10].code, 0x16);
    EXPECT_EQ(p[11].code, 0x06);
    EXPECT_EQ(p[11].k, 0u);

    // TCP from one address on another interface: no link header to skip.
    SocketFilter tcp(nullptr, nullptr, 0x0A000001, 0, 6, 0, 0, nullptr, 0, 0, "eth1");
    ASSERT_GE(tcp.program().size(), 2u);
    EXPECT_EQ(tcp.program()[0].code, 0x20);
    EXPECT_EQ(tcp.program()[0].k, 12u);
    EXPECT_EQ(tcp.program()[1].k, 0x0A000001u);
}

TEST(SocketFilterTest, AttachOnLoopbackDeliversOnlyMatchingDatagramsCut) {
    if (RawSocketsRefused()) GTEST_SKIP() << "skipped: needs root (raw packet sockets)";

    unsigned senderPort = 0, port = 0, otherPort = 0;
    unique_fd sender = BoundUdp(&senderPort);
    unique_fd receiver = BoundUdp(&port);
    unique_fd other = BoundUdp(&otherPort);
    ASSERT_GE(sender.get(), 0);
    ASSERT_GE(receiver.get(), 0);
    ASSERT_GE(other.get(), 0);

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
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<uint16_t>(port));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const char text[] = "XRN1 noise";
        while (!quiet) {
            sendto(sender.get(), text, sizeof(text) - 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
        }
    });
    unique_fd fd(filter.attach());
    quiet = true;
    noise.join();
    ASSERT_GE(fd.get(), 0);

    SendTo(sender.get(), port, "TRN1 hello, first");
    SendTo(sender.get(), port, "XRN1 hello, wrong prefix");
    SendTo(sender.get(), otherPort, "TRN1 hello, wrong port");
    SendTo(sender.get(), port, "TRN1 hello, second");

    const std::vector<std::string> frames = Received(fd.get());
    ASSERT_EQ(frames.size(), 2u);
    const size_t headers = 14 + sizeof(iphdr) + sizeof(udphdr);
    for (const std::string& frame : frames) {
        ASSERT_EQ(frame.size(), headers + extra);
        const auto* udp = reinterpret_cast<const udphdr*>(frame.data() + 14 + sizeof(iphdr));
        EXPECT_EQ(ntohs(udp->dest), port);
        EXPECT_EQ(frame.substr(headers), "TRN");
    }
}

TEST(SocketFilterTest, AttachToAMissingInterfaceFails) {
    if (RawSocketsRefused()) GTEST_SKIP() << "skipped: needs root (raw packet sockets)";
    platform::LogCapture capture;
    SocketFilter filter(nullptr, nullptr, 0, 0, 0, 0, 0, nullptr, 0, 0, "tarnis-none0");
    EXPECT_FALSE(filter.attach().ok());
    EXPECT_TRUE(capture.HasLine("attachSockFilter bind failed", "", 6));
}
