// SPDX-License-Identifier: BSD-3-Clause
// Raw TCP for tests: the other end of a connection, byte for byte, and a listener that such ends come from.
#ifndef CVNC_TESTS_TCP_PEER_H
#define CVNC_TESTS_TCP_PEER_H

#include "network.h"

#include <cstddef>
#include <string>

// A connected POSIX socket that waits (sendSome excepted). What it is told to send leaves at once, without
// being put together by the kernel. Throws std::runtime_error when the system refuses.
class TcpPeer {
public:
    // Connects, with a receive buffer of that many bytes (0: as the system has it).
    explicit TcpPeer(int port, NwIpv4Addr address = kLoopback, int receiveBuffer = 0);
    // Takes over a connected descriptor.
    static TcpPeer around(int fd) { return TcpPeer(Descriptor{fd}); }
    TcpPeer(TcpPeer&& other) noexcept;
    ~TcpPeer();

    int fd() const { return myFd; }
    // The port of this end.
    int port() const;
    // The descriptor, which the caller closes from now on.
    int release();

    // Sends all of it, waiting for room.
    void sendAll(const std::string& bytes);
    // The same in calls of one byte each.
    void sendBytes(const std::string& bytes);
    // Sends what the kernel takes now; returns how much.
    std::size_t sendSome(const std::string& bytes);

    // Waits for so many bytes. Fewer come back, and the test fails, when the stream ends or patience does.
    std::string receive(std::size_t length);
    // Everything until the other end closes; the test fails when patience ends.
    std::string receiveToEnd();
    // What has arrived by now, without waiting.
    std::string receiveSome();

    // No more data from here; the other direction stays open.
    void shutdownWrite();
    // Ends the connection in order, or at once with a reset.
    void close();
    void reset();

private:
    struct Descriptor {
        int fd;
    };
    explicit TcpPeer(Descriptor descriptor);

    int myFd;
};

// Listens on a port of the kernel's choice.
class TcpListener {
public:
    // With a receive buffer of that many bytes for what it accepts (0: as the system has it).
    explicit TcpListener(NwIpv4Addr address = kLoopback, int receiveBuffer = 0, int backlog = 64);
    ~TcpListener();
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    int fd() const { return myFd; }
    int port() const;
    // The next connection; waits for it, and throws when none comes.
    TcpPeer accept() { return TcpPeer::around(acceptFd()); }
    // The same as a descriptor for the caller to close.
    int acceptFd();

private:
    int myFd;
};

// A TCP port of loopback on which nobody listened a moment ago.
int freeTcpPort();

#endif
