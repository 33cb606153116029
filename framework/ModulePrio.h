#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace velmar {
namespace kolto {

class ModuleBase;

// One entry of the module list.
struct ModulePrio {
    // Larger loads earlier.
    uint32_t prio = 0;
    // The live module, or null after removal.
    ModuleBase* instance = nullptr;
    bool stopped = true;
    // Makes a new module object, to load the module again.
    ModuleBase* (*createInstance)() = nullptr;
};

using ModuleList = std::map<std::string, ModulePrio>;

// The process-wide module list, by name; made on first use so that
// registration objects in any translation unit can reach it.
ModuleList& GetModuleList();
// Guards the list: it is changed on the manager thread and read by dumps on
// binder threads. Never held while a module's OnInit or a thread join runs.
std::recursive_mutex& GetModuleListLock();

}  // namespace kolto
}  // namespace velmar
