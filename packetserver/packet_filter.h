// SPDX-License-Identifier: BSD-3-Clause
// The four filters of a client, as the server applies them to each packet.
#ifndef PACKETSERVER_PACKET_FILTER_H
#define PACKETSERVER_PACKET_FILTER_H

#include <array>
#include <bitset>
#include <cstdint>
#include <unordered_set>

#include <cvutil/cvInetAddr.h>
#include <cvutil/cvPacketServerMsgs.h>

namespace packetserver {

/// One field's test: lets through what is on its list, or what is not. A list is as long as its client
/// wishes, up to a limit that keeps one client from using up the server's memory.
class FieldFilter {
public:
    /// Empties the list.
    void setOperator(bool excludes);
    /// False when the list is full.
    bool add(std::uint32_t value);

    bool passes(std::uint32_t value) const {
        if (count_ == 0) return excludes_;
        const bool isListed = value < bytes_.size() ? bytes_[value] : others_.count(value) != 0;
        return isListed != excludes_;
    }

    NwCsFilterState state() const;

    static constexpr unsigned limit = 65536;

private:
    bool excludes_ = true;
    std::uint32_t count_ = 0;  // values added, doubles included
    std::bitset<256> bytes_;
    std::unordered_set<std::uint32_t> others_;
};

/// Version, exercise, kind and source, in this order, like the filters of a socket.
class PacketFilter {
public:
    /// Does what a filter request says; its fields are in range. False when a list is full.
    bool apply(const NwCsFilterMsg& request);

    /// Whether a packet of `length` bytes passes. Bytes that a short one does not have count as 0.
    bool passes(const char* packet, unsigned length, NwIpv4Addr source) const {
        return passesByte(NwCsFilterProtocolVersion, packet, length, 0) &&
               passesByte(NwCsFilterExerciseId, packet, length, 1) &&
               passesByte(NwCsFilterPduKind, packet, length, 2) &&
               fields_[NwCsFilterSourceAddr].passes(source);
    }

    NwCsFilterState state(int index) const { return fields_[static_cast<std::size_t>(index)].state(); }

private:
    bool passesByte(NwCsFilterIndex field, const char* packet, unsigned length, unsigned at) const {
        return fields_[field].passes(at < length ? static_cast<unsigned char>(packet[at]) : 0U);
    }

    std::array<FieldFilter, NwCsFilterCount> fields_;
};

}  // namespace packetserver

#endif
