#include "framework/ModulePrio.h"

namespace velmar {
namespace kolto {

ModuleList& GetModuleList() {
    static ModuleList* list = new ModuleList;
    return *list;
}

std::recursive_mutex& GetModuleListLock() {
    static std::recursive_mutex* lock = new std::recursive_mutex;
    return *lock;
}

}  // namespace kolto
}  // namespace velmar
