// SPDX-License-Identifier: BSD-3-Clause
// The rate that is shown follows the last seconds: the remaining time must tell of now, not of the start.
#include "progress.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include <fmt/format.h>

#include "output.h"

namespace cvnet {
namespace {

constexpr auto kPeriod = std::chrono::milliseconds(200);
constexpr double kMemorySeconds = 2.0;         // of the rate
constexpr std::uint64_t kBarWidth = 12;        // leaves room for a short name in 80 columns
constexpr double kMaxShownSeconds = 360000.0;  // what takes longer has stalled

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

struct Unit {
    const char* name;
    double bytes;
    int digits;  // behind the point
};

Unit unitFor(double bytes) {
    const Unit units[] = {{"bytes", 1.0, 0}, {"kB", 1e3, 1}, {"MB", 1e6, 1}, {"GB", 1e9, 1}};
    const Unit* unit = std::begin(units);
    while (unit + 1 != std::end(units) && bytes >= unit[1].bytes) ++unit;
    return *unit;
}

std::string barText(std::uint64_t done, std::uint64_t total) {
    const std::uint64_t filled = total == 0 ? kBarWidth : done * kBarWidth / total;
    return std::string(filled, '#') + std::string(kBarWidth - filled, '.');
}

}  // namespace

std::string bytesText(double bytes) {
    const Unit unit = unitFor(bytes);
    return fmt::format("{:.{}f} {}", bytes / unit.bytes, unit.digits, unit.name);
}

std::string rateText(std::uint64_t bytes, double seconds) {
    return seconds > 0.0 ? bytesText(static_cast<double>(bytes) / seconds) + "/s" : "at once";
}

std::string clockText(double seconds) {
    if (!(seconds >= 0.0 && seconds < kMaxShownSeconds)) return "?";
    const long whole = std::lround(seconds);
    const long minutes = whole / 60;
    if (minutes < 60) return fmt::format("{}:{:02}", minutes, whole % 60);
    return fmt::format("{}:{:02}:{:02}", minutes / 60, minutes % 60, whole % 60);
}

ProgressBar::ProgressBar(Output& out, bool isWanted)
    : out_(out), isWanted_(isWanted && out.isTerminal()), due_(Clock::now()), measuredAt_(due_) {}

void ProgressBar::begin() {
    measuredAt_ = Clock::now();
    due_ = measuredAt_ + kPeriod;
    measured_ = 0;
    bytesPerSecond_ = 0.0;
}

bool ProgressBar::isDue() const {
    return isWanted_ && Clock::now() >= due_;
}

void ProgressBar::show(const std::string& name, std::uint64_t done, std::uint64_t total) {
    if (!isWanted_) return;
    const Clock::time_point now = Clock::now();
    due_ = now + kPeriod;
    done = std::min(done, total);
    measure(now, done);
    out_.draw(text(name, done, total));
}

void ProgressBar::measure(Clock::time_point now, std::uint64_t done) {
    const double seconds = secondsBetween(measuredAt_, now);
    if (seconds <= 0.0 || done < measured_) return;
    const double latest = static_cast<double>(done - measured_) / seconds;
    const double weight = bytesPerSecond_ > 0.0 ? 1.0 - std::exp(-seconds / kMemorySeconds) : 1.0;
    bytesPerSecond_ += weight * (latest - bytesPerSecond_);
    measuredAt_ = now;
    measured_ = done;
}

// The name comes last, where a narrow terminal cuts.
std::string ProgressBar::text(const std::string& name, std::uint64_t done, std::uint64_t total) const {
    const std::uint64_t percent = total == 0 ? 100 : done * 100 / total;
    const Unit unit = unitFor(static_cast<double>(total));
    return fmt::format("{:>3}% [{}] {:.{}f} of {}, {}/s, {} left  {}", percent, barText(done, total),
                       static_cast<double>(done) / unit.bytes, unit.digits,
                       bytesText(static_cast<double>(total)), bytesText(bytesPerSecond_),
                       clockText(static_cast<double>(total - done) / bytesPerSecond_), name);
}

void ProgressBar::end() {
    if (isWanted_) out_.erase();
}

}  // namespace cvnet
