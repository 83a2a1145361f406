// SPDX-License-Identifier: BSD-3-Clause
// Which process has a port open already.
#ifndef CVNET_PORT_OWNER_H
#define CVNET_PORT_OWNER_H

#include <optional>
#include <string>

#include <cvutil/cvInetAddr.h>

namespace cvnet {

struct PortOwner {
    int pid = 0;          // 0: a process of another user or container, which cannot be looked into
    std::string command;  // its name, safe to print
};

/// The first process other than this one with a UDP socket on `port` that takes datagrams to
/// `addrHostOrder` (0: any address). Nothing when there is none, or none but a socket of `knownPid`.
std::optional<PortOwner> portOwner(unsigned port, NwIpv4Addr addrHostOrder, int knownPid = 0);

/// The first process other than this one that listens on a TCP port.
std::optional<PortOwner> tcpPortOwner(unsigned port);

/// A UDP port that nobody has. The kernel's own choice for a socket that shares its port may be one that
/// another such socket has already. 0 when there is none.
int freeUdpPort();

/// "process 1234 (cvnet)".
std::string portOwnerText(const PortOwner& owner);

}  // namespace cvnet

#endif
