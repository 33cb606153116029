#include "framework/TarnisMessageQueue.h"

#include <sched.h>
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
    (void)pad_;
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
        closed_.store(true);
        pthread_cond_broadcast(&cond_);
        list = detachLocked();
    }
    deleteList(list);
    while (senders_.load(std::memory_order_acquire) != 0) sched_yield();
    // A sender that saw the queue open just before it closed pushed after
    // the list was taken.
    deleteList(incoming_.exchange(nullptr, std::memory_order_acquire));
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&lock_);
}

void TarnisMessageQueue::offer(TarnisMessage* msg) {
    if (msg == nullptr) return;
    if (msg->when == 0) {
        senders_.fetch_add(1, std::memory_order_seq_cst);
        if (closed_.load(std::memory_order_seq_cst)) {
            senders_.fetch_sub(1, std::memory_order_release);
            delete msg;
            return;
        }
        TarnisMessage* top = incoming_.load(std::memory_order_relaxed);
        do {
            msg->next = top;
        } while (!incoming_.compare_exchange_weak(top, msg, std::memory_order_seq_cst,
                                                  std::memory_order_relaxed));
        // Pairs with waitLocked(): the taker announces itself before it looks
        // at the stack a last time, so either it sees this message or this
        // sees it waiting.
        if (waiters_.load(std::memory_order_seq_cst) > 0) {
            // Taking the lock once makes sure a taker that counted itself has
            // got into its wait; waking it after the lock is released spares
            // it from waking only to block on the lock we hold.
            { QueueLock guard(*this); }
            pthread_cond_broadcast(&cond_);
        }
        senders_.fetch_sub(1, std::memory_order_release);
        return;
    }
    QueueLock guard(*this);
    if (closed_.load()) {
        guard.unlock();
        delete msg;
        return;
    }
    if (msg->when < deadline_) {
        msg->next = head_;
        head_ = msg;
        deadline_ = msg->when;
    } else {
        TarnisMessage** link = &head_;
        while (*link != nullptr && (*link)->when <= msg->when) link = &(*link)->next;
        msg->next = *link;
        *link = msg;
    }
    listChangedLocked();
    if (waiters_.load() > 0) pthread_cond_broadcast(&cond_);
}

// Moves the "now" stack to the head of the list, keeping its order. The
// taker takes the whole stack with one exchange rather than popping message
// by message: the stack's top is the one place senders and the taker share,
// and each exchange or CAS there costs a cache-line transfer.
void TarnisMessageQueue::drainIncomingLocked() {
    if (incoming_.load(std::memory_order_acquire) == nullptr) return;
    TarnisMessage* chain = incoming_.exchange(nullptr, std::memory_order_acquire);
    if (chain == nullptr) return;
    TarnisMessage* last = chain;
    while (last->next != nullptr) last = last->next;
    last->next = head_;
    head_ = chain;
    listChangedLocked();
}

void TarnisMessageQueue::waitLocked(const struct timespec* until) {
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    if (incoming_.load(std::memory_order_seq_cst) == nullptr) {
        if (until == nullptr) {
            pthread_cond_wait(&cond_, &lock_);
        } else {
            pthread_cond_timedwait(&cond_, &lock_, until);
        }
    }
    waiters_.fetch_sub(1, std::memory_order_seq_cst);
}

TarnisMessage* TarnisMessageQueue::take(bool immediate) {
    QueueLock guard(*this);
    if (closed_.load()) return nullptr;
    for (;;) {
        drainIncomingLocked();
        if (head_ == nullptr) {
            deadline_ = -1;
            if (nonBlock_) return nullptr;
            waitLocked(nullptr);
            if (closed_.load()) return nullptr;
            drainIncomingLocked();
            if (head_ == nullptr) {
                deadline_ = -1;
                return nullptr;
            }
        }
        if (!immediate && deadline_ >= 1 && head_->when != 0) {
            struct timespec until;
            until.tv_sec = static_cast<time_t>(deadline_ / 1000);
            until.tv_nsec = static_cast<long>(deadline_ % 1000) * 1000000L;
            waitLocked(&until);
            if (closed_.load()) return nullptr;
            drainIncomingLocked();
            if (head_ == nullptr) continue;
        }
        TarnisMessage* msg = head_;
        if (immediate || msg->when == 0 || msg->when <= SteadyNowMs()) {
            head_ = msg->next;
            msg->next = nullptr;
            listChangedLocked();
            deadline_ = -1;
            return msg;
        }
        deadline_ = msg->when;
    }
}

void TarnisMessageQueue::removeMessage(TarnisMessage* msg, bool keep) {
    QueueLock guard(*this);
    if (closed_.load() || msg == nullptr) return;
    drainIncomingLocked();
    for (TarnisMessage** link = &head_; *link != nullptr; link = &(*link)->next) {
        if (*link == msg) {
            *link = msg->next;
            msg->next = nullptr;
            listChangedLocked();
            guard.unlock();
            if (!keep) delete msg;
            return;
        }
    }
}

bool TarnisMessageQueue::hasMessages(int what) {
    QueueLock guard(*this);
    if (closed_.load()) return false;
    drainIncomingLocked();
    for (TarnisMessage* m = head_; m != nullptr; m = m->next) {
        if (m->what == what) return true;
    }
    return false;
}

bool TarnisMessageQueue::hasMessage(TarnisMessage* msg) {
    QueueLock guard(*this);
    if (closed_.load()) return false;
    drainIncomingLocked();
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
    drainIncomingLocked();
    TarnisMessage* list = head_;
    head_ = nullptr;
    listChangedLocked();
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
