// Packing speed of ZipFile on a log tree of about 200 MB, against Info-ZIP's
// `zip -r -q` (default level, one core) and against raw zlib deflate of the
// same bytes at the same level from memory on one core, which bounds what a
// single-threaded packer can reach. ZipFile deflates on every core it may
// use. All three run in one process on one generated tree; the program prints
// medians and the ratios at the end: ZipFile's wall time against zip's
// (target <= 0.60 on two cores) and its archive size against zip's
// (target <= 1.01).
//
//   build/bench/bench_ZipBench [--benchmark_repetitions=N] [google benchmark flags]
#include <dirent.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchDefaults.h"
#include <zlib.h>

#include "utils/FileUtil.h"
#include "utils/ZipFile.h"

using velmar::kolto::FileUtil;
using velmar::kolto::ZipFile;

namespace {

struct Corpus {
    std::string dir;       // the temp directory holding tree/ and the archives
    std::string tree;      // the log tree that is packed
    std::vector<std::string> files;
    uint64_t bytes = 0;
};

Corpus& TheCorpus() {
    static Corpus corpus;
    return corpus;
}

// Log-like text in logcat's threadtime layout: rising time stamps, a few
// dozen processes each with its own tag and handful of messages, numbers that
// vary. It compresses about as well as real logcat output (5-7x).
std::string LogText(std::mt19937& gen, size_t size) {
    static const char* kTags[] = {"ActivityManager", "WindowManager", "PowerManagerService",
                                  "BatteryService", "ThermalEngine", "wpa_supplicant",
                                  "ConnectivityService", "InputDispatcher", "SurfaceFlinger",
                                  "chatty", "NetworkController", "audio_hw_primary"};
    static const char* kMessages[] = {
        "Start proc %u:com.android.phone/u0a%u for service {com.android.phone/.TelephonyService}",
        "Acquiring wakelock 0x%x uid=%u ws=null pkg=android",
        "Releasing wakelock 0x%x flags=0x%x total_time=%ums",
        "level:%u, scale:100, status:2, health:2, present:true, voltage:%u, temperature:%u",
        "Thermal zone %u temp %u trip 0 hysteresis 2000",
        "wlan0: CTRL-EVENT-SIGNAL-CHANGE above=1 signal=-%u noise=9999 txrate=%u",
        "binder transaction failed %u, code %u, data size %u",
        "Input event injection from pid %u failed, time %ums",
        "Frame dropped: %u ms late, vsync id %u",
        "uid=%u(system) identical %u lines",
        "NetworkAgentInfo [WIFI () - %u] validation passed in %ums",
        "out_write: bytes %u, frames %u, latency %uus"};
    static const char kLevels[] = "VDIWE";
    struct Proc {
        unsigned pid, tid, tag;
    };
    std::vector<Proc> procs;
    for (int i = 0; i < 24; ++i) {
        const unsigned pid = 300 + gen() % 9000;
        procs.push_back({pid, pid + static_cast<unsigned>(gen() % 50), static_cast<unsigned>(gen() % 12)});
    }
    std::string text;
    text.reserve(size + 512);
    char line[512];
    char message[256];
    uint64_t ms = (gen() % 86400000);
    while (text.size() < size) {
        ms += gen() % 40;
        const Proc& proc = procs[gen() % procs.size()];
        const unsigned which = (proc.tag + gen() % 3) % 12;
        snprintf(message, sizeof(message), kMessages[which], static_cast<unsigned>(gen() % 5000),
                 static_cast<unsigned>(gen() % 20000), static_cast<unsigned>(gen() % 400));
        snprintf(line, sizeof(line), "11-23 %02u:%02u:%02u.%03u %5u %5u %c %-8s: %s\n",
                 static_cast<unsigned>(ms / 3600000 % 24), static_cast<unsigned>(ms / 60000 % 60),
                 static_cast<unsigned>(ms / 1000 % 60), static_cast<unsigned>(ms % 1000), proc.pid,
                 proc.tid, kLevels[(proc.tag + which) % 5], kTags[proc.tag], message);
        text += line;
    }
    text.resize(size);
    return text;
}

bool WriteAll(const std::string& path, const std::string& data) {
    FILE* out = fopen(path.c_str(), "wb");
    if (out == nullptr) return false;
    const bool ok = fwrite(data.data(), 1, data.size(), out) == data.size();
    return fclose(out) == 0 && ok;
}

// About 200 MB: a few large logs, many middling and small ones, and some
// incompressible binary (already-compressed dumps), spread over directories.
// The seed is fixed, so every run packs the same bytes.
bool MakeCorpus() {
    Corpus& corpus = TheCorpus();
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tarnis-zipbench-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) return false;
    corpus.dir = pattern;
    corpus.tree = corpus.dir + "/tree";
    struct Group {
        const char* sub;
        int count;
        size_t size;
        bool binary;
    };
    const Group groups[] = {
        {"logcat", 12, 8u << 20, false},   {"kernel", 40, 1u << 20, false},
        {"anr", 200, 150u << 10, false},   {"events", 600, 12u << 10, false},
        {"tiny", 400, 700, false},         {"dumps", 6, 4u << 20, true},
        {"blobs", 50, 64u << 10, true},
    };
    std::mt19937 gen(20261123);
    if (mkdir(corpus.tree.c_str(), 0755) != 0) return false;
    for (const Group& group : groups) {
        const std::string dir = corpus.tree + "/" + group.sub;
        if (mkdir(dir.c_str(), 0755) != 0) return false;
        for (int i = 0; i < group.count; ++i) {
            // Sizes vary by up to a quarter around the group's size.
            const size_t size = group.size - group.size / 8 + gen() % (group.size / 4 + 1);
            std::string data;
            if (group.binary) {
                data.resize(size);
                for (char& c : data) c = static_cast<char>(gen());
            } else {
                data = LogText(gen, size);
            }
            const std::string path = dir + "/" + group.sub + "_" + std::to_string(i) + ".log";
            if (!WriteAll(path, data)) return false;
            corpus.files.push_back(path);
            corpus.bytes += data.size();
        }
    }
    return true;
}

