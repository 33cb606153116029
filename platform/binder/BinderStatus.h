#pragma once

#include <errno.h>
#include <stdint.h>

// Status and exception codes with the values the platform's binder libraries
// use, so that callers compare against the names they know (STATUS_OK,
// STATUS_UNKNOWN_ERROR, android::OK, EX_SERVICE_SPECIFIC).

typedef int32_t binder_status_t;
typedef int32_t binder_exception_t;

enum {
    STATUS_OK = 0,
    STATUS_UNKNOWN_ERROR = INT32_MIN,
    STATUS_NO_MEMORY = -ENOMEM,
    STATUS_INVALID_OPERATION = -ENOSYS,
    STATUS_BAD_VALUE = -EINVAL,
    STATUS_BAD_TYPE = INT32_MIN + 1,
    STATUS_NAME_NOT_FOUND = -ENOENT,
    STATUS_PERMISSION_DENIED = -EPERM,
    STATUS_NO_INIT = -ENODEV,
    STATUS_ALREADY_EXISTS = -EEXIST,
    STATUS_DEAD_OBJECT = -EPIPE,
    STATUS_FAILED_TRANSACTION = INT32_MIN + 2,
    STATUS_BAD_INDEX = -EOVERFLOW,
    STATUS_NOT_ENOUGH_DATA = -ENODATA,
    STATUS_UNKNOWN_TRANSACTION = -EBADMSG,
    STATUS_FDS_NOT_ALLOWED = INT32_MIN + 7,
    STATUS_UNEXPECTED_NULL = INT32_MIN + 8,
};

enum {
    EX_NONE = 0,
    EX_SECURITY = -1,
    EX_BAD_PARCELABLE = -2,
    EX_ILLEGAL_ARGUMENT = -3,
    EX_NULL_POINTER = -4,
    EX_ILLEGAL_STATE = -5,
    EX_NETWORK_MAIN_THREAD = -6,
    EX_UNSUPPORTED_OPERATION = -7,
    EX_SERVICE_SPECIFIC = -8,
    EX_PARCELABLE = -9,
    EX_TRANSACTION_FAILED = -129,
};

// Transaction codes: interface methods count from FIRST_CALL_TRANSACTION in
// declaration order; the dump command has the platform's reserved code.
enum : uint32_t {
    FIRST_CALL_TRANSACTION = 0x00000001,
    LAST_CALL_TRANSACTION = 0x00ffffff,
    DUMP_TRANSACTION = ('_' << 24) | ('D' << 16) | ('M' << 8) | 'P',
    INTERFACE_TRANSACTION = ('_' << 24) | ('N' << 16) | ('T' << 8) | 'F',
};

// android::status_t and its codes (OK, BAD_VALUE, ...) are libutils's.
#include <utils/Errors.h>
