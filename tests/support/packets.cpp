// SPDX-License-Identifier: BSD-3-Clause
#include "packets.h"

#include <pcap/pcap.h>

#include <stdexcept>

std::string pdu(int length, int seed, int version, int exercise, int type) {
    std::string packet(static_cast<std::size_t>(length), '\0');
    for (int i = 12; i < length; ++i)
        packet[static_cast<std::size_t>(i)] = static_cast<char>((i * 7 + seed * 31 + (seed >> 8)) & 0xFF);
    packet[0] = static_cast<char>(version);
    packet[1] = static_cast<char>(exercise);
    packet[2] = static_cast<char>(type);
    packet[3] = 1;
    return withLength(packet, length);
}

std::string withLength(std::string packet, int length) {
    packet.at(8) = static_cast<char>(length >> 8);
    packet.at(9) = static_cast<char>(length);
    return packet;
}

std::vector<std::string> recorded(const std::string& name) {
    const std::size_t kBeforePayload = 14 + 20 + 8;  // these files: Ethernet, IPv4 without options, UDP
    const std::string path = std::string(CVNC_TEST_DATA "/dis/") + name;
    char problem[PCAP_ERRBUF_SIZE] = "";
    pcap_t* capture = pcap_open_offline(path.c_str(), problem);
    if (!capture) throw std::runtime_error(path + ": " + problem);
    std::vector<std::string> datagrams;
    pcap_pkthdr* header;
    const unsigned char* bytes;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
        if (header->caplen < kBeforePayload) throw std::runtime_error(path + ": short frame");
        datagrams.emplace_back(reinterpret_cast<const char*>(bytes) + kBeforePayload,
                               header->caplen - kBeforePayload);
    }
    pcap_close(capture);
    return datagrams;
}

const std::vector<std::string>& recordedNames() {
    static const std::vector<std::string> names = {
        "composed-bundles.pcap",       "generated-dis6.pcap",           "generated-dis7.pcap",
        "real-dis5-long.pcap",         "real-dis5-short.pcap",          "real-dis6-dis7-mixed.pcap",
        "real-dis7-bundled-long.pcap", "real-dis7-bundled-patrol.pcap", "real-dis7-bundled-truncated.pcap"};
    return names;
}

Walk walk(const std::string& datagram) {
    Walk result;
    std::size_t position = 0;
    while (datagram.size() - position >= 12) {
        const std::size_t length =
            static_cast<std::size_t>(static_cast<unsigned char>(datagram[position + 8])) * 256 +
            static_cast<unsigned char>(datagram[position + 9]);
        if (length < 12 || length > datagram.size() - position) break;
        result.pdus.push_back(datagram.substr(position, length));
        position += length;
    }
    result.rest = datagram.substr(position);
    return result;
}
