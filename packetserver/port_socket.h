// SPDX-License-Identifier: BSD-3-Clause
// The library's UDP socket as the packet server owns it: any datagram is taken, whole and in its packets.
#ifndef PACKETSERVER_PORT_SOCKET_H
#define PACKETSERVER_PORT_SOCKET_H

#include <cstdint>

#include <cvNetworkCompatibility/cvNetSocket.h>

namespace packetserver {

class PortSocket : public NwNetSocket {
public:
    /// Opens `udpPort` for reading on every local address. Groups are joined elsewhere.
    explicit PortSocket(int udpPort);

    struct Packet {
        char* bytes = nullptr;
        unsigned length = 0;
        bool isFirst = false;  // of its datagram; then `datagramLength` bytes lie at `bytes`
        unsigned datagramLength = 0;
    };

    /// The next packet, lent until the next call; one without bytes for an empty datagram, so that whoever
    /// counts his turns counts those. False: nothing more is there now.
    bool next(Packet& packet);

    std::uint64_t datagrams() const { return datagrams_; }

    int recvFromNet(char** buf) override;

private:
    std::uint64_t datagrams_ = 0;
    unsigned freshLength_ = 0;  // of the datagram just read; 0 once its first packet is out
};

}  // namespace packetserver

#endif
