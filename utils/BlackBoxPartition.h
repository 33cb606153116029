#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <android-base/unique_fd.h>

#include "utils/BlackBoxLayout.h"

namespace velmar {
namespace kolto {
namespace blackbox {

// The one way into the black-box partition: the crash monitor, the boot
// failure report, the OTA monitor and tarnis-blackbox open, size, read and
// write it through this class only, so that there is one link policy and
// every offset comes from the layout's definitions.
class Partition {
public:
    // Writes to the partition pass through this when set, so that tests can
    // make a write fail or stop short where a full or failing device would.
    using WriteHook = std::function<ssize_t(int fd, const void* buf, size_t len, off_t offset)>;

    Partition() = default;
    Partition(Partition&&) = default;
    Partition& operator=(Partition&&) = default;

    // The device's partition, opened with `flags`. On a device its by-name
    // entry is a link into /dev/block by design, so links are followed;
    // below a sandbox root, where the open descriptor leads must lie below
    // the root, so that a planted link cannot send reads or writes out of the
    // tree. Not ok() with errno set (ELOOP for a link out) when refused.
    static Partition Open(int flags);
    // An image of the partition that a user named on the command line.
    static Partition OpenImage(const std::string& path, int flags);

    bool ok() const { return fd_.ok(); }
    int fd() const { return fd_.get(); }

    // BLKGETSIZE64 on a block device, the file's size for the regular file
    // that stands for the partition on a host; false with errno set (ENOTBLK
    // for anything else).
    bool Size(uint64_t* size) const;
    // 1, 2 or 3 by the size; 0 when it cannot be sized or fits no version.
    int Version() const;

    // Exactly `len` bytes at `offset`; false with errno set on an error, with
    // errno 0 when the partition ends first.
    bool ReadAt(uint64_t offset, void* buf, size_t len) const;
    // What the partition holds of `len` bytes at `offset`: the count read,
    // short (0 too) where it ends first, or -1 with errno set.
    ssize_t ReadHeld(uint64_t offset, void* buf, size_t len) const;
    // One write of `len` bytes at `offset`: the count written (short where
    // the device is full), or -1 with errno set.
    ssize_t WriteOnce(uint64_t offset, const void* data, size_t len) const;
    // The whole buffer at `offset` in one write, or false: a write that stops
    // short (a full device) fails with ENOSPC.
    bool WriteAt(uint64_t offset, const void* data, size_t len) const;
    bool Sync() const;

    template <class Record>
    bool Read(uint64_t offset, Record* out) const {
        return ReadAt(offset, out, sizeof(Record));
    }
    template <class Record>
    bool Write(uint64_t offset, const Record& record) const {
        return WriteAt(offset, &record, sizeof(Record));
    }

    static void SetWriteHookForTesting(WriteHook hook);

private:
    explicit Partition(android::base::unique_fd fd) : fd_(std::move(fd)) {}

    android::base::unique_fd fd_;
};

// The partition's version (1, 2 or 3) by its size, with the lines its writers
// log under their own `tag`; 1 when the partition cannot be opened or sized or
// its size fits no version.
int GetBlackBoxVersion(const char* tag);

}  // namespace blackbox
}  // namespace kolto
}  // namespace velmar
