// The log-storage manager in one run: FileUtil::GetDirectorySize against
// `du -sb` on 100,000 files; one LogManager check that cuts a directory of
// 10,000 dated entries down to 100 against `rm -rf` of the same 9,900
// entries; the time from the creation of an entry in a watched directory
// of 1,000, 10,000 and 100,000 to the end of the check it starts; and
// tarnisd's memory while it watches 1,000 directories beside the same daemon
// with none configured.
//
// The manager runs in this process on a handler thread of its own, with
// the real file-event listener, below a temp root; its log is silenced
// (one benchmark writes it to a file instead). The program prints medians
// and the ratios at the end.
//
//   build-lmb/bench/bench_LogManagerBench [--benchmark_repetitions=N] [google benchmark flags]
//
// LOGMGR_BENCH_CREATIONS_100K=N times N new entries (default 200) at 100,000:
// fewer for a manager that rescans the whole directory on each.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <benchmark/benchmark.h>

#include "bench/BenchDefaults.h"
#include <host/Host.h>
#include <log/log.h>

#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/LogManager/LogManager.h"
#include "platform/LogCapture.h"
#include "utils/FileUtil.h"

using velmar::kolto::FileUtil;
using velmar::kolto::LogManager;
using velmar::kolto::TarnisHandler;
using velmar::kolto::TarnisHandlerThread;

namespace {

constexpr char kBsp[] = "/data/nuvilog/bsp";
constexpr int kSizeDirs = 100;
constexpr int kSizeFilesPerDir = 1000;
constexpr int kCleanEntries = 10000;
constexpr int kCleanKeep = 100;
constexpr int kWatchedEntries = 1000;
constexpr int kCreations = 200;
constexpr int kLatencySizes[] = {1000, 10000, 100000};
constexpr int kDaemonDirs = 1000;

std::string gTmp;   // everything this program writes lives below it
std::string gRoot;  // the in-process manager's root
std::string gSizeTree;

int Shell(const std::string& command) { return system(command.c_str()); }

std::string LoadAverage() {
    std::string load;
    return android::base::ReadFileToString("/proc/loadavg", &load) ? android::base::Trim(load) : "?";
}

bool WriteFile(const std::string& path, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    static const std::string kFill(65536, 'l');
    const bool ok = write(fd, kFill.data(), size) == static_cast<ssize_t>(size);
    close(fd);
    return ok;
}

// "YYYY-MM-DD_hh-mm-ss", `minutes` after the start of `year` (UTC).
std::string DateName(int year, long minutes) {
    struct tm start {};
    start.tm_year = year - 1900;
    start.tm_mday = 1;
    const time_t at = timegm(&start) + minutes * 60;
    struct tm tm {};
    gmtime_r(&at, &tm);
    char name[32];
    strftime(name, sizeof(name), "%Y-%m-%d_%H-%M-%S", &tm);
    return name;
}

// A log entry as the daemons write them: a directory with a file or two.
bool MakeEntry(const std::string& path, int i) {
    if (mkdir(path.c_str(), 0755) != 0) return false;
    if (!WriteFile(path + "/main.log", 200 + static_cast<size_t>(i % 13) * 150)) return false;
    return i % 2 != 0 || WriteFile(path + "/kernel.log", 100 + static_cast<size_t>(i % 7) * 90);
}

// 9,900 entries dated in 2025 and the 100 newest in 2026, so that the
// shell's `2025-*` names exactly what the count limit removes.
bool MakeCleanTree(const std::string& dir) {
    if (mkdir(dir.c_str(), 0777) != 0) return false;
    for (int i = 0; i < kCleanEntries; ++i) {
        const int old = kCleanEntries - kCleanKeep;
        const std::string name = i < old ? DateName(2025, i * 53L) : DateName(2026, (i - old) * 60L);
        if (!MakeEntry(dir + "/" + name, i)) return false;
    }
    return true;
}

// The entries left, and whether they are the 100 of 2026.
bool KeptNewest(const std::string& dir) {
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) return false;
    int count = 0;
    bool newest = true;
    while (struct dirent* entry = readdir(handle)) {
        if (entry->d_name[0] == '.') continue;
        ++count;
        newest = newest && strncmp(entry->d_name, "2026-", 5) == 0;
    }
    closedir(handle);
    return count == kCleanKeep && newest;
}

