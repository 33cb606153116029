#pragma once

#include <cstdint>

// Encryption of the crash databases copied into the raw black-box partition:
// each database is encrypted with a fresh AES-256 key, and that key with the
// RSA public key compiled in at configure time (TARNIS_BLACKBOX_PUBKEY), so
// that only the holder of the private half can read the partition.
namespace velmar::kolto::cryptography {

constexpr int kAes256KeyBytes = 32;
constexpr int kAesBlockBytes = 16;

// Fills key[0..31] from /dev/urandom and returns true. When the device
// cannot be opened or gives fewer than 32 bytes, logs which and returns
// false with the buffer zeroed: a caller must then encrypt nothing, as a key
// it could guess protects nothing.
bool generate_aes256_key(unsigned char* key);
// Reads keys from `path` instead (nullptr: /dev/urandom again), so that a
// test can make the random source fail.
void SetRandomSourceForTesting(const char* path);

// Encrypts everything readable from inFd to outFd with AES-256-CBC under `key`
// and the fixed black-box IV, one CBC chain, no padding marker: the final
// partial block is completed with the trailing plaintext bytes of the block
// before it (zeros if the input is shorter than one block), so the output is
// the input length rounded up to 16 bytes and the reader cuts it to the plain
// size stored beside it.
//
// The input is read as a stream of full 16-byte blocks until end of file: a
// pipe that delivers data in pieces gives the same bytes as a regular file of
// the same content. A read error ends the input like end of file.
//
// Returns the bytes written (0 for an empty input), or -1 if the key cannot be
// set or the output cannot be written.
int64_t aes_encrypt_file(int inFd, int outFd, unsigned char* key);

// RSA-encrypts data[0..len-1] (PKCS #1 v1.5) with the compiled-in public key.
// On success returns the ciphertext length (the key size, 256 for a 2048-bit
// key) and sets *out to a buffer of key size + 1 bytes, the last one zero,
// allocated with malloc: the caller releases it with free(). On failure
// returns -1 and *out is null.
int rsa_pub_encrypt_byte(unsigned char* data, unsigned char** out, int len);

}  // namespace velmar::kolto::cryptography
