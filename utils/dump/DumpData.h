#pragma once

#include <time.h>

#include <string>

#include <android-base/unique_fd.h>

namespace android {

// One ANR trace found on disk. The descriptor stays open while the trace is
// being chosen; lists of these are sorted newest first.
struct DumpData {
    std::string name;
    android::base::unique_fd fd;
    struct timespec mtime = {0, 0};
};

// Newest first: greater modification time sorts earlier.
inline bool NewerDumpFirst(const DumpData& a, const DumpData& b) {
    if (a.mtime.tv_sec != b.mtime.tv_sec) return a.mtime.tv_sec > b.mtime.tv_sec;
    return a.mtime.tv_nsec > b.mtime.tv_nsec;
}

}  // namespace android
