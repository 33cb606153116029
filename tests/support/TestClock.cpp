#include "tests/support/TestClock.h"

#include <algorithm>

namespace tarnis_test {

TestClock::TestClock(int64_t steadyMs, int64_t wallMs) : steadyMs_(steadyMs), wallMs_(wallMs) {}

TestClock::~TestClock() {
    if (installed_ && &velmar::kolto::GetClock() == this) velmar::kolto::SetClockForTesting(previous_);
    ChangeAndWake([this] { released_ = true; });
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait(guard, [this] { return waiters_.empty(); });
}

void TestClock::Install() {
    previous_ = velmar::kolto::SetClockForTesting(this);
    installed_ = true;
}

int64_t TestClock::SteadyNowMs() {
    std::lock_guard<std::mutex> guard(mutex_);
    return steadyMs_;
}

int64_t TestClock::WallNowMs() {
    std::lock_guard<std::mutex> guard(mutex_);
    return wallMs_;
}

int64_t TestClock::WallNowUs() { return WallNowMs() * 1000; }

void TestClock::SleepMs(int64_t ms) {
    if (ms <= 0) return;
    int64_t deadline;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!advanceOnSleep_) {
            deadline = steadyMs_ + ms;
        } else {
            deadline = -1;
        }
    }
    if (deadline < 0) {
        Advance(ms);
        return;
    }
    std::mutex mutex;
    std::condition_variable cond;
    std::unique_lock<std::mutex> lock(mutex);
    while (!WaitUntilMs(cond, lock, deadline)) {
    }
}

bool TestClock::WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                            int64_t deadlineMs) {
    // The caller holds `lock` and keeps it until cond.wait() releases it. The
    // entry is made under our mutex together with the look at the time, so a
    // waker that moves the time afterwards finds the entry, and it takes
    // `lock` before it notifies: by then this thread is inside the wait.
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
    // A waker may be about to take `lock` to reach this entry: give the lock
    // up while waiting for it to finish with the entry.
    lock.unlock();
    bool reached;
    {
        std::unique_lock<std::mutex> guard(mutex_);
        waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &self));
        changed_.wait(guard, [&self] { return self.pins == 0; });
        reached = released_ || steadyMs_ >= deadlineMs;
        changed_.notify_all();
    }
    lock.lock();
    return reached;
}

template <class Change>
void TestClock::ChangeAndWake(Change change) {
    std::vector<Waiter*> woken;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        change();
        ++generation_;
        for (Waiter* waiter : waiters_) {
            ++waiter->pins;
            woken.push_back(waiter);
        }
        changed_.notify_all();
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

void TestClock::Advance(int64_t ms) {
    ChangeAndWake([this, ms] {
        steadyMs_ += ms;
        wallMs_ += ms;
    });
}

bool TestClock::SetSteadyMs(int64_t ms) {
    bool moved = false;
    ChangeAndWake([this, ms, &moved] {
        if (ms < steadyMs_) return;
        steadyMs_ = ms;
        moved = true;
    });
    return moved;
}

void TestClock::SetWallMs(int64_t ms) {
    ChangeAndWake([this, ms] { wallMs_ = ms; });
}

void TestClock::SetAdvanceOnSleep(bool advance) {
    std::lock_guard<std::mutex> guard(mutex_);
    advanceOnSleep_ = advance;
}

bool TestClock::WaitForWaiters(size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, timeout, [this, count] {
        size_t current = 0;
        for (const Waiter* waiter : waiters_) current += waiter->generation == generation_;
        return current >= count;
    });
}

bool TestClock::WaitForWaitsBegun(uint64_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, timeout, [this, count] { return waitsBegun_ >= count; });
}

size_t TestClock::Waiters() {
    std::lock_guard<std::mutex> guard(mutex_);
    return waiters_.size();
}

uint64_t TestClock::WaitsBegun() {
    std::lock_guard<std::mutex> guard(mutex_);
    return waitsBegun_;
}

}  // namespace tarnis_test
