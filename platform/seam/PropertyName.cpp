#include <host/Host.h>

namespace platform {

// The names bionic's property service takes, so that a name tarnisctl
// accepts on a host is one a device accepts too.
bool IsValidPropertyName(const std::string& key) {
    constexpr size_t kMaxNameLength = 256;
    if (key.empty() || key.size() > kMaxNameLength || key[0] == '.') return false;
    for (char c : key) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '.' || c == '_' || c == '-' || c == ':' || c == '@';
        if (!ok) return false;
    }
    return true;
}

}  // namespace platform