void RemoveCorpus() {
    Corpus& corpus = TheCorpus();
    if (!corpus.dir.empty()) FileUtil::DeleteDirectoryOrFile(corpus.dir, nullptr);
}

// The load averages over 1, 5 and 15 minutes: other work on the machine
// shows in the wall times. Read before the run, which adds its own.
std::string LoadAverage() {
    double load[3] = {-1, -1, -1};
    if (FILE* in = fopen("/proc/loadavg", "r")) {
        if (fscanf(in, "%lf %lf %lf", &load[0], &load[1], &load[2]) != 3) load[0] = -1;
        fclose(in);
    }
    if (load[0] < 0) return "unknown";
    char text[64];
    snprintf(text, sizeof(text), "%.2f %.2f %.2f", load[0], load[1], load[2]);
    return text;
}

uint64_t FileSizeOf(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

void BM_ZipFile(benchmark::State& state) {
    Corpus& corpus = TheCorpus();
    const std::string archive = corpus.dir + "/zipfile.zip";
    for (auto _ : state) {
        ZipFile zip({corpus.tree}, 0);
        if (!zip.create(archive) || !zip.close()) {
            state.SkipWithError("ZipFile failed");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(corpus.bytes * state.iterations()));
    state.counters["archive_bytes"] = static_cast<double>(FileSizeOf(archive));
}

void BM_InfoZip(benchmark::State& state) {
    Corpus& corpus = TheCorpus();
    const std::string archive = corpus.dir + "/infozip.zip";
    double childCpuMs = 0;
    for (auto _ : state) {
        state.PauseTiming();
        unlink(archive.c_str());  // zip would otherwise update the old archive
        state.ResumeTiming();
        pid_t pid = fork();
        if (pid == 0) {
            // Same naming as ZipFile at depth 0: paths relative to "/".
            if (chdir("/") == 0) {
                execlp("zip", "zip", "-r", "-q", archive.c_str(), corpus.tree.c_str() + 1,
                       static_cast<char*>(nullptr));
            }
            _exit(127);
        }
        int status = 0;
        struct rusage usage {};
        if (pid < 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0) {
            state.SkipWithError("zip failed (is Info-ZIP installed?)");
            return;
        }
        // The child's CPU time: on a shared machine it is steadier than the
        // wall clock, and the benchmark's own CPU column only sees this process.
        childCpuMs += (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
                      (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
    }
    state.counters["child_cpu_ms"] = childCpuMs / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(corpus.bytes * state.iterations()));
    state.counters["archive_bytes"] = static_cast<double>(FileSizeOf(archive));
}

// The same bytes, from memory, through one deflate stream per file with the
// archive's settings (level -1, raw, window 15, memory level 8).
void BM_RawDeflate(benchmark::State& state) {
    Corpus& corpus = TheCorpus();
    std::vector<std::string> contents;
    for (const std::string& path : corpus.files) {
        FILE* in = fopen(path.c_str(), "rb");
        std::string data(FileSizeOf(path), '\0');
        if (in == nullptr || fread(&data[0], 1, data.size(), in) != data.size()) {
            if (in != nullptr) fclose(in);
            state.SkipWithError("cannot read the corpus");
            return;
        }
        fclose(in);
        contents.push_back(std::move(data));
    }
    std::vector<unsigned char> out(1 << 16);
    uint64_t compressed = 0;
    for (auto _ : state) {
        compressed = 0;
        for (const std::string& data : contents) {
            z_stream stream {};
            deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8,
                         Z_DEFAULT_STRATEGY);
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
            stream.avail_in = static_cast<uInt>(data.size());
            int rc;
            do {
                stream.next_out = out.data();
                stream.avail_out = static_cast<uInt>(out.size());
                rc = deflate(&stream, Z_FINISH);
                compressed += out.size() - stream.avail_out;
            } while (rc == Z_OK);
            deflateEnd(&stream);
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(corpus.bytes * state.iterations()));
    state.counters["deflated_bytes"] = static_cast<double>(compressed);
}

// Collects the median of each benchmark's repetitions for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
    struct Median {
        double wallS = 0;
        double cpuS = 0;
        double archiveBytes = 0;
    };
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
            Median& median = medians[run.run_name.function_name];
            median.wallS = run.GetAdjustedRealTime() / 1e3;  // reported in ms
            median.cpuS = run.GetAdjustedCPUTime() / 1e3;
            auto child = run.counters.find("child_cpu_ms");
            if (child != run.counters.end()) median.cpuS = child->second / 1e3;
            auto archive = run.counters.find("archive_bytes");
            if (archive != run.counters.end()) median.archiveBytes = archive->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, Median> medians;
};

// The CPU time of the whole process, so that the deflate workers count.
BENCHMARK(BM_ZipFile)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Iterations(1);
BENCHMARK(BM_InfoZip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_RawDeflate)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    // Five repetitions unless the command line says otherwise.
    if (!tarnis_bench::InitializeWithDefaults(argc, argv)) return 1;

    const std::string load = LoadAverage();
    if (!MakeCorpus()) {
        fprintf(stderr, "cannot generate the log tree below %s\n", TheCorpus().dir.c_str());
        RemoveCorpus();
        return 1;
    }
    printf("corpus: %zu files, %.1f MB in %s; %ld CPUs online, load average before %s\n",
           TheCorpus().files.size(), TheCorpus().bytes / 1048576.0, TheCorpus().tree.c_str(),
           sysconf(_SC_NPROCESSORS_ONLN), load.c_str());
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    RemoveCorpus();

    const auto& m = reporter.medians;
    auto have = [&m](const char* name) { return m.count(name) != 0 && m.at(name).wallS > 0; };
    if (!have("BM_ZipFile")) return 0;
    const double mb = TheCorpus().bytes / 1048576.0;
    auto line = [mb](const char* what, const SummaryReporter::Median& median) {
        printf("  %-12s wall %.3f s (%.1f MB/s), cpu %.3f s (%.1f MB/s)", what, median.wallS,
               mb / median.wallS, median.cpuS, mb / median.cpuS);
        if (median.archiveBytes > 0) printf(", archive %.0f bytes", median.archiveBytes);
        printf("\n");
    };
    const auto& zf = m.at("BM_ZipFile");
    printf("\nmedians over %.1f MB:\n", mb);
    line("ZipFile", zf);
    if (have("BM_InfoZip")) {
        const auto& iz = m.at("BM_InfoZip");
        line("zip -r -q", iz);
        printf("time ZipFile / zip: %.2f wall (target <= 0.60), %.2f cpu\n", zf.wallS / iz.wallS,
               zf.cpuS / iz.cpuS);
        printf("archive ZipFile / zip: %.4f (target <= 1.01)\n", zf.archiveBytes / iz.archiveBytes);
    }
    if (have("BM_RawDeflate")) {
        const auto& rd = m.at("BM_RawDeflate");
        line("raw deflate", rd);
        printf("time ZipFile / one-core raw deflate: %.2f wall, %.2f cpu\n", zf.wallS / rd.wallS,
               zf.cpuS / rd.cpuS);
    }
    return 0;
}
