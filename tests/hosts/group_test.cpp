// SPDX-License-Identifier: BSD-3-Clause
// The group socket between real hosts: a centre with a cable to each of three sites.
//
//     first  10.1.0.2 ---- 10.1.0.1 |
//     second 10.2.0.2 ---- 10.2.0.1 | centre
//     third  10.3.0.2 ---- 10.3.0.1 |
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "hosts.h"

namespace {

const NwIpv4Addr kFirst = 0x0A010002u;
const NwIpv4Addr kSecond = 0x0A020002u;
const NwIpv4Addr kThird = 0x0A030002u;
// No route leads there; between the first and the second in number.
const NwIpv4Addr kNowhere = 0x0A010501u;

using GroupPtr = std::unique_ptr<NwGroupSocket>;

GroupPtr openGroupOn(const Host& host, NwIpv4Addr device) {
    GroupPtr socket;
    // Bound to all addresses; the default destination is not used.
    host.in([&] { socket.reset(new NwGroupSocket(kPort, loopbackAddr, (unsigned char)3, device)); });
    return socket;
}

int sendToSites(NwGroupSocket& socket, std::string packet) {
    return socket.NwSend(&packet[0], packet.size(), kDefault);
}

// The UDP datagrams that leave a host by any of its cables, in the order in which they do: each one's
// destination.
class Departures {
public:
    explicit Departures(const Host& host) {
        host.in([&] { myFd = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK, htons(ETH_P_ALL)); });
    }
    ~Departures() { ::close(myFd); }
    Departures(const Departures&) = delete;
    Departures& operator=(const Departures&) = delete;

    std::vector<NwIpv4Addr> take() const {
        std::vector<NwIpv4Addr> destinations;
        for (;;) {
            iphdr header;
            sockaddr_ll link = {};
            socklen_t size = sizeof link;
            const ssize_t length = ::recvfrom(myFd, &header, sizeof header, MSG_TRUNC,
                                              reinterpret_cast<sockaddr*>(&link), &size);
            if (length < 0) return destinations;
            const bool isUdpOut =
                link.sll_pkttype == PACKET_OUTGOING && link.sll_protocol == htons(ETH_P_IP) &&
                length >= static_cast<ssize_t>(sizeof header) && header.protocol == IPPROTO_UDP;
            if (isUdpOut) destinations.push_back(ntohl(header.daddr));
        }
    }

private:
    int myFd = -1;
};

class GroupHosts : public HostsTest {
protected:
    void build() override {
        for (auto* host : {&centre, &first, &second, &third}) host->reset(new Host);
        centre->connect("cable1", "10.1.0.1/24", *first, "wire", "10.1.0.2/24");
        centre->connect("cable2", "10.2.0.1/24", *second, "wire", "10.2.0.2/24");
        centre->connect("cable3", "10.3.0.1/24", *third, "wire", "10.3.0.2/24");
        group = openGroupOn(*centre, 0x0A010001u);
        atFirst = openOn(*first);
        atSecond = openOn(*second);
        atThird = openOn(*third);
        // The neighbours get to know each other: what waits for that leaves out of turn.
        for (NwIpv4Addr site : {kFirst, kSecond, kThird}) greet(*group, site);
        for (Socket* site : {&atFirst, &atSecond, &atThird}) receive(**site);
    }
    static void greet(NwGroupSocket& socket, NwIpv4Addr to) {
        std::string packet = "hello there, site";
        socket.sendTo(&packet[0], packet.size(), to);
    }
    void addSites(std::initializer_list<NwIpv4Addr> sites) {
        for (NwIpv4Addr site : sites) group->addRemoteSite(site);
        messages.all();
    }
    std::unique_ptr<Host> centre, first, second, third;
    GroupPtr group;
    Socket atFirst, atSecond, atThird;
};

}  // namespace

TEST_F(GroupHosts, everySiteGetsEveryPacketByUnicastInTheOrderOfTheList) {
    addSites({kThird, kFirst, kSecond});
    const Departures departures(*centre);
    std::vector<NwIpv4Addr> expected;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(sendToSites(*group, pdu(144, i)), 144);
        for (NwIpv4Addr site : {kThird, kFirst, kSecond}) expected.push_back(site);
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(144, i)));
        EXPECT_EQ(receive(*atSecond), packetFrom("10.2.0.1", pdu(144, i)));
        EXPECT_EQ(receive(*atThird), packetFrom("10.3.0.1", pdu(144, i)));
    }
    EXPECT_EQ(departures.take(), expected);
    EXPECT_TRUE(isEmpty(*atFirst) && isEmpty(*atSecond) && isEmpty(*atThird));
}

