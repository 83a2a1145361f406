// SPDX-License-Identifier: BSD-3-Clause
// The group socket: the list of sites, the walk over it, a bundle for each site. The sites are addresses of
// loopback, heard by a raw peer that is bound to all of them; real hosts are in tests/hosts.
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"
#include "packets.h"

namespace {

const NwIpv4Addr kA = 0x7F000005u;
const NwIpv4Addr kB = 0x7F000003u;  // lower than kA: the order of the list is not that of the numbers
const NwIpv4Addr kC = 0x7F000009u;
const NwIpv4Addr kUnreachable = 0x0A090901u;  // no route leads there in a private network
const unsigned char kWriteQuietly = 18;

struct Sent {
    NwIpv4Addr to;
    std::string bytes;
    bool operator==(const Sent& other) const { return to == other.to && bytes == other.bytes; }
};

std::ostream& operator<<(std::ostream& out, const Sent& sent) {
    return out << NwInetAddrString(sent.to) << " \"" << sent.bytes.substr(0, 20) << "\" ("
               << sent.bytes.size() << ")";
}

typedef std::vector<Sent> Traffic;

class Group : public NwGroupSocket {
public:
    using NwGroupSocket::bundles;
    using NwGroupSocket::destAddr;
    using NwGroupSocket::NwGroupSocket;
    using NwGroupSocket::remoteSites;

    std::string pending(NwIpv4Addr site) {
        const auto bundle = bundles.find(site);
        return bundle == bundles.end() ? "none" : std::string(bundle->second.begin(), bundle->second.end());
    }
};

std::vector<NwIpv4Addr> sitesOf(const NwGroupSocket& socket) {
    std::vector<NwIpv4Addr> sites;
    for (const NwListItem* item = socket.remoteSitesList().first(); item; item = item->next())
        sites.push_back(static_cast<NwIpv4Addr>(reinterpret_cast<std::uintptr_t>(item->data())));
    return sites;
}

class GroupSocket : public testing::Test {
protected:
    GroupSocket() {
        const int on = 1;
        ::setsockopt(peer.fd(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        NwNetSocket::initErrorAction = 1;
        socket.reset(new Group(peer.port(), kLoopback, kWriteQuietly, kLoopback));
    }
    ~GroupSocket() override { NwNetSocket::initErrorAction = 0; }

    int send(std::string packet, NwIpv4Addr to = 0) {
        const int result = socket->NwSend(&packet[0], packet.size(), to);
        packet.assign(packet.size(), '#');
        return result;
    }
    int sendButTo(NwIpv4Addr except, std::string packet) {
        return socket->sendToAllRemoteSites(&packet[0], packet.size(), except);
    }
    void addSites(std::initializer_list<NwIpv4Addr> sites) {
        for (NwIpv4Addr site : sites) socket->addRemoteSite(site);
        messages.info();
    }
    // All that left, in order. Loopback delivers at once.
    Traffic take() {
        Traffic traffic;
        while (waitReadable(peer.fd(), 0)) traffic.push_back(next());
        return traffic;
    }

    Messages messages;
    UdpPeer peer{0};
    std::unique_ptr<Group> socket;

private:
    Sent next() {
        std::vector<char> buffer(70000);
        iovec part = {buffer.data(), buffer.size()};
        alignas(cmsghdr) char control[256];
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t length = ::recvmsg(peer.fd(), &message, 0);
        Sent sent = {0, std::string(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0)};
        for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_PKTINFO) continue;
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            sent.to = ntohl(info.ipi_addr.s_addr);
        }
        return sent;
    }
};

std::string bytes(std::size_t count, char letter) {
    return std::string(count, letter);
}

}  // namespace

// --- construction ----------------------------------------------------------------------------------------

TEST_F(GroupSocket, startsWithoutSites) {
    EXPECT_EQ(socket->remoteSitesList().count(), 0);
    EXPECT_EQ(socket->remoteSitesList().first(), nullptr);
    EXPECT_EQ(&socket->remoteSitesList(), &socket->remoteSites);
}

