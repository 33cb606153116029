#include "framework/TarnisMessageManager.h"

#include <new>

#include "framework/TarnisMessage.h"
#include "platform/Log.h"

namespace velmar {
namespace kolto {

TarnisMessageManager& TarnisMessageManager::getInstance() {
    static TarnisMessageManager* instance = new TarnisMessageManager;
    return *instance;
}

TarnisMessage* TarnisMessageManager::obtain(int what, Object* obj, short flags) {
    TarnisMessage* msg = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!pool_.empty()) {
            msg = pool_.front();
            pool_.pop_front();
        }
    }
    if (msg == nullptr) {
        msg = new (std::nothrow) TarnisMessage;
        if (msg == nullptr) LOG(FATAL) << "TarnisMessage: out of memory";
    }
    // A pooled message must not carry the due time or the handler of its
    // previous use: a message sent straight to a looper would otherwise be
    // dispatched to a handler that may be gone.
    msg->when = 0;
    msg->target = nullptr;
    msg->what = what;
    msg->obj = obj;
    msg->arg1 = 0;
    msg->arg2 = 0;
    msg->arg3 = 0;
    msg->name = "Undef";
    msg->flags = flags;
    msg->runnable = nullptr;
    return msg;
}

void TarnisMessageManager::recycle(TarnisMessage* msg) {
    if (msg == nullptr) return;
    // Payloads are freed outside the pool lock: their destructors may do
    // anything, including obtaining messages.
    Object* obj = msg->obj;
    TarnisRunnable* runnable = msg->runnable;
    std::shared_ptr<void> data;
    msg->arg1 = 0;
    msg->arg2 = 0;
    msg->arg3 = 0;
    msg->what = -1;
    msg->name = "Undef";
    msg->flags = 1;
    msg->obj = nullptr;
    msg->runnable = nullptr;
    data.swap(msg->data);
    delete obj;
    delete runnable;
    data.reset();
    std::lock_guard<std::mutex> guard(lock_);
    pool_.push_back(msg);
}

size_t TarnisMessageManager::pooled() {
    std::lock_guard<std::mutex> guard(lock_);
    return pool_.size();
}

}  // namespace kolto
}  // namespace velmar
