// SPDX-License-Identifier: BSD-3-Clause
// The yardstick of packets over TCP: by hand, the system calls and flags of the library, one send() for a
// packet or a bundle, two recv() for a packet: up to the end of its length field, then the rest.
#ifndef BENCH_BARE_TCP_H
#define BENCH_BARE_TCP_H

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

#include "traffic.h"

const int kLengthOffset = 8;  // where a PDU has its length, in two bytes
const int kLengthEnd = kLengthOffset + 2;
const int kLargestPacket = 20000;  // what the library's receive buffer starts with

// Never in part: nobody sends more here than the kernel takes.
inline void barePut(int fd, const char* bytes, std::size_t length) {
    if (::send(fd, bytes, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length))
        fail("the bare loop cannot send");
}

// Waits for the rest of what has begun to arrive: rare, and not in the loops' way.
void bareAwait(int fd, char* bytes, std::size_t length);

// The next packet, into kLargestPacket bytes: its length, 0 when none has begun to arrive.
inline int bareTake(int fd, char* packet) {
    const ssize_t header = ::recv(fd, packet, kLengthEnd, 0);
    if (header <= 0) {
        if (header == 0 || errno != EAGAIN) fail("the bare loop's connection ended");
        return 0;
    }
    if (header < kLengthEnd) bareAwait(fd, packet + header, static_cast<std::size_t>(kLengthEnd - header));
    std::uint16_t field;
    std::memcpy(&field, packet + kLengthOffset, sizeof field);
    const int length = ntohs(field);
    if (length <= kLengthEnd || length > kLargestPacket) fail("the bare loop lost its place in the stream");
    const ssize_t rest = ::recv(fd, packet + kLengthEnd, static_cast<std::size_t>(length - kLengthEnd), 0);
    const int have = kLengthEnd + static_cast<int>(rest > 0 ? rest : 0);
    if (have < length) bareAwait(fd, packet + have, static_cast<std::size_t>(length - have));
    return length;
}

void bareStreamSend(int fd, PduSource& source, int pdus);
void bareStreamSendBundled(int fd, PduSource& source, int pdus);
// Receives `pdus` packets that have arrived or are under way.
Delivered bareStreamReceive(int fd, int pdus);

// A relay's round over its connections: while the clock has not reached `end`, what arrives on each goes to
// all.
void bareRelay(const std::vector<int>& connections, double end);

// A relay as one would write it without the documented calls: the kernel tells who has sent something, one
// recv() takes all that has arrived there. The whole packets go to all one by one, or `together` in one
// send().
class BareEpollRelay {
public:
    explicit BareEpollRelay(const std::vector<int>& connections);

    // Until nothing is left.
    void run(bool together);

private:
    struct Inbox {
        int fd;
        std::vector<char> bytes;
        std::size_t held;
    };

    void takeFrom(Inbox& inbox, bool together);
    void toAll(const char* bytes, std::size_t length);

    const Descriptor myEpoll;
    std::vector<Inbox> myInboxes;
};

#endif
