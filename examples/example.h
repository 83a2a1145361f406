// SPDX-License-Identifier: BSD-3-Clause
// What the examples share: the port, a PDU to play with, and a wait that ends.
#ifndef CVNC_EXAMPLES_EXAMPLE_H
#define CVNC_EXAMPLES_EXAMPLE_H

#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvClock.h>

#include <sys/select.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

// The port given on the command line, else the usual one for DIS.
inline int portOf(int argc, char** argv) {
    return argc > 1 ? std::atoi(argv[1]) : 3000;
}

// An IEEE 1278.1 header (version 7, length in network byte order at bytes 8 and 9) and zeros: at least 12
// bytes.
inline std::vector<char> makePdu(int lengthBytes, int exercise, int type) {
    std::vector<char> pdu(static_cast<std::size_t>(lengthBytes));
    pdu[0] = 7;
    pdu[1] = static_cast<char>(exercise);
    pdu[2] = static_cast<char>(type);
    pdu[8] = static_cast<char>(lengthBytes >> 8);
    pdu[9] = static_cast<char>(lengthBytes);
    return pdu;
}

// Waits until the socket has a packet to deliver; false when none came within five seconds.
inline bool waitForPacket(NwNetSocket& socket) {
    if (socket.dataLeftInCurrentBundle()) return true;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket.readFd(), &readable);
    if (NwSelect(socket.readFd() + 1, &readable, nullptr, nullptr, 5.0) > 0) return true;
    std::printf("nothing came: is another program open on this port?\n");
    return false;
}

#endif
