#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace velmar {
namespace kolto {

class TarnisLooper;

// A thread that runs a looper. Deleting it quits the loop (not safely) and
// joins the thread; never delete it from its own thread.
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
    void quit();
    // Returns whether this call issued the quit.
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
    std::mutex lock_;
    std::condition_variable cond_;
    std::atomic<bool> quitting_{false};
    std::atomic<bool> exited_{false};
};

}  // namespace kolto
}  // namespace velmar
