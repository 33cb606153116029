#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <android-base/unique_fd.h>

namespace velmar {
namespace kolto {

// The stop request of a worker that blocks on its own thread: the flag its
// loops test, sleeps on the process clock that end at once when it is set,
// and a descriptor that becomes readable so that a poll() on the worker's own
// descriptors wakes too. Request() may come from any thread, any number of
// times.
class StopSignal {
public:
    StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    void Request();
    bool Requested() const { return stop_.load(); }
    const std::atomic<bool>& flag() const { return stop_; }
    // Readable once a stop was requested (-1 if no eventfd could be made:
    // then only the flag and the sleeps see the stop).
    int fd() const { return fd_.get(); }
    // Sleeps `ms` on the process clock; false when a stop came first.
    bool Sleep(int64_t ms);

private:
    std::atomic<bool> stop_{false};
    android::base::unique_fd fd_;
    std::mutex lock_;
    std::condition_variable cond_;
};

}  // namespace kolto
}  // namespace velmar
