#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace velmar {
namespace kolto {

class TarnisLooper;

// The registry of loopers by thread (the pthread_t as a signed 64-bit value).
// It holds a share of each looper while its thread runs; handlers and handler
// threads hold theirs, so a looper lives until the last of them lets go.
class TarnisLooperManager {
public:
    // Made on first use (safe during static initialisation), never destroyed.
    static TarnisLooperManager& getInstance();
    static long currentThreadId();

    // Creates and enters the calling thread's looper unless it has one.
    TarnisLooper* prepare();
    // The looper of that thread, or null.
    TarnisLooper* get(long tid);
    // A share of the looper of that thread, or null.
    std::shared_ptr<TarnisLooper> share(long tid);
    // Every looper whose thread holds it now.
    std::vector<std::shared_ptr<TarnisLooper>> loopers();
    // Forgets the looper of that thread, if any: from then on it refuses
    // every message. Lets go of the registry's share (deleting the looper
    // when nobody else holds one).
    void remove(long tid);

private:
    TarnisLooperManager() = default;

    std::mutex lock_;
    std::map<long, std::shared_ptr<TarnisLooper>> loopers_;
};

}  // namespace kolto
}  // namespace velmar
