#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include <android-base/unique_fd.h>

#include "utils/StopSignal.h"

namespace velmar {
namespace tarnis {

// Turns a boot failure that the boot loaders or the kernel's boot-stage
// watchdog left in the black box into evidence (the failed boot's logs in the
// unhealthy-boot directory), one diagnostics event and one record line, and
// marks it reported so that it is reported once. Also listens on the
// watchdog's netlink protocol for boot-stage time-outs.
//
// The module object that holds this is made during static initialisation,
// before the daemon knows its root, so the paths are chosen by Load() when the
// module loads, not by the constructor.
class BootFailReport {
public:
    // Payload of a netlink message, and the whole message with its header.
    static constexpr size_t kPayloadBytes = 1024;
    static constexpr size_t kMessageBytes = 16 + kPayloadBytes;

    BootFailReport();

    // Chooses the paths below the root from "ro.build.ab_update".
    void Load();

    void check_ablxbl_fail_report();

    // The listener: sets the socket up, says hello to the kernel and serves
    // it until `stop`. 0 when stopped or closed, -1 when the socket cannot
    // be set up.
    int NetlinkInit(kolto::StopSignal& stop);
    // The listener's receive loop over a socket already set up; `stop` ends
    // its wait for the next message.
    int ReceiveLoop(android::base::unique_fd fd, kolto::StopSignal& stop);
    // The same, ended by Stop().
    int ReceiveLoop(android::base::unique_fd fd) { return ReceiveLoop(std::move(fd), ownStop_); }

    // The text payload of one received message, `message` being the whole
    // kMessageBytes receive buffer, header first, copied into `text`
    // (kPayloadBytes + 1 bytes) and terminated. `payloadLength` gets the
    // header's length less the header's own 16 bytes; false, with nothing
    // copied, when that leaves no payload of 1 to kPayloadBytes bytes.
    static bool ReadPayload(const char* message, char* text, uint32_t* payloadLength);
    // What a payload's text says: not a boot message (it does not begin
    // with "boot"), a boot message that is not "boot-timeout[%ld], time[%d]",
    // or a boot-stage time-out with its event code and boot index.
    enum class BootMessage { kNotBoot, kMalformed, kTimeout };
    static BootMessage ParseBootMessage(const char* text, long* event, int* bootIndex);

    // The host's kernel has no boot watchdog: a test hands the next
    // listener a socket set up already, its peer playing the kernel.
    static void SetListenerSocketForTesting(int fd);

    // Ends a ReceiveLoop(fd) that was not given a stop signal.
    void Stop() { ownStop_.Request(); }

    std::unordered_map<uint32_t, std::string> abl_xbl_event_map;
    // Device paths, for the rescue partition or the cache by the build.
    std::string kmsgPath;
    std::string pmsgPath;
    std::string uefiPath;
    std::string recordPath;

private:
    void HandleMessage(const char* text);
    bool ExtractLog(uint64_t offset, size_t bufferBytes, size_t readBytes, const std::string& path,
                    const char* mallocError, const char* readError, const char* openError);
    void Report(int64_t code, const std::string& summary, int32_t bootIndex);

    kolto::StopSignal ownStop_;
};

}  // namespace tarnis
}  // namespace velmar
