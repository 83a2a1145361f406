// SPDX-License-Identifier: BSD-3-Clause
// Hand-written senders and receivers.
#include "bare_loops.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

const int kHeaderBytes = 12;

sockaddr* generic(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

bool isAmong(const std::vector<unsigned int>& values, unsigned int value) {
    for (const unsigned int one : values)
        if (one == value) return true;
    return false;
}

unsigned int byteAt(const char* packet, int offset) {
    return static_cast<unsigned char>(packet[offset]);
}

template <Active active>
bool passes(const HandFilters& filters, const char* packet, const sockaddr_in& from) {
    if (active == Active::none) return true;
    if (active == Active::type) return isAmong(filters.types, byteAt(packet, 2));
    return isAmong(filters.versions, byteAt(packet, 0)) && isAmong(filters.exercises, byteAt(packet, 1)) &&
           isAmong(filters.types, byteAt(packet, 2)) &&
           isAmong(filters.addresses, ntohl(from.sin_addr.s_addr));
}

int readDatagram(int fd, char* buffer, sockaddr_in& from) {
    socklen_t size = sizeof from;
    const ssize_t got = ::recvfrom(fd, buffer, kLargestDatagram, 0, generic(from), &size);
    if (got <= 0) fail("the bare loop received nothing");
    return static_cast<int>(got);
}

template <Active active>
Delivered receive(int fd, int pdus, const HandFilters& filters) {
    static char buffer[kLargestDatagram];
    Delivered delivered;
    sockaddr_in from;
    for (int i = 0; i < pdus; ++i) {
        const int length = readDatagram(fd, buffer, from);
        if (passes<active>(filters, buffer, from)) delivered.take(buffer, length);
    }
    return delivered;
}

// The length of the packet at the start of `left` bytes: its own length field, or all that is left when that
// makes no sense or the header is not like that of the datagram's first packet.
int packetLength(const char* packet, const char* first, int left) {
    std::uint16_t field;
    std::memcpy(&field, packet + 8, sizeof field);
    const int length = ntohs(field);
    if (packet[0] != first[0] || packet[1] != first[1] || length == 0 || length > left) return left;
    return length;
}

template <Active active, bool copied>
Delivered receiveBundled(int fd, int pdus, const HandFilters& filters) {
    static char buffer[kLargestDatagram];
    static char own[kLargestDatagram];
    Delivered delivered;
    sockaddr_in from;
    while (pdus > 0) {
        int left = readDatagram(fd, buffer, from);
        for (const char* packet = buffer; left >= kHeaderBytes; --pdus) {
            const int length = packetLength(packet, buffer, left);
            if (passes<active>(filters, packet, from)) {
                if (copied) std::memcpy(own, packet, static_cast<std::size_t>(length));
                delivered.take(copied ? own : packet, length);
            }
            packet += length;
            left -= length;
        }
    }
    return delivered;
}

}  // namespace

void bareSend(int fd, int port, PduSource& source, int pdus) {
    sockaddr_in to = loopbackAddress(port);
    for (int i = 0; i < pdus; ++i)
        if (::sendto(fd, source.next(), kPduBytes, 0, generic(to), sizeof to) < 0)
            fail("the bare loop cannot send");
}

void bareSendBundled(int fd, int port, PduSource& source, int pdus) {
    sockaddr_in to = loopbackAddress(port);
    static char bundle[kBundleBytes];
    std::size_t used = 0;
    for (int i = 0; i < pdus; ++i) {
        if (used + kPduBytes > kBundleBytes) {
            if (::sendto(fd, bundle, used, 0, generic(to), sizeof to) < 0) fail("the bare loop cannot send");
            used = 0;
        }
        std::memcpy(bundle + used, source.next(), kPduBytes);
        used += kPduBytes;
    }
    if (used > 0 && ::sendto(fd, bundle, used, 0, generic(to), sizeof to) < 0)
        fail("the bare loop cannot send");
}

Delivered bareReceive(int fd, int pdus, const HandFilters& filters, Active active) {
    if (active == Active::none) return receive<Active::none>(fd, pdus, filters);
    if (active == Active::type) return receive<Active::type>(fd, pdus, filters);
    return receive<Active::all>(fd, pdus, filters);
}

Delivered bareReceiveBundled(int fd, int pdus, const HandFilters& filters, Active active) {
    if (active == Active::none) return receiveBundled<Active::none, false>(fd, pdus, filters);
    if (active == Active::type) return receiveBundled<Active::type, false>(fd, pdus, filters);
    return receiveBundled<Active::all, false>(fd, pdus, filters);
}

Delivered bareReceiveBundledCopied(int fd, int pdus) {
    return receiveBundled<Active::none, true>(fd, pdus, HandFilters());
}
