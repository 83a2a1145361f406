// SPDX-License-Identifier: BSD-3-Clause
#include "server_socket.h"

#include <algorithm>
#include <string>

#include <fmt/format.h>

#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>

#include "failure.h"
#include "library.h"
#include "stop_signal.h"

namespace cvnet {
namespace {

constexpr auto kLookPeriod = std::chrono::milliseconds(200);

void ignoreFatal(const char* /*message*/) {}

// What the library said about an attach that failed, for somebody who knows no message kinds.
std::string reasonOfRefusal() {
    const std::string warning = takeLibraryWarning();
    if (warning.find("quota exceeded") != std::string::npos) return "it has no place left for a client";
    if (warning.find("timedRecv timeout") != std::string::npos) return "it does not answer";
    if (warning.find("getPs: 11 ") != std::string::npos)
        return "it refuses (its log says why; may this user attach?)";
    return warning.empty() ? "its shared memory is not there" : warning;
}

}  // namespace

void ServerSocketEnd::operator()(ServerSocket* socket) const {
    if (socket->isOk()) delete socket;
}

ServerSocketPtr attachToServer(int port, NwIpv4Addr address, unsigned short flags) {
    const int alive = NwPacketServerIsAlive(port);
    if (alive == 0) throw Failure(fmt::format("no packet server serves port {} on this host", port));
    if (alive < 0) throw Failure(fmt::format("the packet server of port {} is too old", port));
    takeLibraryWarning();
    // A failed attach ends in the fatal handler; here the user gets the reason instead.
    const NwFatalHandler former = NwSetFatalHandler(ignoreFatal);
    ServerSocketPtr socket(new ServerSocket(
        port, address, -1, static_cast<unsigned short>(flags | NwClientSocket::nonBlockingFlag)));
    NwSetFatalHandler(former);
    if (!socket->isOk())
        throw Failure(
            fmt::format("cannot attach to the packet server of port {}: {}", port, reasonOfRefusal()));
    return socket;
}

void throwServerHasGone(const ServerSocket& socket, int port) {
    throw Failure(fmt::format(socket.endNotice() == NwCsNoticeStopped
                                  ? "the packet server of port {} has stopped"
                                  : "the packet server of port {} is gone",
                              port));
}

void waitForServer(ServerSocket& socket, Clock::time_point until) {
    socket.notifyMe();
    StopSignal::wait(socket.readFd(), std::min(until, Clock::now() + kLookPeriod));
}

}  // namespace cvnet
