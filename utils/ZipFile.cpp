#define LOG_TAG "Tarnis-ZipFile"

#include "utils/ZipFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <zip.h>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/FileUtil.h"
#include "utils/StringUtil.h"
#include "utils/ScopedDir.h"
#include "utils/TempName.h"
#include "utils/ZipPacker.h"

namespace velmar {
namespace kolto {
namespace {

// Paths are taken off the pending list this many at a time, so that the
// working copy stays small however long the list is.
constexpr size_t kBatchSize = 50;

// Bytes read from a file per system call by AddFileContentToZip, the size of
// the writer's own output buffer.
constexpr size_t kReadChunk = 64 * 1024;

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
    closed_ = false;
    missing_.clear();
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
    closed_ = true;
    return result;
}

void ZipFile::Abandon() {
    if (!tempName_.empty() && unlinkat(dirFd_.get(), tempName_.c_str(), 0) != 0 && errno != ENOENT) {
        ALOGE("[%s] cannot remove %s: %s", "close", StringUtil::ForLog(tempName_).c_str(), strerror(errno));
    }
    tempName_.clear();
}

bool ZipFile::OpenNewFileInZip(void* handle, const std::string& name) {
    return OpenZipEntry(static_cast<zipFile>(handle), name, false, false);
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
    ZipPacker packer(static_cast<zipFile>(handle_), tailDepth_, archiveDev_, archiveIno_, WorkersFor(pendingPaths_));
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
    missing_.insert(missing_.end(), packer.missing().begin(), packer.missing().end());
    const size_t failures = packer.failures();
    return !(failures > 0 && failures == taken);
}

}  // namespace kolto
}  // namespace velmar
