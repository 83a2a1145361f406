// SPDX-License-Identifier: BSD-3-Clause
// The library's sockets with an eye on what leaves: each datagram, and the PDUs in it.
#ifndef CVNET_SENDING_SOCKET_H
#define CVNET_SENDING_SOCKET_H

#include <cstdint>
#include <memory>

#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>

#include "pdu.h"
#include "server_socket.h"
#include "tally.h"

namespace cvnet {

/// What a sending socket counts, and what the tool asks of it beside NwSocket's operations.
class DatagramCounts {
public:
    std::uint64_t datagrams() const { return datagrams_; }
    const Tally& tally() const { return tally_; }

protected:
    int counted(int result, const char* datagram, unsigned long lengthBytes) {
        if (result <= 0) return result;
        ++datagrams_;
        PduWalk walk(datagram, lengthBytes);
        for (PduView pdu; walk.next(pdu);) tally_.add(pdu, datagrams_);
        if (walk.rest().lengthBytes() != 0) tally_.add(walk.rest(), datagrams_);
        return result;
    }
    /// One that went into a stream.
    void countInStream(const PduView& packet) { tally_.add(packet, Tally::kNoDatagram); }

private:
    std::uint64_t datagrams_ = 0;
    Tally tally_;
};

/// NwNetSocket or NwGroupSocket: sendTo is where every datagram goes through.
template <class Socket>
class CountingSocket : public Socket, public DatagramCounts {
public:
    using Socket::Socket;

    int sendTo(char* buf, unsigned long len, unsigned int toAddress) override {
        return counted(Socket::sendTo(buf, len, toAddress), buf, len);
    }
};

/// Bundles here, and hands each datagram to a socket that is better held than derived from: an asynchronous
/// one, which starts threads while it is constructed, or one that the library chose. What is counted is what
/// that socket took.
class HeldSocket : public NwSocket, public DatagramCounts {
public:
    explicit HeldSocket(SocketPtr<NwSocket> socket) : socket_(std::move(socket)) {}

    int sendTo(char* buf, unsigned long len, unsigned int toAddress) override {
        return counted(socket_->sendTo(buf, len, toAddress), buf, len);
    }
    int NwRecv(char** buf, int* status) override { return socket_->NwRecv(buf, status); }
    int NwRecv(char* buf, unsigned long len) override { return socket_->NwRecv(buf, len); }

    /// Returns when a queue has been sent; the socket is of no use any more.
    void finish() { socket_.reset(); }

private:
    SocketPtr<NwSocket> socket_;
};

}  // namespace cvnet

#endif
