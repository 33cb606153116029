#pragma once

#include <cstdint>

#include <utils/String8.h>

#include "platform/binder/BinderStatus.h"

// android::binder::Status, the result of a classic interface's method, and
// the status header every reply starts with. On the wire (libbinder's
// layout, which the NDK's status header shares): the exception code; for an
// exception, its message (a UTF-16 string), the size of a remote stack trace
// header (0) and, for a service-specific error, its code. A transport
// failure is no header at all: the transaction itself fails with it.
namespace android {
class Parcel;

namespace binder {

class Status {
public:
    enum Exception {
        EX_NONE = ::EX_NONE,
        EX_SECURITY = ::EX_SECURITY,
        EX_BAD_PARCELABLE = ::EX_BAD_PARCELABLE,
        EX_ILLEGAL_ARGUMENT = ::EX_ILLEGAL_ARGUMENT,
        EX_NULL_POINTER = ::EX_NULL_POINTER,
        EX_ILLEGAL_STATE = ::EX_ILLEGAL_STATE,
        EX_NETWORK_MAIN_THREAD = ::EX_NETWORK_MAIN_THREAD,
        EX_UNSUPPORTED_OPERATION = ::EX_UNSUPPORTED_OPERATION,
        EX_SERVICE_SPECIFIC = ::EX_SERVICE_SPECIFIC,
        EX_PARCELABLE = ::EX_PARCELABLE,
        EX_TRANSACTION_FAILED = ::EX_TRANSACTION_FAILED,
    };

    Status() = default;
    static Status ok() { return Status(); }
    // OK gives ok(); anything else a transaction failure carrying it.
    static Status fromStatusT(status_t status);
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const String8& message);
    static Status fromServiceSpecificError(int32_t errorCode);
    static Status fromServiceSpecificError(int32_t errorCode, const String8& message);

    status_t readFromParcel(const Parcel& parcel);
    status_t writeToParcel(Parcel* parcel) const;

    void setFromStatusT(status_t status);

    int32_t exceptionCode() const { return exception_; }
    const String8& exceptionMessage() const { return message_; }
    status_t transactionError() const { return exception_ == EX_TRANSACTION_FAILED ? errorCode_ : OK; }
    int32_t serviceSpecificErrorCode() const { return exception_ == EX_SERVICE_SPECIFIC ? errorCode_ : 0; }
    bool isOk() const { return exception_ == EX_NONE; }
    // A one-line description for logs, e.g. "Status(-8, EX_SERVICE_SPECIFIC): '-1: text'".
    String8 toString8() const;

private:
    Status(int32_t exception, int32_t errorCode, const String8& message);

    int32_t exception_ = EX_NONE;
    int32_t errorCode_ = 0;  // the service-specific error or the transport's status
    String8 message_;
};

}  // namespace binder
}  // namespace android
