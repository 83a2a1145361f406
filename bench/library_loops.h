// SPDX-License-Identifier: BSD-3-Clause
// The same work through the library, written as an application writes it: through an NwSocket.
#ifndef BENCH_LIBRARY_LOOPS_H
#define BENCH_LIBRARY_LOOPS_H

#include <cvNetworkCompatibility/cvSocket.h>

#include "bare_loops.h"
#include "traffic.h"

// Whether these go out in bundles is the socket's setting. Whatever waits is flushed at the end.
void librarySend(NwSocket& socket, PduSource& source, int pdus);

// Receives packets until `pdus` have been looked at, refused ones included.
Delivered libraryReceive(NwSocket& socket, int pdus);
// The same through the form that copies to the application's own storage.
Delivered libraryReceiveCopied(NwSocket& socket, int pdus);

// Receives `pdus` packets from a stream, whose calls never wait: they have arrived or are under way.
Delivered libraryStreamReceive(NwSocket& socket, int pdus);

// What these loops do around the library: the same PDUs made and looked at, nothing sent, nothing received.
Delivered emptyLoops(PduSource& source, int pdus);

// Gives the socket the filters that the bare loop applies by hand.
void setFilters(NwSocket& socket, const HandFilters& filters, Active active);

#endif
