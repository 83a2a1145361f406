// SPDX-License-Identifier: BSD-3-Clause
// Groups: joining and leaving, the interface and the time-to-live of outgoing multicast.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"
#include "packets.h"

namespace {

const NwIpv4Addr kGroup = 0xEF010203u;       // 239.1.2.3
const NwIpv4Addr kOtherGroup = 0xEF010204u;  // 239.1.2.4
const NwIpv4Addr kDefault = NwUSE_DEFAULT_IP_ADDR;
const unsigned char kRead = NwNetSocketRead;
const unsigned char kWrite = NwNetSocketWrite;
const unsigned char kReadWrite = NwNetSocketRead | NwNetSocketWrite;
const unsigned char kBind = NwNetSocketBindToDest;
const unsigned char kOpensNothing = NwNetSocketQuietStart;

const char* const kIneffective = "listenToMulticastGroup ineffective while bound to destAddr\n";

using Groups = std::set<NwIpv4Addr>;

std::string listening(const std::string& group, const std::string& interface) {
    return "Listening to multicast group: " + group + " on interface: " + interface + "\n";
}

// The interface that the system has for the outgoing multicast of a descriptor.
NwIpv4Addr outgoingInterface(int fd) {
    in_addr address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address, &size), 0);
    return ntohl(address.s_addr);
}

int timeToLive(int fd) {
    int ttl = -1;
    socklen_t size = sizeof ttl;
    EXPECT_EQ(::getsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &size), 0);
    return ttl;
}

int portOf(int fd) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size), 0);
    return ntohs(local.sin_port);
}

// A UDP socket whose steps can be watched.
class Watched : public NwNetSocket {
public:
    using NwNetSocket::NwNetSocket;
    int privateListenToMulticastGroup(unsigned int group, int fromInit, unsigned int device) override {
        joins.push_back({group, static_cast<unsigned int>(fromInit), device});
        return result;
    }
    std::vector<std::vector<unsigned int>> joins;
    int result = 1;
};

// Each test has a host for itself: loopback, and what the test adds.
class Multicast : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_NETWORK();
        ASSERT_TRUE(enterPrivateNetwork()) << privateNetworkProblem();
        myOldAction = NwNetSocket::initErrorAction;
        NwNetSocket::initErrorAction = 1;
    }
    void TearDown() override {
        if (hasPrivateNetwork()) NwNetSocket::initErrorAction = myOldAction;
    }

    void addUp(const std::string& name, const std::string& address) {
        run("ip link add " + name + " type veth");
        run("ip addr add " + address + " dev " + name);
        run("ip link set " + name + " up");
    }

    // A socket that receives on a port of the system's choice, with loopback for its multicast unless told
    // otherwise.
    std::unique_ptr<NwNetSocket> reader(NwIpv4Addr device = kLoopback) {
        return open(0, kDefault, kRead, device);
    }
    std::unique_ptr<NwNetSocket> open(int port, NwIpv4Addr address, unsigned int mode, NwIpv4Addr device) {
        const unsigned char quietStart = kOpensNothing;
        auto socket = std::make_unique<NwNetSocket>(
            port, address, static_cast<unsigned char>(mode | (mode ? quietStart : 0u)), device);
        EXPECT_TRUE(socket->isOk());
        return socket;
    }
    // What a constructor says about interfaces and groups is looked at by the tests that mean it.
    void forgetMessages() { messages.all(); }

    void expectSilence() { EXPECT_EQ(messages.all(), ""); }
    void expectWarning(const std::string& warning) {
        EXPECT_EQ(messages.warn(), warning);
        expectSilence();
    }
    void expectVerbose(const std::string& text) {
        EXPECT_EQ(messages.verbose(), text);
        expectSilence();
    }

    Messages messages;

private:
    int myOldAction = 0;
};

// --- joining ---

TEST_F(Multicast, joinsOnTheGivenInterface) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.1.0.1")), 1);
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kGroup});
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    expectVerbose(listening("239.1.2.3", "10.1.0.1"));
}

TEST_F(Multicast, joinsOnItsOwnInterfaceWhenNoneIsGiven) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    EXPECT_EQ(groupsJoinedOn("va"), Groups{});
    expectVerbose(listening("239.1.2.3", "127.0.0.1"));
}

TEST_F(Multicast, withoutADeviceArgumentItsInterfaceIsTheHostsFirst) {
    addUp("va", "10.1.0.1/24");
    addUp("vb", "10.2.0.1/24");
    auto socket = reader(kDefault);
    EXPECT_EQ(socket->mcastDevice(), ipv4("10.1.0.1"));
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kGroup});
    expectVerbose(listening("239.1.2.3", "10.1.0.1"));
}

