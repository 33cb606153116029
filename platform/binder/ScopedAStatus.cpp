#include "platform/binder/ScopedAStatus.h"

#include <utility>

namespace ndk {
namespace {

const char* ExceptionName(binder_exception_t ex) {
    switch (ex) {
        case EX_NONE: return "EX_NONE";
        case EX_SECURITY: return "EX_SECURITY";
        case EX_BAD_PARCELABLE: return "EX_BAD_PARCELABLE";
        case EX_ILLEGAL_ARGUMENT: return "EX_ILLEGAL_ARGUMENT";
        case EX_NULL_POINTER: return "EX_NULL_POINTER";
        case EX_ILLEGAL_STATE: return "EX_ILLEGAL_STATE";
        case EX_NETWORK_MAIN_THREAD: return "EX_NETWORK_MAIN_THREAD";
        case EX_UNSUPPORTED_OPERATION: return "EX_UNSUPPORTED_OPERATION";
        case EX_SERVICE_SPECIFIC: return "EX_SERVICE_SPECIFIC";
        case EX_PARCELABLE: return "EX_PARCELABLE";
        case EX_TRANSACTION_FAILED: return "EX_TRANSACTION_FAILED";
        default: return "EX_UNKNOWN";
    }
}

}  // namespace

ScopedAStatus ScopedAStatus::fromStatus(binder_status_t status) {
    if (status == STATUS_OK) return ok();
    return fromParts(EX_TRANSACTION_FAILED, status, "");
}

ScopedAStatus ScopedAStatus::fromExceptionCode(binder_exception_t exception) {
    return fromParts(exception, 0, "");
}

ScopedAStatus ScopedAStatus::fromExceptionCodeWithMessage(binder_exception_t exception,
                                                          const std::string& message) {
    return fromParts(exception, 0, message);
}

ScopedAStatus ScopedAStatus::fromServiceSpecificError(int32_t code) {
    return fromParts(EX_SERVICE_SPECIFIC, code, "");
}

ScopedAStatus ScopedAStatus::fromServiceSpecificErrorWithMessage(int32_t code,
                                                                 const std::string& message) {
    return fromParts(EX_SERVICE_SPECIFIC, code, message);
}

ScopedAStatus ScopedAStatus::fromParts(binder_exception_t exception, int32_t code, std::string message) {
    ScopedAStatus s;
    s.exception_ = exception;
    s.code_ = exception == EX_NONE ? 0 : code;
    s.message_ = exception == EX_NONE ? std::string() : std::move(message);
    return s;
}

binder_status_t ScopedAStatus::getStatus() const {
    if (exception_ == EX_NONE) return STATUS_OK;
    if (exception_ == EX_TRANSACTION_FAILED) return code_;
    return STATUS_FAILED_TRANSACTION;
}

std::string ScopedAStatus::getDescription() const {
    if (exception_ == EX_NONE) return "No error";
    std::string out = "Status(" + std::to_string(exception_) + ", " + ExceptionName(exception_) + "): ";
    if (exception_ == EX_TRANSACTION_FAILED) {
        out += "'" + std::to_string(code_) + "'";
    } else if (exception_ == EX_SERVICE_SPECIFIC) {
        out += "'" + std::to_string(code_) + ": " + message_ + "'";
    } else {
        out += "'" + message_ + "'";
    }
    return out;
}

}  // namespace ndk
