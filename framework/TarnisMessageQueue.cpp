#include "framework/TarnisMessageQueue.h"

#include <chrono>

#include "framework/TarnisMessage.h"

namespace velmar {
namespace kolto {

namespace {

int64_t SteadyNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

TarnisMessageQueue::~TarnisMessageQueue() {
    TarnisMessage* list;
    {
        std::lock_guard<std::mutex> guard(lock_);
        closed_ = true;
        cond_.notify_all();
        list = detachLocked();
    }
    deleteList(list);
}

void TarnisMessageQueue::offer(TarnisMessage* msg) {
    if (msg == nullptr) return;
    std::unique_lock<std::mutex> guard(lock_);
    if (closed_) {
        guard.unlock();
        delete msg;
        return;
    }
    if (msg->when == 0 || msg->when < deadline_) {
        msg->next = head_;
        head_ = msg;
        if (msg->when != 0) deadline_ = msg->when;
    } else {
        TarnisMessage** link = &head_;
        while (*link != nullptr && (*link)->when <= msg->when) link = &(*link)->next;
        msg->next = *link;
        *link = msg;
    }
    size_.fetch_add(1, std::memory_order_release);
    // Notified under the lock: the queue may be destroyed as soon as its
    // looper's thread ends.
    if (waiters_ > 0) cond_.notify_all();
}

TarnisMessage* TarnisMessageQueue::take(bool immediate) {
    std::unique_lock<std::mutex> guard(lock_);
    if (closed_) return nullptr;
    for (;;) {
        if (head_ == nullptr) {
            deadline_ = -1;
            if (nonBlock_) return nullptr;
            ++waiters_;
            cond_.wait(guard);
            --waiters_;
            if (closed_) return nullptr;
            if (head_ == nullptr) {
                deadline_ = -1;
                return nullptr;
            }
        }
        if (!immediate && deadline_ >= 1 && head_->when != 0) {
            auto until = std::chrono::steady_clock::time_point(std::chrono::milliseconds(deadline_));
            ++waiters_;
            cond_.wait_until(guard, until);
            --waiters_;
            if (closed_) return nullptr;
            if (head_ == nullptr) continue;
        }
        TarnisMessage* msg = head_;
        if (immediate || msg->when <= SteadyNowMs()) {
            head_ = msg->next;
            msg->next = nullptr;
            size_.fetch_sub(1, std::memory_order_release);
            deadline_ = -1;
            return msg;
        }
        deadline_ = msg->when;
    }
}

void TarnisMessageQueue::removeMessage(TarnisMessage* msg, bool keep) {
    std::unique_lock<std::mutex> guard(lock_);
    if (closed_ || msg == nullptr) return;
    for (TarnisMessage** link = &head_; *link != nullptr; link = &(*link)->next) {
        if (*link == msg) {
            *link = msg->next;
            msg->next = nullptr;
            size_.fetch_sub(1, std::memory_order_release);
            guard.unlock();
            if (!keep) delete msg;
            return;
        }
    }
}

bool TarnisMessageQueue::hasMessages(int what) {
    std::lock_guard<std::mutex> guard(lock_);
    if (closed_) return false;
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (m->what == what) return true;
    }
    return false;
}

bool TarnisMessageQueue::hasMessage(TarnisMessage* msg) {
    std::lock_guard<std::mutex> guard(lock_);
    if (closed_) return false;
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (m == msg) return true;
    }
    return false;
}

void TarnisMessageQueue::setNonBlockWhenTake(bool nonBlock) {
    std::lock_guard<std::mutex> guard(lock_);
    nonBlock_ = nonBlock;
    if (nonBlock) cond_.notify_all();
}

void TarnisMessageQueue::clear() {
    TarnisMessage* list;
    {
        std::lock_guard<std::mutex> guard(lock_);
        cond_.notify_all();
        list = detachLocked();
    }
    deleteList(list);
}

TarnisMessage* TarnisMessageQueue::detachLocked() {
    TarnisMessage* list = head_;
    head_ = nullptr;
    size_.store(0, std::memory_order_release);
    return list;
}

// Payload destructors run outside the queue lock: they may post again.
void TarnisMessageQueue::deleteList(TarnisMessage* m) {
    while (m != nullptr) {
        TarnisMessage* next = m->next;
        delete m;
        m = next;
    }
}

}  // namespace kolto
}  // namespace velmar
