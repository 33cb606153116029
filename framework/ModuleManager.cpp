#define LOG_TAG "Tarnis-ModuleManager"

#include "framework/ModuleManager.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <android-base/file.h>
#include <host/LogRateLimiter.h>
#include <log/log.h>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {

namespace {

// "load" is a dump command that any process may send, as often as it likes:
// the lines its refusals leave are rationed.
platform::LogRateLimiter& LoadRefusals() {
    static platform::LogRateLimiter limiter(10, 60000);
    return limiter;
}

using ListLock = std::lock_guard<std::recursive_mutex>;

TarnisHandlerThread* ManagerThread() {
    static TarnisHandlerThread* thread = TarnisHandlerThread::create("ModuleManager");
    return thread;
}

// Starts the manager thread during static initialisation. This file is linked
// whenever the framework is used, and the thread reaches the pool and the
// looper registry only through their first-use accessors, so the order in
// which translation units are initialised does not matter.
TarnisHandlerThread* const gManagerThread = ManagerThread();

// A reader that went away only cuts the dump short.
void WriteAll(int fd, const std::string& text) { android::base::WriteStringToFd(text, fd); }

const char kSeparator[] = "\n-------------------------------------\n";

// Runs OnAllModulesLoaded on the module's own thread; the handler lives
// until the task has run (or was dropped with the queue).
void PostAllModulesLoaded(ModuleBase* instance, TarnisHandlerThread* thread) {
    auto handler = std::make_shared<TarnisHandler>(thread->getLooper(), nullptr);
    handler->post([instance, handler] { instance->OnAllModulesLoaded(); });
}

}  // namespace

void ModuleManager::loadModules() { GetManagerHandler()->post(&ModuleManager::_loadModules); }

bool ModuleManager::cmp(const std::pair<std::string, ModulePrio>& a,
                        const std::pair<std::string, ModulePrio>& b) {
    return a.second.prio > b.second.prio;
}

void ModuleManager::_loadModules() {
    std::vector<std::pair<std::string, ModulePrio>> entries;
    {
        ListLock guard(GetModuleListLock());
        ModuleList& list = GetModuleList();
        entries.assign(list.begin(), list.end());
    }
    std::stable_sort(entries.begin(), entries.end(), &ModuleManager::cmp);

    std::vector<bool> ignored(entries.size(), false);
    size_t ignoredCount = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        const std::string& name = entries[i].first;
        ModuleBase* instance = entries[i].second.instance;
        ALOGD("[%s] Loading module \"%s\"", "_loadModules", name.c_str());
        TarnisHandlerThread* thread = TarnisHandlerThread::create(name);
        if (instance != nullptr && instance->OnInit()) {
            instance->handlerThread = thread;
        } else {
            ignored[i] = true;
            ++ignoredCount;
            delete thread;
            ALOGD("[%s] Module \"%s\" ignored because OnInit returned false", "_loadModules",
                  name.c_str());
        }
    }
    ALOGI("[%s] Loaded %zu modules", "_loadModules", entries.size() - ignoredCount);

    for (size_t i = 0; i < entries.size(); ++i) {
        if (ignored[i]) continue;
        ALOGD("[%s] Post Init for module \"%s\"", "_loadModules", entries[i].first.c_str());
        ModuleBase* instance = entries[i].second.instance;
        PostAllModulesLoaded(instance, instance->handlerThread);
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        if (!ignored[i]) continue;
        ALOGD("[%s] Cleanup ignored module \"%s\"", "_loadModules", entries[i].first.c_str());
        removeModule(entries[i].first, false);
    }

    ListLock guard(GetModuleListLock());
    for (auto& entry : GetModuleList()) entry.second.stopped = false;
}

TarnisHandler* ModuleManager::GetManagerHandler() {
    static TarnisHandler* handler = new TarnisHandler(GetManagerLooper(), nullptr);
    return handler;
}

TarnisLooper* ModuleManager::GetManagerLooper() { return ManagerThread()->getLooper(); }

void removeModule(const std::string& name, bool quitSafely) {
    ModuleManager::GetManagerHandler()->post([name, quitSafely] {
        TarnisHandlerThread* thread = nullptr;
        {
            ListLock guard(GetModuleListLock());
            ModuleList& list = GetModuleList();
            auto found = list.find(name);
            if (found == list.end()) {
                ALOGE("[%s] module %s not found!!!", "operator()", StringUtil::ForLog(name).c_str());
                return;
            }
            found->second.stopped = true;
            if (found->second.instance != nullptr) {
                thread = found->second.instance->handlerThread;
                found->second.instance->handlerThread = nullptr;
            }
        }
        // The module's thread is quit and joined without the list lock: its
        // last tasks may still dump or look at the list.
        if (thread != nullptr) {
            if (quitSafely) thread->quitSafely();
            delete thread;
        }
        ListLock guard(GetModuleListLock());
        auto found = GetModuleList().find(name);
        if (found == GetModuleList().end()) return;
        delete found->second.instance;
        found->second.instance = nullptr;
    });
}