TEST_F(GroupHosts, siteOutOfReachDoesNotStopTheOthers) {
    addSites({kFirst, kNowhere, kThird});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(sendToSites(*group, pdu(100, i)), 100);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(100, i)));
        EXPECT_EQ(receive(*atThird), packetFrom("10.3.0.1", pdu(100, i)));
    }
    const std::string report = systemReport("NetSocket::sendTo", ENETUNREACH);
    EXPECT_EQ(messages.warn(), report + report + report);
}

TEST_F(GroupHosts, siteWhoseCableIsPulledAndPluggedInAgain) {
    addSites({kFirst, kSecond, kThird});
    centre->in([] { run("ip link set cable2 down"); });
    EXPECT_EQ(sendToSites(*group, pdu(100, 1)), 100);
    EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(100, 1)));
    EXPECT_EQ(receive(*atThird), packetFrom("10.3.0.1", pdu(100, 1)));
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH));
    centre->in([] { run("ip link set cable2 up"); });
    // The cable carries again a moment later.
    EXPECT_TRUE(eventually([&] {
        sendToSites(*group, pdu(100, 2));
        return waitReadable(atSecond->readFd(), 50);
    }));
    EXPECT_EQ(receive(*atSecond), packetFrom("10.2.0.1", pdu(100, 2)));
}

TEST_F(GroupHosts, eachSiteHasItsBundle) {
    addSites({kThird, kFirst});
    group->setBundling(1000);
    const Departures departures(*centre);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(sendToSites(*group, pdu(144, i)), 0);
    EXPECT_TRUE(isEmpty(*atFirst));
    EXPECT_EQ(group->flush(), 1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(144, i)));
        EXPECT_EQ(receive(*atThird), packetFrom("10.3.0.1", pdu(144, i)));
    }
    EXPECT_EQ(departures.take(), (std::vector<NwIpv4Addr>{kFirst, kThird}))
        << "one datagram each, lowest address first";
    EXPECT_EQ(atFirst->NwReportPktsRcvd(), 2) << "the greeting and the bundle";
}

TEST_F(GroupHosts, withBundlingTheFlushStopsAtTheSiteOutOfReach) {
    addSites({kSecond, kNowhere, kFirst});
    group->setBundling(1000);
    sendToSites(*group, pdu(144, 1));
    EXPECT_EQ(group->flush(), -1);
    EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(144, 1))) << "its address comes before";
    EXPECT_TRUE(isEmpty(*atSecond)) << "behind the one that cannot be reached";
    // Room is to be made: no bundle of what is behind can take the packet.
    EXPECT_EQ(sendToSites(*group, pdu(900, 2)), 0) << "the last site's is empty";
    EXPECT_EQ(group->flush(), -1);
    EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(900, 2)));
    EXPECT_TRUE(isEmpty(*atSecond));

    centre->in([] { run("ip addr add 10.1.5.1/32 dev lo"); });
    EXPECT_EQ(group->flush(), 1) << "within reach now";
    EXPECT_EQ(receive(*atSecond), packetFrom("10.2.0.1", pdu(144, 1))) << "kept; the second was never taken";
    EXPECT_TRUE(isEmpty(*atSecond));
}

TEST_F(GroupHosts, siteWithAddressZeroIsSkipped) {
    addSites({kFirst, 0, kThird});
    const Departures departures(*centre);
    EXPECT_EQ(sendToSites(*group, pdu(100)), 100);
    EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(100)));
    EXPECT_EQ(receive(*atThird), packetFrom("10.3.0.1", pdu(100)));
    EXPECT_EQ(departures.take(), (std::vector<NwIpv4Addr>{kFirst, kThird}));
}

TEST_F(GroupHosts, centrePassesOnToAllButTheSender) {
    addSites({kFirst, kSecond, kThird});
    std::string packet = pdu(144, 7);
    atSecond->NwSend(&packet[0], packet.size(), 0x0A020001u);
    ASSERT_EQ(receive(*group), packetFrom("10.2.0.2", pdu(144, 7)));
    EXPECT_EQ(group->sendToAllRemoteSites(&packet[0], packet.size(), group->lastSourceInetAddr()), 144);
    EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(144, 7)));
    EXPECT_EQ(receive(*atThird), packetFrom("10.3.0.1", pdu(144, 7)));
    EXPECT_TRUE(isEmpty(*atSecond));
}

TEST_F(GroupHosts, bundlesLeaveWithTheSocket) {
    addSites({kFirst, kSecond});
    group->setBundling(1000);
    sendToSites(*group, pdu(144, 3));
    group.reset();
    EXPECT_EQ(receive(*atFirst), packetFrom("10.1.0.1", pdu(144, 3)));
    EXPECT_EQ(receive(*atSecond), packetFrom("10.2.0.1", pdu(144, 3)));
}
