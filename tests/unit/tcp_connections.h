// SPDX-License-Identifier: BSD-3-Clause
// Connections to a manager, whose order is known: each is there to be accepted before the next is made.
#ifndef CVNC_TESTS_TCP_CONNECTIONS_H
#define CVNC_TESTS_TCP_CONNECTIONS_H

#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <vector>

#include "network.h"
#include "tcp_peer.h"

inline sockaddr_in localAddress(int fd) {
    sockaddr_in result = {};
    socklen_t size = sizeof result;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&result), &size);
    return result;
}

inline int portOf(const NwTcpSocketMgr& manager) {
    return ntohs(localAddress(manager.readFd()).sin_port);
}

// How many connections wait for accept().
inline unsigned int pendingOn(int listener) {
    tcp_info info = {};
    socklen_t size = sizeof info;
    ::getsockopt(listener, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info.tcpi_unacked;
}

// Connects, from an address of choice and with a receive buffer of so many bytes (0: as the system has it),
// and waits until the manager could accept.
inline TcpPeer connectTo(const NwTcpSocketMgr& manager, NwIpv4Addr from = kLoopback, int receiveBuffer = 0) {
    const unsigned int before = pendingOn(manager.readFd());
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer) ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(from);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    address.sin_addr.s_addr = htonl(kLoopback);
    address.sin_port = htons(static_cast<in_port_t>(portOf(manager)));
    EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_TRUE(eventually([&] { return pendingOn(manager.readFd()) == before + 1; }));
    return TcpPeer::around(fd);
}

// The sockets of a manager, in the order of its list.
inline std::vector<NwTcpSocket*> socketsOf(NwTcpSocketMgr& manager) {
    std::vector<NwTcpSocket*> sockets;
    for (NwListItem* item = manager.socketList()->first(); item; item = item->next())
        sockets.push_back(static_cast<NwTcpSocket*>(item->data()));
    return sockets;
}

#endif
