#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace velmar {
namespace kolto {

class TarnisLooper;

// A thread that runs a looper. Deleting it quits the loop (not safely, so a
// wait for a delayed message ends at once, even after quitSafely()) and joins
// the thread; never delete it from its own thread.
class TarnisHandlerThread {
public:
    // A new handler thread, already started. Failing to start it is fatal.
    static TarnisHandlerThread* create(std::string name);
    virtual ~TarnisHandlerThread();
    TarnisHandlerThread(const TarnisHandlerThread&) = delete;
    TarnisHandlerThread& operator=(const TarnisHandlerThread&) = delete;

    // The thread's body: prepares the looper, loops, and cleans up.
    void run();
    // The looper, waiting until the thread has made it; null once it exited.
    TarnisLooper* getLooper();
    // Not safe: the loop ends at once and drops what is queued. After
    // quitSafely(), it ends the wait for delayed messages: what is due is
    // still dispatched, what is not yet due is dropped.
    void quit();
    // Dispatches everything queued, delayed messages when they fall due, then
    // ends. Returns whether this call issued the quit.
    bool quitSafely();

    const std::string& getName() const { return name_; }
    bool hasExited() const { return exited_.load(); }

private:
    explicit TarnisHandlerThread(std::string name);
    bool quitImpl(bool safely);
    static void* threadMain(void* self);

    std::string name_;
    pthread_t thread_{};
    bool started_ = false;
    TarnisLooper* looper_ = nullptr;
    // The looper, kept from its making until this object goes, so that a
    // pointer from getLooper() stays valid for as long as the object lives.
    std::shared_ptr<TarnisLooper> looperRef_;
    std::mutex lock_;
    std::condition_variable cond_;
    std::atomic<bool> quitting_{false};
    std::atomic<bool> exited_{false};
};

}  // namespace kolto
}  // namespace velmar
