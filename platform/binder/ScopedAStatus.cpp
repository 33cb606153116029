#include "platform/binder/ScopedAStatus.h"

#include <utils/String8.h>

namespace ndk {

using android::String8;
using android::binder::Status;

ScopedAStatus ScopedAStatus::fromStatus(binder_status_t status) { return ScopedAStatus(Status::fromStatusT(status)); }

ScopedAStatus ScopedAStatus::fromExceptionCode(binder_exception_t exception) {
    return ScopedAStatus(Status::fromExceptionCode(exception));
}

ScopedAStatus ScopedAStatus::fromExceptionCodeWithMessage(binder_exception_t exception, const std::string& message) {
    return ScopedAStatus(Status::fromExceptionCode(exception, String8(message.c_str(), message.size())));
}

ScopedAStatus ScopedAStatus::fromServiceSpecificError(int32_t code) {
    return ScopedAStatus(Status::fromServiceSpecificError(code));
}

ScopedAStatus ScopedAStatus::fromServiceSpecificErrorWithMessage(int32_t code, const std::string& message) {
    return ScopedAStatus(Status::fromServiceSpecificError(code, String8(message.c_str(), message.size())));
}

binder_status_t ScopedAStatus::getStatus() const {
    if (status_.isOk()) return STATUS_OK;
    if (status_.exceptionCode() == EX_TRANSACTION_FAILED) return status_.transactionError();
    return STATUS_FAILED_TRANSACTION;
}

}  // namespace ndk
