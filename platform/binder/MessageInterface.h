#pragma once

#include <string>

#include "platform/binder/BnCInterface.h"
#include "platform/binder/BpCInterface.h"

// The system's ITarnisSsiIntl and the vendor peer's ITarnisIntl carry the
// same single call, transferMessage(action, json), so their stub and proxy
// are written once here for any interface I of that shape.
namespace ndk {

template <typename I>
class BnMessageInterface : public BnCInterface<I> {
public:
    android::status_t onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) override {
        if (!this->enforce(in)) return STATUS_BAD_TYPE;
        if (code != I::TRANSACTION_transferMessage) return STATUS_UNKNOWN_TRANSACTION;
        std::string action, json;
        if (!this->readArgs(in, &action, &json)) return STATUS_BAD_VALUE;
        return out->writeStatus(this->transferMessage(action, json));
    }
};

template <typename I>
class BpMessageInterface : public BpCInterface<I> {
public:
    explicit BpMessageInterface(const SpAIBinder& binder) : BpCInterface<I>(binder) {}
    ScopedAStatus transferMessage(const std::string& action, const std::string& json) override {
        return this->transactCall(I::TRANSACTION_transferMessage, nullptr, action, json);
    }
};

}  // namespace ndk
