#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
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
#include "tests/support/LogLines.h"
#include "tests/support/TestClock.h"
#include "tests/support/WaitFor.h"
#include "utils/Clock.h"

using namespace velmar::kolto;
using tarnis_test::CountExact;
using tarnis_test::NumbersInLines;
using tarnis_test::TestClock;

namespace {

constexpr long kHourMs = 3600L * 1000;
constexpr long kDayMs = 24 * kHourMs;
constexpr char kLooperTag[] = "Tarnis-TarnisLooper";
constexpr char kThreadTag[] = "Tarnis-HandlerThread";

int64_t NowMs() { return GetClock().SteadyNowMs(); }

// The kernel thread id of the looper's thread, as its log lines give it.
int LooperTid(TarnisHandler& handler) {
    auto tid = std::make_shared<std::promise<int>>();
    handler.post([tid] { tid->set_value(static_cast<int>(syscall(SYS_gettid))); });
    std::future<int> got = tid->get_future();
    EXPECT_EQ(got.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "the looper never ran";
    return got.valid() && got.wait_for(std::chrono::seconds(0)) == std::future_status::ready ? got.get() : -1;
}

// Deletes the thread (quit and join) on a helper thread. False when that took
// longer than ten seconds of real time; the clock is then moved two days on
// so that a loop still waiting for a delayed message lets go, and the test
// fails instead of hanging.
bool DeleteWithin(TarnisHandlerThread* thread, TestClock& clock) {
    std::promise<void> deleted;
    std::future<void> done = deleted.get_future();
    std::thread deleter([thread, &deleted] {
        delete thread;
        deleted.set_value();
    });
    const bool inTime = done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    if (!inTime) clock.Advance(2 * kDayMs);
    deleter.join();
    return inTime;
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
        // The task keeps its own hold on both: it may still be waking up when
        // the blocker is gone.
        auto entered = std::make_shared<std::promise<void>>();
        std::shared_future<void> released = release_.get_future().share();
        std::future<void> running = entered->get_future();
        handler.post([entered, released] {
            entered->set_value();
            released.wait();
        });
        ASSERT_EQ(running.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    }
    void release() {
        if (!released_.exchange(true)) release_.set_value();
    }

private:
    std::promise<void> release_;
    std::atomic<bool> released_{false};
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

// A handler thread on the test clock, with a journal of what ran and a
// blocker to pile messages up behind a task; the thread goes at the end of
// the test unless the test deleted it itself.
class MessageLoop : public ::testing::Test {
protected:
    void SetUp() override { clock.Install(); }
    void TearDown() override {
        blocker.release();
        delete thread;
    }
    void Start(const char* name, std::function<void(TarnisMessage*)> callback = nullptr) {
        thread = TarnisHandlerThread::create(name);
        looper = thread->getLooper();
        ASSERT_NE(looper, nullptr);
        handler = std::make_unique<TarnisHandler>(looper, std::move(callback));
    }
    void Delete() {
        delete thread;
        thread = nullptr;
    }
    void Add(const char* entry) {
        handler->post([this, entry] { journal.add(entry); });
    }
    void AddLater(const char* entry, int64_t delayMs) {
        handler->postDelayed([this, entry] { journal.add(entry); }, delayMs);
    }
    using List = std::vector<std::string>;

    TestClock clock;
    platform::LogCapture capture;
    Journal journal;
    Blocker blocker;
    std::unique_ptr<TarnisHandler> handler;
    TarnisHandlerThread* thread = nullptr;
    TarnisLooper* looper = nullptr;
};

}  // namespace

TEST_F(MessageLoop, QueueOrderNowNewestFirstDelayedByTimeThenArrival) {
    Start("LoopOrder");
    blocker.block(*handler);
    int64_t due = NowMs() + 60;
    SendAt(looper, due + 20, [&] { journal.add("late"); });
    SendAt(looper, due, [&] { journal.add("equal-1"); });
    Add("now-1");
    SendAt(looper, due, [&] { journal.add("equal-2"); });
    Add("now-2");
    AddLater("soon", 30);
    EXPECT_EQ(handler->hasMessages(0), true);
    EXPECT_EQ(looper->queue().size(), 6u);

    blocker.release();
    // The messages sent for now run; the delayed ones wait for the clock.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (List{"now-2", "now-1"}));
    clock.Advance(80);
    ASSERT_TRUE(journal.waitFor(6));
    EXPECT_EQ(journal.entries(), (List{"now-2", "now-1", "soon", "equal-1", "equal-2", "late"}));
}

TEST_F(MessageLoop, DelayedMessagesADayAheadRunInOrderAsTheClockIsAdvanced) {
    Start("LoopDay");
    blocker.block(*handler);
    const auto real = std::chrono::steady_clock::now();
    AddLater("day-1", kDayMs);
    AddLater("hour", kHourMs);
    AddLater("day-2", kDayMs);
    AddLater("day+1ms", kDayMs + 1);
    Add("now");
    blocker.release();

    // Each step waits until the loop has looked at the new time and gone back
    // to waiting: whatever fell due has run by then, and nothing else has.
    const struct {
        int64_t advanceMs;
        List ran;
    } steps[] = {{0, {"now"}},
                 {kHourMs - 1, {"now"}},
                 {1, {"now", "hour"}},
                 {kDayMs - kHourMs - 1, {"now", "hour"}},
                 {1, {"now", "hour", "day-1", "day-2"}}};
    for (const auto& step : steps) {
        clock.Advance(step.advanceMs);
        ASSERT_TRUE(clock.WaitForWaiters(1));
        EXPECT_EQ(journal.entries(), step.ran) << "after " << clock.SteadyNowMs();
    }
    // The last one leaves the loop waiting on an empty queue, not the clock.
    clock.Advance(1);
    ASSERT_TRUE(journal.waitFor(5));
    EXPECT_EQ(journal.entries(), (List{"now", "hour", "day-1", "day-2", "day+1ms"}));
    EXPECT_FALSE(handler->hasMessages(0));
    // A day went by on the clock, not in the test.
    EXPECT_LT(std::chrono::steady_clock::now() - real, std::chrono::seconds(30));
}

TEST_F(MessageLoop, EarlierDelayedMessageWakesTheWaitingTaker) {
    Start("LoopWake");
    TarnisMessageRef far = handler->postDelayed([&] { journal.add("far"); }, 10000);
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
    EXPECT_TRUE(journal.entries().empty());
    clock.Advance(1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), List{"near"});

    // The far message is still queued; removing it keeps it from ever running.
    EXPECT_TRUE(handler->hasMessage(far));
    EXPECT_TRUE(handler->removeMessage(far, false));
    EXPECT_FALSE(handler->hasMessage(far));
    EXPECT_FALSE(handler->removeMessage(far, false));
    clock.Advance(20000);
    ASSERT_TRUE(journal.waitFor(2));
    EXPECT_FALSE(handler->hasMessages(0));
    Delete();
    EXPECT_EQ(journal.entries(), (List{"near", "later"}));
}

TEST_F(MessageLoop, AStaleReferenceNeverRemovesALaterUsersMessage) {
    Start("LoopStale");
    TarnisMessageRef first = handler->postDelayed([&] { journal.add("first"); }, 10);
    EXPECT_TRUE(handler->hasMessage(first));
    clock.Advance(10);
    ASSERT_TRUE(journal.waitFor(1));

    // The message went back to the pool on the looper's thread; posts made
    // there get it again, sooner or later. Keep the one that does.
    std::promise<TarnisMessageRef> reused;
    handler->post([&] {
        std::vector<TarnisMessageRef> others;
        TarnisMessageRef found;
        for (int i = 0; i < 100000 && !found; ++i) {
            TarnisMessageRef ref = handler->postDelayed([&] { journal.add("second"); }, kDayMs);
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
    EXPECT_EQ(looper->queue().size(), 1u);
    clock.Advance(kDayMs);
    ASSERT_TRUE(journal.waitFor(2));
    EXPECT_EQ(journal.entries(), (List{"first", "second"}));
    EXPECT_FALSE(handler->hasMessage(second));
}

TEST_F(MessageLoop, IdleOnlyWhileWaitingWithNothingDue) {
    Start("LoopIdle");
    TarnisLooper* const mine = looper;
    auto listed = [mine] {
        for (const auto& each : TarnisLooperManager::getInstance().loopers()) {
            if (each.get() == mine) return true;
        }
        return false;
    };
    EXPECT_TRUE(listed());
    blocker.block(*handler);
    const uint64_t before = looper->dispatched();
    // Busy in a task, with work due behind it.
    Add("now");
    AddLater("hour", kHourMs);
    EXPECT_FALSE(looper->isIdle());
    blocker.release();

    // Waiting for a message due in an hour: idle, the two tasks counted.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_TRUE(looper->isIdle());
    EXPECT_EQ(looper->dispatched(), before + 2);
    clock.Advance(kHourMs);
    ASSERT_TRUE(journal.waitFor(2));
    ASSERT_TRUE(tarnis_test::WaitFor([this] { return looper->isIdle(); }));
    EXPECT_EQ(looper->dispatched(), before + 3);
    Delete();
    EXPECT_FALSE(listed());
}

TEST_F(MessageLoop, CallbackMessagesAndPriorityQueue) {
    std::atomic<int> deleted{0};
    Start("LoopPrio", [&](TarnisMessage* msg) {
        journal.add(std::to_string(msg->what) + (msg->obj != nullptr ? "+obj" : ""));
    });
    blocker.block(*handler);
    handler->sendMessage(TarnisMessage::obtain(7, nullptr, TarnisMessage::kFlagPriority));
    handler->sendMessage(TarnisMessage::obtain(5, new CountedObject(&deleted), 1));
    EXPECT_TRUE(handler->hasMessages(5));
    // The priority queue is not searched by handlers.
    EXPECT_FALSE(handler->hasMessages(7));
    // Posted tasks do not reach the callback.
    Add("task");

    blocker.release();
    ASSERT_TRUE(journal.waitFor(3));
    // The priority message first although it was sent first into a queue that
    // otherwise serves the newest first.
    EXPECT_EQ(journal.entries(), (List{"7", "task", "5+obj"}));

    // A priority message reaches a loop that waits on its normal queue,
    // whether that is empty or holds a message due in a day.
    handler->sendMessage(TarnisMessage::obtain(8, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.waitFor(4));
    TarnisMessageRef tomorrow = handler->postDelayed([&] { journal.add("tomorrow"); }, kDayMs);
    handler->sendMessage(TarnisMessage::obtain(9, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.waitFor(5));
    EXPECT_EQ(journal.entries(), (List{"7", "task", "5+obj", "8", "9"}));
    EXPECT_TRUE(handler->hasMessage(tomorrow));
    Delete();
    // The payload went with the message back to the pool.
    EXPECT_EQ(deleted.load(), 1);
}

TEST_F(MessageLoop, QuitSafelyDispatchesEverythingQueuedIncludingDelayed) {
    Start("LoopSafe");
    const int tid = LooperTid(*handler);
    blocker.block(*handler);
    Add("a");
    AddLater("delayed", 2000);
    Add("b");

    EXPECT_TRUE(thread->quitSafely());
    EXPECT_FALSE(thread->quitSafely());
    blocker.release();
    // A safe quit waits for the delayed message to fall due, and not less.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (List{"b", "a"}));
    clock.Advance(1999);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (List{"b", "a"}));
    EXPECT_FALSE(thread->hasExited());
    clock.Advance(1);
    // After a quit, getLooper() returns null once the thread has ended.
    EXPECT_EQ(thread->getLooper(), nullptr);
    EXPECT_TRUE(thread->hasExited());
    EXPECT_EQ(journal.entries(), (List{"b", "a", "delayed"}));
    Delete();

    const std::string name = "LoopSafe(" + std::to_string(tid) + ")";
    const struct {
        std::string text;
        const char* tag;
        int prio;
        size_t count;
    } lines[] = {
        {"[quit] Looper quiting...", kLooperTag, ANDROID_LOG_DEBUG, 1},
        {"[quit] queue notified..", kLooperTag, ANDROID_LOG_DEBUG, 1},
        {"[quit] Looper stops waiting for delayed messages", kLooperTag, ANDROID_LOG_DEBUG, 0},
        // The drain is timed on the process's clock, which stood still.
        {"[_loop] _loop(124) clear message cost 0 us.", kLooperTag, ANDROID_LOG_INFO, 1},
        {"[run] " + name + " entered loop.", kThreadTag, ANDROID_LOG_INFO, 1},
        {"[run] " + name + " exit loop.", kThreadTag, ANDROID_LOG_INFO, 1},
        {"[run] " + name + " exited.", kThreadTag, ANDROID_LOG_INFO, 1},
        {"[~TarnisHandlerThread] ~TarnisHandlerThread", kThreadTag, ANDROID_LOG_DEBUG, 1},
        {"[~TarnisHandlerThread] ~TarnisHandlerThread Done", kThreadTag, ANDROID_LOG_DEBUG, 1},
    };
    for (const auto& line : lines) EXPECT_EQ(CountExact(capture, line.text, line.tag, line.prio), line.count) << line.text;
}

TEST_F(MessageLoop, QuitEndsAWaitForADelayedMessageAtOnce) {
    Start("LoopStop");
    auto token = std::make_shared<int>(0);
    handler->postDelayed([this, token] { journal.add("tomorrow"); }, kDayMs);
    handler->postDelayed([this, token] { journal.add("later"); }, kDayMs + 1);
    ASSERT_TRUE(clock.WaitForWaiters(1));

    thread->quit();
    // Joined with the clock standing still: the wait ended with the quit.
    ASSERT_TRUE(DeleteWithin(thread, clock));
    thread = nullptr;
    EXPECT_EQ(clock.Waiters(), 0u);
    EXPECT_TRUE(journal.entries().empty());
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(CountExact(capture, "[quit] Looper quiting...", kLooperTag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[_loop] _loop(124) clear message cost 0 us.", kLooperTag, ANDROID_LOG_INFO), 1u);
    // What the loop did not run never runs.
    clock.Advance(2 * kDayMs);
    EXPECT_FALSE(handler->hasMessages(0));
    EXPECT_TRUE(journal.entries().empty());
}

TEST_F(MessageLoop, DestroyingAfterASafeQuitRunsWhatIsDueAndDropsWhatIsNot) {
    Start("LoopTeardown");
    blocker.block(*handler);
    auto token = std::make_shared<int>(0);
    handler->postDelayed([this, token] { journal.add("tomorrow"); }, kDayMs);
    AddLater("soon", 5);
    Add("now");

    EXPECT_TRUE(thread->quitSafely());
    clock.Advance(5);
    blocker.release();
    // The destructor's quit is not safe: it ends the safe quit's wait for the
    // message due tomorrow, once what is due has run.
    ASSERT_TRUE(DeleteWithin(thread, clock));
    thread = nullptr;
    EXPECT_EQ(journal.entries(), (List{"now", "soon"}));
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(CountExact(capture, "[quit] Looper quiting...", kLooperTag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[quit] Looper stops waiting for delayed messages", kLooperTag, ANDROID_LOG_DEBUG),
              1u);
}

TEST_F(MessageLoop, QuitDropsQueuedMessagesAndFreesTheirTasks) {
    Start("LoopQuit");
    blocker.block(*handler);
    auto token = std::make_shared<int>(0);
    std::atomic<int> deleted{0};
    handler->post([this, token] { journal.add("a"); });
    handler->postDelayed([this, token] { journal.add("delayed"); }, 2000);
    handler->sendMessage(TarnisMessage::obtain(3, new CountedObject(&deleted), 1));
    EXPECT_EQ(token.use_count(), 3);

    thread->quit();
    blocker.release();
    // Not joined after the delayed message's time: the clock stands still.
    ASSERT_TRUE(DeleteWithin(thread, clock));
    thread = nullptr;
    EXPECT_TRUE(journal.entries().empty());
    // Dropped messages were deleted with their payloads.
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(deleted.load(), 1);
}

TEST_F(MessageLoop, GetLooperAfterExitAndHandlerWithoutLooper) {
    Start("LoopExit");
    thread->quit();
    ASSERT_TRUE(tarnis_test::WaitFor([this] { return thread->hasExited(); }));
    EXPECT_EQ(thread->getLooper(), nullptr);
    EXPECT_EQ(CountExact(capture, "[getLooper] getLooper() thread had exit.", kThreadTag, ANDROID_LOG_INFO), 1u);
    EXPECT_FALSE(thread->quitSafely());

    TarnisHandler orphan(nullptr, nullptr);
    EXPECT_FALSE(orphan.hasMessages(0));
    EXPECT_EQ(CountExact(capture, "[hasMessages] Looper is not ready!!", "Tarnis-Handler", ANDROID_LOG_ERROR), 1u);
    EXPECT_FALSE(orphan.hasMessage(nullptr));
    EXPECT_EQ(CountExact(capture, "[hasMessage] Looper is not ready!!", "Tarnis-Handler", ANDROID_LOG_ERROR), 1u);
    EXPECT_FALSE(orphan.removeMessage(nullptr, false));
    EXPECT_EQ(CountExact(capture, "[removeMessage] Looper is not ready!!", "Tarnis-Handler", ANDROID_LOG_ERROR),
              1u);
    auto token = std::make_shared<int>(0);
    bool ran = false;
    orphan.post([&ran, token] { ran = true; });
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(ran);
    EXPECT_EQ(CountExact(capture, "[_enqueueMessage] Looper is null!", "Tarnis-Handler", ANDROID_LOG_WARN), 1u);
}

TEST_F(MessageLoop, AHandlerOutlivingItsThreadDropsWhatItSends) {
    // The thread may end after looping, or before its loop started.
    for (bool looped : {true, false}) {
        SCOPED_TRACE(looped ? "after looping" : "quit at once");
        TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopGone");
        std::atomic<int> dispatched{0};
        auto handler = std::make_unique<TarnisHandler>(thread->getLooper(), [&](TarnisMessage*) { ++dispatched; });
        if (looped) LooperTid(*handler);
        delete thread;

        platform::LogCapture capture;
        auto token = std::make_shared<int>(0);
        std::atomic<int> deleted{0};
        handler->post([token] {});
        TarnisMessageRef later = handler->postDelayed([token] {}, 10);
        handler->sendMessage(TarnisMessage::obtain(3, new CountedObject(&deleted), 1));
        // Nothing was kept, nothing ran: the payloads are gone already.
        EXPECT_EQ(token.use_count(), 1);
        EXPECT_EQ(deleted.load(), 1);
        EXPECT_EQ(dispatched.load(), 0);
        EXPECT_FALSE(handler->hasMessages(0));
        EXPECT_FALSE(handler->hasMessage(later));
        EXPECT_FALSE(handler->removeMessage(later, false));
        EXPECT_EQ(CountExact(capture, "[_enqueueMessage] Looper has exited, message dropped!", "Tarnis-Handler",
                             ANDROID_LOG_WARN),
                  3u);
        // The handler held the last share of the looper.
        EXPECT_TRUE(
            NumbersInLines(capture, "[~TarnisLooper] ~TarnisLooper tid ", "", "Tarnis-TarnisLooper", ANDROID_LOG_DEBUG)
                .empty());
        handler.reset();
        EXPECT_EQ(CountExact(capture,
                             "[~TarnisLooper] ~TarnisLooper tid " +
                                 std::to_string(TarnisLooperManager::currentThreadId()),
                             "Tarnis-TarnisLooper", ANDROID_LOG_DEBUG),
                  1u);
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
        EXPECT_EQ(TarnisLooperManager::getInstance().get(TarnisLooperManager::currentThreadId()),
                  nullptr);
    });
    worker.join();
    const std::string tag = "Tarnis-TarnisLooper";
    EXPECT_EQ(CountExact(capture, "[myLooper] Call TarnisLooper::prepare first pls.", tag, ANDROID_LOG_ERROR), 1u);
    EXPECT_EQ(CountExact(capture, "[prepare] TarnisLooper::prepare has been called.", tag, ANDROID_LOG_ERROR), 1u);
    // The registry held the only share: the looper went with its removal, on
    // the worker's thread.
    EXPECT_EQ(CountExact(capture, "[~TarnisLooper] ~TarnisLooper tid " + std::to_string(workerTid), tag,
                         ANDROID_LOG_DEBUG),
              1u);
}

TEST_F(MessageLoop, PoolResetsRecycledMessagesAndRunnablesRunOnce) {
    std::atomic<int> deleted{0};
    int runs = 0;
    TarnisMessage* msg = TarnisMessage::obtain(42, new CountedObject(&deleted), 9);
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
}
