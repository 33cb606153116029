#pragma once

#include <dirent.h>
#include <stdio.h>

#include <memory>

#include <android-base/unique_fd.h>

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

// A stream over `fd` that takes it over only when the stream could be made:
// otherwise `fd` stays open and owned where it was.
inline ScopedDir AdoptDir(android::base::unique_fd& fd) {
    DIR* dir = fd.ok() ? fdopendir(fd.get()) : nullptr;
    if (dir != nullptr) {
        const int adopted = fd.release();
        static_cast<void>(adopted);
    }
    return ScopedDir(dir);
}
inline FILE* AdoptFile(android::base::unique_fd& fd, const char* mode) {
    FILE* file = fd.ok() ? fdopen(fd.get(), mode) : nullptr;
    if (file != nullptr) {
        const int adopted = fd.release();
        static_cast<void>(adopted);
    }
    return file;
}

}  // namespace kolto
}  // namespace velmar