TEST_F(Multicast, aJoinMakesItsInterfaceTheOutgoingOne) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(outgoingInterface(socket->readFd()), 0u);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.1.0.1")), 1);
    EXPECT_EQ(outgoingInterface(socket->readFd()), ipv4("10.1.0.1"));
    EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, kDefault), 1);
    EXPECT_EQ(outgoingInterface(socket->readFd()), kLoopback);
    EXPECT_EQ(socket->mcastDevice(), kLoopback);
}

TEST_F(Multicast, quietSocketsJoinWithoutAWord) {
    Quiet quiet;
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    expectSilence();
}

TEST_F(Multicast, bothEndsOfTheRangeAreGroups) {
    auto socket = reader();
    for (const char* group : {"224.0.0.5", "239.255.255.255"}) {
        EXPECT_EQ(socket->listenToMulticastGroup(ipv4(group), kDefault), 1);
        expectVerbose(listening(group, "127.0.0.1"));
        EXPECT_EQ(groupsJoinedOn("lo"), Groups{ipv4(group)});
        EXPECT_EQ(socket->dropMulticastGroup(ipv4(group), kDefault), 1);
        forgetMessages();
    }
}

TEST_F(Multicast, whatIsNoGroupIsNotJoined) {
    auto socket = reader();
    for (const char* other : {"10.1.2.3", "223.255.255.255", "240.0.0.0", "255.255.255.255", "0.0.0.0"}) {
        EXPECT_EQ(socket->listenToMulticastGroup(ipv4(other), kLoopback), 0) << other;
        expectWarning(std::string(other) + " is not a multicast address: Can't subscribe\n");
        EXPECT_EQ(outgoingInterface(socket->readFd()), 0u) << other;
        Quiet quiet;
        EXPECT_EQ(socket->listenToMulticastGroup(ipv4(other), kLoopback), 0) << other;
        expectSilence();
    }
}

TEST_F(Multicast, anInterfaceThatIsNotThisHostsIsRefused) {
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.99.99.99")), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_MULTICAST_IF failed", EADDRNOTAVAIL));
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    Quiet quiet;
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.99.99.99")), 0);
    expectSilence();
}

TEST_F(Multicast, aGroupJoinedTwiceIsRefusedTheSecondTime) {
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    forgetMessages();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_ADD_MEMBERSHIP failed", EADDRINUSE));
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    {
        Quiet quiet;
        EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 0);
        expectSilence();
    }
}

TEST_F(Multicast, aRefusedGroupLeavesTheOthersWorking) {
    const unsigned int kSystemsLimit = 20;  // net.ipv4.igmp_max_memberships of a new network
    run("test $(cat /proc/sys/net/ipv4/igmp_max_memberships) = " + std::to_string(kSystemsLimit));
    auto socket = reader();
    for (unsigned int i = 0; i < kSystemsLimit; ++i)
        EXPECT_EQ(socket->listenToMulticastGroup(kGroup + i, kDefault), 1);
    forgetMessages();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup + kSystemsLimit, kDefault), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_ADD_MEMBERSHIP failed", ENOBUFS));

    auto sender = open(portOf(socket->readFd()), kGroup, kReadWrite, kLoopback);
    std::string packet = pdu(144);
    EXPECT_EQ(sender->NwSend(&packet[0], packet.size(), kGroup + kSystemsLimit - 1), 144);
    char buffer[256];
    ASSERT_TRUE(waitReadable(socket->readFd()));
    EXPECT_EQ(socket->NwRecv(buffer, sizeof buffer), 144);
}

TEST_F(Multicast, theInterfaceIsSetBeforeTheGroupIsRefused) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, ipv4("10.1.0.1")), 1);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 0);
    EXPECT_EQ(outgoingInterface(socket->readFd()), kLoopback);
}

TEST_F(Multicast, theSameGroupOnTwoInterfaces) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.1.0.1")), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kGroup});
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kGroup});
}

TEST_F(Multicast, theEndOfASocketIsTheEndOfItsMemberships) {
    {
        auto socket = reader();
        EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
        EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    }
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
}

// --- sockets without an interface ---