TEST_F(GroupSocket, passesItsArgumentsToTheUdpSocket) {
    const int port = freePort();
    Group both(port, kLoopback, (unsigned char)3, kB);
    EXPECT_TRUE(both.isOk());
    EXPECT_EQ(messages.info(), "NetSocket ok for port " + std::to_string(port) + " to 127.0.0.1\n");
    EXPECT_EQ(both.mcastDevice(), kB);
    EXPECT_EQ(both.destAddr, kLoopback);

    Group reader(freePort(), (unsigned char)(1 | 16), kA);
    EXPECT_TRUE(reader.isOk());
    EXPECT_EQ(reader.mcastDevice(), kA);
    EXPECT_GE(reader.readFd(), 0);
    EXPECT_EQ(reader.writeFd(), -1);
    EXPECT_EQ(messages.all(), "");
}

// --- the list --------------------------------------------------------------------------------------------

TEST_F(GroupSocket, sitesStandInTheOrderInWhichTheyWereAdded) {
    for (NwIpv4Addr site : {kA, kB, kC}) socket->addRemoteSite(site);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kA, kB, kC}));
    EXPECT_EQ(messages.info(),
              "NwGroupSocket adding remote site 127.0.0.5.\n"
              "NwGroupSocket adding remote site 127.0.0.3.\n"
              "NwGroupSocket adding remote site 127.0.0.9.\n");
    EXPECT_EQ(messages.all(), "");
}

TEST_F(GroupSocket, siteAddedTwiceStandsOnceAndIsToldOnce) {
    socket->addRemoteSite(kA);
    socket->addRemoteSite(kB);
    messages.info();
    socket->addRemoteSite(kA);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kA, kB}));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(GroupSocket, quietSocketsAddWithoutAWord) {
    Quiet quiet;
    socket->addRemoteSite(kA);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kA}));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(GroupSocket, removesTheSiteThatIsThere) {
    addSites({kA, kB, kC});
    socket->removeRemoteSite(kB);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kA, kC}));
    socket->removeRemoteSite(kB);
    socket->removeRemoteSite(0x01020304u);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kA, kC}));
    socket->removeRemoteSite(kA);
    socket->removeRemoteSite(kC);
    EXPECT_EQ(sitesOf(*socket), std::vector<NwIpv4Addr>());
    EXPECT_EQ(messages.all(), "") << "removing is silent";
    socket->addRemoteSite(kB);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kB}));
}

TEST_F(GroupSocket, removesAllSites) {
    socket->removeAllRemoteSites();
    addSites({kA, kB, kC});
    socket->removeAllRemoteSites();
    EXPECT_EQ(socket->remoteSitesList().count(), 0);
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(send("a"), 0);
    EXPECT_EQ(take(), Traffic());
}

TEST_F(GroupSocket, findsTheItemOfASite) {
    addSites({kA, kB});
    EXPECT_EQ(socket->findItem(kA), socket->remoteSitesList().first());
    EXPECT_EQ(socket->findItem(kB), socket->remoteSitesList().last());
    EXPECT_EQ(socket->findItem(kC), nullptr);
    EXPECT_EQ(socket->findItem(0), nullptr);
    socket->addRemoteSite(0);
    EXPECT_EQ(socket->findItem(0), socket->remoteSitesList().last()) << "0 is a site like any other";
    socket->removeRemoteSite(0);
    EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{kA, kB}));
}

