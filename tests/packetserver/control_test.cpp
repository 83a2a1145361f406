// SPDX-License-Identifier: BSD-3-Clause
// What clients ask the server for, and what it answers: every request, from both kinds of client.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "clients.h"
#include "packet_server_process.h"
#include "packets.h"
#include "private_host.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const char* const kGroup = "239.1.2.3";

class PacketServerControl : public testing::Test {
protected:
    void SetUp() override { REQUIRE_PRIVATE_HOST(); }
    Tame tame;
};

void openMulticast() {
    run("ip link set lo multicast on && ip route add 224.0.0.0/4 dev lo");
}

// Waits until the server has taken that many datagrams.
void awaitDatagrams(WatchedSocket& asking, std::uint64_t count) {
    EXPECT_TRUE(eventually([&] { return asking.serverState().datagrams >= count; }));
}

TEST_F(PacketServerControl, testReachesEveryClient) {
    Server server;
    WatchedSocket data(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    for (WatchedSocket* asking : {&data, &control}) {
        asking->testClients();
        data.awaitNotice(NwCsNoticeTest);
        control.awaitNotice(NwCsNoticeTest);
    }
}

TEST_F(PacketServerControl, pingReachesEveryClientAndIsNoPacket) {
    Server server;
    WatchedSocket data(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    for (WatchedSocket* asking : {&data, &control}) {
        asking->pingClients();
        data.awaitMessage(NwCsKindPing);
        control.awaitMessage(NwCsKindPing);
    }
    EXPECT_TRUE(data.isOk());
}

TEST_F(PacketServerControl, stateTellsSettingsAndCounts) {
    Server server({"--clients", "5", "--queue", "512k", "--no-unbundle", "--interface", "127.0.0.1"});
    WatchedSocket data(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    UdpPeer sender;
    sender.send(pdu(100) + pdu(200), server.port());
    sender.send(pdu(100), server.port());
    awaitDatagrams(control, 2);
    for (WatchedSocket* asking : {&data, &control}) {
        const NwCsStateReturnRecord state = asking->serverState();
        EXPECT_EQ(state.port, static_cast<unsigned>(server.port()));
        EXPECT_EQ(state.pid, server.pid());
        EXPECT_EQ(state.internal, 0);
        EXPECT_EQ(state.unbundling, 0);
        EXPECT_EQ(state.interfaceAddr, kLoopback);
        EXPECT_EQ(state.clients, 1u);
        EXPECT_EQ(state.clientLimit, 5u);
        EXPECT_EQ(state.controlClients, 1u);
        EXPECT_EQ(state.controlLimit, 8u);
        EXPECT_EQ(state.queueBytes, 512u << 10);
        EXPECT_EQ(state.groups, 0u);
        EXPECT_EQ(state.datagrams, 2u);
        EXPECT_EQ(state.packets, 3u);
        EXPECT_EQ(state.kernelDropped, 0u);
        EXPECT_EQ(state.outsideDropped, 0u);
        EXPECT_STREQ(state.serverVersion, CVNC_TEST_VERSION);
        EXPECT_LT(state.upSeconds, 60u);
    }
}

TEST_F(PacketServerControl, clientStatesTellOfEachClientAndItsFilters) {
    openMulticast();
    Server server;
    WatchedSocket first(server.port());
    WatchedSocket second(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    unsigned int kinds[] = {1, 2, 3};
    unsigned int exercise = 9;
    first.pduKind().setTest(NwTestInclude, 3, kinds);
    first.pduKind().extendTest(1, &exercise);
    first.exerciseId().setTest(NwTestExclude, 1, &exercise);
    first.listenToMulticastGroup(ipv4(kGroup));
    first.setUnbundling(0);
    second.ipAddr().setOperator(NwTestInclude);
    first.settle();
    second.settle();

    for (WatchedSocket* asking : {&first, &control}) {
        const std::vector<NwCsCStateReturnRecord> states = asking->clientStates();
        ASSERT_EQ(states.size(), 3u);
        EXPECT_THAT(
            (std::vector<int>{static_cast<int>(states[0].clientId), static_cast<int>(states[1].clientId),
                              static_cast<int>(states[2].clientId)}),
            ElementsAre(first.id(), second.id(), control.id()));
        for (const NwCsCStateReturnRecord& state : states) {
            EXPECT_EQ(state.count, 3u);
            EXPECT_EQ(state.pid, ::getpid());
            EXPECT_EQ(state.uid, ::getuid());
            EXPECT_STREQ(std::string(state.program, 15).c_str(), "packetserver_te");
        }
        EXPECT_EQ(states[0].flags, WatchedSocket::data);
        EXPECT_EQ(states[2].flags, WatchedSocket::control);
        EXPECT_EQ(states[0].groups, 1u);
        EXPECT_EQ(states[1].groups, 0u);
        EXPECT_EQ(states[0].unbundling, 0);
        EXPECT_EQ(states[1].unbundling, 1);
        EXPECT_EQ(states[0].queueBytes, 4u << 20);
        const auto expectFilter = [](const NwCsFilterState& filter, unsigned excludes, unsigned values) {
            EXPECT_EQ(filter.excludes, excludes);
            EXPECT_EQ(filter.values, values);
        };
        expectFilter(states[0].filters[NwCsFilterExerciseId], 1, 1);
        expectFilter(states[0].filters[NwCsFilterProtocolVersion], 1, 0);
        expectFilter(states[0].filters[NwCsFilterPduKind], 0, 4);
        expectFilter(states[0].filters[NwCsFilterSourceAddr], 1, 0);
        expectFilter(states[1].filters[NwCsFilterSourceAddr], 0, 0);
    }
}

// Far more than a server takes by default: the queue of a control-only client grows with that limit.
TEST_F(PacketServerControl, clientStatesOfAFullServerComeWhole) {
    Server server({"--clients", "200", "--queue", "256k"});
    std::vector<std::unique_ptr<WatchedSocket>> clients;
    for (int i = 0; i < 200; ++i) clients.push_back(std::make_unique<WatchedSocket>(server.port()));
    WatchedSocket control(server.port(), WatchedSocket::control);
    EXPECT_EQ(control.clientStates().size(), 201u);
}

TEST_F(PacketServerControl, unbundlingOfOneClientLeavesTheOthersAlone) {
    Server server;
    WatchedSocket whole(server.port());
    WatchedSocket apart(server.port());
    whole.setUnbundling(0);
    whole.settle();
    apart.settle();
    const std::string bundle = pdu(100) + pdu(200, 1) + pdu(64, 2);
    UdpPeer sender;
    sender.send(bundle, server.port());
    EXPECT_EQ(whole.awaitPacket(), bundle);
    EXPECT_EQ(apart.awaitPacket(), pdu(100));
    EXPECT_EQ(apart.awaitPacket(), pdu(200, 1));
    EXPECT_EQ(apart.awaitPacket(), pdu(64, 2));
    whole.setUnbundling(1);
    whole.settle();
    sender.send(bundle, server.port());
    EXPECT_EQ(whole.awaitPacket(), pdu(100));
    EXPECT_EQ(whole.awaitPacket(), pdu(200, 1));
}

// It is the first packet of a datagram that a client's filters look at when it takes datagrams whole.
TEST_F(PacketServerControl, wholeDatagramsAreFilteredByTheirFirstPacket) {
    Server server;
    WatchedSocket client(server.port());
    unsigned int wanted = 5;
    client.pduKind().setTest(NwTestInclude, 1, &wanted);
    client.setUnbundling(0);
    client.settle();
    UdpPeer sender;
    sender.send(pdu(100, 0, 7, 1, 4) + pdu(100, 0, 7, 1, 5), server.port());
    sender.send(pdu(100, 0, 7, 1, 5) + pdu(100, 0, 7, 1, 4), server.port());
    EXPECT_EQ(client.awaitPacket(), pdu(100, 0, 7, 1, 5) + pdu(100, 0, 7, 1, 4));
    EXPECT_EQ(client.stateOf(client.id()).filtered, 1u);
}

TEST_F(PacketServerControl, unbundlingAskedByAControlOnlyClientIsForThoseToCome) {
    Server server;
    WatchedSocket before(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    control.setPacketServerUnbundling(0);
    control.awaitNotice(NwCsNoticeUnbundlingOff);
    EXPECT_EQ(before.next().kind, WatchedSocket::Item::nothing);  // nothing has changed for it
    EXPECT_EQ(control.serverState().unbundling, 0);
    WatchedSocket after(server.port());
    after.settle();
    EXPECT_EQ(control.stateOf(before.id()).unbundling, 1);
    EXPECT_EQ(control.stateOf(after.id()).unbundling, 0);
    control.setPacketServerUnbundling(1);
    control.awaitNotice(NwCsNoticeUnbundlingOn);
    EXPECT_EQ(control.serverState().unbundling, 1);
}

TEST_F(PacketServerControl, modeIsSwitchedForAllAndTold) {
    Server server;
    for (const unsigned short kind : {WatchedSocket::data, WatchedSocket::control}) {
        WatchedSocket other(server.port());
        WatchedSocket asking(server.port(), kind);
        EXPECT_FALSE(asking.isInternal());
        asking.setPacketServerInternal();
        asking.awaitNotice(NwCsNoticeInternal);
        other.awaitNotice(NwCsNoticeInternal);
        EXPECT_TRUE(asking.isInternal());
        EXPECT_TRUE(other.isInternal());
        EXPECT_EQ(asking.serverState().internal, 1);
        EXPECT_TRUE(WatchedSocket(server.port()).isInternal());  // those that come later
        asking.setPacketServerExternal();
        asking.awaitNotice(NwCsNoticeExternal);
        other.awaitNotice(NwCsNoticeExternal);
        EXPECT_FALSE(other.isInternal());
    }
    EXPECT_TRUE(server.waitForEvents("mode", 4));
}

TEST_F(PacketServerControl, internalModeDropsWhatComesFromOtherHosts) {
    const Host outside;
    outside.connect("here", "10.77.0.1/24", "there", "10.77.0.2/24");
    Server server({"--internal"});
    EXPECT_EQ(server.lastEvent("serving")["internal"], true);
    WatchedSocket client(server.port());
    client.settle();
    EXPECT_TRUE(client.isInternal());
    outside.in([&] {
        UdpPeer far(0);
        far.send(pdu(100, 1) + pdu(100, 2), server.port(), ipv4("10.77.0.1"));
        far.send(pdu(100, 3), server.port(), ipv4("10.77.0.1"));
    });
    awaitDatagrams(client, 2);
    UdpPeer near;
    near.send(pdu(200), server.port());
    EXPECT_EQ(client.awaitPacket(), pdu(200));
    EXPECT_EQ(client.serverState().outsideDropped, 2u);  // datagrams, not packets
    // What a client sends stays here too, wherever it is sent.
    std::string packet = pdu(300);
    EXPECT_EQ(client.sendTo(&packet[0], packet.size(), ipv4("10.77.0.2")), static_cast<int>(packet.size()));
    EXPECT_EQ(client.awaitPacket(), packet);
    EXPECT_EQ(client.lastSourceInetAddr(), kLoopback);

    client.setPacketServerExternal();
    client.settle();
    outside.in([&] { UdpPeer(0).send(pdu(400), server.port(), ipv4("10.77.0.1")); });
    EXPECT_EQ(client.awaitPacket(), pdu(400));
    EXPECT_EQ(client.lastSourceInetAddr(), ipv4("10.77.0.2"));
}

TEST_F(PacketServerControl, anyKindOfClientStopsTheServer) {
    for (const unsigned short kind : {WatchedSocket::data, WatchedSocket::control}) {
        Server server({"--stats", "3600"});
        WatchedSocket other(server.port());
        WatchedSocket asking(server.port(), kind);
        asking.terminatePacketServer();
        EXPECT_EQ(server.daemon().finish().exitStatus, 0);
        asking.awaitNotice(NwCsNoticeStopped);
        other.awaitNotice(NwCsNoticeStopped);
        EXPECT_FALSE(asking.isOk());
        EXPECT_EQ(leftovers(), "");
        EXPECT_THAT(server.directory().names(), IsEmpty());
        EXPECT_EQ(server.countEvents("statistics"), 1);  // the last ones, as with any other stop
    }
}

TEST_F(PacketServerControl, disconnectedClientLeavesNothing) {
    openMulticast();
    Server server;
    for (const unsigned short kind : {WatchedSocket::data, WatchedSocket::control}) {
        {
            WatchedSocket client(server.port(), kind);
            client.listenToMulticastGroup(ipv4(kGroup));
            client.settle();
        }
        EXPECT_TRUE(eventually([] { return leftovers().empty(); })) << leftovers();
        EXPECT_THAT(groupsJoinedOn("lo"), IsEmpty());
    }
    EXPECT_EQ(Tame::fatalEndings(), 0);
}

TEST_F(PacketServerControl, clientWithoutANotifySocketIsServedTheSame) {
    Server server;
    WatchedSocket client(server.port(), WatchedSocket::data | NwClientSocket::noNotifyFlag);
    EXPECT_EQ(client.readFd(), -1);
    EXPECT_EQ(notifyPathsThere(), 0);
    client.settle();
    UdpPeer().send(pdu(100), server.port());
    EXPECT_EQ(client.awaitPacket(), pdu(100));
}

TEST_F(PacketServerControl, notifyWakesWhoeverWatchesTheDescriptor) {
    Server server;
    WatchedSocket client(server.port());
    client.settle();
    UdpPeer sender;
    for (int i = 0; i < 50; ++i) {
        client.notifyMe();
        EXPECT_FALSE(waitReadable(client.readFd(), 0));
        sender.send(pdu(100, i), server.port());
        ASSERT_TRUE(waitReadable(client.readFd()));
        EXPECT_EQ(client.awaitPacket(), pdu(100, i));
        EXPECT_FALSE(waitReadable(client.readFd(), 0));
    }
}

TEST_F(PacketServerControl, groupIsJoinedWithTheFirstWishAndLeftWithTheLast) {
    openMulticast();
    Server server({"--interface", "127.0.0.1"});
    WatchedSocket first(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    const NwIpv4Addr group = ipv4(kGroup);
    const auto isJoined = [&] {
        control.settle();
        return groupsJoinedOn("lo").count(group) != 0;
    };
    EXPECT_FALSE(isJoined());
    first.listenToMulticastGroup(group);
    first.listenToMulticastGroup(group);  // twice is once
    first.settle();
    EXPECT_TRUE(isJoined());
    {
        WatchedSocket second(server.port(), WatchedSocket::data, group);  // its address is a group: the same
        second.settle();
        EXPECT_EQ(control.stateOf(second.id()).groups, 1u);
        EXPECT_EQ(control.serverState().groups, 1u);

        UdpPeer().send(pdu(100), server.port(), group);
        EXPECT_EQ(first.awaitPacket(), pdu(100));
        EXPECT_EQ(second.awaitPacket(), pdu(100));

        first.dropMulticastGroup(group);
        first.dropMulticastGroup(group);
        first.settle();
        EXPECT_TRUE(isJoined());
    }
    EXPECT_TRUE(eventually([&] { return !isJoined(); }));  // the last one went without a word about groups
    EXPECT_EQ(control.serverState().groups, 0u);
}

TEST_F(PacketServerControl, groupsOfTheCommandLineStay) {
    openMulticast();
    Server server({"--interface", "lo", "--group", kGroup, "--group", "239.1.2.4"});
    EXPECT_THAT(groupsJoinedOn("lo"), ElementsAre(ipv4(kGroup), ipv4("239.1.2.4")));
    WatchedSocket client(server.port());
    client.listenToMulticastGroup(ipv4(kGroup));
    client.dropMulticastGroup(ipv4(kGroup));
    client.settle();
    EXPECT_THAT(groupsJoinedOn("lo"), ElementsAre(ipv4(kGroup), ipv4("239.1.2.4")));
    EXPECT_EQ(client.serverState().groups, 2u);
}

// The kernel lets one socket join 20 by default.
TEST_F(PacketServerControl, moreGroupsThanOneSocketCanJoin) {
    openMulticast();
    Server server({"--interface", "127.0.0.1"});
    WatchedSocket client(server.port());
    for (unsigned i = 0; i < 70; ++i) client.listenToMulticastGroup(ipv4(kGroup) + i);
    EXPECT_EQ(client.serverState().groups, 70u);
    EXPECT_EQ(groupsJoinedOn("lo").size(), 70u);
    UdpPeer().send(pdu(100), server.port(), ipv4(kGroup) + 69);
    EXPECT_EQ(client.awaitPacket(), pdu(100));
}

TEST_F(PacketServerControl, groupThatCannotBeJoinedIsAnsweredWithAWarning) {
    Server server({"--interface", "10.99.99.99"});  // no interface of this host
    WatchedSocket client(server.port());
    client.listenToMulticastGroup(ipv4(kGroup));
    const NwCsMsg message = client.awaitWarning(NwCsWarningRefused);
    const NwCsWarningMsg warning(nullptr, &message);
    EXPECT_THAT(std::string(warning.text(), warning.textLength()),
                HasSubstr("cannot join 239.1.2.3: No such device"));
    EXPECT_EQ(client.serverState().groups, 0u);
}

TEST_F(PacketServerControl, quotaCountsBothKindsApartAndPlacesComeBack) {
    Server server({"--clients", "2"});
    WatchedSocket first(server.port());
    auto second = std::make_unique<WatchedSocket>(server.port());
    BareClient third(server.requestPath());
    third.bindNotify();
    third.ask();
    ASSERT_TRUE(third.awaitAnswer());
    EXPECT_EQ(third.answer.kind, NwCsKindQuota);
    ASSERT_TRUE(server.waitForEvents("quota"));
    EXPECT_EQ(server.lastEvent("quota")["pid"], ::getpid());
    std::vector<std::unique_ptr<WatchedSocket>> controls;
    for (int i = 0; i < 8; ++i)
        controls.push_back(std::make_unique<WatchedSocket>(server.port(), WatchedSocket::control));
    third.ask(WatchedSocket::control);
    ASSERT_TRUE(third.awaitAnswer());
    EXPECT_EQ(third.answer.kind, NwCsKindQuota);

    second.reset();
    third.ask();
    ASSERT_TRUE(third.awaitAnswer());
    EXPECT_EQ(third.answer.kind, NwCsKindAck);
    EXPECT_EQ(controls[0]->serverState().clients, 2u);
}

// A client that is turned away says so and ends, as its header says.
TEST_F(PacketServerControl, clientBeyondTheQuotaEndsFatally) {
    Server server({"--clients", "1"});
    WatchedSocket first(server.port());
    ClientProcess late([&](const Line&) {
        NwSocket::setQuietSockets(false);
        NwClientSocket socket(server.port(), kLoopback, -1, 7);
        return 0;
    });
    EXPECT_EQ(late.finish(), 1);
    EXPECT_THAT(late.errors(), HasSubstr("NwClientSocket: server client quota exceeded\n"));
    EXPECT_THAT(late.errors(), HasSubstr("ClientSock not ok\n"));
    EXPECT_EQ(notifyPathsThere(), 1);  // the first one's
}

TEST_F(PacketServerControl, severalPortsInOneProcessAreApart) {
    const int otherPort = freePort();
    Server server({"--port", std::to_string(otherPort)});
    ASSERT_TRUE(server.waitForEvents("serving", 2));
    WatchedSocket first(server.port());
    WatchedSocket second(otherPort);
    first.settle();
    second.settle();
    UdpPeer sender;
    sender.send(pdu(100, 1), server.port());
    sender.send(pdu(100, 2), otherPort);
    EXPECT_EQ(first.awaitPacket(), pdu(100, 1));
    EXPECT_EQ(second.awaitPacket(), pdu(100, 2));
    EXPECT_EQ(first.serverState().clients, 1u);
    EXPECT_EQ(first.serverState().pid, second.serverState().pid);

    first.terminatePacketServer();  // that port alone
    first.awaitNotice(NwCsNoticeStopped);
    sender.send(pdu(100, 3), otherPort);
    EXPECT_EQ(second.awaitPacket(), pdu(100, 3));
    EXPECT_TRUE(server.daemon().isRunning());
    second.terminatePacketServer();  // the last one
    second.awaitNotice(NwCsNoticeStopped);
    EXPECT_EQ(server.daemon().finish().exitStatus, 0);
    EXPECT_EQ(leftovers(), "");
}

}  // namespace
