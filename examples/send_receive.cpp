// SPDX-License-Identifier: BSD-3-Clause
// Sends one packet to this host and receives it: the least that every program does.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cstdio>

#include "example.h"

int main(int argc, char** argv) {
    const int port = portOf(argc, argv);

    // Without this line a socket that cannot open ends the process.
    NwNetSocket::initErrorAction = 1;

    // One socket that reads and writes: packets for nobody in particular go to the loopback address. The last
    // argument names the local interface, here loopback too, so that no other interface is needed.
    NwNetSocket socket(port, loopbackAddr, static_cast<unsigned char>(NwNetSocketRead | NwNetSocketWrite),
                       loopbackAddr);
    if (!socket.isOk()) return 1;  // what failed has been printed
    // A socket waits in NwRecv until a packet comes; this one shall return at once when there is none.
    socket.NwBecomeNonBlocking();

    char* packet = nullptr;
    int status = 0;
    int length = socket.NwRecv(&packet, &status);
    std::printf("before sending: length %d, status %d\n", length, status);

    std::vector<char> pdu = makePdu(144, 1, 1);
    const int sent = socket.NwSend(pdu.data(), pdu.size(), NwUSE_DEFAULT_IP_ADDR);
    if (sent != 144) return 1;
    std::printf("sent %d bytes to port %d\n", sent, port);

    if (!waitForPacket(socket)) return 1;
    // The packet is lent: it lies in the socket's own buffer until the next receive.
    length = socket.NwRecv(&packet, &status);
    if (length == 0) return 1;
    std::printf("received %d bytes from %s, status %d: version %d, exercise %d, type %d\n", length,
                NwInetAddrString(socket.lastSourceInetAddr()), status, packet[0], packet[1], packet[2]);
    return 0;
}