TEST_F(GroupSocket, everyAddressCanBeASite) {
    for (NwIpv4Addr site : {0x00000001u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        socket->addRemoteSite(site);
        ASSERT_NE(socket->findItem(site), nullptr);
        EXPECT_EQ(sitesOf(*socket), (std::vector<NwIpv4Addr>{site}));
        socket->removeRemoteSite(site);
    }
}

// --- sending ---------------------------------------------------------------------------------------------

TEST_F(GroupSocket, withoutSitesNothingIsSent) {
    EXPECT_EQ(send("a", kA), 0);
    EXPECT_EQ(take(), Traffic());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(GroupSocket, eachSiteGetsThePacketInTheOrderOfTheList) {
    addSites({kA, kB, kC});
    EXPECT_EQ(send("abc"), 3);
    EXPECT_EQ(take(), (Traffic{{kA, "abc"}, {kB, "abc"}, {kC, "abc"}}));
}

TEST_F(GroupSocket, destinationAskedForDoesNotCount) {
    addSites({kA, kB});
    EXPECT_EQ(send("abc", kC), 3);
    EXPECT_EQ(send("def", kA), 3);
    EXPECT_EQ(take(), (Traffic{{kA, "abc"}, {kB, "abc"}, {kA, "def"}, {kB, "def"}}));
}

TEST_F(GroupSocket, sendToGoesToOneDestination) {
    addSites({kA, kB});
    char byte = 'x';
    EXPECT_EQ(socket->sendTo(&byte, 1, kC), 1);
    EXPECT_EQ(socket->sendTo(&byte, 1, 0), 1);
    EXPECT_EQ(take(), (Traffic{{kC, "x"}, {kLoopback, "x"}}));
}

TEST_F(GroupSocket, oneSiteCanBeExcepted) {
    addSites({kA, kB, kC});
    EXPECT_EQ(sendButTo(kB, "abc"), 3);
    EXPECT_EQ(take(), (Traffic{{kA, "abc"}, {kC, "abc"}}));
    EXPECT_EQ(sendButTo(kA, "abc"), 3);
    EXPECT_EQ(take(), (Traffic{{kB, "abc"}, {kC, "abc"}}));
    EXPECT_EQ(sendButTo(0x01020304u, "abc"), 3) << "not in the list";
    EXPECT_EQ(take().size(), 3u);
}

TEST_F(GroupSocket, withOnlyTheExceptedSiteNothingIsSent) {
    addSites({kA});
    EXPECT_EQ(sendButTo(kA, "abc"), 0);
    EXPECT_EQ(take(), Traffic());
}

// "No site is skipped" is said with the address 0, which a site may have.
TEST_F(GroupSocket, siteWithAddressZeroIsSkippedBySend) {
    addSites({kA, 0, kB});
    EXPECT_EQ(send("abc"), 3);
    EXPECT_EQ(take(), (Traffic{{kA, "abc"}, {kB, "abc"}}));
    EXPECT_EQ(sendButTo(kA, "abc"), 3);
    EXPECT_EQ(take(), (Traffic{{kLoopback, "abc"}, {kB, "abc"}}))
        << "else it stands for the default destination";
}

TEST_F(GroupSocket, resultIsThatOfTheLastSite) {
    REQUIRE_PRIVATE_NETWORK();
    addSites({kUnreachable, kA});
    EXPECT_EQ(send("abc"), 3);
    socket->removeRemoteSite(kUnreachable);
    addSites({kUnreachable});
    EXPECT_EQ(send("abc"), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_EQ(sendButTo(kUnreachable, "abc"), 3);
}

TEST_F(GroupSocket, siteThatRefusesDoesNotStopTheOthers) {
    REQUIRE_PRIVATE_NETWORK();
    addSites({kA, kUnreachable, kB});
    EXPECT_EQ(send("abc"), 3);
    EXPECT_EQ(take(), (Traffic{{kA, "abc"}, {kB, "abc"}}));
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH));
}

TEST_F(GroupSocket, sitesMayChangeBetweenSends) {
    addSites({kA});
    send("1");
    addSites({kB});
    send("2");
    socket->removeRemoteSite(kA);
    send("3");
    addSites({kA});
    send("4");
    EXPECT_EQ(take(), (Traffic{{kA, "1"}, {kA, "2"}, {kB, "2"}, {kB, "3"}, {kB, "4"}, {kA, "4"}}));
}

TEST_F(GroupSocket, emptyPacketIsNotSent) {
    addSites({kA, kB});
    EXPECT_EQ(send(""), 0);
    EXPECT_EQ(take(), Traffic());
}

TEST_F(GroupSocket, withoutItsWriteSideEachSiteIsReported) {
    Group reader(freePort(), kLoopback, (unsigned char)(1 | 16), kLoopback);
    {
        Quiet quiet;
        reader.addRemoteSite(kA);
        reader.addRemoteSite(kB);
    }
    char byte = 'a';
    EXPECT_EQ(reader.NwSend(&byte, 1, 0), -1);
    EXPECT_EQ(messages.warn(),
              "NetSocket not initialized for sending\nNetSocket not initialized for sending\n");
}

// --- bundling --------------------------------------------------------------------------------------------

TEST_F(GroupSocket, eachSiteHasABundleOfItsOwn) {
    addSites({kA, kB});
    socket->setBundling(1400);
    EXPECT_EQ(send(bytes(100, 'a')), 0);
    EXPECT_EQ(send(bytes(50, 'b')), 0);
    EXPECT_EQ(socket->pending(kA), bytes(100, 'a') + bytes(50, 'b'));
    EXPECT_EQ(socket->pending(kB), bytes(100, 'a') + bytes(50, 'b'));
    EXPECT_EQ(take(), Traffic());
    long sent = 0;
    EXPECT_EQ(socket->flush(sent), 1);
    EXPECT_EQ(sent, 300);
    EXPECT_EQ(take(),
              (Traffic{{kB, bytes(100, 'a') + bytes(50, 'b')}, {kA, bytes(100, 'a') + bytes(50, 'b')}}))
        << "a flush goes by address, as everywhere";
}

TEST_F(GroupSocket, exceptedSitesBundleStaysAsItIs) {
    addSites({kA, kB});
    socket->setBundling(1400);
    send("both");
    sendButTo(kA, "B only");
    EXPECT_EQ(socket->pending(kA), "both");
    EXPECT_EQ(socket->pending(kB), "bothB only");
    socket->setBundling(0);
    EXPECT_EQ(take(), (Traffic{{kB, "bothB only"}, {kA, "both"}}));
}

TEST_F(GroupSocket, overflowOfTheFirstSiteFlushesAllAndTheLastResultIsToldAlone) {
    addSites({kA, kB});
    socket->setBundling(10);
    send("123456");
    EXPECT_EQ(send("78901"), 0) << "the first site's send flushed 12 bytes, the last one's none";
    EXPECT_EQ(take(), (Traffic{{kB, "123456"}, {kA, "123456"}}));
    EXPECT_EQ(socket->pending(kA), "78901");
    EXPECT_EQ(socket->pending(kB), "78901");
}

TEST_F(GroupSocket, bundlesOfARemovedSiteStillLeave) {
    addSites({kA, kB});
    socket->setBundling(1400);
    send("abc");
    socket->removeRemoteSite(kA);
    socket->flush();
    EXPECT_EQ(take(), (Traffic{{kB, "abc"}, {kA, "abc"}}));
}

TEST_F(GroupSocket, bundlesThatWaitLeaveWithTheSocket) {
    addSites({kA, kB});
    socket->setBundling(1400);
    send("abc");
    socket.reset();
    EXPECT_EQ(take(), (Traffic{{kB, "abc"}, {kA, "abc"}}));
}

TEST_F(GroupSocket, packetAsLargeAsABundleGoesToEachSiteAtOnce) {
    addSites({kA, kB});
    socket->setBundling(100);
    send("waits");
    EXPECT_EQ(send(bytes(100, 'x')), 100);
    EXPECT_EQ(take(), (Traffic{{kB, "waits"}, {kA, "waits"}, {kA, bytes(100, 'x')}, {kB, bytes(100, 'x')}}));
}

// The flush goes by address and stops at the site that refuses: those behind it keep their bundles, and the
// packet for which room was to be made is dropped for that site.
TEST_F(GroupSocket, withBundlingTheFlushStopsAtTheSiteThatRefuses) {
    REQUIRE_PRIVATE_NETWORK();
    const NwIpv4Addr kLower = 0x0A090901u;  // kUnreachable, below all of loopback
    addSites({kA, kLower, kB});
    socket->setBundling(10);
    EXPECT_EQ(send("123456"), 0);
    EXPECT_EQ(socket->flush(), -1);
    EXPECT_EQ(take(), Traffic()) << "the sites behind it wait";
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH));

    EXPECT_EQ(send("78901"), -1);
    EXPECT_EQ(socket->pending(kA), "123456");
    EXPECT_EQ(socket->pending(kLower), "123456");
    EXPECT_EQ(socket->pending(kB), "123456");
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH) +
                                   systemReport("NetSocket::sendTo", ENETUNREACH) +
                                   systemReport("NetSocket::sendTo", ENETUNREACH))
        << "each site's send tried to make room";
}

