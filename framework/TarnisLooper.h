#pragma once

#include <atomic>
#include <mutex>

#include "framework/TarnisMessageQueue.h"

namespace velmar {
namespace kolto {

class TarnisMessage;

// A thread's message loop: a normal queue and a priority queue, the latter
// served first. Made only by prepare() and owned by the looper manager.
class TarnisLooper {
public:
    // Creates the calling thread's looper (an error when it already has one).
    static void prepare();
    // The calling thread's looper, or null (with an error line).
    static TarnisLooper* myLooper();

    // Runs the loop on the calling thread until it is quit.
    void _loop();
    // Asks the loop to end; a safe quit still dispatches every queued message.
    void quit(bool safely);
    // Enqueues the message; dropped once a quit was requested or the loop ended.
    void sendMessage(TarnisMessage* msg);

    // The queue handlers search and remove from.
    TarnisMessageQueue& queue() { return queue_; }
    bool isLooping() const { return looping_.load(); }
    bool isFinished() const { return finished_.load(); }

    ~TarnisLooper();
    TarnisLooper(const TarnisLooper&) = delete;
    TarnisLooper& operator=(const TarnisLooper&) = delete;

private:
    friend class TarnisLooperManager;
    TarnisLooper() = default;
    void requestQuit(bool safely);

    std::atomic<bool> quitRequested_{false};
    std::atomic<bool> finished_{false};
    std::atomic<bool> quitSafely_{false};
    std::atomic<bool> looping_{false};
    TarnisMessageQueue queue_;
    TarnisMessageQueue priorityQueue_;
    std::mutex quitLock_;
};

}  // namespace kolto
}  // namespace velmar
