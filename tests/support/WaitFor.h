#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace tarnis_test {

// Real time, for what other threads and processes do: polls `done` every
// 5 ms and returns true once it holds, false when `timeout` passed first.
inline bool WaitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace tarnis_test
