#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace velmar {
namespace kolto {

// File and tree helpers. Paths are used exactly as given: callers map device
// paths (platform::DevicePath) before handing them over. Failures come back
// as results and as log lines under "Tarnis-FileUtil".
//
// Symbolic links inside a tree are never followed out of it: deleting a tree
// removes a link as a link, sizing counts the link itself, copying recreates
// a link that does not point at a regular file. Only the top-level path
// given by the caller is resolved through links.
class FileUtil {
public:
    // True when the path exists (a dangling link counts as absent).
    static bool FileExist(const std::string& path);
    // Sets the permission bits; false when the path is missing, is a link
    // (neither it nor its target is changed), or chmod fails.
    static bool ChangeMode(const std::string& path, const unsigned int& mode);
    // Creates every missing directory of `path` (mode 0775 in the end) and
    // gives the last one to uid/gid. A relative path starts at the root.
    static bool CreateDirectoryWithOwner(const std::string& path, int uid, int gid);
    static bool IsDirectory(const std::string& path);
    // The low 32 bits of the size (links followed), 0 when unreadable.
    static int32_t GetFileSize(const std::string& path);
    // Bytes in the tree including the directories' own sizes; -1 when
    // `path` cannot be opened as a directory.
    static long GetDirectorySize(const std::string& path);
    // Bytes in the tree below the directory `name` of `parentFd`, its own
    // size (`ownSize`, from the caller's lstat of it) included; nothing
    // reached through a link. -1 when it cannot be opened (gone meanwhile, or
    // swapped for a link).
    static int64_t TreeSizeAt(int parentFd, const char* name, int64_t ownSize);
    // Removes a file or a whole tree. 0 on success, else -1 or the failing
    // call's result; the walk stops at the first failure. When `freed` is
    // given it receives the bytes removed by this call (untouched when the
    // path is missing or cannot be opened).
    static int DeleteDirectoryOrFile(const std::string& path, unsigned long* freed);
    // Reads at most `maxBytes` of the regular file at `path` into `text`.
    // Opened non-blocking and without following a link at the name, so that
    // a FIFO, a device or a link left where the daemon reads its own small
    // files never holds or misleads it: false (errno set) for those, as for
    // a missing file.
    static bool ReadRegularFile(const std::string& path, std::string* text, size_t maxBytes);
    // The first `length` bytes of the open file `in` into `out` at the same
    // offsets, holes kept as holes (only data extents are read, blocks of
    // zeros are not written) and the size set at the end; stops early when
    // the source shrank. False when a read or write fails.
    static bool CopySparse(int in, int out, off_t length);
    // Copies a file, or a tree into a new directory `dst`; a sparse file
    // stays sparse.
    static bool CopyFileOrDirectory(const std::string& src, const std::string& dst);
    // Appends every regular file and symbolic link below `dir` in directory
    // read order; false only when `dir` itself cannot be opened.
    static bool GetFileListOnDirectory(const std::string& dir, std::vector<std::string>& out);
    // "0 bytes", "1.50 KB", ...; sizes below 1 KiB read "512.00 BB".
    static std::string formatHumanSize(unsigned long bytes);
};

}  // namespace kolto
}  // namespace velmar
