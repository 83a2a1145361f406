// SPDX-License-Identifier: BSD-3-Clause
// Ctrl-C and SIGTERM as a descriptor to wait on: the handler sets a flag and writes one byte to a pipe.
#ifndef CVNET_STOP_SIGNAL_H
#define CVNET_STOP_SIGNAL_H

#include <poll.h>

#include <chrono>
#include <optional>
#include <vector>

namespace cvnet {

using Clock = std::chrono::steady_clock;

class StopSignal {
public:
    /// Catches SIGINT, SIGTERM and SIGHUP and ignores SIGPIPE and SIGXFSZ (both come back as errors of the
    /// write). A second signal ends the process the hard way. Call once, before any wait.
    static void install();

    /// Whether one has come.
    static bool raised();

    /// Names a connection (-1: none) that a signal shuts down at once: a call of the library that waits for
    /// its peer ends then. To be taken back before another descriptor gets the number.
    static void shutDownToo(int fd);

    /// Waits until a signal comes, `fd` can be read (-1: no descriptor), the reader of standard output goes
    /// away, or `until` (none: for ever). True when `fd` can be read.
    static bool wait(int fd, std::optional<Clock::time_point> until);

    /// The same for several, each with what to wait for in `events`. What came is in `revents`, all 0 where
    /// something else ended the wait.
    static void wait(std::vector<pollfd>& descriptors, std::optional<Clock::time_point> until);
};

}  // namespace cvnet

#endif