void RemoveTree(const std::string& path) { FileUtil::DeleteDirectoryOrFile(path, nullptr); }

// ---- GetDirectorySize against du -------------------------------------------

bool MakeSizeTree() {
    if (mkdir(gSizeTree.c_str(), 0755) != 0) return false;
    for (int d = 0; d < kSizeDirs; ++d) {
        char dir[64];
        snprintf(dir, sizeof(dir), "/d%03d", d);
        const std::string base = gSizeTree + dir;
        if (mkdir(base.c_str(), 0755) != 0) return false;
        for (int f = 0; f < kSizeFilesPerDir; ++f) {
            const size_t size = static_cast<size_t>(((d * kSizeFilesPerDir + f) * 7919) % 8192);
            if (!WriteFile(base + "/f" + std::to_string(f) + ".log", size)) return false;
        }
    }
    return true;
}

long DuBytes() {
    FILE* in = popen(("du -sb " + gSizeTree).c_str(), "r");
    if (in == nullptr) return -1;
    long bytes = -1;
    if (fscanf(in, "%ld", &bytes) != 1) bytes = -1;
    pclose(in);
    return bytes;
}

// Made on first use; one untimed walk by each side warms the cache for both.
bool EnsureSizeTree() {
    static const bool made = [] {
        if (!MakeSizeTree()) return false;
        const long ours = FileUtil::GetDirectorySize(gSizeTree);
        const long du = DuBytes();
        printf("size tree: %d files in %d dirs, GetDirectorySize %ld bytes, du -sb %ld bytes\n",
               kSizeDirs * kSizeFilesPerDir, kSizeDirs, ours, du);
        return ours > 0 && ours == du;
    }();
    return made;
}

void BM_GetDirectorySize(benchmark::State& state) {
    if (!EnsureSizeTree()) return state.SkipWithError("cannot build the size tree, or the sizes differ");
    long bytes = 0;
    for (auto _ : state) {
        bytes = FileUtil::GetDirectorySize(gSizeTree);
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    state.counters["matches_du"] = bytes == DuBytes() ? 1 : 0;
}
BENCHMARK(BM_GetDirectorySize)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);

void BM_DuSb(benchmark::State& state) {
    if (!EnsureSizeTree()) return state.SkipWithError("cannot build the size tree, or the sizes differ");
    const std::string command = "du -sb " + gSizeTree + " >/dev/null";
    for (auto _ : state) {
        if (Shell(command) != 0) return state.SkipWithError("du failed");
    }
}
BENCHMARK(BM_DuSb)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);

// ---- the manager in this process -------------------------------------------

std::unique_ptr<LogManager> gManager;
TarnisHandlerThread* gThread = nullptr;
std::unique_ptr<TarnisHandler> gMarker;

std::string Host(const std::string& devicePath) { return platform::DevicePath(devicePath); }

// Returns once the manager's thread has run everything posted before.
void Drain() {
    std::promise<void> done;
    std::future<void> ran = done.get_future();
    // post() puts a task at the head of the queue; a task due now goes
    // after everything already queued.
    gMarker->postDelayed([&done] { done.set_value(); }, 0);
    ran.wait();
}

std::string Record(const std::string& name, int maxLogNumber) {
    return "{\"folderName\":\"" + name + "\",\"maxLogNumber\":" + std::to_string(maxLogNumber) + "}";
}

