#pragma once

#include <condition_variable>
#include <mutex>

#include "framework/ModuleManager.h"
#include "framework/TarnisHandler.h"

namespace tarnis_test {

// Returns once a task posted now to the ModuleManager thread has run, that is
// after whatever that thread was doing (a delivery pass, a module load).
inline void DrainManagerThread() {
    std::mutex lock;
    std::condition_variable cond;
    bool done = false;
    velmar::kolto::ModuleManager::GetManagerHandler()->post([&] {
        std::lock_guard<std::mutex> guard(lock);
        done = true;
        cond.notify_all();
    });
    std::unique_lock<std::mutex> guard(lock);
    cond.wait(guard, [&] { return done; });
}

}  // namespace tarnis_test
