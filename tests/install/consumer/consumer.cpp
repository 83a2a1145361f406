// SPDX-License-Identifier: BSD-3-Clause
// A user's program: sends two PDUs to itself in one datagram on the loopback interface, and gets them back
// one a call. Exit status 0 when both came back unchanged.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

// A UDP port that is free now, as the kernel picks it; 0 when there is none.
static int freePort() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

const unsigned long kPduBytes = 144;

// An Entity State PDU of exercise 1, empty but for its header and one byte.
static void makePdu(char* pdu, char mark) {
    std::memset(pdu, 0, kPduBytes);
    pdu[0] = 7;
    pdu[1] = 1;
    pdu[2] = 1;
    pdu[9] = static_cast<char>(kPduBytes);
    pdu[kPduBytes - 1] = mark;
}

static bool receives(NwNetSocket& socket, const char* expected) {
    pollfd waiting = {socket.readFd(), POLLIN, 0};
    if (!socket.dataLeftInCurrentBundle() && ::poll(&waiting, 1, 10000) != 1) {
        std::fprintf(stderr, "nothing received within 10 s\n");
        return false;
    }
    char* packet = nullptr;
    int status = 0;
    const int length = socket.NwRecv(&packet, &status);
    if (length == static_cast<int>(kPduBytes) && status == 1 && std::memcmp(packet, expected, kPduBytes) == 0)
        return true;
    std::fprintf(stderr, "received %d bytes, status %d\n", length, status);
    return false;
}

int main() {
    NwNetSocket::initErrorAction = 1;
    NwNetSocket socket(freePort(), 0x7F000001u, (unsigned char)3, 0x7F000001u);
    if (!socket.isOk()) return 1;
    socket.NwBecomeNonBlocking();
    socket.setBundling(1400);

    char first[kPduBytes], second[kPduBytes];
    makePdu(first, 'a');
    makePdu(second, 'b');
    socket.NwSend(first, kPduBytes, NwUSE_DEFAULT_IP_ADDR);
    socket.NwSend(second, kPduBytes, NwUSE_DEFAULT_IP_ADDR);
    if (socket.flush() != 1) return 1;

    if (!receives(socket, first) || !receives(socket, second)) return 1;
    std::printf("2 PDUs sent, 2 received\n");
    return socket.NwReportPktsRcvd() == 1 ? 0 : 1;  // one datagram
}
