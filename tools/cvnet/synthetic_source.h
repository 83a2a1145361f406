// SPDX-License-Identifier: BSD-3-Clause
// Synthetic entities as a source of packets: each in turn, at a steady rate, without end.
#ifndef CVNET_SYNTHETIC_SOURCE_H
#define CVNET_SYNTHETIC_SOURCE_H

#include "packet_source.h"
#include "stop_signal.h"
#include "synthetic.h"

namespace cvnet {

class SyntheticSource : public PacketSource {
public:
    /// Updates of each entity per second, unless a rate is asked for: what a moving aircraft needs.
    static constexpr double kUpdatesPerSecond = 5.0;

    SyntheticSource(unsigned entities, unsigned exercise);

    bool advance() override;
    double dueSeconds() const override;
    Packet packet() override;
    std::string description() const override;
    std::vector<std::string> notes() const override { return {}; }

private:
    unsigned entityCount_;
    SyntheticEntities entities_;
    Clock::time_point start_;
    double made_ = -1.0;
};

}  // namespace cvnet

#endif
