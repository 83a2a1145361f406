// SPDX-License-Identifier: BSD-3-Clause
// What goes over loopback: PDUs of 144 bytes, the sockets at both ends, and the fill and drain that happen
// outside of what is timed.
#ifndef BENCH_TRAFFIC_H
#define BENCH_TRAFFIC_H

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

const int kPduBytes = 144;  // an Entity State PDU without articulations
const int kBundleBytes = 1400;
const int kPdusPerBundle = kBundleBytes / kPduBytes;
const int kLargestDatagram = 15000;  // the library's default packet size; the bare loop reads as much

const unsigned int kPduVersion = 7;
const unsigned int kPduExercise = 1;
const unsigned int kPduType = 1;

using Pdu = std::array<char, kPduBytes>;

// What a consumer looked at. Both sides of a comparison must come to the same.
struct Delivered {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t checksum = 0;

    // Looks at a packet as an application would: its length and a field of it (the time stamp).
    void take(const char* packet, int length) {
        std::uint32_t stamp;
        std::memcpy(&stamp, packet + 4, sizeof stamp);
        ++packets;
        bytes += static_cast<std::uint64_t>(length);
        checksum += stamp;
    }
    bool operator==(const Delivered& other) const {
        return packets == other.packets && bytes == other.bytes && checksum == other.checksum;
    }
};

// A source of PDUs that differ from each other: the same ones for both sides.
class PduSource {
public:
    PduSource();
    char* next() { return pdus[place++ % kCount].data(); }
    void restart() { place = 0; }
    // Restarts, and says what a receiver of the next `count` packets must find.
    Delivered first(int count);

private:
    static const std::size_t kCount = 64;
    std::array<Pdu, kCount> pdus;
    std::size_t place;
};

// Ends the program with a clear line: a benchmark whose work was not done has nothing to say.
[[noreturn]] void fail(const std::string& what);

// A descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int owned) : fd(owned) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) : fd(std::exchange(other.fd, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return fd; }

private:
    int fd;
};

// An open UDP socket; bound to 127.0.0.1 and a port of the kernel's choice when asked for.
int openSocket(bool bound);
int portOf(int fd);
// TCP: one that listens on 127.0.0.1 and a port of the kernel's choice; one that is connected to a port, and
// never waits from then on.
int openListener();
int openConnection(int port);
// Waits until there is something to read. Ends the program when nothing comes: it was lost.
void awaitReadable(int fd);
sockaddr_in loopbackAddress(int port);

// Asks for a large receive buffer. Returns how many datagrams of up to a bundle's size it surely holds.
int roomForDatagrams(int fd, int wanted);

// Sends datagrams of `pdusEach` PDUs to `port`, by bare calls, and says what a receiver must find.
Delivered fill(int fd, int port, PduSource& source, int datagrams, int pdusEach);

// Reads what waits at a socket, without waiting, and throws it away. Returns the bytes.
std::uint64_t drain(int fd);

#endif
