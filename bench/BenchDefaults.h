#pragma once

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace tarnis_bench {

// Initialises Google Benchmark with five repetitions and aggregates only,
// unless the command line says otherwise (later flags win). False when the
// command line holds an argument the library does not know.
inline bool InitializeWithDefaults(int argc, char** argv) {
    std::vector<char*> args(argv, argv + argc);
    static std::string repetitions = "--benchmark_repetitions=5";
    static std::string onlyAggregates = "--benchmark_report_aggregates_only=true";
    args.insert(args.begin() + 1, &onlyAggregates[0]);
    args.insert(args.begin() + 1, &repetitions[0]);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    return !benchmark::ReportUnrecognizedArguments(count, args.data());
}

}  // namespace tarnis_bench
