#include <cstdio>
#include <string>

#include <binder/Parcel.h>
#include <host/Host.h>

#include "tools/tarnisctl/CtlCommand.h"

namespace tarnisctl {

// The transport's own account when the call never completed, else what the
// daemon's status means.
std::string Explain(binder_status_t status) {
    const std::string& transport = platform::host::LastBinderError();
    if (!transport.empty()) return transport;
    switch (status) {
        case android::TIMED_OUT:
            return "the daemon gave up: the output was not read in time";
        case android::DEAD_OBJECT:
            return "the daemon could not finish: the output was closed before it was written";
        case android::FAILED_TRANSACTION:
            return "the daemon refused the call";
        case android::UNKNOWN_TRANSACTION:
            return "the daemon does not know this call (is it an older version?)";
        case android::BAD_TYPE:
            return "the service there is not the interface this call is for";
        case android::BAD_VALUE:
            return "the daemon found the call's arguments malformed";
        case android::PERMISSION_DENIED:
            return "the daemon does not allow this caller";
        case android::NO_MEMORY:
            return "the daemon ran out of memory";
        case android::UNKNOWN_ERROR:
            return "the daemon could not complete the call";
        default:
            return "the call failed with status " + std::to_string(status);
    }
}

std::string Describe(const char* what, const ndk::ScopedAStatus& status) {
    if (status.isOk()) return "";
    if (status.getExceptionCode() == EX_TRANSACTION_FAILED) return std::string(what) + ": " + Explain(status.getStatus());
    if ((status.getExceptionCode() == EX_SERVICE_SPECIFIC || status.getExceptionCode() == EX_SECURITY) &&
        !status.getMessage().empty()) {
        // The daemon's refusal says which check and why (or which caller may
        // not call what); it is the whole answer.
        return status.getMessage();
    }
    return std::string(what) + ": " + status.getDescription();
}

int Report(const char* what, const ndk::ScopedAStatus& status) {
    if (status.isOk()) return 0;
    fprintf(stderr, "%s\n", Describe(what, status).c_str());
    return 1;
}

}  // namespace tarnisctl
