#pragma once

#include <string>

#include "platform/binder/ICInterface.h"

// Base of the local side of interface I: implementations derive from BnX,
// which derives from this. The stub helpers unmarshal arguments in order.
namespace ndk {

template <typename I>
class BnCInterface : public I {
public:
    SpAIBinder asBinder() override { return this->localBinder(I::descriptor); }
    bool isRemote() override { return false; }
    std::string getTransactionName(uint32_t code) const override {
        const size_t count = sizeof(I::kTransactionNames) / sizeof(I::kTransactionNames[0]);
        if (code < FIRST_CALL_TRANSACTION || code - FIRST_CALL_TRANSACTION >= count) return "";
        return I::kTransactionNames[code - FIRST_CALL_TRANSACTION];
    }

protected:
    // Reads the arguments in order; false when the parcel does not hold them.
    template <typename... Args>
    static bool readArgs(const android::Parcel& in, Args*... args) {
        android::status_t st = android::OK;
        ((st = st == android::OK ? in.read(args) : st), ...);
        return st == android::OK;
    }
    // Checks the interface token that starts every call.
    static bool enforce(const android::Parcel& in) { return in.enforceInterface(android::String16(I::descriptor)); }
};

}  // namespace ndk