// Meant so: nothing is joined, and the call still succeeds.
TEST_F(Multicast, withoutAnInterfaceOfItsOwnASocketJoinsNothingAndSaysYes) {
    auto socket = reader(kDefault);
    expectWarning("Couldn't find an IP interface capable of broadcast.\n");
    EXPECT_EQ(socket->mcastDevice(), 0u);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    expectVerbose(listening("239.1.2.3", "0.0.0.0"));
}

TEST_F(Multicast, withoutAnInterfaceOfItsOwnAnExplicitOneDoesNotHelp) {
    auto socket = reader(kDefault);
    forgetMessages();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    EXPECT_EQ(outgoingInterface(socket->readFd()), kLoopback) << "outgoing multicast has it all the same";
    expectVerbose(listening("239.1.2.3", "127.0.0.1"));
    // Nothing was joined, so a second call is not refused either, and there is nothing to leave.
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kLoopback), 0);
}

TEST_F(Multicast, withoutAnInterfaceOfItsOwnAForeignOneIsStillRefused) {
    auto socket = reader(kDefault);
    forgetMessages();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.99.99.99")), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_MULTICAST_IF failed", EADDRNOTAVAIL));
}

TEST_F(Multicast, anInterfaceTakenAwayOrGivenLaterDecides) {
    auto socket = reader();
    socket->setMcastDevice(0);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    socket->setMcastDevice(kLoopback);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
}

TEST_F(Multicast, constructionWithAGroupAndWithoutAnInterfaceJoinsNothing) {
    NwNetSocket socket(0, kGroup, kRead, kDefault);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    EXPECT_EQ(messages.warn(), "Couldn't find an IP interface capable of broadcast.\n");
    EXPECT_EQ(messages.verbose(), listening("239.1.2.3", "0.0.0.0"));
    EXPECT_EQ(messages.info(), "NetSocket ok to read port 0\n");
}

// --- construction ---

TEST_F(Multicast, aReadingSocketJoinsTheGroupThatIsItsAddress) {
    for (unsigned char mode : {kRead, kReadWrite}) {
        const int port = freePort();
        NwNetSocket socket(port, kGroup, mode, kLoopback);
        EXPECT_TRUE(socket.isOk());
        EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
        EXPECT_EQ(outgoingInterface(socket.readFd()), kLoopback);
        EXPECT_EQ(messages.verbose(), listening("239.1.2.3", "127.0.0.1"));
        EXPECT_EQ(messages.info(), mode == kRead
                                       ? "NetSocket ok to read port " + std::to_string(port) + "\n"
                                       : "NetSocket ok for port " + std::to_string(port) + " to 239.1.2.3\n");
        expectSilence();
    }
}

TEST_F(Multicast, aWritingSocketJoinsNothingAndChoosesNoInterface) {
    addUp("va", "10.1.0.1/24");
    for (unsigned int mode : {0u + kWrite, 0u + kWrite + kBind}) {
        auto socket = open(0, kGroup, mode, ipv4("10.1.0.1"));
        EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
        EXPECT_EQ(groupsJoinedOn("va"), Groups{});
        EXPECT_EQ(outgoingInterface(socket->writeFd()), 0u);
        expectSilence();
    }
}

TEST_F(Multicast, aReadingSocketWithAnOrdinaryAddressJoinsNothing) {
    auto socket = open(0, kLoopback, kReadWrite, kLoopback);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    EXPECT_EQ(outgoingInterface(socket->readFd()), 0u);
    expectSilence();
}

TEST_F(Multicast, aRefusedGroupDoesNotFailTheConstruction) {
    auto socket = open(0, kGroup, kRead, ipv4("10.99.99.99"));
    EXPECT_TRUE(socket->isOk());
    EXPECT_GE(socket->readFd(), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_MULTICAST_IF failed", EADDRNOTAVAIL));
}

TEST_F(Multicast, aSocketBoundToItsGroupJoinsItDuringConstructionWithoutAWarning) {
    const int port = freePort();
    const unsigned char mode = kReadWrite | kBind;
    ASSERT_EQ(mode, 11);
    NwNetSocket socket(port, kGroup, mode, kLoopback);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    EXPECT_EQ(messages.verbose(), listening("239.1.2.3", "127.0.0.1"));
    EXPECT_EQ(messages.info(),
              "NetSocket ok for port " + std::to_string(port) + " to 239.1.2.3 (bound to 239.1.2.3)\n");
    expectSilence();
}

// Meant so: the membership is added, and the answer is no.
TEST_F(Multicast, aBoundSocketJoinsAFurtherGroupAndSaysNo) {
    for (unsigned int mode : {0u + kRead + kBind, 0u + kReadWrite + kBind}) {
        for (NwIpv4Addr address : {kGroup, kLoopback}) {
            auto socket = open(0, address, mode, kLoopback);
            forgetMessages();
            EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, kDefault), 0);
            EXPECT_EQ(groupsJoinedOn("lo").count(kOtherGroup), 1u);
            expectWarning(kIneffective);
            EXPECT_EQ(socket->dropMulticastGroup(kOtherGroup, kDefault), 1);
            EXPECT_EQ(groupsJoinedOn("lo").count(kOtherGroup), 0u);
            forgetMessages();

            Quiet quiet;
            EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, kDefault), 0);
            EXPECT_EQ(groupsJoinedOn("lo").count(kOtherGroup), 1u);
            expectSilence();
        }
    }
}

