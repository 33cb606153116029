#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "platform/binder/BinderStatus.h"

namespace android {
class Parcel;
}

// The byte layout of a transaction on a service socket, and the blocking
// helpers both ends use. Every message is a 16-byte header followed by the
// parcel's bytes; the parcel's descriptors ride on the first segment as
// SCM_RIGHTS. Requests carry the transaction code, replies the transport
// status in the same field.
namespace android {

struct WireHeader {
    uint32_t magic;
    uint32_t codeOrStatus;
    uint32_t dataSize;
    uint32_t fdCount;
};

class WireIo {
public:
    static constexpr uint32_t kRequestMagic = 0x58544254;  // "TBTX"
    static constexpr uint32_t kReplyMagic = 0x50524254;    // "TBRP"
    // Sent instead of a reply by a server that turns a connection away; the
    // data is a sentence for the client's user, the status field its status.
    static constexpr uint32_t kRefuseMagic = 0x46524254;   // "TBRF"
    // Binder's own transaction buffer is 1 MiB; nothing bigger is accepted.
    static constexpr uint32_t kMaxDataSize = 1024 * 1024;
    static constexpr uint32_t kMaxFds = 32;

    // Sends header + parcel (+ descriptors). A socket that is not writable
    // within `timeoutMs` (-1: no limit) fails with DEAD_OBJECT, so a peer
    // that stops reading cannot hold the sender for ever.
    static status_t Send(int sock, uint32_t magic, uint32_t codeOrStatus, const Parcel& parcel,
                         int timeoutMs);
    // Blocks for one whole reply (`timeoutMs` < 0: no limit; TIMED_OUT when
    // it passes). A refusal instead of the reply returns its status and puts
    // its sentence in `refusal`.
    static status_t Receive(int sock, uint32_t* codeOrStatus, Parcel* parcel, int timeoutMs,
                            std::string* refusal);
    // Tells a client why its connection is being closed, without waiting:
    // a peer that does not read simply misses the sentence.
    static void Refuse(int sock, status_t status, const std::string& sentence);

    // Connects a close-on-exec stream socket to `path`; paths too long for
    // sockaddr_un go through the directory's /proc/self/fd entry. A listener
    // whose backlog is full is retried until `timeoutMs` (< 0: no limit).
    static base::unique_fd Connect(const std::string& path, int timeoutMs = -1);
    // Binds a new listening-ready (non-blocking, close-on-exec) socket to `path`.
    static base::unique_fd Bind(const std::string& path);

    // Receives what is available (waiting for something when `block`):
    // bytes are appended to `buffer`, descriptors to `fds`. Returns the byte
    // count, 0 on end of stream, -1 with errno (EAGAIN when nothing was there).
    static ssize_t ReceiveSome(int sock, std::string* buffer, std::vector<base::unique_fd>* fds,
                               bool block = false);
};

}  // namespace android
