// SPDX-License-Identifier: BSD-3-Clause
// The socket base class: bundling, flushing, the defaults of every operation, the four header filters. The
// rules of bundling run twice: over a transport that notes what it is given, and over the UDP socket with a
// raw peer that sees each datagram and where it was sent.
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "child.h"
#include "messages.h"
#include "network.h"
#include "packets.h"

namespace {

// One call of sendTo, or one datagram on the wire: where to, and the bytes.
struct Sent {
    NwIpv4Addr to;
    std::string bytes;
    bool operator==(const Sent& other) const { return to == other.to && bytes == other.bytes; }
};

std::ostream& operator<<(std::ostream& out, const Sent& sent) {
    return out << NwInetAddrString(sent.to) << " " << sent.bytes.size() << " bytes \""
               << sent.bytes.substr(0, 20) << "\"";
}

typedef std::vector<Sent> Traffic;

// Opens what derived classes may use, over any socket class.
template <class Base>
class Opened : public Base {
public:
    using Base::Base;
    using Base::blocking;
    using Base::bundles;
    using Base::bundleSize;
    using Base::bundling;
    using Base::exerciseIdTest;
    using Base::ipAddrTest;
    using Base::packetsReceived;
    using Base::pduKindTest;
    using Base::protocolVersionTest;
    using Base::socketFd;
};

// The bundles of any socket, also of one whose class is not derived from.
struct Bundles : NwSocket {
    static BundleMap& of(NwSocket& socket) { return socket.*(&Bundles::bundles); }
};

// A transport that notes what it is given. Results are the length, or what the test has in store.
class RecordingTransport : public NwSocket {
public:
    int sendTo(char* buf, unsigned long len, unsigned int destAddr) override {
        if (whileSending) whileSending(destAddr);
        lengths.push_back(len);
        if (len < 1000000)
            traffic.push_back({destAddr, std::string(buf, len)});  // the bytes of huge ones do not exist
        const auto special = results.find(destAddr);
        const int result = special != results.end() ? special->second : static_cast<int>(len);
        if (result >= 0 && len < 1000000) taken.push_back(traffic.back());
        return result;
    }
    int NwRecv(char**, int*) override { return 0; }
    int NwRecv(char*, unsigned long) override { return 0; }

    Traffic take() {
        Traffic result;
        result.swap(traffic);
        return result;
    }

    Traffic traffic;  // what was tried
    Traffic taken;    // what did not fail
    std::vector<unsigned long> lengths;
    std::map<NwIpv4Addr, int> results;  // of a destination, instead of the length
    std::function<void(NwIpv4Addr)> whileSending;
};

typedef Opened<RecordingTransport> Recorder;

int give(NwSocket& socket, std::string packet, NwIpv4Addr to) {
    const int result = socket.NwSend(&packet[0], packet.size(), to);
    packet.assign(packet.size(), '#');  // the socket must not need the caller's bytes any more
    return result;
}

std::string bytes(std::size_t count, char letter) {
    return std::string(count, letter);
}

class PacketSize {
public:
    explicit PacketSize(int size) { theMaxPacketSize = size; }
    ~PacketSize() { theMaxPacketSize = 15000; }
    PacketSize(const PacketSize&) = delete;
    PacketSize& operator=(const PacketSize&) = delete;
};

// --- two transports for one set of rules -------------------------------------------------------------------

// The lowest of the destinations below but 0; it can be out of reach.
const NwIpv4Addr kFragile = 0x0A010101u;
const NwIpv4Addr kNear = 0x7F000001u;
const NwIpv4Addr kFar = 0x7F000002u;
const NwIpv4Addr kFarthest = 0x7F000003u;

class OverRecorder {
public:
    Recorder socket;

    static NwIpv4Addr arrivesAt(NwIpv4Addr to) { return to; }
    static bool canBreak() { return true; }
    void breakFragile() { socket.results[kFragile] = -1; }
    void mendFragile() { socket.results.erase(kFragile); }
    void expectSent(const Traffic& expected) {
        EXPECT_EQ(socket.taken, expected);
        socket.taken.clear();
    }
};

// A raw socket on all addresses: the datagrams come in the order in which they were sent.
class Wire {
public:
    Wire() : myPeer(0) {
        const int on = 1;
        ::setsockopt(myPeer.fd(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    }
    int port() const { return myPeer.port(); }

    // What came, up to a mark that is sent after it; waits until there are at least so many.
    Traffic take(std::size_t atLeast) {
        const std::string mark = "mark " + std::to_string(++myMarks);
        UdpPeer().send(mark, port());
        Traffic traffic;
        bool marked = false;
        while (!marked || traffic.size() < atLeast) {
            if (!waitReadable(myPeer.fd(), marked ? 2000 : kPatienceMilliseconds)) break;
            const Sent sent = next();
            if (sent.bytes == mark)
                marked = true;
            else
                traffic.push_back(sent);
        }
        return traffic;
    }

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
        const ssize_t length = ::recvmsg(myPeer.fd(), &message, 0);
        Sent sent = {0, std::string(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0)};
        for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_PKTINFO) continue;
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            sent.to = ntohl(info.ipi_addr.s_addr);
        }
        return sent;
    }

    UdpPeer myPeer;
    int myMarks = 0;
};

const unsigned char kWriteQuietly = 18;

class OverUdp {
    Wire myWire;
    bool myHasFragile = false;
    Messages myMessages;  // failed sends report themselves

public:
    NwNetSocket socket{myWire.port(), kNear, kWriteQuietly, kNear};

    ~OverUdp() {
        if (myHasFragile) breakFragile();
    }
    static NwIpv4Addr arrivesAt(NwIpv4Addr to) { return to ? to : kNear; }
    static bool canBreak() { return hasPrivateNetwork(); }
    void breakFragile() {
        if (myHasFragile) run("ip addr del 10.1.1.1/32 dev lo");
        myHasFragile = false;
    }
    void mendFragile() {
        if (!myHasFragile) run("ip addr add 10.1.1.1/32 dev lo");
        myHasFragile = true;
    }
    void expectSent(const Traffic& expected) { EXPECT_EQ(myWire.take(expected.size()), expected); }
};

template <class Transport>
class Bundling : public testing::Test {
protected:
    int send(std::size_t count, char letter, NwIpv4Addr to) {
        return give(socket(), bytes(count, letter), to);
    }
    NwSocket& socket() { return transport.socket; }
    std::string pending(NwIpv4Addr to) {
        const std::vector<char>& bundle = Bundles::of(socket()).at(to);
        return std::string(bundle.begin(), bundle.end());
    }
    bool hasEntry(NwIpv4Addr to) { return Bundles::of(socket()).count(to) == 1; }
    void expectSent(const Traffic& expected) {
        Traffic arrived = expected;
        for (Sent& sent : arrived) sent.to = Transport::arrivesAt(sent.to);
        transport.expectSent(arrived);
    }

    Transport transport;
};

struct TransportNames {
    template <class T>
    static std::string GetName(int) {
        return std::is_same<T, OverUdp>::value ? "Udp" : "Recorder";
    }
};

typedef testing::Types<OverRecorder, OverUdp> Transports;
TYPED_TEST_SUITE(Bundling, Transports, TransportNames);

#define REQUIRE_BREAKABLE_NETWORK() \
    if (!TypeParam::canBreak()) GTEST_SKIP() << "needs a network namespace: " << privateNetworkProblem()

}  // namespace

