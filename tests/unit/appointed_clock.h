// SPDX-License-Identifier: BSD-3-Clause
// A monotonic clock that goes on by appointment: long limits are reached without waiting for them. For one
// source file of a test program; the whole program then reads this clock.
#ifndef CVNC_TESTS_APPOINTED_CLOCK_H
#define CVNC_TESTS_APPOINTED_CLOCK_H

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

std::atomic<long> theSecondsAhead{0};

// Lets so many seconds pass.
void passSeconds(long seconds) {
    theSecondsAhead += seconds;
}

// Whether what waits for `seconds` to pass ends when they do: at the latest the second time, when the wait
// may have begun in between. (The time that passes by itself here is the test's patience.)
bool endsAfter(long seconds, const std::atomic<bool>& isOver) {
    for (int round = 0; round < 2 && !isOver; ++round) {
        passSeconds(seconds);
        for (int i = 0; i < 500 && !isOver; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return isOver;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = ::syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && clock == CLOCK_MONOTONIC) now->tv_sec += theSecondsAhead;
    return static_cast<int>(result);
}

#endif
