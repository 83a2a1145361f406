// SPDX-License-Identifier: BSD-3-Clause
// Counts of packets by type, exercise and source: the table of `--summary`, the totals of send and recv.
#ifndef CVNET_TALLY_H
#define CVNET_TALLY_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include <cvutil/cvInetAddr.h>
#include <nlohmann/json.hpp>

#include "pdu.h"

namespace cvnet {

struct Count {
    std::uint64_t pdus = 0;
    std::uint64_t datagrams = 0;  // that held at least one of them
    std::uint64_t bytes = 0;
    std::uint64_t lastDatagram = 0;  // the number of the last one; they start at 1

    void add(std::uint64_t lengthBytes, std::uint64_t datagramNumber);
};

/// What a packet turned out to be. Only whole PDUs are counted under their type.
enum class PacketKind {
    wholePdu,
    undividedRest,  // longer than its own length field, or with a length field that is none
    cutPdu,         // shorter than its own length field
};

PacketKind kindOf(const PduView& packet);

class Tally {
public:
    /// Beyond this many sources, further ones are counted together: a flood of made-up addresses must not
    /// fill the memory.
    static constexpr std::size_t kMaxSources = 1000;

    using Endpoint = std::pair<NwIpv4Addr, unsigned>;

    /// The number for packets of a stream: no datagrams are counted, and tables show none.
    static constexpr std::uint64_t kNoDatagram = 0;

    /// Counts a packet that lay in the datagram of that number (1, 2, ...; never decreasing).
    void add(const PduView& packet, std::uint64_t datagramNumber);
    void add(const PduView& packet, std::uint64_t datagramNumber, const Endpoint& source);

    const Count& total() const { return total_; }
    std::uint64_t wholePdus() const { return total_.pdus - rests_.pdus - cut_.pdus; }
    const Count& rests() const { return rests_; }
    const Count& cut() const { return cut_; }
    /// "45 PDUs", and when there were others "45 PDUs and 5 packets that are no whole PDU".
    std::string packetsText() const;

    std::size_t sourceCount() const { return sources_.size(); }

    /// Lines with a heading; `seconds` turns counts into rates; 0, or less than a millisecond, leaves them
    /// out.
    std::string typeTable(double seconds) const;
    std::string fullTable(double seconds) const;

    nlohmann::ordered_json typesJson() const;
    nlohmann::ordered_json exercisesJson() const;
    nlohmann::ordered_json sourcesJson() const;

private:
    std::string typeRows(double seconds) const;

    std::map<unsigned, Count> types_;
    std::map<unsigned, Count> exercises_;
    std::map<Endpoint, Count> sources_;
    Count otherSources_;
    Count rests_;
    Count cut_;
    Count total_;
};

}  // namespace cvnet

#endif
