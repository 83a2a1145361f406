// SPDX-License-Identifier: BSD-3-Clause
#include "captures.h"

#include <fstream>
#include <sstream>

namespace {

// Files are written in this machine's order, little-endian, as the first four bytes of each say.
std::string le16(unsigned value) {
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}
std::string le32(unsigned value) {
    return le16(value & 0xFFFF) + le16(value >> 16);
}

std::string block(unsigned type, std::string body) {
    body.resize((body.size() + 3) / 4 * 4);
    const unsigned length = static_cast<unsigned>(body.size()) + 12;
    return le32(type) + le32(length) + body + le32(length);
}

}  // namespace

std::string u16(unsigned value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}
std::string u32(unsigned value) {
    return u16(value >> 16) + u16(value & 0xFFFF);
}

std::string ipv4(const std::string& content, const Ipv4Options& options) {
    const unsigned total = options.totalLength >= 0 ? static_cast<unsigned>(options.totalLength)
                                                    : 20 + static_cast<unsigned>(content.size());
    return std::string("\x45\0", 2) + u16(total) + u16(options.identification) + u16(options.fragment) +
           "\x40" + std::string(1, static_cast<char>(options.protocol)) + u16(0) + u32(0x0A141E01) +
           u32(0x0A141EFF) + content;
}

std::string udp(const std::string& payload, int lengthField) {
    const unsigned length =
        lengthField >= 0 ? static_cast<unsigned>(lengthField) : 8 + static_cast<unsigned>(payload.size());
    return u16(3001) + u16(3000) + u16(length) + u16(0) + payload;
}

std::string udpPacket(const std::string& payload) {
    return ipv4(udp(payload));
}

std::string ethernet(const std::string& packet, unsigned type) {
    return std::string(6, '\xFF') + std::string("\x02\0\0\0\0\x01", 6) + u16(type) + packet;
}

std::string pcapFile(const std::vector<Frame>& frames, unsigned linkType) {
    std::string file =
        le32(0xA1B2C3D4) + le16(2) + le16(4) + le32(0) + le32(0) + le32(262144) + le32(linkType);
    for (const Frame& frame : frames) {
        const unsigned seconds = static_cast<unsigned>(frame.seconds);
        const unsigned kept = static_cast<unsigned>(frame.bytes.size()) - frame.cutOff;
        file += le32(1600000000 + seconds) + le32(static_cast<unsigned>((frame.seconds - seconds) * 1e6)) +
                le32(kept) + le32(static_cast<unsigned>(frame.bytes.size())) + frame.bytes.substr(0, kept);
    }
    return file;
}

std::string pcapngFile(const std::vector<Frame>& frames, unsigned linkType) {
    std::string file = block(0x0A0D0D0A, le32(0x1A2B3C4D) + le16(1) + le16(0) + std::string(8, '\xFF'));
    file += block(1, le16(linkType) + le16(0) + le32(0));
    for (const Frame& frame : frames) {
        const auto microseconds = static_cast<std::uint64_t>((1600000000.0 + frame.seconds) * 1e6);
        const unsigned size = static_cast<unsigned>(frame.bytes.size());
        file +=
            block(6, le32(0) + le32(static_cast<unsigned>(microseconds >> 32)) +
                         le32(static_cast<unsigned>(microseconds)) + le32(size) + le32(size) + frame.bytes);
    }
    return file;
}

std::string datagramsFile(const std::vector<std::string>& payloads, double secondsApart) {
    std::vector<Frame> frames;
    frames.reserve(payloads.size());
    for (const std::string& payload : payloads) {
        frames.push_back(
            {secondsApart * static_cast<double>(frames.size()), ethernet(udpPacket(payload)), 0});
    }
    return pcapFile(frames);
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes << std::flush;
}

std::string readFile(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}
