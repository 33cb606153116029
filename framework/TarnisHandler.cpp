#include "framework/TarnisHandler.h"

#include <chrono>

#include "framework/TarnisLooper.h"
#include "framework/TarnisMessage.h"
#include "framework/TarnisMessageManager.h"
#include <log/log.h>

#define LOG_TAG "Tarnis-Handler"

namespace velmar {
namespace kolto {

TarnisHandler::TarnisHandler(TarnisLooper* looper, std::function<void(TarnisMessage*)> callback)
    : looper_(looper), callback_(std::move(callback)) {}

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

TarnisMessage* TarnisHandler::postDelayed(std::function<void()> task, long delayMs) {
    TarnisMessage* msg = wrap(std::move(task));
    msg->when = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now().time_since_epoch())
                    .count() +
                delayMs;
    _enqueueMessage(msg);
    return msg;
}

void TarnisHandler::_enqueueMessage(TarnisMessage* msg) {
    if (looper_ == nullptr) {
        ALOGW("[%s] Looper is null!", "_enqueueMessage");
        TarnisMessageManager::getInstance().recycle(msg);
        return;
    }
    msg->target = this;
    looper_->sendMessage(msg);
}

void TarnisHandler::removeMessage(TarnisMessage* msg, bool keep) {
    if (looper_ == nullptr) {
        ALOGE("[%s] Looper is not ready!!", "removeMessage");
        return;
    }
    looper_->queue().removeMessage(msg, keep);
}

bool TarnisHandler::hasMessages(int what) {
    if (looper_ == nullptr) {
        ALOGE("[%s] Looper is not ready!!", "hasMessages");
        return false;
    }
    return looper_->queue().hasMessages(what);
}

bool TarnisHandler::hasMessage(TarnisMessage* msg) {
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
