#include <host/LogRateLimiter.h>

#include <chrono>

namespace platform {

bool LogRateLimiter::Allow(int64_t nowMs, uint64_t* suppressed) {
    std::lock_guard<std::mutex> lock(lock_);
    if (!started_ || nowMs - windowStartMs_ >= intervalMs_ || nowMs < windowStartMs_) {
        started_ = true;
        windowStartMs_ = nowMs;
        printed_ = 0;
    }
    if (printed_ >= burst_) {
        ++held_;
        return false;
    }
    ++printed_;
    *suppressed = held_;
    held_ = 0;
    return true;
}

bool LogRateLimiter::Allow(uint64_t* suppressed) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return Allow(std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), suppressed);
}

std::string LogRateLimiter::Summary(uint64_t suppressed) {
    if (suppressed == 0) return "";
    return " (suppressed " + std::to_string(suppressed) + " such line" + (suppressed == 1 ? "" : "s") + ")";
}

}  // namespace platform
