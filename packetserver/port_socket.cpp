// SPDX-License-Identifier: BSD-3-Clause
#include "port_socket.h"

namespace packetserver {

PortSocket::PortSocket(int udpPort)
    : NwNetSocket(udpPort, NwUSE_DEFAULT_IP_ADDR,
                  static_cast<unsigned char>(NwNetSocketRead | NwNetSocketQuietStart), loopbackAddr) {
    if (!isOk()) return;
    NwBecomeNonBlocking();
    setMinPacketSize(1);  // whatever comes is somebody's
}

bool PortSocket::next(Packet& packet) {
    const std::uint64_t before = datagrams_;
    char* bytes = nullptr;
    const int length = NwRecv(&bytes, nullptr);
    packet = Packet{};
    if (length <= 0) return datagrams_ != before;
    packet.bytes = bytes;
    packet.length = static_cast<unsigned>(length);
    packet.isFirst = freshLength_ != 0;
    packet.datagramLength = freshLength_;
    freshLength_ = 0;
    return true;
}

int PortSocket::recvFromNet(char** buf) {
    const int length = NwNetSocket::recvFromNet(buf);
    if (*buf == nullptr) return length;
    ++datagrams_;
    freshLength_ = length > 0 ? static_cast<unsigned>(length) : 0;
    return length;
}

}  // namespace packetserver
