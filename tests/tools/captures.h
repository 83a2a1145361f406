// SPDX-License-Identifier: BSD-3-Clause
// Captures made byte by byte, without libpcap: what cvnet reads is checked against these, not against itself.
#ifndef CVNC_TESTS_CAPTURES_H
#define CVNC_TESTS_CAPTURES_H

#include <cstdint>
#include <string>
#include <vector>

std::string u16(unsigned value);  // network byte order
std::string u32(unsigned value);

struct Ipv4Options {
    unsigned identification = 1;
    unsigned fragment = 0;  // flags and offset as in the header
    unsigned protocol = 17;
    int totalLength = -1;  // -1: the right one
};
std::string ipv4(const std::string& content, const Ipv4Options& options = {});
// lengthField -1: the right one.
std::string udp(const std::string& payload, int lengthField = -1);
std::string udpPacket(const std::string& payload);  // IPv4 and UDP around it
std::string ethernet(const std::string& packet, unsigned type = 0x0800);

struct Frame {
    double seconds;
    std::string bytes;
    unsigned cutOff = 0;  // bytes that the recorder did not keep
};

// The link types as they stand in the files (LINKTYPE_...).
enum LinkType : unsigned {
    linkNull = 0,
    linkEthernet = 1,
    linkRaw = 101,
    linkLoop = 108,
    linkCooked = 113,
    linkIpv4 = 228,
    linkCooked2 = 276,
    linkWifi = 105
};

// A classic pcap file, little-endian, microseconds.
std::string pcapFile(const std::vector<Frame>& frames, unsigned linkType = linkEthernet);
// A pcapng file: section, interface and enhanced packet blocks.
std::string pcapngFile(const std::vector<Frame>& frames, unsigned linkType = linkEthernet);

// Ethernet frames with these datagrams, 1 ms apart (or as given).
std::string datagramsFile(const std::vector<std::string>& payloads, double secondsApart = 0.001);

void writeFile(const std::string& path, const std::string& bytes);
std::string readFile(const std::string& path);

#endif
