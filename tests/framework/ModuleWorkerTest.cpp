#include "framework/ModuleWorker.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "framework/TarnisHandlerThread.h"
#include "tests/support/WaitFor.h"

namespace velmar {
namespace kolto {
namespace {

using namespace std::chrono_literals;

TEST(ModuleWorker, RunsNamedStopEndsItsWaitsAndResultsReachTheModuleThread) {
    std::unique_ptr<TarnisHandlerThread> module(TarnisHandlerThread::create("WorkerHome"));
    std::atomic<pthread_t> handlerThread{};
    std::atomic<pthread_t> workerThread{};
    std::atomic<bool> posted{false};
    std::string threadName;
    std::atomic<bool> sleepEnded{false};
    {
        ModuleWorker worker("ALongWorkerNameIsCut", module->getLooper());
        EXPECT_EQ(worker.Describe(), "ALongWorkerNameIsCut: not started");
        ASSERT_TRUE(worker.Start([&](StopSignal& stop) {
            char name[32] = {};
            pthread_getname_np(pthread_self(), name, sizeof(name));
            threadName = name;
            workerThread = pthread_self();
            worker.PostToModule([&] {
                handlerThread = pthread_self();
                posted = true;
            });
            // A day's sleep that only the stop ends.
            sleepEnded = !stop.Sleep(24L * 3600 * 1000);
        }));
        EXPECT_FALSE(worker.Start([](StopSignal&) {}));
        ASSERT_TRUE(tarnis_test::WaitFor([&] { return posted.load(); }));
        EXPECT_EQ(worker.Describe(), "ALongWorkerNameIsCut: running");
        worker.Stop();
        EXPECT_TRUE(sleepEnded);
        EXPECT_EQ(worker.state(), ModuleWorker::State::kStopped);
        // Once stopped, nothing more reaches the module.
        bool late = false;
        worker.PostToModule([&] { late = true; });
        module.reset();
        EXPECT_FALSE(late);
    }
    EXPECT_EQ(threadName, "ALongWorkerName");
    EXPECT_FALSE(pthread_equal(handlerThread.load(), workerThread.load()));
}

TEST(ModuleWorker, WorkThatEndsByItselfIsFinishedAndTheDestructorJoinsWhatRuns) {
    std::atomic<bool> ran{false};
    ModuleWorker done("Done", nullptr);
    ASSERT_TRUE(done.Start([&](StopSignal&) { ran = true; }));
    ASSERT_TRUE(tarnis_test::WaitFor([&] { return done.state() == ModuleWorker::State::kFinished; }));
    EXPECT_TRUE(ran);
    EXPECT_EQ(done.Describe(), "Done: finished");

    std::atomic<bool> returned{false};
    {
        ModuleWorker blocked("Blocked", nullptr);
        blocked.Start([&](StopSignal& stop) {
            while (!stop.Requested()) std::this_thread::sleep_for(1ms);
            returned = true;
        });
    }
    EXPECT_TRUE(returned);
}

}  // namespace
}  // namespace kolto
}  // namespace velmar
