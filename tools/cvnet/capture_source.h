// SPDX-License-Identifier: BSD-3-Clause
// The packets of a capture: each datagram is split into PDUs by their length fields; what does not walk as
// PDUs (a cut PDU, trailing bytes) is one packet that has to go alone.
#ifndef CVNET_CAPTURE_SOURCE_H
#define CVNET_CAPTURE_SOURCE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture_reader.h"
#include "packet_source.h"
#include "pdu.h"

namespace cvnet {

class CaptureSource : public PacketSource {
public:
    /// Plays the file `passes` times, 0 for ever. Throws Failure when it cannot be read.
    CaptureSource(const std::string& path, std::uint64_t passes);

    /// Throws Failure also when the file holds nothing to send at all.
    bool advance() override;
    double dueSeconds() const override { return passStartSeconds_ + offsetSeconds_; }
    Packet packet() override;
    std::string description() const override;
    std::vector<std::string> notes() const override;

private:
    bool takePacket();
    bool nextDatagram();
    bool nextPass();
    void addCounts();

    std::string path_;
    std::uint64_t passesLeft_;
    bool forEver_;
    std::unique_ptr<CaptureReader> reader_;
    std::vector<char> datagram_;
    std::optional<PduWalk> walk_;
    Packet current_;
    std::int64_t firstTime_ = 0;
    std::uint64_t datagramsInPass_ = 0;
    double offsetSeconds_ = 0.0;
    double longestOffset_ = 0.0;
    double passStartSeconds_ = 0.0;
    std::uint64_t emptyDatagrams_ = 0;
    FrameCounts finished_;  // of passes that are over
};

}  // namespace cvnet

#endif
