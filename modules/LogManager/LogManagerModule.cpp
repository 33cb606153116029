#include "framework/ModuleRegister.h"
#include "modules/LogManager/LogManager.h"

namespace velmar {
namespace kolto {

TARNIS_MODULE_REGISTER(LogManagerModuleRegister, LogManager, "LogManager", 1);

}  // namespace kolto
}  // namespace velmar
