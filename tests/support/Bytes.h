#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

// Test data as bytes: reproducible noise, and its hex text for openssl's -K and -iv.
namespace tarnis_test {

inline std::string RandomBytes(size_t len, uint64_t seed) {
    std::mt19937_64 gen(seed);
    std::string out(len, '\0');
    for (char& c : out) c = static_cast<char>(gen());
    return out;
}

inline std::string Hex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

}  // namespace tarnis_test
