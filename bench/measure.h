// SPDX-License-Identifier: BSD-3-Clause
// Two ways of doing the same work, compared in interleaved pairs: A B B A, many short rounds.
//
// Each A B B A gives one ratio, in which a drift of the machine's speed cancels out. What is reported is the
// median of these ratios with its quartiles, so that a round which another process disturbed counts for
// little.
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <time.h>

#include <functional>
#include <vector>

struct Cost {
    double wallSeconds = 0;
    double cpuSeconds = 0;  // of the calling thread, user and system
};

double seconds(clockid_t clock);

// What a piece of work costs.
class Stopwatch {
public:
    Stopwatch();
    Cost elapsed() const;

private:
    Cost start;
};

// The same where several threads work: the processor time is that of the whole process.
class AllThreads {
public:
    AllThreads();
    Cost elapsed() const;

private:
    Cost start;
};

struct Spread {
    double lowerQuartile = 0, median = 0, upperQuartile = 0;
};
Spread spreadOf(std::vector<double> values);

struct Comparison {
    Spread rate;  // how many times the bare rate the library reaches (wall clock): more is better
    Spread cpu;   // how many times the bare processor time the library takes: less is better
    double bareCpuSeconds = 0;  // median of one round, the same for the library
    double libraryCpuSeconds = 0;
    double bareWallSeconds = 0;
    double libraryWallSeconds = 0;
};

// One round of either side. It prepares, times its work alone, and checks that all of it was done.
using Round = std::function<Cost()>;

// Runs bare, library, library, bare, `count` times over.
Comparison compareInPairs(const Round& bare, const Round& library, int count);

#endif
