// SPDX-License-Identifier: BSD-3-Clause
// Time in seconds: a clock that never steps back, waiting on descriptors, sleeping.
//
//     NwClock clock;
//     ... work ...
//     NwInfo("took %.3f s\n", clock.elapsedRealTime());
#ifndef CVUTIL_CVCLOCK_H
#define CVUTIL_CVCLOCK_H

#include <sys/select.h>

#include <cvutil/cvExport.h>

// Measures real time, in seconds with fractions, on the system's monotonic clock: setting the date does not
// move it. Copies measure from the same instant. Several threads may read one clock; init() is for one thread
// while no other reads.
class NWUTIL_API NwClock {
public:
    // A clock that measures from now on.
    NwClock();

    // Measures from now on again.
    void init();

    // Seconds since construction or the last init(): 0 or more.
    double elapsedRealTime() const;

    // Seconds since a fixed instant of the past that is the same for every clock of every process on this
    // host until the next boot. For deadlines and differences; it is no date.
    double absRealTime() const;

private:
    double myStartSeconds;
};

// select() with the time limit in seconds. Returns what select() returns: how many descriptors are ready (the
// sets then hold them), 0 when the time is over, -1 with errno set on failure. A signal ends the wait with -1
// and EINTR; this is left to the caller, who alone knows whether to go on. Any of the sets may be null.
//
// `seconds`: 0, negative or not a number looks once and returns at once. What a microsecond cannot express is
// rounded up, so that a short wait is never a busy loop. Limits beyond 2147483647 s (68 years), infinity
// among them, count as that. `nfds` below 0 or above FD_SETSIZE is refused with -1 and EINVAL: a set does not
// reach that far.
NWUTIL_API int NwSelect(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, double seconds);

// Sleeps for the whole time, however many signals arrive. 0, negative, infinite or not a number returns at
// once.
NWUTIL_API void NwSleep(double seconds);

#endif
