#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <log/log.h>

#include "framework/ModuleBase.h"
#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "platform/LogCapture.h"
#include "tests/support/LogLines.h"

using namespace velmar::kolto;
using tarnis_test::CountExact;

namespace {

// What the test modules did, in order, from whichever thread.
class Events {
public:
    void add(const std::string& e) {
        std::lock_guard<std::mutex> guard(lock_);
        events_.push_back(e);
        cond_.notify_all();
    }
    std::vector<std::string> all() {
        std::lock_guard<std::mutex> guard(lock_);
        return events_;
    }
    bool waitFor(const std::string& e) {
        std::unique_lock<std::mutex> guard(lock_);
        return cond_.wait_for(guard, std::chrono::seconds(5), [&] {
            for (auto& x : events_) {
                if (x == e) return true;
            }
            return false;
        });
    }
    size_t count(const std::string& e) {
        std::lock_guard<std::mutex> guard(lock_);
        return countLocked(e);
    }
    bool waitForCount(const std::string& e, size_t n) {
        std::unique_lock<std::mutex> guard(lock_);
        return cond_.wait_for(guard, std::chrono::seconds(5), [&] { return countLocked(e) >= n; });
    }

private:
    size_t countLocked(const std::string& e) {
        size_t n = 0;
        for (auto& x : events_) n += x == e;
        return n;
    }

    std::mutex lock_;
    std::condition_variable cond_;
    std::vector<std::string> events_;
};

Events& events() {
    static Events* e = new Events;
    return *e;
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
        events().add("init:" + name);
        return true;
    }
    void OnAllModulesLoaded() override { events().add("loaded:" + name + "@" + ThreadName()); }
    void dump(int fd, const char** args, unsigned int argc) override {
        std::string text = name + " argc=" + std::to_string(argc);
        for (unsigned i = 0; i < argc; ++i) text += std::string(" ") + args[i];
        text += "\n";
        ssize_t n = write(fd, text.data(), text.size());
        (void)n;
    }
};

class AlphaModule : public TestModule {};
class ZebraModule : public TestModule {};
class FirstModule : public TestModule {};

class FlakyModule : public TestModule {
public:
    FlakyModule() { ++gFlakyCreated; }
    ~FlakyModule() override { events().add("gone:Flaky"); }
    bool OnInit() override {
        events().add("init:" + name);
        return gFlakyInitOk.load();
    }
};

TARNIS_MODULE_REGISTER(ZebraModuleRegister, ZebraModule, "Zebra", 0);
TARNIS_MODULE_REGISTER(AlphaModuleRegister, AlphaModule, "Alpha", 0);
TARNIS_MODULE_REGISTER(FlakyModuleRegister, FlakyModule, "Flaky", 0);
TARNIS_MODULE_REGISTER(FirstModuleRegister, FirstModule, "First", 1);
// Same name as an earlier registration: must be refused.
TARNIS_MODULE_REGISTER(AlphaCopyModuleRegister, ZebraModule, "Alpha", 5);

