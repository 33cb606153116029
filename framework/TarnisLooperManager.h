#pragma once

#include <map>
#include <mutex>

namespace velmar {
namespace kolto {

class TarnisLooper;

// The registry of loopers by thread (the pthread_t as a signed 64-bit value).
// It owns the loopers.
class TarnisLooperManager {
public:
    // Made on first use (safe during static initialisation), never destroyed.
    static TarnisLooperManager& getInstance();
    static long currentThreadId();

    // Creates and enters the calling thread's looper unless it has one.
    TarnisLooper* prepare();
    // The looper of the calling thread, or null.
    TarnisLooper* get(long tid);
    // Deletes and forgets the looper of that thread, if any.
    void remove(long tid);

private:
    TarnisLooperManager() = default;

    std::mutex lock_;
    std::map<long, TarnisLooper*> loopers_;
};

}  // namespace kolto
}  // namespace velmar
