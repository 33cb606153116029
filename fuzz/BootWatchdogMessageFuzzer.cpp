// Feeds arbitrary bytes, as one datagram from the kernel's boot watchdog, to
// the boot monitor's reading of it: the receive buffer is made up as the
// listener makes it (1040 zeroed bytes, its own length and port id in the
// header, then the datagram over them, cut at the buffer's end), then the
// payload is taken out and read as a boot message. Nothing may crash or read
// past the buffer. A payload is taken only when the header's length leaves 1
// to 1024 bytes of it, and then exactly those bytes, terminated; a boot
// message is read as a time-out exactly when it is one, with its event code;
// and a time-out read from it reads the same when written back.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/BootMonitor/BootFailReport.h"

namespace {

using Report = velmar::tarnis::BootFailReport;

constexpr size_t kHeaderBytes = Report::kMessageBytes - Report::kPayloadBytes;

const char* SkipSpace(const char* p) {
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    return p;
}

// A signed decimal number as a conversion of scanf reads it: blanks, a sign,
// at least one digit.
const char* Number(const char* p) {
    p = SkipSpace(p);
    if (*p == '+' || *p == '-') ++p;
    if (*p < '0' || *p > '9') return nullptr;
    while (*p >= '0' && *p <= '9') ++p;
    return p;
}

// Whether `text` holds a whole time-out: "boot-timeout[", a number, "],",
// any blanks (the pattern's blank), "time[", a number. Written apart from
// the listener's own reading, so that a message it drops is seen.
bool WellFormed(const char* text, long* event) {
    static constexpr char kStart[] = "boot-timeout[";
    if (strncmp(text, kStart, sizeof(kStart) - 1) != 0) return false;
    const char* p = text + sizeof(kStart) - 1;
    const char* end = Number(p);
    if (end == nullptr) return false;
    // strtol gives the same value, overflow included, as the conversion does.
    *event = strtol(p, nullptr, 10);
    if (end[0] != ']' || end[1] != ',') return false;
    p = SkipSpace(end + 2);
    if (strncmp(p, "time[", 5) != 0) return false;
    return Number(p + 5) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();

    std::unique_ptr<char[]> message(new char[Report::kMessageBytes]());
    const uint32_t presetLength = Report::kMessageBytes;
    const uint32_t pid = 4242;
    memcpy(message.get(), &presetLength, sizeof(presetLength));
    memcpy(message.get() + 12, &pid, sizeof(pid));
    memcpy(message.get(), data, std::min(size, Report::kMessageBytes));

    // Exactly the listener's text buffer, filled with a mark so that a copy
    // that should not have happened shows.
    std::unique_ptr<char[]> text(new char[Report::kPayloadBytes + 1]);
    memset(text.get(), '#', Report::kPayloadBytes + 1);
    uint32_t payload = 0;
    const bool taken = Report::ReadPayload(message.get(), text.get(), &payload);

    uint32_t length = 0;
    memcpy(&length, message.get(), sizeof(length));
    if (payload != length - static_cast<uint32_t>(kHeaderBytes)) abort();
    if (taken != (length > kHeaderBytes && length <= Report::kMessageBytes)) abort();
    if (!taken) {
        for (size_t i = 0; i <= Report::kPayloadBytes; ++i) {
            if (text[i] != '#') abort();
        }
        return 0;
    }
    if (text[payload] != '\0' || memcmp(text.get(), message.get() + kHeaderBytes, payload) != 0) abort();

    long event = 0;
    int bootIndex = 0;
    const Report::BootMessage kind = Report::ParseBootMessage(text.get(), &event, &bootIndex);
    if ((kind == Report::BootMessage::kNotBoot) != (strncmp(text.get(), "boot", 4) != 0)) abort();
    long expected = 0;
    if ((kind == Report::BootMessage::kTimeout) != WellFormed(text.get(), &expected)) abort();
    if (kind == Report::BootMessage::kTimeout && event != expected) abort();
    if (kind != Report::BootMessage::kTimeout) return 0;
    if (strncmp(text.get(), "boot-timeout[", 13) != 0) abort();
    char again[64];
    snprintf(again, sizeof(again), "boot-timeout[%ld], time[%d]", event, bootIndex);
    long eventAgain = 0;
    int indexAgain = 0;
    if (Report::ParseBootMessage(again, &eventAgain, &indexAgain) != Report::BootMessage::kTimeout ||
        eventAgain != event || indexAgain != bootIndex) {
        abort();
    }
    return 0;
}
