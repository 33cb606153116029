#define LOG_TAG "Tarnis-ZipFile"

#include "utils/ZipFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <random>
#include <system_error>
#include <thread>

#include <zip.h>
#include <zlib.h>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"

namespace velmar {
namespace kolto {
namespace {

// Only regular files are packed: a device or fifo has no end to read to.
// False, with the line the packer logs for a file it cannot open, otherwise.
bool StatRegularFile(int fd, const std::string& path, struct stat* st) {
    const int statError = fstat(fd, st) != 0 ? errno : 0;
    if (statError == 0 && S_ISREG(st->st_mode)) return true;
    const int error = statError != 0 ? statError : S_ISDIR(st->st_mode) ? EISDIR : EINVAL;
    ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip", StringUtil::ForLog(path).c_str(),
          strerror(error));
    return false;
}


// Paths are taken off the pending list this many at a time, so that the
// working copy stays small however long the list is.
constexpr size_t kBatchSize = 50;

// Bytes read from a file per system call by AddFileContentToZip, the size of
// the writer's own output buffer.
constexpr size_t kReadChunk = 64 * 1024;

// Files are cut into blocks of this size that the workers deflate on their
// own, so that one big log keeps every core busy too. Each block is primed
// with the 32 KiB before it, so matches still reach back across the cut, and
// all but the last end on a sync flush (byte-aligned, 5 bytes), which lets
// the pieces be written one after the other as a single deflate stream.
// bench/ZipBench.cpp measured the archive 0.03 % larger than with one stream
// per file at this size; smaller blocks lose more at each cut.
constexpr size_t kBlockSize = 256 * 1024;
constexpr size_t kWindowSize = 32 * 1024;

// The bound on memory in flight: the blocks read but not yet written (their
// input, priming window and room for the deflated output, the block being read
// included) never hold more than this per worker. At most
// kMaxWorkers * 4 MiB = 32 MiB, 8 MiB on a two-core device; about seven full
// blocks, or hundreds of small files, per worker.
constexpr size_t kBytesInFlightPerWorker = 4 << 20;
// A phone may have eight or more cores; beyond this the writer, one thread,
// is the limit anyway.
constexpr unsigned kMaxWorkers = 8;

// Names are UTF-8 (general-purpose flag bit 11).
constexpr uLong kFlagUtf8 = 1 << 11;

std::string RelativeName(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path.substr(1);
    return path;
}

// Opens the next entry. `raw` entries receive deflated bytes and are closed
// with their size and CRC; the others deflate what they are given.
bool OpenEntry(zipFile zip, const std::string& name, bool raw, bool text) {
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

struct Block {
    std::unique_ptr<unsigned char[]> in;
    size_t inSize = 0;
    size_t inCapacity = 0;
    // The bytes just before `in` in its file, up to 32 KiB.
    std::vector<unsigned char> window;
    bool last = false;
    size_t charge = 0;  // counted against the bytes in flight
    // Set by the worker.
    std::unique_ptr<unsigned char[]> out;
    size_t outSize = 0;
    uLong crc = 0;
    int dataType = Z_UNKNOWN;
    bool done = false;  // under the pool's lock
};

// Room for a block's deflated bytes. Deflate falls back to stored blocks
// (5 bytes of header per 16 KiB at most) where it cannot shrink the input,
// and the flush adds 5 more; anything beyond is still handled, by growing.
size_t OutputRoom(size_t inSize) { return inSize + (inSize >> 9) + 64; }

// Carries a block's bytes in stored deflate blocks, when deflate cannot run
// (no memory for its state): the entry stays valid, only larger.
void StoreBlock(Block& block) {
    size_t chunks = std::max<size_t>(1, (block.inSize + 65534) / 65535);
    block.out.reset(new unsigned char[block.inSize + 5 * chunks]);
    unsigned char* out = block.out.get();
    size_t at = 0;
    do {
        const size_t len = std::min<size_t>(block.inSize - at, 65535);
        // The stream before is byte-aligned: every block ends on a flush.
        *out++ = block.last && at + len == block.inSize ? 1 : 0;
        *out++ = static_cast<unsigned char>(len);
        *out++ = static_cast<unsigned char>(len >> 8);
        *out++ = static_cast<unsigned char>(~len);
        *out++ = static_cast<unsigned char>(~len >> 8);
        memcpy(out, block.in.get() + at, len);
        out += len;
        at += len;
    } while (at < block.inSize);
    block.outSize = static_cast<size_t>(out - block.out.get());
}

// One deflate state per worker, reset for every block.
class Deflater {
public:
    Deflater() {
        ok_ = deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8,
                           Z_DEFAULT_STRATEGY) == Z_OK;
    }
    ~Deflater() {
        if (ok_) deflateEnd(&stream_);
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    void Run(Block& block) {
        block.crc = crc32(0L, block.in.get(), static_cast<uInt>(block.inSize));
        if (!ok_ || !Deflate(block)) StoreBlock(block);
    }

private:
    bool Deflate(Block& block) {
        if (deflateReset(&stream_) != Z_OK) return false;
        if (!block.window.empty() &&
            deflateSetDictionary(&stream_, block.window.data(),
                                 static_cast<uInt>(block.window.size())) != Z_OK) {
            return false;
        }
        size_t room = OutputRoom(block.inSize);
        block.out.reset(new unsigned char[room]);
        stream_.next_in = block.in.get();
        stream_.avail_in = static_cast<uInt>(block.inSize);
        const int flush = block.last ? Z_FINISH : Z_SYNC_FLUSH;
        size_t produced = 0;
        for (;;) {
            stream_.next_out = block.out.get() + produced;
            stream_.avail_out = static_cast<uInt>(room - produced);
            const int rc = deflate(&stream_, flush);
            produced = room - stream_.avail_out;
            if (rc == Z_STREAM_END) break;
            if (rc != Z_OK && rc != Z_BUF_ERROR) return false;
            if (stream_.avail_out != 0) {
                // A sync flush is complete once deflate leaves room unused.
                if (!block.last) break;
                if (rc == Z_BUF_ERROR) return false;
                continue;
            }
            // Beyond zlib's own bound: not expected, but never truncated.
            std::unique_ptr<unsigned char[]> bigger(new unsigned char[room * 2]);
            memcpy(bigger.get(), block.out.get(), produced);
            block.out = std::move(bigger);
            room *= 2;
        }
        block.outSize = produced;
        block.dataType = stream_.data_type;
        return true;
    }

    z_stream stream_ {};
    bool ok_ = false;
};

unsigned WorkerCount() {
    // The CPUs this thread may use: packing is often pinned to some cores.
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    long count = sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : 0;
    if (count <= 0) count = sysconf(_SC_NPROCESSORS_ONLN);
    return static_cast<unsigned>(std::min<long>(std::max<long>(count, 1), kMaxWorkers));
}

// Deflates blocks on worker threads, in the order they were given. Without
// any thread (none could be started) the caller deflates them itself.
class DeflatePool {
public:
    explicit DeflatePool(unsigned workers) {
        for (unsigned i = 0; i < workers; ++i) {
            try {
                threads_.emplace_back([this] { Work(); });
            } catch (const std::system_error& e) {
                ALOGW("[%s] deflate thread not started: %s", "FlushFilesIfNeeded", e.what());
                break;
            }
        }
    }
    ~DeflatePool() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            stop_ = true;
        }
        ready_.notify_all();
        for (std::thread& thread : threads_) thread.join();
    }
    DeflatePool(const DeflatePool&) = delete;
    DeflatePool& operator=(const DeflatePool&) = delete;

