// SPDX-License-Identifier: BSD-3-Clause
// Senders and receivers as an application writes them.
#include "library_loops.h"

namespace {

void set(NwFilterTest& test, const std::vector<unsigned int>& values) {
    std::vector<unsigned int> copy = values;
    test.setTest(NwTestInclude, static_cast<int>(copy.size()), copy.data());
}

}  // namespace

void librarySend(NwSocket& socket, PduSource& source, int pdus) {
    for (int i = 0; i < pdus; ++i)
        if (socket.NwSend(source.next(), kPduBytes, NwUSE_DEFAULT_IP_ADDR) < 0)
            fail("the library cannot send");
    if (socket.flush() < 0) fail("the library cannot flush");
}

Delivered libraryReceive(NwSocket& socket, int pdus) {
    Delivered delivered;
    for (int i = 0; i < pdus; ++i) {
        char* packet = nullptr;
        int status = 0;
        const int length = socket.NwRecv(&packet, &status);
        if (length > 0)
            delivered.take(packet, length);
        else if (status == 0)
            fail("the library received nothing");
    }
    return delivered;
}

Delivered libraryReceiveCopied(NwSocket& socket, int pdus) {
    static char own[kLargestDatagram];
    Delivered delivered;
    for (int i = 0; i < pdus; ++i) {
        const int length = socket.NwRecv(own, sizeof own);
        if (length <= 0) fail("the library received nothing");
        delivered.take(own, length);
    }
    return delivered;
}

Delivered libraryStreamReceive(NwSocket& socket, int pdus) {
    Delivered delivered;
    while (delivered.packets < static_cast<std::uint64_t>(pdus)) {
        char* packet = nullptr;
        const int length = socket.NwRecv(&packet, nullptr);
        if (length > 0)
            delivered.take(packet, length);
        else if (!socket.isOk())
            fail("the library's connection ended");
        else
            awaitReadable(socket.readFd());
    }
    return delivered;
}

Delivered emptyLoops(PduSource& source, int pdus) {
    char* packet = nullptr;
    int length = kPduBytes;
    for (int i = 0; i < pdus; ++i) {
        packet = source.next();
        asm volatile("" : "+r"(packet));  // the compiler must believe that something used it
    }
    Delivered delivered;
    for (int i = 0; i < pdus; ++i) {
        asm volatile("" : "+r"(packet), "+r"(length));
        delivered.take(packet, length);
    }
    return delivered;
}

void setFilters(NwSocket& socket, const HandFilters& filters, Active active) {
    socket.protocolVersion().disableTest();
    socket.exerciseId().disableTest();
    socket.pduKind().disableTest();
    socket.ipAddr().disableTest();
    if (active == Active::none) return;
    set(socket.pduKind(), filters.types);
    if (active == Active::type) return;
    set(socket.protocolVersion(), filters.versions);
    set(socket.exerciseId(), filters.exercises);
    set(socket.ipAddr(), filters.addresses);
}
