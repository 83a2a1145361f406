// SPDX-License-Identifier: BSD-3-Clause
// Each override counts and leaves the work to the library.
#include "receiving_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace cvnet {

ReceivingSocket::ReceivingSocket(int toPort, NwIpv4Addr address, unsigned char modeBits, NwIpv4Addr device,
                                 ReceiveCounts& counts)
    : NwNetSocket(toPort, address, modeBits, device), counts_(counts) {
    counts_.tooShort = counts_.empty = counts_.mixed = 0;
}

int ReceivingSocket::recvFromNet(char** buf) {
    const int length = NwNetSocket::recvFromNet(buf);
    if (*buf == nullptr || length < 0) return length;  // nothing came
    ::clock_gettime(CLOCK_REALTIME, &counts_.arrival);
    counts_.sourcePort = ntohs(sourceSockAddr->sin_port);
    ++counts_.datagrams;
    if (length == 0) {
        ++*counts_.empty;
    } else if (length < minPacketSize()) {
        ++*counts_.tooShort;
    }
    return length;
}

void ReceivingSocket::findNextPacket() {
    if (bundleCursor != nullptr && bytesLeftInBundle < minPacketSize()) ++*counts_.tooShort;
    NwNetSocket::findNextPacket();
}

unsigned int ReceivingSocket::currentHeaderMatchesFirstInBundle() {
    if (firstInBundle == 0 && bundleCursor != nullptr) {
        const auto* header = reinterpret_cast<const unsigned char*>(bundleCursor);
        if (header[0] != bundleProtocol || header[1] != bundleExercise) ++*counts_.mixed;
    }
    return NwNetSocket::currentHeaderMatchesFirstInBundle();
}

}  // namespace cvnet
