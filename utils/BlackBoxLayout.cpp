#include "utils/BlackBoxLayout.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

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

}  // namespace blackbox
}  // namespace kolto
}  // namespace velmar
