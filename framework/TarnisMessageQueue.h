#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace velmar {
namespace kolto {

class TarnisMessage;

// A looper's queue of messages, taken in this order: messages sent for "now"
// newest first, then the time-ordered list (equal due times in arrival order;
// a message due before the time the taker is waiting for goes to its head).
//
// "Now" messages, nearly all of the traffic, go on a lock-free stack whose top
// is the newest, so that a sender never waits for the taker's lock; the taker
// moves the whole stack to the head of the list under the queue lock before
// it looks at the list. Delayed messages and every search or removal use the
// lock.
class TarnisMessageQueue {
public:
    TarnisMessageQueue();
    // Closes the queue and deletes whatever is still in it.
    ~TarnisMessageQueue();
    TarnisMessageQueue(const TarnisMessageQueue&) = delete;
    TarnisMessageQueue& operator=(const TarnisMessageQueue&) = delete;

    // Enqueues the message (ignored, and deleted, when the queue is closed).
    void offer(TarnisMessage* msg);
    // The next due message; waits for it unless the queue is non-blocking.
    // With `immediate` the next message is returned whatever its due time.
    // Null when the queue is closed, or empty after a wake-up.
    TarnisMessage* take(bool immediate);
    // Unlinks the first entry that is `msg`; deletes it unless `keep`.
    void removeMessage(TarnisMessage* msg, bool keep);
    bool hasMessages(int what);
    bool hasMessage(TarnisMessage* msg);
    void setNonBlockWhenTake(bool nonBlock);
    // Wakes every taker, then deletes every queued message.
    void clear();
    bool empty() const {
        return incoming_.load(std::memory_order_acquire) == nullptr &&
               listEmpty_.load(std::memory_order_acquire);
    }

private:
    friend class QueueLock;

    void drainIncomingLocked();
    TarnisMessage* detachLocked();
    void waitLocked(const struct timespec* until);
    void listChangedLocked() { listEmpty_.store(head_ == nullptr, std::memory_order_release); }
    static void deleteList(TarnisMessage* list);

    // Held for a few instructions at a time, so an adaptive mutex that spins
    // briefly before sleeping. The condition waits on the monotonic clock.
    pthread_mutex_t lock_;
    pthread_cond_t cond_;
    // The time-ordered list (guarded by lock_).
    TarnisMessage* head_ = nullptr;
    std::atomic<bool> listEmpty_{true};
    std::atomic<bool> closed_{false};
    // The due time a taker is waiting for; -1 when nobody waits for a timed
    // message.
    int64_t deadline_ = 0;
    bool nonBlock_ = false;
    // Takers about to block on cond_; senders skip the wake-up when none.
    std::atomic<int> waiters_{0};
    // "Now" messages not taken yet, newest on top. Kept on a cache line of
    // its own: senders and the taker meet here on every message.
    alignas(64) std::atomic<TarnisMessage*> incoming_{nullptr};
    // Senders between their push and their wake-up check. The queue goes away
    // with its looper's thread, possibly right after taking the message just
    // pushed; the destructor waits for these to leave.
    std::atomic<int> senders_{0};
    char pad_[64 - sizeof(std::atomic<TarnisMessage*>) - sizeof(std::atomic<int>)];
};

}  // namespace kolto
}  // namespace velmar
