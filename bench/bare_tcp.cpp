// SPDX-License-Identifier: BSD-3-Clause
// Hand-written senders, receivers and relays of packets over TCP.
#include "bare_tcp.h"

#include <sys/epoll.h>

#include "measure.h"

namespace {

const std::size_t kInboxBytes = 65536;

// How many of the bytes are whole packets, or the first one of them alone.
std::size_t wholePackets(const char* bytes, std::size_t held, bool firstAlone) {
    std::size_t whole = 0;
    while (held - whole >= static_cast<std::size_t>(kLengthEnd)) {
        std::uint16_t field;
        std::memcpy(&field, bytes + whole + kLengthOffset, sizeof field);
        const std::size_t length = ntohs(field);
        if (length == 0) fail("the epoll relay lost its place in the stream");
        if (length > held - whole) break;
        whole += length;
        if (firstAlone) break;
    }
    return whole;
}

}  // namespace

void bareAwait(int fd, char* bytes, std::size_t length) {
    while (length > 0) {
        awaitReadable(fd);
        const ssize_t got = ::recv(fd, bytes, length, 0);
        if (got <= 0) fail("the bare loop's connection ended");
        bytes += got;
        length -= static_cast<std::size_t>(got);
    }
}

void bareStreamSend(int fd, PduSource& source, int pdus) {
    for (int i = 0; i < pdus; ++i) barePut(fd, source.next(), kPduBytes);
}

void bareStreamSendBundled(int fd, PduSource& source, int pdus) {
    static char bundle[kBundleBytes];
    std::size_t used = 0;
    for (int i = 0; i < pdus; ++i) {
        if (used + kPduBytes > kBundleBytes) {
            barePut(fd, bundle, used);
            used = 0;
        }
        std::memcpy(bundle + used, source.next(), kPduBytes);
        used += kPduBytes;
    }
    if (used > 0) barePut(fd, bundle, used);
}

Delivered bareStreamReceive(int fd, int pdus) {
    static char packet[kLargestPacket];
    Delivered delivered;
    while (delivered.packets < static_cast<std::uint64_t>(pdus)) {
        const int length = bareTake(fd, packet);
        if (length > 0)
            delivered.take(packet, length);
        else
            awaitReadable(fd);
    }
    return delivered;
}

void bareRelay(const std::vector<int>& connections, double end) {
    static char packet[kLargestPacket];
    for (const int from : connections) {
        while (end > seconds(CLOCK_MONOTONIC)) {
            const int length = bareTake(from, packet);
            if (length == 0) break;
            for (const int to : connections) barePut(to, packet, static_cast<std::size_t>(length));
        }
    }
}

BareEpollRelay::BareEpollRelay(const std::vector<int>& connections) : myEpoll(::epoll_create1(0)) {
    for (const int fd : connections) {
        epoll_event event = epoll_event();
        event.events = EPOLLIN;
        event.data.u64 = myInboxes.size();
        if (::epoll_ctl(myEpoll, EPOLL_CTL_ADD, fd, &event) != 0) fail("cannot watch a connection");
        myInboxes.push_back(Inbox{fd, std::vector<char>(kInboxBytes), 0});
    }
}

void BareEpollRelay::run(bool together) {
    epoll_event events[64];
    for (;;) {
        const int ready = ::epoll_wait(myEpoll, events, 64, 0);
        if (ready <= 0) return;
        for (int i = 0; i < ready; ++i) takeFrom(myInboxes[events[i].data.u64], together);
    }
}

void BareEpollRelay::takeFrom(Inbox& inbox, bool together) {
    const ssize_t got = ::recv(inbox.fd, inbox.bytes.data() + inbox.held, kInboxBytes - inbox.held, 0);
    if (got <= 0) fail("the epoll relay's connection ended");
    inbox.held += static_cast<std::size_t>(got);
    std::size_t done = 0;
    while (const std::size_t whole = wholePackets(&inbox.bytes[done], inbox.held - done, !together)) {
        toAll(&inbox.bytes[done], whole);
        done += whole;
        if (done == inbox.held) break;
    }
    inbox.held -= done;
    std::memmove(inbox.bytes.data(), inbox.bytes.data() + done, inbox.held);
}

void BareEpollRelay::toAll(const char* bytes, std::size_t length) {
    for (const Inbox& inbox : myInboxes) barePut(inbox.fd, bytes, length);
}
