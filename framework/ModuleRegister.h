#pragma once

#include <cstdint>
#include <new>

#include "framework/ModuleBase.h"

namespace velmar {
namespace kolto {

// Enters a module into the module list at static-initialisation time. Each
// module declares its own registration class (named <X>ModuleRegister, and
// LogManagerRegister for the log manager) with
// TARNIS_MODULE_REGISTER; the class name appears in the duplicate-name line.
class ModuleRegister {
public:
    ModuleRegister(const char* name, uint32_t prio, const char* registerClass,
                   ModuleBase* (*createInstance)());
};

}  // namespace kolto
}  // namespace velmar

// Declares `RegisterClass` with a static createInstance() making a
// `ModuleClass`, and the static object that registers it under `moduleName`.
// Use at namespace scope in the module's source file.
#define TARNIS_MODULE_REGISTER(RegisterClass, ModuleClass, moduleName, modulePrio)           \
    class RegisterClass : public ::velmar::kolto::ModuleRegister {                          \
    public:                                                                                 \
        static ::velmar::kolto::ModuleBase* createInstance() {                              \
            return new (std::nothrow) ModuleClass();                                        \
        }                                                                                   \
        RegisterClass()                                                                     \
            : ::velmar::kolto::ModuleRegister(moduleName, modulePrio, #RegisterClass,       \
                                              &RegisterClass::createInstance) {}            \
    };                                                                                      \
    static RegisterClass g##RegisterClass
