// SPDX-License-Identifier: BSD-3-Clause
// The library's packet-server client as the tool holds it: what ends it is a line for the user, never the
// process.
#ifndef CVNET_SERVER_SOCKET_H
#define CVNET_SERVER_SOCKET_H

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <cvNetworkCompatibility/cvClientSocket.h>

#include "failure.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {

/// Destroying a packet-server client that is not ok would be fatal: such a one releases what it holds (its
/// path among them) and is left to the end of the process. Any other socket is deleted.
struct SocketEnd {
    void operator()(NwSocket* socket) const;
};
template <class Socket>
using SocketPtr = std::unique_ptr<Socket, SocketEnd>;

/// Attaches to the packet server of `port`; reads do not wait. Throws Failure when there is none, or it has
/// no place, refuses, or does not answer.
SocketPtr<NwClientSocket> attachToServer(int port, NwIpv4Addr address, unsigned short flags);

/// The library's default socket: such a client when a server runs, else a UDP socket. Reads do not wait.
/// Throws Failure.
SocketPtr<NwSocket> openDefaultSocket(int port, NwIpv4Addr address, bool async);

/// The number that the server has given this client.
unsigned idOf(const NwClientSocket& socket);

/// The message that the last receive found in the place of a packet (its status was -1), once. Nothing when
/// there was none, or it ended the attachment.
std::optional<NwCsMsg> takeMessage(NwClientSocket& socket);

/// The message as the record that its kind stands for.
template <class Record>
Record recordOf(const NwCsMsg& message) {
    static_assert(sizeof(Record) <= sizeof message, "a record fits a message");
    Record record;
    std::memcpy(&record, &message, sizeof record);
    return record;
}

/// A text field of a record, which is ended by a zero unless it is full.
template <std::size_t size>
std::string fieldText(const char (&field)[size]) {
    return printable(std::string(field, ::strnlen(field, size)));
}

/// "the packet server refuses: ...", or nothing when the message says no such thing.
std::optional<std::string> refusalText(const NwCsMsg& message);

using ServerRequest = void (NwClientSocket::*)();

/// Makes the request and waits for a message of this kind; packets and other messages that come before are
/// dropped. A refusal, an end of the server, a signal, or silence throws Failure.
NwCsMsg ask(NwClientSocket& socket, int port, ServerRequest request, NwCsKind kind);

/// The states of all clients, this one's among them.
std::vector<NwCsCStateReturnRecord> askClients(NwClientSocket& socket, int port);

/// Throws the failure that stands for the end of an attachment. What an orderly stop of the server means is
/// the caller's to say.
[[noreturn]] void throwServerHasGone(const NwClientSocket& socket, int port,
                                     ExitStatus statusOfStop = kExitFailed);

/// Waits until the socket has something to receive, `until`, or a signal. Also wakes up often enough to
/// notice that the server was killed, which the descriptor does not show.
void waitForServer(NwClientSocket& socket, std::optional<Clock::time_point> until);

}  // namespace cvnet

#endif
