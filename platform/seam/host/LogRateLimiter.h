#pragma once

#include <cstdint>
#include <mutex>
#include <string>

// Lines that any local process can make the daemon write (a refused caller, a
// dump that cannot be delivered) are let through at a bounded rate, so that a
// client calling in a loop cannot fill the log or spend the daemon's time on
// it. A device's log daemon collapses such floods itself; on a host the log is
// a terminal or a file, so the daemon does it here. The lines held back are
// counted, and the count rides on the next line that is let through, so the
// log still says how often it happened.
namespace platform {

class LogRateLimiter {
public:
    // At most `burst` lines in each window of `intervalMs`.
    LogRateLimiter(int burst, int64_t intervalMs) : burst_(burst), intervalMs_(intervalMs) {}

    // True when a line may be logged now (`nowMs` on any monotonic clock the
    // caller keeps to); `suppressed` then gets how many were held back
    // since the last line let through.
    bool Allow(int64_t nowMs, uint64_t* suppressed);
    // Allow on the real monotonic clock.
    bool Allow(uint64_t* suppressed);

    // The tail that reports `suppressed` held-back lines ("" for none).
    static std::string Summary(uint64_t suppressed);

private:
    const int burst_;
    const int64_t intervalMs_;
    std::mutex lock_;
    bool started_ = false;
    int64_t windowStartMs_ = 0;
    int printed_ = 0;
    uint64_t held_ = 0;
};

}  // namespace platform
