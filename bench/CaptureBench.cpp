// A whole capture as a user orders it: `tarnisctl capture` with ten cheap
// actions against a running tarnisd in a sandbox (the tool starts, the call
// crosses the binder, the daemon writes the header, runs uptime and the ten
// tools into the text, packs it into a zip, syncs it and removes the text),
// beside a shell script that runs the same ten commands into one file and
// zips it with Info-ZIP's zip, and the same script starting them all at
// once, in the same run and the same sandbox.
//
// The four are run in turn, round after round (the order rotating), so
// that the host's drift over a run (other work on a shared machine, caches,
// frequency) weighs on each alike; each reports its median over the rounds,
// and the ratios are those of the medians.
//
//   build/bench/bench_CaptureBench --benchmark_repetitions=3

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

struct Action {
    const char* name;
    const char* param;  // comma-separated, as the daemon splits it
};

// Tools every host has, reading small kernel files or the sandbox's
// properties: the cost is in starting them, as with most capture steps.
const std::vector<Action> kActions = {
    {"cat", "/proc/version"}, {"cat", "/proc/uptime"},   {"cat", "/proc/loadavg"},
    {"cat", "/proc/meminfo"}, {"cat", "/proc/cpuinfo"},  {"cat", "/proc/stat"},
    {"getprop", ""},          {"getprop", "ro.product.device"}, {"df", ""},
    {"ps", "-A"},
};

std::string gRoot;
std::string gCtl;
pid_t gDaemon = -1;

int Shell(const std::string& command) { return system(command.c_str()); }

bool StartSandbox() {
    char dir[] = "/tmp/capture-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return false;
    gRoot = dir;
    gCtl = std::string(TARNIS_BUILD_DIR) + "/tarnisctl --root " + gRoot;
    if (Shell("TARNIS_BUILD_DIR=" + std::string(TARNIS_BUILD_DIR) + " " + TARNIS_SOURCE_DIR +
              "/scripts/prepare-sandbox.sh " + gRoot + " >/dev/null") != 0) {
        return false;
    }
    // A booted phone: the boot monitor's captures of a slow boot stay out
    // of the measurement.
    if (Shell(gCtl + " setprop sys.boot_completed 1") != 0) return false;
    gDaemon = fork();
    if (gDaemon == 0) {
        freopen("/dev/null", "w", stdout);
        freopen("/dev/null", "w", stderr);
        setenv("TARNIS_LOG_LEVEL", "E", 1);
        execl((std::string(TARNIS_BUILD_DIR) + "/tarnisd").c_str(), "tarnisd", "--root", gRoot.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 400; ++i) {
        if (Shell(gCtl + " dump >/dev/null 2>&1") == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return false;
}

void StopSandbox() {
    if (gDaemon > 0) {
        kill(gDaemon, SIGTERM);
        waitpid(gDaemon, nullptr, 0);
    }
    if (!gRoot.empty()) Shell("rm -rf " + gRoot);
}

std::string CaptureCommand() {
    std::string command = gCtl + " capture bench run";
    for (const Action& a : kActions) command += std::string(" --action ") + a.name + " --param '" + a.param + "'";
    return command + " >/dev/null";
}

// The same commands by hand, with the sandbox's tools first on PATH as the
// daemon has them, into one file that zip then packs.
std::string ScriptCommand(bool withUptime) {
    std::string script = "cd " + gRoot + "/data && PATH=" + gRoot + "/bin:$PATH; {";
    if (withUptime) script += " uptime;";
    for (const Action& a : kActions) {
        std::string args = a.param;
        for (char& c : args) c = c == ',' ? ' ' : c;
        script += std::string(" ") + a.name + " " + args + ";";
    }
    script += " } > script.txt 2>&1; zip -q script.zip script.txt && rm script.txt";
    return "sh -c '" + script + "'";
}

// The ceiling of any pool on this host: the shell starts all the commands at
// once, each into a file of its own, waits, joins them in order and zips. No
// capture that runs the same tools can beat it by much; its ratio to the
// script is what the cores give, whatever the daemon does.
std::string ParallelScriptCommand() {
    std::string script = "cd " + gRoot + "/data && PATH=" + gRoot + "/bin:$PATH; mkdir -p par;";
    std::string join = " cat";
    for (size_t i = 0; i < kActions.size(); ++i) {
        std::string args = kActions[i].param;
        for (char& c : args) c = c == ',' ? ' ' : c;
        const std::string part = "par/" + std::to_string(i);
        script += std::string(" ") + kActions[i].name + " " + args + " > " + part + " 2>&1 &";
        join += " " + part;
    }
    script += " wait;" + join + " > script.txt; zip -q script.zip script.txt && rm -r script.txt par";
    return "sh -c '" + script + "'";
}

double MillisecondsToRun(const std::string& command, bool* ok) {
    const auto start = std::chrono::steady_clock::now();
    *ok = *ok && Shell(command) == 0;
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// One iteration is one round: the capture, the script, the script with
// uptime (the eleven commands a capture runs: uptime comes after every
// capture's header) and the script's commands all at once, each once.
// Clean-up is outside the timing.
void BM_CaptureAgainstScript(benchmark::State& state) {
    constexpr size_t kCommands = 4;
    const std::string commands[kCommands] = {CaptureCommand(), ScriptCommand(false), ScriptCommand(true),
                                             ParallelScriptCommand()};
    const std::string scriptZip = "rm -f " + gRoot + "/data/script.zip";
    const std::string cleanups[kCommands] = {"rm -f " + gRoot + "/data/dorva/bench/online/*", scriptZip, scriptZip,
                                             scriptZip};
    std::vector<double> times[kCommands];
    size_t round = 0;
    for (auto _ : state) {
        bool ok = true;
        double total = 0;
        for (size_t k = 0; k < kCommands; ++k) {
            const size_t which = (round + k) % kCommands;
            const double ms = MillisecondsToRun(commands[which], &ok);
            times[which].push_back(ms);
            total += ms;
            Shell(cleanups[which]);
        }
        if (!ok) {
            state.SkipWithError("a capture or a script failed");
            return;
        }
        state.SetIterationTime(total / 1000);
        ++round;
    }
    const double capture = Median(times[0]), script = Median(times[1]), withUptime = Median(times[2]),
                 parallel = Median(times[3]);
    state.counters["capture_ms"] = capture;
    state.counters["script_ms"] = script;
    state.counters["script_uptime_ms"] = withUptime;
    state.counters["ratio"] = capture / script;
    state.counters["ratio_uptime"] = capture / withUptime;
    state.counters["parallel_script_ms"] = parallel;
    state.counters["ceiling_ratio"] = parallel / script;
}
BENCHMARK(BM_CaptureAgainstScript)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(100);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (!StartSandbox()) {
        fprintf(stderr, "bench_CaptureBench: could not start tarnisd in a sandbox\n");
        StopSandbox();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    StopSandbox();
    benchmark::Shutdown();
    return 0;
}
