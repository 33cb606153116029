#pragma once

#include <sys/types.h>

#include <string>

#include <android-base/unique_fd.h>

namespace velmar {
namespace kolto {

// The one way to reach a device path that comes from outside the daemon's own
// code: a client's argument, a property, a configuration record, a line of a
// file. Such a path belongs to a tree (the persist directory, /data, a managed
// log root) and is resolved below it component by component: "." and ".." are
// taken by name and may not climb above the tree, and no component, the last
// included, may be a symbolic link. The kernel does the walk where it can
// (openat2 with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS); elsewhere each
// component is opened from its parent's descriptor with O_NOFOLLOW.
//
// The tree's own top is the daemon's constant and is opened as it stands
// (below the root when one is set). Every refusal comes with one sentence in
// `why`, the outside text escaped, for the log and for the caller.
class ConfinedPath {
public:
    // `devicePath` made relative to `deviceTop` ("" for the top itself), or
    // false when it is not absolute, or climbs out of or lies outside the top.
    static bool Relative(const std::string& devicePath, const std::string& deviceTop, std::string* relative,
                         std::string* why);
    // True when `devicePath` names `deviceTop` or something below it, by
    // name alone (for deciding which tree a path belongs to).
    static bool IsBelow(const std::string& devicePath, const std::string& deviceTop);

    // Opens `relative` (no ".." left in it) below the open directory `topFd`.
    // O_CLOEXEC and O_NOFOLLOW are added to `flags`.
    static android::base::unique_fd OpenAt(int topFd, const std::string& relative, int flags, mode_t mode,
                                           std::string* why);
    // Opens the device path below the device tree `deviceTop`.
    static android::base::unique_fd Open(const std::string& devicePath, const std::string& deviceTop, int flags,
                                         mode_t mode, std::string* why);
    // As Open, non-blocking, and refused unless the result is a regular file:
    // a FIFO or a device there never holds the caller.
    static android::base::unique_fd OpenRegular(const std::string& devicePath, const std::string& deviceTop,
                                                int flags, mode_t mode, std::string* why);
    // The directory that holds `devicePath`, opened below the tree, and the
    // last component's name in `leaf`: for unlinkat, renameat, mkdirat.
    static android::base::unique_fd OpenParent(const std::string& devicePath, const std::string& deviceTop,
                                               std::string* leaf, std::string* why);
    // Makes every missing directory of `devicePath` below the tree with
    // `mode`, none through a link, and opens the last one.
    static android::base::unique_fd MakeDirs(const std::string& devicePath, const std::string& deviceTop,
                                             mode_t mode, std::string* why);
    // Removes the file (or the link itself) at `devicePath` below the tree.
    // True when it is gone afterwards; false with `why` otherwise.
    static bool Remove(const std::string& devicePath, const std::string& deviceTop, std::string* why);

    // A path that reaches `name` (none: the directory itself) in the
    // directory open as `dirFd`, for helpers that only take paths: the kernel
    // resolves /proc/self/fd/N to the very directory held open, whatever its
    // name leads to by now, so nothing above it is looked up again.
    static std::string Through(int dirFd, const std::string& name = "");

    // Walks by hand even where the kernel has openat2, so that tests cover
    // the path older kernels take.
    static void UseWalkForTesting(bool walk);
};

}  // namespace kolto
}  // namespace velmar
