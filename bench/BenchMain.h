// Common start of the benchmark programs: short runs by default (a
// --benchmark_min_time given on the command line still wins) and the usual
// Google Benchmark argument handling.
#pragma once

#include <benchmark/benchmark.h>
#include <vector>

// Initialises Google Benchmark; false when the command line had arguments it
// does not know (they have been reported).
inline bool initBenchmarks(int argc, char** argv)
{
    std::vector<char*> args(argv, argv + argc);
    static char minTime[] = "--benchmark_min_time=0.1";
    args.insert(args.begin() + 1, minTime);
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    return !benchmark::ReportUnrecognizedArguments(count, args.data());
}
