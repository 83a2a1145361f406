// SPDX-License-Identifier: BSD-3-Clause
// A host that has no interface but loopback, or none that can broadcast.
#include <netinet/in.h>
#include <sys/resource.h>

#include <csignal>
#include <iostream>
#include <set>
#include <stdexcept>

#include "child.h"
#include "hosts.h"

namespace {

const NwIpv4Addr kGroup = 0xEF010203u;  // 239.1.2.3
const char* const kNoneCapable = "Couldn't find an IP interface capable of broadcast.\n";
const char* const kNoneCapableTwice =
    "Couldn't find an IP interface capable of broadcast.\n"
    "Couldn't find an IP interface capable of broadcast.\n";

class LoopbackOnly : public HostsTest {
protected:
    void build() override { host = std::make_unique<Host>(); }

    // What becomes of a process that makes a socket on that host, with the setting that processes start with.
    ChildResult inAProcessThatOpens(unsigned char mode, NwIpv4Addr address) {
        ChildResult result;
        host->in([&] {
            result = inChild([&] {
                const rlimit noCore = {0, 0};
                ::setrlimit(RLIMIT_CORE, &noCore);
                NwNetSocket::initErrorAction = 0;
                NwWarn.rdbuf(std::cerr.rdbuf());
                NwNetSocket socket(kPort, address, mode, 0u);
                return socket.isOk() ? 0 : 3;
            });
        });
        return result;
    }
    void sendFromAPeer(const std::string& bytes) {
        host->in([&] {
            UdpPeer peer;
            peer.send(bytes, kPort);
        });
    }

    std::unique_ptr<Host> host;
};

TEST_F(LoopbackOnly, hasNoDefaultInterface) {
    host->in([] {
        EXPECT_EQ(NwFirstHostInetAddr(), 0u);
        EXPECT_EQ(NwInetBroadcastOfDevice(nullptr), 0u);
    });
    EXPECT_EQ(messages.warn(), kNoneCapableTwice);
}

TEST_F(LoopbackOnly, aWritingSocketNeedsADestination) {
    Socket socket = openOn(*host, kReadWrite);
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(messages.warn(), kNoneCapableTwice);  // for its interface, then for its destination
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(socket->writeFd(), -1);
    EXPECT_EQ(send(*socket, pdu(144)), -1);
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
    // The other side opened.
    EXPECT_GE(socket->readFd(), 0);
    sendFromAPeer(pdu(144));
    EXPECT_EQ(receive(*socket), packetFrom("127.0.0.1", pdu(144)));

    Socket writer = openOn(*host, kWrite);
    EXPECT_FALSE(writer->isOk());
    EXPECT_EQ(writer->writeFd(), -1);
    EXPECT_EQ(writer->readFd(), -1);
}

TEST_F(LoopbackOnly, quietSocketsFailWithoutAWord) {
    Quiet quiet;
    Socket socket = openOn(*host, kReadWrite);
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(send(*socket, pdu(144)), -1);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(LoopbackOnly, theFailureEndsTheProcessUnlessItIsToldNotTo) {
    for (unsigned char mode : {kWrite, kReadWrite}) {
        const ChildResult result = inAProcessThatOpens(mode, kDefault);
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.output, kNoneCapableTwice);
    }
}

TEST_F(LoopbackOnly, whatNeedsNoBroadcastAddressEndsNoProcess) {
    EXPECT_EQ(inAProcessThatOpens(kRead, kDefault).exitStatus, 0);
    EXPECT_EQ(inAProcessThatOpens(kRead, kGroup).exitStatus, 0);
    EXPECT_EQ(inAProcessThatOpens(kReadWrite, kLoopback).exitStatus, 0);
}

TEST_F(LoopbackOnly, aReadingSocketIsFine) {
    Socket socket = openOn(*host, kRead);
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(messages.warn(), kNoneCapable);  // for its interface
    EXPECT_EQ(messages.info(), "NetSocket ok to read port 3000\n");
    sendFromAPeer(pdu(144));
    EXPECT_EQ(receive(*socket), packetFrom("127.0.0.1", pdu(144)));
}

TEST_F(LoopbackOnly, withDestinationAndDeviceEverythingWorksInSilence) {
    Socket socket = openOn(*host, kReadWrite, kLoopback, kLoopback);
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(messages.info(), "NetSocket ok for port 3000 to 127.0.0.1\n");
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(send(*socket, pdu(144)), 144);
    EXPECT_EQ(receive(*socket), packetFrom("127.0.0.1", pdu(144)));
}

TEST_F(LoopbackOnly, loopbacksOwnBroadcastAddressReachesAllSockets) {
    Socket first = openOn(*host, kReadWrite, ipv4("127.255.255.255"), kLoopback);
    Socket second = openOn(*host, kRead, kDefault, kLoopback);
    EXPECT_EQ(send(*first, pdu(144)), 144);
    EXPECT_EQ(receive(*first), packetFrom("127.0.0.1", pdu(144)));
    EXPECT_EQ(receive(*second), packetFrom("127.0.0.1", pdu(144)));
}

TEST_F(LoopbackOnly, groupsWorkWithADeviceGivenAtConstruction) {
    Socket first = openOn(*host, kReadWrite, kGroup, kLoopback),
           second = openOn(*host, kRead, kGroup, kLoopback);
    EXPECT_EQ(send(*first, pdu(144)), 144);
    EXPECT_EQ(receive(*first), packetFrom("127.0.0.1", pdu(144)));
    EXPECT_EQ(receive(*second), packetFrom("127.0.0.1", pdu(144)));
}

TEST_F(LoopbackOnly, groupsWithoutADeviceAreNotJoinedAndNothingIsSaid) {
    Socket socket = openOn(*host, kRead, kGroup);
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(messages.warn(), kNoneCapable);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(messages.warn(), "");
    host->in([] { EXPECT_EQ(groupsJoinedOn("lo"), std::set<NwIpv4Addr>{}); });
    Socket sender = openOn(*host, kReadWrite, kGroup, kLoopback, kPort + 1);
    EXPECT_EQ(sender->dropMulticastGroup(kGroup, kDefault), 1);
    sender->setSendPort(kPort);
    EXPECT_EQ(send(*sender, pdu(144)), 144);
    sendFromAPeer(pdu(100));
    EXPECT_EQ(receive(*socket), packetFrom("127.0.0.1", pdu(100)));
}

TEST_F(LoopbackOnly, interfacesThatAreDownOrCannotBroadcastDoNotCount) {
    host->in([] {
        run("ip link add va type veth && ip addr add 10.9.0.1/24 dev va");
        try {
            run("ip tuntap add dev tun0 mode tun && ip addr add 10.5.0.1/24 dev tun0 && ip link set tun0 up");
        } catch (const std::runtime_error&) {
            // A system without tunnels: the interface that is down remains.
        }
    });
    EXPECT_FALSE(openOn(*host, kWrite)->isOk());
    EXPECT_EQ(messages.warn(), kNoneCapableTwice);
    host->in([] { run("ip link set va up"); });
    EXPECT_TRUE(openOn(*host, kWrite)->isOk());
    EXPECT_EQ(messages.warn(), "");
    EXPECT_EQ(messages.info(), "NetSocket ok for port 3000 to 10.9.0.255\n");
}

}  // namespace
