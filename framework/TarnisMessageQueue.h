#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace velmar {
namespace kolto {

class TarnisMessage;
class TarnisMessageRef;

// A looper's queue of messages: one list under one mutex, taken from the head.
// Messages sent for "now" (`when` 0) go to the head, so those that pile up
// while the loop is busy are taken newest first; delayed messages follow them
// in order of due time, equal due times in arrival order. A delayed message
// never goes ahead of one sent for "now".
//
// The daemon dispatches a few messages a second; a plain list under a mutex
// keeps well over a million a second (docs/PERFORMANCE.md), so nothing
// cleverer is worth its subtlety here.
class TarnisMessageQueue {
public:
    TarnisMessageQueue() = default;
    // Closes the queue and deletes whatever is still in it.
    ~TarnisMessageQueue();
    TarnisMessageQueue(const TarnisMessageQueue&) = delete;
    TarnisMessageQueue& operator=(const TarnisMessageQueue&) = delete;

    // Enqueues the message; a closed queue deletes it instead and returns false.
    bool offer(TarnisMessage* msg);
    // The next due message; waits for it unless the queue is non-blocking (or
    // told to stop waiting). With `immediate` the head is returned whatever
    // its due time. Null when the queue is closed, after a wake-up that finds
    // nothing to take, and after wake().
    TarnisMessage* take(bool immediate);
    // Unlinks the queued message of that use; deletes it unless `keep`.
    // False when it is not queued (it ran, was removed, or the queue closed).
    bool removeMessage(const TarnisMessageRef& msg, bool keep);
    bool hasMessages(int what);
    bool hasMessage(const TarnisMessageRef& msg);
    // With `nonBlock`, a take on an empty queue returns null instead of
    // waiting, and a taker waiting on an empty queue is woken.
    void setNonBlockWhenTake(bool nonBlock);
    // From now on take() never waits: a message not yet due is left queued
    // and take() returns null. Wakes a waiting taker.
    void stopWaiting();
    bool isStoppedWaiting();
    // Makes the next (or the current) wait of a taker return null at once,
    // so that its loop can look elsewhere (the priority queue).
    void wake();
    // Wakes every taker, then deletes every queued message.
    void clear();
    // Refuses every later message and deletes the queued ones.
    void close();

    // True when a taker waits in take() and nothing queued is due on the
    // process's clock (the queue is empty or its head is a later message).
    bool isIdle();

    bool empty() const { return size_.load(std::memory_order_acquire) == 0; }
    size_t size() const { return size_.load(std::memory_order_acquire); }

private:
    using Lock = std::unique_lock<std::mutex>;

    // Waits on the condition (untimed when `deadlineMs` < 0) unless wake()
    // asked for a return; false when the taker is to return null.
    bool waitLocked(Lock& lock, long long deadlineMs);
    TarnisMessage* popLocked();
    TarnisMessage* detachLocked();
    // Payload destructors run outside the queue lock: they may post again.
    static void deleteList(TarnisMessage* list);

    std::mutex lock_;
    std::condition_variable cond_;
    TarnisMessage* head_ = nullptr;
    // Written under lock_; read without it by empty() and size().
    std::atomic<size_t> size_{0};
    // Takers inside a wait; senders notify only when there is one.
    int waiters_ = 0;
    bool closed_ = false;
    bool nonBlock_ = false;
    bool stopWaiting_ = false;
    bool woken_ = false;
};

}  // namespace kolto
}  // namespace velmar
