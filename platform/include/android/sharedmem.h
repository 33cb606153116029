#pragma once

#include <stddef.h>

// Shared memory regions in the NDK's shape (<android/sharedmem.h>). On a
// device they are ashmem regions; on the host a memfd whose size is sealed
// once set, so that neither side can shrink the region under the other's
// mapping (a shrunk mapping faults on access) or grow it unseen.
extern "C" {
// A new close-on-exec region of `size` bytes named `name` (for diagnostics
// only). Returns its descriptor, or -1 with errno set (EINVAL for a size of 0).
int ASharedMemory_create(const char* name, size_t size);
// The region's size, or 0 when `fd` is not a region.
size_t ASharedMemory_getSize(int fd);
}
