#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <log/log.h>

#include "framework/ModuleBase.h"
#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/ModuleWorker.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "platform/LogCapture.h"
#include "tests/support/FwRecording.h"
#include "tests/support/LogLines.h"

using namespace velmar::kolto;
using tarnis_test::CountExact;

namespace {

const char kTag[] = "Tarnis-ModuleManager";

// What the test modules did, in order, from whichever thread.
tarnis_test::Journal& events() {
    static auto* journal = new tarnis_test::Journal;
    return *journal;
}

std::string ThreadName() {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

std::atomic<bool> gFlakyInitOk{false};
std::atomic<int> gFlakyCreated{0};

class TestModule : public ModuleBase {
public:
    bool OnInit() override {
        events().Add("init:" + name);
        return name != "Flaky" || gFlakyInitOk.load();
    }
    void OnAllModulesLoaded() override { events().Add("loaded:" + name + "@" + ThreadName()); }
    void dump(int fd, const char** args, unsigned int argc) override {
        std::string text = name + " argc=" + std::to_string(argc);
        for (unsigned i = 0; i < argc; ++i) text += std::string(" ") + args[i];
        android::base::WriteStringToFd(text + "\n", fd);
    }
};

class AlphaModule : public TestModule {};
class ZebraModule : public TestModule {};
class FirstModule : public TestModule {};

// Its OnInit fails until gFlakyInitOk is set.
class FlakyModule : public TestModule {
public:
    FlakyModule() { ++gFlakyCreated; }
    ~FlakyModule() override { events().Add("gone:Flaky"); }
};

TARNIS_MODULE_REGISTER(ZebraModuleRegister, ZebraModule, "Zebra", 0);
TARNIS_MODULE_REGISTER(AlphaModuleRegister, AlphaModule, "Alpha", 0);
TARNIS_MODULE_REGISTER(FlakyModuleRegister, FlakyModule, "Flaky", 0);
// Loaded first: priorities are unsigned, and this one would sort last as signed.
TARNIS_MODULE_REGISTER(FirstModuleRegister, FirstModule, "First", 0x80000000u);
// Same name as an earlier registration: must be refused.
TARNIS_MODULE_REGISTER(AlphaCopyModuleRegister, ZebraModule, "Alpha", 5);

std::string Dump(std::vector<const char*> args) {
    android::base::unique_fd fd(memfd_create("dump", MFD_CLOEXEC));
    ModuleManager::dump(fd.get(), args.data(), static_cast<unsigned>(args.size()));
    lseek(fd.get(), 0, SEEK_SET);
    std::string out;
    EXPECT_TRUE(android::base::ReadFdToString(fd.get(), &out));
    return out;
}

// Loads the modules once per process, keeping that pass's log and events.
struct LoadPass {
    platform::LogCapture log;
    std::vector<std::string> events;
};
const LoadPass& LoadOnce() {
    static const LoadPass* pass = [] {
        auto* loaded = new LoadPass;
        ModuleManager::loadModules();
        tarnis_test::DrainManagerThread();
        for (const char* m : {"First", "Alpha", "Zebra"}) {
            EXPECT_TRUE(events().WaitForCount(std::string("loaded:") + m + "@" + m));
        }
        loaded->events = events().Entries();
        return loaded;
    }();
    return *pass;
}

const char kStatusHeader[] = "Current Modules:\n-------------------------\nName \t\t Status\n";
const char kSep[] = "\n-------------------------------------\n";

}  // namespace

TEST(ModuleManager, LoadsByPriorityThenNameAndRemovesFailedModules) {
    const LoadPass& pass = LoadOnce();
    // Every OnInit returns before any OnAllModulesLoaded, which the failed module never gets.
    ASSERT_GE(pass.events.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(pass.events.begin(), pass.events.begin() + 4),
              (std::vector<std::string>{"init:First", "init:Alpha", "init:Flaky", "init:Zebra"}));
    EXPECT_EQ(std::count(pass.events.begin(), pass.events.end(), "loaded:Flaky@Flaky"), 0);

    std::vector<std::pair<std::string, int>> lines = {
        {"[_loadModules] Module \"Flaky\" ignored because OnInit returned false", ANDROID_LOG_DEBUG},
        {"[_loadModules] Loaded 3 modules", ANDROID_LOG_INFO},
        {"[_loadModules] Cleanup ignored module \"Flaky\"", ANDROID_LOG_DEBUG}};
    for (const char* name : {"First", "Alpha", "Flaky", "Zebra"}) {
        lines.emplace_back(std::string("[_loadModules] Loading module \"") + name + "\"", ANDROID_LOG_DEBUG);
    }
    for (const char* name : {"First", "Alpha", "Zebra"}) {
        lines.emplace_back(std::string("[_loadModules] Post Init for module \"") + name + "\"", ANDROID_LOG_DEBUG);
    }
    for (const auto& [text, prio] : lines) EXPECT_EQ(CountExact(pass.log, text, kTag, prio), 1u) << text;
    EXPECT_EQ(CountExact(pass.log, "[~ModuleBase] Bye~ Flaky", "Tarnis-ModuleBase", ANDROID_LOG_DEBUG), 1u);

    EXPECT_EQ(Dump({"ModuleManager", "dump"}),
              std::string(kStatusHeader) + "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tStopped\nZebra\t\tRunning\n");
}

TEST(ModuleManager, DumpsRunningModulesAndAnswersUnknownOrStopped) {
    LoadOnce();
    const std::string help =
        "Tarnis ModuleManager:\n"
        "load <module name> \t\t Load a module that is not running\n"
        "dump \t\t Get Current Modules Status.\n";
    const struct {
        std::vector<const char*> args;
        std::string out;
    } cases[] = {
        {{}, std::string("Dumping module Alpha: \nAlpha argc=0\n") + kSep + "Dumping module First: \nFirst argc=0\n" +
                 kSep + "Dumping module Zebra: \nZebra argc=0\n" + kSep},
        {{"-a", "x"}, std::string("Dumping module Alpha: \nAlpha argc=2 -a x\n") + kSep +
                          "Dumping module First: \nFirst argc=2 -a x\n" + kSep +
                          "Dumping module Zebra: \nZebra argc=2 -a x\n" + kSep},
        {{"Zebra", "--verbose"}, std::string("Dumping module Zebra: \nZebra argc=2 Zebra --verbose\n") + kSep},
        {{"Flaky"}, "Module Flaky is not running\n"},
        {{"Nope"}, "Module Nope not found!!\n"},
        {{"alpha"}, "Module alpha not found!!\n"},
        {{"ModuleManager"}, help},
        {{"modulemanager", "status"}, help},
        {{"ModuleManager", "load"}, help},
        {{"MODULEMANAGER", "dump"}, "Module MODULEMANAGER not found!!\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(Dump(c.args), c.out) << (c.args.empty() ? "" : c.args[0]);
}

TEST(ModuleManager, LoadCommandReloadsOnlyRemovedModulesAndNamesStayUnique) {
    LoadOnce();
    platform::LogCapture log;
    EXPECT_EQ(Dump({"ModuleManager", "load", "Alpha"}), "Load module Alpha failed! See Logcat for details.\n");
    EXPECT_EQ(CountExact(log, "[loadModule] Module Alpha is already running!", kTag, ANDROID_LOG_WARN), 1u);
    EXPECT_EQ(Dump({"modulemanager", "load", "Ghost"}), "Load module Ghost failed! See Logcat for details.\n");
    EXPECT_EQ(CountExact(log, "[loadModule] loadModule Ghost failed! Module not found!", kTag, ANDROID_LOG_ERROR),
              1u);
    // Any process may send the command in a loop: its refusals are rationed.
    for (int i = 0; i < 30; ++i) Dump({"ModuleManager", "load", "Ghost"});
    EXPECT_LE(log.Count("[loadModule] loadModule Ghost failed! Module not found!", kTag), 10u);

    // A removed module whose OnInit still fails is made afresh and removed again.
    int created = gFlakyCreated.load();
    EXPECT_EQ(Dump({"ModuleManager", "load", "Flaky"}), "Load module Flaky failed! See Logcat for details.\n");
    EXPECT_EQ(gFlakyCreated.load(), created + 1);
    tarnis_test::DrainManagerThread();
    EXPECT_EQ(Dump({"Flaky"}), "Module Flaky is not running\n");

    gFlakyInitOk = true;
    EXPECT_EQ(Dump({"ModuleManager", "load", "Flaky"}), "Load module Flaky succeed!\n");
    gFlakyInitOk = false;
    EXPECT_EQ(gFlakyCreated.load(), created + 2);
    EXPECT_EQ(CountExact(log, "[loadModule] Post Init for module \"Flaky\"", kTag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_TRUE(events().WaitForCount("loaded:Flaky@Flaky"));
    EXPECT_EQ(Dump({"ModuleManager", "dump"}),
              std::string(kStatusHeader) + "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tRunning\nZebra\t\tRunning\n");
    EXPECT_EQ(Dump({"Flaky"}), std::string("Dumping module Flaky: \nFlaky argc=1 Flaky\n") + kSep);

    // A second registration under a taken name is refused and the first module stays; so is an unknown removal.
    { AlphaCopyModuleRegister again; }
    EXPECT_EQ(CountExact(log, "[AlphaCopyModuleRegister] Can not register module! Module name MUST BE UNIQUE!",
                         "Tarnis-ModuleRegister", ANDROID_LOG_FATAL),
              1u);
    {
        std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
        EXPECT_NE(dynamic_cast<AlphaModule*>(GetModuleList().at("Alpha").instance), nullptr);
    }
    removeModule("Ghost", false);
    tarnis_test::DrainManagerThread();
    EXPECT_EQ(CountExact(log, "[operator()] module Ghost not found!!!", kTag, ANDROID_LOG_ERROR), 1u);
}

// A module removes itself, with work due now queued and a daily task waiting.
TEST(ModuleManager, ARemovedModuleWaitingADayForATaskDoesNotHoldTheManagerThread) {
    LoadOnce();
    for (bool safely : {true, false}) {
        SCOPED_TRACE(safely ? "removed safely" : "removed at once");
        if (Dump({"Flaky"}) == "Module Flaky is not running\n") {
            gFlakyInitOk = true;
            ASSERT_EQ(Dump({"ModuleManager", "load", "Flaky"}), "Load module Flaky succeed!\n");
            gFlakyInitOk = false;
        }
        platform::LogCapture log;
        const size_t due = events().Count("flaky-due");
        const size_t gone = events().Count("gone:Flaky");
        TarnisHandlerThread* thread;
        {
            std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
            thread = GetModuleList().at("Flaky").instance->handlerThread;
        }
        ASSERT_NE(thread, nullptr);
        auto handler = std::make_shared<TarnisHandler>(thread->getLooper(), nullptr);
        TarnisMessageRef tomorrow = handler->postDelayed([] { events().Add("flaky-late"); }, 24L * 3600 * 1000);
        handler->post([handler, safely] {
            handler->post([] { events().Add("flaky-due"); });
            removeModule("Flaky", safely);
        });
        ASSERT_TRUE(events().WaitForCount("gone:Flaky", gone + 1));

        // The manager thread was not held until tomorrow: it takes work at once.
        auto answered = std::make_shared<std::promise<void>>();
        ModuleManager::GetManagerHandler()->post([answered] { answered->set_value(); });
        ASSERT_EQ(answered->get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(Dump({"Flaky"}), "Module Flaky is not running\n");
        // Removed safely, what was due still ran; the task due tomorrow went with the thread.
        if (safely) {
            EXPECT_EQ(events().Count("flaky-due"), due + 1);
        }
        EXPECT_EQ(events().Count("flaky-late"), 0u);
        EXPECT_FALSE(handler->hasMessage(tomorrow));
        EXPECT_EQ(CountExact(log, "[quit] Looper stops waiting for delayed messages", "Tarnis-TarnisLooper",
                             ANDROID_LOG_DEBUG),
                  safely ? 1u : 0u);
        EXPECT_EQ(CountExact(log, "[~ModuleBase] Bye~ Flaky", "Tarnis-ModuleBase", ANDROID_LOG_DEBUG), 1u);
    }
}

// A module's blocking half: a named thread, a stop that ends its waits, results until then.
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
            threadName = ThreadName();
            workerThread = pthread_self();
            worker.PostToModule([&] {
                handlerThread = pthread_self();
                posted = true;
            });
            sleepEnded = !stop.Sleep(24L * 3600 * 1000);
        }));
        EXPECT_FALSE(worker.Start([](StopSignal&) {}));
        ASSERT_TRUE(tarnis_test::WaitFor([&] { return posted.load(); }));
        EXPECT_EQ(worker.Describe(), "ALongWorkerNameIsCut: running");
        worker.Stop();
        EXPECT_TRUE(sleepEnded);
        EXPECT_EQ(worker.state(), ModuleWorker::State::kStopped);
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
            while (!stop.Requested()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            returned = true;
        });
    }
    EXPECT_TRUE(returned);
}
