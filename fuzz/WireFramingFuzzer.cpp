// Plays an arbitrary connection into the decoder that frames what a client
// sends: bytes in any split, descriptors arriving anywhere, headers with any
// lengths and counts. Every message it hands out must be exactly what its
// header promised, and it must stop at the first thing that cannot be valid.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/binder/WireDecoder.h"

namespace {

// The input is a program: each control byte says how many of the following
// bytes arrive next (1 to 64), whether a descriptor arrives with them, and
// whether the receiver then takes out what is complete.
void Play(const uint8_t* data, size_t size) {
    android::WireDecoder decoder({android::WireIo::kRequestMagic});
    size_t pos = 0;
    size_t received = 0;
    size_t handedOut = 0;
    while (pos < size) {
        const uint8_t control = data[pos++];
        const size_t length = std::min<size_t>((control & 0x3f) + 1, size - pos);
        decoder.buffer()->append(reinterpret_cast<const char*>(data + pos), length);
        pos += length;
        received += length;
        if (control & 0x40) decoder.fds()->emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!(control & 0x80)) continue;
        for (;;) {
            android::WireMessage message;
            std::string error;
            android::WireDecoder::Result result = decoder.next(&message, &error);
            if (result == android::WireDecoder::Result::kError) {
                if (error.empty()) abort();
                return;
            }
            if (result == android::WireDecoder::Result::kNeedMore) break;
            if (message.magic != android::WireIo::kRequestMagic) abort();
            if (message.data.size() > android::WireIo::kMaxDataSize) abort();
            if (message.fds.size() > android::WireIo::kMaxFds) abort();
            for (const auto& fd : message.fds) {
                if (!fd.ok()) abort();
            }
            handedOut += sizeof(android::WireHeader) + message.data.size();
            if (handedOut > received) abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Play(data, size);
    return 0;
}
