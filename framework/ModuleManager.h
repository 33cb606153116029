#pragma once

#include <string>
#include <utility>

#include "framework/ModulePrio.h"

namespace velmar {
namespace kolto {

class TarnisHandler;
class TarnisLooper;

// Loads, removes and dumps the modules. All changes to the module list after
// start-up run on the "ModuleManager" handler thread, except "load" from the
// dump command, which runs on the caller's thread.
class ModuleManager {
public:
    // Posts the loading of every registered module to the manager thread.
    static void loadModules();
    // Loads every registered module; runs on the manager thread.
    static void _loadModules();
    // Sort order of loading: higher priority first.
    static bool cmp(const std::pair<std::string, ModulePrio>& a,
                    const std::pair<std::string, ModulePrio>& b);
    // The handler of the manager thread (made on first use, never freed).
    static TarnisHandler* GetManagerHandler();
    // The looper of the "ModuleManager" thread.
    static TarnisLooper* GetManagerLooper();
    // The dump command interpreter; writes its answer to `fd`.
    static void dump(int fd, const char** args, unsigned int argc);
    // Loads a stopped, removed module again; false on any failure.
    static bool loadModule(const std::string& name);
};

// Posts the removal of module `name` to the manager thread. A module calls it
// with its own name and `quitSafely` true when its one-shot work is done.
void removeModule(const std::string& name, bool quitSafely);

}  // namespace kolto
}  // namespace velmar
