// SPDX-License-Identifier: BSD-3-Clause
// The contract of NwSocket, written once and run by every transport: what a user may rely on behind an
// NwSocket pointer, whichever class is there. Where transports differ the table of transports.h says how, and
// the test asks it.
#include <cerrno>
#include <climits>
#include <set>
#include <type_traits>

#include "messages.h"
#include "packets.h"
#include "received.h"
#include "transports.h"

namespace {

const NwIpv4Addr kNear = 0x7F000001u;
const NwIpv4Addr kFar = 0x7F000002u;

std::string bytes(std::size_t count, char letter) {
    return std::string(count, letter);
}

// The bundles of any socket, also of one whose class is not derived from.
struct Bundles : NwSocket {
    static BundleMap& of(NwSocket& socket) { return socket.*(&Bundles::bundles); }
};

template <class Link>
class Contract : public testing::Test {
protected:
    void SetUp() override { NwNetSocket::initErrorAction = 1; }
    void TearDown() override { NwNetSocket::initErrorAction = 0; }

    static const Differences& is() { return Link::is(); }

    int send(std::string packet, NwIpv4Addr to = kNear) {
        const int result = link.out().NwSend(&packet[0], packet.size(), to);
        packet.assign(packet.size(), '#');  // the socket must not need the caller's bytes any more
        return result;
    }
    void expectOnTheWire(const std::vector<std::string>& datagrams) {
        for (const std::string& datagram : datagrams) EXPECT_EQ(link.wire(datagram.size()), datagram);
        EXPECT_TRUE(link.wireIsEmpty()) << "more left than should have";
    }
    void feed(const std::string& datagram) { link.feed(datagram); }
    Received take() {
        char untouched = 0;
        char* packet = &untouched;
        Received received = {0, 7, "", false};
        received.result = link.in().NwRecv(&packet, &received.status);
        received.isNull = packet == nullptr;
        if (received.result > 0 && packet)
            received.packet.assign(packet, static_cast<std::size_t>(received.result));
        EXPECT_NE(packet, &untouched) << "*buf is set by every call";
        return received;
    }
    static int refusedStatus() { return is().filters ? -2 : is().isServed ? 0 : 1; }
    std::string pending(NwIpv4Addr to) {
        const std::vector<char>& bundle = Bundles::of(link.out())[to];
        return std::string(bundle.begin(), bundle.end());
    }

    Messages messages;
    Link link;
};

struct LinkNames {
    template <class Link>
    static std::string GetName(int) {
        return Link::is().transport;
    }
};

typedef testing::Types<QueueLink, PairLink, UdpLink, AsyncLink, GroupLink, TcpLink, PacketServerLink> Links;
TYPED_TEST_SUITE(Contract, Links, LinkNames);

}  // namespace

// --- sending ---------------------------------------------------------------------------------------------

TYPED_TEST(Contract, bundlingIsOffAtTheStartAndEachPacketLeavesAtOnce) {
    EXPECT_EQ(this->link.out().isBundling(), 0);
    EXPECT_EQ(this->send(bytes(144, 'a')), 144);
    EXPECT_EQ(this->send("b"), 1);
    this->expectOnTheWire({bytes(144, 'a'), "b"});
}

TYPED_TEST(Contract, sendToIgnoresBundling) {
    NwSocket& socket = this->link.out();
    socket.setBundling(1400);
    std::string packet = bytes(100, 'a');
    EXPECT_EQ(socket.sendTo(&packet[0], packet.size(), kNear), 100);
    packet.assign(100, '#');
    this->expectOnTheWire({bytes(100, 'a')});
}

TYPED_TEST(Contract, packetsKeepTheirOrder) {
    for (int i = 0; i < 100; ++i) EXPECT_EQ(this->send(pdu(100, i)), 100);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(this->link.wire(100), pdu(100, i)) << i;
}

TYPED_TEST(Contract, emptyPacketIsSentOrNotAndCountsAsZeroBytes) {
    EXPECT_EQ(this->send(""), 0);
    EXPECT_EQ(this->send("mark"), 4);
    if (this->is().sendsEmptyPackets) {
        EXPECT_EQ(this->link.wire(0), "");
    }
    EXPECT_EQ(this->link.wire(4), "mark");
}

