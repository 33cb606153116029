#include <android/sharedmem.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>

#include <android-base/unique_fd.h>

int ASharedMemory_create(const char* name, size_t size) {
    if (size == 0 || size > static_cast<size_t>(std::numeric_limits<off_t>::max())) {
        errno = EINVAL;
        return -1;
    }
    android::base::unique_fd fd(memfd_create(name != nullptr ? name : "", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd.ok()) return -1;
    if (ftruncate(fd.get(), static_cast<off_t>(size)) != 0) return -1;
    if (fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) return -1;
    return fd.release();
}

size_t ASharedMemory_getSize(int fd) {
    // Only a sealed region counts: any other file's size could change while mapped.
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & (F_SEAL_SHRINK | F_SEAL_GROW)) != (F_SEAL_SHRINK | F_SEAL_GROW)) return 0;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size < 0) return 0;
    return static_cast<size_t>(st.st_size);
}
