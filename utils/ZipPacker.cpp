#define LOG_TAG "Tarnis-ZipFile"

#include "utils/ZipPacker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

// Names are UTF-8 (general-purpose flag bit 11).
constexpr uLong kFlagUtf8 = 1 << 11;

std::string RelativeName(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path.substr(1);
    return path;
}

}  // namespace

bool StatRegularFile(int fd, const std::string& path, struct stat* st) {
    const int statError = fstat(fd, st) != 0 ? errno : 0;
    if (statError == 0 && S_ISREG(st->st_mode)) return true;
    const int error = statError != 0 ? statError : S_ISDIR(st->st_mode) ? EISDIR : EINVAL;
    ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip", StringUtil::ForLog(path).c_str(),
          strerror(error));
    return false;
}

bool OpenZipEntry(zipFile zip, const std::string& name, bool raw, bool text) {
    // Entries carry the time they were packed, not the file's own time.
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    zip_fileinfo info {};
    info.tmz_date.tm_sec = static_cast<uInt>(local.tm_sec);
    info.tmz_date.tm_min = static_cast<uInt>(local.tm_min);
    info.tmz_date.tm_hour = static_cast<uInt>(local.tm_hour);
    info.tmz_date.tm_mday = static_cast<uInt>(local.tm_mday);
    // The writer's record counts months from 0 and adds one itself.
    info.tmz_date.tm_mon = static_cast<uInt>(local.tm_mon);
    info.tmz_date.tm_year = static_cast<uInt>(local.tm_year + 1900);
    info.dosDate = 0;
    // The writer marks text itself when it deflates; raw entries say so here.
    info.internal_fa = text ? 1 : 0;
    info.external_fa = 0;

    // zip64 stays off as it always was: an entry of 4 GiB or more fails to
    // close and is reported, as before.
    const int rc = zipOpenNewFileInZip4_64(
        zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
        Z_DEFAULT_COMPRESSION, raw ? 1 : 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY, nullptr, 0,
        0 /* version made by */, kFlagUtf8, 0 /* no zip64 */);
    if (rc != ZIP_OK) {
        ALOGE("[%s] zipOpenNewFileInZip4 failed", "OpenNewFileInZip");
        return false;
    }
    return true;
}

ZipPacker::ZipPacker(zipFile zip, int tailDepth, dev_t archiveDev, ino_t archiveIno, unsigned workers)
    : zip_(zip), tailDepth_(tailDepth), pool_(workers), budget_(pool_.workers() * kBytesInFlightPerWorker),
      archiveDev_(archiveDev), archiveIno_(archiveIno) {}

void ZipPacker::FileFailed(const std::string& path) {
    ALOGE("[%s] Failed to write file %s", "FlushFilesIfNeeded", StringUtil::ForLog(path).c_str());
    ++failures_;
}

void ZipPacker::PackPath(const std::string& path, const std::string& shown) {
    const std::string relative = RelativeName(shown);
    if (PackConfined(path, relative)) return;
    // A directory named in the list may be reached through a link, as the
    // caller chose it; inside it no link is followed.
    if (!FileUtil::IsDirectory(path)) {
        PackFile(AT_FDCWD, path.c_str(), shown, relative);
        return;
    }
    if (tailDepth_ == 0) {
        Step step;
        step.name = relative;
        if (!StringUtil::EndsWith(step.name, "/")) step.name += "/";
        step.path = shown;
        steps_.push_back(std::move(step));
    }
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.ok()) {
        ALOGE("[%s] Failed to get file list on directory", "FlushFilesIfNeeded");
        ++failures_;
        Missing(shown, std::string("cannot be listed: ") + strerror(errno));
        return;
    }
    Walk(std::move(fd), shown);
}

