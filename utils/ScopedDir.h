#pragma once

#include <dirent.h>

#include <memory>

namespace velmar {
namespace kolto {

// An open directory stream that closes itself: every directory walk of the
// daemon holds its DIR* in one.
struct DirCloser {
    void operator()(DIR* dir) const {
        if (dir != nullptr) closedir(dir);
    }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

}  // namespace kolto
}  // namespace velmar
