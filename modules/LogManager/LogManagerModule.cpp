#include "framework/ModuleRegister.h"
#include "modules/LogManager/LogManager.h"

namespace velmar {
namespace kolto {

TARNIS_MODULE_REGISTER(LogManagerRegister, LogManager, "LogManager", 1);

}  // namespace kolto
}  // namespace velmar