    size_t workers() const { return std::max<size_t>(threads_.size(), 1); }

    void Submit(const std::shared_ptr<Block>& block) {
        if (threads_.empty()) {
            if (!inline_) inline_.reset(new Deflater);
            inline_->Run(*block);
            block->done = true;
            return;
        }
        {
            std::lock_guard<std::mutex> guard(lock_);
            queue_.push_back(block);
        }
        ready_.notify_one();
    }
    void Wait(const Block& block) {
        std::unique_lock<std::mutex> guard(lock_);
        finished_.wait(guard, [&block] { return block.done; });
    }

private:
    void Work() {
        pthread_setname_np(pthread_self(), "ZipDeflate");
        Deflater deflater;
        std::unique_lock<std::mutex> guard(lock_);
        for (;;) {
            ready_.wait(guard, [this] { return stop_ || !queue_.empty(); });
            if (queue_.empty()) return;
            std::shared_ptr<Block> block = std::move(queue_.front());
            queue_.pop_front();
            guard.unlock();
            deflater.Run(*block);
            guard.lock();
            block->done = true;
            finished_.notify_all();
        }
    }

    std::mutex lock_;
    std::condition_variable ready_;
    std::condition_variable finished_;
    std::deque<std::shared_ptr<Block>> queue_;
    bool stop_ = false;
    std::vector<std::thread> threads_;
    std::unique_ptr<Deflater> inline_;
};

enum class ReadResult { kMore, kEnd, kFailed };

// Reads the paths on the caller's thread, has the pool deflate them and
// writes the entries in the order they were read, each as soon as it is ready
// and room is needed for more.
class Packer {
public:
    // The archive being written is the file `archiveDev`/`archiveIno`: never
    // packed into itself.
    Packer(zipFile zip, int tailDepth, dev_t archiveDev, ino_t archiveIno, unsigned workers)
        : zip_(zip), tailDepth_(tailDepth), pool_(workers),
          budget_(pool_.workers() * kBytesInFlightPerWorker), archiveDev_(archiveDev), archiveIno_(archiveIno) {}
    ~Packer() { Finish(); }
    Packer(const Packer&) = delete;
    Packer& operator=(const Packer&) = delete;

