#include "utils/SocketFilter.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

#include <android-base/unique_fd.h>
#include <log/log.h>

namespace android {
namespace {

constexpr unsigned short kLdW = 0x20;     // A = word at k
constexpr unsigned short kLdH = 0x28;     // A = half-word at k
constexpr unsigned short kLdB = 0x30;     // A = byte at k
constexpr unsigned short kLdWInd = 0x40;  // A = word at X + k
constexpr unsigned short kLdBInd = 0x50;  // A = byte at X + k
constexpr unsigned short kLdHInd = 0x48;  // A = half-word at X + k
constexpr unsigned short kLdxMsh = 0xB1;  // X = 4 * (byte at k & 0xF)
constexpr unsigned short kJeq = 0x15;
constexpr unsigned short kJset = 0x45;
constexpr unsigned short kRsh = 0x74;
constexpr unsigned short kLsh = 0x64;
constexpr unsigned short kAddX = 0x0C;
constexpr unsigned short kAddK = 0x04;
constexpr unsigned short kTax = 0x07;
constexpr unsigned short kTxa = 0x87;
constexpr unsigned short kRetA = 0x16;
constexpr unsigned short kRetK = 0x06;

constexpr unsigned kEthHeaderLen = 14;
constexpr unsigned kProtoIcmp = 1;
constexpr unsigned kProtoTcp = 6;
constexpr unsigned kIcmpHeaderLen = 8;
// More than a socket's default receive buffer holds of small frames.
constexpr int kMaxDrained = 4096;

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "invalid character in bssid %c", c);
    return 0;
}

unsigned bigEndianWord(const unsigned char* p) {
    return (unsigned{p[0]} << 24) | (unsigned{p[1]} << 16) | (unsigned{p[2]} << 8) | p[3];
}

}  // namespace

void parseMacAddress(const char* text, unsigned char* out6) {
    if (text == nullptr || out6 == nullptr) return;
    const std::string mac(text);
    size_t start = 0;
    for (int part = 0; part < 6 && start <= mac.size(); ++part) {
        size_t end = mac.find(':', start);
        if (end == std::string::npos) end = mac.size();
        if (end - start != 2) return;
        out6[part] = static_cast<unsigned char>(hexValue(mac[start]) * 16 + hexValue(mac[start + 1]));
        start = end + 1;
    }
}

SocketFilter::SocketFilter(const char* srcMac, const char* dstMac, unsigned srcAddr,
                           unsigned dstAddr, unsigned protocol, unsigned srcPort, unsigned dstPort,
                           unsigned char* payload, unsigned payloadLen, unsigned extraLen,
                           const char* ifname)
    : ifname_(ifname != nullptr ? ifname : "") {
    // Frames on wlan0 always carry an Ethernet header; elsewhere only a
    // same-host, non-TCP match is expected to come with one.
    unsigned h = 0;
    if (ifname_ == "wlan0" ||
        ((srcAddr == 0 || srcAddr == dstAddr) && protocol != kProtoTcp)) {
        h = kEthHeaderLen;
    }

    if (srcMac != nullptr && srcMac[0] != '\0') {
        unsigned char mac[6] = {};
        parseMacAddress(srcMac, mac);
        addMacTest(mac, 6, 10);
    }
    if (dstMac != nullptr && dstMac[0] != '\0') {
        unsigned char mac[6] = {};
        parseMacAddress(dstMac, mac);
        addMacTest(mac, 0, 4);
    }
    if (srcAddr != 0) {
        add(kLdW, h + 12);
        add(kJeq, srcAddr, 0, kReject);
    }
    if (dstAddr != 0) {
        add(kLdW, h + 16);
        add(kJeq, dstAddr, 0, kReject);
    }
    if (protocol != 0) {
        add(kLdB, h + 9);
        add(kJeq, protocol, 0, kReject);
    }
    // Only the first fragment carries the transport header the tests read.
    add(kLdH, h + 6);
    add(kJset, 0x1FFF, kReject, 0);

    unsigned base = h;
    if (protocol != kProtoIcmp) {
        if (srcPort != 0) {
            add(kLdxMsh, h);
            add(kLdHInd, h);
            add(kJeq, srcPort, 0, kReject);
            add(kLdxMsh, h);
            add(kLdHInd, h + 2);
            add(kJeq, dstPort, 0, kReject);
        }
        // X = IP header length + TCP data offset, so the cut keeps both headers.
        add(kLdxMsh, h);
        add(kLdBInd, h + 12);
        add(kRsh, 4);
        add(kLsh, 2);
        add(kAddX, 0);
        add(kTax, 0);
    } else {
        add(kLdxMsh, h);
        base = h + kIcmpHeaderLen;
    }

    if (payload != nullptr && payloadLen != 0) {
        unsigned i = 0;
        for (; i + 4 <= payloadLen; i += 4) {
            add(kLdWInd, base + i);
            add(kJeq, bigEndianWord(payload + i), 0, kReject);
        }
        for (; i < payloadLen; ++i) {
            add(kLdBInd, base + i);
            add(kJeq, payload[i], 0, kReject);
        }
    }

    add(kTxa, 0);
    add(kAddK, base + extraLen);
    add(kRetA, 0);
    add(kRetK, 0);

    // Every placeholder jump goes to the last instruction, the reject.
    const size_t count = program_.size();
    for (size_t i = 0; i < count; ++i) {
        sock_filter& ins = program_[i];
        if (ins.jt == kReject) ins.jt = static_cast<unsigned char>(count - i - 2);
        if (ins.jf == kReject) ins.jf = static_cast<unsigned char>(count - i - 2);
    }
}

void SocketFilter::add(unsigned short code, unsigned k, unsigned char jt, unsigned char jf) {
    program_.push_back(sock_filter{code, jt, jf, k});
}

void SocketFilter::addMacTest(const unsigned char mac[6], unsigned wordOffset,
                              unsigned halfOffset) {
    add(kLdW, wordOffset);
    add(kJeq, bigEndianWord(mac), 0, kReject);
    add(kLdH, halfOffset);
    add(kJeq, (unsigned{mac[4]} << 8) | mac[5], 0, kReject);
}

android::base::unique_fd SocketFilter::attach() {
    android::base::unique_fd fd(socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP)));
    if (fd.get() < 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "SockFilter create sock failed");
        return {};
    }
    sockaddr_ll addr{};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_IP);
    addr.sll_ifindex = static_cast<int>(if_nametoindex(ifname_.c_str()));
    if (addr.sll_ifindex == 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "attachSockFilter bind failed");
        return {};
    }
    sock_fprog prog{};
    prog.len = static_cast<unsigned short>(program_.size());
    prog.filter = program_.data();
    if (setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof(prog)) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "SockFilter setsockopt failed");
        return {};
    }
    // From socket() to the filter, every IP packet of the interface was
    // queued unfiltered: drop those, so the client sees only what it asked
    // for. Bounded, so that a flood cannot hold the caller here.
    for (int i = 0; i < kMaxDrained; ++i) {
        char byte;
        if (recv(fd.get(), &byte, sizeof(byte), MSG_DONTWAIT | MSG_TRUNC) < 0) break;
    }
    return fd;
}

}  // namespace android
