#include "framework/TarnisLooper.h"

#include <sys/time.h>

#include "framework/TarnisHandler.h"
#include "framework/TarnisLooperManager.h"
#include "framework/TarnisMessage.h"
#include "framework/TarnisMessageManager.h"
#include <log/log.h>

#define LOG_TAG "Tarnis-TarnisLooper"

namespace velmar {
namespace kolto {

namespace {

long NowUs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long>(tv.tv_sec) * 1000000L + tv.tv_usec;
}

}  // namespace

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

void TarnisLooper::requestQuit(bool safely) {
    std::lock_guard<std::mutex> guard(quitLock_);
    if (quitRequested_.load() || finished_.load()) return;
    ALOGD("[%s] Looper quiting...", "quit");
    quitSafely_.store(safely);
    quitRequested_.store(true);
    queue_.setNonBlockWhenTake(true);
    ALOGD("[%s] queue notified..", "quit");
}

void TarnisLooper::sendMessage(TarnisMessage* msg) {
    if (msg == nullptr) return;
    if (quitRequested_.load() || finished_.load()) {
        TarnisMessageManager::getInstance().recycle(msg);
        return;
    }
    if (msg->flags & TarnisMessage::kFlagPriority) {
        priorityQueue_.offer(msg);
    } else {
        queue_.offer(msg);
    }
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
        }
        // quitRequested is read first: quit() stores quitSafely before it,
        // so a requested quit always shows its mode.
        if (quitRequested_.load()) {
            if (!quitSafely_.load() || queue_.empty()) break;
        }
    }

    long start = NowUs();
    bool safely = quitSafely_.load();
    while (!queue_.empty()) {
        TarnisMessage* msg = queue_.take(!safely);
        if (msg == nullptr) break;
        delete msg;
    }
    queue_.clear();
    ALOGI("[%s] %s(%d) clear message cost %ld us.", "_loop", "_loop", 124, NowUs() - start);

    quitRequested_.store(false);
    finished_.store(true);
    looping_.store(false);
}

}  // namespace kolto
}  // namespace velmar
