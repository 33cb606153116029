#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <log/log.h>

#include "framework/Object.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "framework/TarnisLooperManager.h"
#include "framework/TarnisMessage.h"
#include "framework/TarnisMessageManager.h"
#include "framework/TarnisRunnable.h"
#include "platform/LogCapture.h"
#include "tests/support/FwRecording.h"
#include "tests/support/LogLines.h"
#include "tests/support/TestClock.h"
#include "tests/support/WaitFor.h"

using namespace velmar::kolto;
using tarnis_test::CountExact;
using tarnis_test::TestClock;

namespace {

constexpr long kHourMs = 3600L * 1000;
constexpr long kDayMs = 24 * kHourMs;
constexpr char kLooperTag[] = "Tarnis-TarnisLooper";
constexpr char kThreadTag[] = "Tarnis-HandlerThread";
using List = std::vector<std::string>;

// The kernel thread id of the looper's thread, as its log lines give it.
int LooperTid(TarnisHandler& handler) {
    auto tid = std::make_shared<std::atomic<int>>(-1);
    handler.post([tid] { *tid = static_cast<int>(syscall(SYS_gettid)); });
    EXPECT_TRUE(tarnis_test::WaitFor([tid] { return *tid != -1; })) << "the looper never ran";
    return *tid;
}

std::string LooperGone(long tid) { return "[~TarnisLooper] ~TarnisLooper tid " + std::to_string(tid); }

struct CountedObject : Object {
    explicit CountedObject(std::atomic<int>* deleted) : deleted(deleted) {}
    ~CountedObject() override { ++*deleted; }
    std::atomic<int>* deleted;
};

// A handler thread on the test clock, a journal of what ran, a blocker to pile messages up behind.
class MessageLoop : public ::testing::Test {
protected:
    void SetUp() override { clock.Install(); }
    void TearDown() override {
        blocker.Release();
        EXPECT_TRUE(DeleteInTime());
    }
    void Start(const char* name, std::function<void(TarnisMessage*)> callback = nullptr) {
        thread = TarnisHandlerThread::create(name);
        ASSERT_NE(thread->getLooper(), nullptr);
        handler = std::make_unique<TarnisHandler>(thread->getLooper(), std::move(callback));
    }
    // False after ten seconds, the clock then moved two days on so that a loop still waiting lets go.
    bool DeleteInTime() {
        std::promise<void> deleted;
        std::future<void> done = deleted.get_future();
        std::thread deleter([going = thread, &deleted] {
            delete going;
            deleted.set_value();
        });
        thread = nullptr;
        const bool inTime = done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        if (!inTime) clock.Advance(2 * kDayMs);
        deleter.join();
        return inTime;
    }
    TarnisMessageRef AddLater(const std::string& entry, int64_t delayMs, std::shared_ptr<int> token = nullptr) {
        return handler->postDelayed([this, entry, token] { journal.Add(entry); }, delayMs);
    }
    void Add(const std::string& entry) { handler->post([this, entry] { journal.Add(entry); }); }

    TestClock clock;
    platform::LogCapture capture;
    tarnis_test::Journal journal;
    tarnis_test::LooperBlocker blocker;
    std::unique_ptr<TarnisHandler> handler;
    TarnisHandlerThread* thread = nullptr;
};

}  // namespace

