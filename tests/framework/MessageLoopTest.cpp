#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
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
    auto tid = std::make_shared<std::promise<int>>();
    handler.post([tid] { tid->set_value(static_cast<int>(syscall(SYS_gettid))); });
    std::future<int> got = tid->get_future();
    EXPECT_EQ(got.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "the looper never ran";
    return got.valid() && got.wait_for(std::chrono::seconds(0)) == std::future_status::ready ? got.get() : -1;
}

struct CountedObject : Object {
    explicit CountedObject(std::atomic<int>* deleted) : deleted(deleted) {}
    ~CountedObject() override { ++*deleted; }
    std::atomic<int>* deleted;
};

// A handler thread on the test clock, with a journal of what ran and a
// blocker to pile messages up behind a task; the thread goes at the end of
// the test unless the test deleted it itself.
class MessageLoop : public ::testing::Test {
protected:
    void SetUp() override { clock.Install(); }
    void TearDown() override {
        blocker.Release();
        delete thread;
    }
    void Start(const char* name, std::function<void(TarnisMessage*)> callback = nullptr) {
        thread = TarnisHandlerThread::create(name);
        looper = thread->getLooper();
        ASSERT_NE(looper, nullptr);
        handler = std::make_unique<TarnisHandler>(looper, std::move(callback));
    }
    // Quit and joined on a helper thread. False when that took longer than
    // ten seconds; the clock is then moved two days on so that a loop still
    // waiting for a delayed message lets go, and the test fails instead of hanging.
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
    void Add(const std::string& entry) {
        handler->post([this, entry] { journal.Add(entry); });
    }

    TestClock clock;
    platform::LogCapture capture;
    tarnis_test::Journal journal;
    tarnis_test::LooperBlocker blocker;
    std::unique_ptr<TarnisHandler> handler;
    TarnisHandlerThread* thread = nullptr;
    TarnisLooper* looper = nullptr;
};

}  // namespace

// Messages for now run newest first; delayed ones by due time, equal times in
// the order sent, each exactly when due and not a millisecond before.
TEST_F(MessageLoop, OrderAndDueTimesOfQueuedMessages) {
    Start("LoopOrder");
    blocker.Block(*handler);
    const auto real = std::chrono::steady_clock::now();
    AddLater("day+1ms", kDayMs + 1);
    AddLater("hour-1", kHourMs);
    Add("now-1");
    AddLater("hour-2", kHourMs);
    Add("now-2");
    AddLater("soon", 30);
    AddLater("day", kDayMs);
    blocker.Release();

    // Each step waits until the loop has looked at the new time and gone back
    // to waiting: whatever fell due has run by then, and nothing else has.
    const List now = {"now-2", "now-1"};
    const List soon = {"now-2", "now-1", "soon"};
    const List hour = {"now-2", "now-1", "soon", "hour-1", "hour-2"};
    const List day = {"now-2", "now-1", "soon", "hour-1", "hour-2", "day"};
    const struct {
        int64_t advanceMs;
        List ran;
    } steps[] = {{0, now},  {29, now},  {1, soon}, {kHourMs - 31, soon}, {1, hour}, {kDayMs - kHourMs - 1, hour},
                 {1, day}};
    for (const auto& step : steps) {
        clock.Advance(step.advanceMs);
        ASSERT_TRUE(clock.WaitForWaiters(1));
        EXPECT_EQ(journal.Entries(), step.ran) << "at " << clock.SteadyNowMs();
    }
    // The last one leaves the loop waiting on an empty queue, not the clock.
    clock.Advance(1);
    ASSERT_TRUE(journal.WaitForSize(day.size() + 1));
    EXPECT_EQ(journal.Entries().back(), "day+1ms");
    EXPECT_FALSE(handler->hasMessages(0));
    // A day went by on the clock, not in the test.
    EXPECT_LT(std::chrono::steady_clock::now() - real, std::chrono::seconds(30));
}

TEST_F(MessageLoop, EarlierDelayedMessageWakesTheWaitingTakerAndRemovedOnesNeverRun) {
    Start("LoopWake");
    TarnisMessageRef far = AddLater("far", 10000);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    const uint64_t waits = clock.WaitsBegun();
    // Due after the message waited for: inserted behind it, the wait goes on.
    AddLater("later", 20000);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(clock.WaitsBegun(), waits);
    // Due before it: the taker wakes and waits again, for the nearer time.
    AddLater("near", 40);
    ASSERT_TRUE(clock.WaitForWaitsBegun(waits + 1));
    clock.Advance(39);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_TRUE(journal.Entries().empty());
    clock.Advance(1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.Entries(), List{"near"});

    EXPECT_TRUE(handler->hasMessage(far));
    EXPECT_TRUE(handler->removeMessage(far, false));
    EXPECT_FALSE(handler->hasMessage(far));
    EXPECT_FALSE(handler->removeMessage(far, false));
    clock.Advance(20000);
    ASSERT_TRUE(journal.WaitForSize(2));
    ASSERT_TRUE(DeleteInTime());
    EXPECT_EQ(journal.Entries(), (List{"near", "later"}));
}

