#include "utils/BlackBoxLayout.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/Paths.h"

namespace velmar {
namespace kolto {
namespace blackbox {

bool PartitionSize(int fd, uint64_t* size) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    if (S_ISBLK(st.st_mode)) return ioctl(fd, BLKGETSIZE64, size) == 0;
    if (S_ISREG(st.st_mode)) {
        *size = static_cast<uint64_t>(st.st_size);
        return true;
    }
    errno = ENOTBLK;
    return false;
}

android::base::unique_fd OpenPartition(int flags) {
    const std::string path = paths::Get(paths::kBlackbox);
    const int nofollow = path != paths::kBlackbox ? O_NOFOLLOW : 0;
    return android::base::unique_fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags | nofollow | O_CLOEXEC)));
}

int GetBlackBoxVersion(const char* tag) {
    static constexpr char kFunc[] = "get_black_box_version";
    const std::string path = paths::Get(paths::kBlackbox);
    android::base::unique_fd fd = OpenPartition(O_RDONLY);
    uint64_t size = 0;
    if (!fd.ok()) {
        __android_log_print(ANDROID_LOG_ERROR, tag, "%s: open partition %s failed!", kFunc, path.c_str());
    } else if (!PartitionSize(fd.get(), &size)) {
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

bool ReadAt(int fd, uint64_t offset, void* buf, size_t len) {
    // pread sets errno only on an error, so a partition that ends first
    // leaves it 0.
    errno = 0;
    return android::base::ReadFullyAtOffset(fd, buf, len, static_cast<off64_t>(offset));
}

}  // namespace blackbox
}  // namespace kolto
}  // namespace velmar
