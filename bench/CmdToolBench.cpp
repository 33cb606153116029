// The command runner's cost per command, beside the plain ways of starting a
// trivial child in the same run: run_command_lite of /bin/true (fork, pidfd
// wait, reap) against posix_spawn of "sh -c true", system("true") (which is
// "sh -c true") and posix_spawn of /bin/true itself.
//
//   build/bench/bench_CmdToolBench --benchmark_repetitions=7
//       --benchmark_report_aggregates_only=true

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include <host/Host.h>
#include <log/log.h>

#include "utils/dump/CaptureLogUtil.h"
#include "utils/dump/CmdTool.h"

extern char** environ;

namespace {

void Quiet() { platform::SetStderrLogLevel(ANDROID_LOG_SILENT); }

void SpawnAndWait(benchmark::State& state, char* const argv[]) {
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            return;
        }
        int status;
        waitpid(pid, &status, 0);
    }
}

void BM_RunCommandLite_True(benchmark::State& state) {
    Quiet();
    for (auto _ : state) {
        if (android::CmdTool::run_command_lite("/bin/true", "", 5) != 0) {
            state.SkipWithError("run_command_lite failed");
            return;
        }
    }
}
BENCHMARK(BM_RunCommandLite_True)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The full runner also opens the capture file in the child and appends the
// result line in the parent.
void BM_RunCommand_True(benchmark::State& state) {
    Quiet();
    char dir[] = "/tmp/cmdtool-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    const std::string file = std::string(dir) + "/capture";
    for (auto _ : state) android::CaptureLogUtil::run_command({"/bin/true"}, file.c_str(), 5);
    unlink(file.c_str());
    rmdir(dir);
}
BENCHMARK(BM_RunCommand_True)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_PosixSpawn_ShCTrue(benchmark::State& state) {
    char sh[] = "/bin/sh", c[] = "-c", cmd[] = "true";
    char* argv[] = {sh, c, cmd, nullptr};
    SpawnAndWait(state, argv);
}
BENCHMARK(BM_PosixSpawn_ShCTrue)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_System_True(benchmark::State& state) {
    for (auto _ : state) {
        if (system("true") != 0) {
            state.SkipWithError("system failed");
            return;
        }
    }
}
BENCHMARK(BM_System_True)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_PosixSpawn_True(benchmark::State& state) {
    char program[] = "/bin/true";
    char* argv[] = {program, nullptr};
    SpawnAndWait(state, argv);
}
BENCHMARK(BM_PosixSpawn_True)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
