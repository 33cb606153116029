#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/Object.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "framework/TarnisLooperManager.h"
#include "framework/TarnisMessage.h"
#include "framework/TarnisMessageManager.h"
#include "framework/TarnisRunnable.h"
#include <log/log.h>
#include "platform/LogCapture.h"

using namespace velmar::kolto;

namespace {

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Records what ran, in order, from any thread.
class Journal {
public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> guard(lock_);
        entries_.push_back(entry);
        cond_.notify_all();
    }
    std::vector<std::string> entries() {
        std::lock_guard<std::mutex> guard(lock_);
        return entries_;
    }
    bool waitFor(size_t count, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> guard(lock_);
        return cond_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                              [&] { return entries_.size() >= count; });
    }

private:
    std::mutex lock_;
    std::condition_variable cond_;
    std::vector<std::string> entries_;
};

// Holds the looper's thread inside a task until released, so that messages
// sent meanwhile pile up in the queue.
class Blocker {
public:
    void block(TarnisHandler& handler) {
        handler.post([this] {
            entered_.set_value();
            release_.get_future().wait();
        });
        ASSERT_EQ(entered_.get_future().wait_for(std::chrono::seconds(5)),
                  std::future_status::ready);
    }
    void release() { release_.set_value(); }

private:
    std::promise<void> entered_;
    std::promise<void> release_;
};

struct CountedObject : Object {
    explicit CountedObject(std::atomic<int>* deleted) : deleted(deleted) {}
    ~CountedObject() override { ++*deleted; }
    std::atomic<int>* deleted;
};

// Sends a task due at an exact time straight to the looper, so that equal due
// times can be made without racing the clock.
void SendAt(TarnisLooper* looper, int64_t when, std::function<void()> task) {
    TarnisMessage* msg = TarnisMessage::obtain(0, nullptr, 1);
    msg->runnable = new TarnisRunnable(std::move(task));
    msg->when = when;
    looper->sendMessage(msg);
}

}  // namespace

TEST(MessageLoop, QueueOrderNowNewestFirstDelayedByTimeThenArrival) {
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopOrder");
    TarnisLooper* looper = thread->getLooper();
    ASSERT_NE(looper, nullptr);
    TarnisHandler handler(looper, nullptr);
    Journal journal;
    Blocker blocker;
    blocker.block(handler);

    int64_t due = NowMs() + 60;
    SendAt(looper, due + 20, [&] { journal.add("late"); });
    SendAt(looper, due, [&] { journal.add("equal-1"); });
    handler.post([&] { journal.add("now-1"); });
    SendAt(looper, due, [&] { journal.add("equal-2"); });
    handler.post([&] { journal.add("now-2"); });
    handler.postDelayed([&] { journal.add("soon"); }, 30);
    EXPECT_EQ(handler.hasMessages(0), true);

    blocker.release();
    ASSERT_TRUE(journal.waitFor(6));
    std::vector<std::string> expected = {"now-2", "now-1", "soon", "equal-1", "equal-2", "late"};
    EXPECT_EQ(journal.entries(), expected);
    delete thread;
}

TEST(MessageLoop, EarlierDelayedMessageWakesTheWaitingTaker) {
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopWake");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;
    std::atomic<int64_t> ranAt{0};

    TarnisMessage* far = handler.postDelayed([&] { journal.add("far"); }, 10000);
    // Let the taker settle into its wait for the far message.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    int64_t posted = NowMs();
    handler.postDelayed(
        [&] {
            ranAt = NowMs();
            journal.add("near");
        },
        40);
    ASSERT_TRUE(journal.waitFor(1, 3000));
    EXPECT_EQ(journal.entries(), std::vector<std::string>{"near"});
    EXPECT_GE(ranAt.load() - posted, 40);
    EXPECT_LT(ranAt.load() - posted, 2000);

    // The far message is still queued; removing it keeps it from ever running.
    EXPECT_TRUE(handler.hasMessage(far));
    handler.removeMessage(far, false);
    EXPECT_FALSE(handler.hasMessages(0));
    delete thread;
    EXPECT_EQ(journal.entries(), std::vector<std::string>{"near"});
}

