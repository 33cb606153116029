#pragma once

#include <utility>
#include <vector>

#include <host/Utf8.h>

#include "platform/binder/ICInterface.h"

// Base of the proxy of interface I: marshals the arguments, runs the
// transaction on the remote binder and returns the status the service sent
// (or the transport's failure). Methods with out-parameters pass a reply
// parcel and read them after the status header.
namespace ndk {

template <typename I>
class BpCInterface : public I {
public:
    explicit BpCInterface(SpAIBinder remote) : remote_(std::move(remote)) {}
    SpAIBinder asBinder() override { return remote_; }
    bool isRemote() override { return true; }

    binder_status_t dump(int fd, const char** args, uint32_t numArgs) override {
        android::Parcel in;
        in.writeFileDescriptor(fd);
        std::vector<android::String16> args16;
        for (uint32_t i = 0; i < numArgs; ++i) args16.push_back(platform::ToUtf16(args[i]));
        in.writeString16Vector(args16);
        android::Parcel reply;
        return remote_->transact(DUMP_TRANSACTION, in, &reply);
    }

protected:
    template <typename... Args>
    ScopedAStatus transactCall(uint32_t code, android::Parcel* reply, const Args&... args) {
        android::Parcel in;
        android::status_t st = in.writeInterfaceToken(android::String16(I::descriptor));
        ((st = st == android::OK ? in.write(args) : st), ...);
        if (st != android::OK) return ScopedAStatus::fromStatus(st);
        android::Parcel localReply;
        android::Parcel* out = reply != nullptr ? reply : &localReply;
        st = remote_->transact(code, in, out);
        if (st != android::OK) return ScopedAStatus::fromStatus(st);
        ScopedAStatus status;
        if (out->readStatus(&status) != android::OK) return ScopedAStatus::fromStatus(STATUS_BAD_VALUE);
        return status;
    }

    SpAIBinder remote_;
};

}  // namespace ndk
