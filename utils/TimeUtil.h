#pragma once

#include <time.h>

#include <cstdint>

namespace velmar {
namespace kolto {

// Wall-clock readings for time stamps in file names and events.
class TimeUtil {
public:
    // Milliseconds since the epoch (microsecond reading divided by 1000).
    static int64_t getCurrentTimeMs();
    // Microseconds since the epoch.
    static int64_t getCurrentTimeUS();
    // The timespec of a duration in milliseconds.
    static struct timespec ms2ts(long ms);
};

}  // namespace kolto
}  // namespace velmar
