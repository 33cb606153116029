#include "utils/ZipFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <zip.h>
#include <zlib.h>

#include <log/log.h>

#include "utils/FileUtil.h"
#include "utils/StringUtil.h"

#define LOG_TAG "Tarnis-ZipFile"

namespace velmar {
namespace kolto {
namespace {

// Paths are taken off the pending list this many at a time, so that the
// working copy stays small however long the list is.
constexpr size_t kBatchSize = 50;

// Bytes read from a file per system call: the size of the writer's own output
// buffer. Packing is bound by deflate at any size from 8 KiB up (measured in
// bench/ZipBench.cpp); 64 KiB keeps read calls well under 1 % of the time
// while a file is still never held whole.
constexpr size_t kReadChunk = 64 * 1024;

// Names are UTF-8 (general-purpose flag bit 11).
constexpr uLong kFlagUtf8 = 1 << 11;

std::string RelativeName(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path.substr(1);
    return path;
}

}  // namespace

ZipFile::ZipFile(std::vector<std::string> paths, int tailDepth)
    : pendingPaths_(std::move(paths)), tailDepth_(tailDepth) {}

ZipFile::~ZipFile() {
    // Callers close the archive themselves; this is the safety net for one
    // left open. Unlike a bare abandon, it also finishes an archive with no
    // pending paths, so the writer's handle and file are never leaked.
    if (handle_ != nullptr && !close()) {
        ALOGE("[%s] close zip file failed while destructing!!", "~ZipFile");
    }
    pendingPaths_.clear();
}

bool ZipFile::create(const std::string& path) {
    if (handle_ != nullptr) close();
    handle_ = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
    if (handle_ == nullptr) {
        ALOGE("[%s] Couldn't create ZIP file at path %s", "create", path.c_str());
        return false;
    }
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
    const int closed = zipClose(handle_, nullptr);
    handle_ = nullptr;
    if (closed != ZIP_OK) {
        ALOGE("[%s] close zip file failed", "close");
        return false;
    }
    return result;
}

bool ZipFile::OpenNewFileInZip(void* handle, const std::string& name) {
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
    info.internal_fa = 0;
    info.external_fa = 0;

    const int rc = zipOpenNewFileInZip4_64(
        static_cast<zipFile>(handle), name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr,
        Z_DEFLATED, Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY, nullptr, 0,
        0 /* version made by */, kFlagUtf8, 0 /* no zip64 */);
    if (rc != ZIP_OK) {
        ALOGE("[%s] zipOpenNewFileInZip4 failed", "OpenNewFileInZip");
        return false;
    }
    return true;
}

bool ZipFile::AddFileContentToZip(const std::string& path) {
    ALOGD("[%s] Adding File To Zip, file path: %s", "AddFileContentToZip", path.c_str());
    if (!FileUtil::FileExist(path)) {
        ALOGW("[%s] file not exist %s", "AddFileContentToZip", path.c_str());
        return false;
    }
    // Non-blocking open so that a fifo among the logs cannot hang the packer;
    // only regular files are read.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip", path.c_str(),
              strerror(errno));
        return false;
    }
    struct FdCloser {
        int fd;
        ~FdCloser() { ::close(fd); }
    } closer{fd};
    struct stat st {};
    const int statError = fstat(fd, &st) != 0 ? errno : 0;
    if (statError != 0 || !S_ISREG(st.st_mode)) {
        const int error = statError != 0 ? statError : S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        ALOGW("[%s] open file %s failed, the reason is %s", "AddFileContentToZip", path.c_str(),
              strerror(error));
        return false;
    }
    if (!buffer_) buffer_.reset(new char[kReadChunk]);
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(read(fd, buffer_.get(), kReadChunk));
        if (got == 0) return true;
        if (got < 0) {
            ALOGW("[%s] read file %s failed, the reason is %s", "AddFileContentToZip",
                  path.c_str(), strerror(errno));
            return false;
        }
        if (zipWriteInFileInZip(static_cast<zipFile>(handle_), buffer_.get(),
                                static_cast<unsigned>(got)) != ZIP_OK) {
            ALOGW("[%s] Could not write data to zip for path: %s", "AddFileContentToZip",
                  path.c_str());
            return false;
        }
    }
}

bool ZipFile::WriteFileEntry(const std::string& path, std::string name) {
    if (tailDepth_ >= 1) {
        StringUtil::getTailPath(name, tailDepth_);
        ALOGD("[%s] relativePath before getTailPath: %s", "FlushFilesIfNeeded", name.c_str());
    }
    // A file that is not there gets no empty entry in the archive: let the
    // copy step report it without opening one.
    if (!FileUtil::FileExist(path)) return AddFileContentToZip(path);
    if (!OpenNewFileInZip(handle_, name)) return false;
    bool ok = AddFileContentToZip(path);
    // The entry is closed even after a failed copy so that the archive stays
    // well-formed; the writer computes size and CRC itself.
    if (zipCloseFileInZipRaw64(static_cast<zipFile>(handle_), 0, 0) != ZIP_OK) ok = false;
    return ok;
}

void ZipFile::FlushOnePath(const std::string& path, size_t& failures) {
    const std::string relative = RelativeName(path);
    if (!FileUtil::IsDirectory(path)) {
        if (!WriteFileEntry(path, relative)) {
            ALOGE("[%s] Failed to write file %s", "FlushFilesIfNeeded", path.c_str());
            ++failures;
        }
        return;
    }
    if (tailDepth_ == 0) {
        std::string dirName = relative;
        if (!StringUtil::EndsWith(dirName, "/")) dirName += "/";
        bool ok = OpenNewFileInZip(handle_, dirName);
        if (ok && zipCloseFileInZipRaw64(static_cast<zipFile>(handle_), 0, 0) != ZIP_OK) {
            ok = false;
        }
        if (!ok) {
            ALOGE("[%s] Failed to write directory %s", "FlushFilesIfNeeded", path.c_str());
            ++failures;
            return;
        }
    }
    std::vector<std::string> files;
    if (!FileUtil::GetFileListOnDirectory(path, files)) {
        ALOGE("[%s] Failed to get file list on directory", "FlushFilesIfNeeded");
        ++failures;
    }
    for (const std::string& file : files) {
        if (!WriteFileEntry(file, RelativeName(file))) {
            ALOGE("[%s] Failed to write file %s", "FlushFilesIfNeeded", file.c_str());
            ++failures;
        }
    }
}

bool ZipFile::FlushFilesIfNeeded() {
    size_t taken = 0;
    size_t failures = 0;
    while (!pendingPaths_.empty()) {
        const size_t count = std::min(kBatchSize, pendingPaths_.size());
        std::vector<std::string> batch(std::make_move_iterator(pendingPaths_.begin()),
                                       std::make_move_iterator(pendingPaths_.begin() + count));
        pendingPaths_.erase(pendingPaths_.begin(), pendingPaths_.begin() + count);
        taken += batch.size();
        for (const std::string& path : batch) FlushOnePath(path, failures);
    }
    return !(failures > 0 && failures == taken);
}

}  // namespace kolto
}  // namespace velmar
