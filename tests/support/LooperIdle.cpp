#include "tests/support/LooperIdle.h"

#include <thread>
#include <vector>

#include "framework/TarnisLooper.h"
#include "framework/TarnisLooperManager.h"
#include "tests/support/WaitFor.h"

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
    std::vector<uint64_t> first, second;
    return WaitFor(
        [&] {
            if (!snapshot(&first)) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            return snapshot(&second) && first == second;
        },
        timeout);
}

}  // namespace tarnis_test
