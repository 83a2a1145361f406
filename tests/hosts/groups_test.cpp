// SPDX-License-Identifier: BSD-3-Clause
// Multicast between hosts: joining, leaving, interfaces, time-to-live.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/mroute.h>  // after the C library's own definitions, which it then takes over

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

#include "hosts.h"

namespace {

using Groups = TwoHosts;
using GroupsInARow = ThreeHosts;

const NwIpv4Addr kGroup = 0xEF010203u;       // 239.1.2.3
const NwIpv4Addr kOtherGroup = 0xEF010204u;  // 239.1.2.4

std::set<NwIpv4Addr> joinedOn(const Host& host, const std::string& interface) {
    std::set<NwIpv4Addr> groups;
    host.in([&] { groups = groupsJoinedOn(interface); });
    return groups;
}

// Lets a host pass the multicast of one sender and group on from its first to its second interface, as long
// as it lives.
class MulticastRouter {
public:
    MulticastRouter(const Host& host, const char* in, const char* out, NwIpv4Addr sender, NwIpv4Addr group) {
        host.in([&] {
            myFd = ::socket(AF_INET, SOCK_RAW, IPPROTO_IGMP);
            const int on = 1;
            set(MRT_INIT, &on, sizeof on);
            addInterface(0, in);
            addInterface(1, out);
            mfcctl route = {};
            route.mfcc_origin.s_addr = htonl(sender);
            route.mfcc_mcastgrp.s_addr = htonl(group);
            route.mfcc_parent = 0;
            route.mfcc_ttls[1] = 1;
            set(MRT_ADD_MFC, &route, sizeof route);
        });
    }
    ~MulticastRouter() { ::close(myFd); }
    bool works() const { return myWorks; }

private:
    void addInterface(vifi_t number, const char* name) {
        vifctl interface = {};
        interface.vifc_vifi = number;
        interface.vifc_flags = VIFF_USE_IFINDEX;
        interface.vifc_threshold = 1;
        interface.vifc_lcl_ifindex = static_cast<int>(::if_nametoindex(name));
        set(MRT_ADD_VIF, &interface, sizeof interface);
    }
    void set(int option, const void* value, std::size_t size) {
        myWorks = myWorks && ::setsockopt(myFd, IPPROTO_IP, option, value, static_cast<socklen_t>(size)) == 0;
    }

    int myFd = -1;
    bool myWorks = true;
};

// --- joining and leaving ---

TEST_F(Groups, aGroupsPacketsReachTheHostsThatJoined) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onEast = openOn(*east, kReadWrite, kGroup);
    EXPECT_EQ(joinedOn(*west, "wire"), std::set<NwIpv4Addr>{kGroup});
    EXPECT_EQ(joinedOn(*east, "wire"), std::set<NwIpv4Addr>{kGroup});
    EXPECT_EQ(messages.verbose(),
              "Listening to multicast group: 239.1.2.3 on interface: 10.9.0.1\n"
              "Listening to multicast group: 239.1.2.3 on interface: 10.9.0.2\n");
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.1", pdu(144, 1)));  // its own
    EXPECT_EQ(send(*onEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.2", pdu(144, 2)));
}

TEST_F(Groups, whatArrivesFollowsJoinsAndLeaves) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onEast = openOn(*east, kRead);
    const auto sendBoth = [&](int seed) {
        EXPECT_EQ(send(*onWest, pdu(144, seed), kGroup), 144);
        EXPECT_EQ(send(*onWest, pdu(100, seed), ipv4("10.9.0.255")), 100);
    };
    sendBoth(1);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(100, 1)));
    east->in([&] { EXPECT_EQ(onEast->listenToMulticastGroup(kGroup, kDefault), 1); });
    EXPECT_EQ(joinedOn(*east, "wire"), std::set<NwIpv4Addr>{kGroup});
    sendBoth(2);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 2)));
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(100, 2)));
    east->in([&] { EXPECT_EQ(onEast->dropMulticastGroup(kGroup, kDefault), 1); });
    EXPECT_EQ(joinedOn(*east, "wire"), std::set<NwIpv4Addr>{});
    sendBoth(3);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(100, 3)));
    EXPECT_TRUE(isEmpty(*onEast));
}

