#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/binder/ICInterface.h"

// The vendor peer daemon's message interface: this process sends its
// cross-process broadcasts through it.
namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

class ITarnisIntl : public ndk::ICInterface {
public:
    static constexpr const char* descriptor = "vendor.velmar.hardware.kolto.common.ITarnisIntl";

    enum : uint32_t {
        TRANSACTION_transferMessage = FIRST_CALL_TRANSACTION + 0,
    };
    // The method of each code, in the same order (the caller policy names them).
    static constexpr const char* kTransactionNames[] = {
        "transferMessage",
    };

    // The implementation itself for a local binder, a proxy for a remote one,
    // null for a binder of another interface.
    static std::shared_ptr<ITarnisIntl> fromBinder(const ndk::SpAIBinder& binder);

    virtual ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) = 0;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
