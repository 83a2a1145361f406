// SPDX-License-Identifier: BSD-3-Clause
// The loopback sockets and the traffic between them.
#include "traffic.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

// What the kernel charges a receive buffer for one datagram of at most a bundle, generously.
const int kChargePerDatagram = 4096;

const int kPatienceMilliseconds = 10000;  // an age on loopback

sockaddr* generic(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

PduSource::PduSource() : place(0) {
    std::uint32_t stamp = 1;
    for (Pdu& pdu : pdus) {
        for (std::size_t i = 0; i < pdu.size(); ++i) pdu[i] = static_cast<char>(i * 7 + stamp);
        pdu[0] = static_cast<char>(kPduVersion);
        pdu[1] = static_cast<char>(kPduExercise);
        pdu[2] = static_cast<char>(kPduType);
        const std::uint16_t length = htons(kPduBytes);
        std::memcpy(&pdu[4], &stamp, sizeof stamp);
        std::memcpy(&pdu[8], &length, sizeof length);
        stamp = stamp * 1664525u + 1013904223u;
    }
}

Delivered PduSource::first(int count) {
    Delivered expected;
    restart();
    for (int i = 0; i < count; ++i) expected.take(next(), kPduBytes);
    restart();
    return expected;
}

void fail(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(2);
}

Descriptor::~Descriptor() {
    if (fd >= 0) ::close(fd);
}

int openSocket(bool bound) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) fail("cannot open a socket");
    sockaddr_in local = loopbackAddress(0);
    if (bound && ::bind(fd, generic(local), sizeof local) != 0) fail("cannot bind to 127.0.0.1");
    return fd;
}

int openListener() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in local = loopbackAddress(0);
    if (fd < 0 || ::bind(fd, generic(local), sizeof local) != 0 || ::listen(fd, SOMAXCONN) != 0)
        fail("cannot listen on 127.0.0.1");
    return fd;
}

int openConnection(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in peer = loopbackAddress(port);
    if (fd < 0 || ::connect(fd, generic(peer), sizeof peer) != 0) fail("cannot connect to 127.0.0.1");
    if (::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) fail("cannot make a connection non-blocking");
    return fd;
}

void awaitReadable(int fd) {
    pollfd wanted = {fd, POLLIN, 0};
    if (::poll(&wanted, 1, kPatienceMilliseconds) <= 0) fail("what was sent did not arrive");
}

int portOf(int fd) {
    sockaddr_in local;
    socklen_t size = sizeof local;
    if (::getsockname(fd, generic(local), &size) != 0) fail("cannot ask for a socket's port");
    return ntohs(local.sin_port);
}

sockaddr_in loopbackAddress(int port) {
    sockaddr_in address = sockaddr_in();
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

int roomForDatagrams(int fd, int wanted) {
    const int bytes = wanted * kChargePerDatagram;
    int granted = 0;
    socklen_t size = sizeof granted;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &size) != 0) fail("cannot ask for a buffer's size");
    return std::max(1, std::min(wanted, granted / kChargePerDatagram));
}

Delivered fill(int fd, int port, PduSource& source, int datagrams, int pdusEach) {
    Delivered expected;
    sockaddr_in to = loopbackAddress(port);
    char datagram[kBundleBytes];
    for (int i = 0; i < datagrams; ++i) {
        std::size_t used = 0;
        for (int k = 0; k < pdusEach; ++k, used += kPduBytes) {
            const char* pdu = source.next();
            std::memcpy(datagram + used, pdu, kPduBytes);
            expected.take(pdu, kPduBytes);
        }
        if (::sendto(fd, datagram, used, 0, generic(to), sizeof to) < 0) fail("cannot send to 127.0.0.1");
    }
    return expected;
}

std::uint64_t drain(int fd) {
    char datagram[kLargestDatagram];
    std::uint64_t bytes = 0;
    ssize_t got;
    while ((got = ::recv(fd, datagram, sizeof datagram, MSG_DONTWAIT)) > 0)
        bytes += static_cast<std::uint64_t>(got);
    return bytes;
}
