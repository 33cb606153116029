#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"
#include "utils/Cryptography.h"

using tarnis_test::Hex;
using tarnis_test::RandomBytes;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;
namespace crypto = velmar::kolto::cryptography;

namespace {

const std::string kPrivKey = std::string(TARNIS_SOURCE_DIR) + "/keys/blackbox_test_priv.pem";
const std::string kIvText = "k3vTq9ZpLw2xR8nB";

std::string NewKey() {
    unsigned char key[crypto::kAes256KeyBytes] = {};
    crypto::generate_aes256_key(key);
    return std::string(reinterpret_cast<char*>(key), sizeof(key));
}

// Encrypts the file at `in` into `out`; returns aes_encrypt_file's result.
int64_t EncryptPath(const std::string& in, const std::string& out, std::string key) {
    int inFd = open(in.c_str(), O_RDONLY | O_CLOEXEC);
    int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_GE(inFd, 0);
    EXPECT_GE(outFd, 0);
    int64_t result = crypto::aes_encrypt_file(inFd, outFd, reinterpret_cast<unsigned char*>(key.data()));
    close(inFd);
    close(outFd);
    return result;
}

// The size field of the container: decimal text, NUL-padded to 16 bytes.
std::string SizeField(size_t value) {
    std::string field = std::to_string(value);
    field.resize(16, '\0');
    return field;
}

// Assembles the black-box container for `plain`: plain size, padded size,
// ciphertext, then the AES key under RSA. Returns the container path.
std::string BuildContainer(const TempDir& dir, const std::string& plain) {
    const std::string in = dir.Sub("plain");
    const std::string enc = dir.Sub("cipher");
    EXPECT_TRUE(WriteFile(in, plain));
    std::string key = NewKey();
    int64_t written = EncryptPath(in, enc, key);
    const size_t padded = (plain.size() + 15) / 16 * 16;
    EXPECT_EQ(written, static_cast<int64_t>(padded));

    unsigned char* wrapped = nullptr;
    int wrappedLen = crypto::rsa_pub_encrypt_byte(reinterpret_cast<unsigned char*>(key.data()), &wrapped,
                                                  static_cast<int>(key.size()));
    EXPECT_EQ(wrappedLen, 256);
    std::string container = SizeField(plain.size()) + SizeField(padded) + ReadFile(enc);
    if (wrapped != nullptr) container.append(reinterpret_cast<char*>(wrapped), 256);
    free(wrapped);
    EXPECT_EQ(container.size(), padded + 288);
    const std::string path = dir.Sub("container");
    EXPECT_TRUE(WriteFile(path, container));
    return path;
}

struct Opened {
    std::string key;     // the AES key recovered with the private key
    std::string padded;  // the whole decrypted ciphertext, before the cut
    std::string plain;   // cut to the stored plain size
};

// Opens a container the way the holder of the private key does, with the
// openssl tool alone.
Opened OpenContainer(const TempDir& dir, const std::string& path) {
    Opened opened;
    std::string container = ReadFile(path);
    if (container.size() < 288) {
        ADD_FAILURE() << "container of " << container.size() << " bytes";
        return opened;
    }
    const size_t plainSize = std::strtoull(container.substr(0, 16).c_str(), nullptr, 10);
    const size_t paddedSize = std::strtoull(container.substr(16, 16).c_str(), nullptr, 10);
    EXPECT_EQ(container.size(), paddedSize + 288);
    EXPECT_TRUE(WriteFile(dir.Sub("data.enc"), container.substr(32, paddedSize)));
    EXPECT_TRUE(WriteFile(dir.Sub("key.enc"), container.substr(32 + paddedSize)));

    int status = -1;
    RunShell("openssl pkeyutl -decrypt -inkey '" + kPrivKey + "' -pkeyopt rsa_padding_mode:pkcs1 -in '" +
                 dir.Sub("key.enc") + "' -out '" + dir.Sub("key.bin") + "'",
             &status);
    EXPECT_EQ(status, 0);
    opened.key = ReadFile(dir.Sub("key.bin"));
    EXPECT_EQ(opened.key.size(), 32u);
    RunShell("openssl enc -d -aes-256-cbc -nopad -K " + Hex(opened.key) + " -iv " + Hex(kIvText) + " -in '" +
                 dir.Sub("data.enc") + "' -out '" + dir.Sub("data.dec") + "'",
             &status);
    EXPECT_EQ(status, 0);
    opened.padded = ReadFile(dir.Sub("data.dec"));
    EXPECT_EQ(opened.padded.size(), paddedSize);
    opened.plain = opened.padded.substr(0, std::min(plainSize, opened.padded.size()));
    return opened;
}

// The bytes that complete a final partial block: what a reader reusing one
// 16-byte block buffer still holds from the block before (zeros at first).
std::string ExpectedPadding(const std::string& plain) {
    const size_t tail = plain.size() % 16;
    if (tail == 0) return "";
    if (plain.size() < 16) return std::string(16 - tail, '\0');
    return plain.substr(plain.size() - tail - 16 + tail, 16 - tail);
}

}  // namespace

