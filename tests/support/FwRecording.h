#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/BroadcastReceiver.h"
#include "framework/Intent.h"
#include "framework/IntentFilter.h"
#include "framework/InternalBroadcastManager.h"
#include "framework/TarnisHandler.h"
#include "tests/support/LooperIdle.h"
#include "tests/support/WaitFor.h"

// What the framework and service suites record from other threads: tasks
// that ran, broadcasts received, and a looper held busy meanwhile.
namespace tarnis_test {

// Once every looper ran what is due (a marker task would jump the "now" messages).
inline void DrainManagerThread() {
    ASSERT_TRUE(WaitAllLoopersIdle(std::chrono::seconds(10))) << "the manager thread stayed busy";
}

// Entries made from any thread, in order; the waits give up after ten seconds.
class Journal {
public:
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> guard(lock_);
        entries_.push_back(entry);
    }
    std::vector<std::string> Entries() const {
        std::lock_guard<std::mutex> guard(lock_);
        return entries_;
    }
    size_t Count(const std::string& entry) const {
        const std::vector<std::string> all = Entries();
        return static_cast<size_t>(std::count(all.begin(), all.end(), entry));
    }
    bool WaitForSize(size_t size) const { return WaitFor([&] { return Entries().size() >= size; }); }
    bool WaitForCount(const std::string& entry, size_t count = 1) const {
        return WaitFor([&] { return Count(entry) >= count; });
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> entries_;
};

// Keeps every intent it receives, each after `delay`.
class RecordingReceiver : public velmar::kolto::BroadcastReceiver {
public:
    explicit RecordingReceiver(std::chrono::milliseconds delay = std::chrono::milliseconds(0)) : delay_(delay) {}
    void onReceive(velmar::kolto::Intent intent) const override {
        std::this_thread::sleep_for(delay_);
        std::lock_guard<std::mutex> guard(lock_);
        received_.push_back(std::move(intent));
    }
    bool Wait(size_t count) const { return WaitFor([&] { return Received().size() >= count; }); }
    std::vector<velmar::kolto::Intent> Received() const {
        std::lock_guard<std::mutex> guard(lock_);
        return received_;
    }

private:
    const std::chrono::milliseconds delay_;
    mutable std::mutex lock_;
    mutable std::vector<velmar::kolto::Intent> received_;
};

// Registered with the internal manager for `action` while it exists.
class InternalReceiver : public RecordingReceiver {
public:
    explicit InternalReceiver(const std::string& action,
                              std::chrono::milliseconds delay = std::chrono::milliseconds(0))
        : RecordingReceiver(delay) {
        velmar::kolto::InternalBroadcastManager::registerReceiver(this, velmar::kolto::IntentFilter({action}));
    }
    ~InternalReceiver() override { velmar::kolto::InternalBroadcastManager::unregisterReceiver(this); }
};

// Holds a looper's thread in a task until Release() or its end, so that what is
// sent meanwhile piles up; the task keeps its share of the release past the blocker.
class LooperBlocker {
public:
    ~LooperBlocker() { Release(); }
    void Block(velmar::kolto::TarnisHandler& handler) {
        auto entered = std::make_shared<std::promise<void>>();
        std::future<void> running = entered->get_future();
        handler.post([entered, released = released_] {
            entered->set_value();
            released.wait();
        });
        ASSERT_EQ(running.wait_for(std::chrono::seconds(10)), std::future_status::ready)
            << "the looper never took the blocking task";
    }
    void Release() {
        if (!done_.exchange(true)) release_.set_value();
    }

private:
    std::promise<void> release_;
    std::shared_future<void> released_ = release_.get_future().share();
    std::atomic<bool> done_{false};
};

}  // namespace tarnis_test