    // `shown` is where the entries' names and the log say the path is.
    void PackPath(const std::string& path, const std::string& shown);
    // Paths below `hostTop` are reached from it without following a link.
    void ConfineBelow(const std::string& hostTop) { confineTop_ = hostTop; }
    // Writes everything still in flight.
    void Finish() {
        while (!steps_.empty()) WriteFront();
    }
    size_t failures() const { return failures_; }

private:
    // The writer's work, in archive order: a directory entry, or a file
    // block (the first opens the entry, the last closes it).
    struct Step {
        std::string name;
        std::string path;
        std::shared_ptr<Block> block;
        bool opens = false;
        bool readFailed = false;
    };

    void Walk(android::base::unique_fd own, const std::string& dir);
    bool PackConfined(const std::string& path, const std::string& relative);
    void PackFile(int dirFd, const char* openName, const std::string& path, std::string name);
    void ReadBlocks(int fd, const struct stat& st, const std::string& path,
                    const std::string& name);
    std::shared_ptr<Block> NewBlock(off_t remaining, const Block* previous);
    ReadResult Fill(int fd, Block& block, const std::string& path);
    void Submit(std::shared_ptr<Block> block, const std::string& path, const std::string& name,
                bool opens);
    void WriteFront();
    void FileFailed(const std::string& path) {
        ALOGE("[%s] Failed to write file %s", "FlushFilesIfNeeded", StringUtil::ForLog(path).c_str());
        ++failures_;
    }

    zipFile zip_;
    int tailDepth_;
    DeflatePool pool_;
    const size_t budget_;
    size_t inFlight_ = 0;
    std::deque<Step> steps_;
    size_t failures_ = 0;
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

void Packer::PackPath(const std::string& path, const std::string& shown) {
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
        return;
    }
    Walk(std::move(fd), shown);
}

// A path below the confining tree is opened from the tree's top, component by
// component, never through a link: checking it beforehand would leave time
// for a directory on the way to be swapped for one. False when the path is
// not below the tree (the caller packs it as it stands).
bool Packer::PackConfined(const std::string& path, const std::string& relative) {
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
        return true;
    }
    Walk(std::move(fd), path);
    return true;
}

