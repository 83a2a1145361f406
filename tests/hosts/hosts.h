// SPDX-License-Identifier: BSD-3-Clause
// What the tests with several hosts share: sockets on a host, and what they receive.
#ifndef CVNC_TESTS_HOSTS_H
#define CVNC_TESTS_HOSTS_H

#include <cvNetworkCompatibility/cvNetSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

#include "messages.h"
#include "network.h"
#include "packets.h"

// Every host of a test is new and its own, so every port is free on it.
const int kPort = 3000;

const NwIpv4Addr kDefault = NwUSE_DEFAULT_IP_ADDR;
const unsigned char kRead = NwNetSocketRead;
const unsigned char kWrite = NwNetSocketWrite;
const unsigned char kReadWrite = NwNetSocketRead | NwNetSocketWrite;
const unsigned char kBind = NwNetSocketBindToDest;

using Socket = std::unique_ptr<NwNetSocket>;

inline Socket openOn(const Host& host, unsigned int mode = kReadWrite, NwIpv4Addr address = kDefault,
                     NwIpv4Addr device = kDefault, int port = kPort) {
    Socket socket;
    host.in([&] {
        socket = std::make_unique<NwNetSocket>(port, address, static_cast<unsigned char>(mode), device);
    });
    return socket;
}

inline int send(NwNetSocket& socket, std::string packet, NwIpv4Addr to = kDefault) {
    return socket.NwSend(&packet[0], packet.size(), to);
}

// What one receive call came back with.
struct Received {
    int status;
    std::string packet;
    NwIpv4Addr from;

    bool operator==(const Received& other) const {
        return status == other.status && packet == other.packet && (status != 1 || from == other.from);
    }
};

inline std::ostream& operator<<(std::ostream& out, const Received& received) {
    return out << "status " << received.status << ", " << received.packet.size() << " bytes from "
               << NwInetAddrString(received.from);
}

// A delivered packet, and a call that delivered none.
inline Received packetFrom(const std::string& address, const std::string& packet) {
    return {1, packet, ipv4(address)};
}
inline Received nothing(int status) {
    return {status, std::string(), 0};
}

// Waits until there is something to read and receives once.
inline Received receive(NwNetSocket& socket) {
    Received received = {7, std::string(), 0};
    if (!socket.dataLeftInCurrentBundle() && !waitReadable(socket.readFd())) {
        ADD_FAILURE() << "nothing came";
        return received;
    }
    char* packet = nullptr;
    const int length = socket.NwRecv(&packet, &received.status);
    if (length > 0) received.packet.assign(packet, static_cast<std::size_t>(length));
    received.from = socket.lastSourceInetAddr();
    return received;
}

// Whether nothing waits now. On one cable what is sent first arrives first: look after a later packet has
// come.
inline bool isEmpty(NwNetSocket& socket) {
    return !socket.dataLeftInCurrentBundle() && !waitReadable(socket.readFd(), 0);
}

class HostsTest : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_NETWORK();
        NwNetSocket::initErrorAction = 1;
        build();
    }
    void TearDown() override { NwNetSocket::initErrorAction = 0; }

    // The network of the test.
    virtual void build() {}

    Messages messages;
};

// west 10.9.0.1 ---- 10.9.0.2 east
class TwoHosts : public HostsTest {
protected:
    void build() override {
        west = std::make_unique<Host>();
        east = std::make_unique<Host>();
        plugIn("10.9.0.1/24", "10.9.0.2/24");
    }
    void plugIn(const std::string& westAddress, const std::string& eastAddress) {
        west->connect("wire", westAddress, *east, "wire", eastAddress);
    }
    // Both ends go.
    void unplug() {
        west->in([] { run("ip link del wire"); });
    }

    std::unique_ptr<Host> west, east;
};

// west 10.1.0.1 ---- 10.1.0.2 middle 10.2.0.2 ---- 10.2.0.3 east; middle's first interface is the western
// one.
class ThreeHosts : public HostsTest {
protected:
    void build() override {
        west = std::make_unique<Host>();
        middle = std::make_unique<Host>();
        east = std::make_unique<Host>();
        middle->connect("westward", "10.1.0.2/24", *west, "wire", "10.1.0.1/24");
        middle->connect("eastward", "10.2.0.2/24", *east, "wire", "10.2.0.3/24");
    }

    std::unique_ptr<Host> west, middle, east;
};

#endif
