// rounds.h: libraries against each other on documents from outside, in turns: each round runs all of them, so that
// whatever else the machine does meets them alike. The medians of the rounds and their ratios are printed.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace rounds {

constexpr int ROUNDS = 15;
constexpr double LEAST_SECONDS = 0.01;  // for each turn, so that the clock's own grain does not count

struct Contestant {
    std::string name;
    std::function<void()> run;
};

// secondsOf returns the processor time of `count` runs.
inline double secondsOf(const Contestant& contestant, int count) {
    timespec start;
    timespec end;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
    for (int i = 0; i < count; ++i)
        contestant.run();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
    return static_cast<double>(end.tv_sec - start.tv_sec) + 1e-9 * static_cast<double>(end.tv_nsec - start.tv_nsec);
}

// runsPerTurn returns how many runs a turn needs to last LEAST_SECONDS.
inline int runsPerTurn(const Contestant& contestant) {
    int count = 1;
    while (secondsOf(contestant, count) < LEAST_SECONDS)
        count *= 2;
    return count;
}

inline double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// medianSeconds returns the median time of one run of each contestant.
inline std::vector<double> medianSeconds(const std::vector<Contestant>& contestants) {
    std::vector<int> counts;
    for (const Contestant& contestant : contestants)
        counts.push_back(runsPerTurn(contestant));
    std::vector<std::vector<double>> times(contestants.size());
    for (int round = 0; round < ROUNDS; ++round)
        for (size_t i = 0; i < contestants.size(); ++i)
            times[i].push_back(secondsOf(contestants[i], counts[i]) / counts[i]);
    std::vector<double> medians;
    for (const std::vector<double>& each : times)
        medians.push_back(median(each));
    return medians;
}

// printRow prints the time of the first contestant for one of `pieces` pieces, and beside it how many times as long
// each of the others takes.
inline void printRow(const std::string& label, const std::vector<Contestant>& contestants, double pieces) {
    const std::vector<double> seconds = medianSeconds(contestants);
    std::printf("%-32s %s %10.3f us", label.c_str(), contestants[0].name.c_str(), seconds[0] / pieces * 1e6);
    for (size_t i = 1; i < contestants.size(); ++i)
        std::printf("   %s %.2f", contestants[i].name.c_str(), seconds[i] / seconds[0]);
    std::printf("\n");
    std::fflush(stdout);
}

}  // namespace rounds
