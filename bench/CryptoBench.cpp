// Black-box encryption throughput: aes_encrypt_file on a 256 MiB random file
// against `openssl enc -aes-256-cbc -nopad` with the same key and IV, in the
// same run, the two interleaved so that load changes hit both alike.
//
//   build-crypt-rel/bench/bench_CryptoBench [repetitions, default 5]
//
// Prints each run, the medians and the ratio of throughputs (ours / openssl's).
// openssl's time includes starting its process; the input length is a multiple
// of 16 so that -nopad accepts it and the two outputs must be identical.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "utils/Cryptography.h"

extern char** environ;

namespace crypto = velmar::kolto::cryptography;

namespace {

constexpr size_t kInputBytes = size_t{256} << 20;

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string Hex(const unsigned char* data, size_t len) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

bool WriteRandom(const std::string& path) {
    FILE* f = fopen(path.c_str(), "we");
    if (f == nullptr) return false;
    std::mt19937_64 gen(42);
    std::vector<uint64_t> chunk(1 << 17);
    for (size_t done = 0; done < kInputBytes; done += chunk.size() * sizeof(uint64_t)) {
        for (uint64_t& word : chunk) word = gen();
        if (fwrite(chunk.data(), sizeof(uint64_t), chunk.size(), f) != chunk.size()) {
            fclose(f);
            return false;
        }
    }
    return fclose(f) == 0;
}

double RunOurs(const std::string& in, const std::string& out, unsigned char* key) {
    double start = Now();
    int inFd = open(in.c_str(), O_RDONLY | O_CLOEXEC);
    int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int64_t written = crypto::aes_encrypt_file(inFd, outFd, key);
    close(inFd);
    close(outFd);
    double elapsed = Now() - start;
    if (written != static_cast<int64_t>(kInputBytes)) {
        fprintf(stderr, "aes_encrypt_file wrote %lld bytes\n", static_cast<long long>(written));
        exit(1);
    }
    return elapsed;
}

double RunOpenssl(const std::string& in, const std::string& out, const std::string& keyHex,
                  const std::string& ivHex) {
    std::vector<std::string> args = {"openssl", "enc", "-aes-256-cbc", "-nopad", "-K", keyHex, "-iv", ivHex,
                                     "-in", in, "-out", out};
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    double start = Now();
    pid_t pid;
    if (posix_spawnp(&pid, "openssl", nullptr, nullptr, argv.data(), environ) != 0) {
        perror("posix_spawnp openssl");
        exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    double elapsed = Now() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "openssl failed (status %d)\n", status);
        exit(1);
    }
    return elapsed;
}

bool SameFiles(const std::string& a, const std::string& b) {
    std::string command = "cmp -s '" + a + "' '" + b + "'";
    return system(command.c_str()) == 0;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    int repetitions = argc > 1 ? atoi(argv[1]) : 5;
    if (repetitions < 1) repetitions = 5;
    char dirTemplate[] = "/tmp/crypto_bench.XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string dir = dirTemplate;
    const std::string in = dir + "/in";
    const std::string ours = dir + "/ours.enc";
    const std::string theirs = dir + "/openssl.enc";
    if (!WriteRandom(in)) {
        fprintf(stderr, "cannot write %s\n", in.c_str());
        return 1;
    }

    unsigned char key[crypto::kAes256KeyBytes];
    crypto::generate_aes256_key(key);
    const std::string keyHex = Hex(key, sizeof(key));
    const std::string ivHex = Hex(reinterpret_cast<const unsigned char*>("k3vTq9ZpLw2xR8nB"), 16);

    // One untimed run each warms the page cache and gives the outputs to compare.
    RunOurs(in, ours, key);
    RunOpenssl(in, theirs, keyHex, ivHex);
    const bool same = SameFiles(ours, theirs);
    printf("outputs identical: %s\n", same ? "yes" : "NO");

    std::vector<double> oursTimes;
    std::vector<double> theirTimes;
    const double mib = static_cast<double>(kInputBytes) / (1 << 20);
    for (int i = 0; i < repetitions; ++i) {
        oursTimes.push_back(RunOurs(in, ours, key));
        theirTimes.push_back(RunOpenssl(in, theirs, keyHex, ivHex));
        printf("run %d: aes_encrypt_file %.3f s (%.0f MiB/s), openssl enc %.3f s (%.0f MiB/s)\n", i + 1,
               oursTimes.back(), mib / oursTimes.back(), theirTimes.back(), mib / theirTimes.back());
    }
    const double oursMedian = Median(oursTimes);
    const double theirMedian = Median(theirTimes);
    printf("median of %d: aes_encrypt_file %.3f s (%.0f MiB/s), openssl enc %.3f s (%.0f MiB/s)\n",
           repetitions, oursMedian, mib / oursMedian, theirMedian, mib / theirMedian);
    printf("throughput ratio aes_encrypt_file / openssl: %.3f\n", theirMedian / oursMedian);

    unlink(in.c_str());
    unlink(ours.c_str());
    unlink(theirs.c_str());
    rmdir(dir.c_str());
    return same ? 0 : 1;
}
