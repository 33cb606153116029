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
#include "tests/framework/LogLines.h"
#include "tests/support/TestClock.h"
#include "utils/Clock.h"

using namespace velmar::kolto;
using tarnis_test::CountExact;
using tarnis_test::NumbersInLines;
using tarnis_test::TestClock;

namespace {

constexpr long kHourMs = 3600L * 1000;
constexpr long kDayMs = 24 * kHourMs;

int64_t NowMs() { return GetClock().SteadyNowMs(); }

// The kernel thread id of the looper's thread, as its log lines give it.
int LooperTid(TarnisHandler& handler) {
    std::promise<int> tid;
    handler.post([&tid] { tid.set_value(static_cast<int>(syscall(SYS_gettid))); });
    return tid.get_future().get();
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
    void release() { release_.set_value(); }

private:
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
    TestClock clock;
    clock.Install();
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
    EXPECT_EQ(looper->queue().size(), 6u);

    blocker.release();
    // The messages sent for now run; the delayed ones wait for the clock.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"now-2", "now-1"}));
    clock.Advance(80);
    ASSERT_TRUE(journal.waitFor(6));
    std::vector<std::string> expected = {"now-2", "now-1", "soon", "equal-1", "equal-2", "late"};
    EXPECT_EQ(journal.entries(), expected);
    delete thread;
}

TEST(MessageLoop, DelayedMessagesADayAheadRunInOrderAsTheClockIsAdvanced) {
    TestClock clock;
    clock.Install();
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopDay");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;
    Blocker blocker;
    blocker.block(handler);
    const auto real = std::chrono::steady_clock::now();

    handler.postDelayed([&] { journal.add("day-1"); }, kDayMs);
    handler.postDelayed([&] { journal.add("hour"); }, kHourMs);
    handler.postDelayed([&] { journal.add("day-2"); }, kDayMs);
    handler.postDelayed([&] { journal.add("day+1ms"); }, kDayMs + 1);
    handler.post([&] { journal.add("now"); });
    blocker.release();

    using List = std::vector<std::string>;
    // Each step waits until the loop has looked at the new time and gone back
    // to waiting: whatever fell due has run by then, and nothing else has.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), List{"now"});
    clock.Advance(kHourMs - 1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), List{"now"});
    clock.Advance(1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (List{"now", "hour"}));
    clock.Advance(kDayMs - kHourMs - 1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (List{"now", "hour"}));
    clock.Advance(1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (List{"now", "hour", "day-1", "day-2"}));
    clock.Advance(1);
    ASSERT_TRUE(journal.waitFor(5));
    EXPECT_EQ(journal.entries(), (List{"now", "hour", "day-1", "day-2", "day+1ms"}));
    EXPECT_FALSE(handler.hasMessages(0));
    // A day went by on the clock, not in the test.
    EXPECT_LT(std::chrono::steady_clock::now() - real, std::chrono::seconds(30));
    delete thread;
}

TEST(MessageLoop, EarlierDelayedMessageWakesTheWaitingTaker) {
    TestClock clock;
    clock.Install();
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopWake");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;

    TarnisMessageRef far = handler.postDelayed([&] { journal.add("far"); }, 10000);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    const uint64_t waits = clock.WaitsBegun();
    // Due after the message waited for: inserted behind it, the wait goes on.
    handler.postDelayed([&] { journal.add("later"); }, 20000);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(clock.WaitsBegun(), waits);
    // Due before it: the taker wakes and waits again, for the nearer time.
    handler.postDelayed([&] { journal.add("near"); }, 40);
    ASSERT_TRUE(clock.WaitForWaitsBegun(waits + 1));

    clock.Advance(39);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_TRUE(journal.entries().empty());
    clock.Advance(1);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), std::vector<std::string>{"near"});

    // The far message is still queued; removing it keeps it from ever running.
    EXPECT_TRUE(handler.hasMessage(far));
    EXPECT_TRUE(handler.removeMessage(far, false));
    EXPECT_FALSE(handler.hasMessage(far));
    EXPECT_FALSE(handler.removeMessage(far, false));
    EXPECT_TRUE(handler.hasMessages(0));
    clock.Advance(20000);
    ASSERT_TRUE(journal.waitFor(2));
    EXPECT_FALSE(handler.hasMessages(0));
    delete thread;
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"near", "later"}));
}

