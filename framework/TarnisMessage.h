#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "framework/Object.h"
#include "framework/TarnisRunnable.h"

namespace velmar {
namespace kolto {

class TarnisHandler;

// One unit of work for a looper: a code for a handler's callback, or a task.
// Messages come from the process-wide pool (TarnisMessageManager) and go back
// to it after dispatch; `obj` and `runnable` are owned by the message.
class alignas(64) TarnisMessage {
public:
    // Routes the message to the looper's priority queue.
    static constexpr short kFlagPriority = 4;

    // The fields every send and dispatch touch come first, in one cache
    // line; the argument words, the label and the shared payload follow.
    int32_t what = 0;
    short flags = 0;
    // Due time in steady-clock milliseconds; 0 means "now".
    int64_t when = 0;
    Object* obj = nullptr;
    TarnisRunnable* runnable = nullptr;
    TarnisHandler* target = nullptr;

private:
    friend class TarnisMessageQueue;
    friend class TarnisMessageManager;
    friend class TarnisMessageRef;
    // Link of the queue or pool the message is in; both are intrusive lists
    // so that sending and recycling never allocate.
    TarnisMessage* next = nullptr;
    // Counts the uses of this message object: raised each time the pool hands
    // it out, so that a reference to an earlier use no longer matches.
    uint64_t use_ = 0;

public:
    // Makes the runnable for a posted task in the message's own storage, so
    // that the task travels to the looper's thread with the message instead
    // of in a block of its own. It is destroyed like any other runnable when
    // the message is recycled or deleted.
    TarnisRunnable* emplaceTask(std::function<void()> task);
    // Destroys and clears `runnable`, wherever it lives.
    void releaseRunnable();

private:
    alignas(64) unsigned char taskStorage_[sizeof(TarnisRunnable)];

public:
    int32_t arg1 = 0;
    int64_t arg2 = 0;
    int64_t arg3 = 0;
    std::string name = "Undef";
    std::shared_ptr<void> data;

    // The oldest pooled message, reinitialised, or a new one.
    static TarnisMessage* obtain(int what, Object* obj, short flags);

    TarnisMessage() = default;
    // Deletes the payloads the message still owns.
    ~TarnisMessage();
    TarnisMessage(const TarnisMessage&) = delete;
    TarnisMessage& operator=(const TarnisMessage&) = delete;
};

// One use of a message: what postDelayed returns, and what removeMessage and
// hasMessage look for. Messages go back to the pool after dispatch and are
// handed out again, so a pointer kept past its message's dispatch may point at
// a later user's message; a reference to the earlier use no longer matches it,
// and removing or asking by that reference does nothing.
class TarnisMessageRef {
public:
    TarnisMessageRef() = default;
    // The message in its current use; null refers to nothing. Only for a
    // message the caller knows to be in that use (it obtained it and has not
    // let it go); keep the reference, not the pointer.
    TarnisMessageRef(TarnisMessage* msg) : msg_(msg), use_(msg != nullptr ? msg->use_ : 0) {}

    // The message object, whatever its current use. Needed to take back a
    // message removed with `keep`; never to be used after the message ran.
    TarnisMessage* get() const { return msg_; }
    explicit operator bool() const { return msg_ != nullptr; }
    // True when `msg` is the message of this use. `msg` must be a live
    // message that is not being reused meanwhile (one held in a queue).
    bool refersTo(const TarnisMessage* msg) const { return msg == msg_ && msg->use_ == use_; }

private:
    TarnisMessage* msg_ = nullptr;
    uint64_t use_ = 0;
};

}  // namespace kolto
}  // namespace velmar