TEST_F(Multicast, aBoundSocketWithoutAnInterfaceSaysNoAndJoinsNothing) {
    auto socket = open(0, kLoopback, kRead | kBind, kDefault);
    forgetMessages();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kLoopback), 0);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    expectWarning(kIneffective);
}

TEST_F(Multicast, withoutAnAddressTheBindBitBindsNothingAndJoinsWork) {
    auto socket = open(0, kDefault, kRead | kBind, kLoopback);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    expectVerbose(listening("239.1.2.3", "127.0.0.1"));
}

TEST_F(Multicast, fromInitABoundSocketIsNotWarned) {
    auto socket = open(0, kGroup, kRead | kBind, kLoopback);
    forgetMessages();
    EXPECT_EQ(socket->privateListenToMulticastGroup(kOtherGroup, 1, 0), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), (Groups{kGroup, kOtherGroup}));
    expectVerbose(listening("239.1.2.4", "127.0.0.1"));
}

TEST_F(Multicast, anApplicationsJoinGoesThroughTheVirtualTableWithTheDeviceFilledIn) {
    Watched socket(0, kDefault, kRead, kLoopback);
    EXPECT_EQ(socket.listenToMulticastGroup(kGroup, kDefault), 1);
    socket.result = 0;
    EXPECT_EQ(socket.listenToMulticastGroup(kOtherGroup, ipv4("10.1.0.1")), 0);
    const std::vector<std::vector<unsigned int>> expected = {{kGroup, 0, kLoopback},
                                                             {kOtherGroup, 0, ipv4("10.1.0.1")}};
    EXPECT_EQ(socket.joins, expected);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
}

TEST_F(Multicast, anAdoptedDescriptorJoinsOnTheHostsFirstInterface) {
    addUp("va", "10.1.0.1/24");
    UdpPeer lent(0);
    NwNetSocket socket(nullptr, lent.fd(), kRead);
    forgetMessages();
    EXPECT_EQ(socket.mcastDevice(), ipv4("10.1.0.1"));
    EXPECT_EQ(socket.listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kGroup});
    expectVerbose(listening("239.1.2.3", "10.1.0.1"));
}

// --- leaving ---

TEST_F(Multicast, leavesAGroup) {
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, kDefault), 1);
    forgetMessages();
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kOtherGroup});
    expectVerbose("No longer listening to multicast group: 239.1.2.3\n");
    Quiet quiet;
    EXPECT_EQ(socket->dropMulticastGroup(kOtherGroup, kLoopback), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    expectSilence();
}

TEST_F(Multicast, aGroupThatWasNotJoinedCannotBeLeft) {
    auto socket = reader();
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_DROP_MEMBERSHIP failed", EADDRNOTAVAIL));
    Quiet quiet;
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 0);
    expectSilence();
}

TEST_F(Multicast, whatIsNoGroupCannotBeLeft) {
    auto socket = reader();
    for (const char* other : {"10.1.2.3", "223.255.255.255", "240.0.0.0", "255.255.255.255", "0.0.0.0"}) {
        EXPECT_EQ(socket->dropMulticastGroup(ipv4(other), kLoopback), 0) << other;
        expectWarning(std::string(other) + " is not a multicast address: Can't drop\n");
        Quiet quiet;
        EXPECT_EQ(socket->dropMulticastGroup(ipv4(other), kLoopback), 0) << other;
        expectSilence();
    }
}

