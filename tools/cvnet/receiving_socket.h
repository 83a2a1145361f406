// SPDX-License-Identifier: BSD-3-Clause
// The library's UDP socket with an eye on what an application is not told: datagrams as they come in, and
// those whose bytes are not delivered.
#ifndef CVNET_RECEIVING_SOCKET_H
#define CVNET_RECEIVING_SOCKET_H

#include <cstdint>
#include <ctime>
#include <optional>

#include <cvNetworkCompatibility/cvNetSocket.h>

namespace cvnet {

/// What is known of the datagrams read. An asynchronous socket starts threads while it is constructed, so it
/// is not derived from, and the tool knows of it what any application does: the optional ones stay empty.
struct ReceiveCounts {
    timespec arrival{};       // of the last datagram read; asynchronous: when it was taken from the queue
    unsigned sourcePort = 0;  // of the last datagram read; 0 where it is not known
    std::uint64_t datagrams = 0;
    /// Datagrams, or ends of datagrams, below the smallest packet, and empty ones: discarded by the library.
    std::optional<std::uint64_t> tooShort;
    std::optional<std::uint64_t> empty;
    /// Datagrams whose later PDUs are of another version or exercise: the rest came as one packet.
    std::optional<std::uint64_t> mixed;
};

class ReceivingSocket : public NwNetSocket {
public:
    ReceivingSocket(int toPort, NwIpv4Addr address, unsigned char modeBits, NwIpv4Addr device,
                    ReceiveCounts& counts);

    int recvFromNet(char** buf) override;
    void findNextPacket() override;
    unsigned int currentHeaderMatchesFirstInBundle() override;

private:
    ReceiveCounts& counts_;
};

}  // namespace cvnet

#endif
