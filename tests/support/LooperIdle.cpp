#include "tests/support/LooperIdle.h"

#include <thread>
#include <vector>

#include "framework/TarnisLooper.h"
#include "framework/TarnisLooperManager.h"

namespace tarnis_test {

bool WaitAllLoopersIdle(std::chrono::milliseconds timeout) {
    // The dispatch counts of all loopers when every one is idle (ended ones
    // count as idle), else false.
    const auto snapshot = [](std::vector<uint64_t>* counts) {
        counts->clear();
        for (const auto& looper : velmar::kolto::TarnisLooperManager::getInstance().loopers()) {
            if (!looper->hasEnded() && !looper->isIdle()) return false;
            counts->push_back(looper->dispatched());
        }
        return true;
    };
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<uint64_t> first, second;
    while (std::chrono::steady_clock::now() < deadline) {
        if (snapshot(&first)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            if (snapshot(&second) && first == second) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

}  // namespace tarnis_test