TEST_F(Groups, twoGroupsAreLeftOneByOne) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onEast = openOn(*east, kRead, kGroup);
    EXPECT_EQ(onEast->listenToMulticastGroup(kOtherGroup, kDefault), 1);
    EXPECT_EQ(joinedOn(*east, "wire"), (std::set<NwIpv4Addr>{kGroup, kOtherGroup}));
    EXPECT_EQ(onEast->dropMulticastGroup(kGroup, kDefault), 1);
    EXPECT_EQ(joinedOn(*east, "wire"), std::set<NwIpv4Addr>{kOtherGroup});
    EXPECT_EQ(send(*onWest, pdu(144, 1), kGroup), 144);
    EXPECT_EQ(send(*onWest, pdu(144, 2), kOtherGroup), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 2)));
}

TEST_F(Groups, everySocketOfAHostOnThePortGetsAGroupsPacket) {
    Socket onWest = openOn(*west, kReadWrite, kGroup);
    Socket first = openOn(*east, kRead, kGroup), second = openOn(*east, kReadWrite, kGroup),
           third = openOn(*east, kRead | kBind, kGroup);
    EXPECT_EQ(send(*onWest, pdu(144)), 144);
    for (Socket* socket : {&first, &second, &third})
        EXPECT_EQ(receive(**socket), packetFrom("10.9.0.1", pdu(144)));
}

TEST_F(Groups, aSocketBoundToItsGroupHearsThatGroupAlone) {
    Socket onWest = openOn(*west, kReadWrite, kGroup);
    Socket bound = openOn(*east, kReadWrite | kBind, kGroup);
    EXPECT_EQ(bound->listenToMulticastGroup(kOtherGroup, kDefault), 0);
    EXPECT_EQ(messages.warn(), "listenToMulticastGroup ineffective while bound to destAddr\n");
    EXPECT_EQ(joinedOn(*east, "wire"), (std::set<NwIpv4Addr>{kGroup, kOtherGroup}));
    EXPECT_EQ(send(*onWest, pdu(144, 1), ipv4("10.9.0.255")), 144);
    EXPECT_EQ(send(*onWest, pdu(144, 2), ipv4("10.9.0.2")), 144);
    EXPECT_EQ(send(*onWest, pdu(144, 3), kOtherGroup), 144);
    EXPECT_EQ(send(*onWest, pdu(144, 4), kGroup), 144);
    EXPECT_EQ(receive(*bound), packetFrom("10.9.0.1", pdu(144, 4)));
    EXPECT_TRUE(isEmpty(*bound));
}

