#pragma once

#include <cstdint>

// Clocks and long sleeps. Production reads the real clocks; tests install a
// clock of their own so that waits of minutes (the boot monitor's twenty
// minutes, daily schedules) pass in milliseconds.
namespace velmar {
namespace kolto {

class Clock {
public:
    virtual ~Clock() = default;
    // Monotonic milliseconds.
    virtual int64_t SteadyNowMs() = 0;
    // Wall-clock milliseconds since the epoch.
    virtual int64_t WallNowMs() = 0;
    // Sleeps for the given time on this clock.
    virtual void SleepMs(int64_t ms) = 0;
};

// The clock in use by the process.
Clock& GetClock();
// Replaces the process's clock (null restores the real one) and returns the
// previous one. The caller keeps ownership and keeps it alive while installed.
Clock* SetClockForTesting(Clock* clock);

// The real clocks.
class SystemClock : public Clock {
public:
    int64_t SteadyNowMs() override;
    int64_t WallNowMs() override;
    void SleepMs(int64_t ms) override;
};

}  // namespace kolto
}  // namespace velmar
