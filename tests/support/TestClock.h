#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "utils/Clock.h"

namespace tarnis_test {

// A clock that moves only when the test moves it. Threads that wait on it (the
// message loop's timed waits, SleepMs) are woken by Advance() and the setters,
// so a delayed message due in 24 hours is dispatched as soon as the test
// advances the clock by 24 hours, with no real waiting.
//
//     TestClock clock;
//     clock.Install();
//     handler.postDelayed(task, 24 * 3600 * 1000);
//     clock.Advance(24 * 3600 * 1000);
class TestClock : public velmar::kolto::Clock {
public:
    // One hour after boot on 2026-01-01 00:00:00 UTC.
    static constexpr int64_t kStartSteadyMs = 3600 * 1000;
    static constexpr int64_t kStartWallMs = 1767225600000;

    explicit TestClock(int64_t steadyMs = kStartSteadyMs, int64_t wallMs = kStartWallMs);
    // Puts back the clock it replaced (when installed), then lets every thread
    // still waiting on it go; they wake as from a spurious wake-up.
    ~TestClock() override;
    TestClock(const TestClock&) = delete;
    TestClock& operator=(const TestClock&) = delete;

    // Makes this the process's clock until it is destroyed.
    void Install();

    int64_t SteadyNowMs() override;
    int64_t WallNowMs() override;
    int64_t WallNowUs() override;
    // Blocks until the clock has been moved `ms` ahead, or, after
    // SetAdvanceOnSleep(true), moves it by `ms` itself and returns.
    void SleepMs(int64_t ms) override;
    bool WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                     int64_t deadlineMs) override;

    // Moves the steady and the wall clock `ms` ahead and wakes every waiter.
    void Advance(int64_t ms);
    // Steady time never goes back: false (and no change) when `ms` is earlier.
    bool SetSteadyMs(int64_t ms);
    // The wall clock may jump either way, as a user or the network sets it.
    void SetWallMs(int64_t ms);
    void SetAdvanceOnSleep(bool advance);

    // True once at least `count` threads are waiting on this clock having seen
    // its latest time (so everything that fell due has been acted on); false
    // after `timeout` of real time.
    bool WaitForWaiters(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // True once `count` waits have begun on this clock since it was made (a
    // taker woken by a new message waits again); false after `timeout`.
    bool WaitForWaitsBegun(uint64_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Threads waiting on the clock now, and waits begun since it was made.
    size_t Waiters();
    uint64_t WaitsBegun();

private:
    struct Waiter {
        std::condition_variable* cond;
        std::mutex* mutex;
        uint64_t generation;
        // Wakers that still hold this entry; the waiter leaves once it is 0.
        int pins;
    };
    // Bumps the generation after `change`, then wakes every waiter.
    template <class Change>
    void ChangeAndWake(Change change);

    std::mutex mutex_;
    std::condition_variable changed_;
    int64_t steadyMs_;
    int64_t wallMs_;
    uint64_t generation_ = 0;
    uint64_t waitsBegun_ = 0;
    bool advanceOnSleep_ = false;
    bool released_ = false;
    std::vector<Waiter*> waiters_;
    bool installed_ = false;
    velmar::kolto::Clock* previous_ = nullptr;
};

}  // namespace tarnis_test