TEST_F(MessageLoop, AStaleReferenceNeverRemovesALaterUsersMessage) {
    Start("LoopStale");
    TarnisMessageRef first = AddLater("first", 10);
    clock.Advance(10);
    ASSERT_TRUE(journal.WaitForSize(1));

    // The message went back to the pool on the looper's thread; posts made
    // there get it again, sooner or later. Keep the one that does.
    std::promise<TarnisMessageRef> reused;
    handler->post([&] {
        std::vector<TarnisMessageRef> others;
        TarnisMessageRef found;
        for (int i = 0; i < 100000 && !found; ++i) {
            TarnisMessageRef ref = AddLater("second", kDayMs);
            if (ref.get() == first.get()) {
                found = ref;
            } else {
                others.push_back(ref);
            }
        }
        for (const TarnisMessageRef& other : others) EXPECT_TRUE(handler->removeMessage(other, false));
        reused.set_value(found);
    });
    std::future<TarnisMessageRef> found = reused.get_future();
    ASSERT_EQ(found.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    TarnisMessageRef second = found.get();
    ASSERT_EQ(second.get(), first.get());

    // The same message object, a later use: the reference to the first use
    // neither finds nor removes it.
    EXPECT_FALSE(handler->hasMessage(first));
    EXPECT_FALSE(handler->removeMessage(first, false));
    EXPECT_FALSE(handler->removeMessage(first, true));
    EXPECT_TRUE(handler->hasMessage(second));
    clock.Advance(kDayMs);
    ASSERT_TRUE(journal.WaitForSize(2));
    EXPECT_EQ(journal.Entries(), (List{"first", "second"}));
    EXPECT_FALSE(handler->hasMessage(second));
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
    // The priority message first although it was sent first into a queue that
    // otherwise serves the newest first.
    ASSERT_TRUE(journal.WaitForSize(3));
    EXPECT_EQ(journal.Entries(), (List{"7", "task", "5+obj"}));

    // A priority message reaches a loop that waits on its normal queue,
    // whether that is empty or holds a message due in a day.
    handler->sendMessage(TarnisMessage::obtain(8, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.WaitForSize(4));
    TarnisMessageRef tomorrow = AddLater("tomorrow", kDayMs);
    handler->sendMessage(TarnisMessage::obtain(9, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.WaitForSize(5));
    EXPECT_EQ(journal.Entries(), (List{"7", "task", "5+obj", "8", "9"}));
    EXPECT_TRUE(handler->hasMessage(tomorrow));
    ASSERT_TRUE(DeleteInTime());
    // The payload went with the message back to the pool.
    EXPECT_EQ(deleted.load(), 1);
}

// A safe quit runs what is queued, delayed messages as they fall due and not
// before; the destructor's quit is not safe: it ends the wait for a message
// due tomorrow, which never runs.
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
    clock.Advance(1999);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.Entries(), (List{"b", "a"}));
    clock.Advance(1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.Entries(), (List{"b", "a", "delayed"}));
    EXPECT_FALSE(thread->hasExited());
    ASSERT_TRUE(DeleteInTime());
    EXPECT_EQ(journal.Entries(), (List{"b", "a", "delayed"}));
    EXPECT_EQ(token.use_count(), 1);

    const std::string name = "LoopSafe(" + std::to_string(tid) + ")";
    const struct {
        std::string text;
        const char* tag;
        int prio;
    } lines[] = {
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
    for (const auto& line : lines) EXPECT_EQ(CountExact(capture, line.text, line.tag, line.prio), 1u) << line.text;
}

// A quit that is not safe ends the loop at once, whether it waits for a
// delayed message or is busy with a task, and drops what is queued with the
// tasks and payloads it holds.
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
        // The thread ends with the clock standing still; then getLooper() says
        // so, and a safe quit is refused.
        EXPECT_TRUE(tarnis_test::WaitFor([this] { return thread->hasExited(); }));
        EXPECT_EQ(thread->getLooper(), nullptr);
        EXPECT_FALSE(thread->quitSafely());
        ASSERT_TRUE(DeleteInTime());
        EXPECT_EQ(clock.Waiters(), 0u);
        EXPECT_EQ(token.use_count(), 1);
        EXPECT_EQ(deleted.load(), busy ? 1 : 0);
        EXPECT_EQ(CountExact(log, "[quit] Looper quiting...", kLooperTag, ANDROID_LOG_DEBUG), 1u);
        EXPECT_EQ(CountExact(log, "[_loop] _loop(124) clear message cost 0 us.", kLooperTag, ANDROID_LOG_INFO), 1u);
        EXPECT_EQ(CountExact(log, "[getLooper] getLooper() thread had exit.", kThreadTag, ANDROID_LOG_INFO), 1u);
        // What the loop did not run never runs.
        clock.Advance(2 * kDayMs);
        EXPECT_FALSE(handler->hasMessages(0));
        EXPECT_TRUE(journal.Entries().empty());
    }
}

