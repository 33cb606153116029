#include "utils/Clock.h"

#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>

namespace velmar {
namespace kolto {
namespace {

SystemClock& RealClock() {
    static auto* clock = new SystemClock;
    return *clock;
}

std::atomic<Clock*> gClock{nullptr};

}  // namespace

Clock& GetClock() {
    Clock* clock = gClock.load(std::memory_order_acquire);
    return clock != nullptr ? *clock : RealClock();
}

Clock* SetClockForTesting(Clock* clock) {
    Clock* previous = gClock.exchange(clock, std::memory_order_acq_rel);
    return previous != nullptr ? previous : &RealClock();
}

bool Clock::WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                        int64_t deadlineMs) {
    const int64_t left = deadlineMs - SteadyNowMs();
    if (left <= 0) return true;
    cond.wait_for(lock, std::chrono::milliseconds(left));
    return SteadyNowMs() >= deadlineMs;
}

int64_t SystemClock::SteadyNowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t SystemClock::WallNowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t SystemClock::WallNowUs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

bool SystemClock::WaitUntilMs(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                              int64_t deadlineMs) {
    // steady_clock is CLOCK_MONOTONIC, and libstdc++ waits on it with
    // pthread_cond_clockwait: the deadline goes to the kernel as it is.
    const std::chrono::steady_clock::time_point until{std::chrono::milliseconds(deadlineMs)};
    return cond.wait_until(lock, until) == std::cv_status::timeout;
}

void SystemClock::SleepMs(int64_t ms) {
    if (ms <= 0) return;
    struct timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>((ms % 1000) * 1000000)};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace kolto
}  // namespace velmar
