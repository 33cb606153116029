#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "framework/TarnisMessageQueue.h"

namespace velmar {
namespace kolto {

class TarnisMessage;

// A thread's message loop: a normal queue and a priority queue, the latter
// served first. Made only by prepare(). Shared by the looper manager (while
// its thread runs), its handler thread object and every handler bound to it,
// so that a handler outliving the thread still reaches a valid, finished
// looper, which drops what it is sent.
class TarnisLooper : public std::enable_shared_from_this<TarnisLooper> {
public:
    // Creates the calling thread's looper (an error when it already has one).
    static void prepare();
    // The calling thread's looper, or null (with an error line).
    static TarnisLooper* myLooper();

    // Runs the loop on the calling thread until it is quit.
    void _loop();
    // Asks the loop to end. A safe quit still dispatches every queued
    // message, waiting for delayed ones to fall due; a quit that is not safe
    // ends at once, a wait for a delayed message included, and drops the
    // rest. A quit that is not safe after a safe one stops the waiting: what
    // is due is still dispatched, what is not yet due is dropped.
    void quit(bool safely);
    // Enqueues the message. Once a quit was requested or the loop ended, the
    // message is dropped (recycled) and false returned.
    bool sendMessage(TarnisMessage* msg);

    // The queue handlers search and remove from.
    TarnisMessageQueue& queue() { return queue_; }
    bool isLooping() const { return looping_.load(); }
    bool isFinished() const { return finished_.load(); }
    // True once the loop has ended or its thread gave the looper up (a
    // looper quit before it looped never finishes): nothing will ever take
    // what is sent to it.
    bool hasEnded() const { return finished_.load() || released_.load(); }
    // True while the loop waits for a message and none is due: what a test
    // waits for before it looks at the effects of the work it caused. Taken
    // with dispatched() twice in a row, unchanged, no work is in flight.
    bool isIdle() { return priorityQueue_.empty() && queue_.isIdle(); }
    // Messages dispatched so far.
    uint64_t dispatched() const { return dispatched_.load(std::memory_order_acquire); }

    ~TarnisLooper();
    TarnisLooper(const TarnisLooper&) = delete;
    TarnisLooper& operator=(const TarnisLooper&) = delete;

private:
    friend class TarnisLooperManager;
    TarnisLooper() = default;
    void requestQuit(bool safely);
    // Called by the registry when the looper's thread lets it go.
    void release();

    std::atomic<bool> quitRequested_{false};
    std::atomic<bool> finished_{false};
    std::atomic<bool> quitSafely_{false};
    std::atomic<bool> looping_{false};
    std::atomic<bool> released_{false};
    std::atomic<uint64_t> dispatched_{0};
    TarnisMessageQueue queue_;
    TarnisMessageQueue priorityQueue_;
    std::mutex quitLock_;
};

}  // namespace kolto
}  // namespace velmar
