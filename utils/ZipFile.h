#pragma once

#include <memory>
#include <string>
#include <vector>

namespace velmar {
namespace kolto {

// Packs a list of files and directory trees into one new zip archive
// (deflate, UTF-8 names, entry dates from the time of packing).
//
// Usage: construct with the paths and the tail depth, create(), close().
// A path that cannot be packed is logged and skipped, so a partial archive is
// a normal outcome; close() fails only when every path failed or the archive
// could not be finished. One thread at a time per object.
class ZipFile {
public:
    // tailDepth 0 names entries by their full path without the leading "/"
    // (and gives each directory path an entry of its own); n >= 1 keeps the
    // last n components of each file's path.
    ZipFile(std::vector<std::string> paths, int tailDepth);
    // Finishes an archive that is still open (writing the pending paths).
    ~ZipFile();
    ZipFile(const ZipFile&) = delete;
    ZipFile& operator=(const ZipFile&) = delete;

    // Creates (overwrites) the archive at `path`, closing any open one first.
    bool create(const std::string& path);
    // Writes every pending path and finishes the archive. True again, with
    // nothing done, when no archive is open.
    bool close();
    // Opens entry `name` in the archive `handle` with the packing settings.
    bool OpenNewFileInZip(void* handle, const std::string& name);
    // Streams the file at `path` into the entry that is open.
    bool AddFileContentToZip(const std::string& path);

private:
    // Writes the pending paths in batches; false when every path failed.
    bool FlushFilesIfNeeded();
    void FlushOnePath(const std::string& path, size_t& failures);
    // Opens, fills and closes one file entry.
    bool WriteFileEntry(const std::string& path, std::string name);

    std::vector<std::string> pendingPaths_;
    int tailDepth_;
    void* handle_ = nullptr;
    std::unique_ptr<char[]> buffer_;
};

}  // namespace kolto
}  // namespace velmar