bool ModuleManager::loadModule(const std::string& name) {
    ModuleBase* instance = nullptr;
    TarnisHandlerThread* thread = nullptr;
    {
        ListLock guard(GetModuleListLock());
        ModuleList& list = GetModuleList();
        auto found = list.find(name);
        if (found == list.end()) {
            uint64_t suppressed = 0;
            if (LoadRefusals().Allow(&suppressed)) {
                ALOGE("[%s] loadModule %s failed! Module not found!%s", "loadModule", StringUtil::ForLog(name).c_str(),
                      platform::LogRateLimiter::Summary(suppressed).c_str());
            }
            return false;
        }
        ALOGD("[%s] Loading module \"%s\"", "loadModule", name.c_str());
        ModulePrio& entry = found->second;
        if (!entry.stopped || entry.instance != nullptr) {
            uint64_t suppressed = 0;
            if (LoadRefusals().Allow(&suppressed)) {
                ALOGW("[%s] Module %s is already running!%s", "loadModule", name.c_str(),
                      platform::LogRateLimiter::Summary(suppressed).c_str());
            }
            return false;
        }
        instance = entry.createInstance != nullptr ? entry.createInstance() : nullptr;
        if (instance == nullptr) {
            ALOGE("[%s] loadModule %s failed! Module not created!", "loadModule", name.c_str());
            return false;
        }
        entry.instance = instance;
        instance->name = name;
        thread = TarnisHandlerThread::create(name);
    }
    if (instance->OnInit()) {
        {
            ListLock guard(GetModuleListLock());
            instance->handlerThread = thread;
            auto found = GetModuleList().find(name);
            if (found != GetModuleList().end()) found->second.stopped = false;
        }
        ALOGD("[%s] Post Init for module \"%s\"", "loadModule", name.c_str());
        PostAllModulesLoaded(instance, thread);
        return true;
    }
    thread->quit();
    removeModule(name, false);
    delete thread;
    return false;
}

void ModuleManager::dump(int fd, const char** args, unsigned int argc) {
    std::string first = argc > 0 && args[0] != nullptr ? args[0] : "";
    if (argc == 0 || first == "-a") {
        ListLock guard(GetModuleListLock());
        for (auto& entry : GetModuleList()) {
            if (entry.second.stopped || entry.second.instance == nullptr) continue;
            WriteAll(fd, "Dumping module " + entry.first + ": \n");
            entry.second.instance->dump(fd, args, argc);
            WriteAll(fd, kSeparator);
        }
        return;
    }
    if (first == "ModuleManager" || first == "modulemanager") {
        std::string command = argc > 1 && args[1] != nullptr ? args[1] : "";
        if (command == "load" && argc > 2 && args[2] != nullptr) {
            std::string name = args[2];
            if (loadModule(name)) {
                WriteAll(fd, "Load module " + name + " succeed!\n");
            } else {
                WriteAll(fd, "Load module " + name + " failed! See Logcat for details.\n");
            }
            return;
        }
        if (command == "dump") {
            std::string text = "Current Modules:\n-------------------------\nName \t\t Status\n";
            ListLock guard(GetModuleListLock());
            for (auto& entry : GetModuleList()) {
                text += entry.first + "\t\t" + (entry.second.stopped ? "Stopped" : "Running") + "\n";
            }
            WriteAll(fd, text);
            return;
        }
        WriteAll(fd,
                 "Tarnis ModuleManager:\n"
                 "load <module name> \t\t Load a module that is not running\n"
                 "dump \t\t Get Current Modules Status.\n");
        return;
    }
    ListLock guard(GetModuleListLock());
    auto found = GetModuleList().find(first);
    if (found == GetModuleList().end()) {
        WriteAll(fd, "Module " + first + " not found!!\n");
        return;
    }
    if (found->second.stopped || found->second.instance == nullptr) {
        WriteAll(fd, "Module " + first + " is not running\n");
        return;
    }
    WriteAll(fd, "Dumping module " + first + ": \n");
    found->second.instance->dump(fd, args, argc);
    WriteAll(fd, kSeparator);
}

}  // namespace kolto
}  // namespace velmar
