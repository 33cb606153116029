// A whole capture as a user orders it: `tarnisctl capture` with ten cheap
// actions against a running tarnisd in a sandbox (the tool starts, the call
// crosses the binder, the daemon writes the header, runs uptime and the ten
// tools into the text, packs it into a zip, syncs it and removes the text),
// beside a shell script that runs the same ten commands into one file and
// zips it with Info-ZIP's zip, in the same run and the same sandbox.
//
//   build/bench/bench_CaptureBench --benchmark_repetitions=7
//       --benchmark_report_aggregates_only=true

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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

void BM_TarnisctlCapture(benchmark::State& state) {
    const std::string command = CaptureCommand();
    for (auto _ : state) {
        if (Shell(command) != 0) {
            state.SkipWithError("tarnisctl capture failed");
            return;
        }
        state.PauseTiming();
        Shell("rm -f " + gRoot + "/data/dorva/bench/online/*");
        state.ResumeTiming();
    }
}
BENCHMARK(BM_TarnisctlCapture)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

void ShellScriptAndZip(benchmark::State& state, bool withUptime) {
    const std::string command = ScriptCommand(withUptime);
    for (auto _ : state) {
        if (Shell(command) != 0) {
            state.SkipWithError("the script failed");
            return;
        }
        state.PauseTiming();
        Shell("rm -f " + gRoot + "/data/script.zip");
        state.ResumeTiming();
    }
}
void BM_ShellScriptAndZip(benchmark::State& state) { ShellScriptAndZip(state, false); }
BENCHMARK(BM_ShellScriptAndZip)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The script with the one tool every capture runs first (uptime, after the
// header): the same eleven commands as the daemon, to tell the daemon's own
// cost from that of the extra step.
void BM_ShellScriptWithUptimeAndZip(benchmark::State& state) { ShellScriptAndZip(state, true); }
BENCHMARK(BM_ShellScriptWithUptimeAndZip)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

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
