#pragma once

#include <string>
#include <utility>

#include "platform/binder/BinderStatus.h"
#include "platform/binder/Status.h"

// The NDK's result of a binder call: OK, a transport failure (a
// binder_status_t), a binder exception, or a service-specific error with a
// message. As the NDK's AStatus does, it wraps the classic status, so both
// backends put the same status header on the wire.
namespace ndk {

class ScopedAStatus {
public:
    ScopedAStatus() = default;
    explicit ScopedAStatus(android::binder::Status status) : status_(std::move(status)) {}

    static ScopedAStatus ok() { return ScopedAStatus(); }
    // STATUS_OK gives OK; anything else a transaction failure carrying it.
    static ScopedAStatus fromStatus(binder_status_t status);
    static ScopedAStatus fromExceptionCode(binder_exception_t exception);
    static ScopedAStatus fromExceptionCodeWithMessage(binder_exception_t exception, const std::string& message);
    static ScopedAStatus fromServiceSpecificError(int32_t code);
    static ScopedAStatus fromServiceSpecificErrorWithMessage(int32_t code, const std::string& message);

    bool isOk() const { return status_.isOk(); }
    binder_exception_t getExceptionCode() const { return status_.exceptionCode(); }
    int32_t getServiceSpecificError() const { return status_.serviceSpecificErrorCode(); }
    // STATUS_OK when ok, the transport status of a failed transaction, and
    // STATUS_FAILED_TRANSACTION for exceptions (as the NDK reports them).
    binder_status_t getStatus() const;
    std::string getMessage() const {
        return std::string(status_.exceptionMessage().string(), status_.exceptionMessage().size());
    }
    // A one-line description for logs, e.g. "Status(-8, EX_SERVICE_SPECIFIC): '-1: text'".
    std::string getDescription() const { return status_.toString8().string(); }
    const android::binder::Status& status() const { return status_; }

private:
    android::binder::Status status_;
};

}  // namespace ndk