std::string Dump(std::vector<const char*> args) {
    int fd = memfd_create("dump", 0);
    EXPECT_GE(fd, 0);
    ModuleManager::dump(fd, args.data(), static_cast<unsigned>(args.size()));
    std::string out;
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

// Waits until the manager thread has run everything queued before now. A
// delayed marker sorts behind every message sent "now".
void SyncManager() {
    for (int round = 0; round < 2; ++round) {
        auto done = std::make_shared<std::promise<void>>();
        ModuleManager::GetManagerHandler()->postDelayed([done] { done->set_value(); }, 1);
        ASSERT_EQ(done->get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
}

// Loads the modules once per process and keeps the log of that pass.
platform::LogCapture& LoadOnce() {
    static platform::LogCapture* capture = [] {
        auto* c = new platform::LogCapture;
        ModuleManager::loadModules();
        SyncManager();
        return c;
    }();
    for (const char* m : {"First", "Alpha", "Zebra"}) {
        EXPECT_TRUE(events().waitFor(std::string("loaded:") + m + "@" + m));
    }
    return *capture;
}

// The events of the loading pass, before any test reloads modules.
const std::vector<std::string>& LoadPassEvents() {
    static const std::vector<std::string>* pass = [] {
        LoadOnce();
        return new std::vector<std::string>(events().all());
    }();
    return *pass;
}

const char kStatusHeader[] = "Current Modules:\n-------------------------\nName \t\t Status\n";
const char kSep[] = "\n-------------------------------------\n";

}  // namespace

TEST(ModuleManager, LoadsByPriorityThenNameAndRemovesFailedModules) {
    platform::LogCapture& log = LoadOnce();

    std::vector<std::string> inits;
    size_t lastInit = 0, firstLoaded = SIZE_MAX;
    const std::vector<std::string>& all = LoadPassEvents();
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].rfind("init:", 0) == 0 && inits.size() < 4) {
            inits.push_back(all[i]);
            lastInit = i;
        }
        if (all[i].rfind("loaded:", 0) == 0 && firstLoaded == SIZE_MAX) firstLoaded = i;
    }
    EXPECT_EQ(inits, (std::vector<std::string>{"init:First", "init:Alpha", "init:Flaky", "init:Zebra"}));
    // Every OnInit of the pass returns before any OnAllModulesLoaded runs, and
    // the failed module never gets one.
    EXPECT_LT(lastInit, firstLoaded);
    for (const std::string& e : all) EXPECT_NE(e, "loaded:Flaky@Flaky");

    const std::string tag = "Tarnis-ModuleManager";
    for (const char* name : {"First", "Alpha", "Flaky", "Zebra"}) {
        EXPECT_EQ(CountExact(log, std::string("[_loadModules] Loading module \"") + name + "\"", tag,
                             ANDROID_LOG_DEBUG),
                  1u);
    }
    EXPECT_EQ(CountExact(log, "[_loadModules] Module \"Flaky\" ignored because OnInit returned false", tag,
                         ANDROID_LOG_DEBUG),
              1u);
    EXPECT_EQ(CountExact(log, "[_loadModules] Loaded 3 modules", tag, ANDROID_LOG_INFO), 1u);
    for (const char* name : {"First", "Alpha", "Zebra"}) {
        EXPECT_EQ(CountExact(log, std::string("[_loadModules] Post Init for module \"") + name + "\"", tag,
                             ANDROID_LOG_DEBUG),
                  1u);
    }
    EXPECT_FALSE(log.Contains("[_loadModules] Post Init for module \"Flaky\"", tag));
    EXPECT_EQ(CountExact(log, "[_loadModules] Cleanup ignored module \"Flaky\"", tag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(CountExact(log, "[~ModuleBase] Bye~ Flaky", "Tarnis-ModuleBase", ANDROID_LOG_DEBUG), 1u);

    EXPECT_EQ(Dump({"ModuleManager", "dump"}),
              std::string(kStatusHeader) +
                  "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tStopped\nZebra\t\tRunning\n");
    {
        std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
        EXPECT_EQ(GetModuleList().at("Flaky").instance, nullptr);
        ModuleBase* first = GetModuleList().at("First").instance;
        ASSERT_NE(first, nullptr);
        ASSERT_NE(first->handlerThread, nullptr);
        EXPECT_EQ(first->handlerThread->getName(), "First");
    }
}

TEST(ModuleManager, DumpsRunningModulesAndAnswersUnknownOrStopped) {
    LoadPassEvents();
    EXPECT_EQ(Dump({}), std::string("Dumping module Alpha: \nAlpha argc=0\n") + kSep +
                            "Dumping module First: \nFirst argc=0\n" + kSep +
                            "Dumping module Zebra: \nZebra argc=0\n" + kSep);
    EXPECT_EQ(Dump({"-a", "x"}), std::string("Dumping module Alpha: \nAlpha argc=2 -a x\n") + kSep +
                                     "Dumping module First: \nFirst argc=2 -a x\n" + kSep +
                                     "Dumping module Zebra: \nZebra argc=2 -a x\n" + kSep);
    EXPECT_EQ(Dump({"Zebra", "--verbose"}),
              std::string("Dumping module Zebra: \nZebra argc=2 Zebra --verbose\n") + kSep);
    EXPECT_EQ(Dump({"Flaky"}), "Module Flaky is not running\n");
    EXPECT_EQ(Dump({"Nope"}), "Module Nope not found!!\n");
    EXPECT_EQ(Dump({"alpha"}), "Module alpha not found!!\n");

    const std::string help =
        "Tarnis ModuleManager:\n"
        "load <module name> \t\t Load a module that is not running\n"
        "dump \t\t Get Current Modules Status.\n";
    EXPECT_EQ(Dump({"ModuleManager"}), help);
    EXPECT_EQ(Dump({"modulemanager", "status"}), help);
    EXPECT_EQ(Dump({"ModuleManager", "load"}), help);
    EXPECT_EQ(Dump({"MODULEMANAGER", "dump"}), "Module MODULEMANAGER not found!!\n");
}

TEST(ModuleManager, LoadCommandReloadsOnlyRemovedModules) {
    LoadPassEvents();
    platform::LogCapture log;
    const std::string tag = "Tarnis-ModuleManager";

    EXPECT_EQ(Dump({"ModuleManager", "load", "Alpha"}),
              "Load module Alpha failed! See Logcat for details.\n");
    EXPECT_EQ(CountExact(log, "[loadModule] Module Alpha is already running!", tag, ANDROID_LOG_WARN), 1u);
    EXPECT_EQ(Dump({"modulemanager", "load", "Ghost"}),
              "Load module Ghost failed! See Logcat for details.\n");
    EXPECT_EQ(CountExact(log, "[loadModule] loadModule Ghost failed! Module not found!", tag, ANDROID_LOG_ERROR),
              1u);
    // Any process may send the command in a loop: its refusals are rationed.
    for (int i = 0; i < 30; ++i) Dump({"ModuleManager", "load", "Ghost"});
    EXPECT_LE(log.Count("[loadModule] loadModule Ghost failed! Module not found!", tag), 10u);

    // A removed module whose OnInit still fails is made afresh and removed again.
    int created = gFlakyCreated.load();
    EXPECT_EQ(Dump({"ModuleManager", "load", "Flaky"}),
              "Load module Flaky failed! See Logcat for details.\n");
    EXPECT_EQ(gFlakyCreated.load(), created + 1);
    SyncManager();
    EXPECT_EQ(Dump({"Flaky"}), "Module Flaky is not running\n");

    gFlakyInitOk = true;
    EXPECT_EQ(Dump({"ModuleManager", "load", "Flaky"}), "Load module Flaky succeed!\n");
    EXPECT_EQ(gFlakyCreated.load(), created + 2);
    EXPECT_EQ(CountExact(log, "[loadModule] Post Init for module \"Flaky\"", tag, ANDROID_LOG_DEBUG), 1u);
    EXPECT_TRUE(events().waitFor("loaded:Flaky@Flaky"));
    EXPECT_EQ(Dump({"ModuleManager", "dump"}),
              std::string(kStatusHeader) +
                  "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tRunning\nZebra\t\tRunning\n");
    EXPECT_EQ(Dump({"Flaky"}), std::string("Dumping module Flaky: \nFlaky argc=1 Flaky\n") + kSep);

    gFlakyInitOk = false;
}

TEST(ModuleManager, ARemovedModuleWaitingADayForATaskDoesNotHoldTheManagerThread) {
    LoadPassEvents();
    constexpr long kDayMs = 24L * 3600 * 1000;
    for (bool safely : {true, false}) {
        SCOPED_TRACE(safely ? "removed safely" : "removed at once");
        gFlakyInitOk = true;
        if (Dump({"Flaky"}) == "Module Flaky is not running\n") {
            ASSERT_EQ(Dump({"ModuleManager", "load", "Flaky"}), "Load module Flaky succeed!\n");
        }
        gFlakyInitOk = false;
        platform::LogCapture log;
        const size_t due = events().count("flaky-due");
        const size_t late = events().count("flaky-late");
        const size_t gone = events().count("gone:Flaky");
        TarnisHandlerThread* thread;
        {
            std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
            thread = GetModuleList().at("Flaky").instance->handlerThread;
        }
        ASSERT_NE(thread, nullptr);
        auto handler = std::make_shared<TarnisHandler>(thread->getLooper(), nullptr);
        TarnisMessageRef tomorrow = handler->postDelayed([] { events().add("flaky-late"); }, kDayMs);
        // The module ends its one-shot work and removes itself, with work due
        // now still queued and the daily task waiting.
        handler->post([handler, safely] {
            handler->post([] { events().add("flaky-due"); });
            removeModule("Flaky", safely);
        });
        ASSERT_TRUE(events().waitForCount("gone:Flaky", gone + 1));

        // The manager thread was not held until tomorrow: it takes work at once.
        auto answered = std::make_shared<std::promise<void>>();
        ModuleManager::GetManagerHandler()->post([answered] { answered->set_value(); });
        ASSERT_EQ(answered->get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(Dump({"ModuleManager", "dump"}),
                  std::string(kStatusHeader) +
                      "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tStopped\nZebra\t\tRunning\n");
        EXPECT_EQ(Dump({"Flaky"}), "Module Flaky is not running\n");

        // Removed safely, the module still ran what was due; the task due
        // tomorrow went with its thread either way.
        if (safely) {
            EXPECT_EQ(events().count("flaky-due"), due + 1);
        }
        EXPECT_EQ(events().count("flaky-late"), late);
        EXPECT_FALSE(handler->hasMessage(tomorrow));
        EXPECT_EQ(CountExact(log, "[quit] Looper stops waiting for delayed messages", "Tarnis-TarnisLooper",
                             ANDROID_LOG_DEBUG),
                  safely ? 1u : 0u);
        EXPECT_EQ(CountExact(log, "[~ModuleBase] Bye~ Flaky", "Tarnis-ModuleBase", ANDROID_LOG_DEBUG), 1u);
        EXPECT_EQ(CountExact(log, "[~TarnisHandlerThread] ~TarnisHandlerThread Done", "Tarnis-HandlerThread",
                             ANDROID_LOG_DEBUG),
                  1u);
    }
}

TEST(ModuleManager, RefusesDuplicateNamesAndUnknownRemovals) {
    LoadPassEvents();
    platform::LogCapture log;
    {
        AlphaCopyModuleRegister again;
    }
    EXPECT_EQ(CountExact(log, "[AlphaCopyModuleRegister] Can not register module! Module name MUST BE UNIQUE!",
                         "Tarnis-ModuleRegister", ANDROID_LOG_FATAL),
              1u);
    {
        std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
        const ModulePrio& alpha = GetModuleList().at("Alpha");
        EXPECT_EQ(alpha.prio, 0u);
        EXPECT_NE(dynamic_cast<AlphaModule*>(alpha.instance), nullptr);
        EXPECT_EQ(GetModuleList().size(), 4u);
    }
    removeModule("Ghost", false);
    SyncManager();
    EXPECT_EQ(CountExact(log, "[operator()] module Ghost not found!!!", "Tarnis-ModuleManager", ANDROID_LOG_ERROR),
              1u);
    EXPECT_EQ(ModuleManager::GetManagerLooper(), ModuleManager::GetManagerHandler()->getLooper());
    EXPECT_NE(ModuleManager::GetManagerLooper(), nullptr);
}

TEST(ModuleManager, SortOrderIsPriorityDescendingUnsigned) {
    ModulePrio low, high;
    low.prio = 0;
    high.prio = 0x80000000u;  // would sort last if compared as signed
    EXPECT_TRUE(ModuleManager::cmp({"b", high}, {"a", low}));
    EXPECT_FALSE(ModuleManager::cmp({"a", low}, {"b", high}));
    EXPECT_FALSE(ModuleManager::cmp({"a", low}, {"b", low}));
}
