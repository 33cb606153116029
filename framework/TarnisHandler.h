#pragma once

#include <functional>

namespace velmar {
namespace kolto {

class TarnisLooper;
class TarnisMessage;

// Sends messages and posts tasks to one looper. A handler does not own its
// looper and must outlive the messages it sent.
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
    // Runs `task` on the looper's thread after `delayMs`; returns the message
    // carrying it, so that it can be asked for or removed while queued.
    TarnisMessage* postDelayed(std::function<void()> task, long delayMs);

    void removeMessage(TarnisMessage* msg, bool keep);
    bool hasMessages(int what);
    bool hasMessage(TarnisMessage* msg);

    // Called on the looper's thread for each message sent through this handler.
    virtual void dispatchMessage(TarnisMessage* msg);

    TarnisLooper* getLooper() const { return looper_; }

private:
    TarnisMessage* wrap(std::function<void()> task);
    void _enqueueMessage(TarnisMessage* msg);

    TarnisLooper* looper_;
    std::function<void(TarnisMessage*)> callback_;
};

}  // namespace kolto
}  // namespace velmar
