#pragma once

#include <cstddef>

#include "framework/TarnisFreeList.h"
#include "framework/TarnisMessage.h"

namespace velmar {
namespace kolto {


// The process-wide message pool. Unbounded: every recycled message is kept and
// handed out again oldest first (per thread cache, then the shared list);
// pooled messages are never freed. The pool is threaded through the
// messages' own links, so that pooling never allocates (a std::deque would
// allocate and free a block every few dozen messages as it cycles).
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

    struct Link {
        TarnisMessage*& operator()(TarnisMessage* msg) const { return msg->next; }
    };
    TarnisFreeList<TarnisMessage, Link> pool_;
};

}  // namespace kolto
}  // namespace velmar