bool StartManager() {
    gRoot = gTmp + "/root";
    const std::string config = Host("/system_ext/etc/tarnsys/log_config.json");
    if (Shell("mkdir -p '" + gRoot + "/sdcard' '" + Host(kBsp) + "/watch_del' \"$(dirname '" + config + "')\"") != 0) {
        return false;
    }
    for (int i = 0; i < kWatchedEntries; ++i) {
        if (!MakeEntry(Host(kBsp) + "/watch_del/" + DateName(2025, i * 53L), i)) return false;
    }
    // watch<N>: N entries of one small file each, all older than what the
    // benchmark adds; nothing is ever removed. watch_del: each new entry
    // pushes the oldest out.
    std::string records = "[" + Record("clean", kCleanKeep) + "," + Record("watch_del", kWatchedEntries);
    for (int size : kLatencySizes) {
        const std::string dir = Host(kBsp) + "/watch" + std::to_string(size);
        if (mkdir(dir.c_str(), 0777) != 0) return false;
        for (int i = 0; i < size; ++i) {
            const std::string entry = dir + "/" + DateName(2020, i * 5L);
            if (mkdir(entry.c_str(), 0755) != 0 || !WriteFile(entry + "/main.log", 200 + (i % 13) * 150)) return false;
        }
        records += "," + Record("watch" + std::to_string(size), 2 * size + 1000);
    }
    records += "]";
    FILE* out = fopen(config.c_str(), "w");
    if (out == nullptr || fputs(records.c_str(), out) < 0 || fclose(out) != 0) return false;

    gManager = std::make_unique<LogManager>();
    gManager->name = "LogManager";
    gThread = TarnisHandlerThread::create("LogManager");
    gManager->handlerThread = gThread;
    gMarker = std::make_unique<TarnisHandler>(gThread->getLooper(), nullptr);
    // Reads the config, checks each directory and starts the listener.
    gManager->OnAllModulesLoaded();
    Drain();
    return FileUtil::IsDirectory(Host(kBsp) + "/clean");
}

void StopManager() {
    gManager.reset();
    gMarker.reset();
    delete gThread;
    gThread = nullptr;
}

// One check of `clean` holding 10,000 entries, started as a file event
// starts it (the check itself is not public), until the manager's thread is
// done with it, the size-map update after it included.
void CheckAndClean(benchmark::State& state) {
    const std::string dir = Host(kBsp) + "/clean";
    const std::string stage = Host(kBsp) + "/clean.stage";
    const std::string device = std::string(kBsp) + "/clean";
    for (auto _ : state) {
        state.PauseTiming();
        // Built aside and renamed in: entries made in a watched directory
        // would each start a check of their own.
        RemoveTree(stage);
        if (!MakeCleanTree(stage)) return state.SkipWithError("cannot build the tree");
        RemoveTree(dir);
        if (rename(stage.c_str(), dir.c_str()) != 0) return state.SkipWithError("cannot move the tree in");
        state.ResumeTiming();
        gManager->OnFileEvent(IN_CREATE | IN_ISDIR, std::string("2026-01-05_03-00-00"), device);
        Drain();
        state.PauseTiming();
        if (!KeptNewest(dir)) return state.SkipWithError("the check did not keep the 100 newest");
        state.ResumeTiming();
    }
    state.counters["removed"] = kCleanEntries - kCleanKeep;
}

void BM_CheckAndClean(benchmark::State& state) { CheckAndClean(state); }
BENCHMARK(BM_CheckAndClean)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

// The same with every log line of the check written to a file, as a
// daemon whose standard error goes to a file would.
void BM_CheckAndCleanLoggedToFile(benchmark::State& state) {
    const std::string logFile = gTmp + "/check.log";
    fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int fd = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dup2(fd, STDERR_FILENO);
    close(fd);
    platform::SetStderrLogLevel(ANDROID_LOG_VERBOSE);
    CheckAndClean(state);
    if (getenv("TARNIS_LOG_LEVEL") == nullptr) platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    struct stat st {};
    if (stat(logFile.c_str(), &st) == 0) {
        state.counters["log_bytes_per_check"] = static_cast<double>(st.st_size) / state.iterations();
    }
    unlink(logFile.c_str());
}
BENCHMARK(BM_CheckAndCleanLoggedToFile)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Repetitions(1);

void BM_RmRf(benchmark::State& state) {
    const std::string dir = gTmp + "/peer-clean";
    const std::string command = "rm -rf " + dir + "/2025-*";
    for (auto _ : state) {
        state.PauseTiming();
        RemoveTree(dir);
        if (!MakeCleanTree(dir)) return state.SkipWithError("cannot build the tree");
        state.ResumeTiming();
        if (Shell(command) != 0) return state.SkipWithError("rm failed");
        state.PauseTiming();
        if (!KeptNewest(dir)) return state.SkipWithError("rm did not keep the 100 newest");
        state.ResumeTiming();
    }
    RemoveTree(dir);
}
BENCHMARK(BM_RmRf)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