TEST_F(Multicast, aGroupIsLeftOnTheInterfaceWhereItWasJoined) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, ipv4("10.1.0.1")), 1);
    forgetMessages();
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 0);  // that is loopback
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kGroup});
    expectWarning(systemReport("NetSocket: setsockopt IP_DROP_MEMBERSHIP failed", EADDRNOTAVAIL));
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, ipv4("10.1.0.1")), 1);
    EXPECT_EQ(groupsJoinedOn("va"), Groups{});
    EXPECT_EQ(outgoingInterface(socket->readFd()), ipv4("10.1.0.1"))
        << "leaving changes no outgoing interface";
}

TEST_F(Multicast, aBoundSocketLeavesItsGroup) {
    auto socket = open(0, kGroup, kRead | kBind, kLoopback);
    forgetMessages();
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{});
    expectVerbose("No longer listening to multicast group: 239.1.2.3\n");
}

// --- what arrives ---

TEST_F(Multicast, aGroupsPacketsArriveBetweenJoinAndLeave) {
    auto socket = reader();
    const int port = portOf(socket->readFd());
    socket->NwBecomeNonBlocking();
    auto sender = open(0, kGroup, kReadWrite, kLoopback);
    EXPECT_EQ(sender->dropMulticastGroup(kGroup, kDefault), 1);  // only its outgoing interface is of use here
    sender->setSendPort(port);
    UdpPeer marker;
    char buffer[256];
    // On loopback what is sent earlier arrives earlier: when the marker is there, the group's packet is, or
    // never will be.
    const auto arrivals = [&] {
        std::string inGroup = pdu(144), last = pdu(100);
        EXPECT_EQ(sender->NwSend(&inGroup[0], inGroup.size(), kDefault), 144);
        marker.send(last, port);
        std::vector<int> lengths;
        while (lengths.empty() || lengths.back() != 100) {
            if (!waitReadable(socket->readFd())) throw std::runtime_error("the marker did not come");
            lengths.push_back(socket->NwRecv(buffer, sizeof buffer));
        }
        return lengths;
    };
    EXPECT_EQ(arrivals(), std::vector<int>{100});
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(arrivals(), (std::vector<int>{144, 100}));
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(arrivals(), std::vector<int>{100});
}

TEST_F(Multicast, aSocketBoundToItsGroupHearsNothingElse) {
    const int port = freePort();
    auto socket = open(port, kGroup, kReadWrite | kBind, kLoopback);
    EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, kDefault), 0);
    UdpPeer other;
    other.send(pdu(100), port);
    std::string packet = pdu(120);
    EXPECT_EQ(socket->NwSend(&packet[0], packet.size(), kOtherGroup), 120);
    packet = pdu(144);
    EXPECT_EQ(socket->NwSend(&packet[0], packet.size(), kDefault), 144);
    char buffer[256];
    ASSERT_TRUE(waitReadable(socket->readFd()));
    EXPECT_EQ(socket->NwRecv(buffer, sizeof buffer), 144);
    EXPECT_EQ(socket->NwReportPktsRcvd(), 1);
}

// --- the interface ---

TEST_F(Multicast, settingTheInterfaceChangesNothingUntilTheNextJoin) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->mcastDevice(), kLoopback);
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    forgetMessages();
    socket->setMcastDevice(ipv4("10.1.0.1"));
    expectSilence();
    EXPECT_EQ(socket->mcastDevice(), ipv4("10.1.0.1"));
    EXPECT_EQ(outgoingInterface(socket->readFd()), kLoopback);
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    EXPECT_EQ(socket->listenToMulticastGroup(kOtherGroup, kDefault), 1);
    EXPECT_EQ(outgoingInterface(socket->readFd()), ipv4("10.1.0.1"));
    EXPECT_EQ(groupsJoinedOn("lo"), Groups{kGroup});
    EXPECT_EQ(groupsJoinedOn("va"), Groups{kOtherGroup});
}

TEST_F(Multicast, leavingUsesTheInterfaceThatIsSetNow) {
    addUp("va", "10.1.0.1/24");
    auto socket = reader();
    EXPECT_EQ(socket->listenToMulticastGroup(kGroup, kDefault), 1);
    socket->setMcastDevice(ipv4("10.1.0.1"));
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 0);
    socket->setMcastDevice(kLoopback);
    EXPECT_EQ(socket->dropMulticastGroup(kGroup, kDefault), 1);
}

TEST_F(Multicast, anyInterfaceIsStored) {
    auto socket = reader();
    for (unsigned int device : {0u, 1u, 0x0A636363u, 0xFFFFFFFFu}) {
        socket->setMcastDevice(device);
        EXPECT_EQ(socket->mcastDevice(), device);
    }
    expectSilence();
}

