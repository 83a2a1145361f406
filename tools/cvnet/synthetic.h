// SPDX-License-Identifier: BSD-3-Clause
// Entities that move: Entity State PDUs (DIS 7, IEEE 1278.1) of aircraft flying level circles, each with
// velocity, acceleration and turn rate that let a receiver dead-reckon it.
#ifndef CVNET_SYNTHETIC_H
#define CVNET_SYNTHETIC_H

#include <array>
#include <cstdint>

namespace cvnet {

constexpr std::size_t kEntityStateSize = 144;

class SyntheticEntities {
public:
    static constexpr int kMaxEntities = 65534;  // entity numbers 0 and 65535 have meanings of their own

    /// `count` entities, 1:1:1 to 1:1:count, in one exercise.
    SyntheticEntities(unsigned count, unsigned exercise);

    /// The state of the next entity in turn, `seconds` after the start; `sinceHourSeconds` is the wall
    /// clock's time since the last full hour, for the time stamp. Valid until the next call.
    std::array<char, kEntityStateSize>& next(double seconds, double sinceHourSeconds);

private:
    unsigned count_;
    unsigned exercise_;
    unsigned turn_ = 0;
    std::array<char, kEntityStateSize> pdu_{};
};

/// Seconds since the last full hour of the wall clock.
double secondsSinceHour();

}  // namespace cvnet

#endif