// A path below the confining tree is opened from the tree's top, component by
// component, never through a link: checking it beforehand would leave time
// for a directory on the way to be swapped for one. False when the path is
// not below the tree (the caller packs it as it stands).
bool ZipPacker::PackConfined(const std::string& path, const std::string& relative) {
    if (confineTop_.empty() || path.compare(0, confineTop_.size() + 1, confineTop_ + "/") != 0) return false;
    const std::string rest = path.substr(confineTop_.size() + 1);
    const size_t slash = rest.find_last_of('/');
    const std::string leaf = slash == std::string::npos ? rest : rest.substr(slash + 1);
    std::string why;
    android::base::unique_fd top(open(confineTop_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    android::base::unique_fd parent;
    if (top.ok()) {
        parent = ConfinedPath::OpenAt(top.get(), slash == std::string::npos ? "" : rest.substr(0, slash),
                                      O_RDONLY | O_DIRECTORY, 0, &why);
    }
    struct stat st {};
    if (!parent.ok() || leaf.empty()) {
        ALOGW("[%s] %s not packed: %s", "FlushFilesIfNeeded", StringUtil::ForLog(path).c_str(), why.c_str());
        FileFailed(path);
        Missing(path, "not packed: " + why);
        return true;
    }
    if (fstatat(parent.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) {
        PackFile(parent.get(), leaf.c_str(), path, relative);
        return true;
    }
    if (tailDepth_ == 0) {
        Step step;
        step.name = StringUtil::EndsWith(relative, "/") ? relative : relative + "/";
        step.path = path;
        steps_.push_back(std::move(step));
    }
    android::base::unique_fd fd(openat(parent.get(), leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.ok()) {
        ALOGE("[%s] Failed to get file list on directory", "FlushFilesIfNeeded");
        ++failures_;
        Missing(path, std::string("cannot be listed: ") + strerror(errno));
        return true;
    }
    Walk(std::move(fd), path);
    return true;
}

// Depth first, in the order readdir gives, each subdirectory where it is met.
// Everything is opened relative to its directory's descriptor and never
// through a link, so renaming parts of the tree meanwhile cannot lead out.
void ZipPacker::Walk(android::base::unique_fd own, const std::string& dir) {
    const int dirFd = own.get();
    ScopedDir handle = AdoptDir(own);
    if (!handle) {
        ALOGE("[%s] cannot list %s: %s", "FlushFilesIfNeeded", StringUtil::ForLog(dir).c_str(), strerror(errno));
        Missing(dir, std::string("cannot be listed: ") + strerror(errno));
        return;
    }
    while (struct dirent* entry = readdir(handle.get())) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        const std::string full = dir + "/" + name;
        unsigned char type = entry->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st {};
            if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
                type = S_ISDIR(st.st_mode) ? DT_DIR
                       : S_ISREG(st.st_mode) ? DT_REG
                       : S_ISLNK(st.st_mode) ? DT_LNK
                                             : DT_UNKNOWN;
            }
        }
        if (type == DT_DIR) {
            android::base::unique_fd sub(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!sub.ok()) {
                ALOGE("[%s] cannot list %s: %s", "FlushFilesIfNeeded", StringUtil::ForLog(full).c_str(),
                      strerror(errno));
                Missing(full, std::string("cannot be listed: ") + strerror(errno));
                continue;
            }
            Walk(std::move(sub), full);
        } else if (type == DT_REG || type == DT_LNK) {
            // A link is listed so that it is reported, not packed.
            PackFile(dirFd, name, full, RelativeName(full));
        }
    }
}

void ZipPacker::PackFile(int dirFd, const char* openName, const std::string& path, std::string name) {
    if (tailDepth_ >= 1) {
        StringUtil::getTailPath(name, tailDepth_);
        ALOGD("[%s] relativePath before getTailPath: %s", "FlushFilesIfNeeded", StringUtil::ForLog(name).c_str());
    }
    // Non-blocking so that a fifo cannot hang the packer; only regular files
    // are read, and a link is never followed.
    android::base::unique_fd fd(openat(dirFd, openName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    if (!fd.ok()) {
        if (errno == ENOENT) {
            ALOGW("[%s] file not exist %s", "AddFileContentToZip", StringUtil::ForLog(path).c_str());
        } else if (errno == ELOOP) {
            ALOGW("[%s] %s is a symbolic link, not followed", "AddFileContentToZip", StringUtil::ForLog(path).c_str());
        } else {
            const int error = errno;
            ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip",
                  StringUtil::ForLog(path).c_str(), strerror(error));
            Missing(path, std::string("cannot be opened: ") + strerror(error));
        }
        FileFailed(path);
        return;
    }
    struct stat st {};
    if (!StatRegularFile(fd.get(), path, &st)) {
        // A fifo or a device is never packed; a file that cannot be looked
        // at is lost to the archive.
        if (!S_ISFIFO(st.st_mode) && !S_ISCHR(st.st_mode) && !S_ISBLK(st.st_mode) && !S_ISSOCK(st.st_mode)) {
            Missing(path, "cannot be read as a regular file");
        }
        FileFailed(path);
        return;
    }
    // The archive itself, when it lies in a packed tree, would grow while
    // being read.
    if (st.st_dev == archiveDev_ && st.st_ino == archiveIno_) {
        ALOGD("[%s] skipping the archive being written, %s", "FlushFilesIfNeeded", StringUtil::ForLog(path).c_str());
        return;
    }
    ReadBlocks(fd.get(), st, path, name);
}

// Each block is read before the one before it is handed over, so that the
// last one is known and ends the stream. What is read is what is packed: a
// file that grows or shrinks meanwhile gets the size and CRC of the bytes
// read, and one that fails to read ends where it failed and is reported.
void ZipPacker::ReadBlocks(int fd, const struct stat& st, const std::string& path, const std::string& name) {
    std::shared_ptr<Block> held;
    off_t offset = 0;
    bool first = true;
    ReadResult result;
    std::string why;
    do {
        std::shared_ptr<Block> block = NewBlock(st.st_size - offset, held.get());
        result = Fill(fd, *block, path, &why);
        offset += static_cast<off_t>(block->inSize);
        if (block->inSize == 0 && held) {
            inFlight_ -= block->charge;
            continue;  // the end: `held` is the last block
        }
        if (held) {
            Submit(std::move(held), path, name, first);
            first = false;
        }
        held = std::move(block);
    } while (result == ReadResult::kMore);
    held->last = true;
    Submit(std::move(held), path, name, first);
    if (result == ReadResult::kFailed) {
        steps_.back().readFailed = why;
        return;
    }
    // A file still being written when it was read to its end holds more than
    // its entry: the entry is a fair copy of a moment, not the whole file.
    struct stat after {};
    if (fstat(fd, &after) == 0 && after.st_size != offset) {
        Missing(path, "changed while it was packed (" + std::to_string(offset) + " of " +
                              std::to_string(after.st_size) + " bytes)");
    }
}

// `remaining` is what the file's size says is left: a block is no bigger, plus
// one byte to see the end without another read.
std::shared_ptr<Block> ZipPacker::NewBlock(off_t remaining, const Block* previous) {
    const size_t capacity =
        remaining >= 0 ? std::min<size_t>(kBlockSize, static_cast<size_t>(remaining) + 1)
                       : kBlockSize;
    size_t window = 0;
    if (previous != nullptr) {
        window = std::min(kWindowSize, previous->window.size() + previous->inSize);
    }
    const size_t charge = capacity + window + OutputRoom(capacity);
    while (inFlight_ + charge > budget_ && !steps_.empty()) WriteFront();
    inFlight_ += charge;

    auto block = std::make_shared<Block>();
    block->charge = charge;
    block->in.reset(new unsigned char[capacity]);
    block->inCapacity = capacity;
    if (previous != nullptr) {
        // The last 32 KiB before this block, from the end of the previous
        // block and, when that was short, of its own window.
        const size_t fromIn = std::min(window, previous->inSize);
        const size_t fromWindow = window - fromIn;
        block->window.reserve(window);
        block->window.insert(block->window.end(), previous->window.end() - fromWindow,
                             previous->window.end());
        block->window.insert(block->window.end(), previous->in.get() + previous->inSize - fromIn,
                             previous->in.get() + previous->inSize);
    }
    return block;
}

ZipPacker::ReadResult ZipPacker::Fill(int fd, Block& block, const std::string& path, std::string* why) {
    while (block.inSize < block.inCapacity) {
        const ssize_t got = TEMP_FAILURE_RETRY(
            read(fd, block.in.get() + block.inSize, block.inCapacity - block.inSize));
        if (got == 0) return ReadResult::kEnd;
        if (got < 0) {
            ALOGW("[%s] read file %s failed, the reason is %s", "AddFileContentToZip",
                  StringUtil::ForLog(path).c_str(), strerror(errno));
            *why = std::string("read failed: ") + strerror(errno);
            return ReadResult::kFailed;
        }
        block.inSize += static_cast<size_t>(got);
    }
    return ReadResult::kMore;
}

void ZipPacker::Submit(std::shared_ptr<Block> block, const std::string& path, const std::string& name,
                       bool opens) {
    pool_.Submit(block);
    Step step;
    step.block = std::move(block);
    step.opens = opens;
    if (opens) step.name = name;
    if (step.block->last) step.path = path;
    steps_.push_back(std::move(step));
}

void ZipPacker::WriteFront() {
    Step step = std::move(steps_.front());
    steps_.pop_front();
    if (!step.block) {
        bool ok = OpenZipEntry(zip_, step.name, false, false);
        if (ok && zipCloseFileInZipRaw64(zip_, 0, 0) != ZIP_OK) ok = false;
        if (!ok) {
            ALOGE("[%s] Failed to write directory %s", "FlushFilesIfNeeded", StringUtil::ForLog(step.path).c_str());
            ++failures_;
            Missing(step.path, "its directory entry cannot be written");
        }
        return;
    }
    pool_.Wait(*step.block);
    const Block& block = *step.block;
    if (step.opens) {
        // Opened only now, with its first block deflated: the entry's date
        // is when it is written, and zlib has told whether it is text.
        entryName_ = step.name;
        entryOpen_ = OpenZipEntry(zip_, step.name, true, block.dataType == Z_TEXT);
        entryFailed_ = !entryOpen_;
        crc_ = crc32(0L, Z_NULL, 0);
        size_ = 0;
    }
    if (entryOpen_ && !entryFailed_) {
        if (zipWriteInFileInZip(zip_, block.out.get(), static_cast<unsigned>(block.outSize)) !=
            ZIP_OK) {
            ALOGW("[%s] Could not write data to zip for path: %s", "AddFileContentToZip",
                  entryName_.c_str());
            entryFailed_ = true;
        }
        crc_ = crc32_combine(crc_, block.crc, static_cast<z_off_t>(block.inSize));
        size_ += block.inSize;
    }
    inFlight_ -= block.charge;
    if (!block.last) return;
    // Closed even after a failed write, so that the archive stays well-formed.
    if (entryOpen_ && zipCloseFileInZipRaw64(zip_, size_, crc_) != ZIP_OK) entryFailed_ = true;
    entryOpen_ = false;
    if (entryFailed_) Missing(step.path, "cannot be written to the archive");
    if (!entryFailed_ && !step.readFailed.empty()) Missing(step.path, step.readFailed);
    if (entryFailed_ || !step.readFailed.empty()) FileFailed(step.path);
}


}  // namespace kolto
}  // namespace velmar
