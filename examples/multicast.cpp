// SPDX-License-Identifier: BSD-3-Clause
// Sends to groups, joins and leaves them, and knows its own packets, all on the loopback interface.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cstdio>

#include "example.h"

namespace {

const NwIpv4Addr kGroup = 0xEF010203u;       // 239.1.2.3
const NwIpv4Addr kOtherGroup = 0xEF010204u;  // 239.1.2.4

bool send(NwNetSocket& socket, int lengthBytes, NwIpv4Addr group) {
    std::vector<char> pdu = makePdu(lengthBytes, 1, 1);
    return socket.NwSend(pdu.data(), pdu.size(), group) == lengthBytes;
}

// The length of the next packet, 0 when none comes.
int receive(NwNetSocket& socket) {
    char* packet = nullptr;
    int status = 0;
    return waitForPacket(socket) ? socket.NwRecv(&packet, &status) : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int port = portOf(argc, argv);
    NwNetSocket::initErrorAction = 1;
    // A group as the address: the socket sends to it and, since it reads too, joins it. The device at the end
    // is the interface for both; 0 would take the first one that can broadcast, and a host may have none.
    NwNetSocket sender(port, kGroup, static_cast<unsigned char>(NwNetSocketRead | NwNetSocketWrite),
                       loopbackAddr);
    NwNetSocket receiver(port, kGroup, static_cast<unsigned char>(NwNetSocketRead), loopbackAddr);
    if (!sender.isOk() || !receiver.isOk()) return 1;
    if (!sender.setMcastTtl(1)) return 1;  // not beyond the first router

    if (!send(sender, 100, NwUSE_DEFAULT_IP_ADDR)) return 1;
    const int inOwnGroup = receive(receiver);
    std::printf("in the socket's own group: %d bytes arrived\n", inOwnGroup);

    if (!receiver.listenToMulticastGroup(kOtherGroup, loopbackAddr)) return 1;
    if (!send(sender, 120, kOtherGroup)) return 1;
    const int inOtherGroup = receive(receiver);
    std::printf("in the group joined later: %d bytes arrived\n", inOtherGroup);

    if (!receiver.dropMulticastGroup(kOtherGroup, loopbackAddr)) return 1;
    if (!send(sender, 140, kOtherGroup) || !send(sender, 160, kGroup)) return 1;
    const int afterLeaving = receive(receiver);
    std::printf("after leaving it, the next to arrive has %d bytes\n", afterLeaving);

    // The sender hears itself, unless it knows its own packets: those from its interface and this port.
    sender.setFilterPort(port);
    sender.setUnbundling(0);  // only then does the status tell own packets from silence
    char* packet = nullptr;
    int status = 0;
    if (!waitForPacket(sender)) return 1;
    const int length = sender.NwRecv(&packet, &status);
    std::printf("the sender's own packet: length %d, status %d\n", length, status);
    return inOwnGroup == 100 && inOtherGroup == 120 && afterLeaving == 160 && status == -3 ? 0 : 1;
}
