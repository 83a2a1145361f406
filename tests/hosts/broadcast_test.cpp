// SPDX-License-Identifier: BSD-3-Clause
// Broadcast and unicast between hosts, own packets, and interfaces as the hosts have them.
#include <netinet/in.h>

#include <cerrno>
#include <vector>

#include "hosts.h"

namespace {

using Broadcast = TwoHosts;
using BroadcastInARow = ThreeHosts;

// --- two hosts ---

TEST_F(Broadcast, theDefaultDestinationReachesTheOtherHost) {
    Socket onWest = openOn(*west), onEast = openOn(*east);
    EXPECT_TRUE(onWest->isOk());
    EXPECT_EQ(messages.info(),
              "NetSocket ok for port 3000 to 10.9.0.255\nNetSocket ok for port 3000 to 10.9.0.255\n");
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
    EXPECT_EQ(send(*onEast, pdu(200, 2)), 200);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.1", pdu(144, 1)));  // its own
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.2", pdu(200, 2)));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(Broadcast, theFormWithoutAnAddressDoesTheSame) {
    Socket onWest;
    west->in([&] { onWest = std::make_unique<NwNetSocket>(kPort, kWrite, 0u); });
    Socket onEast = openOn(*east);
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144)));
}

TEST_F(Broadcast, aBundleCrossesTheCableAsOneDatagramAndComesOutPacketByPacket) {
    Socket onWest = openOn(*west, kWrite), onEast = openOn(*east, kRead);
    onWest->setBundling(1400);
    std::vector<std::string> sent;
    for (int i = 0; i < 7; ++i) {
        sent.push_back(pdu(144 + i, i));
        EXPECT_EQ(send(*onWest, sent.back()), 0);
    }
    EXPECT_EQ(onWest->flush(), 1);
    for (const std::string& packet : sent) EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", packet));
    EXPECT_FALSE(onEast->dataLeftInCurrentBundle());
    EXPECT_EQ(onEast->NwReportPktsRcvd(), 1);
}

