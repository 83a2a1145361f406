// SPDX-License-Identifier: BSD-3-Clause
// What a UDP receiver must make of the datagrams that reach it, worked out a second time and in the plainest
// way: on copies, with strings that end where the bytes end. Tests and fuzz targets hold the library against
// it.
#ifndef CVNC_TESTS_SPLIT_MODEL_H
#define CVNC_TESTS_SPLIT_MODEL_H

#include <cstddef>
#include <deque>
#include <functional>
#include <string>

struct SplitModel {
    struct Datagram {
        std::string bytes;
        unsigned int source = 0;
        bool own = false;
    };
    // One receive call: what it returns, writes through status, and lends.
    struct Outcome {
        int length = 0;
        int status = 0;
        std::string bytes;
        std::string warnings;  // what it prints unless quiet
        bool readNothing = false;
    };

    // Settings, with the values of a new socket.
    bool unbundling = true;
    bool headerTest = true;
    bool networkOrder = true;
    int minSize = 12;
    int offset = 8;
    int width = 2;
    std::size_t room = 15000;  // bytes of the receive buffer: what is longer arrives cut
    // The header filters: first three bytes (zeros where there are none), sender.
    std::function<bool(const std::string&, unsigned int)> accepts = [](const std::string&, unsigned int) {
        return true;
    };

    // State.
    std::deque<Datagram> queue;  // datagrams in the kernel
    std::string rest;            // bytes of the datagram being split
    unsigned int restSource = 0;
    bool isFirst = true;
    int version = 0, exercise = 0;  // of the first packet of the datagram being split
    unsigned int lastSource = 0;
    int received = 0;

    Outcome receive() {
        Outcome outcome;
        const bool delivered = unbundling ? nextPacket(outcome) : nextDatagram(outcome);
        if (!delivered) return outcome;
        if (accepts(outcome.bytes, lastSource)) {
            outcome.status = 1;
            outcome.bytes.resize(static_cast<std::size_t>(outcome.length));
        } else {
            outcome.status = -2;
            outcome.length = 0;
            outcome.bytes.clear();
        }
        return outcome;
    }

private:
    enum Read { kNothing, kEmpty, kOwn, kBytes };

    Read read(std::string& bytes, Outcome& outcome) {
        if (queue.empty()) {
            outcome.readNothing = true;
            return kNothing;
        }
        const Datagram datagram = queue.front();
        queue.pop_front();
        bytes = datagram.bytes.substr(0, room);
        lastSource = datagram.source;
        if (bytes.empty()) outcome.warnings += "0 bytes read from net\n";
        if (datagram.own) return kOwn;
        ++received;
        return bytes.empty() ? kEmpty : kBytes;
    }

    static std::string withZeros(std::string bytes) {
        if (bytes.size() < 3) bytes.resize(3);
        return bytes;
    }

    bool nextDatagram(Outcome& outcome) {
        std::string bytes;
        const Read what = read(bytes, outcome);
        if (what == kOwn) outcome.status = -3;
        if (what != kBytes) return false;
        outcome.length = static_cast<int>(bytes.size());
        outcome.bytes = withZeros(bytes);
        return true;
    }

    bool nextPacket(Outcome& outcome) {
        for (;;) {
            isFirst = rest.empty();
            if (isFirst) {
                if (read(rest, outcome) != kBytes) {
                    rest.clear();
                    return false;
                }
                restSource = lastSource;
            }
            lastSource = restSource;
            if (static_cast<long>(rest.size()) >= minSize) break;
            outcome.warnings += "NwNetSocket: " + std::string(isFirst ? "" : "unbundling ") +
                                "problem: packet size less than " + std::to_string(minSize) + " bytes\n";
            rest.clear();
        }
        unsigned long size = headerTest ? sizeByHeader(outcome) : lengthField(offset, width);
        if (size == 0 || size > rest.size()) size = rest.size();
        outcome.length = static_cast<int>(size);
        outcome.bytes = withZeros(rest);  // the filters look at the buffer, not at the packet alone
        rest.erase(0, size);
        return true;
    }

    unsigned long sizeByHeader(Outcome& outcome) {
        const std::string header = withZeros(rest);
        const int itsVersion = static_cast<unsigned char>(header[0]);
        const int itsExercise = static_cast<unsigned char>(header[1]);
        if (isFirst) {
            version = itsVersion;
            exercise = itsExercise;
        } else if (itsVersion != version || itsExercise != exercise) {
            outcome.warnings +=
                "Unbundling warning: PDU header not similar to first                 in bundle\n"
                "    (Protocol,exercise) = (" +
                std::to_string(itsVersion) + "," + std::to_string(itsExercise) + ") when expecting (" +
                std::to_string(version) + "," + std::to_string(exercise) + ")\n";
            return 0;
        }
        return lengthField(8, 2);
    }

    // Byte by byte, most significant first in network order, least first in that of this (x86-64) host.
    unsigned long lengthField(long at, int bytes) const {
        if (bytes != 1 && bytes != 4) bytes = 2;
        if (at < 0 || at + bytes > static_cast<long>(rest.size())) return 0;
        unsigned long value = 0;
        for (int i = 0; i < bytes; ++i) {
            const long place = networkOrder ? at + i : at + bytes - 1 - i;
            value = value * 256 + static_cast<unsigned char>(rest[static_cast<std::size_t>(place)]);
        }
        return value;
    }
};

#endif