// ---- The container opens with the openssl tool ----

class ContainerRoundTrip : public ::testing::TestWithParam<size_t> {};

TEST_P(ContainerRoundTrip, DecryptsToTheOriginalBytes) {
    TempDir dir;
    const std::string plain = RandomBytes(GetParam(), GetParam() + 1);
    Opened opened = OpenContainer(dir, BuildContainer(dir, plain));
    EXPECT_TRUE(opened.plain == plain) << "size " << plain.size();
    EXPECT_EQ(opened.padded.substr(plain.size()), ExpectedPadding(plain));
}

// Empty, one block and a byte, exactly two blocks, a tail just past a read
// chunk (its completing bytes come from the chunk before), a few megabytes.
INSTANTIATE_TEST_SUITE_P(Sizes, ContainerRoundTrip,
                         ::testing::Values(size_t{0}, size_t{5}, size_t{17}, size_t{32}, size_t{(1 << 20) + 5},
                                           size_t{3000001}));

// ---- The byte contract of aes_encrypt_file ----

// Blocks are full blocks of the stream, however a pipe's writer splits it.
TEST(AesEncryptFile, PipeInPiecesMatchesRegularFile) {
    TempDir dir;
    const std::string plain = RandomBytes(100003, 11);
    const std::string key = NewKey();
    ASSERT_TRUE(WriteFile(dir.Sub("in"), plain));
    ASSERT_EQ(EncryptPath(dir.Sub("in"), dir.Sub("file.enc"), key), 100016);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::thread writer([&] {
        std::mt19937 gen(3);
        size_t at = 0;
        while (at < plain.size()) {
            size_t n = std::min<size_t>(1 + gen() % 37, plain.size() - at);
            ssize_t w = write(fds[1], plain.data() + at, n);
            if (w <= 0) break;
            at += static_cast<size_t>(w);
            if (gen() % 8 == 0) std::this_thread::yield();
        }
        close(fds[1]);
    });
    int outFd = open(dir.Sub("pipe.enc").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(outFd, 0);
    std::string k = key;
    int64_t written = crypto::aes_encrypt_file(fds[0], outFd, reinterpret_cast<unsigned char*>(k.data()));
    writer.join();
    close(fds[0]);
    close(outFd);
    EXPECT_EQ(written, 100016);
    EXPECT_TRUE(ReadFile(dir.Sub("pipe.enc")) == ReadFile(dir.Sub("file.enc")));
}

TEST(AesEncryptFile, UnusableKeyOrOutputFails) {
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("in"), RandomBytes(40, 5)));
    int inFd = open(dir.Sub("in").c_str(), O_RDONLY | O_CLOEXEC);
    int outFd = open(dir.Sub("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(inFd, 0);
    ASSERT_GE(outFd, 0);
    {
        platform::LogCapture capture;
        EXPECT_EQ(crypto::aes_encrypt_file(inFd, outFd, nullptr), -1);
        EXPECT_TRUE(capture.HasLine("aes_encrypt_file: AES_set_encrypt_key failed", "", ANDROID_LOG_ERROR));
    }
    std::string key = NewKey();
    // A descriptor opened for reading only cannot take the ciphertext.
    int readOnly = open(dir.Sub("out").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(readOnly, 0);
    EXPECT_EQ(crypto::aes_encrypt_file(inFd, readOnly, reinterpret_cast<unsigned char*>(key.data())), -1);
    close(readOnly);
    close(inFd);
    close(outFd);
}

// ---- rsa_pub_encrypt_byte ----

TEST(RsaPubEncrypt, RejectsNullAndEmptyInput) {
    platform::LogCapture capture;
    unsigned char byte = 1;
    unsigned char* out = &byte;
    EXPECT_EQ(crypto::rsa_pub_encrypt_byte(nullptr, &out, 4), -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(capture.HasLine("input str is null, please check it!", "", ANDROID_LOG_ERROR));
    EXPECT_FALSE(capture.HasLine("input str len is zero!", "", ANDROID_LOG_ERROR));
    out = &byte;
    EXPECT_EQ(crypto::rsa_pub_encrypt_byte(&byte, &out, 0), -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(capture.HasLine("input str len is zero!", "", ANDROID_LOG_ERROR));
}

TEST(RsaPubEncrypt, TooLongForPkcs1Fails) {
    platform::LogCapture capture;
    // PKCS #1 v1.5 leaves 256 - 11 bytes of message in a 2048-bit block.
    std::string data = RandomBytes(246, 2);
    unsigned char* out = nullptr;
    EXPECT_EQ(crypto::rsa_pub_encrypt_byte(reinterpret_cast<unsigned char*>(data.data()), &out, 246), -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(capture.HasLine("Got error on enc/dec!\n", "", ANDROID_LOG_ERROR));
    data.resize(245);
    EXPECT_EQ(crypto::rsa_pub_encrypt_byte(reinterpret_cast<unsigned char*>(data.data()), &out, 245), 256);
    free(out);
}

TEST(RsaPubEncrypt, PrivateKeyRecoversTheDataAndBufferEndsInZero) {
    TempDir dir;
    std::string data = RandomBytes(32, 9);
    unsigned char* out = nullptr;
    ASSERT_EQ(crypto::rsa_pub_encrypt_byte(reinterpret_cast<unsigned char*>(data.data()), &out, 32), 256);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out[256], 0);
    std::string first(reinterpret_cast<char*>(out), 256);
    free(out);
    ASSERT_TRUE(WriteFile(dir.Sub("k.enc"), first));
    int status = -1;
    RunShell("openssl pkeyutl -decrypt -inkey '" + kPrivKey + "' -pkeyopt rsa_padding_mode:pkcs1 -in '" +
                 dir.Sub("k.enc") + "' -out '" + dir.Sub("k.bin") + "'",
             &status);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(ReadFile(dir.Sub("k.bin")) == data);

    // Random padding: the same key never gives the same block twice.
    ASSERT_EQ(crypto::rsa_pub_encrypt_byte(reinterpret_cast<unsigned char*>(data.data()), &out, 32), 256);
    EXPECT_NE(std::string(reinterpret_cast<char*>(out), 256), first);
    free(out);
}

// ---- generate_aes256_key ----

TEST(GenerateAes256Key, FailsLoudlyAndLeavesNoUsableKeyWhenTheSourceFails) {
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("short"), std::string(31, 'k')));  // "open" fails on "missing"
    for (const std::string how : {"open", "read"}) {
        const std::string source = dir.Sub(how == "open" ? "missing" : "short");
        platform::LogCapture capture;
        crypto::SetRandomSourceForTesting(source.c_str());
        unsigned char key[32];
        memset(key, 0xA5, sizeof(key));
        EXPECT_FALSE(crypto::generate_aes256_key(key)) << how;
        crypto::SetRandomSourceForTesting(nullptr);
        EXPECT_TRUE(capture.HasLine(how + " " + source + " fail!", "", ANDROID_LOG_ERROR)) << how;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(key), 32), std::string(32, '\0'));
    }
}

TEST(GenerateAes256Key, FillsExactlyThirtyTwoFreshBytes) {
    unsigned char a[40];
    unsigned char b[40];
    memset(a, 0xA5, sizeof(a));
    memset(b, 0xA5, sizeof(b));
    EXPECT_TRUE(crypto::generate_aes256_key(a));
    EXPECT_TRUE(crypto::generate_aes256_key(b));
    EXPECT_NE(memcmp(a, b, 32), 0);
    for (int i = 32; i < 40; ++i) {
        EXPECT_EQ(a[i], 0xA5) << i;
        EXPECT_EQ(b[i], 0xA5) << i;
    }
    // 32 bytes still equal to the fill are as likely as guessing the key.
    unsigned char fill[32];
    memset(fill, 0xA5, sizeof(fill));
    EXPECT_NE(memcmp(a, fill, 32), 0);
}
