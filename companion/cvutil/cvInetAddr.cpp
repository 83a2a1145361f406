// SPDX-License-Identifier: BSD-3-Clause
// Dotted quads, in both directions.
#include <cvutil/cvInetAddr.h>

#include <arpa/inet.h>

#include <cstdio>

namespace {

// As many results as the header promises to keep alive in one thread. Plain bytes: they need no destructor,
// so a thread may still ask while it ends.
const unsigned kResults = 16;
thread_local char theResults[kResults][INET_ADDRSTRLEN];
thread_local unsigned theNextResult = 0;

unsigned octet(NwIpv4Addr addrHostOrder, int index) {
    return (addrHostOrder >> (24 - 8 * index)) & 0xFF;
}

}  // namespace

const char* NwInetAddrString(NwIpv4Addr addrHostOrder) {
    char* result = theResults[theNextResult++ % kResults];
    std::snprintf(result, INET_ADDRSTRLEN, "%u.%u.%u.%u", octet(addrHostOrder, 0), octet(addrHostOrder, 1),
                  octet(addrHostOrder, 2), octet(addrHostOrder, 3));
    return result;
}

bool NwInetAddrFromString(const char* text, NwIpv4Addr* addrHostOrder) {
    in_addr addr;
    if (!text || inet_pton(AF_INET, text, &addr) != 1) return false;
    if (addrHostOrder) *addrHostOrder = ntohl(addr.s_addr);
    return true;
}
