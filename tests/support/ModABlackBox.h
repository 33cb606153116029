#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"

// Black-box partition images for the crash and OTA monitors' suites: sparse
// files of the real size, records read and written at their offsets, read
// back by the service tool, and containers decrypted by the openssl
// command-line tool, independently of the daemon's code.
namespace moda_blackbox {

constexpr char kTestKey[] = TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem";

inline void MakeImage(const std::string& path, off_t bytes) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(ftruncate(fd, bytes), 0);
    close(fd);
}

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
    tarnis_test::RunShell(std::string("openssl pkeyutl -decrypt -inkey ") + kTestKey + " -in " + dir.Sub("wrapped") +
                                  " -out " + dir.Sub("key"),
                          &status);
    EXPECT_EQ(status, 0);
    const std::string key = tarnis_test::ReadFile(dir.Sub("key"));
    EXPECT_EQ(key.size(), 32u);
    tarnis_test::RunShell("openssl enc -d -aes-256-cbc -nopad -K " + tarnis_test::Hex(key) + " -iv " +
                                  tarnis_test::Hex("k3vTq9ZpLw2xR8nB") + " -in " + dir.Sub("data") + " -out " +
                                  dir.Sub("plain"),
                          &status);
    EXPECT_EQ(status, 0);
    return tarnis_test::ReadFile(dir.Sub("plain")).substr(0, plain);
}

}  // namespace moda_blackbox