TEST_F(Broadcast, ownPacketsAreDroppedAndOthersComeThrough) {
    Socket onWest = openOn(*west), onEast = openOn(*east);
    onWest->setFilterPort(kPort);
    onWest->setUnbundling(0);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onWest), nothing(-3));
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
    EXPECT_EQ(send(*onEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.2", pdu(144, 2)));
    EXPECT_EQ(onWest->NwReportPktsRcvd(), 1) << "own packets are not counted";

    onWest->setUnbundling(1);
    EXPECT_EQ(send(*onWest, pdu(144, 3)), 144);
    EXPECT_EQ(receive(*onWest), nothing(0));
    EXPECT_EQ(send(*onEast, pdu(144, 4)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.2", pdu(144, 4)));

    onWest->setFilterPort(-1);
    EXPECT_EQ(send(*onWest, pdu(144, 5)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.1", pdu(144, 5)));
}

TEST_F(Broadcast, anotherPortOfTheOwnHostIsNotItsOwn) {
    Socket onWest = openOn(*west), neighbour = openOn(*west, kReadWrite, kDefault, kDefault, kPort + 1);
    onWest->setFilterPort(kPort);
    neighbour->setSendPort(kPort);
    EXPECT_EQ(send(*neighbour, pdu(144)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.1", pdu(144)));
}

TEST_F(Broadcast, theAddressFilterTellsHostsApart) {
    Socket onWest = openOn(*west), onEast = openOn(*east);
    unsigned int easts[] = {ipv4("10.9.0.2")};
    onWest->ipAddr().setTest(NwTestInclude, 1, easts);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onWest), nothing(-2));
    EXPECT_EQ(send(*onEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.2", pdu(144, 2)));
}

TEST_F(Broadcast, everySocketOfAHostOnThePortGetsABroadcast) {
    Socket onWest = openOn(*west, kWrite);
    Socket first = openOn(*east), second = openOn(*east, kRead), third = openOn(*east);
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    for (Socket* socket : {&first, &second, &third})
        EXPECT_EQ(receive(**socket), packetFrom("10.9.0.1", pdu(144)));
}

TEST_F(Broadcast, oneSocketOfAHostOnThePortGetsAUnicast) {
    Socket onWest = openOn(*west, kWrite);
    Socket first = openOn(*east, kRead), second = openOn(*east, kRead);
    EXPECT_EQ(send(*onWest, pdu(144), ipv4("10.9.0.2")), 144);
    EXPECT_TRUE(eventually([&] { return !isEmpty(*first) || !isEmpty(*second); }));
    EXPECT_NE(isEmpty(*first), isEmpty(*second));
}

TEST_F(Broadcast, aUnicastReachesItsHostAlone) {
    Socket onWest = openOn(*west), onEast = openOn(*east);
    EXPECT_EQ(send(*onWest, pdu(144, 1), ipv4("10.9.0.2")), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
    EXPECT_TRUE(isEmpty(*onWest));
    // A socket may have one host as its default destination.
    Socket toEast = openOn(*west, kWrite, ipv4("10.9.0.2"));
    EXPECT_EQ(send(*toEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 2)));
    EXPECT_TRUE(isEmpty(*onWest));
}

TEST_F(Broadcast, aReceiverBoundToAnAddressHearsThatAddressAlone) {
    Socket onWest = openOn(*west, kWrite);
    Socket bound = openOn(*east, kRead | kBind, ipv4("10.9.0.2"));
    EXPECT_THAT(messages.info(), testing::HasSubstr("NetSocket ok to read port 3000 (bound to 10.9.0.2)\n"));
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(send(*onWest, pdu(144, 2), ipv4("10.9.0.2")), 144);
    EXPECT_EQ(receive(*bound), packetFrom("10.9.0.1", pdu(144, 2)));
    EXPECT_TRUE(isEmpty(*bound));
}

TEST_F(Broadcast, anAdoptedDescriptorSendsToItsSubnet) {
    Socket adopted, onEast = openOn(*east);
    std::unique_ptr<UdpPeer> lent;
    west->in([&] {
        lent = std::make_unique<UdpPeer>(ipv4("10.9.0.1"), kPort);
        adopted = std::make_unique<NwNetSocket>(nullptr, lent->fd(), kWrite);
    });
    EXPECT_TRUE(adopted->isOk());
    EXPECT_THAT(messages.info(), testing::EndsWith("NetSocket ok for port 3000 to 10.9.0.255\n"));
    EXPECT_EQ(send(*adopted, pdu(144)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144)));
}

// --- masks at their ends ---

class UnusualMasks : public TwoHosts {
protected:
    void build() override {
        west = std::make_unique<Host>();
        east = std::make_unique<Host>();
    }
};

TEST_F(UnusualMasks, aQuarterOfASubnet) {
    plugIn("10.9.0.129/26", "10.9.0.190/26");
    Socket onWest = openOn(*west), onEast = openOn(*east, kRead);
    EXPECT_THAT(messages.info(), testing::HasSubstr("to 10.9.0.191\n"));
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.129", pdu(144)));
}

TEST_F(UnusualMasks, withTwoAddressesTheUpperOneIsTheBroadcastAddress) {
    plugIn("10.9.0.0/31", "10.9.0.1/31");
    Socket onWest = openOn(*west), onEast = openOn(*east, kRead);
    EXPECT_THAT(messages.info(), testing::HasSubstr("to 10.9.0.1\n"));
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.0", pdu(144)));
}

TEST_F(UnusualMasks, withOneAddressAHostSpeaksToItself) {
    plugIn("10.9.0.1/32", "10.9.0.2/32");
    Socket onWest = openOn(*west);
    EXPECT_THAT(messages.info(), testing::HasSubstr("to 10.9.0.1\n"));
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.1", pdu(144)));
}

TEST_F(UnusualMasks, withoutAMaskTheBroadcastAddressIsAllOnes) {
    plugIn("10.9.0.1/0", "10.9.0.2/0");
    west->in([] { run("ip route add default dev wire"); });  // a subnet of everything gets no route by itself
    Socket onWest = openOn(*west), onEast = openOn(*east, kRead);
    EXPECT_THAT(messages.info(), testing::HasSubstr("to 255.255.255.255\n"));
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144)));
}

// --- three hosts in a row ---

TEST_F(BroadcastInARow, theDefaultIsTheFirstInterfaceInTheSystemsOrder) {
    Socket onWest = openOn(*west), onMiddle = openOn(*middle), onEast = openOn(*east);
    EXPECT_EQ(onMiddle->mcastDevice(), ipv4("10.1.0.2"));
    EXPECT_EQ(send(*onMiddle, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.2", pdu(144, 1)));
    EXPECT_EQ(send(*onMiddle, pdu(144, 2), ipv4("10.2.0.255")), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.2.0.2", pdu(144, 2)));  // and not the one before
    EXPECT_TRUE(isEmpty(*onWest));
}

TEST_F(BroadcastInARow, anotherSubnetIsReachedByItsBroadcastAddress) {
    Socket onWest = openOn(*west), onEast = openOn(*east);
    Socket onMiddle = openOn(*middle, kReadWrite, ipv4("10.2.0.255"), ipv4("10.2.0.2"));
    EXPECT_EQ(onMiddle->mcastDevice(), ipv4("10.2.0.2"));
    EXPECT_EQ(send(*onMiddle, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.2.0.2", pdu(144, 1)));
    EXPECT_EQ(send(*onMiddle, pdu(144, 2), ipv4("10.1.0.255")), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.2", pdu(144, 2)));
}

// The device argument is for multicast and for own packets; the default destination stays the first
// interface's.
TEST_F(BroadcastInARow, theDeviceDoesNotChangeTheDefaultDestination) {
    Socket onWest = openOn(*west), onMiddle = openOn(*middle, kReadWrite, kDefault, ipv4("10.2.0.2"));
    EXPECT_EQ(send(*onMiddle, pdu(144)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.2", pdu(144)));
}

TEST_F(BroadcastInARow, oneSocketHearsBothSidesAndBroadcastIsNotPassedOn) {
    Socket onWest = openOn(*west), onMiddle = openOn(*middle), onEast = openOn(*east);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.1.0.1", pdu(144, 1)));
    EXPECT_EQ(send(*onEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.2.0.3", pdu(144, 2)));
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.1", pdu(144, 1)));
    EXPECT_TRUE(isEmpty(*onWest));
    EXPECT_EQ(receive(*onEast), packetFrom("10.2.0.3", pdu(144, 2)));
    EXPECT_TRUE(isEmpty(*onEast));
}

TEST_F(BroadcastInARow, ownPacketsAreThoseOfTheSocketsOwnInterface) {
    Socket onMiddle = openOn(*middle, kReadWrite, ipv4("10.2.0.255"));
    onMiddle->setUnbundling(0);
    onMiddle->setFilterPort(kPort);
    EXPECT_EQ(send(*onMiddle, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onMiddle),
              packetFrom("10.2.0.2", pdu(144, 1)));  // that of the other interface is not known
    onMiddle->setMcastDevice(ipv4("10.2.0.2"));
    EXPECT_EQ(send(*onMiddle, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onMiddle), nothing(-3));
}

// --- interfaces ---

TEST_F(BroadcastInARow, theQueriesTellEachHostsOwnInterfaces) {
    west->in([] {
        EXPECT_EQ(NwFirstHostInetAddr(), ipv4("10.1.0.1"));
        EXPECT_EQ(NwInetAddrOfDevice("wire"), ipv4("10.1.0.1"));
    });
    middle->in([] {
        EXPECT_EQ(NwFirstHostInetAddr(), ipv4("10.1.0.2"));
        EXPECT_EQ(NwInetAddrOfDevice("eastward"), ipv4("10.2.0.2"));
        EXPECT_EQ(NwInetBroadcastOfDevice("eastward"), ipv4("10.2.0.255"));
        EXPECT_EQ(NwNetMaskOfDevice("eastward"), ipv4("255.255.255.0"));
    });
    EXPECT_EQ(messages.all(), "");
    middle->in([] { EXPECT_EQ(NwInetAddrOfDevice("wire"), 0u); });
    EXPECT_EQ(messages.warn(), "wire not an IP interface capable of broadcast.\n");
}

TEST_F(BroadcastInARow, whenTheFirstInterfaceIsDownTheSecondIsTheDefault) {
    middle->in([] { run("ip link set westward down"); });
    Socket onMiddle = openOn(*middle), onEast = openOn(*east);
    EXPECT_EQ(onMiddle->mcastDevice(), ipv4("10.2.0.2"));
    EXPECT_EQ(send(*onMiddle, pdu(144)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.2.0.2", pdu(144)));
}

TEST_F(Broadcast, anInterfaceThatGoesAwayFailsTheSendsAndNothingElse) {
    Socket onWest = openOn(*west);
    messages.all();
    unplug();
    EXPECT_EQ(send(*onWest, pdu(144)), -1);
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH));
    EXPECT_TRUE(onWest->isOk());
    west->in([] { EXPECT_EQ(NwFirstHostInetAddr(), 0u); });
    EXPECT_EQ(messages.warn(), "Couldn't find an IP interface capable of broadcast.\n");
    {
        Quiet quiet;
        EXPECT_EQ(send(*onWest, pdu(144)), -1);
    }
    EXPECT_EQ(messages.all(), "");
    // Its receiving side goes on.
    west->in([] {
        UdpPeer peer;
        peer.send(pdu(100), kPort);
    });
    EXPECT_EQ(receive(*onWest), packetFrom("127.0.0.1", pdu(100)));
}

TEST_F(Broadcast, aBundleWaitsForAnInterfaceThatComesBack) {
    Socket onWest = openOn(*west, kWrite);
    onWest->setBundling(1400);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 0);
    EXPECT_EQ(send(*onWest, pdu(144, 2)), 0);
    unplug();
    EXPECT_EQ(onWest->flush(), -1);
    plugIn("10.9.0.1/24", "10.9.0.2/24");
    Socket onEast = openOn(*east, kRead);
    EXPECT_EQ(onWest->flush(), 1);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 2)));
    EXPECT_EQ(onEast->NwReportPktsRcvd(), 1);
}

}  // namespace