TEST_F(GroupSocket, sitesBelowTheOneThatRefusesAreFlushed) {
    REQUIRE_PRIVATE_NETWORK();
    const NwIpv4Addr kHigher = 0xC0A80901u;  // above loopback, out of reach too
    addSites({kHigher, kA});
    socket->setBundling(10);
    send("123456");
    EXPECT_EQ(socket->flush(), -1);
    EXPECT_EQ(take(), (Traffic{{kA, "123456"}}));
    EXPECT_EQ(socket->pending(kHigher), "123456");
    EXPECT_EQ(send("12345678"), 0) << "no room at the site that refuses; the last one has it";
    EXPECT_EQ(socket->pending(kHigher), "123456");
    EXPECT_EQ(socket->pending(kA), "12345678");
}

// --- receiving, virtual calls ----------------------------------------------------------------------------

TEST_F(GroupSocket, receivesAsAUdpSocket) {
    Group reader(0, kLoopback, (unsigned char)(1 | 8 | 16), kLoopback);
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    ::getsockname(reader.readFd(), reinterpret_cast<sockaddr*>(&local), &size);
    peer.send(pdu(100, 1) + pdu(50, 2), ntohs(local.sin_port));
    char* packet = nullptr;
    int status = 7;
    EXPECT_EQ(reader.NwRecv(&packet, &status), 100);
    EXPECT_EQ(reader.NwRecv(&packet, &status), 50);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::string(packet, 50), pdu(50, 2));
    EXPECT_EQ(reader.NwReportPktsRcvd(), 1);
}

