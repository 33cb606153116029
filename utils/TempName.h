#pragma once

#include <sys/types.h>

#include <string>

#include <android-base/unique_fd.h>

namespace velmar {
namespace kolto {

// The daemon writes evidence under a temporary name and renames it into place
// once complete. Every such name has one shape, ".tarnis-tmp." + the final
// name + "." + a random part, so that what a killed write leaves behind is
// known for what it is: removed when the daemon starts, and never counted as
// a log entry or a capture.
class TempName {
public:
    static constexpr char kPrefix[] = ".tarnis-tmp.";

    // True for a name of that shape.
    static bool Is(const std::string& name);
    // `count` random letters and digits from the kernel's random source.
    static std::string Random(size_t count);
    // Creates a new temporary file for `finalName` in the open directory
    // `dirFd` (exclusive, write-only, never through a link) and stores its
    // name in `tempName`; not ok() with errno set on failure.
    static android::base::unique_fd CreateAt(int dirFd, const std::string& finalName, mode_t mode, std::string* tempName);
    // Writes `data` as the whole new content of the file `hostPath`: into a
    // temporary beside it (mode `mode`, and `owner`/`group` unless -1),
    // flushed to disk, then renamed over the name. Readers see the old file
    // or the complete new one, and a link planted at the name is replaced,
    // never written through. False with errno set when any step fails; the
    // temporary is then gone.
    static bool WriteWhole(const std::string& hostPath, const std::string& data, mode_t mode, uid_t owner = -1,
                           gid_t group = -1);
    // Removes every temporary name left in the directory `hostDir` (not
    // below it); the number removed. Links and directories of that shape
    // are removed as entries, never followed.
    static int RemoveLeftovers(const std::string& hostDir);
    // The same in the directory open as `dirFd`, named `shownDir` in the log.
    static int RemoveLeftovers(int dirFd, const std::string& shownDir);
};

}  // namespace kolto
}  // namespace velmar