// Now: newest first; delayed: by due time, ties in the order sent, not a millisecond early; removed: never.
TEST_F(MessageLoop, OrderAndDueTimesOfQueuedMessages) {
    Start("LoopOrder");
    blocker.Block(*handler);
    AddLater("day+1ms", kDayMs + 1);
    AddLater("hour-1", kHourMs);
    Add("now-1");
    TarnisMessageRef removed = AddLater("removed", kHourMs - 1);
    AddLater("hour-2", kHourMs);
    Add("now-2");
    AddLater("day", kDayMs);
    EXPECT_TRUE(handler->removeMessage(removed, false));
    EXPECT_FALSE(handler->hasMessage(removed));
    EXPECT_FALSE(handler->removeMessage(removed, false));
    blocker.Release();
    ASSERT_TRUE(clock.WaitForWaiters(1));
    // Due before the hour waited for: the taker waits anew (counted, as moving the clock would wake it anyway).
    const uint64_t waits = clock.WaitsBegun();
    AddLater("soon", 30);
    ASSERT_TRUE(clock.WaitForWaitsBegun(waits + 1));

    // Each step waits until the loop went back to waiting: what fell due ran, nothing else.
    const List order = {"now-2", "now-1", "soon", "hour-1", "hour-2", "day", "day+1ms"};
    const struct {
        int64_t advanceMs;
        long ran;
    } steps[] = {{0, 2}, {29, 2}, {1, 3}, {kHourMs - 31, 3}, {1, 5}, {kDayMs - kHourMs - 1, 5}, {1, 6}};
    for (const auto& step : steps) {
        clock.Advance(step.advanceMs);
        ASSERT_TRUE(clock.WaitForWaiters(1));
        EXPECT_EQ(journal.Entries(), List(order.begin(), order.begin() + step.ran)) << "at " << clock.SteadyNowMs();
    }
    // The last one leaves the loop waiting on an empty queue, not the clock.
    clock.Advance(1);
    ASSERT_TRUE(journal.WaitForSize(order.size()));
    EXPECT_EQ(journal.Entries(), order);
    EXPECT_FALSE(handler->hasMessages(0));
}

TEST_F(MessageLoop, CallbackMessagesAndPriorityQueue) {
    std::atomic<int> deleted{0};
    Start("LoopPrio", [&](TarnisMessage* msg) {
        journal.Add(std::to_string(msg->what) + (msg->obj != nullptr ? "+obj" : ""));
    });
    blocker.Block(*handler);
    handler->sendMessage(TarnisMessage::obtain(7, nullptr, TarnisMessage::kFlagPriority));
    handler->sendMessage(TarnisMessage::obtain(5, new CountedObject(&deleted), 1));
    EXPECT_TRUE(handler->hasMessages(5));
    // The priority queue is not searched by handlers.
    EXPECT_FALSE(handler->hasMessages(7));
    // Posted tasks do not reach the callback.
    Add("task");
    blocker.Release();
    // The priority message first, though sent first into a queue that serves the newest first.
    ASSERT_TRUE(journal.WaitForSize(3));
    EXPECT_EQ(journal.Entries(), (List{"7", "task", "5+obj"}));

    // A priority message reaches a loop waiting on an empty queue or on one due in a day.
    handler->sendMessage(TarnisMessage::obtain(8, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.WaitForSize(4));
    TarnisMessageRef tomorrow = AddLater("tomorrow", kDayMs);
    handler->sendMessage(TarnisMessage::obtain(9, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.WaitForSize(5));
    EXPECT_EQ(journal.Entries(), (List{"7", "task", "5+obj", "8", "9"}));
    EXPECT_TRUE(handler->hasMessage(tomorrow));
    ASSERT_TRUE(DeleteInTime());
    EXPECT_EQ(deleted.load(), 1);
}

// The destructor's quit is not safe: it ends the wait for a message due tomorrow, which never runs.
TEST_F(MessageLoop, QuitSafelyRunsWhatFallsDueUntilTheThreadIsDestroyed) {
    Start("LoopSafe");
    const int tid = LooperTid(*handler);
    blocker.Block(*handler);
    auto token = std::make_shared<int>(0);
    Add("a");
    AddLater("delayed", 2000);
    Add("b");
    AddLater("tomorrow", kDayMs, token);
    EXPECT_TRUE(thread->quitSafely());
    EXPECT_FALSE(thread->quitSafely());
    blocker.Release();
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.Entries(), (List{"b", "a"}));
    clock.Advance(2000);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.Entries(), (List{"b", "a", "delayed"}));
    EXPECT_FALSE(thread->hasExited());
    ASSERT_TRUE(DeleteInTime());
    EXPECT_EQ(journal.Entries(), (List{"b", "a", "delayed"}));
    EXPECT_EQ(token.use_count(), 1);

    const std::string name = "LoopSafe(" + std::to_string(tid) + ")";
    const std::tuple<std::string, const char*, int> lines[] = {  // text, tag, priority
        {"[quit] Looper quiting...", kLooperTag, ANDROID_LOG_DEBUG},
        {"[quit] queue notified..", kLooperTag, ANDROID_LOG_DEBUG},
        {"[quit] Looper stops waiting for delayed messages", kLooperTag, ANDROID_LOG_DEBUG},
        // The drain is timed on the process's clock, which stood still.
        {"[_loop] _loop(124) clear message cost 0 us.", kLooperTag, ANDROID_LOG_INFO},
        {"[run] " + name + " entered loop.", kThreadTag, ANDROID_LOG_INFO},
        {"[run] " + name + " exit loop.", kThreadTag, ANDROID_LOG_INFO},
        {"[run] " + name + " exited.", kThreadTag, ANDROID_LOG_INFO},
        {"[~TarnisHandlerThread] ~TarnisHandlerThread", kThreadTag, ANDROID_LOG_DEBUG},
        {"[~TarnisHandlerThread] ~TarnisHandlerThread Done", kThreadTag, ANDROID_LOG_DEBUG},
    };
    for (const auto& [text, tag, prio] : lines) EXPECT_EQ(CountExact(capture, text, tag, prio), 1u) << text;
}

