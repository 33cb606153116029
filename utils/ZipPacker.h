#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <zip.h>

#include "utils/DeflatePool.h"
#include "utils/ZipFile.h"

namespace velmar {
namespace kolto {

// Opens the next entry of `zip`. `raw` entries receive deflated bytes and are
// closed with their size and CRC; the others deflate what they are given.
bool OpenZipEntry(zipFile zip, const std::string& name, bool raw, bool text);

// Only regular files are packed: a device or fifo has no end to read to.
// False, with the line the packer logs for a file it cannot open, otherwise.
bool StatRegularFile(int fd, const std::string& path, struct stat* st);

// Reads the paths on the caller's thread, has the pool deflate them and
// writes the entries in the order they were read, each as soon as it is ready
// and room is needed for more.
class ZipPacker {
public:
    // The archive being written is the file `archiveDev`/`archiveIno`: never
    // packed into itself.
    ZipPacker(zipFile zip, int tailDepth, dev_t archiveDev, ino_t archiveIno, unsigned workers);
    ~ZipPacker() { Finish(); }
    ZipPacker(const ZipPacker&) = delete;
    ZipPacker& operator=(const ZipPacker&) = delete;

    // `shown` is where the entries' names and the log say the path is.
    void PackPath(const std::string& path, const std::string& shown);
    // Paths below `hostTop` are reached from it without following a link.
    void ConfineBelow(const std::string& hostTop) { confineTop_ = hostTop; }
    // Writes everything still in flight.
    void Finish() {
        while (!steps_.empty()) WriteFront();
    }
    // Paths that failed as a whole (the archive lacks everything of them).
    size_t failures() const { return failures_; }
    // Every file that a reader of the archive will not find whole in it. Not
    // listed: what is never packed by design (links, fifos and devices, the
    // archive itself) and a file that was gone before it could be opened.
    const std::vector<ZipMissing>& missing() const { return missing_; }

private:
    // The writer's work, in archive order: a directory entry, or a file
    // block (the first opens the entry, the last closes it).
    struct Step {
        std::string name;
        std::string path;
        std::shared_ptr<Block> block;
        bool opens = false;
        std::string readFailed;  // why reading stopped early, when it did
    };
    enum class ReadResult { kMore, kEnd, kFailed };

    void Walk(android::base::unique_fd own, const std::string& dir);
    bool PackConfined(const std::string& path, const std::string& relative);
    void PackFile(int dirFd, const char* openName, const std::string& path, std::string name);
    void ReadBlocks(int fd, const struct stat& st, const std::string& path, const std::string& name);
    std::shared_ptr<Block> NewBlock(off_t remaining, const Block* previous);
    ReadResult Fill(int fd, Block& block, const std::string& path, std::string* why);
    void Submit(std::shared_ptr<Block> block, const std::string& path, const std::string& name, bool opens);
    void WriteFront();
    void FileFailed(const std::string& path);
    void Missing(const std::string& path, const std::string& why) { missing_.push_back({path, why}); }

    zipFile zip_;
    int tailDepth_;
    DeflatePool pool_;
    const size_t budget_;
    size_t inFlight_ = 0;
    std::deque<Step> steps_;
    size_t failures_ = 0;
    std::vector<ZipMissing> missing_;
    dev_t archiveDev_ = 0;
    ino_t archiveIno_ = 0;
    // The entry being written.
    std::string entryName_;
    bool entryOpen_ = false;
    bool entryFailed_ = false;
    uLong crc_ = 0;
    ZPOS64_T size_ = 0;
    std::string confineTop_;
};

}  // namespace kolto
}  // namespace velmar
