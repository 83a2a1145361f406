// SPDX-License-Identifier: BSD-3-Clause
// Receives only what it wants: filter tests on exercise, version, PDU type and sender.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cstdio>

#include "example.h"

int main(int argc, char** argv) {
    const int port = portOf(argc, argv);
    NwNetSocket::initErrorAction = 1;
    NwNetSocket sender(port, loopbackAddr, static_cast<unsigned char>(NwNetSocketWrite), loopbackAddr);
    NwNetSocket receiver(port, NwUSE_DEFAULT_IP_ADDR, static_cast<unsigned char>(NwNetSocketRead),
                         loopbackAddr);
    if (!sender.isOk() || !receiver.isOk()) return 1;

    // Exercises 1 and 2, any type but 26 (Signal), from this host. A packet has to pass every test.
    unsigned int exercises[] = {1, 2};
    receiver.exerciseId().setTest(NwTestInclude, 2, exercises);
    unsigned int signal[] = {26};
    receiver.pduKind().setTest(NwTestExclude, 1, signal);
    unsigned int thisHost[] = {loopbackAddr};
    receiver.ipAddr().setTest(NwTestInclude, 1, thisHost);

    const int sent[][2] = {{1, 1}, {1, 26}, {3, 1}, {2, 2}, {2, 26}, {0, 1}};  // exercise, type
    int delivered = 0;
    for (const auto& kind : sent) {
        std::vector<char> pdu = makePdu(144, kind[0], kind[1]);
        if (sender.NwSend(pdu.data(), pdu.size(), NwUSE_DEFAULT_IP_ADDR) != 144) return 1;
        if (!waitForPacket(receiver)) return 1;
        char* packet = nullptr;
        int status = 0;
        const int length = receiver.NwRecv(&packet, &status);
        // 1: delivered. -2: refused by a filter, and there may be more to read; 0 would mean that nothing
        // came.
        std::printf("exercise %d, type %2d: status %2d, %s\n", kind[0], kind[1], status,
                    length > 0 ? "delivered" : "refused");
        if (status == 1) ++delivered;
    }
    std::printf("%d delivered, %d datagrams read\n", delivered, receiver.NwReportPktsRcvd());

    receiver.exerciseId().disableTest();  // every exercise again
    return delivered == 2 ? 0 : 1;
}
