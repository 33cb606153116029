#pragma once

#include <string>

#include "platform/binder/BinderStatus.h"

// The result of a binder call: OK, a transport failure (a binder_status_t), a
// binder exception, or a service-specific error with a message. One type
// serves both the NDK spelling (ndk::ScopedAStatus) and the classic one
// (android::binder::Status), so the services and clients of either kind share it.
namespace ndk {

class ScopedAStatus {
public:
    ScopedAStatus() = default;

    static ScopedAStatus ok() { return ScopedAStatus(); }
    // STATUS_OK gives OK; anything else a transaction failure carrying it.
    static ScopedAStatus fromStatus(binder_status_t status);
    static ScopedAStatus fromExceptionCode(binder_exception_t exception);
    static ScopedAStatus fromExceptionCodeWithMessage(binder_exception_t exception,
                                                      const std::string& message);
    static ScopedAStatus fromServiceSpecificError(int32_t code);
    static ScopedAStatus fromServiceSpecificErrorWithMessage(int32_t code, const std::string& message);
    // Classic spelling of the service-specific error.
    static ScopedAStatus fromServiceSpecificError(int32_t code, const std::string& message) {
        return fromServiceSpecificErrorWithMessage(code, message);
    }

    bool isOk() const { return exception_ == EX_NONE; }
    binder_exception_t getExceptionCode() const { return exception_; }
    int32_t getServiceSpecificError() const { return exception_ == EX_SERVICE_SPECIFIC ? code_ : 0; }
    // STATUS_OK when ok, the transport status of a failed transaction, and
    // STATUS_FAILED_TRANSACTION for exceptions (as the NDK reports them).
    binder_status_t getStatus() const;
    const std::string& getMessage() const { return message_; }
    // A one-line description for logs, e.g. "Status(-8, EX_SERVICE_SPECIFIC): '-1: text'".
    std::string getDescription() const;

    // Classic names.
    binder_exception_t exceptionCode() const { return getExceptionCode(); }
    int32_t serviceSpecificErrorCode() const { return getServiceSpecificError(); }
    binder_status_t transactionError() const { return exception_ == EX_TRANSACTION_FAILED ? code_ : 0; }
    const std::string& exceptionMessage() const { return message_; }
    std::string toString8() const { return getDescription(); }

    // Raw parts, for the parcel's status header.
    int32_t rawCode() const { return code_; }
    static ScopedAStatus fromParts(binder_exception_t exception, int32_t code, std::string message);

private:
    binder_exception_t exception_ = EX_NONE;
    int32_t code_ = 0;  // service-specific error or transport status
    std::string message_;
};

}  // namespace ndk

namespace android {
namespace binder {
using Status = ::ndk::ScopedAStatus;
}  // namespace binder
}  // namespace android
