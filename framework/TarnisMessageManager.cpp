#include "framework/TarnisMessageManager.h"

#include <new>

#include <android-base/logging.h>

#include "framework/TarnisMessage.h"

namespace velmar {
namespace kolto {

TarnisMessageManager& TarnisMessageManager::getInstance() {
    static TarnisMessageManager* instance = new TarnisMessageManager;
    return *instance;
}

TarnisMessage* TarnisMessageManager::obtain(int what, Object* obj, short flags) {
    TarnisMessage* msg = pool_.take();
    if (msg == nullptr) {
        msg = new (std::nothrow) TarnisMessage;
        if (msg == nullptr) LOG(FATAL) << "TarnisMessage: out of memory";
    }
    // Recycling already reset the argument words, the name and the runnable;
    // a pooled message must not carry the due time or the handler of its
    // previous use either: a message sent straight to a looper would
    // otherwise be dispatched to a handler that may be gone.
    msg->when = 0;
    msg->target = nullptr;
    ++msg->use_;
    msg->what = what;
    msg->obj = obj;
    msg->flags = flags;
    return msg;
}

void TarnisMessageManager::recycle(TarnisMessage* msg) {
    if (msg == nullptr) return;
    // Payloads are freed outside the pool lock: their destructors may do
    // anything, including obtaining messages.
    Object* obj = msg->obj;
    std::shared_ptr<void> data;
    msg->arg1 = 0;
    msg->arg2 = 0;
    msg->arg3 = 0;
    msg->what = -1;
    if (msg->name != "Undef") msg->name = "Undef";
    msg->flags = 1;
    msg->obj = nullptr;
    data.swap(msg->data);
    delete obj;
    msg->releaseRunnable();
    data.reset();
    pool_.give(msg);
}

size_t TarnisMessageManager::pooled() {
    return pool_.size();
}

}  // namespace kolto
}  // namespace velmar
