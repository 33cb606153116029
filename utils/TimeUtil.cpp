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

}  // namespace kolto
}  // namespace velmar
