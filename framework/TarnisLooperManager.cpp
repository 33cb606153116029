#define LOG_TAG "Tarnis-TarnisLooper"

#include "framework/TarnisLooperManager.h"

#include <pthread.h>

#include <log/log.h>

#include "framework/TarnisLooper.h"

namespace velmar {
namespace kolto {

TarnisLooperManager& TarnisLooperManager::getInstance() {
    static TarnisLooperManager* instance = new TarnisLooperManager;
    return *instance;
}

long TarnisLooperManager::currentThreadId() { return static_cast<long>(pthread_self()); }

TarnisLooper* TarnisLooperManager::prepare() {
    long tid = currentThreadId();
    std::lock_guard<std::mutex> guard(lock_);
    auto found = loopers_.find(tid);
    if (found != loopers_.end()) {
        ALOGE("[%s] TarnisLooper::prepare has been called.", "prepare");
        return found->second.get();
    }
    TarnisLooper* looper = new TarnisLooper;
    loopers_.emplace(tid, std::shared_ptr<TarnisLooper>(looper));
    return looper;
}

TarnisLooper* TarnisLooperManager::get(long tid) {
    std::lock_guard<std::mutex> guard(lock_);
    auto found = loopers_.find(tid);
    return found == loopers_.end() ? nullptr : found->second.get();
}

std::shared_ptr<TarnisLooper> TarnisLooperManager::share(long tid) {
    std::lock_guard<std::mutex> guard(lock_);
    auto found = loopers_.find(tid);
    return found == loopers_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<TarnisLooper>> TarnisLooperManager::loopers() {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::shared_ptr<TarnisLooper>> all;
    all.reserve(loopers_.size());
    for (const auto& entry : loopers_) all.push_back(entry.second);
    return all;
}

void TarnisLooperManager::remove(long tid) {
    std::shared_ptr<TarnisLooper> looper;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = loopers_.find(tid);
        if (found == loopers_.end()) return;
        looper = std::move(found->second);
        loopers_.erase(found);
    }
    looper->release();
    // Released outside the lock: the looper's destructor logs and quits.
}

}  // namespace kolto
}  // namespace velmar
