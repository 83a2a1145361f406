// SPDX-License-Identifier: BSD-3-Clause
// Seconds as doubles, on the monotonic clock.
#include <cvutil/cvClock.h>

#include <errno.h>
#include <time.h>

#include <cmath>

namespace {

// 68 years: what a 32-bit count of seconds holds, and nobody waits longer.
const double kLongestWaitSeconds = 2147483647.0;

const long kNanosecondsPerSecond = 1000000000;

double monotonicSeconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail: the clock exists on every system we build for
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// For limits of 0 or more, infinity included. Rounded up, so that a wait shorter than a microsecond is still
// a wait.
timeval timevalOf(double seconds) {
    if (seconds > kLongestWaitSeconds) seconds = kLongestWaitSeconds;
    const double whole = std::floor(seconds);
    timeval result;
    result.tv_sec = static_cast<time_t>(whole);
    result.tv_usec = static_cast<suseconds_t>(std::ceil((seconds - whole) * 1e6));
    if (result.tv_usec >= 1000000) {
        result.tv_sec += 1;
        result.tv_usec -= 1000000;
    }
    return result;
}

}  // namespace

NwClock::NwClock() : myStartSeconds(monotonicSeconds()) {}

void NwClock::init() {
    myStartSeconds = monotonicSeconds();
}

double NwClock::elapsedRealTime() const {
    return monotonicSeconds() - myStartSeconds;
}

double NwClock::absRealTime() const {
    return monotonicSeconds();
}

int NwSelect(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, double seconds) {
    if (nfds < 0 || nfds > FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    timeval limit = timevalOf(seconds > 0 ? seconds : 0);  // not a number compares as false: 0
    return ::select(nfds, readSet, writeSet, exceptSet, &limit);
}

void NwSleep(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) return;
    if (seconds > kLongestWaitSeconds) seconds = kLongestWaitSeconds;
    // A point in time instead of a length: starting again after a signal then adds nothing.
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double whole = std::floor(seconds);
    end.tv_sec += static_cast<time_t>(whole);
    end.tv_nsec += static_cast<long>(std::ceil((seconds - whole) * 1e9));
    if (end.tv_nsec >= kNanosecondsPerSecond) {
        end.tv_sec += 1;
        end.tv_nsec -= kNanosecondsPerSecond;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}
