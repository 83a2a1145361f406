// SPDX-License-Identifier: BSD-3-Clause
// What one receive call came back with, as tests compare and print it.
#ifndef CVNC_TESTS_RECEIVED_H
#define CVNC_TESTS_RECEIVED_H

#include <ostream>
#include <string>

struct Received {
    int result;
    int status;
    std::string packet;
    bool isNull;

    bool operator==(const Received& other) const {
        return result == other.result && status == other.status && packet == other.packet &&
               isNull == other.isNull;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Received& received) {
    return out << "result " << received.result << ", status " << received.status << ", "
               << (received.isNull ? "no packet" : "\"" + received.packet.substr(0, 20) + "\"");
}

inline Received delivered(const std::string& packet) {
    return {static_cast<int>(packet.size()), 1, packet, false};
}

inline Received nothing(int status = 0) {
    return {0, status, "", true};
}

#endif
