#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "utils/StopSignal.h"

namespace velmar {
namespace kolto {

class TarnisHandler;
class TarnisLooper;

// The blocking half of a module: work that waits on sockets, properties,
// files or time runs here, never on the module's handler thread, which must
// stay free for its messages and dump.
//
//   - a thread of its own, named (the kernel shows 15 characters);
//   - one stop signal that every wait of the work ends on (its Sleep, its
//     descriptor in a poll, its flag in a loop);
//   - a join when the module is removed (the destructor), so that nothing of
//     the work outlives the module;
//   - PostToModule, to hand results to the module's handler thread.
//
//     worker_ = std::make_unique<ModuleWorker>("TombstoneMon", handlerThread->getLooper());
//     worker_->Start([this](StopSignal& stop) { Watch(stop); });
class ModuleWorker {
public:
    enum class State { kNotStarted, kRunning, kFinished, kStopped };

    // `looper` is the module's handler thread's looper; results posted go
    // there. It may be null here and given to Start instead: a module makes
    // its worker in OnInit, before its handler thread exists, so that its
    // dump, which runs on any thread, never sees the member change.
    ModuleWorker(std::string name, TarnisLooper* looper);
    // Stops and joins the work.
    ~ModuleWorker();
    ModuleWorker(const ModuleWorker&) = delete;
    ModuleWorker& operator=(const ModuleWorker&) = delete;

    // Runs `body` on the worker's thread, once; false when it was started
    // before or no thread could be made (logged).
    bool Start(std::function<void(StopSignal& stop)> body);
    bool Start(TarnisLooper* looper, std::function<void(StopSignal& stop)> body);
    // Ends every wait of the work on the stop signal and joins the thread.
    // Any thread but the worker's own; safe to call repeatedly.
    void Stop();
    // Runs `task` on the module's handler thread, unless a stop was
    // requested: a module going away gets no more results.
    void PostToModule(std::function<void()> task);

    StopSignal& stopSignal() { return shared_->stop; }
    bool StopRequested() const { return shared_->stop.Requested(); }
    State state() const;
    // One line for the module's dump: "<name>: running", "finished", ...
    std::string Describe() const;
    const std::string& name() const { return name_; }

private:
    // What the thread touches: kept alive by the thread itself, so that a
    // worker that had to let its thread go (a stop from the work itself)
    // never leaves it reading a destroyed object.
    struct Shared {
        StopSignal stop;
        std::atomic<bool> finished{false};
    };

    const std::string name_;
    std::unique_ptr<TarnisHandler> handler_;
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    std::mutex lock_;
    std::thread thread_;
    std::atomic<bool> started_{false};
};

}  // namespace kolto
}  // namespace velmar
