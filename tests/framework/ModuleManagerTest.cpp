#include <gtest/gtest.h>
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

#include "framework/ModuleBase.h"
#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include <log/log.h>
#include "platform/LogCapture.h"

using namespace velmar::kolto;

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
        size_t n = 0;
        for (auto& x : events_) n += x == e;
        return n;
    }

private:
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
    EXPECT_TRUE(log.Contains("[_loadModules] Loading module \"First\"", tag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log.Contains("[_loadModules] Module \"Flaky\" ignored because OnInit returned false",
                             tag, ANDROID_LOG_DEBUG));
    EXPECT_EQ(log.Count("[_loadModules] Loaded 3 modules", tag, ANDROID_LOG_INFO), 1u);
    EXPECT_TRUE(log.Contains("[_loadModules] Post Init for module \"Zebra\"", tag, ANDROID_LOG_DEBUG));
    EXPECT_FALSE(log.Contains("[_loadModules] Post Init for module \"Flaky\"", tag));
    EXPECT_TRUE(log.Contains("[_loadModules] Cleanup ignored module \"Flaky\"", tag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log.Contains("[~ModuleBase] Bye~ Flaky", "Tarnis-ModuleBase", ANDROID_LOG_DEBUG));

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
    size_t lateBefore = events().count("flaky-late");

    EXPECT_EQ(Dump({"ModuleManager", "load", "Alpha"}),
              "Load module Alpha failed! See Logcat for details.\n");
    EXPECT_TRUE(log.Contains("[loadModule] Module Alpha is already running!", tag, ANDROID_LOG_WARN));
    EXPECT_EQ(Dump({"modulemanager", "load", "Ghost"}),
              "Load module Ghost failed! See Logcat for details.\n");
    EXPECT_TRUE(log.Contains("[loadModule] loadModule Ghost failed! Module not found!", tag,
                             ANDROID_LOG_ERROR));

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
    EXPECT_TRUE(log.Contains("[loadModule] Post Init for module \"Flaky\"", tag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(events().waitFor("loaded:Flaky@Flaky"));
    EXPECT_EQ(Dump({"ModuleManager", "dump"}),
              std::string(kStatusHeader) +
                  "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tRunning\nZebra\t\tRunning\n");
    EXPECT_EQ(Dump({"Flaky"}), std::string("Dumping module Flaky: \nFlaky argc=1 Flaky\n") + kSep);

    // A module removing itself safely still gets the work already queued on
    // its thread, delayed work included, before it goes.
    TarnisHandlerThread* thread;
    {
        std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
        thread = GetModuleList().at("Flaky").instance->handlerThread;
    }
    ASSERT_NE(thread, nullptr);
    TarnisHandler* handler = new TarnisHandler(thread->getLooper(), nullptr);
    handler->postDelayed([] { events().add("flaky-late"); }, 50);
    auto removing = std::make_shared<std::promise<void>>();
    handler->post([removing] {
        removeModule("Flaky", true);
        removing->set_value();
    });
    ASSERT_EQ(removing->get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    SyncManager();
    EXPECT_EQ(events().count("flaky-late"), lateBefore + 1);
    delete handler;
    EXPECT_EQ(Dump({"ModuleManager", "dump"}),
              std::string(kStatusHeader) +
                  "Alpha\t\tRunning\nFirst\t\tRunning\nFlaky\t\tStopped\nZebra\t\tRunning\n");
    gFlakyInitOk = false;
}

TEST(ModuleManager, RefusesDuplicateNamesAndUnknownRemovals) {
    LoadPassEvents();
    platform::LogCapture log;
    {
        AlphaCopyModuleRegister again;
    }
    EXPECT_TRUE(log.Contains("[AlphaCopyModuleRegister] Can not register module! Module name MUST BE UNIQUE!",
                             "Tarnis-ModuleRegister", ANDROID_LOG_FATAL));
    {
        std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
        const ModulePrio& alpha = GetModuleList().at("Alpha");
        EXPECT_EQ(alpha.prio, 0u);
        EXPECT_NE(dynamic_cast<AlphaModule*>(alpha.instance), nullptr);
        EXPECT_EQ(GetModuleList().size(), 4u);
    }
    removeModule("Ghost", false);
    SyncManager();
    EXPECT_TRUE(log.Contains("[operator()] module Ghost not found!!!", "Tarnis-ModuleManager",
                             ANDROID_LOG_ERROR));
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
