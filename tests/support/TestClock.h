#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "utils/Clock.h"

namespace tarnis_test {

// A clock that moves only when the test moves it: threads waiting on it wake
// when it is moved, so a day passes on it with no real waiting.
class TestClock : public velmar::kolto::Clock {
public:
    // One hour after boot on 2026-01-01 00:00:00 UTC.
    static constexpr int64_t kStartSteadyMs = 3600 * 1000;
    static constexpr int64_t kStartWallMs = 1767225600000;

    explicit TestClock(int64_t steadyMs = kStartSteadyMs, int64_t wallMs = kStartWallMs)
        : steadyMs_(steadyMs), wallMs_(wallMs) {}
    // Puts back the clock it replaced (when installed), then lets every thread
    // still waiting on it go; they wake as from a spurious wake-up.
    ~TestClock() override {
        if (installed_ && &velmar::kolto::GetClock() == this) velmar::kolto::SetClockForTesting(previous_);
        ChangeAndWake([this] { released_ = true; });
        std::unique_lock<std::mutex> guard(mutex_);
        changed_.wait(guard, [this] { return waiters_.empty(); });
    }
    TestClock(const TestClock&) = delete;
    TestClock& operator=(const TestClock&) = delete;

    // Makes this the process's clock until it is destroyed.
    void Install() {
        previous_ = velmar::kolto::SetClockForTesting(this);
        installed_ = true;
    }

    int64_t SteadyNowMs() override { return steadyMs_; }
    int64_t WallNowMs() override { return wallMs_; }
    // Blocks until the clock has been moved `ms` ahead, or, after
    // SetAdvanceOnSleep(true), moves it by `ms` itself and returns.
    void SleepMs(int64_t ms) override {
        const int64_t deadline = steadyMs_ + ms;
        if (ms <= 0) return;
        if (advanceOnSleep_) return Advance(ms);
        std::mutex mutex;
        std::condition_variable cond;
        std::unique_lock<std::mutex> lock(mutex);
        while (!WaitUntilMs(cond, lock, deadline)) {
        }
    }
    // The entry is made with the look at the time, so a later waker finds it;
    // the waker takes `lock` before it notifies, by when this thread waits.
    bool WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                     int64_t deadlineMs) override {
        Waiter self{&cond, lock.mutex(), 0, 0};
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (released_ || steadyMs_ >= deadlineMs) return true;
            self.generation = generation_;
            waiters_.push_back(&self);
            ++waitsBegun_;
            changed_.notify_all();
        }
        cond.wait(lock);
        // A waker may be about to take `lock` for this entry: let go meanwhile.
        lock.unlock();
        std::unique_lock<std::mutex> guard(mutex_);
        waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &self));
        changed_.wait(guard, [&self] { return self.pins == 0; });
        const bool reached = released_ || steadyMs_ >= deadlineMs;
        changed_.notify_all();
        guard.unlock();
        lock.lock();
        return reached;
    }

    // Moves the steady and the wall clock `ms` ahead and wakes every waiter.
    void Advance(int64_t ms) {
        ChangeAndWake([this, ms] {
            steadyMs_ += ms;
            wallMs_ += ms;
        });
    }
    // The wall clock may jump either way, as a user or the network sets it.
    void SetWallMs(int64_t ms) {
        ChangeAndWake([this, ms] { wallMs_ = ms; });
    }
    void SetAdvanceOnSleep(bool advance) { advanceOnSleep_ = advance; }

    // True once `count` threads wait on this clock having seen its latest time
    // (so what fell due was acted on); false after `timeout` of real time.
    bool WaitForWaiters(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> guard(mutex_);
        return changed_.wait_for(guard, timeout, [this, count] {
            size_t current = 0;
            for (const Waiter* waiter : waiters_) current += waiter->generation == generation_;
            return current >= count;
        });
    }
    // True once `count` waits have begun on this clock since it was made (a
    // taker woken by a new message waits again); false after `timeout`.
    bool WaitForWaitsBegun(uint64_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> guard(mutex_);
        return changed_.wait_for(guard, timeout, [this, count] { return waitsBegun_ >= count; });
    }
    uint64_t WaitsBegun() { return waitsBegun_; }

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
    void ChangeAndWake(Change change) {
        std::vector<Waiter*> woken;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            change();
            ++generation_;
            woken = waiters_;
            for (Waiter* waiter : woken) ++waiter->pins;
        }
        for (Waiter* waiter : woken) {
            // Never under our own mutex: waiters take it while holding theirs.
            { std::lock_guard<std::mutex> theirs(*waiter->mutex); }
            waiter->cond->notify_all();
        }
        std::lock_guard<std::mutex> guard(mutex_);
        for (Waiter* waiter : woken) --waiter->pins;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    // Read without the mutex, changed under it together with the generation.
    std::atomic<int64_t> steadyMs_;
    std::atomic<int64_t> wallMs_;
    uint64_t generation_ = 0;
    std::atomic<uint64_t> waitsBegun_{0};
    std::atomic<bool> advanceOnSleep_{false};
    bool released_ = false;
    std::vector<Waiter*> waiters_;
    bool installed_ = false;
    velmar::kolto::Clock* previous_ = nullptr;
};

}  // namespace tarnis_test
