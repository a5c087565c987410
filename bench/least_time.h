// least_time.h: the least time of a benchmark's repetitions: on a machine with other work it is the figure that
// repeats.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

// tellLeastTime has the benchmark print the least time of its repetitions too.
inline void tellLeastTime(benchmark::internal::Benchmark* bench) {
    bench->ComputeStatistics(
        "min", [](const std::vector<double>& times) { return *std::min_element(times.begin(), times.end()); });
}