TYPED_TEST(Contract, sendingPrintsNothing) {
    this->send("a");
    this->link.out().setBundling(100);
    this->send("b");
    this->link.out().flush();
    this->expectOnTheWire({"a", "b"});
    EXPECT_EQ(this->messages.warn(), "");
    EXPECT_EQ(this->messages.debug(), "");
}

// --- bundling --------------------------------------------------------------------------------------------

TYPED_TEST(Contract, packetsWaitTogetherUntilTheNextDoesNotFit) {
    this->link.out().setBundling(1400);
    EXPECT_EQ(this->link.out().isBundling(), 1400);
    EXPECT_EQ(this->send(bytes(700, 'a')), 0);
    EXPECT_EQ(this->send(bytes(700, 'b')), 0);
    this->expectOnTheWire({});
}

TYPED_TEST(Contract, packetThatDoesNotFitFlushesAndTellsTheBytesThatLeft) {
    this->link.out().setBundling(1400);
    this->send(bytes(700, 'a'));
    this->send(bytes(700, 'b'));
    EXPECT_EQ(this->send("c"), 1400);
    this->expectOnTheWire({bytes(700, 'a') + bytes(700, 'b')});
}

TYPED_TEST(Contract, packetAsLargeAsBundleGoesOutAtOnceBehindWhatWaits) {
    this->link.out().setBundling(1400);
    this->send(bytes(20, 'a'));
    EXPECT_EQ(this->send(bytes(1400, 'b')), 1400) << "its own bytes, not those that made way";
    this->expectOnTheWire({bytes(20, 'a'), bytes(1400, 'b')});
    EXPECT_EQ(this->send(bytes(1450, 'c')), 1450);
    this->expectOnTheWire({bytes(1450, 'c')});
}

TYPED_TEST(Contract, packetOneByteSmallerThanBundleWaits) {
    this->link.out().setBundling(1400);
    EXPECT_EQ(this->send(bytes(1399, 'a')), 0);
    this->expectOnTheWire({});
    this->link.out().flush();
    this->expectOnTheWire({bytes(1399, 'a')});
}

TYPED_TEST(Contract, flushSendsWhatWaitsOnceAndCountsItsBytes) {
    NwSocket& socket = this->link.out();
    socket.setBundling(1400);
    this->send(bytes(20, 'a'));
    this->send(bytes(30, 'b'));
    long sent = 77;
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(sent, 50);
    this->expectOnTheWire({bytes(20, 'a') + bytes(30, 'b')});

    sent = 77;
    EXPECT_EQ(socket.flush(sent), 1) << "also with nothing to send";
    EXPECT_EQ(sent, 0);
    this->send(bytes(10, 'c'));
    EXPECT_EQ(socket.flush(), 1);
    this->expectOnTheWire({bytes(10, 'c')});
}

TYPED_TEST(Contract, switchingBundlingOffFlushesFirst) {
    this->link.out().setBundling(1400);
    this->send("a");
    this->link.out().setBundling(0);
    EXPECT_EQ(this->link.out().isBundling(), 0);
    this->expectOnTheWire({"a"});
    EXPECT_EQ(this->send("b"), 1);
    this->expectOnTheWire({"b"});
}

TYPED_TEST(Contract, bundleSizeIsCutToTheLargestPacket) {
    NwSocket& socket = this->link.out();
    for (int size : {15000, 15001, 100000, INT_MAX}) {
        socket.setBundling(size);
        EXPECT_EQ(socket.isBundling(), 15000) << size;
    }
    socket.setBundling(-1);
    EXPECT_EQ(socket.isBundling(), -1) << "the comparison is signed";
    EXPECT_EQ(this->send("a"), 1) << "and each packet goes by itself";
    this->expectOnTheWire({"a"});
}