TEST_F(Multicast, ownPacketsAreThoseOfTheInterfaceThatIsSetNow) {
    auto socket = reader();
    socket->setUnbundling(0);
    UdpPeer peer;
    socket->setFilterPort(peer.port());
    const auto statusOfNext = [&] {
        peer.send(pdu(100), portOf(socket->readFd()));
        char* packet = nullptr;
        int status = 7;
        if (waitReadable(socket->readFd())) socket->NwRecv(&packet, &status);
        return status;
    };
    EXPECT_EQ(statusOfNext(), -3);
    socket->setMcastDevice(ipv4("10.1.0.1"));
    EXPECT_EQ(statusOfNext(), 1);
    socket->setMcastDevice(kLoopback);
    EXPECT_EQ(statusOfNext(), -3);
}

// --- time-to-live ---

TEST_F(Multicast, theTimeToLiveIsTheLowByte) {
    auto socket = reader();
    const int fd = socket->readFd();
    EXPECT_EQ(timeToLive(fd), 1);  // the system's own default
    const struct {
        int set, expected;
    } table[] = {{0, 0},   {1, 1},   {2, 2},     {127, 127}, {128, 128}, {254, 254},        {255, 255},
                 {256, 0}, {257, 1}, {511, 255}, {-1, 255},  {-256, 0},  {0x7FFFFF20, 0x20}};
    for (const auto& row : table) {
        EXPECT_EQ(socket->setMcastTtl(row.set), 1) << row.set;
        EXPECT_EQ(timeToLive(fd), row.expected) << row.set;
    }
    expectSilence();
}

TEST_F(Multicast, theTimeToLiveIsOnTheWire) {
    auto listener = reader();
    EXPECT_EQ(listener->listenToMulticastGroup(kGroup, kDefault), 1);
    const int on = 1;
    ASSERT_EQ(::setsockopt(listener->readFd(), IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
    auto sender = open(portOf(listener->readFd()), kGroup, kReadWrite, kLoopback);
    for (int ttl : {1, 5, 0, 255}) {
        EXPECT_EQ(sender->setMcastTtl(ttl), 1);
        std::string packet = pdu(144);
        EXPECT_EQ(sender->NwSend(&packet[0], packet.size(), kDefault), 144);
        ASSERT_TRUE(waitReadable(listener->readFd()));
        char bytes[256];
        alignas(cmsghdr) char control[64];
        iovec part = {bytes, sizeof bytes};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ASSERT_EQ(::recvmsg(listener->readFd(), &message, 0), 144);
        const cmsghdr* header = CMSG_FIRSTHDR(&message);
        ASSERT_NE(header, nullptr);
        EXPECT_EQ(*reinterpret_cast<const int*>(CMSG_DATA(header)), ttl);
    }
}

// --- a socket that has no descriptor ---

TEST_F(Multicast, withoutADescriptorEverythingIsReportedAndRefused) {
    NwNetSocket socket(0, kDefault, kOpensNothing, kLoopback);
    EXPECT_EQ(socket.listenToMulticastGroup(kGroup, kDefault), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_MULTICAST_IF failed", EBADF));
    EXPECT_EQ(socket.dropMulticastGroup(kGroup, kDefault), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_DROP_MEMBERSHIP failed", EBADF));
    EXPECT_EQ(socket.setMcastTtl(3), 0);
    expectWarning(systemReport("NetSocket: setsockopt IP_MULTICAST_TTL failed", EBADF));
    Quiet quiet;
    EXPECT_EQ(socket.listenToMulticastGroup(kGroup, kDefault), 0);
    EXPECT_EQ(socket.dropMulticastGroup(kGroup, kDefault), 0);
    EXPECT_EQ(socket.setMcastTtl(3), 0);
    expectSilence();
}

// --- the base class ---

class NoTransport : public NwSocket {
public:
    int sendTo(char*, unsigned long, unsigned int) override { return 0; }
    int NwRecv(char**, int*) override { return 0; }
    int NwRecv(char*, unsigned long) override { return 0; }
};

TEST(MulticastOfASocketWithoutAny, doesNothingAndSaysNo) {
    Messages messages;
    NoTransport socket;
    EXPECT_EQ(socket.listenToMulticastGroup(kGroup, kLoopback), 0);
    EXPECT_EQ(socket.dropMulticastGroup(kGroup, kLoopback), 0);
    EXPECT_EQ(socket.setMcastTtl(1), 0);
    socket.setMcastDevice(kLoopback);
    EXPECT_EQ(messages.all(), "");
}

}  // namespace