// Depth first, in the order readdir gives, each subdirectory where it is met.
// Everything is opened relative to its directory's descriptor and never
// through a link, so renaming parts of the tree meanwhile cannot lead out.
void Packer::Walk(android::base::unique_fd own, const std::string& dir) {
    const int dirFd = own.get();
    ScopedDir handle = AdoptDir(own);
    if (!handle) {
        ALOGE("[%s] cannot list %s: %s", "FlushFilesIfNeeded", StringUtil::ForLog(dir).c_str(), strerror(errno));
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
                continue;
            }
            Walk(std::move(sub), full);
        } else if (type == DT_REG || type == DT_LNK) {
            // A link is listed so that it is reported, not packed.
            PackFile(dirFd, name, full, RelativeName(full));
        }
    }
}

void Packer::PackFile(int dirFd, const char* openName, const std::string& path,
                      std::string name) {
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
            ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip",
                  StringUtil::ForLog(path).c_str(), strerror(errno));
        }
        FileFailed(path);
        return;
    }
    struct stat st {};
    if (!StatRegularFile(fd.get(), path, &st)) {
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
void Packer::ReadBlocks(int fd, const struct stat& st, const std::string& path,
                        const std::string& name) {
    std::shared_ptr<Block> held;
    off_t offset = 0;
    bool first = true;
    ReadResult result;
    do {
        std::shared_ptr<Block> block = NewBlock(st.st_size - offset, held.get());
        result = Fill(fd, *block, path);
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
    if (result == ReadResult::kFailed) steps_.back().readFailed = true;
}

// `remaining` is what the file's size says is left: a block is no bigger, plus
// one byte to see the end without another read.
std::shared_ptr<Block> Packer::NewBlock(off_t remaining, const Block* previous) {
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

ReadResult Packer::Fill(int fd, Block& block, const std::string& path) {
    while (block.inSize < block.inCapacity) {
        const ssize_t got = TEMP_FAILURE_RETRY(
            read(fd, block.in.get() + block.inSize, block.inCapacity - block.inSize));
        if (got == 0) return ReadResult::kEnd;
        if (got < 0) {
            ALOGW("[%s] read file %s failed, the reason is %s", "AddFileContentToZip",
                  StringUtil::ForLog(path).c_str(), strerror(errno));
            return ReadResult::kFailed;
        }
        block.inSize += static_cast<size_t>(got);
    }
    return ReadResult::kMore;
}

void Packer::Submit(std::shared_ptr<Block> block, const std::string& path,
                    const std::string& name, bool opens) {
    pool_.Submit(block);
    Step step;
    step.block = std::move(block);
    step.opens = opens;
    if (opens) step.name = name;
    if (step.block->last) step.path = path;
    steps_.push_back(std::move(step));
}

void Packer::WriteFront() {
    Step step = std::move(steps_.front());
    steps_.pop_front();
    if (!step.block) {
        bool ok = OpenEntry(zip_, step.name, false, false);
        if (ok && zipCloseFileInZipRaw64(zip_, 0, 0) != ZIP_OK) ok = false;
        if (!ok) {
            ALOGE("[%s] Failed to write directory %s", "FlushFilesIfNeeded", StringUtil::ForLog(step.path).c_str());
            ++failures_;
        }
        return;
    }
    pool_.Wait(*step.block);
    const Block& block = *step.block;
    if (step.opens) {
        // Opened only now, with its first block deflated: the entry's date
        // is when it is written, and zlib has told whether it is text.
        entryName_ = step.name;
        entryOpen_ = OpenEntry(zip_, step.name, true, block.dataType == Z_TEXT);
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
    if (entryFailed_ || step.readFailed) FileFailed(step.path);
}

// minizip writes the archive through a stream create() opened itself: the
// file was made with O_EXCL, so no link planted at its name is followed.
struct Handover {
    FILE* file;
    bool taken;
};

voidpf ZCALLBACK OpenGiven(voidpf, const void* filename, int) {
    auto* handover = static_cast<Handover*>(const_cast<void*>(filename));
    handover->taken = true;
    return handover->file;
}

// Flushed to the disk on closing, so that what is renamed into place is the
// whole archive even after a power loss.
int ZCALLBACK CloseSynced(voidpf, voidpf stream) {
    FILE* file = static_cast<FILE*>(stream);
    const bool synced = fflush(file) == 0 && fsync(fileno(file)) == 0;
    return fclose(file) == 0 && synced ? 0 : EOF;
}

}  // namespace

ZipFile::ZipFile(std::vector<std::string> paths, int tailDepth)
    : pendingPaths_(std::move(paths)), tailDepth_(tailDepth) {}

void ZipFile::ConfineBelow(const std::string& hostTop) { confineTop_ = hostTop; }

ZipFile::~ZipFile() {
    // Callers close the archive themselves; this is the safety net for one
    // left open. Unlike a bare abandon, it also finishes an archive with no
    // pending paths, so the writer's handle and file are never leaked.
    if (handle_ != nullptr && !close()) {
        ALOGE("[%s] close zip file failed while destructing!!", "~ZipFile");
    }
    pendingPaths_.clear();
}

void ZipFile::nameAs(const std::string& path, const std::string& shownPath) { shownAs_[path] = shownPath; }

bool ZipFile::create(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    android::base::unique_fd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd.ok()) {
        if (handle_ != nullptr) close();
        ALOGE("[%s] Couldn't create ZIP file at path %s", "create", StringUtil::ForLog(path).c_str());
        return false;
    }
    return create(dirFd.get(), path.substr(slash == std::string::npos ? 0 : slash + 1), path);
}

bool ZipFile::create(int dirFd, const std::string& name, const std::string& shownPath) {
    if (handle_ != nullptr) close();
    dirFd_.reset(fcntl(dirFd, F_DUPFD_CLOEXEC, 0));
    // A directory there could never be replaced: fail now, not after packing.
    struct stat st {};
    const bool isDirectory = fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    std::string temporary;
    android::base::unique_fd fd;
    if (!isDirectory && dirFd_.ok()) fd = TempName::CreateAt(dirFd_.get(), name, 0666, &temporary);
    if (fd.ok() && fstat(fd.get(), &st) == 0) {
        archiveDev_ = st.st_dev;
        archiveIno_ = st.st_ino;
    }
    Handover handover {AdoptFile(fd, "wb"), false};
    if (handover.file != nullptr) {
        zlib_filefunc64_def io;
        fill_fopen64_filefunc(&io);
        io.zopen64_file = OpenGiven;
        io.zclose_file = CloseSynced;
        handle_ = zipOpen2_64(&handover, APPEND_STATUS_CREATE, nullptr, &io);
        // minizip closes a stream it took but could not use.
        if (handle_ == nullptr && !handover.taken) fclose(handover.file);
    }
    if (handle_ == nullptr) {
        if (!temporary.empty()) unlinkat(dirFd_.get(), temporary.c_str(), 0);
        ALOGE("[%s] Couldn't create ZIP file at path %s", "create", StringUtil::ForLog(shownPath).c_str());
        return false;
    }
    name_ = name;
    path_ = shownPath;
    tempName_ = temporary;
    return true;
}

bool ZipFile::close() {
    if (handle_ == nullptr) {
        ALOGD("[%s] zipfile already closed!", "close");
        return true;
    }
    bool result = true;
    if (!pendingPaths_.empty()) result = FlushFilesIfNeeded();
    if (!result) ALOGE("[%s] force flush files failed", "close");
    const int closed = zipClose(static_cast<zipFile>(handle_), nullptr);
    handle_ = nullptr;
    if (closed != ZIP_OK) {
        ALOGE("[%s] close zip file failed", "close");
        Abandon();
        return false;
    }
    // The rename replaces whatever is at the name, a link included, never
    // what a link points to.
    if (renameat(dirFd_.get(), tempName_.c_str(), dirFd_.get(), name_.c_str()) != 0) {
        ALOGE("[%s] cannot move the archive to %s: %s", "close", StringUtil::ForLog(path_).c_str(), strerror(errno));
        Abandon();
        return false;
    }
    tempName_.clear();
    return result;
}

void ZipFile::Abandon() {
    if (!tempName_.empty() && unlinkat(dirFd_.get(), tempName_.c_str(), 0) != 0 && errno != ENOENT) {
        ALOGE("[%s] cannot remove %s: %s", "close", StringUtil::ForLog(tempName_).c_str(), strerror(errno));
    }
    tempName_.clear();
}

bool ZipFile::OpenNewFileInZip(void* handle, const std::string& name) {
    return OpenEntry(static_cast<zipFile>(handle), name, false, false);
}

bool ZipFile::AddFileContentToZip(const std::string& path) {
    ALOGD("[%s] Adding File To Zip, file path: %s", "AddFileContentToZip", StringUtil::ForLog(path).c_str());
    if (!FileUtil::FileExist(path)) {
        ALOGW("[%s] file not exist %s", "AddFileContentToZip", StringUtil::ForLog(path).c_str());
        return false;
    }
    // Non-blocking open so that a fifo among the logs cannot hang the packer;
    // only regular files are read, and never through a link.
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    if (!fd.ok()) {
        ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip", StringUtil::ForLog(path).c_str(),
              strerror(errno));
        return false;
    }
    struct stat st {};
    if (!StatRegularFile(fd.get(), path, &st)) return false;
    if (!buffer_) buffer_.reset(new char[kReadChunk]);
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(read(fd.get(), buffer_.get(), kReadChunk));
        if (got == 0) return true;
        if (got < 0) {
            ALOGW("[%s] read file %s failed, the reason is %s", "AddFileContentToZip",
                  StringUtil::ForLog(path).c_str(), strerror(errno));
            return false;
        }
        if (zipWriteInFileInZip(static_cast<zipFile>(handle_), buffer_.get(),
                                static_cast<unsigned>(got)) != ZIP_OK) {
            ALOGW("[%s] Could not write data to zip for path: %s", "AddFileContentToZip",
                  StringUtil::ForLog(path).c_str());
            return false;
        }
    }
}

