#include "platform/binder/WireDecoder.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace android {

WireDecoder::Result WireDecoder::next(WireMessage* out, std::string* error) {
    // Descriptors come with the first byte of their message, so more of them
    // than one message may carry can only be a peer that floods them.
    if (fds_.size() > WireIo::kMaxFds) {
        *error = "more descriptors than any transaction carries";
        return Result::kError;
    }
    const size_t available = buffer_.size() - consumed_;
    if (available < sizeof(WireHeader)) {
        // Compact lazily: one erase per batch of messages, not per message.
        if (consumed_ > 0) {
            buffer_.erase(0, consumed_);
            consumed_ = 0;
        }
        return Result::kNeedMore;
    }
    WireHeader header;
    memcpy(&header, buffer_.data() + consumed_, sizeof(header));
    if (std::find(magics_.begin(), magics_.end(), header.magic) == magics_.end()) {
        *error = "malformed transaction (bad header)";
        return Result::kError;
    }
    if (header.dataSize > WireIo::kMaxDataSize) {
        *error = "transaction of " + std::to_string(header.dataSize) + " bytes exceeds the limit of " +
                 std::to_string(WireIo::kMaxDataSize) + " bytes";
        return Result::kError;
    }
    if (header.fdCount > WireIo::kMaxFds) {
        *error = "transaction with " + std::to_string(header.fdCount) + " descriptors exceeds the limit";
        return Result::kError;
    }
    const size_t total = sizeof(header) + header.dataSize;
    if (available < total) return Result::kNeedMore;
    if (fds_.size() < header.fdCount) {
        *error = "malformed transaction (descriptors missing)";
        return Result::kError;
    }
    out->magic = header.magic;
    out->codeOrStatus = header.codeOrStatus;
    out->data.assign(buffer_, consumed_ + sizeof(header), header.dataSize);
    out->fds.clear();
    for (uint32_t i = 0; i < header.fdCount; ++i) out->fds.push_back(std::move(fds_[i]));
    fds_.erase(fds_.begin(), fds_.begin() + header.fdCount);
    consumed_ += total;
    if (consumed_ == buffer_.size()) {
        buffer_.clear();
        consumed_ = 0;
        // A large message's buffer is not kept for the life of an idle connection.
        if (buffer_.capacity() > 64 * 1024) std::string().swap(buffer_);
    }
    return Result::kMessage;
}

}  // namespace android
