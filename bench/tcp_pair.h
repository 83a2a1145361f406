// SPDX-License-Identifier: BSD-3-Clause
// A TCP connection on loopback, both ends the library's, with the length where PDUs have it.
#ifndef BENCH_TCP_PAIR_H
#define BENCH_TCP_PAIR_H

#include <cvNetworkCompatibility/cvTcpSocket.h>

#include "bare_tcp.h"

class TcpPair {
public:
    TcpPair() {
        client.setSizeOffset(kLengthOffset);
        server.setSizeOffset(kLengthOffset);
        if (!client.isOk() || !server.isOk()) fail("cannot open the library's sockets on 127.0.0.1");
    }

private:
    const Descriptor listener{openListener()};

public:
    NwTcpSocket client{loopbackAddr, portOf(listener), 0};
    NwTcpSocket server{::accept(listener, nullptr, nullptr), loopbackAddr, 0};
};

#endif