TEST(MessageLoop, AStaleReferenceNeverRemovesALaterUsersMessage) {
    TestClock clock;
    clock.Install();
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopStale");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;

    TarnisMessageRef first = handler.postDelayed([&] { journal.add("first"); }, 10);
    EXPECT_TRUE(handler.hasMessage(first));
    clock.Advance(10);
    ASSERT_TRUE(journal.waitFor(1));

    // The message went back to the pool on the looper's thread; posts made
    // there get it again, sooner or later. Keep the one that does.
    std::promise<TarnisMessageRef> reused;
    handler.post([&] {
        std::vector<TarnisMessageRef> others;
        TarnisMessageRef found;
        for (int i = 0; i < 100000 && !found; ++i) {
            TarnisMessageRef ref = handler.postDelayed([&] { journal.add("second"); }, kDayMs);
            if (ref.get() == first.get()) {
                found = ref;
            } else {
                others.push_back(ref);
            }
        }
        for (const TarnisMessageRef& other : others) EXPECT_TRUE(handler.removeMessage(other, false));
        reused.set_value(found);
    });
    TarnisMessageRef second = reused.get_future().get();
    ASSERT_EQ(second.get(), first.get());

    // The same message object, a later use: the reference to the first use
    // neither finds nor removes it.
    EXPECT_FALSE(handler.hasMessage(first));
    EXPECT_FALSE(handler.removeMessage(first, false));
    EXPECT_FALSE(handler.removeMessage(first, true));
    EXPECT_TRUE(handler.hasMessage(second));
    EXPECT_EQ(thread->getLooper()->queue().size(), 1u);
    clock.Advance(kDayMs);
    ASSERT_TRUE(journal.waitFor(2));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"first", "second"}));
    EXPECT_FALSE(handler.hasMessage(second));
    delete thread;
}

TEST(MessageLoop, IdleOnlyWhileWaitingWithNothingDue) {
    TestClock clock;
    clock.Install();
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopIdle");
    TarnisLooper* looper = thread->getLooper();
    TarnisHandler handler(looper, nullptr);
    auto listed = [looper] {
        for (const auto& each : TarnisLooperManager::getInstance().loopers()) {
            if (each.get() == looper) return true;
        }
        return false;
    };
    EXPECT_TRUE(listed());
    Journal journal;
    Blocker blocker;
    blocker.block(handler);
    const uint64_t before = looper->dispatched();
    // Busy in a task, with work due behind it.
    handler.post([&] { journal.add("now"); });
    handler.postDelayed([&] { journal.add("hour"); }, kHourMs);
    EXPECT_FALSE(looper->isIdle());
    blocker.release();

    // Waiting for a message due in an hour: idle, the two tasks counted.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_TRUE(looper->isIdle());
    EXPECT_EQ(looper->dispatched(), before + 2);
    clock.Advance(kHourMs);
    ASSERT_TRUE(journal.waitFor(2));
    for (int i = 0; i < 1000 && !looper->isIdle(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(looper->isIdle());
    EXPECT_EQ(looper->dispatched(), before + 3);
    delete thread;
    EXPECT_FALSE(listed());
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

    // A priority message reaches a loop that waits on its normal queue,
    // whether that is empty or holds a message due in a day.
    handler.sendMessage(TarnisMessage::obtain(8, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.waitFor(4));
    TarnisMessageRef tomorrow = handler.postDelayed([&] { journal.add("tomorrow"); }, kDayMs);
    handler.sendMessage(TarnisMessage::obtain(9, nullptr, TarnisMessage::kFlagPriority));
    ASSERT_TRUE(journal.waitFor(5));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"7", "task", "5+obj", "8", "9"}));
    EXPECT_TRUE(handler.hasMessage(tomorrow));
    delete thread;
    // The payload went with the message back to the pool.
    EXPECT_EQ(deleted.load(), 1);
}

