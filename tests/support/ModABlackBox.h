#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>

#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"

// Black-box partition images (sparse, of the real size) for the crash and OTA monitors' suites,
// their records read and written at their offsets independently of the daemon's code.
namespace moda_blackbox {

constexpr char kTestKey[] = TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem";

inline void MakeImage(const std::string& path, off_t bytes) {
    ASSERT_TRUE(tarnis_test::WriteFile(path, "")) << path;
    ASSERT_EQ(truncate(path.c_str(), bytes), 0);
}

inline std::string ReadBytes(const std::string& path, uint64_t offset, size_t len) {
    std::string out(len, '\0');
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(pread(fd.get(), &out[0], len, static_cast<off_t>(offset)), static_cast<ssize_t>(len)) << path;
    return out;
}

inline void WriteBytes(const std::string& path, uint64_t offset, const void* data, size_t len) {
    android::base::unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(pwrite(fd.get(), data, len, static_cast<off_t>(offset)), static_cast<ssize_t>(len)) << path;
}

template <class Record>
Record ReadRecordAt(const std::string& path, uint64_t offset) {
    Record record;
    memcpy(&record, ReadBytes(path, offset, sizeof(Record)).data(), sizeof(Record));
    return record;
}

template <class Record>
void WriteRecordAt(const std::string& path, uint64_t offset, const Record& record) {
    WriteBytes(path, offset, &record, sizeof(Record));
}

// tarnis-blackbox with `args`, its standard error joined to its output.
inline std::string Tool(const std::string& args, int* status) {
    return tarnis_test::RunShell(std::string(TARNIS_BUILD_DIR) + "/tarnis-blackbox " + args + " 2>&1", status);
}

}  // namespace moda_blackbox