// What is dropped lets go of the tasks and payloads it holds.
TEST_F(MessageLoop, QuitDropsWhatIsQueuedAndEndsAWaitAtOnce) {
    for (bool busy : {false, true}) {
        SCOPED_TRACE(busy ? "quit while busy" : "quit while waiting");
        platform::LogCapture log;
        Start("LoopQuit");
        tarnis_test::LooperBlocker busyWith;
        auto token = std::make_shared<int>(0);
        std::atomic<int> deleted{0};
        if (busy) {
            busyWith.Block(*handler);
            handler->post([this, token] { journal.Add("now"); });
            handler->sendMessage(TarnisMessage::obtain(3, new CountedObject(&deleted), 1));
        }
        AddLater("tomorrow", kDayMs, token);
        AddLater("later", kDayMs + 1, token);
        if (!busy) {
            ASSERT_TRUE(clock.WaitForWaiters(1));
        }

        thread->quit();
        busyWith.Release();
        ASSERT_TRUE(tarnis_test::WaitFor([this] { return thread->hasExited(); }));
        EXPECT_EQ(thread->getLooper(), nullptr);
        EXPECT_FALSE(thread->quitSafely());
        ASSERT_TRUE(DeleteInTime());
        EXPECT_EQ(token.use_count(), 1);
        EXPECT_EQ(deleted.load(), busy ? 1 : 0);
        EXPECT_EQ(CountExact(log, "[getLooper] getLooper() thread had exit.", kThreadTag, ANDROID_LOG_INFO), 1u);
        clock.Advance(2 * kDayMs);
        EXPECT_FALSE(handler->hasMessages(0));
        EXPECT_TRUE(journal.Entries().empty());
    }
}

