#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

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
    // Wall-clock microseconds since the epoch (timings that are logged).
    virtual int64_t WallNowUs() { return WallNowMs() * 1000; }
    // Sleeps for the given time on this clock.
    virtual void SleepMs(int64_t ms) = 0;
    // Waits on `cond` (with `lock` held, as condition_variable::wait does)
    // until it is notified or this clock's steady time reaches `deadlineMs`.
    // Returns true when the deadline has passed. It may also return early,
    // so callers look at their state again, as after any condition wait.
    // Timed waits of the message loop go through here, so that a test clock
    // wakes them when it is advanced. The default waits on the real monotonic
    // clock for the time that is left on this one.
    virtual bool WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                             int64_t deadlineMs);
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
    int64_t WallNowUs() override;
    void SleepMs(int64_t ms) override;
    // An absolute wait on CLOCK_MONOTONIC: no conversion, no drift.
    bool WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                     int64_t deadlineMs) override;
};

}  // namespace kolto
}  // namespace velmar
