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

    static constexpr int64_t kDayMs = 86400000;
    // From `wallMs` (milliseconds since the epoch) to the next local midnight,
    // in the zone in force now: at most a day, and a whole day when the
    // conversion fails or the clock reads oddly, so a daily schedule neither
    // stalls nor runs back to back.
    static int64_t DelayToNextMidnightMs(int64_t wallMs);
};

}  // namespace kolto
}  // namespace velmar