TYPED_TEST(Bundling, isOffAtTheStart) {
    EXPECT_EQ(this->socket().isBundling(), 0);
    EXPECT_TRUE(Bundles::of(this->socket()).empty());
}

TYPED_TEST(Bundling, whileOffEachPacketIsSentAtOnceAndNoBundleIsMade) {
    EXPECT_EQ(this->send(10, 'a', kNear), 10);
    EXPECT_EQ(this->send(1400, 'b', kFar), 1400);
    this->expectSent({{kNear, bytes(10, 'a')}, {kFar, bytes(1400, 'b')}});
    EXPECT_TRUE(Bundles::of(this->socket()).empty());
}

TYPED_TEST(Bundling, sizeIsCutToTheLargestPacket) {
    NwSocket& socket = this->socket();
    socket.setBundling(1400);
    EXPECT_EQ(socket.isBundling(), 1400);
    for (int size : {15000, 15001, 100000, INT_MAX}) {
        socket.setBundling(size);
        EXPECT_EQ(socket.isBundling(), 15000) << size;
    }
    for (int size : {14999, 1, 12}) {
        socket.setBundling(size);
        EXPECT_EQ(socket.isBundling(), size);
    }
    socket.setBundling(0);
    EXPECT_EQ(socket.isBundling(), 0);
}

TYPED_TEST(Bundling, packetsThatJustFitStayAndTheNextByteFlushesThem) {
    this->socket().setBundling(1400);
    EXPECT_EQ(this->send(700, 'a', kNear), 0);
    EXPECT_EQ(this->send(700, 'b', kNear), 0);
    EXPECT_EQ(this->pending(kNear), bytes(700, 'a') + bytes(700, 'b'));
    this->expectSent({});
    EXPECT_EQ(this->send(1, 'c', kNear), 1400) << "the bytes that the flush sent";
    EXPECT_EQ(this->pending(kNear), "c") << "a new bundle is begun";
    this->expectSent({{kNear, bytes(700, 'a') + bytes(700, 'b')}});
}

TYPED_TEST(Bundling, packetThatDoesNotFitStartsTheNextBundle) {
    this->socket().setBundling(10);
    EXPECT_EQ(this->send(6, 'a', kNear), 0);
    EXPECT_EQ(this->send(5, 'b', kNear), 6);
    EXPECT_EQ(this->send(5, 'c', kNear), 0);
    EXPECT_EQ(this->pending(kNear), "bbbbbccccc");
    this->expectSent({{kNear, "aaaaaa"}});
}

TYPED_TEST(Bundling, packetAsLargeAsBundleGoesOutAtOnce) {
    this->socket().setBundling(1400);
    EXPECT_EQ(this->send(1400, 'a', kNear), 1400);
    this->expectSent({{kNear, bytes(1400, 'a')}});
    EXPECT_TRUE(this->hasEntry(kNear)) << "a packet sent directly still creates its bundle";
    EXPECT_EQ(this->pending(kNear), "");
}

TYPED_TEST(Bundling, packetOneByteSmallerThanBundleIsKept) {
    this->socket().setBundling(1400);
    EXPECT_EQ(this->send(1399, 'a', kNear), 0);
    EXPECT_EQ(this->send(1, 'b', kNear), 0);
    this->expectSent({});
    EXPECT_EQ(this->pending(kNear), bytes(1399, 'a') + "b");
}

TYPED_TEST(Bundling, packetLargerThanBundleGoesOutAtOnce) {
    this->socket().setBundling(1400);
    EXPECT_EQ(this->send(1401, 'a', kNear), 1401);
    EXPECT_EQ(this->send(9000, 'b', kFar), 9000);
    this->expectSent({{kNear, bytes(1401, 'a')}, {kFar, bytes(9000, 'b')}});
    EXPECT_TRUE(this->hasEntry(kFar));
}

TYPED_TEST(Bundling, largePacketLeavesAfterAllThatWaitsAndItsOwnResultCounts) {
    this->socket().setBundling(1400);
    this->send(20, 'a', kFar);
    this->send(30, 'b', kNear);
    this->send(40, 'c', kFarthest);
    EXPECT_EQ(this->send(1400, 'd', kFar), 1400) << "what was flushed before is not in the result";
    this->expectSent({{kNear, bytes(30, 'b')},
                      {kFar, bytes(20, 'a')},
                      {kFarthest, bytes(40, 'c')},
                      {kFar, bytes(1400, 'd')}});
}

TYPED_TEST(Bundling, largePacketWithoutBundleOfItsOwnLeavesOthersWaiting) {
    this->socket().setBundling(1400);
    this->send(30, 'b', kNear);
    for (std::size_t size : {1400u, 1401u, 5000u}) {
        EXPECT_EQ(this->send(size, 'd', kFar), static_cast<int>(size));
        this->expectSent({{kFar, bytes(size, 'd')}});
        EXPECT_EQ(this->pending(kNear), bytes(30, 'b'));
    }
}

TYPED_TEST(Bundling, overflowFlushesAllDestinations) {
    this->socket().setBundling(100);
    this->send(60, 'a', kFar);
    this->send(70, 'b', kNear);
    EXPECT_EQ(this->send(41, 'c', kFar), 130);
    this->expectSent({{kNear, bytes(70, 'b')}, {kFar, bytes(60, 'a')}});
    EXPECT_EQ(this->pending(kFar), bytes(41, 'c'));
    EXPECT_EQ(this->pending(kNear), "");
}

TYPED_TEST(Bundling, flushSendsTheLowerAddressFirst) {
    this->socket().setBundling(1400);
    this->send(3, 'c', kFarthest);
    this->send(1, 'a', kNear);
    this->send(2, 'b', kFar);
    this->send(1, 'd', kFarthest);
    long sent = -77;
    EXPECT_EQ(this->socket().flush(sent), 1);
    EXPECT_EQ(sent, 7);
    this->expectSent({{kNear, "a"}, {kFar, "bb"}, {kFarthest, "cccd"}});
    for (NwIpv4Addr to : {kNear, kFar, kFarthest}) {
        EXPECT_TRUE(this->hasEntry(to)) << "an entry is cleared, never removed";
        EXPECT_EQ(this->pending(to), "");
    }
}

TYPED_TEST(Bundling, destinationZeroIsAKeyOfItsOwn) {
    this->socket().setBundling(1400);
    this->send(3, 'n', kNear);  // the default destination of the UDP socket
    this->send(3, 'z', 0);
    this->send(3, 'y', 0);
    EXPECT_EQ(this->pending(0), "zzzyyy");
    EXPECT_EQ(this->pending(kNear), "nnn");
    EXPECT_EQ(this->socket().flush(), 1);
    this->expectSent({{0, "zzzyyy"}, {kNear, "nnn"}});
}

TYPED_TEST(Bundling, flushOfNothingIsASuccess) {
    EXPECT_EQ(this->socket().flush(), 1);
    this->socket().setBundling(1400);
    this->send(5, 'a', kNear);
    EXPECT_EQ(this->socket().flush(), 1);
    this->expectSent({{kNear, "aaaaa"}});
    long sent = 12345;
    EXPECT_EQ(this->socket().flush(sent), 1);
    EXPECT_EQ(sent, 0);
    this->expectSent({});
}

