// SPDX-License-Identifier: BSD-3-Clause
#include "tcp_peer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

int openSocket(int receiveBuffer) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    if (receiveBuffer > 0) ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    return fd;
}

sockaddr_in socketAddress(NwIpv4Addr address, int port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(static_cast<in_port_t>(port));
    return result;
}

int localPort(int fd) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0) fail("getsockname");
    return ntohs(local.sin_port);
}

void sendAtOnce(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

TcpPeer::TcpPeer(int port, NwIpv4Addr address, int receiveBuffer) : myFd(openSocket(receiveBuffer)) {
    const sockaddr_in peer = socketAddress(address, port);
    if (::connect(myFd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        const int error = errno;
        ::close(myFd);
        errno = error;
        fail("connect");
    }
    sendAtOnce(myFd);
}

TcpPeer::TcpPeer(Descriptor descriptor) : myFd(descriptor.fd) {
    sendAtOnce(myFd);
}

TcpPeer::TcpPeer(TcpPeer&& other) noexcept : myFd(other.release()) {}

TcpPeer::~TcpPeer() {
    close();
}

int TcpPeer::port() const {
    return localPort(myFd);
}

int TcpPeer::release() {
    return std::exchange(myFd, -1);
}

void TcpPeer::sendAll(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = ::send(myFd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) fail("send");
        if (n > 0) sent += static_cast<std::size_t>(n);
    }
}

void TcpPeer::sendBytes(const std::string& bytes) {
    for (const char byte : bytes) sendAll(std::string(1, byte));
}

std::size_t TcpPeer::sendSome(const std::string& bytes) {
    const ssize_t n = ::send(myFd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) fail("send");
    return n < 0 ? 0 : static_cast<std::size_t>(n);
}

std::string TcpPeer::receive(std::size_t length) {
    std::string result;
    std::vector<char> part(std::min<std::size_t>(length, 65536));
    while (result.size() < length) {
        if (!waitReadable(myFd)) break;
        const ssize_t n = ::recv(myFd, part.data(), std::min(part.size(), length - result.size()), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        result.append(part.data(), static_cast<std::size_t>(n));
    }
    if (result.size() < length) ADD_FAILURE() << result.size() << " of " << length << " bytes came";
    return result;
}

std::string TcpPeer::receiveToEnd() {
    std::string result;
    std::vector<char> part(65536);
    while (waitReadable(myFd)) {
        const ssize_t n = ::recv(myFd, part.data(), part.size(), 0);
        if (n == 0) return result;
        if (n < 0 && errno != EINTR) fail("recv");
        if (n > 0) result.append(part.data(), static_cast<std::size_t>(n));
    }
    ADD_FAILURE() << "the stream does not end";
    return result;
}

std::string TcpPeer::receiveSome() {
    std::string result;
    std::vector<char> part(65536);
    for (ssize_t n; (n = ::recv(myFd, part.data(), part.size(), MSG_DONTWAIT)) > 0;)
        result.append(part.data(), static_cast<std::size_t>(n));
    return result;
}

void TcpPeer::shutdownWrite() {
    ::shutdown(myFd, SHUT_WR);
}

void TcpPeer::close() {
    if (myFd >= 0) ::close(release());
}

void TcpPeer::reset() {
    const linger atOnce = {1, 0};
    ::setsockopt(myFd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
}

TcpListener::TcpListener(NwIpv4Addr address, int receiveBuffer, int backlog)
    : myFd(openSocket(receiveBuffer)) {
    const sockaddr_in local = socketAddress(address, 0);
    if (::bind(myFd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) fail("bind");
    if (::listen(myFd, backlog) != 0) fail("listen");
}

TcpListener::~TcpListener() {
    ::close(myFd);
}

int TcpListener::port() const {
    return localPort(myFd);
}

int TcpListener::acceptFd() {
    if (!waitReadable(myFd)) throw std::runtime_error("no connection came");
    const int fd = ::accept4(myFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) fail("accept");
    return fd;
}

int freeTcpPort() {
    return TcpListener().port();
}
