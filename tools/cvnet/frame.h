// SPDX-License-Identifier: BSD-3-Clause
// From captured frames to UDP datagrams: link layer, IPv4 with its fragments, UDP. Every length is checked
// against what was captured; whatever is not a whole UDP datagram over IPv4 is counted, never guessed.
//
//   Ethernet      destination 6, source 6, [VLAN tag 4]..., type 2, IPv4
//   Linux cooked  v1: 14 bytes, type 2, IPv4      v2: type 2, 18 bytes, IPv4
//   loopback      address family 4, IPv4          raw: IPv4
#ifndef CVNET_FRAME_H
#define CVNET_FRAME_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <cvutil/cvInetAddr.h>

namespace cvnet {

struct Bytes {
    const unsigned char* data = nullptr;
    std::size_t size = 0;

    Bytes from(std::size_t offset) const { return Bytes{data + offset, size - offset}; }
    Bytes first(std::size_t count) const { return Bytes{data, count}; }
};

/// One UDP datagram. The payload is lent until the next frame.
struct UdpDatagram {
    NwIpv4Addr sourceHostOrder = 0;
    NwIpv4Addr destinationHostOrder = 0;
    unsigned sourcePort = 0;
    unsigned destinationPort = 0;
    Bytes payload;
};

struct FrameCounts {
    std::uint64_t datagrams = 0;
    std::uint64_t other = 0;        // not UDP over IPv4
    std::uint64_t cut = 0;          // the recorder kept only the start of the frame
    std::uint64_t malformed = 0;    // lengths that contradict each other
    std::uint64_t fragments = 0;    // pieces of fragmented UDP datagrams
    std::uint64_t reassembled = 0;  // datagrams put together from them
    std::uint64_t incomplete = 0;   // fragmented datagrams with pieces missing
};

/// Puts fragments of IPv4 packets together. Memory is bounded: the oldest unfinished packet gives way.
class Reassembly {
public:
    struct Key {
        NwIpv4Addr source;
        NwIpv4Addr destination;
        unsigned identification;
        bool operator<(const Key& other) const;
    };

    static constexpr std::size_t kMaxUnfinished = 64;

    /// Takes a piece. True: the packet is whole, and `payload` lends its bytes until the next call.
    bool add(const Key& key, std::size_t offset, bool moreFollow, Bytes piece, Bytes& payload);

    std::size_t unfinished() const { return packets_.size(); }

    /// Packets given up: displaced by newer ones, or with pieces that overlap.
    std::uint64_t givenUp() const { return givenUp_; }

private:
    struct Packet {
        std::map<std::size_t, std::vector<unsigned char>> pieces;  // by offset, never overlapping
        std::size_t size = 0;                                      // 0 until the last piece has come
    };

    bool insert(Packet& packet, std::size_t offset, Bytes piece);
    bool assemble(const Packet& packet);
    void forget(const Key& key);

    std::map<Key, Packet> packets_;
    std::deque<Key> age_;  // oldest first; the keys of packets_
    std::vector<unsigned char> whole_;
    std::uint64_t givenUp_ = 0;
};

class FrameParser {
public:
    /// Whether frames of this libpcap link type (DLT_...) can be read.
    static bool reads(int linkType);

    explicit FrameParser(int linkType) : linkType_(linkType) {}

    /// Takes the next frame, of which `frame` was captured. True: `datagram` is one.
    bool parse(Bytes frame, UdpDatagram& datagram);

    /// Counts so far; unfinished fragments count as incomplete.
    FrameCounts counts() const;

private:
    bool parseIpv4(Bytes packet, UdpDatagram& datagram);
    bool parseUdp(Bytes segment, UdpDatagram& datagram);

    int linkType_;
    FrameCounts counts_;
    Reassembly reassembly_;
};

}  // namespace cvnet

#endif