TEST_F(Groups, ownPacketsAreDroppedAndOthersComeThrough) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onEast = openOn(*east, kReadWrite, kGroup);
    onWest->setFilterPort(kPort);
    onWest->setUnbundling(0);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onWest), nothing(-3));
    EXPECT_EQ(send(*onEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.9.0.2", pdu(144, 2)));
    onWest->setUnbundling(1);
    EXPECT_EQ(send(*onWest, pdu(144, 3)), 144);
    EXPECT_EQ(receive(*onWest), nothing(0));
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
}

// --- interfaces ---

TEST_F(GroupsInARow, aGroupIsSentAndHeardOnTheDeviceGiven) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onEast = openOn(*east, kReadWrite, kGroup);
    Socket onMiddle = openOn(*middle, kReadWrite, kGroup, ipv4("10.2.0.2"));
    EXPECT_EQ(joinedOn(*middle, "westward"), std::set<NwIpv4Addr>{});
    EXPECT_EQ(joinedOn(*middle, "eastward"), std::set<NwIpv4Addr>{kGroup});
    EXPECT_EQ(send(*onMiddle, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.2.0.2", pdu(144, 1)));
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.2.0.2", pdu(144, 1)));
    EXPECT_EQ(send(*onWest, pdu(144, 2)), 144);  // not heard in the middle
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.1", pdu(144, 2)));
    EXPECT_EQ(send(*onEast, pdu(144, 3)), 144);
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.2.0.3", pdu(144, 3)));
}

TEST_F(GroupsInARow, withoutADeviceItIsTheFirstInterface) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onMiddle = openOn(*middle, kReadWrite, kGroup);
    EXPECT_EQ(joinedOn(*middle, "westward"), std::set<NwIpv4Addr>{kGroup});
    EXPECT_EQ(joinedOn(*middle, "eastward"), std::set<NwIpv4Addr>{});
    EXPECT_EQ(send(*onMiddle, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.2", pdu(144, 1)));
}

TEST_F(GroupsInARow, theNextJoinMovesOutgoingMulticastNotTheSetting) {
    Socket onWest = openOn(*west, kRead, kGroup), onEast = openOn(*east, kRead, kGroup);
    Socket onMiddle = openOn(*middle, kReadWrite, kGroup);
    onMiddle->setMcastDevice(ipv4("10.2.0.2"));
    EXPECT_EQ(send(*onMiddle, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onWest), packetFrom("10.1.0.2", pdu(144, 1)));
    EXPECT_EQ(onMiddle->listenToMulticastGroup(kOtherGroup, kDefault), 1);
    EXPECT_EQ(joinedOn(*middle, "eastward"), std::set<NwIpv4Addr>{kOtherGroup});
    EXPECT_EQ(send(*onMiddle, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.2.0.2", pdu(144, 2)));
    EXPECT_TRUE(isEmpty(*onWest));
}

TEST_F(GroupsInARow, aGroupOnBothInterfacesIsHeardFromBothSides) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), onEast = openOn(*east, kReadWrite, kGroup);
    Socket onMiddle = openOn(*middle, kReadWrite, kGroup);
    EXPECT_EQ(onMiddle->listenToMulticastGroup(kGroup, ipv4("10.2.0.2")), 1);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.1.0.1", pdu(144, 1)));
    EXPECT_EQ(send(*onEast, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.2.0.3", pdu(144, 2)));
}

TEST_F(Groups, anInterfaceThatGoesAwayTakesItsGroupsAlong) {
    Socket onWest = openOn(*west, kReadWrite, kGroup);
    messages.all();
    unplug();
    EXPECT_EQ(joinedOn(*west, "wire"), std::set<NwIpv4Addr>{});
    EXPECT_EQ(onWest->listenToMulticastGroup(kOtherGroup, kDefault), 0);
    EXPECT_EQ(messages.warn(), systemReport("NetSocket: setsockopt IP_MULTICAST_IF failed", EADDRNOTAVAIL));
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(send(*onWest, pdu(144)), -1);
    EXPECT_THAT(messages.warn(), testing::StartsWith("NetSocket::sendTo: "));
    // A new interface with the same address is a new one to join on.
    plugIn("10.9.0.1/24", "10.9.0.2/24");
    Socket onEast = openOn(*east, kReadWrite, kOtherGroup);
    messages.all();
    EXPECT_EQ(onWest->listenToMulticastGroup(kOtherGroup, kDefault), 1);
    EXPECT_EQ(messages.all(), "Listening to multicast group: 239.1.2.4 on interface: 10.9.0.1\n");
    EXPECT_EQ(send(*onWest, pdu(144, 1), kOtherGroup), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 1)));
}

// --- time-to-live ---

TEST_F(Groups, withATimeToLiveOfZeroPacketsStayOnTheHost) {
    Socket onWest = openOn(*west, kReadWrite, kGroup), neighbour = openOn(*west, kRead, kGroup);
    Socket onEast = openOn(*east, kRead, kGroup);
    EXPECT_EQ(onWest->setMcastTtl(0), 1);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);
    EXPECT_EQ(receive(*neighbour), packetFrom("10.9.0.1", pdu(144, 1)));
    EXPECT_EQ(onWest->setMcastTtl(257), 1);  // that is 1
    EXPECT_EQ(send(*onWest, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.9.0.1", pdu(144, 2)));
    EXPECT_EQ(receive(*neighbour), packetFrom("10.9.0.1", pdu(144, 2)));
}

TEST_F(GroupsInARow, withATimeToLiveOfOnePacketsStayOnTheCable) {
    MulticastRouter router(*middle, "westward", "eastward", ipv4("10.1.0.1"), kGroup);
    if (!router.works()) GTEST_SKIP() << "this system cannot route multicast: " << std::strerror(errno);
    east->in([] { run("ip route add 10.1.0.0/24 via 10.2.0.2"); });
    Socket onWest = openOn(*west, kReadWrite, kGroup), onMiddle = openOn(*middle, kRead, kGroup);
    Socket onEast = openOn(*east, kRead, kGroup);
    EXPECT_EQ(send(*onWest, pdu(144, 1)), 144);  // 1 is what a socket starts with
    EXPECT_EQ(onWest->setMcastTtl(257), 1);      // and so is this
    EXPECT_EQ(send(*onWest, pdu(144, 2)), 144);
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.1.0.1", pdu(144, 1)));
    EXPECT_EQ(receive(*onMiddle), packetFrom("10.1.0.1", pdu(144, 2)));
    EXPECT_EQ(onWest->setMcastTtl(2), 1);
    EXPECT_EQ(send(*onWest, pdu(144, 3)), 144);
    EXPECT_EQ(receive(*onEast), packetFrom("10.1.0.1", pdu(144, 3)));
    EXPECT_TRUE(isEmpty(*onEast));
}

}  // namespace
