#pragma once

#include <sys/types.h>

#include <string>

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
    // name in `tempName`; -1 with errno set on failure.
    static int CreateAt(int dirFd, const std::string& finalName, mode_t mode, std::string* tempName);
    // Removes every temporary name left in the directory `hostDir` (not
    // below it); the number removed. Links and directories of that shape
    // are removed as entries, never followed.
    static int RemoveLeftovers(const std::string& hostDir);
    // The same in the open directory `dirFd`, for a caller that reached it
    // below its tree and must not walk the path again; `shownDir` names it
    // in the log lines.
    static int RemoveLeftoversAt(int dirFd, const std::string& shownDir);
};

}  // namespace kolto
}  // namespace velmar
