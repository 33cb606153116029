#include "platform/binder/Status.h"

#include <string>

#include <utils/String16.h>

#include "platform/binder/Parcel.h"

namespace android {
namespace binder {
namespace {

const char* ExceptionName(int32_t exception) {
    switch (exception) {
        case Status::EX_NONE: return "EX_NONE";
        case Status::EX_SECURITY: return "EX_SECURITY";
        case Status::EX_BAD_PARCELABLE: return "EX_BAD_PARCELABLE";
        case Status::EX_ILLEGAL_ARGUMENT: return "EX_ILLEGAL_ARGUMENT";
        case Status::EX_NULL_POINTER: return "EX_NULL_POINTER";
        case Status::EX_ILLEGAL_STATE: return "EX_ILLEGAL_STATE";
        case Status::EX_NETWORK_MAIN_THREAD: return "EX_NETWORK_MAIN_THREAD";
        case Status::EX_UNSUPPORTED_OPERATION: return "EX_UNSUPPORTED_OPERATION";
        case Status::EX_SERVICE_SPECIFIC: return "EX_SERVICE_SPECIFIC";
        case Status::EX_PARCELABLE: return "EX_PARCELABLE";
        case Status::EX_TRANSACTION_FAILED: return "EX_TRANSACTION_FAILED";
        default: return "EX_UNKNOWN";
    }
}

}  // namespace

Status::Status(int32_t exception, int32_t errorCode, const String8& message)
    : exception_(exception), errorCode_(errorCode), message_(message) {}

Status Status::fromStatusT(status_t status) {
    Status s;
    s.setFromStatusT(status);
    return s;
}

Status Status::fromExceptionCode(int32_t exceptionCode) { return Status(exceptionCode, OK, String8()); }

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    return Status(exceptionCode, OK, message);
}

Status Status::fromServiceSpecificError(int32_t errorCode) {
    return Status(EX_SERVICE_SPECIFIC, errorCode, String8());
}

Status Status::fromServiceSpecificError(int32_t errorCode, const String8& message) {
    return Status(EX_SERVICE_SPECIFIC, errorCode, message);
}

void Status::setFromStatusT(status_t status) {
    exception_ = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
    errorCode_ = status;
    message_ = String8();
}

status_t Status::writeToParcel(Parcel* parcel) const {
    if (exception_ == EX_TRANSACTION_FAILED) return errorCode_;
    status_t st = parcel->writeInt32(exception_);
    if (st != OK || exception_ == EX_NONE) return st;
    st = parcel->writeString16(String16(message_));
    if (st == OK) st = parcel->writeInt32(0);
    if (st == OK && exception_ == EX_SERVICE_SPECIFIC) st = parcel->writeInt32(errorCode_);
    return st;
}

status_t Status::readFromParcel(const Parcel& parcel) {
    int32_t exception, traceSize = 0, errorCode = OK;
    String16 message;
    status_t st = parcel.readInt32(&exception);
    if (st == OK && exception == EX_NONE) {
        *this = ok();
        return OK;
    }
    if (st == OK) st = parcel.readString16(&message);
    if (st == OK) st = parcel.readInt32(&traceSize);
    // The remote stack trace, which this side never writes, is read past.
    if (st == OK && (traceSize < 0 || static_cast<size_t>(traceSize) > parcel.dataAvail())) st = BAD_VALUE;
    if (st == OK) parcel.setDataPosition(parcel.dataPosition() + traceSize);
    if (st == OK && exception == EX_SERVICE_SPECIFIC) st = parcel.readInt32(&errorCode);
    if (st != OK) {
        setFromStatusT(st);
        return st;
    }
    *this = Status(exception, errorCode, String8(message));
    return OK;
}

String8 Status::toString8() const {
    if (exception_ == EX_NONE) return String8("No error");
    std::string out = "Status(" + std::to_string(exception_) + ", " + ExceptionName(exception_) + "): ";
    if (exception_ == EX_TRANSACTION_FAILED) {
        out += "'" + std::to_string(errorCode_) + "'";
    } else if (exception_ == EX_SERVICE_SPECIFIC) {
        out += "'" + std::to_string(errorCode_) + ": " + message_.string() + "'";
    } else {
        out += std::string("'") + message_.string() + "'";
    }
    return String8(out.c_str());
}

}  // namespace binder
}  // namespace android