TYPED_TEST(Bundling, switchingOffSendsWhatWaits) {
    this->socket().setBundling(1400);
    this->send(10, 'a', kNear);
    this->send(20, 'b', kFar);
    this->socket().setBundling(0);
    EXPECT_EQ(this->socket().isBundling(), 0);
    this->expectSent({{kNear, bytes(10, 'a')}, {kFar, bytes(20, 'b')}});
    EXPECT_EQ(this->send(5, 'c', kNear), 5);
    this->expectSent({{kNear, "ccccc"}});
}

TYPED_TEST(Bundling, anyChangeOfSizeSendsWhatWaits) {
    this->socket().setBundling(1400);
    for (int size : {1400, 20, 9000, -3}) {
        this->send(10, 'a', kNear);
        this->socket().setBundling(size);
        this->expectSent({{kNear, bytes(10, 'a')}});
    }
}

TYPED_TEST(Bundling, emptyPacketAddsNothing) {
    this->socket().setBundling(1400);
    EXPECT_EQ(this->socket().NwSend(nullptr, 0, kNear), 0);
    EXPECT_TRUE(this->hasEntry(kNear));
    this->send(4, 'a', kNear);
    EXPECT_EQ(this->socket().NwSend(nullptr, 0, kNear), 0);
    EXPECT_EQ(this->socket().flush(), 1);
    this->expectSent({{kNear, "aaaa"}});
}

TYPED_TEST(Bundling, emptyPacketBesideAFullBundleFlushesNothing) {
    this->socket().setBundling(10);
    this->send(5, 'a', kNear);
    this->send(5, 'b', kNear);
    EXPECT_EQ(this->socket().NwSend(nullptr, 0, kNear), 0) << "10 does not exceed 10";
    this->expectSent({});
}

TYPED_TEST(Bundling, negativeSizeIsKeptAndSendsEachPacketByItself) {
    for (int size : {-1, -1400, INT_MIN}) {
        this->socket().setBundling(size);
        EXPECT_EQ(this->socket().isBundling(), size);
        EXPECT_EQ(this->send(10, 'a', kNear), 10);
        EXPECT_EQ(this->send(2000, 'b', kNear), 2000);
        this->expectSent({{kNear, bytes(10, 'a')}, {kNear, bytes(2000, 'b')}});
        EXPECT_EQ(this->pending(kNear), "");
    }
}

TYPED_TEST(Bundling, everyByteLeavesOnceAndInOrder) {
    const std::size_t kBundle = 1400;
    this->socket().setBundling(1400);
    std::string given;
    for (int i = 0; i < 60; ++i) {
        const std::string packet = pdu(12 + i * 137 % 1500, i);
        given += packet;
        EXPECT_GE(give(this->socket(), packet, kNear), 0);
        if (i % 20 == 0) {
            EXPECT_EQ(this->socket().flush(), 1);
        }
    }
    EXPECT_EQ(this->socket().flush(), 1);

    // the same rules once more, for a single destination
    Traffic expected;
    std::string waiting;
    const auto leave = [&] {
        if (!waiting.empty()) expected.push_back({kNear, waiting});
        waiting.clear();
    };
    std::size_t position = 0;
    for (int i = 0; i < 60; ++i) {
        const std::string packet = given.substr(position, static_cast<std::size_t>(12 + i * 137 % 1500));
        position += packet.size();
        if (waiting.size() + packet.size() > kBundle) leave();
        waiting += packet;
        if (packet.size() >= kBundle || i % 20 == 0) leave();
    }
    leave();
    this->expectSent(expected);
}

// --- the same two: failing -------------------------------------------------------------------------------

TYPED_TEST(Bundling, failureOfTheFirstKeepsEverything) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(1400);
    this->transport.breakFragile();
    this->send(10, 'a', kFragile);
    this->send(20, 'b', kNear);
    long sent = 99;
    EXPECT_EQ(this->socket().flush(sent), -1);
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(this->socket().flush(), -1);
    this->expectSent({});
    EXPECT_EQ(this->pending(kFragile), bytes(10, 'a'));
    EXPECT_EQ(this->pending(kNear), bytes(20, 'b')) << "an unreachable destination holds back those after it";

    this->transport.mendFragile();
    EXPECT_EQ(this->socket().flush(sent), 1);
    EXPECT_EQ(sent, 30);
    this->expectSent({{kFragile, bytes(10, 'a')}, {kNear, bytes(20, 'b')}});
}

TYPED_TEST(Bundling, failureKeepsTheFailedAndAllAfterItButNotThoseSent) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(1400);
    this->transport.breakFragile();
    this->send(5, 'z', 0);
    this->send(10, 'a', kFragile);
    this->send(20, 'b', kNear);
    long sent = 99;
    EXPECT_EQ(this->socket().flush(sent), -1);
    EXPECT_EQ(sent, 5) << "what left before the failure";
    this->expectSent({{0, "zzzzz"}});
    EXPECT_EQ(this->pending(0), "");
    EXPECT_EQ(this->pending(kFragile), bytes(10, 'a'));
    EXPECT_EQ(this->pending(kNear), bytes(20, 'b'));
}

TYPED_TEST(Bundling, packetWhoseFlushFailedIsNeitherKeptNorSent) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(100);
    this->transport.breakFragile();
    this->send(60, 'a', kFragile);
    EXPECT_EQ(this->send(60, 'b', kFragile), -1);
    EXPECT_EQ(this->pending(kFragile), bytes(60, 'a'));
    EXPECT_EQ(this->send(100, 'c', kFragile), -1) << "a large one too";
    EXPECT_EQ(this->pending(kFragile), bytes(60, 'a'));
    this->send(60, 'd', kNear);
    EXPECT_EQ(this->send(60, 'e', kNear), -1) << "held back by the lower, unreachable destination";
    this->expectSent({});
    EXPECT_EQ(this->pending(kNear), bytes(60, 'd'));

    this->transport.mendFragile();
    EXPECT_EQ(this->send(60, 'f', kNear), 120);
    this->expectSent({{kFragile, bytes(60, 'a')}, {kNear, bytes(60, 'd')}});
}

TYPED_TEST(Bundling, packetIsDroppedAlsoWhenItsOwnBundleLeftBeforeTheFailure) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(100);
    this->transport.breakFragile();
    this->send(60, 'z', 0);
    this->send(10, 'a', kFragile);
    EXPECT_EQ(this->send(60, 'y', 0), -1);
    this->expectSent({{0, bytes(60, 'z')}});
    EXPECT_EQ(this->pending(0), "");
}

TYPED_TEST(Bundling, switchingOffAfterAFailureLeavesDataForALaterFlush) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(1400);
    this->transport.breakFragile();
    this->send(10, 'a', kFragile);
    this->socket().setBundling(0);
    EXPECT_EQ(this->socket().isBundling(), 0);
    EXPECT_EQ(this->pending(kFragile), bytes(10, 'a'));
    EXPECT_EQ(this->send(5, 'b', kNear), 5) << "bundling is off: nothing waits for the rest";
    this->expectSent({{kNear, "bbbbb"}});

    this->transport.mendFragile();
    EXPECT_EQ(this->send(5, 'c', kFragile), 5);
    this->expectSent({{kFragile, "ccccc"}});
    EXPECT_EQ(this->socket().flush(), 1);
    this->expectSent({{kFragile, bytes(10, 'a')}});
}

