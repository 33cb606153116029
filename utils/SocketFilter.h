#pragma once

#include <linux/filter.h>

#include <string>
#include <vector>

#include <android-base/unique_fd.h>

namespace android {

// Parses "aa:bb:cc:dd:ee:ff" into six bytes. Parsing stops at the first part
// that is not exactly two characters; a character that is not a hex digit is
// logged and counts as 0, so a slightly wrong address still filters.
void parseMacAddress(const char* text, unsigned char* out6);

// A raw packet socket on one interface with a classic BPF program that lets
// through only the IPv4 frames a diagnostics client asked for, each cut to its
// headers plus `extraLen` payload bytes. Addresses, protocol and ports are the
// numbers the filter loads from the packet (10.0.0.1 is 0x0A000001).
class SocketFilter {
public:
    SocketFilter(const char* srcMac, const char* dstMac, unsigned srcAddr, unsigned dstAddr,
                 unsigned protocol, unsigned srcPort, unsigned dstPort, unsigned char* payload,
                 unsigned payloadLen, unsigned extraLen, const char* ifname);

    // Opens the socket, binds it to the interface and attaches the program;
    // not ok() when any step failed. The caller passes it on to the client.
    android::base::unique_fd attach();

    const std::vector<sock_filter>& program() const { return program_; }

private:
    // Jump offset that stands for "to the final reject instruction" until the
    // program is complete.
    static constexpr unsigned char kReject = 255;

    void add(unsigned short code, unsigned k, unsigned char jt = 0, unsigned char jf = 0);
    void addMacTest(const unsigned char mac[6], unsigned wordOffset, unsigned halfOffset);

    std::string ifname_;
    std::vector<sock_filter> program_;
};

}  // namespace android
