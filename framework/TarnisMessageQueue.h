#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace velmar {
namespace kolto {

class TarnisMessage;

// A looper's queue: a linked list of messages, head first. Messages due "now"
// (when 0) and messages due before the time the taker is waiting for go to the
// head; the rest are kept in due-time order, equal times in arrival order.
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
    // With `immediate` the head is returned whatever its due time. Null when
    // the queue is closed, or empty after a wake-up.
    TarnisMessage* take(bool immediate);
    // Unlinks the first entry that is `msg`; deletes it unless `keep`.
    void removeMessage(TarnisMessage* msg, bool keep);
    bool hasMessages(int what);
    bool hasMessage(TarnisMessage* msg);
    void setNonBlockWhenTake(bool nonBlock);
    // Wakes every taker, then deletes every queued message.
    void clear();
    size_t size() const { return size_.load(std::memory_order_acquire); }
    bool empty() const { return size() == 0; }

private:
    TarnisMessage* detachLocked();
    static void deleteList(TarnisMessage* list);

    friend class QueueLock;
    // An adaptive mutex: the poster and the looper's thread hold it for a few
    // instructions at a time, so spinning briefly beats sleeping in the
    // kernel. The condition waits on the monotonic clock.
    pthread_mutex_t lock_;
    pthread_cond_t cond_;
    TarnisMessage* head_ = nullptr;
    std::atomic<size_t> size_{0};
    bool closed_ = false;
    // The due time a taker is waiting for; -1 when nobody waits for a timed
    // message.
    int64_t deadline_ = 0;
    bool nonBlock_ = false;
    // Takers blocked on cond_; offer() skips the notify when there are none.
    int waiters_ = 0;
};

}  // namespace kolto
}  // namespace velmar
