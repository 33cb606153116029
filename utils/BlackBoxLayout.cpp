#include "utils/BlackBoxLayout.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <unistd.h>

#include <cerrno>

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

bool ReadAt(int fd, uint64_t offset, void* buf, size_t len) {
    auto* out = static_cast<unsigned char*>(buf);
    size_t done = 0;
    while (done < len) {
        ssize_t n = pread(fd, out + done, len - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) {
            errno = 0;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace blackbox
}  // namespace kolto
}  // namespace velmar