TEST(MessageLoop, QuitSafelyDispatchesEverythingQueuedIncludingDelayed) {
    TestClock clock;
    clock.Install();
    platform::LogCapture capture;
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopSafe");
    TarnisHandler handler(thread->getLooper(), nullptr);
    const int tid = LooperTid(handler);
    Journal journal;
    Blocker blocker;
    blocker.block(handler);

    handler.post([&] { journal.add("a"); });
    handler.postDelayed([&] { journal.add("delayed"); }, 2000);
    handler.post([&] { journal.add("b"); });

    EXPECT_TRUE(thread->quitSafely());
    EXPECT_FALSE(thread->quitSafely());
    blocker.release();
    // A safe quit waits for the delayed message to fall due, and not less.
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"b", "a"}));
    clock.Advance(1999);
    ASSERT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"b", "a"}));
    EXPECT_FALSE(thread->hasExited());
    clock.Advance(1);
    // After a quit, getLooper() returns null once the thread has ended.
    EXPECT_EQ(thread->getLooper(), nullptr);
    EXPECT_TRUE(thread->hasExited());
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"b", "a", "delayed"}));
    delete thread;

    const std::string looper = "Tarnis-TarnisLooper";
    const std::string hthread = "Tarnis-HandlerThread";
    const std::string name = "LoopSafe(" + std::to_string(tid) + ")";
    EXPECT_EQ(CountExact(capture, "[quit] Looper quiting...", looper, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[quit] queue notified..", looper, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[quit] Looper stops waiting for delayed messages", looper, ANDROID_LOG_DEBUG),
              0u);
    // The drain is timed on the process's clock, which stood still.
    EXPECT_EQ(CountExact(capture, "[_loop] _loop(124) clear message cost 0 us.", looper, ANDROID_LOG_INFO), 1u);
    EXPECT_EQ(CountExact(capture, "[run] " + name + " entered loop.", hthread, ANDROID_LOG_INFO), 1u);
    EXPECT_EQ(CountExact(capture, "[run] " + name + " exit loop.", hthread, ANDROID_LOG_INFO), 1u);
    EXPECT_EQ(CountExact(capture, "[run] " + name + " exited.", hthread, ANDROID_LOG_INFO), 1u);
    EXPECT_EQ(CountExact(capture, "[~TarnisHandlerThread] ~TarnisHandlerThread", hthread, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[~TarnisHandlerThread] ~TarnisHandlerThread Done", hthread, ANDROID_LOG_DEBUG),
              1u);
}

TEST(MessageLoop, QuitEndsAWaitForADelayedMessageAtOnce) {
    TestClock clock;
    clock.Install();
    platform::LogCapture capture;
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopStop");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;
    auto token = std::make_shared<int>(0);
    handler.postDelayed([&, token] { journal.add("tomorrow"); }, kDayMs);
    handler.postDelayed([&, token] { journal.add("later"); }, kDayMs + 1);
    ASSERT_TRUE(clock.WaitForWaiters(1));

    thread->quit();
    // Joined with the clock standing still: the wait ended with the quit.
    ASSERT_TRUE(DeleteWithin(thread, clock));
    EXPECT_EQ(clock.Waiters(), 0u);
    EXPECT_TRUE(journal.entries().empty());
    EXPECT_EQ(token.use_count(), 1);
    const std::string looper = "Tarnis-TarnisLooper";
    EXPECT_EQ(CountExact(capture, "[quit] Looper quiting...", looper, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[_loop] _loop(124) clear message cost 0 us.", looper, ANDROID_LOG_INFO), 1u);
    // What the loop did not run never runs.
    clock.Advance(2 * kDayMs);
    EXPECT_FALSE(handler.hasMessages(0));
    EXPECT_TRUE(journal.entries().empty());
}

TEST(MessageLoop, DestroyingAfterASafeQuitRunsWhatIsDueAndDropsWhatIsNot) {
    TestClock clock;
    clock.Install();
    platform::LogCapture capture;
    TarnisHandlerThread* thread = TarnisHandlerThread::create("LoopTeardown");
    TarnisHandler handler(thread->getLooper(), nullptr);
    Journal journal;
    Blocker blocker;
    blocker.block(handler);
    auto token = std::make_shared<int>(0);
    handler.postDelayed([&, token] { journal.add("tomorrow"); }, kDayMs);
    handler.postDelayed([&] { journal.add("soon"); }, 5);
    handler.post([&] { journal.add("now"); });

    EXPECT_TRUE(thread->quitSafely());
    clock.Advance(5);
    blocker.release();
    // The destructor's quit is not safe: it ends the safe quit's wait for the
    // message due tomorrow, once what is due has run.
    ASSERT_TRUE(DeleteWithin(thread, clock));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"now", "soon"}));
    EXPECT_EQ(token.use_count(), 1);
    const std::string looper = "Tarnis-TarnisLooper";
    EXPECT_EQ(CountExact(capture, "[quit] Looper quiting...", looper, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(capture, "[quit] Looper stops waiting for delayed messages", looper, ANDROID_LOG_DEBUG),
              1u);
    EXPECT_EQ(CountExact(capture, "[_loop] _loop(124) clear message cost 0 us.", looper, ANDROID_LOG_INFO), 1u);
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
    const std::string hthread = "Tarnis-HandlerThread";
    EXPECT_EQ(CountExact(capture, "[getLooper] getLooper() thread had exit.", hthread, ANDROID_LOG_INFO), 1u);
    EXPECT_FALSE(thread->quitSafely());
    delete thread;

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

TEST(MessageLoop, AHandlerOutlivingItsThreadDropsWhatItSends) {
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

TEST(MessageLoop, PrepareTwiceAndMyLooperWithoutPrepare) {
    platform::LogCapture capture;
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
