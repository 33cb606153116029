#pragma once

#include <cstdint>
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
class TarnisMessage {
public:
    // Routes the message to the looper's priority queue.
    static constexpr short kFlagPriority = 4;

    int32_t what = 0;
    // Due time in steady-clock milliseconds; 0 means "now".
    int64_t when = 0;
    int32_t arg1 = 0;
    int64_t arg2 = 0;
    int64_t arg3 = 0;
    std::string name = "Undef";
    Object* obj = nullptr;
    TarnisRunnable* runnable = nullptr;
    std::shared_ptr<void> data;
    short flags = 0;
    TarnisHandler* target = nullptr;

    // The oldest pooled message, reinitialised, or a new one.
    static TarnisMessage* obtain(int what, Object* obj, short flags);

    TarnisMessage() = default;
    // Deletes the payloads the message still owns.
    ~TarnisMessage();
    TarnisMessage(const TarnisMessage&) = delete;
    TarnisMessage& operator=(const TarnisMessage&) = delete;

private:
    friend class TarnisMessageQueue;
    // Link of the queue the message is in; queues are intrusive lists so that
    // enqueuing never allocates.
    TarnisMessage* next = nullptr;
};

}  // namespace kolto
}  // namespace velmar
