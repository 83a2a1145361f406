// SPDX-License-Identifier: BSD-3-Clause
// Where `cvnet send` gets its packets from: a source advances from packet to packet and lends each one.
#ifndef CVNET_PACKET_SOURCE_H
#define CVNET_PACKET_SOURCE_H

#include <cstddef>
#include <string>
#include <vector>

namespace cvnet {

struct Packet {
    char* bytes = nullptr;  // lent until the source advances
    std::size_t lengthBytes = 0;
    bool alone = false;  // no whole PDU: has to be a datagram of its own
};

class PacketSource {
public:
    virtual ~PacketSource() = default;

    /// Goes to the next packet; false when there is none. May throw Failure.
    virtual bool advance() = 0;

    /// When the packet is due by the source's own clock, in seconds after its first one.
    virtual double dueSeconds() const = 0;

    /// The packet. Asked for when it is due, once.
    virtual Packet packet() = 0;

    /// What is being sent, for the first line.
    virtual std::string description() const = 0;

    /// What its user should know in the end, a line each.
    virtual std::vector<std::string> notes() const = 0;
};

}  // namespace cvnet

#endif
