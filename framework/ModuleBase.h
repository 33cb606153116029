#pragma once

#include <string>

namespace velmar {
namespace kolto {

class TarnisHandlerThread;

// Base of every feature module. The module manager creates the module's own
// handler thread, calls OnInit on the manager thread and, once every module of
// the loading pass is initialised, OnAllModulesLoaded on the module's thread.
class ModuleBase {
public:
    ModuleBase() = default;
    virtual ~ModuleBase();
    ModuleBase(const ModuleBase&) = delete;
    ModuleBase& operator=(const ModuleBase&) = delete;

    // False removes the module again.
    virtual bool OnInit();
    virtual void OnAllModulesLoaded();
    // Writes the module's state to `fd` for the dump command.
    virtual void dump(int fd, const char** args, unsigned int argc);

    // Set once OnInit has returned true; owned by the module manager.
    TarnisHandlerThread* handlerThread = nullptr;
    std::string name;
};

}  // namespace kolto
}  // namespace velmar
