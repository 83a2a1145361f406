// SPDX-License-Identifier: BSD-3-Clause
// Text on its way to a terminal: nothing that came from outside may steer it.
#ifndef CVNET_TEXT_H
#define CVNET_TEXT_H

#include <ctime>
#include <string>
#include <string_view>

namespace cvnet {

/// The text with control characters and broken UTF-8 written as \xNN; other UTF-8 stays.
std::string printable(std::string_view text);

/// The text on one line: runs of line ends and blanks become one blank, then printable().
std::string oneLine(std::string_view text);

/// The system's words for an errno value.
std::string errorText(int errnoValue);

/// "1 PDU", "2 PDUs".
std::string counted(unsigned long long count, const char* singular);

/// "59 s", "12 min", "5 h", "3 d".
std::string durationText(double seconds);

/// Seconds since 1970 in whole microseconds: a double holds those of this century exactly enough,
/// nanoseconds it does not.
double secondsSince1970(const timespec& time);

/// Wall-clock time of day in this host's zone, "12:34:56.789012".
std::string timeOfDayText(long seconds, long nanoseconds);

}  // namespace cvnet

#endif
