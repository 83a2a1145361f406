// SPDX-License-Identifier: BSD-3-Clause
// Clocks, medians and the interleaving.
#include "measure.h"

#include <algorithm>
#include <cmath>

namespace {

// Between two neighbours, as is usual for quantiles of a sample.
double quantile(const std::vector<double>& sorted, double fraction) {
    const double place = fraction * static_cast<double>(sorted.size() - 1);
    const std::size_t below = static_cast<std::size_t>(std::floor(place));
    const std::size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (place - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}

}  // namespace

double seconds(clockid_t clock) {
    timespec now;
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// The clock that costs a system call is read outside of the other's interval.
Stopwatch::Stopwatch() {
    start.cpuSeconds = seconds(CLOCK_THREAD_CPUTIME_ID);
    start.wallSeconds = seconds(CLOCK_MONOTONIC);
}

Cost Stopwatch::elapsed() const {
    Cost spent;
    spent.wallSeconds = seconds(CLOCK_MONOTONIC) - start.wallSeconds;
    spent.cpuSeconds = seconds(CLOCK_THREAD_CPUTIME_ID) - start.cpuSeconds;
    return spent;
}

AllThreads::AllThreads() {
    start.cpuSeconds = seconds(CLOCK_PROCESS_CPUTIME_ID);
    start.wallSeconds = seconds(CLOCK_MONOTONIC);
}

Cost AllThreads::elapsed() const {
    Cost spent;
    spent.wallSeconds = seconds(CLOCK_MONOTONIC) - start.wallSeconds;
    spent.cpuSeconds = seconds(CLOCK_PROCESS_CPUTIME_ID) - start.cpuSeconds;
    return spent;
}

Spread spreadOf(std::vector<double> values) {
    if (values.empty()) return Spread();
    std::sort(values.begin(), values.end());
    return Spread{quantile(values, 0.25), quantile(values, 0.5), quantile(values, 0.75)};
}

Comparison compareInPairs(const Round& bare, const Round& library, int count) {
    std::vector<double> rates, cpus, bareCpu, libraryCpu, bareWall, libraryWall;
    bare();  // both warm: buffers reserved, symbols bound, caches filled
    library();
    for (int i = 0; i < count; ++i) {
        const Cost a1 = bare(), b1 = library(), b2 = library(), a2 = bare();
        bareCpu.push_back((a1.cpuSeconds + a2.cpuSeconds) / 2);
        libraryCpu.push_back((b1.cpuSeconds + b2.cpuSeconds) / 2);
        bareWall.push_back((a1.wallSeconds + a2.wallSeconds) / 2);
        libraryWall.push_back((b1.wallSeconds + b2.wallSeconds) / 2);
        rates.push_back(bareWall.back() / libraryWall.back());
        cpus.push_back(libraryCpu.back() / bareCpu.back());
    }
    Comparison result;
    result.rate = spreadOf(rates);
    result.cpu = spreadOf(cpus);
    result.bareCpuSeconds = spreadOf(bareCpu).median;
    result.libraryCpuSeconds = spreadOf(libraryCpu).median;
    result.bareWallSeconds = spreadOf(bareWall).median;
    result.libraryWallSeconds = spreadOf(libraryWall).median;
    return result;
}
