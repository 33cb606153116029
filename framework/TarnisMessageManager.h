#pragma once

#include <cstddef>
#include <deque>
#include <mutex>

namespace velmar {
namespace kolto {

class Object;
class TarnisMessage;

// The process-wide message pool. Unbounded: every recycled message is kept and
// handed out again oldest first; pooled messages are never freed.
class TarnisMessageManager {
public:
    // Made on first use (safe during static initialisation), never destroyed.
    static TarnisMessageManager& getInstance();

    TarnisMessage* obtain(int what, Object* obj, short flags);
    // Resets the message, frees its payloads and pools it. Null is ignored.
    void recycle(TarnisMessage* msg);
    size_t pooled();

private:
    TarnisMessageManager() = default;

    std::mutex lock_;
    std::deque<TarnisMessage*> pool_;
};

}  // namespace kolto
}  // namespace velmar
