#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

// Partition images for the crash monitor's suite: sparse files of the real
// size, records read and written at their offsets, and containers decrypted
// by the openssl command-line tool, independently of the daemon's code.
namespace blackbox_test {

constexpr off_t kPartitionBytes = 190 << 20;

using tarnis_test::Hex;
using tarnis_test::RandomBytes;

inline std::string ReadBytes(const std::string& path, uint64_t offset, size_t len) {
    std::string out(len, '\0');
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    EXPECT_EQ(pread(fd, &out[0], len, static_cast<off_t>(offset)), static_cast<ssize_t>(len));
    close(fd);
    return out;
}

inline void WriteBytes(const std::string& path, uint64_t offset, const void* data, size_t len) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(pwrite(fd, data, len, static_cast<off_t>(offset)), static_cast<ssize_t>(len));
    close(fd);
}

template <class Record>
Record ReadRecordAt(const std::string& path, uint64_t offset) {
    Record record;
    const std::string bytes = ReadBytes(path, offset, sizeof(Record));
    memcpy(&record, bytes.data(), sizeof(Record));
    return record;
}

template <class Record>
void WriteRecordAt(const std::string& path, uint64_t offset, const Record& record) {
    WriteBytes(path, offset, &record, sizeof(Record));
}

// The plain database of a container: the key unwrapped with `openssl
// pkeyutl`, the data decrypted with `openssl enc`, cut to the stored size.
inline std::string DecryptWithOpenssl(const std::string& container) {
    tarnis_test::TempDir dir;
    const size_t plain = std::stoul(container.substr(0, 16).c_str());
    const size_t padded = std::stoul(container.substr(16, 16).c_str());
    EXPECT_EQ(container.size(), padded + 288);
    tarnis_test::WriteFile(dir.Sub("data"), container.substr(32, padded));
    tarnis_test::WriteFile(dir.Sub("wrapped"), container.substr(32 + padded, 256));
    int status = -1;
    tarnis_test::RunShell("openssl pkeyutl -decrypt -inkey " TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem -in " +
                                  dir.Sub("wrapped") + " -out " + dir.Sub("key"),
                          &status);
    EXPECT_EQ(status, 0);
    const std::string key = tarnis_test::ReadFile(dir.Sub("key"));
    EXPECT_EQ(key.size(), 32u);
    tarnis_test::RunShell("openssl enc -d -aes-256-cbc -nopad -K " + Hex(key) + " -iv " + Hex("k3vTq9ZpLw2xR8nB") +
                                  " -in " + dir.Sub("data") + " -out " + dir.Sub("plain"),
                          &status);
    EXPECT_EQ(status, 0);
    return tarnis_test::ReadFile(dir.Sub("plain")).substr(0, plain);
}

using tarnis_test::WaitFor;

}  // namespace blackbox_test
