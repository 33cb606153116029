#include "framework/TarnisMessageQueue.h"

#include <cstdint>

#include "framework/TarnisMessage.h"
#include "utils/Clock.h"

namespace velmar {
namespace kolto {

TarnisMessageQueue::~TarnisMessageQueue() { close(); }

bool TarnisMessageQueue::offer(TarnisMessage* msg) {
    if (msg == nullptr) return false;
    Lock lock(lock_);
    if (closed_) {
        lock.unlock();
        delete msg;
        return false;
    }
    TarnisMessage** link = &head_;
    if (msg->when != 0) {
        while (*link != nullptr && (*link)->when <= msg->when) link = &(*link)->next;
    }
    msg->next = *link;
    *link = msg;
    size_.store(size_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    // Only a new head changes what a waiting taker is waiting for: a delayed
    // message due after the head leaves its wait alone.
    const bool notify = link == &head_ && waiters_ > 0;
    lock.unlock();
    // Woken after the lock is released, so that the taker does not wake only
    // to block on it. The queue outlives this call: senders reach it through
    // a handler, which keeps the looper alive.
    if (notify) cond_.notify_all();
    return true;
}

TarnisMessage* TarnisMessageQueue::take(bool immediate) {
    Lock lock(lock_);
    for (;;) {
        if (closed_) return nullptr;
        if (head_ == nullptr) {
            if (nonBlock_ || stopWaiting_) return nullptr;
            if (!waitLocked(lock, -1)) return nullptr;
            // A wake-up that finds nothing (clear, quit) ends the take.
            if (closed_ || head_ == nullptr) return nullptr;
        }
        if (immediate || head_->when == 0) return popLocked();
        // Through the process's clock, so that a test clock decides when a
        // delayed message falls due and wakes this wait when it moves.
        Clock& clock = GetClock();
        const int64_t due = head_->when;
        if (due <= clock.SteadyNowMs()) return popLocked();
        if (stopWaiting_) return nullptr;
        if (!waitLocked(lock, due)) return nullptr;
    }
}

bool TarnisMessageQueue::waitLocked(Lock& lock, long long deadlineMs) {
    if (woken_) {
        woken_ = false;
        return false;
    }
    ++waiters_;
    if (deadlineMs < 0) {
        cond_.wait(lock);
    } else {
        GetClock().WaitUntilMs(cond_, lock, deadlineMs);
    }
    --waiters_;
    if (woken_) {
        woken_ = false;
        return false;
    }
    return true;
}

TarnisMessage* TarnisMessageQueue::popLocked() {
    TarnisMessage* msg = head_;
    head_ = msg->next;
    msg->next = nullptr;
    size_.store(size_.load(std::memory_order_relaxed) - 1, std::memory_order_release);
    return msg;
}

bool TarnisMessageQueue::removeMessage(const TarnisMessageRef& msg, bool keep) {
    Lock lock(lock_);
    if (closed_ || !msg) return false;
    for (TarnisMessage** link = &head_; *link != nullptr; link = &(*link)->next) {
        TarnisMessage* found = *link;
        if (!msg.refersTo(found)) continue;
        *link = found->next;
        found->next = nullptr;
        size_.store(size_.load(std::memory_order_relaxed) - 1, std::memory_order_release);
        lock.unlock();
        if (!keep) delete found;
        return true;
    }
    return false;
}

bool TarnisMessageQueue::hasMessages(int what) {
    Lock lock(lock_);
    if (closed_) return false;
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (m->what == what) return true;
    }
    return false;
}

bool TarnisMessageQueue::hasMessage(const TarnisMessageRef& msg) {
    Lock lock(lock_);
    if (closed_ || !msg) return false;
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (msg.refersTo(m)) return true;
    }
    return false;
}

bool TarnisMessageQueue::isIdle() {
    Lock lock(lock_);
    if (waiters_ == 0 || woken_) return false;
    return head_ == nullptr || (head_->when != 0 && head_->when > GetClock().SteadyNowMs());
}

void TarnisMessageQueue::setNonBlockWhenTake(bool nonBlock) {
    {
        Lock lock(lock_);
        nonBlock_ = nonBlock;
    }
    if (nonBlock) cond_.notify_all();
}

void TarnisMessageQueue::stopWaiting() {
    {
        Lock lock(lock_);
        stopWaiting_ = true;
    }
    cond_.notify_all();
}

bool TarnisMessageQueue::isStoppedWaiting() {
    Lock lock(lock_);
    return stopWaiting_;
}

void TarnisMessageQueue::wake() {
    bool notify;
    {
        Lock lock(lock_);
        woken_ = true;
        notify = waiters_ > 0;
    }
    if (notify) cond_.notify_all();
}

void TarnisMessageQueue::clear() {
    TarnisMessage* list;
    {
        Lock lock(lock_);
        list = detachLocked();
    }
    cond_.notify_all();
    deleteList(list);
}

void TarnisMessageQueue::close() {
    TarnisMessage* list;
    {
        Lock lock(lock_);
        closed_ = true;
        list = detachLocked();
    }
    cond_.notify_all();
    deleteList(list);
}

TarnisMessage* TarnisMessageQueue::detachLocked() {
    TarnisMessage* list = head_;
    head_ = nullptr;
    size_.store(0, std::memory_order_release);
    return list;
}

void TarnisMessageQueue::deleteList(TarnisMessage* m) {
    while (m != nullptr) {
        TarnisMessage* next = m->next;
        delete m;
        m = next;
    }
}

}  // namespace kolto
}  // namespace velmar