// Threads for the pending paths: none when they are a few small files (a
// capture's text, say), which take less time to deflate than threads take to
// start and end; the pool's usual number otherwise.
unsigned WorkersFor(const std::vector<std::string>& paths) {
    uint64_t total = 0;
    for (const std::string& path : paths) {
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) continue;
        if (!S_ISREG(st.st_mode)) return WorkerCount();
        total += static_cast<uint64_t>(st.st_size);
        if (total > kBlockSize) return WorkerCount();
    }
    return 0;
}

bool ZipFile::FlushFilesIfNeeded() {
    Packer packer(static_cast<zipFile>(handle_), tailDepth_, archiveDev_, archiveIno_, WorkersFor(pendingPaths_));
    packer.ConfineBelow(confineTop_);
    size_t taken = 0;
    while (!pendingPaths_.empty()) {
        const size_t count = std::min(kBatchSize, pendingPaths_.size());
        std::vector<std::string> batch(std::make_move_iterator(pendingPaths_.begin()),
                                       std::make_move_iterator(pendingPaths_.begin() + count));
        pendingPaths_.erase(pendingPaths_.begin(), pendingPaths_.begin() + count);
        taken += batch.size();
        for (const std::string& path : batch) {
            const auto shown = shownAs_.find(path);
            packer.PackPath(path, shown != shownAs_.end() ? shown->second : path);
        }
    }
    packer.Finish();
    const size_t failures = packer.failures();
    return !(failures > 0 && failures == taken);
}

}  // namespace kolto
}  // namespace velmar