TYPED_TEST(Contract, eachDestinationHasABundleAndTheLowestLeavesFirst) {
    this->link.out().setBundling(1400);
    this->send("far", kFar);
    this->send("near", kNear);
    this->expectOnTheWire({});
    EXPECT_EQ(this->link.out().flush(), 1);
    if (this->is().heedsDestination)
        this->expectOnTheWire({"near", "far"});
    else
        this->expectOnTheWire({"farnear"});
}

TYPED_TEST(Contract, overflowOfOneDestinationFlushesAll) {
    this->link.out().setBundling(10);
    this->send("near", kNear);
    this->send("farfar", kFar);
    if (!this->is().heedsDestination) return this->expectOnTheWire({});
    EXPECT_EQ(this->send("12345", kFar), 10);
    this->expectOnTheWire({"near", "farfar"});
}

TYPED_TEST(Contract, endOfTheSocketSendsWhatWaitsOrDropsIt) {
    this->link.out().setBundling(1400);
    this->send("waits");
    this->link.close();
    if (std::is_same<TypeParam, QueueLink>::value) GTEST_SKIP() << "the queue has gone with the socket";
    if (this->is().flushesAtTheEnd) {
        EXPECT_EQ(this->link.wire(5), "waits");
    } else {
        EXPECT_TRUE(this->link.wireIsEmpty());
    }
}

// --- failure ---------------------------------------------------------------------------------------------

TYPED_TEST(Contract, failureIsTheResultOfSendTo) {
    NwSocket& socket = this->link.out();
    if (!this->link.breakWire()) GTEST_SKIP() << "nothing can fail here";
    char byte = 'a';
    EXPECT_EQ(socket.NwSend(&byte, 1, kUnreachable), this->is().refusedByte);
    EXPECT_EQ(socket.sendTo(&byte, 1, kUnreachable), this->is().refusedByte);
}

TYPED_TEST(Contract, failedFlushKeepsWhatItCouldNotSend) {
    NwSocket& socket = this->link.out();
    if (!this->link.breakWire()) GTEST_SKIP() << "nothing can fail here";
    socket.setBundling(1400);
    this->send("waits", kUnreachable);
    long sent = 77;
    const int result = socket.flush(sent);
    if (this->is().tellsFailure) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(sent, 0);
        EXPECT_EQ(this->pending(kUnreachable), this->is().queuesBundles ? "" : "waits");
    } else {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(sent, 5);
        EXPECT_EQ(this->pending(kUnreachable), "");
    }
}

TYPED_TEST(Contract, packetWhoseWayCannotBeClearedIsNeitherKeptNorSent) {
    NwSocket& socket = this->link.out();
    if (!this->link.breakWire()) GTEST_SKIP() << "nothing can fail here";
    socket.setBundling(10);
    this->send("first", kUnreachable);
    const int result = this->send("second", kUnreachable);
    if (this->is().tellsFailure) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(this->pending(kUnreachable), this->is().queuesBundles ? "" : "first");
    } else {
        EXPECT_EQ(result, 5);
        EXPECT_EQ(this->pending(kUnreachable), "second");
    }
}

// --- receiving -------------------------------------------------------------------------------------------

TYPED_TEST(Contract, nothingToReceiveIsZeroNullAndStatusZero) {
    EXPECT_EQ(this->take(), nothing());
    char untouched = 'x';
    EXPECT_EQ(this->link.in().NwRecv(&untouched, 1ul), 0);
    EXPECT_EQ(untouched, 'x');
    EXPECT_EQ(this->messages.warn(), "") << "and no reason for a message";
}

TYPED_TEST(Contract, packetIsLentWithItsLengthAndStatusOne) {
    this->feed(pdu(144));
    EXPECT_EQ(this->take(), delivered(pdu(144)));
    EXPECT_EQ(this->take(), nothing());
}

TYPED_TEST(Contract, statusMayBeNull) {
    this->feed(pdu(144));
    char* packet = nullptr;
    EXPECT_EQ(this->link.in().NwRecv(&packet, static_cast<int*>(nullptr)), 144);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(std::string(packet, 144), pdu(144));
    EXPECT_EQ(this->link.in().NwRecv(&packet, static_cast<int*>(nullptr)), 0);
    EXPECT_EQ(packet, nullptr);
}