TEST(MessageLoop, CallbackMessagesAndPriorityQueue) {
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopPrio");
    Journal journal;
    std::atomic<int> deleted{0};
    TarnisHandler handler(thread->getLooper(), [&](TarnisMessage* msg) {
        journal.add(std::to_string(msg->what) + (msg->obj != nullptr ? "+obj" : ""));
    });
    Blocker blocker;
    blocker.block(handler);

    handler.sendMessage(TarnisMessage::obtain(7, nullptr, TarnisMessage::kFlagPriority));
    handler.sendMessage(TarnisMessage::obtain(5, new CountedObject(&deleted), 1));
    EXPECT_TRUE(handler.hasMessages(5));
    // The priority queue is not searched by handlers.
    EXPECT_FALSE(handler.hasMessages(7));
    // Posted tasks do not reach the callback.
    handler.post([&] { journal.add("task"); });

    blocker.release();
    ASSERT_TRUE(journal.waitFor(3));
    // The priority message first although it was sent first into a queue that
    // otherwise serves the newest first.
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"7", "task", "5+obj"}));
    delete thread;
    // The payload went with the message back to the pool.
    EXPECT_EQ(deleted.load(), 1);
}

TEST(MessageLoop, QuitSafelyDispatchesEverythingQueuedIncludingDelayed) {
    platform::LogCapture capture;
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopSafe");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;
    Blocker blocker;
    blocker.block(handler);

    int64_t posted = NowMs();
    std::atomic<int64_t> delayedAt{0};
    handler.post([&] { journal.add("a"); });
    handler.postDelayed(
        [&] {
            delayedAt = NowMs();
            journal.add("delayed");
        },
        2000);
    handler.post([&] { journal.add("b"); });

    EXPECT_TRUE(thread->quitSafely());
    EXPECT_FALSE(thread->quitSafely());
    blocker.release();
    delete thread;  // joins: the loop ends only after the delayed task

    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"b", "a", "delayed"}));
    EXPECT_GE(delayedAt.load() - posted, 2000);
    EXPECT_TRUE(capture.Contains("[quit] Looper quiting...", "Tarnis-TarnisLooper", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(capture.Contains("[_loop] _loop(124) clear message cost ", "Tarnis-TarnisLooper",
                                 ANDROID_LOG_INFO));
    EXPECT_TRUE(capture.Contains("[run] LoopSafe(", "Tarnis-HandlerThread", ANDROID_LOG_INFO));
    EXPECT_TRUE(capture.Contains(") exited.", "Tarnis-HandlerThread", ANDROID_LOG_INFO));
    EXPECT_TRUE(capture.Contains("[~TarnisHandlerThread] ~TarnisHandlerThread Done",
                                 "Tarnis-HandlerThread", ANDROID_LOG_DEBUG));
}

TEST(MessageLoop, QuitDropsQueuedMessagesAndFreesTheirTasks) {
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopQuit");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;
    Blocker blocker;
    blocker.block(handler);

    auto token = std::make_shared<int>(0);
    std::atomic<int> deleted{0};
    handler.post([&, token] { journal.add("a"); });
    handler.postDelayed([&, token] { journal.add("delayed"); }, 2000);
    handler.sendMessage(TarnisMessage::obtain(3, new CountedObject(&deleted), 1));
    EXPECT_EQ(token.use_count(), 3);

    int64_t start = NowMs();
    thread->quit();
    blocker.release();
    delete thread;
    EXPECT_LT(NowMs() - start, 1500);
    EXPECT_TRUE(journal.entries().empty());
    // Dropped messages were deleted with their payloads.
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(deleted.load(), 1);
}

TEST(MessageLoop, GetLooperAfterExitAndHandlerWithoutLooper) {
    platform::LogCapture capture;
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopExit");
    ASSERT_NE(thread->getLooper(), nullptr);
    thread->quit();
    for (int i = 0; i < 500 && !thread->hasExited(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(thread->hasExited());
    EXPECT_EQ(thread->getLooper(), nullptr);
    EXPECT_TRUE(capture.Contains("[getLooper] getLooper() thread had exit.", "Tarnis-HandlerThread",
                                 ANDROID_LOG_INFO));
    EXPECT_FALSE(thread->quitSafely());
    delete thread;

    TarnisHandler orphan(nullptr, nullptr);
    EXPECT_FALSE(orphan.hasMessages(0));
    EXPECT_TRUE(capture.Contains("[hasMessages] Looper is not ready!!", "Tarnis-Handler",
                                 ANDROID_LOG_ERROR));
    EXPECT_FALSE(orphan.hasMessage(nullptr));
    EXPECT_TRUE(capture.Contains("[hasMessage] Looper is not ready!!", "Tarnis-Handler",
                                 ANDROID_LOG_ERROR));
    auto token = std::make_shared<int>(0);
    bool ran = false;
    orphan.post([&ran, token] { ran = true; });
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(ran);
    EXPECT_EQ(capture.Count("[_enqueueMessage] Looper is null!", "Tarnis-Handler", ANDROID_LOG_WARN),
              1u);
}

TEST(MessageLoop, PrepareTwiceAndMyLooperWithoutPrepare) {
    platform::LogCapture capture;
    std::thread worker([] {
        EXPECT_EQ(TarnisLooper::myLooper(), nullptr);
        TarnisLooper::prepare();
        TarnisLooper* first = TarnisLooper::myLooper();
        ASSERT_NE(first, nullptr);
        TarnisLooper::prepare();
        EXPECT_EQ(TarnisLooper::myLooper(), first);
        // A loop quit before it started does not run at all.
        first->quit(false);
        first->_loop();
        EXPECT_FALSE(first->isFinished());
        TarnisLooperManager::getInstance().remove(TarnisLooperManager::currentThreadId());
        EXPECT_EQ(TarnisLooperManager::getInstance().get(TarnisLooperManager::currentThreadId()),
                  nullptr);
    });
    worker.join();
    EXPECT_TRUE(capture.Contains("[myLooper] Call TarnisLooper::prepare first pls.",
                                 "Tarnis-TarnisLooper", ANDROID_LOG_ERROR));
    EXPECT_EQ(capture.Count("[prepare] TarnisLooper::prepare has been called.",
                            "Tarnis-TarnisLooper", ANDROID_LOG_ERROR),
              1u);
    EXPECT_TRUE(capture.Contains("[~TarnisLooper] ~TarnisLooper tid ", "Tarnis-TarnisLooper",
                                 ANDROID_LOG_DEBUG));
}

TEST(MessageLoop, PoolResetsRecycledMessagesAndRunnablesRunOnce) {
    std::atomic<int> deleted{0};
    int runs = 0;
    TarnisMessage* msg = TarnisMessage::obtain(42, new CountedObject(&deleted), 9);
    EXPECT_EQ(msg->what, 42);
    EXPECT_EQ(msg->flags, 9);
    EXPECT_EQ(msg->name, "Undef");
    EXPECT_EQ(msg->runnable, nullptr);
    msg->arg1 = 1;
    msg->arg2 = 2;
    msg->arg3 = 3;
    msg->name = "custom";
    msg->data = std::make_shared<int>(5);
    std::weak_ptr<void> data = msg->data;
    TarnisHandler stale(nullptr, nullptr);
    msg->target = &stale;
    msg->when = 12345;
    msg->runnable = new TarnisRunnable([&runs](Object* o) { runs += o == nullptr ? 1 : 100; });
    msg->runnable->run(nullptr);
    msg->runnable->run(nullptr);
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(msg->runnable->pending());

    TarnisMessageManager& pool = TarnisMessageManager::getInstance();
    size_t before = pool.pooled();
    pool.recycle(msg);
    pool.recycle(nullptr);
    EXPECT_EQ(pool.pooled(), before + 1);
    EXPECT_EQ(deleted.load(), 1);
    EXPECT_TRUE(data.expired());
    EXPECT_EQ(msg->what, -1);
    EXPECT_EQ(msg->flags, 1);
    EXPECT_EQ(msg->name, "Undef");
    EXPECT_EQ(msg->arg1 + msg->arg2 + msg->arg3, 0);
    EXPECT_EQ(msg->obj, nullptr);
    EXPECT_EQ(msg->runnable, nullptr);

    // The recycled message is handed out again, reset for its new use.
    std::vector<TarnisMessage*> taken;
    TarnisMessage* again = nullptr;
    for (size_t i = 0; i <= before && again != msg; ++i) {
        again = TarnisMessage::obtain(8, nullptr, 2);
        taken.push_back(again);
    }
    ASSERT_EQ(again, msg);
    EXPECT_EQ(again->what, 8);
    EXPECT_EQ(again->flags, 2);
    EXPECT_EQ(again->target, nullptr);
    EXPECT_EQ(again->when, 0);
    for (TarnisMessage* m : taken) pool.recycle(m);

    Object a, b;
    EXPECT_TRUE(a.equals(a));
    EXPECT_FALSE(a.equals(b));
}
