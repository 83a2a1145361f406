// SPDX-License-Identifier: BSD-3-Clause
// IPv4 addresses as numbers and as text.
//
//     NwInfo("from %s to %s\n", NwInetAddrString(source), NwInetAddrString(target));
#ifndef CVUTIL_CVINETADDR_H
#define CVUTIL_CVINETADDR_H

#include <cvutil/cvExport.h>

// An IPv4 address in host order: 127.0.0.1 is 0x7F000001 on every machine.
typedef unsigned int NwIpv4Addr;

// The dotted-quad text of a host-order address. Never null, not to be freed. The text belongs to the calling
// thread and is good until that thread has asked for 16 more, so several may stand in one message; copy it to
// keep it longer or to hand it to another thread.
NWUTIL_API const char* NwInetAddrString(NwIpv4Addr addrHostOrder);

// Reads a dotted quad: four decimal numbers of 0 to 255, without leading zeros, blanks, signs or anything
// before or behind. True: the address is in *addrHostOrder (which may be null when only the answer matters).
// False, *addrHostOrder untouched: the text is null or no such address; names are not looked up. Any thread
// may call.
NWUTIL_API bool NwInetAddrFromString(const char* text, NwIpv4Addr* addrHostOrder);

#endif