TYPED_TEST(Bundling, sizeChangesEvenWhenTheFlushBeforeItFails) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(1400);
    this->transport.breakFragile();
    this->send(10, 'a', kFragile);
    this->socket().setBundling(200);
    EXPECT_EQ(this->socket().isBundling(), 200);
    EXPECT_EQ(this->pending(kFragile), bytes(10, 'a'));
}

TYPED_TEST(Bundling, negativeSizeNeverFlushesWhatAFailureLeft) {
    REQUIRE_BREAKABLE_NETWORK();
    this->socket().setBundling(1400);
    this->transport.breakFragile();
    this->send(10, 'a', kFragile);
    this->socket().setBundling(-5);
    this->transport.mendFragile();
    EXPECT_EQ(this->send(7, 'b', kFragile), 7) << "compared without sign, nothing exceeds a negative size";
    this->expectSent({{kFragile, bytes(7, 'b')}});
    EXPECT_EQ(this->pending(kFragile), bytes(10, 'a'));
}

// --- UDP only --------------------------------------------------------------------------------------------

TEST(BundlingOverUdp, bundleTooLargeForADatagramIsReportedAndKept) {
    PacketSize large(100000);
    Messages messages;
    Wire wire;
    Opened<NwNetSocket> socket(wire.port(), kNear, kWriteQuietly, kNear);
    socket.setBundling(80000);
    EXPECT_EQ(socket.isBundling(), 80000);
    EXPECT_EQ(give(socket, bytes(40000, 'a'), kNear), 0);
    EXPECT_EQ(give(socket, bytes(40000, 'b'), kNear), 0);
    EXPECT_EQ(socket.flush(), -1);
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", EMSGSIZE));
    EXPECT_EQ(socket.bundles[kNear].size(), 80000u);
    EXPECT_EQ(wire.take(0), Traffic());
    socket.bundles[kNear].clear();
}

TEST(BundlingOverUdp, packetTooLargeForADatagramIsReportedByTheTransport) {
    Messages messages;
    Wire wire;
    NwNetSocket socket(wire.port(), kNear, kWriteQuietly, kNear);
    socket.setBundling(1400);
    EXPECT_EQ(give(socket, bytes(65508, 'a'), kNear), -1);
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", EMSGSIZE));
    EXPECT_EQ(give(socket, bytes(65507, 'a'), kNear), 65507);
    EXPECT_EQ(wire.take(1), (Traffic{{kNear, bytes(65507, 'a')}}));
}

// --- what a transport answers ----------------------------------------------------------------------------

TEST(NwSend, withBundlingOffReturnsExactlyWhatSendToReturns) {
    Recorder socket;
    for (int result : {0, 1, 7, -1, -2, -3, INT_MAX, INT_MIN}) {
        socket.results[5] = result;
        EXPECT_EQ(give(socket, "abc", 5), result);
        EXPECT_EQ(socket.take(), (Traffic{{5, "abc"}}));
    }
}

TEST(NwSend, directSendWithBundlingOnReturnsWhatSendToReturns) {
    Recorder socket;
    socket.setBundling(3);
    for (int result : {0, 1, 7, -1, -2, INT_MIN}) {
        socket.results[5] = result;
        EXPECT_EQ(give(socket, "abc", 5), result);
        EXPECT_EQ(socket.take(), (Traffic{{5, "abc"}}));
    }
}

TEST(NwSend, passesOnPointerLengthAndDestinationUntouchedWhileOff) {
    class Exact : public RecordingTransport {
    public:
        int sendTo(char* buf, unsigned long len, unsigned int to) override {
            given = buf;
            length = len;
            destination = to;
            return 42;
        }
        char* given = nullptr;
        unsigned long length = 0;
        unsigned int destination = 0;
    } socket;
    char byte = 0;
    EXPECT_EQ(socket.NwSend(&byte, ULONG_MAX, 0xFFFFFFFFu), 42);
    EXPECT_EQ(socket.given, &byte);
    EXPECT_EQ(socket.length, ULONG_MAX);
    EXPECT_EQ(socket.destination, 0xFFFFFFFFu);
    EXPECT_EQ(socket.NwSend(nullptr, 0, 0), 42) << "an empty packet is the transport's business";
}

TEST(Flush, resultOfZeroCountsAsSuccessAndClearsTheBundle) {
    Recorder socket;
    socket.setBundling(100);
    give(socket, "abc", 1);
    give(socket, "defg", 2);
    socket.results[1] = 0;
    long sent = 0;
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(sent, 4);
    EXPECT_EQ(socket.take(), (Traffic{{1, "abc"}, {2, "defg"}}));
    EXPECT_TRUE(socket.bundles[1].empty());
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(socket.take(), Traffic());
}

TEST(Flush, anyNegativeResultIsAFailure) {
    for (int result : {-1, -2, -3, INT_MIN}) {
        Recorder socket;
        socket.setBundling(100);
        give(socket, "abc", 1);
        give(socket, "defg", 2);
        socket.results[1] = result;
        long sent = 5;
        EXPECT_EQ(socket.flush(sent), -1) << result;
        EXPECT_EQ(sent, 0);
        EXPECT_EQ(socket.flush(), -1) << result;
        EXPECT_EQ(socket.take(), (Traffic{{1, "abc"}, {1, "abc"}})) << "those after it are not visited";
        EXPECT_EQ(socket.bundles[1].size(), 3u);
        EXPECT_EQ(socket.bundles[2].size(), 4u);
        std::string more(100, 'x');
        EXPECT_EQ(give(socket, more, 2), -1);
    }
}

TEST(Flush, countsWhatTheTransportSaysNotWhatItWasGiven) {
    Recorder socket;
    socket.setBundling(100);
    give(socket, "abcdef", 1);
    give(socket, "ghi", 2);
    socket.results[1] = 2;
    socket.results[2] = 1000;
    long sent = -1;
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(sent, 1002);
    EXPECT_TRUE(socket.bundles[1].empty()) << "a short send clears the bundle";
}

TEST(Flush, addsUpBeyondTheRangeOfAnInt) {
    Recorder socket;
    socket.setBundling(10);
    for (NwIpv4Addr to : {1u, 2u, 3u}) {
        give(socket, "abc", to);
        socket.results[to] = INT_MAX;
    }
    long sent = 0;
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(sent, 3L * INT_MAX);
}

TEST(Flush, addressesAreOrderedWithoutSign) {
    Recorder socket;
    socket.setBundling(100);
    const std::vector<NwIpv4Addr> mixed = {0xFFFFFFFFu, 0x80000000u, 0u, 0x7FFFFFFFu, 1u, 0xC0A80101u};
    for (NwIpv4Addr to : mixed) give(socket, "p", to);
    EXPECT_EQ(socket.flush(), 1);
    const Traffic ascending = {{0u, "p"},          {1u, "p"},          {0x7FFFFFFFu, "p"},
                               {0x80000000u, "p"}, {0xC0A80101u, "p"}, {0xFFFFFFFFu, "p"}};
    EXPECT_EQ(socket.take(), ascending);
}

TEST(Flush, printsNothingItself) {
    Messages messages;
    Recorder socket;
    socket.setBundling(10);
    socket.results[1] = -1;
    give(socket, "abc", 1);
    EXPECT_EQ(socket.flush(), -1);
    EXPECT_EQ(give(socket, "0123456789", 1), -1);
    EXPECT_EQ(socket.setReceiveBufferSize(1), -1);
    EXPECT_EQ(socket.setSendBufferSize(1), -1);
    EXPECT_EQ(messages.all(), "");
}

