#include "utils/Paths.h"

#include <host/Host.h>

namespace velmar {
namespace kolto {
namespace paths {

std::string Get(std::string_view devicePath) { return platform::DevicePath(std::string(devicePath)); }

std::string Get(const RescueOrCache& choice, bool abUpdate) { return Get(choice.For(abUpdate)); }

}  // namespace paths
}  // namespace kolto
}  // namespace velmar
