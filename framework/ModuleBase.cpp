#define LOG_TAG "Tarnis-ModuleBase"

#include "framework/ModuleBase.h"

#include <log/log.h>

namespace velmar {
namespace kolto {

ModuleBase::~ModuleBase() { ALOGD("[%s] Bye~ %s", "~ModuleBase", name.c_str()); }

bool ModuleBase::OnInit() { return true; }

void ModuleBase::OnAllModulesLoaded() {}

void ModuleBase::dump(int, const char**, unsigned int) {}

}  // namespace kolto
}  // namespace velmar
