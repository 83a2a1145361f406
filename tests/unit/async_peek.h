// SPDX-License-Identifier: BSD-3-Clause
// The inside of an asynchronous socket, reached without deriving an object from it: while a derived class's
// constructor runs, the workers may already look at the table of virtual operations that it is about to
// change.
#ifndef CVNC_TESTS_ASYNC_PEEK_H
#define CVNC_TESTS_ASYNC_PEEK_H

#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <string>

struct AsyncPeek : NwAsyncNetSocket {
    typedef NwThreadSafe<Packets> Queue;

    static Queue& sendQueue(NwAsyncNetSocket& socket) { return socket.*(&AsyncPeek::mySendQueue); }
    static Queue& receiveQueue(NwAsyncNetSocket& socket) { return socket.*(&AsyncPeek::myReceiveQueue); }
    static std::size_t unsent(NwAsyncNetSocket& socket) { return sendQueue(socket)->size(); }
    static std::size_t received(NwAsyncNetSocket& socket) { return receiveQueue(socket)->size(); }
    static int* pipeEnds(NwAsyncNetSocket& socket) { return socket.*(&AsyncPeek::myPipe); }
    static pthread_t& sendThread(NwAsyncNetSocket& socket) { return socket.*(&AsyncPeek::mySendThread); }
    static pthread_t& receiveThread(NwAsyncNetSocket& socket) {
        return socket.*(&AsyncPeek::myReceiveThread);
    }
    static char* recvBufferOf(NwAsyncNetSocket& socket) { return (socket.*(&AsyncPeek::recvBuffer)).get(); }
    static void stop(NwAsyncNetSocket& socket) { (socket.*(&AsyncPeek::stopThreads))(); }
    static void requestStop(NwAsyncNetSocket& socket, bool send, bool receive) {
        socket.*(&AsyncPeek::myStopSend) = send;
        socket.*(&AsyncPeek::myStopReceive) = receive;
    }
    // Ends the workers and sets everything back: their work can then be done step by step on this thread.
    static void dismissWorkers(NwAsyncNetSocket& socket) {
        stop(socket);
        requestStop(socket, false, false);
        socket.setUsingAsyncSend(true);
        socket.setUsingAsyncReceive(true);
    }
};

// The port that the kernel chose for a socket.
inline int boundPort(int fd) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
    return ntohs(local.sin_port);
}

inline std::string textOf(NwAsyncSocketPacket packet) {
    return std::string(packet.data(), static_cast<std::size_t>(packet.size()));
}

#endif
