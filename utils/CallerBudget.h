#pragma once

#include <sys/types.h>

#include <cstdint>
#include <mutex>

namespace velmar {
namespace kolto {

// Work that a dump starts (a report, an analytics event) can be asked for by
// any local process, as often as it likes. Root, the system uid and the
// daemon's own are the platform's own callers and are never held back; every
// other uid together gets one run per interval, on the injectable clock.
class CallerBudget {
public:
    explicit CallerBudget(int64_t intervalMs) : intervalMs_(intervalMs) {}

    // Root, the system uid or this process's own uid.
    static bool IsPrivileged(uid_t uid);
    // True when `uid` may start the work now (and, for an ordinary uid, the
    // interval starts again).
    bool Allow(uid_t uid);

private:
    const int64_t intervalMs_;
    std::mutex lock_;
    bool ran_ = false;
    int64_t lastMs_ = 0;
};

}  // namespace kolto
}  // namespace velmar
