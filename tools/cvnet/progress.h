// SPDX-License-Identifier: BSD-3-Clause
// How a transfer of files goes: rates in words, and a bar that redraws itself on a terminal.
#ifndef CVNET_PROGRESS_H
#define CVNET_PROGRESS_H

#include <cstdint>
#include <string>

#include "stop_signal.h"

namespace cvnet {

class Output;

/// "812 bytes", "12.3 kB", "268.4 MB", "2.1 GB": thousands, as networks count.
std::string bytesText(double bytes);

/// "860.4 MB/s"; "at once" when no time has passed.
std::string rateText(std::uint64_t bytes, double seconds);

/// "0:07", "12:34", "3:05:59"; "?" for what is not known.
std::string clockText(double seconds);

/// One line about the transfer under way, below everything else. Shown on a terminal only, and not for
/// transfers that are over before it would have been read.
class ProgressBar {
public:
    ProgressBar(Output& out, bool isWanted);

    /// The first bytes of a transfer have gone over.
    void begin();

    /// Whether it is time to show something new; costs a look at the clock.
    bool isDue() const;

    /// Shows that `done` of `total` bytes have gone over. `name` is printed as it is.
    void show(const std::string& name, std::uint64_t done, std::uint64_t total);

    /// Removes it.
    void end();

private:
    void measure(Clock::time_point now, std::uint64_t done);
    std::string text(const std::string& name, std::uint64_t done, std::uint64_t total) const;

    Output& out_;
    const bool isWanted_;
    Clock::time_point due_;
    Clock::time_point measuredAt_;
    std::uint64_t measured_ = 0;
    double bytesPerSecond_ = 0.0;  // of the last seconds; 0: not known
};

}  // namespace cvnet

#endif
