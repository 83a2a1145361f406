// SPDX-License-Identifier: BSD-3-Clause
// The library's packet-server client as the tool holds it: what ends it is a line for the user, never the
// process.
#ifndef CVNET_SERVER_SOCKET_H
#define CVNET_SERVER_SOCKET_H

#include <chrono>
#include <memory>

#include <cvNetworkCompatibility/cvClientSocket.h>

namespace cvnet {

class ServerSocket : public NwClientSocket {
public:
    using NwClientSocket::NwClientSocket;

    unsigned id() const { return static_cast<unsigned>(clientId); }

    /// The message that the last receive found in the place of a packet (its status was -1). Null when the
    /// message ended the attachment.
    const NwCsMsg* message() const { return reinterpret_cast<const NwCsMsg*>(recvBuffer.get()); }
};

/// Destroying a socket that is not ok would be fatal: such a one is left to the end of the process.
struct ServerSocketEnd {
    void operator()(ServerSocket* socket) const;
};
using ServerSocketPtr = std::unique_ptr<ServerSocket, ServerSocketEnd>;

/// Attaches to the packet server of `port`; reads do not wait. Throws Failure when there is none, or it has
/// no place, refuses, or does not answer.
ServerSocketPtr attachToServer(int port, NwIpv4Addr address, unsigned short flags);

/// The failure that stands for the end of an attachment; an orderly stop of the server is none.
[[noreturn]] void throwServerHasGone(const ServerSocket& socket, int port);

/// Waits until the socket has something to receive, `until`, or a signal. Also wakes up often enough to
/// notice that the server was killed, which the descriptor does not show.
void waitForServer(ServerSocket& socket, std::chrono::steady_clock::time_point until);

}  // namespace cvnet

#endif
