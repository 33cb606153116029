#pragma once

#include <functional>
#include <string>

#include "platform/binder/BinderStatus.h"

// Delivers a service's dump to a caller's descriptor under a deadline, as
// dumpsys allows a service ten seconds. The dump is written into memory
// first, so that the service's own code never blocks on the caller; the text
// then goes to the caller's descriptor without ever blocking for longer than
// what is left of the deadline. A reader that is gone (EPIPE, with SIGPIPE
// held off) or that does not drain in time ends the relay with an error line,
// and the binder thread is free again.
namespace android {

class DumpRelay {
public:
    // Runs `dump` on a descriptor of its own, then relays what it wrote to
    // `callerFd`. Returns the dump's status, or DEAD_OBJECT when the reader
    // went away, TIMED_OUT when the deadline passed. `who` names the service
    // and caller in log lines.
    static status_t Run(int callerFd, int timeoutMs, const std::string& who,
                        const std::function<status_t(int fd)>& dump);
};

}  // namespace android
