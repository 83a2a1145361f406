// SPDX-License-Identifier: BSD-3-Clause
// Waits with select() and drains what has come: how an application's own loop reads a socket.
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvClock.h>

#include <sys/select.h>

#include <cstdio>

#include "example.h"

namespace {

// How many descriptors are readable (0 or 1) within the time given.
int readable(NwSocket& socket, double seconds) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket.readFd(), &set);
    return NwSelect(socket.readFd() + 1, &set, nullptr, nullptr, seconds);
}

}  // namespace

int main(int argc, char** argv) {
    const int port = portOf(argc, argv);
    const int frames = 3, packetsPerFrame = 4;
    NwNetSocket::initErrorAction = 1;
    NwNetSocket sender(port, loopbackAddr, static_cast<unsigned char>(NwNetSocketWrite), loopbackAddr);
    NwNetSocket receiver(port, NwUSE_DEFAULT_IP_ADDR, static_cast<unsigned char>(NwNetSocketRead),
                         loopbackAddr);
    if (!sender.isOk() || !receiver.isOk()) return 1;
    sender.setBundling(1400);
    receiver.NwBecomeNonBlocking();  // the loop waits in select(), never in a receive

    int received = 0;
    for (int frame = 1; frame <= frames; ++frame) {
        for (int i = 0; i < packetsPerFrame; ++i) {
            std::vector<char> pdu = makePdu(144, 1, 1);
            if (sender.NwSend(pdu.data(), pdu.size(), NwUSE_DEFAULT_IP_ADDR) < 0) return 1;
        }
        if (sender.flush() < 0) return 1;

        if (readable(receiver, 5.0) != 1) {
            std::printf("nothing came: is another program open on this port?\n");
            return 1;
        }
        // Read until neither the socket nor the kernel has more. Packets of a datagram that has been read are
        // in the socket, where select() cannot see them: waiting now, with one of them pending, would leave
        // it lying.
        int drained = 0;
        do {
            char* packet = nullptr;
            int status = 0;
            if (receiver.NwRecv(&packet, &status) > 0) ++drained;
            if (drained == 1)
                std::printf("frame %d: after the first packet select() sees %d, the socket has %s\n", frame,
                            readable(receiver, 0.0), receiver.dataLeftInCurrentBundle() ? "more" : "no more");
        } while (receiver.dataLeftInCurrentBundle() || readable(receiver, 0.0) > 0);
        std::printf("frame %d: %d packets\n", frame, drained);
        received += drained;
    }
    return received == frames * packetsPerFrame ? 0 : 1;
}
