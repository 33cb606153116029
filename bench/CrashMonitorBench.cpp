// Crash database to black box: the time from a fatal crash database appearing
// (its history line closed in <root>/data/aee_exp with the property set, as
// the exception collector does) to its container being listed in the
// partition's firmware-database header, for a 1 MiB and a 16 MiB database.
// The crash monitor's worker runs its real inotify loop in a sandbox root
// with a 190 MiB partition file.
//
//   build/bench/bench_CrashMonitorBench [repetitions, default 5]
//
// The peer, in the same run and interleaved with ours: `openssl enc` of the
// same database with a key and the fixed IV, then `dd conv=notrunc` of the
// result into a copy of the partition at the area's start. Ours also writes
// the size fields and the wrapped key, fsyncs the container, the partition
// (twice: data, then header) and the directory, and appends the crash
// history; the peer fsyncs nothing.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <host/WaitForProperty.h>
#include <host/Host.h>
#include <log/log.h>

#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"
#include "utils/BlackBoxLayout.h"
#include "utils/BlackBoxPartition.h"

namespace bb = velmar::kolto::blackbox;
using velmar::tarnis::AndroidCrashMonitorThread;

namespace {

constexpr char kKeyHex[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

bool Run(const std::string& command) { return system(command.c_str()) == 0; }

std::string RandomBytes(size_t len, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::string out(len, '\0');
    for (size_t i = 0; i + 8 <= len; i += 8) {
        uint64_t word = gen();
        memcpy(&out[i], &word, 8);
    }
    return out;
}

bool Listed(const std::string& partition, const std::string& name) {
    bb::FwMinidumpHeader header;
    const bb::Partition image = bb::Partition::OpenImage(partition, O_RDONLY);
    if (!image.ok() || !image.Read(bb::kFwMinidumpHeaderOffset, &header)) return false;
    for (int i = 0; i < bb::kFwSlots; ++i) {
        if (header.position[i] != 0 && strncmp(header.name[i], name.c_str(), bb::kFwNameBytes) == 0) return true;
    }
    return false;
}

// One database through the monitor: seconds from the history line's close to
// the header listing it.
double RunOurs(const std::string& root, const std::string& partition, const std::string& content, int serial) {
    char name[32];
    snprintf(name, sizeof(name), "db.fatal.%02d.NE", serial);
    const std::string dir = root + "/data/aee_exp/" + name;
    mkdir(dir.c_str(), 0770);
    android::base::WriteStringToFile(content, dir + "/" + name + ".dbg");
    android::base::SetProperty("vendor.debug.mtk.aee.db", std::string("/data/aee_exp/") + name);
    const std::string line =
            std::string("/data/aee_exp/") + name + ", Native (NE), Wed Jan  7 12:00:00 CST 2026\n";

    const double start = Now();
    const int fd = open((root + "/data/aee_exp/db_history").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0660);
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        fprintf(stderr, "cannot append to the history\n");
        exit(1);
    }
    close(fd);
    while (!Listed(partition, name)) {
        if (Now() - start > 60) {
            fprintf(stderr, "%s never listed\n", name);
            exit(1);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const double elapsed = Now() - start;
    // The history and the summary follow the header; let them finish before
    // the next database.
    android::base::WaitForProperty("vendor.debug.mtk.aee.db", "null", std::chrono::seconds(60));
    Run("rm -rf '" + dir + "'");
    return elapsed;
}

double RunPeer(const std::string& db, const std::string& enc, const std::string& image, const std::string& ivHex) {
    const std::string command = "openssl enc -aes-256-cbc -nopad -K " + std::string(kKeyHex) + " -iv " + ivHex +
                                " -in '" + db + "' -out '" + enc + "' && dd if='" + enc + "' of='" + image +
                                "' bs=4096 oflag=seek_bytes seek=" + std::to_string(bb::kFwAreaStart) +
                                " conv=notrunc status=none";
    const double start = Now();
    if (!Run(command)) {
        fprintf(stderr, "peer failed: %s\n", command.c_str());
        exit(1);
    }
    return Now() - start;
}

}  // namespace

int main(int argc, char** argv) {
    int repetitions = argc > 1 ? atoi(argv[1]) : 5;
    if (repetitions < 1) repetitions = 5;
    if (getenv("TARNIS_LOG_LEVEL") == nullptr) platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
    char rootTemplate[] = "/tmp/crashmon_bench.XXXXXX";
    if (mkdtemp(rootTemplate) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string root = rootTemplate;
    const std::string partition = root + "/dev/block/by-name/blackbox";
    const std::string peerImage = root + "/peer.img";
    if (!Run("mkdir -p '" + root + "/dev/block/by-name' '" + root + "/data/aee_exp' '" + root + "/proc' && " +
             "truncate -s 190M '" + partition + "' '" + peerImage + "'")) {
        fprintf(stderr, "cannot make the sandbox\n");
        return 1;
    }
    platform::SetRoot(root);

    AndroidCrashMonitorThread worker;
    std::thread loop([&worker] { worker.threadLoop(); });
    if (!android::base::WaitForProperty("vendor.blackbox.write.status", "done", std::chrono::seconds(10))) {
        fprintf(stderr, "the monitor did not start\n");
        return 1;
    }
    static const char kIv[] = "k3vTq9ZpLw2xR8nB";
    std::string ivHex;
    for (const char* p = kIv; *p != '\0'; ++p) {
        char hex[3];
        snprintf(hex, sizeof(hex), "%02x", static_cast<unsigned char>(*p));
        ivHex += hex;
    }

    int serial = 0;
    for (size_t mib : {1, 16}) {
        const std::string content = RandomBytes(mib << 20, static_cast<unsigned>(mib));
        const std::string peerDb = root + "/peer.dbg";
        const std::string peerEnc = root + "/peer.enc";
        android::base::WriteStringToFile(content, peerDb);
        // One untimed run each warms the caches.
        RunOurs(root, partition, content, serial++);
        RunPeer(peerDb, peerEnc, peerImage, ivHex);
        std::vector<double> ours, peer;
        for (int i = 0; i < repetitions; ++i) {
            ours.push_back(RunOurs(root, partition, content, serial++));
            peer.push_back(RunPeer(peerDb, peerEnc, peerImage, ivHex));
            printf("%zu MiB run %d: crash monitor %.1f ms, openssl enc + dd %.1f ms\n", mib, i + 1,
                   ours.back() * 1000, peer.back() * 1000);
        }
        const double oursMedian = Median(ours);
        const double peerMedian = Median(peer);
        printf("%zu MiB median of %d: crash monitor %.1f ms, openssl enc + dd %.1f ms, ratio %.2f\n", mib,
               repetitions, oursMedian * 1000, peerMedian * 1000, oursMedian / peerMedian);
        fflush(stdout);
    }

    worker.RequestStop();
    loop.join();
    Run("rm -rf '" + root + "'");
    return 0;
}
