// SPDX-License-Identifier: BSD-3-Clause
// The library's TCP socket as a client of a relay: connects while Ctrl-C works, waits for room or for
// packets, and says in one line why a connection has ended.
#ifndef CVNET_STREAM_SOCKET_H
#define CVNET_STREAM_SOCKET_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <cvNetworkCompatibility/cvTcpSocket.h>

#include "address.h"
#include "echo_filter.h"
#include "receiving_socket.h"
#include "sending_socket.h"
#include "stop_signal.h"
#include "stream_format.h"

namespace cvnet {

class StreamSocket : public NwTcpSocket {
public:
    /// Connects. Throws Failure when that does not work, or on Ctrl-C.
    StreamSocket(const Endpoint& peer, const StreamFormat& format);

    const Endpoint& peer() const { return peer_; }
    NwIpv4Addr lastSourceInetAddr() override { return peer_.addrHostOrder; }

    /// Whether packets wait for room.
    bool hasQueue() const { return getQueueStatus().first != 0; }

    /// Waits until packets come, there is room for what waits, or `until`. What there is room for is sent.
    void waitAndFlush(std::optional<Clock::time_point> until);

    /// Throws Failure when the connection has ended.
    void checkIsOk();

    /// Takes packets that have come, many at most, and forgets them.
    void discardIncoming();
    std::uint64_t discarded() const { return discarded_; }

    /// Behind the last packet: ends this side and waits until the peer has taken everything and has ended the
    /// other one, or keeps that open for `patience` more. After Ctrl-C it waits a second for either. A
    /// relay reads everything before it sees the end, and who closes with packets unread may lose what is
    /// under way. Returns why not everything was taken; empty when it was.
    std::string finish(std::chrono::seconds patience);

private:
    void waitForConnection();
    int unacknowledged();

    Endpoint peer_;
    std::uint64_t discarded_ = 0;
};

/// Sends and counts what it is given.
class SendingStream : public StreamSocket, public DatagramCounts {
public:
    using StreamSocket::StreamSocket;

    /// Sends, bundles or queues the packet. Negative: it was not kept, and checkIsOk() throws.
    int NwSend(char* buf, unsigned long len, unsigned int toAddress) override;
};

/// Receives, with the socket's filter tests and without what it sent itself (status -3).
class ReceivingStream : public StreamSocket {
public:
    ReceivingStream(const Endpoint& peer, const StreamFormat& format, ReceiveCounts& counts)
        : StreamSocket(peer, format), counts_(counts) {
        counts_.sourcePort = peer.port;
    }

    int NwSend(char* buf, unsigned long len, unsigned int toAddress) override;
    int NwRecv(char** buf, int* status) override;

private:
    ReceiveCounts& counts_;
    EchoFilter echoes_;
};

}  // namespace cvnet

#endif
