// SPDX-License-Identifier: BSD-3-Clause
// Each override counts and leaves the work to the library.
#include "receiving_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace cvnet {

unsigned ReceivingSocket::lastSourcePort() const {
    return ntohs(sourceSockAddr->sin_port);
}

int ReceivingSocket::recvFromNet(char** buf) {
    const int length = NwNetSocket::recvFromNet(buf);
    if (*buf == nullptr || length < 0) return length;  // nothing came
    ::clock_gettime(CLOCK_REALTIME, &arrival_);
    ++datagrams_;
    datagramBytes_ += static_cast<std::uint64_t>(length);
    if (length == 0) {
        ++empty_;
    } else if (length < minPacketSize()) {
        ++tooShort_;
    }
    return length;
}

void ReceivingSocket::findNextPacket() {
    if (bundleCursor != nullptr && bytesLeftInBundle < minPacketSize()) ++tooShort_;
    NwNetSocket::findNextPacket();
}

unsigned int ReceivingSocket::currentHeaderMatchesFirstInBundle() {
    if (firstInBundle == 0 && bundleCursor != nullptr) {
        const auto* header = reinterpret_cast<const unsigned char*>(bundleCursor);
        if (header[0] != bundleProtocol || header[1] != bundleExercise) ++mixed_;
    }
    return NwNetSocket::currentHeaderMatchesFirstInBundle();
}

}  // namespace cvnet