TYPED_TEST(Contract, receivedPacketsKeepTheirOrder) {
    for (int i = 0; i < 50; ++i) this->feed(pdu(100, i));
    for (int i = 0; i < 50; ++i) ASSERT_EQ(this->take(), delivered(pdu(100, i))) << i;
    EXPECT_EQ(this->take(), nothing());
}

TYPED_TEST(Contract, lentPacketStaysUntilTheNextReceive) {
    NwSocket& socket = this->link.in();
    this->feed(pdu(144, 1));
    char* first = nullptr;
    ASSERT_EQ(socket.NwRecv(&first, static_cast<int*>(nullptr)), 144);
    // Nothing but a receive may touch it: not what arrives meanwhile, not what is asked or set.
    this->feed(pdu(144, 2));
    socket.flush();
    socket.setBundling(100);
    socket.setUnbundling(1);
    socket.NwReportPktsRcvd();
    socket.lastSourceInetAddr();
    EXPECT_EQ(std::string(first, 144), pdu(144, 1));
    EXPECT_EQ(this->take(), delivered(pdu(144, 2)));
}

TYPED_TEST(Contract, copyFormCopiesThePacketAndNoByteMore) {
    this->feed(pdu(144));
    std::string room(200, '~');
    EXPECT_EQ(this->link.in().NwRecv(&room[0], room.size()), 144);
    EXPECT_EQ(room, pdu(144) + bytes(56, '~'));
}

TYPED_TEST(Contract, copyFormFillsRoomOfJustThatSize) {
    this->feed(pdu(144));
    std::string room(145, '~');
    EXPECT_EQ(this->link.in().NwRecv(&room[0], 144ul), 144);
    EXPECT_EQ(room, pdu(144) + "~");
}

TYPED_TEST(Contract, copyFormCutsWhatDoesNotFitAndTheRestIsLost) {
    this->feed(pdu(144, 1));
    this->feed(pdu(144, 2));
    std::string room(20, '~');
    EXPECT_EQ(this->link.in().NwRecv(&room[0], 10ul), this->is().copyTellsFullLength ? 144 : 10);
    EXPECT_EQ(room, pdu(144, 1).substr(0, 10) + bytes(10, '~'));
    EXPECT_EQ(this->take(), delivered(pdu(144, 2)));
}

TYPED_TEST(Contract, copyFormWithoutRoomTakesThePacketAway) {
    this->feed(pdu(144, 1));
    this->feed(pdu(144, 2));
    char untouched = '~';
    EXPECT_EQ(this->link.in().NwRecv(&untouched, 0ul), this->is().copyTellsFullLength ? 144 : 0);
    EXPECT_EQ(untouched, '~');
    EXPECT_EQ(this->take(), delivered(pdu(144, 2)));
}

TYPED_TEST(Contract, bothFormsShareOneQueue) {
    for (int i = 0; i < 3; ++i) this->feed(pdu(50, i));
    EXPECT_EQ(this->take(), delivered(pdu(50, 0)));
    std::string room(50, '~');
    EXPECT_EQ(this->link.in().NwRecv(&room[0], room.size()), 50);
    EXPECT_EQ(room, pdu(50, 1));
    EXPECT_EQ(this->take(), delivered(pdu(50, 2)));
}

TYPED_TEST(Contract, longPacketsAreLentUpToTheBuffersSize) {
    const int longest = this->is().longestLent;
    if (longest == 0) {
        const std::string packet = bytes(15100, 'a');
        this->feed(packet);
        char* lent = nullptr;
        EXPECT_EQ(this->link.in().NwRecv(&lent, static_cast<int*>(nullptr)), 15100)
            << "the full length, though only 15000 bytes are there";
        EXPECT_EQ(std::string(lent, 15000), packet.substr(0, 15000));
        return;
    }
    this->link.in().setUnbundling(0);
    if (this->is().isStream) {  // as long as its length can say
        for (int size : {15000, 20000, longest}) {
            this->feed(pdu(size));
            EXPECT_EQ(this->take(), delivered(pdu(size))) << size;
        }
        return;
    }
    for (int size : {longest - 1, longest, longest + 1}) {
        const std::string packet = bytes(static_cast<std::size_t>(size), 'a');
        this->feed(packet);
        EXPECT_EQ(this->take(), delivered(packet.substr(0, static_cast<std::size_t>(longest)))) << size;
    }
}

