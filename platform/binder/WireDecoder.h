#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "platform/binder/WireIo.h"

// Cuts the byte stream of one connection into whole messages. Bytes and
// descriptors arrive in any split (a header may come one byte at a time, the
// descriptors of a message ride on its first segment); the decoder keeps what
// does not yet make a message and says at once when the stream cannot be a
// valid one, so that a broken or hostile peer costs a connection, never more.
namespace android {

struct WireMessage {
    uint32_t magic = 0;
    uint32_t codeOrStatus = 0;
    std::string data;
    std::vector<base::unique_fd> fds;
};

class WireDecoder {
public:
    enum class Result { kNeedMore, kMessage, kError };

    // Accepts messages whose magic is one of `magics`.
    explicit WireDecoder(std::vector<uint32_t> magics) : magics_(std::move(magics)) {}

    // Where received bytes and descriptors are appended (WireIo::ReceiveSome).
    std::string* buffer() { return &buffer_; }
    std::vector<base::unique_fd>* fds() { return &fds_; }
    size_t bufferedBytes() const { return buffer_.size(); }
    bool empty() const { return buffer_.empty() && fds_.empty(); }

    // Takes the next whole message out of the buffer. kError leaves a reason
    // in `error`; the stream is then beyond repair.
    Result next(WireMessage* out, std::string* error);

private:
    std::vector<uint32_t> magics_;
    std::string buffer_;
    std::vector<base::unique_fd> fds_;
    size_t consumed_ = 0;  // bytes of buffer_ already handed out
};

}  // namespace android
