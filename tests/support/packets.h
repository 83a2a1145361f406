// SPDX-License-Identifier: BSD-3-Clause
// Packets for tests: PDUs made by hand, and recorded traffic with a walk over it that is not the library's.
#ifndef CVNC_TESTS_PACKETS_H
#define CVNC_TESTS_PACKETS_H

#include <string>
#include <vector>

// A PDU of length bytes (12 or more): IEEE 1278.1 header with its length in network byte order, and a body
// that depends on seed. Deliberately wrong lengths are set with withLength.
std::string pdu(int length, int seed = 0, int version = 7, int exercise = 1, int type = 1);
std::string withLength(std::string packet, int length);

// The UDP payloads of a capture (pcap, Ethernet), in order; recorded() takes a name in tests/data/dis.
std::vector<std::string> recorded(const std::string& name);
// The names of all captures there.
const std::vector<std::string>& recordedNames();

// One datagram cut by the 16-bit lengths at bytes 8 and 9: the PDUs, and what does not walk as a PDU.
struct Walk {
    std::vector<std::string> pdus;
    std::string rest;
};
Walk walk(const std::string& datagram);

#endif
