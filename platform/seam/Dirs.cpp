#include "platform/seam/Dirs.h"

#include <sys/stat.h>

#include <cerrno>

namespace platform {

bool MakeDirs(const std::string& path, mode_t mode) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/') continue;
        if (mkdir(path.substr(0, pos).c_str(), mode) != 0 && errno != EEXIST) return false;
    }
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace platform
