// SPDX-License-Identifier: BSD-3-Clause
// The library's UDP socket with an eye on what an application is not told: datagrams as they come in, and
// those whose bytes are not delivered.
#ifndef CVNET_RECEIVING_SOCKET_H
#define CVNET_RECEIVING_SOCKET_H

#include <cstdint>
#include <ctime>

#include <cvNetworkCompatibility/cvNetSocket.h>

namespace cvnet {

class ReceivingSocket : public NwNetSocket {
public:
    ReceivingSocket(int toPort, NwIpv4Addr address, unsigned char modeBits, NwIpv4Addr device)
        : NwNetSocket(toPort, address, modeBits, device) {}

    /// Of the last datagram read.
    const timespec& arrival() const { return arrival_; }
    unsigned lastSourcePort() const;

    std::uint64_t datagrams() const { return datagrams_; }
    std::uint64_t datagramBytes() const { return datagramBytes_; }
    /// Datagrams, or ends of datagrams, below the smallest packet: discarded by the library.
    std::uint64_t tooShort() const { return tooShort_; }
    std::uint64_t empty() const { return empty_; }
    /// Datagrams whose later PDUs are of another version or exercise: the rest came as one packet.
    std::uint64_t mixed() const { return mixed_; }

    int recvFromNet(char** buf) override;
    void findNextPacket() override;
    unsigned int currentHeaderMatchesFirstInBundle() override;

private:
    timespec arrival_{};
    std::uint64_t datagrams_ = 0;
    std::uint64_t datagramBytes_ = 0;
    std::uint64_t tooShort_ = 0;
    std::uint64_t empty_ = 0;
    std::uint64_t mixed_ = 0;
};

}  // namespace cvnet

#endif
