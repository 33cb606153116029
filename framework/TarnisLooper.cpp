#define LOG_TAG "Tarnis-TarnisLooper"

#include "framework/TarnisLooper.h"

#include <log/log.h>

#include "framework/TarnisHandler.h"
#include "framework/TarnisLooperManager.h"
#include "framework/TarnisMessage.h"
#include "framework/TarnisMessageManager.h"
#include "utils/Clock.h"

namespace velmar {
namespace kolto {

void TarnisLooper::prepare() { TarnisLooperManager::getInstance().prepare(); }

TarnisLooper* TarnisLooper::myLooper() {
    TarnisLooperManager& manager = TarnisLooperManager::getInstance();
    TarnisLooper* looper = manager.get(TarnisLooperManager::currentThreadId());
    if (looper == nullptr) ALOGE("[%s] Call TarnisLooper::prepare first pls.", "myLooper");
    return looper;
}

TarnisLooper::~TarnisLooper() {
    ALOGD("[%s] ~TarnisLooper tid %ld", "~TarnisLooper", TarnisLooperManager::currentThreadId());
    requestQuit(false);
}

void TarnisLooper::quit(bool safely) { requestQuit(safely); }

void TarnisLooper::release() {
    released_.store(true);
    // Handlers may hold the looper for long after; what they send now, or
    // left queued, would never be taken.
    queue_.close();
    priorityQueue_.close();
}

void TarnisLooper::requestQuit(bool safely) {
    std::lock_guard<std::mutex> guard(quitLock_);
    if (finished_.load()) return;
    if (quitRequested_.load()) {
        // A safe quit waits for delayed messages to fall due, which may be a
        // day away; a thread being torn down (a module removed) cannot wait
        // that long, so a quit that is not safe ends that wait.
        if (!safely && quitSafely_.load() && !queue_.isStoppedWaiting()) {
            ALOGD("[%s] Looper stops waiting for delayed messages", "quit");
            queue_.stopWaiting();
            priorityQueue_.stopWaiting();
        }
        return;
    }
    ALOGD("[%s] Looper quiting...", "quit");
    quitSafely_.store(safely);
    quitRequested_.store(true);
    if (!safely) {
        // Ends a wait for a delayed message at once: the loop is to stop now,
        // not when that message falls due.
        queue_.stopWaiting();
        priorityQueue_.stopWaiting();
    }
    queue_.setNonBlockWhenTake(true);
    ALOGD("[%s] queue notified..", "quit");
}

bool TarnisLooper::sendMessage(TarnisMessage* msg) {
    if (msg == nullptr) return false;
    if (quitRequested_.load() || finished_.load()) {
        TarnisMessageManager::getInstance().recycle(msg);
        return false;
    }
    if (msg->flags & TarnisMessage::kFlagPriority) {
        if (!priorityQueue_.offer(msg)) return false;
        // The loop may be waiting on the normal queue; it looks at the
        // priority queue only between takes.
        queue_.wake();
        return true;
    }
    return queue_.offer(msg);
}

void TarnisLooper::_loop() {
    if (looping_.load()) return;
    if (quitRequested_.load() && !quitSafely_.load()) return;
    if (finished_.load()) return;
    if (quitRequested_.load() && quitSafely_.load() && queue_.empty() && priorityQueue_.empty()) {
        return;
    }
    looping_.store(true);

    TarnisMessageManager& pool = TarnisMessageManager::getInstance();
    for (;;) {
        TarnisMessage* msg =
            priorityQueue_.empty() ? queue_.take(false) : priorityQueue_.take(false);
        if (msg != nullptr) {
            if (msg->target != nullptr) msg->target->dispatchMessage(msg);
            if (msg->runnable != nullptr) msg->runnable->run(nullptr);
            pool.recycle(msg);
            // Only this thread writes the count.
            dispatched_.store(dispatched_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        }
        // quitRequested is read first: quit() stores quitSafely before it,
        // so a requested quit always shows its mode.
        if (quitRequested_.load()) {
            if (!quitSafely_.load() || queue_.empty()) break;
            // A safe quit told to stop waiting ends once nothing is due.
            if (msg == nullptr && queue_.isStoppedWaiting()) break;
        }
    }

    Clock& clock = GetClock();
    const int64_t start = clock.WallNowUs();
    bool safely = quitSafely_.load();
    while (!queue_.empty()) {
        TarnisMessage* msg = queue_.take(!safely);
        if (msg == nullptr) break;
        delete msg;
    }
    queue_.clear();
    ALOGI("[%s] %s(%d) clear message cost %ld us.", "_loop", "_loop", 124,
          static_cast<long>(clock.WallNowUs() - start));

    // A finished looper never runs again: what handlers still send to it is
    // refused by its queues, even by a sender that saw the loop running.
    finished_.store(true);
    queue_.close();
    priorityQueue_.close();
    quitRequested_.store(false);
    looping_.store(false);
}

}  // namespace kolto
}  // namespace velmar
