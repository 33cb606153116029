#include "framework/TarnisMessageQueue.h"

#include <time.h>

#include "framework/TarnisMessage.h"

namespace velmar {
namespace kolto {

namespace {

// The clock the condition waits on (and that steady_clock reads).
int64_t SteadyNowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

// Holds a queue's lock for a scope; can be released early.
class QueueLock {
public:
    explicit QueueLock(TarnisMessageQueue& queue) : mutex_(&queue.lock_) {
        pthread_mutex_lock(mutex_);
    }
    ~QueueLock() { unlock(); }
    void unlock() {
        if (mutex_ != nullptr) pthread_mutex_unlock(mutex_);
        mutex_ = nullptr;
    }
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

private:
    pthread_mutex_t* mutex_;
};

TarnisMessageQueue::TarnisMessageQueue() {
    pthread_mutexattr_t mutexAttr;
    pthread_mutexattr_init(&mutexAttr);
    pthread_mutexattr_settype(&mutexAttr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&lock_, &mutexAttr);
    pthread_mutexattr_destroy(&mutexAttr);
    pthread_condattr_t condAttr;
    pthread_condattr_init(&condAttr);
    pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond_, &condAttr);
    pthread_condattr_destroy(&condAttr);
}

TarnisMessageQueue::~TarnisMessageQueue() {
    TarnisMessage* list;
    {
        QueueLock guard(*this);
        closed_ = true;
        pthread_cond_broadcast(&cond_);
        list = detachLocked();
    }
    deleteList(list);
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&lock_);
}

void TarnisMessageQueue::offer(TarnisMessage* msg) {
    if (msg == nullptr) return;
    QueueLock guard(*this);
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
    if (waiters_ > 0) pthread_cond_broadcast(&cond_);
}

TarnisMessage* TarnisMessageQueue::take(bool immediate) {
    QueueLock guard(*this);
    if (closed_) return nullptr;
    for (;;) {
        if (head_ == nullptr) {
            deadline_ = -1;
            if (nonBlock_) return nullptr;
            ++waiters_;
            pthread_cond_wait(&cond_, &lock_);
            --waiters_;
            if (closed_) return nullptr;
            if (head_ == nullptr) {
                deadline_ = -1;
                return nullptr;
            }
        }
        if (!immediate && deadline_ >= 1 && head_->when != 0) {
            struct timespec until;
            until.tv_sec = static_cast<time_t>(deadline_ / 1000);
            until.tv_nsec = static_cast<long>(deadline_ % 1000) * 1000000L;
            ++waiters_;
            pthread_cond_timedwait(&cond_, &lock_, &until);
            --waiters_;
            if (closed_) return nullptr;
            if (head_ == nullptr) continue;
        }
        TarnisMessage* msg = head_;
        if (immediate || msg->when == 0 || msg->when <= SteadyNowMs()) {
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
    QueueLock guard(*this);
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
    QueueLock guard(*this);
    if (closed_) return false;
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (m->what == what) return true;
    }
    return false;
}

bool TarnisMessageQueue::hasMessage(TarnisMessage* msg) {
    QueueLock guard(*this);
    if (closed_) return false;
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (m == msg) return true;
    }
    return false;
}

void TarnisMessageQueue::setNonBlockWhenTake(bool nonBlock) {
    QueueLock guard(*this);
    nonBlock_ = nonBlock;
    if (nonBlock) pthread_cond_broadcast(&cond_);
}

void TarnisMessageQueue::clear() {
    TarnisMessage* list;
    {
        QueueLock guard(*this);
        pthread_cond_broadcast(&cond_);
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
