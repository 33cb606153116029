#define LOG_TAG "Tarnis-ModuleRegister"

#include "framework/ModuleRegister.h"

#include <mutex>

#include <log/log.h>

#include "framework/ModulePrio.h"

namespace velmar {
namespace kolto {

ModuleRegister::ModuleRegister(const char* name, uint32_t prio, const char* registerClass,
                               ModuleBase* (*createInstance)()) {
    std::lock_guard<std::recursive_mutex> guard(GetModuleListLock());
    ModuleList& list = GetModuleList();
    if (list.find(name) != list.end()) {
        __android_log_print(ANDROID_LOG_FATAL, LOG_TAG,
                            "[%s] Can not register module! Module name MUST BE UNIQUE!",
                            registerClass);
        return;
    }
    ModulePrio entry;
    entry.prio = prio;
    entry.instance = createInstance();
    if (entry.instance != nullptr) entry.instance->name = name;
    entry.stopped = true;
    entry.createInstance = createInstance;
    list.emplace(name, entry);
}

}  // namespace kolto
}  // namespace velmar