// --- through the virtual table ---------------------------------------------------------------------------

namespace {

// Replaces the flushes, to see who calls which.
class FlushRecorder : public Recorder {
public:
    int flush() override {
        log.push_back("flush()");
        return myThrough ? Recorder::flush() : 1;
    }
    int flush(long& bytesSent) override {
        log.push_back("flush(" + std::to_string(bytesSent) + ")");
        bytesSent = answerBytes;
        return answer;
    }
    void letThrough() { myThrough = true; }

    std::vector<std::string> log;
    int answer = 1;
    long answerBytes = 0;

private:
    bool myThrough = false;
};

typedef std::vector<std::string> Log;

}  // namespace

TEST(VirtualCalls, flushCallsTheCountingFlushAndReturnsItsResult) {
    FlushRecorder socket;
    socket.letThrough();
    for (int answer : {1, -1, 0, 77}) {
        socket.log.clear();
        socket.answer = answer;
        EXPECT_EQ(socket.flush(), answer);
        EXPECT_EQ(socket.log.size(), 2u);
        EXPECT_EQ(socket.log[1].substr(0, 6), "flush(");
    }
}

TEST(VirtualCalls, setBundlingFlushesThroughTheTableUnderTheOldSetting) {
    FlushRecorder socket;
    socket.setBundling(50);
    EXPECT_EQ(socket.log, Log{"flush()"});
    socket.log.clear();
    socket.setBundling(0);
    EXPECT_EQ(socket.log, Log{"flush()"});

    Recorder other;
    other.setBundling(50);
    give(other, "abc", 1);
    int during = -1;
    other.whileSending = [&](NwIpv4Addr) { during = other.isBundling(); };
    other.setBundling(0);
    EXPECT_EQ(during, 50);
    EXPECT_EQ(other.isBundling(), 0);
}

TEST(VirtualCalls, overflowCallsTheCountingFlushWithACounterOfZero) {
    FlushRecorder socket;
    socket.setBundling(10);
    give(socket, "12345678", 1);
    socket.log.clear();
    socket.answerBytes = 8;
    EXPECT_EQ(give(socket, "abc", 1), 8) << "the counter's value";
    EXPECT_EQ(socket.log, Log{"flush(0)"});
}

TEST(VirtualCalls, countOfTheFlushIsTruncatedToAnInt) {
    FlushRecorder socket;
    socket.setBundling(10);
    give(socket, "12345678", 1);
    socket.answerBytes = 0x100000005L;
    EXPECT_EQ(give(socket, "abc", 1), 5);
}

TEST(VirtualCalls, onlyMinusOneOfTheFlushHoldsThePacketBack) {
    for (int answer : {0, -2, 5}) {
        FlushRecorder socket;
        socket.setBundling(10);
        give(socket, "12345678", 1);
        socket.answer = answer;
        socket.answerBytes = 3;
        EXPECT_EQ(give(socket, "abc", 1), 3) << answer;
        EXPECT_EQ(socket.bundles[1].size(), 11u) << "appended after a flush that left the bundle";
    }
    FlushRecorder socket;
    socket.setBundling(10);
    give(socket, "12345678", 1);
    socket.answer = -1;
    EXPECT_EQ(give(socket, "abc", 1), -1);
    EXPECT_EQ(socket.bundles[1].size(), 8u);
}

TEST(VirtualCalls, nothingIsFlushedWhileThePacketFitsOrItsBundleIsEmpty) {
    FlushRecorder socket;
    socket.setBundling(10);
    socket.log.clear();
    give(socket, "12345", 1);
    give(socket, "67890", 1);
    give(socket, "0123456789", 2);
    EXPECT_EQ(socket.log, Log());
}

// --- a transport that calls back -------------------------------------------------------------------------

TEST(Reentrancy, packetsForOtherDestinationsAreKeptOrLeaveWithTheSameFlush) {
    Recorder socket;
    socket.setBundling(100);
    give(socket, "five", 5);
    int calls = 0;
    socket.whileSending = [&](NwIpv4Addr to) {
        if (to != 5) return;
        ++calls;
        EXPECT_EQ(give(socket, "three", 3), 0);
        EXPECT_EQ(give(socket, "nine", 9), 0);
    };
    long sent = 0;
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(sent, 8);
    EXPECT_EQ(socket.take(), (Traffic{{5, "five"}, {9, "nine"}}))
        << "lower addresses wait for the next flush";
    socket.whileSending = nullptr;
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(socket.take(), (Traffic{{3, "three"}}));
}

TEST(Reentrancy, manyNewDestinationsDuringAFlushLeaveInOrder) {
    Recorder socket;
    socket.setBundling(100);
    give(socket, "x", 1);
    socket.whileSending = [&](NwIpv4Addr to) {
        if (to < 200) give(socket, "x", to + 1);
    };
    EXPECT_EQ(socket.flush(), 1);
    const Traffic traffic = socket.take();
    ASSERT_EQ(traffic.size(), 200u);
    for (std::size_t i = 0; i < traffic.size(); ++i) EXPECT_EQ(traffic[i].to, i + 1);
}

// --- memory ----------------------------------------------------------------------------------------------

TEST(BundleMemory, isReservedOnceToTheLargestPacketAndKeptByClearing) {
    Recorder socket;
    socket.setBundling(1400);
    give(socket, "abc", 1);
    EXPECT_GE(socket.bundles[1].capacity(), 15000u);
    const char* place = socket.bundles[1].data();
    for (int i = 0; i < 200; ++i) {
        give(socket, bytes(500, 'x'), 1);
        EXPECT_EQ(socket.bundles[1].data(), place);
    }
    socket.flush();
    EXPECT_GE(socket.bundles[1].capacity(), 15000u);
    give(socket, "abc", 1);
    EXPECT_EQ(socket.bundles[1].data(), place);
}

TEST(BundleMemory, entriesOfSeveralDestinationsStayApart) {
    Recorder socket;
    socket.setBundling(100);
    for (int round = 0; round < 3; ++round)
        for (NwIpv4Addr to : {9u, 4u, 4u, 9u, 7u}) give(socket, std::to_string(to), to);
    socket.flush();
    EXPECT_EQ(socket.take(), (Traffic{{4, "444444"}, {7, "777"}, {9, "999999"}}));
    EXPECT_EQ(socket.bundles.size(), 3u);
}

TEST(BundleMemory, largestPacketOfZeroOrLessMakesEveryPacketDirect) {
    for (int size : {0, -1, -15000, INT_MIN}) {
        PacketSize none(size);
        Recorder socket;
        socket.setBundling(1400);
        EXPECT_EQ(socket.isBundling(), size) << "the smaller of the two";
        EXPECT_EQ(socket.bundling, 1) << "bundling is on all the same";
        EXPECT_EQ(give(socket, "abc", 1), 3);
        EXPECT_EQ(give(socket, "defg", 1), 4);
        EXPECT_EQ(socket.take(), (Traffic{{1, "abc"}, {1, "defg"}}));
        EXPECT_TRUE(socket.bundles.at(1).empty());
        socket.setBundling(0);
        EXPECT_EQ(socket.isBundling(), 0) << "off is off, whatever the largest packet";
        EXPECT_EQ(socket.bundling, 0);
    }
}

