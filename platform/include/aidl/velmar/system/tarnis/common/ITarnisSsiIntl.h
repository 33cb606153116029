#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/binder/ICInterface.h"

// The internal message interface: the vendor peer daemon sends broadcast
// intents into this process through it.
namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

class ITarnisSsiIntl : public ndk::ICInterface {
public:
    static constexpr const char* descriptor = "velmar.system.tarnis.common.ITarnisSsiIntl";

    enum : uint32_t {
        TRANSACTION_transferMessage = FIRST_CALL_TRANSACTION + 0,
    };
    // The method of each code, in the same order (the caller policy names them).
    static constexpr const char* kTransactionNames[] = {
        "transferMessage",
    };

    // The implementation itself for a local binder, a proxy for a remote one,
    // null for a binder of another interface.
    static std::shared_ptr<ITarnisSsiIntl> fromBinder(const ndk::SpAIBinder& binder);

    virtual ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) = 0;
};

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