double Percentile(std::vector<double> samples, double q) {
    std::sort(samples.begin(), samples.end());
    return samples[std::min(samples.size() - 1, static_cast<size_t>(q * (samples.size() - 1) + 0.5))];
}

// From the creation of a new entry in a watched directory to the log line
// the manager's thread writes once the check for it has run (the line
// reaches the capture with standard error silenced too). The entry exists,
// and its event is queued, once mkdir() returns: that is where the clock
// starts. How long mkdir() itself took is kept aside: on a file system busy
// with deletions it says more about the disk than the daemon. One entry is
// made and checked first, untimed (its time is `first_ms`): whatever the
// first check after a start or a new watch does is not the steady state.
void NewEntryLatency(benchmark::State& state, const std::string& dirName) {
    static long next = 0;
    const std::string dir = Host(kBsp) + "/" + dirName;
    const std::string line = "[operator()] CheckAndClean " + std::string(kBsp) + "/" + dirName;
    platform::LogCapture capture;
    std::vector<double> afterCreation, withMkdir, mkdirs;
    std::vector<std::string> made;
    using Clock = std::chrono::steady_clock;
    const auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
    // Start, created, checked; false (the error set) when it failed.
    const auto createAndWait = [&](Clock::time_point* times) {
        capture.Clear();
        made.push_back(dir + "/" + DateName(2026, next++));
        times[0] = Clock::now();
        if (mkdir(made.back().c_str(), 0755) != 0) return state.SkipWithError("mkdir failed"), false;
        times[1] = Clock::now();
        while (!capture.HasLine(line, "Tarnis-LogManager")) {
            if (Clock::now() > times[1] + std::chrono::seconds(60)) {
                state.SkipWithError("no check within a minute");
                return false;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        times[2] = Clock::now();
        // The size-map update after the check, before the next entry: an
        // entry made while it runs would wait for it.
        Drain();
        return true;
    };
    Clock::time_point t[3];
    if (!createAndWait(t)) return;
    const double first = ms(t[2] - t[1]);
    for (auto _ : state) {
        if (!createAndWait(t)) return;
        state.SetIterationTime(ms(t[2] - t[1]) / 1e3);
        afterCreation.push_back(ms(t[2] - t[1]));
        withMkdir.push_back(ms(t[2] - t[0]));
        mkdirs.push_back(ms(t[1] - t[0]));
    }
    state.counters["first_ms"] = first;
    state.counters["p50_ms"] = Percentile(afterCreation, 0.50);
    state.counters["p99_ms"] = Percentile(afterCreation, 0.99);
    state.counters["max_ms"] = Percentile(afterCreation, 1.0);
    state.counters["mkdir_p50_ms"] = Percentile(mkdirs, 0.50);
    state.counters["incl_mkdir_p50_ms"] = Percentile(withMkdir, 0.50);
    state.counters["incl_mkdir_p99_ms"] = Percentile(withMkdir, 0.99);
    // Back to the entries of the start for the next repetition.
    for (const std::string& entry : made) RemoveTree(entry);
    if (dirName == "watch_del") {
        for (int i = 0; i < kWatchedEntries; ++i) {
            const std::string old = dir + "/" + DateName(2025, i * 53L);
            struct stat st {};
            if (lstat(old.c_str(), &st) != 0) MakeEntry(old, i);
        }
    }
    // What those removals and creations start, before anything else is timed.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    Drain();
}

// ---- the daemon's memory ---------------------------------------------------

struct Sandbox {
    std::string root;
    std::string ctl;
};

bool PrepareSandbox(Sandbox* box, const std::string& name, bool withConfig) {
    box->root = gTmp + "/" + name;
    box->ctl = std::string(TARNIS_BUILD_DIR) + "/tarnisctl --root " + box->root;
    if (Shell("TARNIS_BUILD_DIR=" + std::string(TARNIS_BUILD_DIR) + " " + TARNIS_SOURCE_DIR +
              "/scripts/prepare-sandbox.sh " + box->root + " >/dev/null") != 0) {
        return false;
    }
    const std::string bsp = box->root + kBsp;
    if (Shell("mkdir -p " + bsp) != 0) return false;
    if (!withConfig) return true;
    std::string records = "[";
    for (int i = 0; i < kDaemonDirs; ++i) {
        char dir[32];
        snprintf(dir, sizeof(dir), "dir%04d", i);
        if (mkdir((bsp + "/" + dir).c_str(), 0777) != 0) return false;
        records += std::string(i == 0 ? "" : ",") + Record(dir, 100);
    }
    records += "]";
    FILE* out = fopen((box->root + "/system_ext/etc/tarnsys/log_config.json").c_str(), "w");
    return out != nullptr && fputs(records.c_str(), out) >= 0 && fclose(out) == 0;
}

int DumpedDirs(const Sandbox& box) {
    FILE* in = popen((box.ctl + " dump LogManager 2>/dev/null").c_str(), "r");
    if (in == nullptr) return -1;
    int count = 0;
    char line[512];
    while (fgets(line, sizeof(line), in) != nullptr) {
        if (strncmp(line, kBsp, strlen(kBsp)) == 0) ++count;
    }
    return pclose(in) == 0 ? count : -1;
}

std::map<std::string, double> StatusKb(pid_t pid) {
    std::map<std::string, double> out;
    FILE* in = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    if (in == nullptr) return out;
    char line[256];
    while (fgets(line, sizeof(line), in) != nullptr) {
        char key[64];
        double value = 0;
        if (sscanf(line, "%63[^:]: %lf kB", key, &value) == 2) out[key] = value;
    }
    fclose(in);
    return out;
}

// Time from exec to serving (with the config: to the dump listing every
// directory); memory read half a second later, once the start has settled.
void DaemonMemory(benchmark::State& state, bool withConfig) {
    Sandbox box;
    if (!PrepareSandbox(&box, withConfig ? "daemon-config" : "daemon-bare", withConfig)) {
        state.SkipWithError("cannot prepare the sandbox");
        return;
    }
    std::map<std::string, double> status;
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid == 0) {
            freopen("/dev/null", "w", stdout);
            freopen("/dev/null", "w", stderr);
            setenv("TARNIS_LOG_LEVEL", "E", 1);
            execl((std::string(TARNIS_BUILD_DIR) + "/tarnisd").c_str(), "tarnisd", "--root", box.root.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        bool ready = false;
        for (int i = 0; i < 2000 && !ready; ++i) {
            ready = withConfig ? DumpedDirs(box) == kDaemonDirs : Shell(box.ctl + " dump >/dev/null 2>&1") == 0;
            if (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        state.PauseTiming();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        status = StatusKb(pid);
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        state.ResumeTiming();
        if (!ready) return state.SkipWithError("the daemon did not serve");
    }
    state.counters["VmRSS_kB"] = status["VmRSS"];
    state.counters["VmHWM_kB"] = status["VmHWM"];
    state.counters["threads"] = status.count("Threads") ? status["Threads"] : 0;
    Shell("rm -rf " + box.root);
}

void BM_DaemonNoConfig(benchmark::State& state) { DaemonMemory(state, false); }
BENCHMARK(BM_DaemonNoConfig)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_DaemonWatching1000Dirs(benchmark::State& state) { DaemonMemory(state, true); }
BENCHMARK(BM_DaemonWatching1000Dirs)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

// Collects the median of each benchmark's repetitions (or its one run) for
// the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration && !run.error_occurred;
            const std::string& name = run.run_name.function_name;
            if (!median && !(single && medians.count(name) == 0)) continue;
            auto& values = medians[name];
            values["ms"] = run.GetAdjustedRealTime();
            for (const auto& [key, counter] : run.counters) values[key] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double Get(const std::string& name, const std::string& key) const {
        auto found = medians.find(name);
        if (found == medians.end()) return 0;
        auto value = found->second.find(key);
        return value == found->second.end() ? 0 : value->second;
    }
    std::map<std::string, std::map<std::string, double>> medians;
};

}  // namespace

int main(int argc, char** argv) {
    // Five repetitions unless the command line says otherwise (each builds
    // its trees anew: minutes on a slow disk).
    if (!tarnis_bench::InitializeWithDefaults(argc, argv)) return 1;

    // Silent unless a level is asked for: lines on a terminal would be what is timed.
    if (getenv("TARNIS_LOG_LEVEL") == nullptr) platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
    char dir[] = "/tmp/logmgr-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    gTmp = dir;
    const std::string load = LoadAverage();
    gSizeTree = gTmp + "/size-tree";
    platform::SetRoot(gTmp + "/root");
    const bool ok = StartManager();
    if (!ok) {
        fprintf(stderr, "bench_LogManagerBench: cannot set up below %s\n", gTmp.c_str());
        StopManager();
        Shell("rm -rf " + gTmp);
        return 1;
    }
    printf("%ld CPUs online, load average before %s; temp dir %s\n", sysconf(_SC_NPROCESSORS_ONLN), load.c_str(),
           gTmp.c_str());
    // Registered here, after the ones above: the count at 100,000 may come from the environment.
    const char* fewer = getenv("LOGMGR_BENCH_CREATIONS_100K");
    for (int size : {1000, 10000, 100000, 0}) {
        const std::string dir = size == 0 ? "watch_del" : "watch" + std::to_string(size);
        const std::string name =
            size == 0 ? "BM_NewEntryCheckLatencyOneRemoved" : "BM_NewEntryCheckLatency/" + std::to_string(size);
        benchmark::RegisterBenchmark(name.c_str(), [dir](benchmark::State& state) { NewEntryLatency(state, dir); })
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(size == 100000 && fewer != nullptr && atoi(fewer) > 0 ? atoi(fewer) : kCreations);
    }
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    StopManager();
    Shell("rm -rf " + gTmp);

    const auto& r = reporter;
    const auto ratio = [&r](const char* a, const char* b) {
        const double below = r.Get(b, "ms");
        return below > 0 ? r.Get(a, "ms") / below : 0.0;
    };
    printf("\nmedians (load average after %s):\n", LoadAverage().c_str());
    printf("  GetDirectorySize %.2f ms, du -sb %.2f ms: ratio %.2f (target <= 1.00)\n",
           r.Get("BM_GetDirectorySize", "ms"), r.Get("BM_DuSb", "ms"), ratio("BM_GetDirectorySize", "BM_DuSb"));
    printf("  CheckAndClean 10,000 -> 100 %.1f ms (logged to a file %.1f ms), rm -rf %.1f ms: ratio %.2f "
           "(target <= 1.20), logged %.2f\n",
           r.Get("BM_CheckAndClean", "ms"), r.Get("BM_CheckAndCleanLoggedToFile", "ms"), r.Get("BM_RmRf", "ms"),
           ratio("BM_CheckAndClean", "BM_RmRf"), ratio("BM_CheckAndCleanLoggedToFile", "BM_RmRf"));
    for (const char* name : {"BM_NewEntryCheckLatency/1000", "BM_NewEntryCheckLatency/10000",
                             "BM_NewEntryCheckLatency/100000", "BM_NewEntryCheckLatencyOneRemoved"}) {
        printf("  %s: created to checked p50 %.2f ms, p99 %.2f ms (targets 1 / 5 ms), first %.2f ms; mkdir p50 "
               "%.2f ms; mkdir call to checked p50 %.2f ms, p99 %.2f ms\n",
               name, r.Get(name, "p50_ms"), r.Get(name, "p99_ms"), r.Get(name, "first_ms"),
               r.Get(name, "mkdir_p50_ms"), r.Get(name, "incl_mkdir_p50_ms"), r.Get(name, "incl_mkdir_p99_ms"));
    }
    const double bare = r.Get("BM_DaemonNoConfig", "VmRSS_kB");
    const double watching = r.Get("BM_DaemonWatching1000Dirs", "VmRSS_kB");
    printf("  tarnisd VmRSS %.0f kB bare, %.0f kB watching %d dirs (%.2f kB per dir); VmHWM %.0f / %.0f kB\n",
           bare, watching, kDaemonDirs, (watching - bare) / kDaemonDirs, r.Get("BM_DaemonNoConfig", "VmHWM_kB"),
           r.Get("BM_DaemonWatching1000Dirs", "VmHWM_kB"));
    benchmark::Shutdown();
    return 0;
}