TEST(BundleMemory, emptyPacketWithABundleSizeOfZeroGoesToTheTransport) {
    PacketSize none(0);
    Recorder socket;
    socket.setBundling(1400);
    char byte = 0;
    EXPECT_EQ(socket.NwSend(&byte, 0, 1), 0);
    EXPECT_EQ(socket.lengths, std::vector<unsigned long>{0}) << "0 is not smaller than 0";
}

TEST(BundleMemory, smallerLargestPacketLeavesBundlesAlone) {
    Recorder socket;
    socket.setBundling(1400);
    give(socket, bytes(1000, 'a'), 1);
    PacketSize small(-4);
    EXPECT_EQ(give(socket, bytes(300, 'b'), 1), 0);
    EXPECT_EQ(socket.bundles[1].size(), 1300u);
    EXPECT_EQ(socket.isBundling(), 1400);
}

TEST(BundleMemory, moreThanMemoryHoldsIsAFailureAndNoException) {
    if (std::string(CVNC_SANITIZER) != "") GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
    const ChildResult child = inChild([] {
        theMaxPacketSize = INT_MAX;
        rlimit limit = {512u << 20, 512u << 20};
        ::setrlimit(RLIMIT_AS, &limit);
        Recorder socket;
        socket.setBundling(1400);
        if (socket.isBundling() != 1400) return 2;
        char packet[4] = "abc";
        if (socket.NwSend(packet, 3, 1) != -1 || !socket.traffic.empty()) return 3;
        theMaxPacketSize = 15000;  // and the socket goes on as soon as there is room
        if (socket.NwSend(packet, 3, 1) != 0 || socket.flush() != 1) return 4;
        return socket.take() == Traffic{{1, "abc"}} ? 0 : 5;
    });
    EXPECT_EQ(child.signal, 0) << child.output;
    EXPECT_EQ(child.exitStatus, 0) << child.output;
}

// --- lengths beyond all bounds ---------------------------------------------------------------------------

TEST(HugePackets, neverGoIntoABundle) {
    for (unsigned long length :
         {0x7FFFFFFFul, 0x80000000ul, 0x80000001ul, 0xFFFFFFFFul, 0x100000000ul, 0x100000003ul,
          0x7FFFFFFFFFFFFFFFul, 0x8000000000000000ul, ULONG_MAX - 1, ULONG_MAX}) {
        Recorder socket;
        socket.setBundling(1400);
        socket.results[1] = 11;
        char byte = 0;
        EXPECT_EQ(socket.NwSend(&byte, length, 1), 11) << length;
        EXPECT_EQ(socket.lengths, std::vector<unsigned long>{length});
        EXPECT_TRUE(socket.bundles.at(1).empty());
    }
}

TEST(HugePackets, neverGoIntoABundleOfNegativeSize) {
    for (unsigned long length : {0x80000000ul, 0xFFFFFFFFul, 0x180000000ul}) {
        Recorder socket;
        socket.setBundling(-5);  // cut to 32 bits, these lengths would be smaller still
        socket.results[1] = 11;
        char byte = 0;
        EXPECT_EQ(socket.NwSend(&byte, length, 1), 11) << length;
        EXPECT_EQ(socket.lengths, std::vector<unsigned long>{length});
    }
}

TEST(HugePackets, sumsWithTheBundleDoNotWrap) {
    for (unsigned long length :
         {ULONG_MAX, ULONG_MAX - 5, ULONG_MAX - 9, 0xFFFFFFFFul, 0xFFFFFFFAul, 0x100000000ul}) {
        Recorder socket;
        socket.setBundling(1400);
        give(socket, "0123456789", 1);
        char byte = 0;
        socket.NwSend(&byte, length, 1);
        EXPECT_EQ(socket.lengths, (std::vector<unsigned long>{10, length})) << "what waits leaves first";
        EXPECT_TRUE(socket.bundles.at(1).empty());
    }
}

// --- life ------------------------------------------------------------------------------------------------

TEST(BaseSocket, fieldsStartAsDocumented) {
    Recorder socket;
    EXPECT_EQ(socket.blocking, 0);
    EXPECT_EQ(socket.packetsReceived, 0);
    EXPECT_TRUE(socket.bundles.empty());
    EXPECT_EQ(socket.bundling, 0);
    EXPECT_EQ(socket.bundleSize, 0);
    EXPECT_EQ(socket.socketFd, -1);
}

TEST(BaseSocket, bundlingFlagFollowsTheSize) {
    Recorder socket;
    for (int size : {1400, 0, 100000, 0, -5, 0, 1}) {
        socket.setBundling(size);
        EXPECT_EQ(socket.bundling, size != 0) << size;
        EXPECT_EQ(socket.bundleSize, socket.isBundling());
    }
}

TEST(BaseSocket, cannotBeCopied) {
    static_assert(!std::is_copy_constructible<NwSocket>::value, "it owns a descriptor");
    static_assert(!std::is_copy_assignable<Recorder>::value, "it owns a descriptor");
    static_assert(std::is_abstract<NwSocket>::value, "the transport is pure");
    static_assert(std::has_virtual_destructor<NwSocket>::value, "held by base pointer");
}

TEST(BaseSocket, destructorNeitherFlushesNorCloses) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    int sends = 0;
    {
        Recorder socket;
        socket.socketFd = fd;
        socket.setBundling(100);
        give(socket, "abc", 1);
        socket.whileSending = [&](NwIpv4Addr) { ++sends; };
    }
    EXPECT_EQ(sends, 0);
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);
    ::close(fd);
}

