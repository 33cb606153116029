#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"
#include "utils/Cryptography.h"

using android::base::unique_fd;
using namespace tarnis_test;
namespace crypto = velmar::kolto::cryptography;

namespace {

const std::string kPrivKey = std::string(TARNIS_SOURCE_DIR) + "/keys/blackbox_test_priv.pem";

unsigned char* Bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

std::string NewKey() {
    std::string key(crypto::kAes256KeyBytes, '\0');
    EXPECT_TRUE(crypto::generate_aes256_key(Bytes(key)));
    return key;
}

int64_t EncryptFile(const std::string& in, const std::string& out, std::string key) {
    const unique_fd inFd(open(in.c_str(), O_RDONLY | O_CLOEXEC));
    const unique_fd outFd(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    EXPECT_TRUE(inFd.ok() && outFd.ok());
    return crypto::aes_encrypt_file(inFd.get(), outFd.get(), Bytes(key));
}

void Openssl(const std::string& arguments) {
    int status = -1;
    const std::string output = RunShell("openssl " + arguments + " 2>&1", &status);
    EXPECT_EQ(status, 0) << arguments << "\n" << output;
}

}  // namespace

// The private key's holder opens what the daemon wrote with openssl alone: the key under RSA, the data under AES.
class OpensslReadsWhatWeWrite : public ::testing::TestWithParam<size_t> {};

TEST_P(OpensslReadsWhatWeWrite, KeyUnderRsaAndDataUnderAes) {
    TempDir dir;
    const std::string plain = RandomBytes(GetParam(), GetParam() + 1);
    ASSERT_TRUE(WriteFile(dir.Sub("plain"), plain));
    std::string key = NewKey();
    const size_t padded = (plain.size() + 15) / 16 * 16;
    ASSERT_EQ(EncryptFile(dir.Sub("plain"), dir.Sub("data.enc"), key), static_cast<int64_t>(padded));
    unsigned char* wrapped = nullptr;
    ASSERT_EQ(crypto::rsa_pub_encrypt_byte(Bytes(key), &wrapped, 32), 256);
    EXPECT_EQ(wrapped[256], 0);  // one byte beyond the block, zero
    ASSERT_TRUE(WriteFile(dir.Sub("key.enc"), std::string(reinterpret_cast<char*>(wrapped), 256)));
    free(wrapped);

    Openssl("pkeyutl -decrypt -inkey '" + kPrivKey + "' -pkeyopt rsa_padding_mode:pkcs1 -in '" +
            dir.Sub("key.enc") + "' -out '" + dir.Sub("key.bin") + "'");
    const std::string unwrapped = ReadFile(dir.Sub("key.bin"));
    ASSERT_EQ(Hex(unwrapped), Hex(key));
    Openssl("enc -d -aes-256-cbc -nopad -K " + Hex(unwrapped) + " -iv " + Hex("k3vTq9ZpLw2xR8nB") + " -in '" +
            dir.Sub("data.enc") + "' -out '" + dir.Sub("data.dec") + "'");
    const std::string decrypted = ReadFile(dir.Sub("data.dec"));
    ASSERT_EQ(decrypted.size(), padded);
    EXPECT_TRUE(decrypted.substr(0, plain.size()) == plain);
    // A final partial block is completed with the previous block's last plain bytes (zeros when there is none).
    const size_t tail = plain.size() % 16;
    const std::string completion = tail == 0 ? ""
                                   : plain.size() < 16 ? std::string(16 - tail, '\0')
                                                       : plain.substr(plain.size() - 16, 16 - tail);
    EXPECT_EQ(Hex(decrypted.substr(plain.size())), Hex(completion));
}

// Empty, a block and a byte, two blocks, a tail just past a read chunk, a few megabytes.
INSTANTIATE_TEST_SUITE_P(Sizes, OpensslReadsWhatWeWrite,
                         ::testing::ValuesIn(std::vector<size_t>{0, 5, 17, 32, (1 << 20) + 5, 3000001}));

// Blocks are the stream's however a pipe's writer splits it; an unusable key or output fails.
TEST(AesEncryptFile, PipeInPiecesMatchesRegularFileAndFailuresAreSaid) {
    TempDir dir;
    const std::string plain = RandomBytes(100003, 11);
    std::string key = NewKey();
    ASSERT_TRUE(WriteFile(dir.Sub("in"), plain));
    ASSERT_EQ(EncryptFile(dir.Sub("in"), dir.Sub("file.enc"), key), 100016);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    unique_fd readEnd(fds[0]);
    std::thread writer([&] {
        std::mt19937 gen(3);
        for (size_t at = 0; at < plain.size();) {
            const ssize_t w = write(fds[1], plain.data() + at, std::min<size_t>(1 + gen() % 37, plain.size() - at));
            if (w <= 0) break;
            at += static_cast<size_t>(w);
            if (gen() % 8 == 0) std::this_thread::yield();
        }
        close(fds[1]);
    });
    const unique_fd pipeOut(open(dir.Sub("pipe.enc").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const int64_t written = crypto::aes_encrypt_file(readEnd.get(), pipeOut.get(), Bytes(key));
    writer.join();
    EXPECT_EQ(written, 100016);
    EXPECT_TRUE(ReadFile(dir.Sub("pipe.enc")) == ReadFile(dir.Sub("file.enc")));

    const unique_fd inFd(open(dir.Sub("in").c_str(), O_RDONLY | O_CLOEXEC));
    platform::LogCapture capture;
    EXPECT_EQ(crypto::aes_encrypt_file(inFd.get(), STDOUT_FILENO, nullptr), -1);
    EXPECT_TRUE(capture.HasLine("aes_encrypt_file: AES_set_encrypt_key failed", "", ANDROID_LOG_ERROR));
    // A descriptor opened for reading only cannot take the ciphertext.
    EXPECT_EQ(crypto::aes_encrypt_file(inFd.get(), inFd.get(), Bytes(key)), -1);
    EXPECT_TRUE(capture.HasLine("aes_encrypt_file: write failed: Bad file descriptor", "", ANDROID_LOG_ERROR));
}

// The padding that fits is decided by openssl's decryption above.
TEST(RsaPubEncrypt, RefusesWhatPkcs1CannotCarry) {
    std::string data = RandomBytes(246, 2);
    const std::tuple<unsigned char*, int, const char*> refused[] = {
        {nullptr, 4, "input str is null, please check it!"},
        {Bytes(data), 0, "input str len is zero!"},
        // PKCS #1 v1.5 leaves 256 - 11 bytes of message in a 2048-bit block.
        {Bytes(data), 246, "Got error on enc/dec!\n"},
    };
    for (const auto& [bytes, len, line] : refused) {
        SCOPED_TRACE(line);
        platform::LogCapture capture;
        unsigned char byte = 1;
        unsigned char* out = &byte;
        EXPECT_EQ(crypto::rsa_pub_encrypt_byte(bytes, &out, len), -1);
        EXPECT_EQ(out, nullptr);
        EXPECT_TRUE(capture.HasLine(line, "", ANDROID_LOG_ERROR));
        EXPECT_EQ(capture.Count("", "", ANDROID_LOG_ERROR), 1u);
    }
}

TEST(GenerateAes256Key, FreshThirtyTwoBytesOrNoneAtAll) {
    std::string a(40, '\xA5');
    std::string b(40, '\xA5');
    EXPECT_TRUE(crypto::generate_aes256_key(Bytes(a)));
    EXPECT_TRUE(crypto::generate_aes256_key(Bytes(b)));
    EXPECT_NE(a.substr(0, 32), b.substr(0, 32));
    EXPECT_EQ(a.substr(32), std::string(8, '\xA5'));

    // A source that cannot be opened, or gives too few bytes: said so, and no usable key left behind.
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("short"), std::string(31, 'k')));
    for (const std::string how : {"open", "read"}) {
        const std::string source = dir.Sub(how == "open" ? "missing" : "short");
        platform::LogCapture capture;
        crypto::SetRandomSourceForTesting(source.c_str());
        std::string key(32, '\xA5');
        EXPECT_FALSE(crypto::generate_aes256_key(Bytes(key))) << how;
        crypto::SetRandomSourceForTesting(nullptr);
        EXPECT_TRUE(capture.HasLine(how + " " + source + " fail!", "", ANDROID_LOG_ERROR)) << how;
        EXPECT_EQ(key, std::string(32, '\0'));
    }
}
