// SPDX-License-Identifier: BSD-3-Clause
// Escaping of foreign text, and a few phrases that several sub-commands use.
#include "text.h"

#include <cctype>
#include <system_error>

#include <fmt/format.h>

namespace cvnet {
namespace {

bool isContinuation(unsigned char c) {
    return (c & 0xC0U) == 0x80U;
}

// The length of the well-formed UTF-8 sequence at the start of text, 0 when there is none that may be
// shown: C1 controls (U+0080 to U+009F) steer terminals just as ESC does.
std::size_t shownSequence(std::string_view text) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = at(0);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7F ? 1 : 0;
    const std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    if (lead > 0xF4 || length == 0 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(at(i))) return 0;
    }
    if (lead == 0xC2 && at(1) < 0xA0) return 0;
    return length;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::size_t length = shownSequence(text);
        if (length == 0) {
            shown += fmt::format("\\x{:02X}", static_cast<unsigned char>(text[0]));
            text.remove_prefix(1);
        } else {
            shown += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return shown;
}

std::string oneLine(std::string_view text) {
    std::string line;
    bool blankPending = false;
    for (unsigned char c : text) {
        if (std::isspace(c)) {
            blankPending = !line.empty();
            continue;
        }
        if (blankPending) line += ' ';
        blankPending = false;
        line += static_cast<char>(c);
    }
    return printable(line);
}

std::string errorText(int errnoValue) {
    return std::generic_category().message(errnoValue);
}

std::string counted(unsigned long long count, const char* singular) {
    return fmt::format("{} {}{}", count, singular, count == 1 ? "" : "s");
}

std::string durationText(double seconds) {
    constexpr double minute = 60.0;
    constexpr double hour = 60.0 * minute;
    constexpr double day = 24.0 * hour;
    if (seconds < minute) return fmt::format("{} s", static_cast<long>(seconds));
    if (seconds < hour) return fmt::format("{} min", static_cast<long>(seconds / minute));
    if (seconds < day) return fmt::format("{} h", static_cast<long>(seconds / hour));
    return fmt::format("{} d", static_cast<long>(seconds / day));
}

double secondsSince1970(const timespec& time) {
    const long microseconds = time.tv_nsec / 1000;
    return static_cast<double>(time.tv_sec) + static_cast<double>(microseconds) * 1e-6;
}

std::string timeOfDayText(long seconds, long nanoseconds) {
    const std::time_t when = seconds;
    std::tm parts{};
    localtime_r(&when, &parts);
    return fmt::format("{:02}:{:02}:{:02}.{:06}", parts.tm_hour, parts.tm_min, parts.tm_sec,
                       nanoseconds / 1000);
}

}  // namespace cvnet
