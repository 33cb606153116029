#pragma once

#include <functional>
#include <memory>

#include "framework/TarnisMessage.h"

namespace velmar {
namespace kolto {

class TarnisLooper;

// Sends messages and posts tasks to one looper. A handler keeps its looper
// alive (not its thread): once the thread has ended, what is sent through
// the handler is dropped. A handler must outlive the messages it sent.
class TarnisHandler {
public:
    TarnisHandler(TarnisLooper* looper, std::function<void(TarnisMessage*)> callback);
    virtual ~TarnisHandler();
    TarnisHandler(const TarnisHandler&) = delete;
    TarnisHandler& operator=(const TarnisHandler&) = delete;

    // Enqueues the message to be dispatched "now".
    void sendMessage(TarnisMessage* msg);
    // Runs `task` on the looper's thread.
    void post(std::function<void()> task);
    // Runs `task` on the looper's thread after `delayMs` (on the process's
    // clock); returns this use of the message carrying it, so that it can be
    // asked for or removed while queued. Once the task has run, the reference
    // matches nothing, even when the pool has handed the message out again.
    TarnisMessageRef postDelayed(std::function<void()> task, long delayMs);

    // Removes that queued message (deleted unless `keep`); false when it is
    // not queued any more.
    bool removeMessage(TarnisMessageRef msg, bool keep);
    bool hasMessages(int what);
    bool hasMessage(TarnisMessageRef msg);

    // Called on the looper's thread for each message sent through this handler.
    virtual void dispatchMessage(TarnisMessage* msg);

    TarnisLooper* getLooper() const { return looper_.get(); }

private:
    TarnisMessage* wrap(std::function<void()> task);
    void _enqueueMessage(TarnisMessage* msg);

    std::shared_ptr<TarnisLooper> looper_;
    std::function<void(TarnisMessage*)> callback_;
};

}  // namespace kolto
}  // namespace velmar