TEST_F(GroupSocket, sendAsksTheTableForTheWalkAndTheWalkForTheTransport) {
    struct Derived : Group {
        using Group::Group;
        int NwSend(char* buf, unsigned long len, unsigned int addr) override {
            ++sends;
            return Group::NwSend(buf, len, addr);
        }
        int sendToAllRemoteSites(char* buf, unsigned long len, unsigned int except) override {
            excepted.push_back(except);
            return Group::sendToAllRemoteSites(buf, len, except);
        }
        int sendTo(char*, unsigned long, unsigned int to) override {
            sites.push_back(to);
            return 5;
        }
        int sends = 0;
        std::vector<unsigned int> excepted, sites;
    } derived(peer.port(), kLoopback, kWriteQuietly, kLoopback);
    Quiet quiet;
    derived.addRemoteSite(kA);
    derived.addRemoteSite(kB);
    char byte = 'a';
    NwSocket& socketBase = derived;
    EXPECT_EQ(socketBase.NwSend(&byte, 1, kC), 5);
    EXPECT_EQ(derived.sends, 1) << "the walk calls the base's send directly";
    EXPECT_THAT(derived.excepted, testing::ElementsAre(0u));
    EXPECT_THAT(derived.sites, testing::ElementsAre(kA, kB));
}

TEST_F(GroupSocket, endRemovesTheSitesDirectly) {
    struct Derived : Group {
        using Group::Group;
        void removeAllRemoteSites() override { ++*calls; }
        int* calls = nullptr;
    };
    int calls = 0;
    {
        Derived derived(peer.port(), kLoopback, kWriteQuietly, kLoopback);
        derived.calls = &calls;
        Quiet quiet;
        derived.addRemoteSite(kA);
    }
    EXPECT_EQ(calls, 0);
}