TYPED_TEST(Contract, emptyPacketIsNoPacket) {
    this->feed("");
    EXPECT_EQ(this->take(), nothing(this->is().emptyStatus));
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), this->is().counts && !this->is().isServed ? 1 : 0);
    this->feed(pdu(20));
    EXPECT_EQ(this->take(), delivered(pdu(20))) << "and nothing of it stays behind";
}

TYPED_TEST(Contract, shortPacketIsDeliveredAsItIs) {
    this->link.in().setUnbundling(0);
    const std::string shortest = this->is().isStream ? pdu(12) : "a";
    this->feed(shortest);
    EXPECT_EQ(this->take(), delivered(shortest));
}

TYPED_TEST(Contract, bundleComesInWholeOrTakenApart) {
    this->feed(pdu(144, 1) + pdu(100, 2) + pdu(50, 3));
    if (this->is().splitsBundles) {
        EXPECT_EQ(this->take(), delivered(pdu(144, 1)));
        EXPECT_EQ(this->take(), delivered(pdu(100, 2)));
        EXPECT_EQ(this->take(), delivered(pdu(50, 3)));
    } else {
        EXPECT_EQ(this->take(), delivered(pdu(144, 1) + pdu(100, 2) + pdu(50, 3)));
    }
    EXPECT_EQ(this->take(), nothing());
}

TYPED_TEST(Contract, unbundlingSwitchedOffDeliversWhole) {
    this->link.in().setUnbundling(0);
    this->feed(pdu(144, 1) + pdu(100, 2));
    if (this->is().isStream) {  // it has no other packets than these
        EXPECT_EQ(this->take(), delivered(pdu(144, 1)));
        EXPECT_EQ(this->take(), delivered(pdu(100, 2)));
    } else {
        EXPECT_EQ(this->take(), delivered(pdu(144, 1) + pdu(100, 2)));
    }
}

// --- counting and filtering ------------------------------------------------------------------------------

TYPED_TEST(Contract, deliveredPacketsAreCountedInBothForms) {
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), 0);
    this->feed(pdu(144));
    this->feed(pdu(144));
    this->take();
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), this->is().counts ? 1 : 0);
    std::string room(144, '~');
    this->link.in().NwRecv(&room[0], room.size());
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), this->is().counts ? 2 : 0);
    this->take();
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), this->is().counts ? 2 : 0) << "nothing more came";
}

TYPED_TEST(Contract, refusedPacketGivesMinusTwoNullAndZero) {
    unsigned int wanted[] = {9};
    this->link.in().exerciseId().setTest(NwTestInclude, 1, wanted);
    this->feed(pdu(144, 0, 7, 1));
    this->feed(pdu(144, 0, 7, 9));
    if (this->is().filters) {
        EXPECT_EQ(this->take(), nothing(-2));
        EXPECT_EQ(this->link.in().NwReportPktsRcvd(), this->is().countsRefused ? 1 : 0);
    } else if (!this->is().isServed) {
        EXPECT_EQ(this->take(), delivered(pdu(144, 0, 7, 1)));
    }
    EXPECT_EQ(this->take(), delivered(pdu(144, 0, 7, 9)));
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), !this->is().counts ? 0 : this->is().countsRefused ? 2 : 1);
    EXPECT_EQ(this->take(), nothing());
}

TYPED_TEST(Contract, eachOfTheFourFiltersIsAsked) {
    NwSocket& socket = this->link.in();
    unsigned int value[] = {200};
    for (NwFilterTest* test :
         {&socket.protocolVersion(), &socket.exerciseId(), &socket.pduKind(), &socket.ipAddr()}) {
        test->setTest(NwTestInclude, 1, value);
        this->feed(pdu(144));
        EXPECT_EQ(this->take().status, this->refusedStatus());
        test->disableTest();
    }
    this->feed(pdu(144));
    EXPECT_EQ(this->take(), delivered(pdu(144)));
}

