#include "utils/Cryptography.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include <log/log.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "tarnis_generated/BlackboxPubKey.h"

namespace velmar::kolto::cryptography {
namespace {

// The reader of the partition knows this IV; it is not secret, and a fresh key
// per file keeps equal files from giving equal ciphertexts.
constexpr unsigned char kIv[kAesBlockBytes] = {'k', '3', 'v', 'T', 'q', '9', 'Z', 'p',
                                               'L', 'w', '2', 'x', 'R', '8', 'n', 'B'};

constexpr char kRandomDevice[] = "/dev/urandom";

std::mutex& RandomSourceLock() {
    static std::mutex lock;
    return lock;
}
std::string& RandomSource() {
    static std::string path = kRandomDevice;
    return path;
}

// Large reads keep the cost per byte close to the cipher's own.
constexpr size_t kChunkBytes = 1 << 20;

// Reads until `len` bytes or end of input, so that blocks never depend on how
// the writer of a pipe split its data. Unlike ReadFully, the count of a short
// read is what the caller needs: the input's last chunk.
size_t ReadFull(int fd, unsigned char* buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd, buf + got, len - got));
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    return got;
}

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};

// Wipes a plaintext buffer however the function is left.
struct Cleansed {
    unsigned char* data;
    size_t len;
    ~Cleansed() { OPENSSL_cleanse(data, len); }
};

}  // namespace

void SetRandomSourceForTesting(const char* path) {
    std::lock_guard<std::mutex> guard(RandomSourceLock());
    RandomSource() = path != nullptr ? path : kRandomDevice;
}

bool generate_aes256_key(unsigned char* key) {
    std::string source;
    {
        std::lock_guard<std::mutex> guard(RandomSourceLock());
        source = RandomSource();
    }
    android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(source.c_str(), O_RDONLY | O_CLOEXEC)));
    if (!fd.ok()) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "open %s fail!", source.c_str());
        OPENSSL_cleanse(key, kAes256KeyBytes);
        return false;
    }
    if (!android::base::ReadFully(fd.get(), key, kAes256KeyBytes)) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "read %s fail!", source.c_str());
        OPENSSL_cleanse(key, kAes256KeyBytes);
        return false;
    }
    return true;
}

int64_t aes_encrypt_file(int inFd, int outFd, unsigned char* key) {
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
    if (key == nullptr || !ctx ||
        EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key, kIv) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s: AES_set_encrypt_key failed", "aes_encrypt_file");
        return -1;
    }

    std::unique_ptr<unsigned char[]> buf(new unsigned char[kChunkBytes]);
    // The plaintext of the last whole block: the tail of a final partial block
    // is taken from it, as a reader that reuses one block buffer would.
    unsigned char previous[kAesBlockBytes] = {};
    unsigned char last[kAesBlockBytes];
    Cleansed wipePrevious{previous, sizeof(previous)};
    Cleansed wipeLast{last, sizeof(last)};
    int64_t written = 0;

    for (;;) {
        size_t got = ReadFull(inFd, buf.get(), kChunkBytes);
        size_t whole = got & ~static_cast<size_t>(kAesBlockBytes - 1);
        size_t tail = got - whole;
        size_t outLen = whole;
        if (whole > 0) {
            memcpy(previous, buf.get() + whole - kAesBlockBytes, kAesBlockBytes);
            int len = 0;
            if (EVP_EncryptUpdate(ctx.get(), buf.get(), &len, buf.get(), static_cast<int>(whole)) != 1 ||
                static_cast<size_t>(len) != whole) {
                __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s: encryption failed", "aes_encrypt_file");
                OPENSSL_cleanse(buf.get(), got);
                return -1;
            }
        }
        if (tail > 0) {
            memcpy(last, buf.get() + whole, tail);
            memcpy(last + tail, previous + tail, kAesBlockBytes - tail);
            int len = 0;
            if (EVP_EncryptUpdate(ctx.get(), buf.get() + whole, &len, last, kAesBlockBytes) != 1 ||
                len != kAesBlockBytes) {
                __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s: encryption failed", "aes_encrypt_file");
                OPENSSL_cleanse(buf.get(), whole + tail);
                return -1;
            }
            outLen += kAesBlockBytes;
        }
        if (outLen > 0) {
            if (!android::base::WriteFully(outFd, buf.get(), outLen)) {
                __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s: write failed: %s", "aes_encrypt_file",
                                    strerror(errno));
                return -1;
            }
            written += static_cast<int64_t>(outLen);
        }
        // A short chunk means end of input: ReadFull only stops early there.
        if (got < kChunkBytes) break;
    }
    return written;
}

int rsa_pub_encrypt_byte(unsigned char* data, unsigned char** out, int len) {
    if (out != nullptr) *out = nullptr;
    if (data == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "input str is null, please check it!");
        return -1;
    }
    if (len == 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "input str len is zero!");
        return -1;
    }
    if (len < 0 || out == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s: bad arguments (len %d)", "rsa_pub_encrypt_byte",
                            len);
        return -1;
    }

    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(kBlackboxPubKeyPem, -1));
    if (!bio) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "BIO_new_mem_buf failed!\n");
        return -1;
    }
    std::unique_ptr<EVP_PKEY, PkeyFree> pkey(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    if (!pkey) {
        ERR_print_errors_fp(stdout);
        return -1;
    }
    const int size = EVP_PKEY_get_size(pkey.get());
    unsigned char* buffer = size > 0 ? static_cast<unsigned char*>(calloc(static_cast<size_t>(size) + 1, 1))
                                     : nullptr;
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(pkey.get(), nullptr));
    size_t outLen = static_cast<size_t>(size);
    if (buffer == nullptr || !ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_encrypt(ctx.get(), buffer, &outLen, data, static_cast<size_t>(len)) != 1) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "Got error on enc/dec!\n");
        ERR_clear_error();
        free(buffer);
        return -1;
    }
    *out = buffer;
    return static_cast<int>(outLen);
}

}  // namespace velmar::kolto::cryptography
