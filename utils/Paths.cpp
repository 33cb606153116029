#include "utils/Paths.h"

#include <host/Host.h>

namespace velmar {
namespace kolto {
namespace paths {

std::string Get(std::string_view devicePath) { return platform::DevicePath(std::string(devicePath)); }

std::string DeviceOf(std::string_view path) {
    const std::string root = platform::GetRoot();
    if (root == "/" || path.compare(0, root.size(), root) != 0 || path.size() <= root.size() ||
        path[root.size()] != '/') {
        return std::string(path);
    }
    return std::string(path.substr(root.size()));
}

std::string Get(const RescueOrCache& choice, bool abUpdate) { return Get(choice.For(abUpdate)); }

}  // namespace paths
}  // namespace kolto
}  // namespace velmar
