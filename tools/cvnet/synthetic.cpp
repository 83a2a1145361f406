// SPDX-License-Identifier: BSD-3-Clause
// The Entity State PDU field by field. Positions are earth-centred, earth-fixed (metres); the centre of
// all circles is a place over the sea, 45 degrees north and 30 degrees west.
//
//    0  header                          48  location, 3 x 64-bit float
//   12  entity identifier, force, n     72  orientation psi, theta, phi
//   20  entity type, alternative type   84  appearance
//   36  velocity, 3 x 32-bit float      88  dead reckoning: algorithm, 15 bytes, acceleration, turn rate
//                                      128  marking, 12 bytes; capabilities, 4 bytes
#include "synthetic.h"

#include <cmath>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

namespace cvnet {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kEarthEquator = 6378137.0;          // WGS 84, metres
constexpr double kEarthSquashed = 6.69437999014e-3;  // WGS 84, first eccentricity squared
constexpr double kLatitude = 45.0 * kPi / 180.0;
constexpr double kLongitude = -30.0 * kPi / 180.0;
constexpr double kAltitude = 3000.0;
constexpr double kSpeed = 120.0;            // metres per second, of each aircraft
constexpr double kSmallestRadius = 2000.0;  // metres; each entity's circle is a little larger than the last's
constexpr double kRadiusStep = 50.0;
constexpr double kGoldenAngle = 2.39996322972865332;  // spreads the starting points of neighbours

constexpr unsigned kVersion7 = 7;
constexpr unsigned kEntityState = 1;
constexpr unsigned kEntityFamily = 1;
constexpr unsigned kFriendly = 1;
constexpr unsigned kPlatform = 1;
constexpr unsigned kAir = 2;
constexpr unsigned kDeadReckoningRvw = 4;  // rotating, linear velocity and acceleration, world axes
constexpr unsigned kAscii = 1;

struct Vector {
    double x, y, z;
};

Vector operator*(double factor, const Vector& v) {
    return {factor * v.x, factor * v.y, factor * v.z};
}
Vector operator+(const Vector& a, const Vector& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
Vector cross(const Vector& a, const Vector& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

const Vector kEast{-std::sin(kLongitude), std::cos(kLongitude), 0.0};
const Vector kNorth{-std::sin(kLatitude) * std::cos(kLongitude), -std::sin(kLatitude) * std::sin(kLongitude),
                    std::cos(kLatitude)};
const Vector kUp{std::cos(kLatitude) * std::cos(kLongitude), std::cos(kLatitude) * std::sin(kLongitude),
                 std::sin(kLatitude)};

Vector centre() {
    const double sine = std::sin(kLatitude);
    const double toAxis = kEarthEquator / std::sqrt(1.0 - kEarthSquashed * sine * sine);
    return {(toAxis + kAltitude) * std::cos(kLatitude) * std::cos(kLongitude),
            (toAxis + kAltitude) * std::cos(kLatitude) * std::sin(kLongitude),
            (toAxis * (1.0 - kEarthSquashed) + kAltitude) * sine};
}

struct State {
    Vector location, velocity, acceleration;
    double psi, theta, phi;  // heading, pitch and roll against the earth-fixed axes
    double turnRate;         // radians per second, counter-clockwise from above
};

State stateOf(unsigned index, double seconds) {
    const double radius = kSmallestRadius + kRadiusStep * index;
    const double rate = kSpeed / radius;
    const double angle = std::fmod(index * kGoldenAngle + rate * seconds, 2.0 * kPi);
    const Vector outward = std::cos(angle) * kEast + std::sin(angle) * kNorth;
    const Vector forward = -std::sin(angle) * kEast + std::cos(angle) * kNorth;
    const Vector down = -1.0 * kUp;
    const Vector right = cross(down, forward);

    State state;
    state.location = centre() + radius * outward;
    state.velocity = kSpeed * forward;
    state.acceleration = -kSpeed * rate * outward;
    state.psi = std::atan2(forward.y, forward.x);
    state.theta = -std::asin(forward.z);
    state.phi = std::atan2(right.z, down.z);
    state.turnRate = rate;
    return state;
}

// Writes fields in network byte order, one after the other.
class FieldWriter {
public:
    explicit FieldWriter(char* at) : at_(at) {}

    void u8(unsigned value) { put(value, 1); }
    void u16(unsigned value) { put(value, 2); }
    void u32(std::uint32_t value) { put(value, 4); }
    void zeros(std::size_t count) {
        std::memset(at_, 0, count);
        at_ += count;
    }
    void f32(double value) {
        const float narrow = static_cast<float>(value);
        std::uint32_t bits;
        static_assert(sizeof bits == sizeof narrow, "IEEE 754 single precision");
        std::memcpy(&bits, &narrow, sizeof bits);
        put(bits, 4);
    }
    void f64(double value) {
        std::uint64_t bits;
        static_assert(sizeof bits == sizeof value, "IEEE 754 double precision");
        std::memcpy(&bits, &value, sizeof bits);
        put(bits, 8);
    }
    void vector32(const Vector& v) {
        f32(v.x);
        f32(v.y);
        f32(v.z);
    }
    void vector64(const Vector& v) {
        f64(v.x);
        f64(v.y);
        f64(v.z);
    }
    const char* at() const { return at_; }

private:
    void put(std::uint64_t value, int bytes) {
        for (int i = bytes - 1; i >= 0; --i) *at_++ = static_cast<char>(value >> (8 * i));
    }

    char* at_;
};

// Units of an hour divided by 2^31; the lowest bit says that the clock is absolute.
std::uint32_t timestampOf(double sinceHourSeconds) {
    return static_cast<std::uint32_t>(sinceHourSeconds / 3600.0 * 2147483648.0) << 1 | 1U;
}

void putMarking(FieldWriter& fields, unsigned number) {
    constexpr std::size_t textSize = 11;
    const std::string text = fmt::format("CV{:05}", number);
    fields.u8(kAscii);
    for (char c : text) fields.u8(static_cast<unsigned char>(c));
    fields.zeros(textSize - text.size());
}

}  // namespace

SyntheticEntities::SyntheticEntities(unsigned count, unsigned exercise)
    : count_(count), exercise_(exercise) {}

std::array<char, kEntityStateSize>& SyntheticEntities::next(double seconds, double sinceHourSeconds) {
    const unsigned index = turn_;
    turn_ = (turn_ + 1) % count_;
    const State state = stateOf(index, seconds);

    FieldWriter fields(pdu_.data());
    fields.u8(kVersion7);
    fields.u8(exercise_);
    fields.u8(kEntityState);
    fields.u8(kEntityFamily);
    fields.u32(timestampOf(sinceHourSeconds));
    fields.u16(kEntityStateSize);
    fields.zeros(2);  // status, padding
    fields.u16(1);    // site
    fields.u16(1);    // application
    fields.u16(index + 1);
    fields.u8(kFriendly);
    fields.u8(0);  // no variable parameters
    fields.u8(kPlatform);
    fields.u8(kAir);
    fields.zeros(6);  // country, category, subcategory, specific, extra
    fields.zeros(8);  // no alternative type
    fields.vector32(state.velocity);
    fields.vector64(state.location);
    fields.vector32(Vector{state.psi, state.theta, state.phi});
    fields.u32(0);  // appearance
    fields.u8(kDeadReckoningRvw);
    fields.zeros(15);
    fields.vector32(state.acceleration);
    // Body axes: x forward, y right, z down, so that a turn to the left is negative.
    fields.vector32(Vector{0.0, 0.0, -state.turnRate});
    putMarking(fields, index + 1);
    fields.u32(0);  // capabilities
    return pdu_;
}

double secondsSinceHour() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec % 3600) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace cvnet
