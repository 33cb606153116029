#define LOG_TAG "Tarnis-ModuleWorker"

#include "framework/ModuleWorker.h"

#include <pthread.h>

#include <system_error>
#include <utility>

#include <log/log.h>

#include "framework/TarnisHandler.h"

namespace velmar {
namespace kolto {

ModuleWorker::ModuleWorker(std::string name, TarnisLooper* looper)
    : name_(std::move(name)),
      handler_(looper != nullptr ? std::make_unique<TarnisHandler>(looper, nullptr) : nullptr) {}

ModuleWorker::~ModuleWorker() { Stop(); }

bool ModuleWorker::Start(std::function<void(StopSignal& stop)> body) { return Start(nullptr, std::move(body)); }

bool ModuleWorker::Start(TarnisLooper* looper, std::function<void(StopSignal& stop)> body) {
    std::lock_guard<std::mutex> guard(lock_);
    if (started_.load() || shared_->stop.Requested()) return false;
    // Made before the thread starts, which is all the thread reads it after.
    if (looper != nullptr && handler_ == nullptr) handler_ = std::make_unique<TarnisHandler>(looper, nullptr);
    try {
        // The kernel keeps 15 characters of a thread's name.
        thread_ = std::thread([shared = shared_, name = name_.substr(0, 15), body = std::move(body)] {
            pthread_setname_np(pthread_self(), name.c_str());
            body(shared->stop);
            shared->finished.store(true);
        });
    } catch (const std::system_error& e) {
        ALOGE("[%s] %s: no thread: %s", "Start", name_.c_str(), e.what());
        return false;
    }
    started_.store(true);
    return true;
}

void ModuleWorker::Stop() {
    shared_->stop.Request();
    std::lock_guard<std::mutex> guard(lock_);
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
        // The work stopping itself: a thread cannot join itself; it ends by
        // returning, holding what it touches.
        thread_.detach();
        return;
    }
    thread_.join();
}

void ModuleWorker::PostToModule(std::function<void()> task) {
    if (shared_->stop.Requested() || handler_ == nullptr) return;
    handler_->post(std::move(task));
}

ModuleWorker::State ModuleWorker::state() const {
    if (!started_.load()) return State::kNotStarted;
    const bool stopped = shared_->stop.Requested();
    if (shared_->finished.load()) return stopped ? State::kStopped : State::kFinished;
    return stopped ? State::kStopped : State::kRunning;
}

std::string ModuleWorker::Describe() const {
    static const char* const kNames[] = {"not started", "running", "finished", "stopped"};
    return name_ + ": " + kNames[static_cast<int>(state())];
}

}  // namespace kolto
}  // namespace velmar
