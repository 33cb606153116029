#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

namespace velmar {
namespace kolto {

// A file that should be in an archive and is not there whole, and why.
struct ZipMissing {
    std::string path;
    std::string why;
};

// Packs a list of files and directory trees into one new zip archive
// (deflate, UTF-8 names, entry dates from the time of packing).
//
// Usage: construct with the paths and the tail depth, create(), close().
// A path that cannot be packed is logged and skipped, so a partial archive is
// a normal outcome; close() fails only when every path failed or the archive
// could not be finished, and complete() then says whether every file is in it
// whole (missing() lists those that are not, and why). One thread at a time per object; close() deflates on
// worker threads of its own, one per CPU the caller may run on.
//
// The archive is written under a temporary name beside `path` and takes its
// place only once finished, so a reader never sees half an archive and a link
// planted at `path` is replaced, never written through. Symbolic links met in
// a tree, or given as a file path, are skipped: their targets are not ours to
// pack.
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

    // Paths below the directory `hostTop` are the callers' clients' and are
    // opened from it component by component, never through a link in any of
    // them; a path that meets one is not packed.
    void ConfineBelow(const std::string& hostTop);
    // Names the entries of the pending `path` as if it stood at `shownPath`:
    // a tree read through a held descriptor (ConfinedPath::Through) is packed
    // under the names its own path gives.
    void nameAs(const std::string& path, const std::string& shownPath);
    // Starts the archive that will replace `path`, closing any open one first.
    bool create(const std::string& path);
    // The same for the archive `name` in the open directory `dirFd` (kept
    // open until the archive is in place), shown as `shownPath` in the log:
    // for a directory reached below its tree, never looked up by name again.
    bool create(int dirFd, const std::string& name, const std::string& shownPath);
    // Writes every pending path, finishes the archive and puts it in place.
    // True again, with nothing done, when no archive is open.
    bool close();
    // After a successful close(): every regular file of the paths is in the
    // archive as it was when read to its end. Links, fifos and devices are
    // never packed and do not count; nor does a file gone before it was
    // opened.
    bool complete() const { return closed_ && missing_.empty(); }
    const std::vector<ZipMissing>& missing() const { return missing_; }
    // Opens entry `name` in the archive `handle` with the packing settings.
    bool OpenNewFileInZip(void* handle, const std::string& name);
    // Streams the file at `path` into the entry that is open, on this thread.
    bool AddFileContentToZip(const std::string& path);

private:
    // Writes the pending paths in batches; false when every path failed.
    bool FlushFilesIfNeeded();
    // Drops the unfinished archive.
    void Abandon();

    std::vector<std::string> pendingPaths_;
    std::map<std::string, std::string> shownAs_;
    int tailDepth_;
    void* handle_ = nullptr;
    android::base::unique_fd dirFd_;  // the directory the archive goes in
    std::string name_;                // its name there
    std::string path_;                // and its path, for the log
    std::string tempName_;            // where it is written until then
    dev_t archiveDev_ = 0;            // the file being written
    ino_t archiveIno_ = 0;
    std::unique_ptr<char[]> buffer_;
    std::string confineTop_;
    bool closed_ = false;
    std::vector<ZipMissing> missing_;
};

}  // namespace kolto
}  // namespace velmar