// No looper, one that ended after looping, or one quit before its loop started: each call says why.
TEST_F(MessageLoop, AHandlerWithoutALiveLooperDropsWhatItSends) {
    for (const char* kind : {"no looper", "after looping", "quit at once"}) {
        SCOPED_TRACE(kind);
        const bool none = kind == std::string("no looper");
        TarnisHandlerThread* gone = none ? nullptr : TarnisHandlerThread::create("LoopGone");
        auto orphan = std::make_unique<TarnisHandler>(none ? nullptr : gone->getLooper(), [](TarnisMessage*) {
            ADD_FAILURE() << "dispatched without a live looper";
        });
        if (kind == std::string("after looping")) LooperTid(*orphan);
        thread = gone;
        ASSERT_TRUE(DeleteInTime());

        platform::LogCapture log;
        auto token = std::make_shared<int>(0);
        std::atomic<int> deleted{0};
        orphan->post([token] {});
        TarnisMessageRef later = orphan->postDelayed([token] {}, 10);
        orphan->sendMessage(TarnisMessage::obtain(3, new CountedObject(&deleted), 1));
        EXPECT_EQ(token.use_count(), 1);
        EXPECT_EQ(deleted.load(), 1);
        EXPECT_FALSE(orphan->hasMessages(0));
        EXPECT_FALSE(orphan->hasMessage(later));
        EXPECT_FALSE(orphan->removeMessage(later, false));
        EXPECT_EQ(CountExact(log, none ? "[_enqueueMessage] Looper is null!"
                                       : "[_enqueueMessage] Looper has exited, message dropped!",
                             "Tarnis-Handler", ANDROID_LOG_WARN),
                  3u);
        for (const std::string method : {"hasMessages", "hasMessage", "removeMessage"}) {
            EXPECT_EQ(CountExact(log, "[" + method + "] Looper is not ready!!", "Tarnis-Handler", ANDROID_LOG_ERROR),
                      none ? 1u : 0u);
        }
        // A handler of a thread that ended held the last share of its looper.
        orphan.reset();
        EXPECT_EQ(CountExact(log, LooperGone(TarnisLooperManager::currentThreadId()), kLooperTag, ANDROID_LOG_DEBUG),
                  none ? 0u : 1u);
    }
}

TEST_F(MessageLoop, PrepareTwiceAndMyLooperWithoutPrepare) {
    long workerTid = 0;
    std::thread worker([&workerTid] {
        workerTid = TarnisLooperManager::currentThreadId();
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
    });
    worker.join();
    EXPECT_EQ(CountExact(capture, "[myLooper] Call TarnisLooper::prepare first pls.", kLooperTag, ANDROID_LOG_ERROR),
              1u);
    EXPECT_EQ(CountExact(capture, "[prepare] TarnisLooper::prepare has been called.", kLooperTag, ANDROID_LOG_ERROR),
              1u);
    // The registry held the only share: the looper went with it, on the worker's thread.
    EXPECT_EQ(CountExact(capture, LooperGone(workerTid), kLooperTag, ANDROID_LOG_DEBUG), 1u);
}

// Back from the pool, a message has let go of its payloads and keeps nothing of its former use.
TEST_F(MessageLoop, ARecycledMessageIsResetAndAStaleReferenceMissesItsNextUse) {
    Start("LoopReuse", [this](TarnisMessage* msg) { journal.Add(std::to_string(msg->what)); });
    std::atomic<int> deleted{0};
    TarnisMessage* msg = TarnisMessage::obtain(42, new CountedObject(&deleted), 9);
    const TarnisMessageRef first(msg);
    msg->arg1 = 1;
    msg->data = std::make_shared<int>(5);
    std::weak_ptr<void> data = msg->data;
    msg->runnable = new TarnisRunnable([](Object*) {});
    TarnisMessageManager& pool = TarnisMessageManager::getInstance();
    const size_t before = pool.pooled();
    pool.recycle(msg);
    pool.recycle(nullptr);
    EXPECT_EQ(deleted.load(), 1);
    EXPECT_TRUE(data.expired());

    std::vector<TarnisMessage*> others;
    TarnisMessage* again = TarnisMessage::obtain(8, nullptr, 2);
    for (size_t i = 0; i < before && again != msg; ++i) {
        others.push_back(again);
        again = TarnisMessage::obtain(8, nullptr, 2);
    }
    for (TarnisMessage* other : others) pool.recycle(other);
    ASSERT_EQ(again, msg);
    EXPECT_EQ(again->flags, 2);
    EXPECT_EQ(again->arg1, 0);
    EXPECT_EQ(again->obj, nullptr);

    blocker.Block(*handler);
    const TarnisMessageRef second(again);
    handler->sendMessage(again);
    EXPECT_FALSE(handler->hasMessage(first));
    EXPECT_FALSE(handler->removeMessage(first, false));
    EXPECT_FALSE(handler->removeMessage(first, true));
    EXPECT_TRUE(handler->hasMessage(second));
    blocker.Release();
    ASSERT_TRUE(journal.WaitForSize(1));
    EXPECT_EQ(journal.Entries(), List{"8"});
}
