// SPDX-License-Identifier: BSD-3-Clause
// The yardstick: the fastest loops that we know to write by hand with the system calls and flags that the
// library uses, no virtual call, no list, no copy that the work does not need.
#ifndef BENCH_BARE_LOOPS_H
#define BENCH_BARE_LOOPS_H

#include "traffic.h"

// Header filters by hand: a packet passes when each field that is looked at is among these values.
struct HandFilters {
    std::vector<unsigned int> versions, exercises, types, addresses;
};

// Which of them are looked at.
enum class Active { none, type, all };

void bareSend(int fd, int port, PduSource& source, int pdus);
void bareSendBundled(int fd, int port, PduSource& source, int pdus);

// Receives datagrams that hold one PDU each.
Delivered bareReceive(int fd, int pdus, const HandFilters& filters, Active active);
// Receives datagrams and splits them by the length field, comparing each header with the first one's.
Delivered bareReceiveBundled(int fd, int pdus, const HandFilters& filters, Active active);
// The same, with each packet copied to the application's own storage.
Delivered bareReceiveBundledCopied(int fd, int pdus);

#endif
