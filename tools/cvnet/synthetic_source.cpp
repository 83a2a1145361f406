// SPDX-License-Identifier: BSD-3-Clause
// The entities move with the real clock, however fast their states are asked for.
#include "synthetic_source.h"

#include "text.h"

namespace cvnet {

SyntheticSource::SyntheticSource(unsigned entities, unsigned exercise)
    : entityCount_(entities), entities_(entities, exercise), start_(Clock::now()) {}

bool SyntheticSource::advance() {
    made_ += 1.0;
    return true;
}

double SyntheticSource::dueSeconds() const {
    return made_ / (kUpdatesPerSecond * entityCount_);
}

Packet SyntheticSource::packet() {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    auto& pdu = entities_.next(seconds, secondsSinceHour());
    return Packet{pdu.data(), pdu.size(), false};
}

std::string SyntheticSource::description() const {
    return entityCount_ == 1 ? "1 synthetic entity" : std::to_string(entityCount_) + " synthetic entities";
}

}  // namespace cvnet
