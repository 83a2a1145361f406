// SPDX-License-Identifier: BSD-3-Clause
// Puts small packets together into few datagrams, and gets them back one by one.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cstdio>

#include "example.h"

int main(int argc, char** argv) {
    const int port = portOf(argc, argv);
    const int packets = 20;
    NwNetSocket::initErrorAction = 1;
    NwNetSocket sender(port, loopbackAddr, static_cast<unsigned char>(NwNetSocketWrite), loopbackAddr);
    NwNetSocket receiver(port, NwUSE_DEFAULT_IP_ADDR, static_cast<unsigned char>(NwNetSocketRead),
                         loopbackAddr);
    if (!sender.isOk() || !receiver.isOk()) return 1;
    receiver.NwBecomeNonBlocking();

    // What fits into an Ethernet frame.
    sender.setBundling(1400);
    for (int i = 0; i < packets; ++i) {
        std::vector<char> pdu = makePdu(144, 1, 1);
        const int left = sender.NwSend(pdu.data(), pdu.size(), NwUSE_DEFAULT_IP_ADDR);
        if (left < 0) return 1;
        if (left > 0) std::printf("packet %d did not fit: a bundle of %d bytes left\n", i + 1, left);
    }
    // Nothing is sent on a timer: flush once a frame, so that no packet waits for the next one.
    long left = 0;
    if (sender.flush(left) < 0) return 1;
    std::printf("flush: %ld bytes left\n", left);

    // The receiver takes bundles apart by the length in each packet's header; nothing needs to be switched
    // on.
    int received = 0;
    char* packet = nullptr;
    int status = 0;
    while (received < packets && waitForPacket(receiver)) {
        if (receiver.NwRecv(&packet, &status) == 144) ++received;
    }
    std::printf("received %d packets in %d datagrams\n", received, receiver.NwReportPktsRcvd());
    return received == packets ? 0 : 1;
}
