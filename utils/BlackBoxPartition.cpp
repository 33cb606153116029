#include "utils/BlackBoxPartition.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <host/Host.h>
#include <log/log.h>

#include "utils/Paths.h"

namespace velmar {
namespace kolto {
namespace blackbox {
namespace {

std::mutex& HookLock() {
    static std::mutex lock;
    return lock;
}

Partition::WriteHook& Hook() {
    static Partition::WriteHook hook;
    return hook;
}

// Where an open descriptor leads, as the kernel resolved it.
std::string Target(int fd) {
    std::string target;
    if (!android::base::Readlink("/proc/self/fd/" + std::to_string(fd), &target)) return "";
    return target;
}

bool Below(const std::string& path, const std::string& dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

}  // namespace

Partition Partition::Open(int flags) {
    const std::string path = paths::Get(paths::kBlackbox);
    android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags | O_CLOEXEC)));
    if (!fd.ok()) return Partition();
    const std::string root = platform::GetRoot();
    if (root.empty() || root == "/") return Partition(std::move(fd));
    // Checked on the descriptor itself, so that a link swapped after the
    // open cannot pass the check with one target and be used with another.
    std::unique_ptr<char, decltype(&free)> realRoot(realpath(root.c_str(), nullptr), &free);
    if (realRoot == nullptr || !Below(Target(fd.get()), realRoot.get())) {
        errno = ELOOP;
        return Partition();
    }
    return Partition(std::move(fd));
}

Partition Partition::OpenImage(const std::string& path, int flags) {
    return Partition(android::base::unique_fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags | O_CLOEXEC))));
}

bool Partition::Size(uint64_t* size) const {
    struct stat st;
    if (fstat(fd_.get(), &st) != 0) return false;
    if (S_ISBLK(st.st_mode)) return ioctl(fd_.get(), BLKGETSIZE64, size) == 0;
    if (S_ISREG(st.st_mode)) {
        *size = static_cast<uint64_t>(st.st_size);
        return true;
    }
    errno = ENOTBLK;
    return false;
}

int Partition::Version() const {
    uint64_t size = 0;
    return Size(&size) ? VersionForSize(size) : 0;
}

bool Partition::ReadAt(uint64_t offset, void* buf, size_t len) const {
    // pread sets errno only on an error, so a partition that ends first
    // leaves it 0.
    errno = 0;
    return android::base::ReadFullyAtOffset(fd_.get(), buf, len, static_cast<off64_t>(offset));
}

ssize_t Partition::ReadHeld(uint64_t offset, void* buf, size_t len) const {
    uint64_t end = 0;
    if (!Size(&end)) return -1;
    const size_t held = offset < end ? static_cast<size_t>(std::min<uint64_t>(len, end - offset)) : 0;
    if (held > 0 && !ReadAt(offset, buf, held)) {
        // A partition that shrank under the read reads as an I/O error.
        if (errno == 0) errno = EIO;
        return -1;
    }
    return static_cast<ssize_t>(held);
}

ssize_t Partition::WriteOnce(uint64_t offset, const void* data, size_t len) const {
    WriteHook hook;
    {
        std::lock_guard<std::mutex> guard(HookLock());
        hook = Hook();
    }
    return TEMP_FAILURE_RETRY(hook ? hook(fd_.get(), data, len, static_cast<off_t>(offset))
                                   : pwrite(fd_.get(), data, len, static_cast<off_t>(offset)));
}

bool Partition::WriteAt(uint64_t offset, const void* data, size_t len) const {
    // On a regular file or a block device one pwrite stops short only where
    // the space ends, so a short count is a full device, not a reason to
    // try again.
    const ssize_t n = WriteOnce(offset, data, len);
    if (n == static_cast<ssize_t>(len)) return true;
    if (n >= 0) errno = ENOSPC;
    return false;
}

bool Partition::Sync() const { return fsync(fd_.get()) == 0; }

void Partition::SetWriteHookForTesting(WriteHook hook) {
    std::lock_guard<std::mutex> guard(HookLock());
    Hook() = std::move(hook);
}

int GetBlackBoxVersion(const char* tag) {
    static constexpr char kFunc[] = "get_black_box_version";
    const std::string path = paths::Get(paths::kBlackbox);
    const Partition partition = Partition::Open(O_RDONLY);
    uint64_t size = 0;
    if (!partition.ok()) {
        __android_log_print(ANDROID_LOG_ERROR, tag, "%s: open partition %s failed!", kFunc, path.c_str());
    } else if (!partition.Size(&size)) {
        __android_log_print(ANDROID_LOG_ERROR, tag, "%s: get size of partition %s failed!", kFunc, path.c_str());
    } else {
        __android_log_print(ANDROID_LOG_INFO, tag, "The size of partition %s: %lu bytes", path.c_str(),
                            static_cast<unsigned long>(size));
        const int version = VersionForSize(size);
        if (version != 0) return version;
    }
    __android_log_print(ANDROID_LOG_ERROR, tag, "%s: the size of blackbox partition is incorrect, return v1 defaultly",
                        kFunc);
    return 1;
}

}  // namespace blackbox
}  // namespace kolto
}  // namespace velmar
