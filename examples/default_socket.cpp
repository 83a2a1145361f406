// SPDX-License-Identifier: BSD-3-Clause
// The socket that fits the host: a client of the packet server where one runs for the port, a UDP socket of
// its own where none does. One loop serves both.
#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>

#include "example.h"

namespace {

// Waits for at most a second, then takes what has come; counts the packets.
int takeWhatComes(NwSocket& socket) {
    socket.notifyMe();  // asks the server for a word on readFd(); a UDP socket needs none, and does nothing
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket.readFd(), &readable);
    NwSelect(socket.readFd() + 1, &readable, nullptr, nullptr, 1.0);  // a killed server says no word
    int packets = 0, status = 1;
    while (status != 0 && socket.isOk()) {
        char* packet = nullptr;
        if (socket.NwRecv(&packet, &status) > 0) ++packets;  // else refused, or a message of the server
    }
    return packets;
}

}  // namespace

int main(int argc, char** argv) {
    const int port = portOf(argc, argv), sent = 3;
    NwNetSocket::initErrorAction = 1;
    NwSocket* const socket = NwNewDfltSocket(port, loopbackAddr, false);
    if (!socket->isOk()) return 1;
    const bool isClient = dynamic_cast<NwClientSocket*>(socket) != nullptr;
    std::printf("packets of port %d come %s\n", port, isClient ? "from the packet server" : "straight here");
    socket->NwBecomeNonBlocking();

    for (int i = 0; i < sent; ++i) {
        std::vector<char> pdu = makePdu(144, 1, 1);
        if (socket->NwSend(pdu.data(), pdu.size(), loopbackAddr) < 0) return 1;
    }
    int received = 0;
    for (int waits = 0; received < sent && waits < 5 && socket->isOk(); ++waits)
        received += takeWhatComes(*socket);
    std::printf("sent %d packets, received %d\n", sent, received);
    if (socket->isOk()) delete socket;  // a client whose server has gone may not be deleted: it stays
    return received >= sent ? 0 : 1;
}
