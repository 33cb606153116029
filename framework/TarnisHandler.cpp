#define LOG_TAG "Tarnis-Handler"

#include "framework/TarnisHandler.h"

#include <log/log.h>

#include "framework/TarnisLooper.h"
#include "framework/TarnisMessage.h"
#include "framework/TarnisMessageManager.h"
#include "utils/Clock.h"

namespace velmar {
namespace kolto {

TarnisHandler::TarnisHandler(TarnisLooper* looper, std::function<void(TarnisMessage*)> callback)
    : looper_(looper != nullptr ? looper->weak_from_this().lock() : nullptr),
      callback_(std::move(callback)) {}

TarnisHandler::~TarnisHandler() { ALOGD("[%s] ~TarnisHandler", "~TarnisHandler"); }

void TarnisHandler::sendMessage(TarnisMessage* msg) {
    if (msg == nullptr) return;
    msg->when = 0;
    _enqueueMessage(msg);
}

TarnisMessage* TarnisHandler::wrap(std::function<void()> task) {
    TarnisMessage* msg = TarnisMessage::obtain(0, nullptr, 1);
    msg->emplaceTask(std::move(task));
    return msg;
}

void TarnisHandler::post(std::function<void()> task) {
    TarnisMessage* msg = wrap(std::move(task));
    msg->when = 0;
    _enqueueMessage(msg);
}

TarnisMessageRef TarnisHandler::postDelayed(std::function<void()> task, long delayMs) {
    TarnisMessage* msg = wrap(std::move(task));
    msg->when = GetClock().SteadyNowMs() + delayMs;
    // Taken before the message is queued: from then on it may run and be
    // reused at any moment.
    TarnisMessageRef ref(msg);
    _enqueueMessage(msg);
    return ref;
}

void TarnisHandler::_enqueueMessage(TarnisMessage* msg) {
    if (looper_ == nullptr) {
        ALOGW("[%s] Looper is null!", "_enqueueMessage");
        TarnisMessageManager::getInstance().recycle(msg);
        return;
    }
    msg->target = this;
    if (!looper_->sendMessage(msg) && looper_->hasEnded()) {
        ALOGW("[%s] Looper has exited, message dropped!", "_enqueueMessage");
    }
}

bool TarnisHandler::removeMessage(TarnisMessageRef msg, bool keep) {
    if (looper_ == nullptr) {
        ALOGE("[%s] Looper is not ready!!", "removeMessage");
        return false;
    }
    return looper_->queue().removeMessage(msg, keep);
}

bool TarnisHandler::hasMessages(int what) {
    if (looper_ == nullptr) {
        ALOGE("[%s] Looper is not ready!!", "hasMessages");
        return false;
    }
    return looper_->queue().hasMessages(what);
}

bool TarnisHandler::hasMessage(TarnisMessageRef msg) {
    if (looper_ == nullptr) {
        ALOGE("[%s] Looper is not ready!!", "hasMessage");
        return false;
    }
    return looper_->queue().hasMessage(msg);
}

void TarnisHandler::dispatchMessage(TarnisMessage* msg) {
    if (callback_ && msg->runnable == nullptr) callback_(msg);
}

}  // namespace kolto
}  // namespace velmar
