#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <memory>
#include <string>

// Directory helpers of the host stand-ins (the property store, the service
// directory, the journal): one home, so they all create and list alike.
namespace platform {

// Creates `path` and every missing parent with `mode`; true when it is a
// directory afterwards (also when it already was).
bool MakeDirs(const std::string& path, mode_t mode = 0755);

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

}  // namespace platform
