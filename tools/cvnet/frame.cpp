// SPDX-License-Identifier: BSD-3-Clause
// Link layers, IPv4 and UDP.
#include "frame.h"

#include <algorithm>
#include <iterator>
#include <tuple>

#include <pcap/dlt.h>

namespace cvnet {
namespace {

constexpr unsigned kEtherIpv4 = 0x0800;
constexpr unsigned kEtherVlan = 0x8100;
constexpr unsigned kEtherServiceVlan = 0x88A8;
constexpr unsigned kEtherOldServiceVlan = 0x9100;
constexpr std::size_t kEtherTypeOffset = 12;
constexpr std::size_t kVlanTagSize = 4;
constexpr std::size_t kCookedTypeOffset = 14;
constexpr std::size_t kCooked2HeaderSize = 20;
constexpr std::size_t kLoopbackHeaderSize = 4;
constexpr unsigned kFamilyIpv4 = 2;  // AF_INET has this number on every system that writes such captures

constexpr std::size_t kIpv4HeaderSize = 20;
constexpr std::size_t kMaxIpv4Size = 65535;
constexpr unsigned kProtocolUdp = 17;
constexpr unsigned kMoreFragments = 0x2000;
constexpr unsigned kFragmentOffset = 0x1FFF;
constexpr std::size_t kUdpHeaderSize = 8;

unsigned u16At(Bytes bytes, std::size_t offset) {
    return static_cast<unsigned>(bytes.data[offset]) << 8 | bytes.data[offset + 1];
}

NwIpv4Addr u32At(Bytes bytes, std::size_t offset) {
    return u16At(bytes, offset) << 16 | u16At(bytes, offset + 2);
}

bool isVlan(unsigned etherType) {
    return etherType == kEtherVlan || etherType == kEtherServiceVlan || etherType == kEtherOldServiceVlan;
}

// The packet behind an Ethernet type field and any VLAN tags; false when it is no IPv4.
bool behindEtherType(Bytes frame, std::size_t typeOffset, Bytes& packet) {
    while (frame.size >= typeOffset + 2) {
        const unsigned type = u16At(frame, typeOffset);
        packet = frame.from(typeOffset + 2);
        if (type == kEtherIpv4) return true;
        if (!isVlan(type)) return false;
        typeOffset += kVlanTagSize;
    }
    return false;
}

bool behindCooked2(Bytes frame, Bytes& packet) {
    if (frame.size < kCooked2HeaderSize || u16At(frame, 0) != kEtherIpv4) return false;
    packet = frame.from(kCooked2HeaderSize);
    return true;
}

// The family is in the byte order of the machine that wrote it (DLT_NULL) or in network order (DLT_LOOP).
bool behindLoopback(Bytes frame, Bytes& packet) {
    if (frame.size < kLoopbackHeaderSize) return false;
    const NwIpv4Addr family = u32At(frame, 0);
    if (family != kFamilyIpv4 && family != kFamilyIpv4 << 24) return false;
    packet = frame.from(kLoopbackHeaderSize);
    return true;
}

bool ipv4Packet(int linkType, Bytes frame, Bytes& packet) {
    switch (linkType) {
        case DLT_EN10MB:
            return behindEtherType(frame, kEtherTypeOffset, packet);
        case DLT_LINUX_SLL:
            return behindEtherType(frame, kCookedTypeOffset, packet);
        case DLT_LINUX_SLL2:
            return behindCooked2(frame, packet);
        case DLT_NULL:
        case DLT_LOOP:
            return behindLoopback(frame, packet);
        default:
            packet = frame;  // DLT_RAW, DLT_IPV4
            return true;
    }
}

}  // namespace

bool Reassembly::Key::operator<(const Key& other) const {
    return std::tie(source, destination, identification) <
           std::tie(other.source, other.destination, other.identification);
}

bool Reassembly::add(const Key& key, std::size_t offset, bool moreFollow, Bytes piece, Bytes& payload) {
    if (packets_.count(key) == 0) {
        if (packets_.size() == kMaxUnfinished) {
            forget(Key(age_.front()));
            ++givenUp_;
        }
        age_.push_back(key);
    }
    Packet& packet = packets_[key];
    if (!moreFollow) packet.size = offset + piece.size;
    if (!insert(packet, offset, piece)) {
        forget(key);
        ++givenUp_;
        return false;
    }
    if (!assemble(packet)) return false;
    forget(key);
    payload = Bytes{whole_.data(), whole_.size()};
    return true;
}

// False for pieces that overlap: which of them is right cannot be known. An exact repetition is harmless.
bool Reassembly::insert(Packet& packet, std::size_t offset, Bytes piece) {
    const auto after = packet.pieces.lower_bound(offset);
    if (after != packet.pieces.end() && after->first == offset && after->second.size() == piece.size)
        return true;
    if (after != packet.pieces.end() && after->first < offset + piece.size) return false;
    if (after != packet.pieces.begin()) {
        const auto before = std::prev(after);
        if (before->first + before->second.size() > offset) return false;
    }
    packet.pieces.emplace(offset, std::vector<unsigned char>(piece.data, piece.data + piece.size));
    return true;
}

bool Reassembly::assemble(const Packet& packet) {
    std::size_t reached = 0;
    for (const auto& [offset, bytes] : packet.pieces) {
        if (offset != reached) return false;
        reached += bytes.size();
    }
    if (packet.size == 0 || reached != packet.size) return false;
    whole_.clear();
    for (const auto& [offset, bytes] : packet.pieces) whole_.insert(whole_.end(), bytes.begin(), bytes.end());
    return true;
}

void Reassembly::forget(const Key& key) {
    const auto same = [&](const Key& other) { return !(key < other) && !(other < key); };
    age_.erase(std::find_if(age_.begin(), age_.end(), same));
    packets_.erase(key);
}

bool FrameParser::reads(int linkType) {
    switch (linkType) {
        case DLT_EN10MB:
        case DLT_LINUX_SLL:
        case DLT_LINUX_SLL2:
        case DLT_RAW:
        case DLT_IPV4:
        case DLT_NULL:
        case DLT_LOOP:
            return true;
        default:
            return false;
    }
}

bool FrameParser::parse(Bytes frame, UdpDatagram& datagram) {
    Bytes packet;
    if (!ipv4Packet(linkType_, frame, packet) || packet.size == 0 || packet.data[0] >> 4 != 4) {
        ++counts_.other;
        return false;
    }
    return parseIpv4(packet, datagram);
}

bool FrameParser::parseIpv4(Bytes packet, UdpDatagram& datagram) {
    if (packet.size < kIpv4HeaderSize) {
        ++counts_.cut;
        return false;
    }
    if (packet.data[9] != kProtocolUdp) {
        ++counts_.other;
        return false;
    }
    const std::size_t headerSize = std::size_t{packet.data[0] & 0x0FU} * 4;
    // Segmentation offload leaves the total length 0; then the frame itself tells.
    const std::size_t totalSize = u16At(packet, 2) == 0 ? packet.size : u16At(packet, 2);
    if (headerSize < kIpv4HeaderSize || totalSize < headerSize) {
        ++counts_.malformed;
        return false;
    }
    if (totalSize > packet.size) {
        ++counts_.cut;
        return false;
    }
    datagram.sourceHostOrder = u32At(packet, 12);
    datagram.destinationHostOrder = u32At(packet, 16);
    Bytes payload = packet.first(totalSize).from(headerSize);  // Ethernet padding stays behind

    const unsigned fragment = u16At(packet, 6);
    const std::size_t offset = std::size_t{fragment & kFragmentOffset} * 8;
    const bool moreFollow = (fragment & kMoreFragments) != 0;
    if (offset == 0 && !moreFollow) return parseUdp(payload, datagram);

    ++counts_.fragments;
    if (payload.size == 0 || offset + payload.size > kMaxIpv4Size) {
        ++counts_.malformed;
        return false;
    }
    const Reassembly::Key key{datagram.sourceHostOrder, datagram.destinationHostOrder, u16At(packet, 4)};
    Bytes whole;
    if (!reassembly_.add(key, offset, moreFollow, payload, whole)) return false;
    ++counts_.reassembled;
    return parseUdp(whole, datagram);
}

bool FrameParser::parseUdp(Bytes segment, UdpDatagram& datagram) {
    if (segment.size < kUdpHeaderSize) {
        ++counts_.malformed;
        return false;
    }
    const std::size_t size = u16At(segment, 4) == 0 ? segment.size : u16At(segment, 4);
    if (size < kUdpHeaderSize || size > segment.size) {
        ++counts_.malformed;
        return false;
    }
    datagram.sourcePort = u16At(segment, 0);
    datagram.destinationPort = u16At(segment, 2);
    datagram.payload = segment.first(size).from(kUdpHeaderSize);
    ++counts_.datagrams;
    return true;
}

FrameCounts FrameParser::counts() const {
    FrameCounts result = counts_;
    result.incomplete = reassembly_.givenUp() + reassembly_.unfinished();
    return result;
}

}  // namespace cvnet
