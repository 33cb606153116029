#include "utils/TimeUtil.h"

#include <sys/time.h>

namespace velmar {
namespace kolto {

int64_t TimeUtil::getCurrentTimeUS() {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

int64_t TimeUtil::getCurrentTimeMs() { return getCurrentTimeUS() / 1000; }

struct timespec TimeUtil::ms2ts(long ms) {
    struct timespec ts {};
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (ms % 1000) * 1000000;
    return ts;
}

int64_t TimeUtil::DelayToNextMidnightMs(int64_t wallMs) {
    // The zone may have changed since the last run (travel, a settings change).
    tzset();
    const time_t now = static_cast<time_t>(wallMs / 1000);
    struct tm local {};
    if (localtime_r(&now, &local) == nullptr) return kDayMs;
    local.tm_hour = 24;
    local.tm_min = 0;
    local.tm_sec = 0;
    local.tm_isdst = -1;
    const time_t midnight = mktime(&local);
    const int64_t delay = static_cast<int64_t>(midnight) * 1000 - wallMs;
    if (midnight == static_cast<time_t>(-1) || delay <= 0 || delay > kDayMs) return kDayMs;
    return delay;
}

}  // namespace kolto
}  // namespace velmar