TYPED_TEST(Contract, addressFilterSeesTheSenderOrZero) {
    unsigned int sender[] = {this->is().knowsSource ? kLoopback : 0};
    this->link.in().ipAddr().setTest(NwTestInclude, 1, sender);
    this->feed(pdu(144));
    EXPECT_EQ(this->take(), delivered(pdu(144)));
    this->link.in().ipAddr().setTest(NwTestExclude, 1, sender);
    this->feed(pdu(144));
    EXPECT_EQ(this->take().status, this->refusedStatus());
}

TYPED_TEST(Contract, sourceIsThatOfThePacketDelivered) {
    EXPECT_EQ(this->link.in().lastSourceInetAddr(), 0u);
    this->feed(pdu(144));
    this->take();
    EXPECT_EQ(this->link.in().lastSourceInetAddr(), this->is().knowsSource ? kLoopback : 0u);
}

// --- what a transport need not have ----------------------------------------------------------------------

TYPED_TEST(Contract, fourFilterTestsOfItsOwn) {
    NwSocket& socket = this->link.in();
    const std::set<NwFilterTest*> tests = {&socket.exerciseId(), &socket.protocolVersion(), &socket.pduKind(),
                                           &socket.ipAddr()};
    EXPECT_EQ(tests.size(), 4u);
    EXPECT_EQ(&socket.exerciseId(), &socket.exerciseId());
}

TYPED_TEST(Contract, newSocketIsOkAndReceivedNothing) {
    EXPECT_TRUE(this->link.in().isOk());
    EXPECT_TRUE(this->link.out().isOk());
    EXPECT_EQ(this->link.in().NwReportPktsRcvd(), 0);
}

TYPED_TEST(Contract, descriptorsAreThoseToWaitOn) {
    NwSocket& in = this->link.in();
    NwSocket& out = this->link.out();
    if (!this->is().hasDescriptor) {
        EXPECT_EQ(in.readFd(), -1);
        EXPECT_EQ(out.writeFd(), -1);
        errno = 0;
        EXPECT_EQ(in.setReceiveBufferSize(10000), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(out.setSendBufferSize(10000), -1);
        return;
    }
    EXPECT_GE(in.readFd(), 0);
    EXPECT_GE(out.writeFd(), 0);
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_EQ(in.setReceiveBufferSize(20000), 0);
    ::getsockopt(in.readFd(), SOL_SOCKET, SO_RCVBUF, &size, &length);
    EXPECT_EQ(size, 40000) << "the kernel doubles it";
    EXPECT_EQ(out.setSendBufferSize(21000), 0);
    ::getsockopt(out.writeFd(), SOL_SOCKET, SO_SNDBUF, &size, &length);
    EXPECT_EQ(size, 42000);
}

TYPED_TEST(Contract, wakeUpAndMulticastAreThereOrDoNothing) {
    NwSocket& socket = this->link.in();
    socket.notifyMe();
    EXPECT_EQ(socket.NwBecomeNonBlocking(), 0);
    const bool isUdp = this->is().knowsSource;
    const NwIpv4Addr group = 0xEF010203u;
    socket.setMcastDevice(kLoopback);
    EXPECT_EQ(socket.setMcastTtl(3), isUdp ? 1 : 0);
    if (!isUdp) {
        EXPECT_EQ(socket.listenToMulticastGroup(group, kLoopback), 0);
        EXPECT_EQ(socket.dropMulticastGroup(group, kLoopback), 0);
    }
    EXPECT_EQ(socket.listenToMulticastGroup(kLoopback, kLoopback), 0) << "no group";
    EXPECT_EQ(socket.dropMulticastGroup(kLoopback, kLoopback), 0);
    this->feed(pdu(144));
    EXPECT_EQ(this->take(), delivered(pdu(144)));
}