TEST(BaseSocket, optionalOperationsDoNothing) {
    Messages messages;
    Recorder socket;
    socket.blocking = 1;
    socket.setUnbundling(1);
    socket.setUnbundling(0);
    EXPECT_EQ(socket.lastSourceInetAddr(), 0u);
    EXPECT_EQ(socket.NwBecomeNonBlocking(), 0);
    EXPECT_EQ(socket.blocking, 1) << "the base class never changes it";
    socket.notifyMe();
    EXPECT_EQ(socket.listenToMulticastGroup(0xEF010203u, kLoopback), 0);
    EXPECT_EQ(socket.dropMulticastGroup(0xEF010203u, kLoopback), 0);
    EXPECT_EQ(socket.setMcastTtl(3), 0);
    socket.setMcastDevice(kLoopback);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST(BaseSocket, reportsItsCountAndItsDescriptor) {
    Recorder socket;
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
    socket.packetsReceived = 41;
    EXPECT_EQ(socket.NwReportPktsRcvd(), 41);
    EXPECT_EQ(socket.readFd(), -1);
    EXPECT_EQ(socket.writeFd(), -1);
    socket.socketFd = 12345;
    EXPECT_EQ(socket.readFd(), 12345);
    EXPECT_EQ(socket.writeFd(), 12345);
}

TEST(BaseSocket, isBundlingTellsTheSizeEvenOfADerivedSetting) {
    Recorder socket;
    socket.bundleSize = 77;
    EXPECT_EQ(socket.isBundling(), 77);
}

TEST(BaseSocket, filterAccessorsLendTheFields) {
    Recorder socket;
    EXPECT_EQ(&socket.exerciseId(), &socket.exerciseIdTest);
    EXPECT_EQ(&socket.protocolVersion(), &socket.protocolVersionTest);
    EXPECT_EQ(&socket.pduKind(), &socket.pduKindTest);
    EXPECT_EQ(&socket.ipAddr(), &socket.ipAddrTest);
}

// --- kernel buffers --------------------------------------------------------------------------------------

namespace {

int bufferOf(int fd, int option) {
    int size = -1;
    socklen_t length = sizeof size;
    ::getsockopt(fd, SOL_SOCKET, option, &size, &length);
    return size;
}

// Reads and writes by different descriptors, as some transports do.
class TwoDescriptors : public RecordingTransport {
public:
    TwoDescriptors() : reading(::socket(AF_INET, SOCK_DGRAM, 0)), writing(::socket(AF_INET, SOCK_DGRAM, 0)) {}
    ~TwoDescriptors() override {
        ::close(reading);
        ::close(writing);
    }
    int readFd() override { return reading; }
    int writeFd() override { return writing; }
    int reading, writing;
};

}  // namespace

TEST(KernelBuffers, areSetOnTheReadAndTheWriteDescriptor) {
    TwoDescriptors socket;
    const int readSend = bufferOf(socket.reading, SO_SNDBUF);
    const int writeReceive = bufferOf(socket.writing, SO_RCVBUF);
    EXPECT_EQ(socket.setReceiveBufferSize(20000), 0);
    EXPECT_EQ(bufferOf(socket.reading, SO_RCVBUF), 40000) << "the kernel doubles it for its bookkeeping";
    EXPECT_EQ(bufferOf(socket.writing, SO_RCVBUF), writeReceive);
    EXPECT_EQ(socket.setSendBufferSize(30000), 0);
    EXPECT_EQ(bufferOf(socket.writing, SO_SNDBUF), 60000);
    EXPECT_EQ(bufferOf(socket.reading, SO_SNDBUF), readSend);
}

TEST(KernelBuffers, failureIsMinusOneWithTheSystemsReason) {
    Messages messages;
    Recorder socket;
    errno = 0;
    EXPECT_EQ(socket.setReceiveBufferSize(1000), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(socket.setSendBufferSize(1000), -1);
    EXPECT_EQ(errno, EBADF);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    socket.socketFd = ends[0];
    EXPECT_EQ(socket.setReceiveBufferSize(1000), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(socket.setSendBufferSize(1000), -1);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(messages.all(), "");
}

TEST(KernelBuffers, udpSocketsSetThoseOfTheirOpenSides) {
    Messages messages;
    NwNetSocket both(freePort(), kLoopback, static_cast<unsigned char>(3), kLoopback);
    EXPECT_EQ(both.setReceiveBufferSize(20000), 0);
    EXPECT_EQ(bufferOf(both.readFd(), SO_RCVBUF), 40000);
    EXPECT_EQ(both.setSendBufferSize(30000), 0);
    EXPECT_EQ(bufferOf(both.writeFd(), SO_SNDBUF), 60000);
    NwNetSocket writer(freePort(), kLoopback, static_cast<unsigned char>(2), kLoopback);
    EXPECT_EQ(writer.setReceiveBufferSize(20000), -1) << "there is no read side";
    NwNetSocket reader(freePort(), kLoopback, static_cast<unsigned char>(1), kLoopback);
    EXPECT_EQ(reader.setSendBufferSize(20000), -1);
}

// --- header filters --------------------------------------------------------------------------------------

namespace {

// Version 7, exercise 3, type 1.
char theHeader[] = {7, 3, 1, 0};

// Notes each question, and answers as told.
class Question : public NwFilterTest {
public:
    bool evalTest(char* pkt, int offset, NwFilterType type) override {
        NwIpv4Addr value = 0;
        if (type == NwFilterByte)
            value = static_cast<unsigned char>(pkt[offset]);
        else
            std::memcpy(&value, pkt + offset, sizeof value);
        log->push_back(name + " " + (type == NwFilterByte ? "byte " : "int ") + std::to_string(value));
        wasOffset = offset;
        return answer;
    }
    std::vector<std::string>* log = nullptr;
    std::string name;
    bool answer = true;
    int wasOffset = -1;
};

// Hands out filter tests of its own.
class Questioned : public RecordingTransport {
public:
    Questioned() {
        Question* all[] = {&version, &exercise, &kind, &address};
        const char* names[] = {"version", "exercise", "kind", "address"};
        for (int i = 0; i < 4; ++i) {
            all[i]->log = &log;
            all[i]->name = names[i];
        }
    }
    NwFilterTest& exerciseId() override { return exercise; }
    NwFilterTest& protocolVersion() override { return version; }
    NwFilterTest& pduKind() override { return kind; }
    NwFilterTest& ipAddr() override { return address; }
    std::vector<std::string> log;
    Question version, exercise, kind, address;
};

}  // namespace

TEST(Accept, withoutFiltersEverythingPasses) {
    Recorder socket;
    char header[3];
    for (int value = 0; value < 256; ++value) {
        std::memset(header, value, sizeof header);
        EXPECT_TRUE(socket.accept(header, static_cast<NwIpv4Addr>(value) * 0x01010101u));
    }
}

TEST(Accept, asksVersionExerciseTypeAddressInThisOrder) {
    Questioned socket;
    EXPECT_TRUE(socket.accept(theHeader, 0xC0A80114u));
    EXPECT_EQ(socket.log,
              (Log{"version byte 7", "exercise byte 3", "kind byte 1", "address int 3232235796"}));
    EXPECT_EQ(socket.address.wasOffset, 0);
}

TEST(Accept, stopsAtTheFirstRefusal) {
    const Log all = {"version byte 7", "exercise byte 3", "kind byte 1", "address int 5"};
    for (std::size_t refusing = 0; refusing < 4; ++refusing) {
        Questioned socket;
        Question* tests[] = {&socket.version, &socket.exercise, &socket.kind, &socket.address};
        tests[refusing]->answer = false;
        EXPECT_FALSE(socket.accept(theHeader, 5));
        EXPECT_EQ(socket.log, Log(all.begin(), all.begin() + static_cast<int>(refusing) + 1));
    }
}

TEST(Accept, eachFilterLooksAtItsOwnField) {
    struct Case {
        NwFilterTest& (NwSocket::*filter)();
        unsigned int value;
    };
    const Case cases[] = {{&NwSocket::protocolVersion, 7},
                          {&NwSocket::exerciseId, 3},
                          {&NwSocket::pduKind, 1},
                          {&NwSocket::ipAddr, 0xC0A80114u}};
    for (const Case& c : cases) {
        Recorder socket;
        unsigned int value = c.value;
        NwFilterTest& filter = (socket.*c.filter)();
        filter.setTest(NwTestInclude, 1, &value);
        EXPECT_TRUE(socket.accept(theHeader, 0xC0A80114u)) << c.value;
        filter.setTest(NwTestExclude, 1, &value);
        EXPECT_FALSE(socket.accept(theHeader, 0xC0A80114u)) << c.value;
        unsigned int other = c.value + 1;
        filter.setTest(NwTestInclude, 1, &other);
        EXPECT_FALSE(socket.accept(theHeader, 0xC0A80114u)) << c.value;
        filter.disableTest();
        EXPECT_TRUE(socket.accept(theHeader, 0xC0A80114u)) << c.value;
    }
}

TEST(Accept, addressIsComparedInHostOrderAndTheBytesWithoutSign) {
    Recorder socket;
    unsigned int sender = 0xFF000001u;
    socket.ipAddr().setTest(NwTestInclude, 1, &sender);
    unsigned int exercise = 255;
    socket.exerciseId().setTest(NwTestInclude, 1, &exercise);
    char header[] = {7, static_cast<char>(255), 1};
    EXPECT_TRUE(socket.accept(header, 0xFF000001u));
    EXPECT_FALSE(socket.accept(header, 0x010000FFu));
}

TEST(Accept, readsThreeBytesOfThePacketAndChangesNone) {
    Recorder socket;
    unsigned int none[] = {99};
    for (NwFilterTest* filter :
         {&socket.protocolVersion(), &socket.exerciseId(), &socket.pduKind(), &socket.ipAddr()})
        filter->setTest(NwTestExclude, 1, none);
    const std::unique_ptr<char[]> header(new char[3]);  // the address sanitizer guards what follows
    header[0] = 7;
    header[1] = 3;
    header[2] = 1;
    EXPECT_TRUE(socket.accept(header.get(), 1));
    EXPECT_EQ(std::memcmp(header.get(), theHeader, 3), 0);
}

// --- header filters on real datagrams --------------------------------------------------------------------
//
// The UDP socket itself and a class derived from it must answer alike.

namespace {

class DerivedUdp : public NwNetSocket {
public:
    using NwNetSocket::NwNetSocket;
};

template <class Socket>
class FiltersOverUdp : public testing::Test {
protected:
    FiltersOverUdp() { socket.NwBecomeNonBlocking(); }

    // The status with which one PDU (version 7, exercise 3, type 1, from 127.0.0.1) comes through.
    int status() {
        peer.send(pdu(20, 1, 7, 3, 1), port);
        EXPECT_TRUE(waitReadable(socket.readFd()));
        char none = 0;
        char* received = &none;
        int code = 99;
        const int length = socket.NwRecv(&received, &code);
        EXPECT_EQ(length, code == 1 ? 20 : 0);
        EXPECT_EQ(received == nullptr, code != 1);
        return code;
    }

    const int port = freePort();
    Messages messages;
    UdpPeer peer;
    Socket socket{port, kNear, static_cast<unsigned char>(17), kNear};
};

typedef testing::Types<NwNetSocket, DerivedUdp> UdpClasses;

struct UdpClassNames {
    template <class T>
    static std::string GetName(int) {
        return std::is_same<T, NwNetSocket>::value ? "Itself" : "Derived";
    }
};

TYPED_TEST_SUITE(FiltersOverUdp, UdpClasses, UdpClassNames);

const int kDelivered = 1;
const int kRefused = -2;

}  // namespace

TYPED_TEST(FiltersOverUdp, withoutFiltersEverythingPasses) {
    EXPECT_EQ(this->status(), kDelivered);
    EXPECT_EQ(this->socket.lastSourceInetAddr(), kNear);
}

TYPED_TEST(FiltersOverUdp, eachFilterLooksAtItsOwnField) {
    NwFilterTest& (NwSocket::*const filters[])() = {&NwSocket::protocolVersion, &NwSocket::exerciseId,
                                                    &NwSocket::pduKind, &NwSocket::ipAddr};
    unsigned int fields[] = {7, 3, 1, kNear};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        NwFilterTest& filter = (this->socket.*filters[i])();
        filter.setTest(NwTestInclude, 1, &fields[i]);
        EXPECT_EQ(this->status(), kDelivered);
        unsigned int other = fields[i] + 1;
        filter.setTest(NwTestInclude, 1, &other);
        EXPECT_EQ(this->status(), kRefused);
        filter.setTest(NwTestExclude, 1, &fields[i]);
        EXPECT_EQ(this->status(), kRefused);
        filter.disableTest();
        EXPECT_EQ(this->status(), kDelivered);
    }
}

TYPED_TEST(FiltersOverUdp, everyWayToChangeATestCountsAtOnce) {
    NwFilterTest& filter = this->socket.exerciseId();
    unsigned int three = 3, four = 4;
    filter.extendTest(1, &three);
    EXPECT_EQ(this->status(), kRefused) << "excluded by extendTest alone";
    filter.extendTest(1, &four);
    filter.reduceTest(1, &three);
    EXPECT_EQ(this->status(), kDelivered) << "taken out by reduceTest";
    filter.reduceTest(1, &four);
    EXPECT_EQ(this->status(), kDelivered);
    filter.setOperator(NwTestInclude);
    EXPECT_EQ(this->status(), kRefused) << "an inclusion of nothing";
    filter.extendTest(1, &three);
    EXPECT_EQ(this->status(), kDelivered);
    filter.clearList();
    EXPECT_EQ(this->status(), kRefused) << "the operator stays";
    filter.setOperator(NwTestExclude);
    EXPECT_EQ(this->status(), kDelivered);
    filter.extendTest(1, &three);
    filter.clearList();
    EXPECT_EQ(this->status(), kDelivered);
    EXPECT_EQ(this->socket.NwReportPktsRcvd(), 8) << "refused packets are counted";
}

TYPED_TEST(FiltersOverUdp, allFourMustPass) {
    unsigned int fields[] = {7, 3, 1, kNear};
    NwFilterTest* const filters[] = {&this->socket.protocolVersion(), &this->socket.exerciseId(),
                                     &this->socket.pduKind(), &this->socket.ipAddr()};
    for (int i = 0; i < 4; ++i) filters[i]->setTest(NwTestInclude, 1, &fields[i]);
    EXPECT_EQ(this->status(), kDelivered);
    for (int i = 0; i < 4; ++i) {
        filters[i]->setTest(NwTestInclude, 0, nullptr);
        EXPECT_EQ(this->status(), kRefused) << i;
        filters[i]->setTest(NwTestInclude, 1, &fields[i]);
    }
    EXPECT_EQ(this->status(), kDelivered);
}

// Overrides of a derived class are asked for each packet.
TEST(FiltersOfADerivedUdpSocket, accessorsAndAcceptAreReplaced) {
    class Replaced : public NwNetSocket {
    public:
        using NwNetSocket::NwNetSocket;
        NwFilterTest& pduKind() override { return question; }
        Question question;
    };
    class Refusing : public NwNetSocket {
    public:
        using NwNetSocket::NwNetSocket;
        bool accept(char* packet, unsigned int from) override {
            seen.push_back(std::string(packet, 4) + " from " + NwInetAddrString(from));
            return false;
        }
        std::vector<std::string> seen;
    };
    UdpPeer peer;
    const int port = freePort();
    char* received = nullptr;
    int status = 0;
    Log log;
    {
        Replaced socket(port, kNear, static_cast<unsigned char>(17), kNear);
        socket.question.log = &log;
        socket.question.answer = false;
        peer.send(pdu(20, 1, 7, 3, 9), port);
        EXPECT_EQ(socket.NwRecv(&received, &status), 0);
        EXPECT_EQ(status, kRefused);
        EXPECT_EQ(log, Log{" byte 9"});
    }
    Refusing socket(port, kNear, static_cast<unsigned char>(17), kNear);
    peer.send(pdu(20, 1, 7, 3, 9), port);
    EXPECT_EQ(socket.NwRecv(&received, &status), 0);
    EXPECT_EQ(status, kRefused);
    EXPECT_EQ(socket.seen, std::vector<std::string>{std::string("\7\3\11\1", 4) + " from 127.0.0.1"});
}