// No looper at all, a thread that ended after looping, or one quit before its
// loop started: nothing is kept or run, and each call says why.
TEST_F(MessageLoop, AHandlerWithoutALiveLooperDropsWhatItSends) {
    for (const char* kind : {"no looper", "after looping", "quit at once"}) {
        SCOPED_TRACE(kind);
        const bool none = kind == std::string("no looper");
        TarnisHandlerThread* gone = none ? nullptr : TarnisHandlerThread::create("LoopGone");
        auto orphan = std::make_unique<TarnisHandler>(none ? nullptr : gone->getLooper(), [](TarnisMessage*) {
            ADD_FAILURE() << "dispatched without a live looper";
        });
        if (kind == std::string("after looping")) LooperTid(*orphan);
        delete gone;

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
        EXPECT_EQ(log.Count("[~TarnisLooper] ", kLooperTag), 0u);
        orphan.reset();
        EXPECT_EQ(CountExact(log,
                             "[~TarnisLooper] ~TarnisLooper tid " +
                                 std::to_string(TarnisLooperManager::currentThreadId()),
                             kLooperTag, ANDROID_LOG_DEBUG),
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
        EXPECT_EQ(TarnisLooperManager::getInstance().get(TarnisLooperManager::currentThreadId()), nullptr);
    });
    worker.join();
    EXPECT_EQ(CountExact(capture, "[myLooper] Call TarnisLooper::prepare first pls.", kLooperTag, ANDROID_LOG_ERROR),
              1u);
    EXPECT_EQ(CountExact(capture, "[prepare] TarnisLooper::prepare has been called.", kLooperTag, ANDROID_LOG_ERROR),
              1u);
    // The registry held the only share: the looper went with its removal, on
    // the worker's thread.
    EXPECT_EQ(CountExact(capture, "[~TarnisLooper] ~TarnisLooper tid " + std::to_string(workerTid), kLooperTag,
                         ANDROID_LOG_DEBUG),
              1u);
}

// A recycled message lets go of its payload, and is handed out again with
// nothing of its former use: no target, due time or task to misroute it.
TEST_F(MessageLoop, PoolResetsRecycledMessages) {
    std::atomic<int> deleted{0};
    TarnisMessage* msg = TarnisMessage::obtain(42, new CountedObject(&deleted), 9);
    msg->arg1 = 1;
    msg->data = std::make_shared<int>(5);
    std::weak_ptr<void> data = msg->data;
    TarnisHandler stale(nullptr, nullptr);
    msg->target = &stale;
    msg->when = 12345;
    msg->runnable = new TarnisRunnable([](Object*) {});
    TarnisMessageManager& pool = TarnisMessageManager::getInstance();
    const size_t before = pool.pooled();
    pool.recycle(msg);
    pool.recycle(nullptr);
    EXPECT_EQ(deleted.load(), 1);
    EXPECT_TRUE(data.expired());

    std::vector<TarnisMessage*> taken;
    TarnisMessage* again = nullptr;
    for (size_t i = 0; i <= before && again != msg; ++i) {
        again = TarnisMessage::obtain(8, nullptr, 2);
        taken.push_back(again);
    }
    ASSERT_EQ(again, msg);
    EXPECT_EQ(again->what, 8);
    EXPECT_EQ(again->flags, 2);
    EXPECT_EQ(again->arg1, 0);
    EXPECT_EQ(again->obj, nullptr);
    EXPECT_EQ(again->runnable, nullptr);
    EXPECT_EQ(again->target, nullptr);
    EXPECT_EQ(again->when, 0);
    for (TarnisMessage* m : taken) pool.recycle(m);
}
