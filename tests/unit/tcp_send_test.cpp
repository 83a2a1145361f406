// SPDX-License-Identifier: BSD-3-Clause
// The sending side of the TCP socket: the queue, its cap, flush, bundles, and what the kernel may answer to
// each.
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "messages.h"
#include "network.h"
#include "sends.h"
#include "tcp_peer.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

typedef std::vector<std::string> Strings;
typedef std::pair<int, int> QueueStatus;

const char kSendError[] = "TCP Socket sendTo error: ";

// The system's words, then an empty line.
std::string sendError(int error) {
    return systemReport(kSendError, error) + "\n";
}

std::string letters(char letter, std::size_t length) {
    return std::string(length, letter);
}

// The traces while it lives.
class Tracing {
public:
    Tracing() { NwNetDebugOn = 1; }
    ~Tracing() { NwNetDebugOn = 0; }
    Tracing(const Tracing&) = delete;
    Tracing& operator=(const Tracing&) = delete;
};

// A socket, the kernel's answers to it, and the raw other end.
class TcpSend : public testing::Test {
protected:
    TcpSend() { messages.all(); }
    ~TcpSend() override {
        EXPECT_EQ(sends.unused(), 0u) << "fewer sends than there were appointments for";
        EXPECT_EQ(sends.otherFlags(), 0) << "every send is with MSG_NOSIGNAL and nothing else";
    }

    // The caller's buffer is overwritten at once: what waits is a copy.
    int send(std::string bytes, bool markBroken = false) {
        const int sent = socket.sendTo(&bytes[0], bytes.size(), markBroken);
        bytes.assign(bytes.size(), '!');
        return sent;
    }
    int bundle(std::string bytes, NwIpv4Addr to = 0) {
        const int sent = socket.NwSend(&bytes[0], bytes.size(), to);
        bytes.assign(bytes.size(), '!');
        return sent;
    }
    // Each of them whole into the queue, in that order.
    void queue(const Strings& pieces) {
        const int before = socket.getQueueStatus().first;
        sends.always(hasNoRoom());
        for (const std::string& piece : pieces) EXPECT_EQ(send(piece), 0);
        sends.always(takesAll());
        sends.takeOffered();
        ASSERT_EQ(socket.getQueueStatus().first, before + static_cast<int>(pieces.size()));
    }
    // The rest of a packet at the head of an empty queue, its first byte with the peer.
    void queueRest(char letter, std::size_t length) {
        sends.next({takes(1)});
        EXPECT_EQ(send(letters(letter, length + 1)), 1);
        sends.takeOffered();
        EXPECT_EQ(peer.receive(1), letters(letter, 1));
    }
    int waiting() const { return socket.getQueueStatus().first; }
    Strings offered() { return sends.takeOffered(); }

    Messages messages;
    TcpListener listener;
    NwTcpSocket socket{kLoopback, listener.port(), 0};
    TcpPeer peer{listener.accept()};
    Sends sends{socket.writeFd()};
    long flushed = 4711;  // what flush(long&) must overwrite
};

// --- the record ------------------------------------------------------------------------------------------

TEST(TcpMessage, holdsACopyOfItsPiece) {
    std::string bytes = "0123456789";
    const NwTcpMessage whole(bytes.data(), 10);
    const NwTcpMessage rest(bytes.data(), 6, 4);
    const NwTcpMessage empty(bytes.data(), 0);
    bytes.assign(10, '!');
    ASSERT_EQ(whole.size, 10);
    EXPECT_EQ(std::string(whole.data.get(), 10), "0123456789");
    ASSERT_EQ(rest.size, 4);
    EXPECT_EQ(std::string(rest.data.get(), 4), "6789");
    EXPECT_EQ(empty.size, 0);
}

// --- one packet, an empty queue --------------------------------------------------------------------------

TEST_F(TcpSend, packetThatTheKernelTakesIsNotQueued) {
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(0, -1));
    EXPECT_EQ(send(letters('a', 100)), 100);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 100))) << "one call";
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(0, -1));
    EXPECT_EQ(peer.receive(100), letters('a', 100));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSend, everyDestinationIsThePeer) {
    char a[] = "aaa", b[] = "bbb", c[] = "ccc";
    EXPECT_EQ(socket.sendTo(a, 3, 0x0A000001u), 3);
    EXPECT_EQ(socket.sendTo(b, 3, 0), 3);
    EXPECT_EQ(static_cast<NwSocket&>(socket).NwSend(c, 3, 0xFFFFFFFFu), 3);
    EXPECT_EQ(peer.receive(9), "aaabbbccc");
}

TEST_F(TcpSend, addressFormDoesNotMarkBroken) {
    char test[] = "\0\2";
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(socket.sendTo(test, 2, 1u), 0);
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(socket.sendTo(test, 2, 1), 0) << "a literal is an address, not a flag";
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(TcpSend, restOfAPacketGoesToTheHeadAndLeavesWithTheNextFlush) {
    sends.next({takes(60)});
    EXPECT_EQ(send(letters('a', 60) + letters('b', 40)), 60);
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(1, -1));
    offered();
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 40);
    EXPECT_THAT(offered(), ElementsAre(letters('b', 40)));
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(0, -1));
    EXPECT_EQ(peer.receive(100), letters('a', 60) + letters('b', 40));
}

TEST_F(TcpSend, packetThatFindsNoRoomIsQueuedAndCountsNothing) {
    for (const int error : {EAGAIN, EWOULDBLOCK}) {
        sends.next({refuses(error)});
        EXPECT_EQ(send(letters('a', 100)), 0);
        EXPECT_EQ(waiting(), 1);
        EXPECT_EQ(socket.flush(), 1);
        EXPECT_EQ(peer.receive(100), letters('a', 100));
    }
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "") << "no room is no error";
}

TEST_F(TcpSend, kernelThatTakesNothingLeavesTheWholePacketAtTheHead) {
    queue({letters('a', 50)});
    sends.next({hasNoRoom(), takes(0)});
    EXPECT_EQ(send(letters('b', 60)), 0);
    EXPECT_EQ(waiting(), 2);
    sends.next({hasNoRoom(), takesAll()});
    EXPECT_EQ(send(letters('c', 70)), 70) << "nothing is half-sent";
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 110);
    EXPECT_EQ(peer.receive(180), letters('c', 70) + letters('b', 60) + letters('a', 50));
}

TEST_F(TcpSend, queuedPieceOfWhichTheKernelTakesNothingIsStillWhole) {
    queue({letters('a', 50)});
    sends.next({takes(0)});
    EXPECT_EQ(socket.flush(flushed), 0);
    EXPECT_EQ(flushed, 0);
    sends.next({hasNoRoom(), takesAll()});
    EXPECT_EQ(send(letters('b', 60)), 60) << "so it may be overtaken";
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(110), letters('b', 60) + letters('a', 50));
}

TEST_F(TcpSend, packetOfNoBytesOnlyFlushes) {
    EXPECT_EQ(send(""), 0);
    EXPECT_THAT(offered(), IsEmpty());
    queue({letters('a', 30), letters('b', 40)});
    EXPECT_EQ(send(""), 70);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 30), letters('b', 40)));
    EXPECT_EQ(waiting(), 0);
    queue({letters('c', 30)});
    sends.next({takes(10)});
    EXPECT_EQ(send(""), 10);
    EXPECT_EQ(waiting(), 1);
    sends.next({hasNoRoom()});
    EXPECT_EQ(send(""), 0);
    EXPECT_EQ(waiting(), 1) << "nothing was added";
}

TEST_F(TcpSend, lengthAboveIntMaxIsRefusedAndTouchesNothing) {
    queue({letters('a', 30)});
    char byte = 'x';
    EXPECT_EQ(socket.sendTo(&byte, INT_MAX + 1ul, false), -1);
    EXPECT_EQ(socket.sendTo(&byte, ULONG_MAX, true), -1);
    EXPECT_EQ(socket.sendTo(&byte, INT_MAX + 1ul, 0u), -1);
    EXPECT_EQ(socket.NwSend(&byte, INT_MAX + 1ul, 0u), -1);
    EXPECT_THAT(offered(), IsEmpty());
    EXPECT_EQ(waiting(), 1);
    EXPECT_TRUE(socket.isOk());
    socket.setBundling(1400);
    EXPECT_EQ(socket.NwSend(&byte, ULONG_MAX, 0u), -1);
    EXPECT_EQ(messages.all(), "");
}

// --- the queue goes first --------------------------------------------------------------------------------

TEST_F(TcpSend, queueLeavesFirstAndIsCounted) {
    queue({letters('a', 30), letters('b', 40)});
    EXPECT_EQ(send(letters('c', 100)), 170);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 30), letters('b', 40), letters('c', 100)));
    EXPECT_EQ(peer.receive(170), letters('a', 30) + letters('b', 40) + letters('c', 100));
}

TEST_F(TcpSend, packetBehindAPartlySentQueueIsStoredWithoutACall) {
    queue({letters('a', 50)});
    sends.next({takes(20)});
    EXPECT_EQ(send(letters('b', 100)), 20);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 50)));
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 30), letters('b', 100)));
    EXPECT_EQ(peer.receive(150), letters('a', 50) + letters('b', 100));
}

TEST_F(TcpSend, packetIsOfferedWhenTheQueueIsEmptyAgainAndQueuedAtTheEndWhenThereIsNoRoom) {
    queue({letters('a', 30)});
    sends.next({takesAll(), hasNoRoom()});
    EXPECT_EQ(send(letters('b', 40)), 30);
    EXPECT_EQ(waiting(), 1);
    sends.next({hasNoRoom(), hasNoRoom()});
    EXPECT_EQ(send(letters('c', 50)), 0);
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(120), letters('a', 30) + letters('b', 40) + letters('c', 50));
}

// --- overtaking, and what may not be overtaken -----------------------------------------------------------

TEST_F(TcpSend, wholePacketMayOvertakeWholeQueuedOnes) {
    queue({letters('a', 30), letters('b', 40)});
    sends.next({hasNoRoom(), takesAll()});
    EXPECT_EQ(send(letters('c', 50)), 50);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 30), letters('c', 50)))
        << "a blocked flush stops at the head";
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(120), letters('c', 50) + letters('a', 30) + letters('b', 40));
}

TEST_F(TcpSend, overtakingPacketThatIsCutGoesOnBeforeTheQueue) {
    queue({letters('a', 30)});
    sends.next({hasNoRoom(), takes(20)});
    EXPECT_EQ(send(letters('b', 50)), 20);
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(80), letters('b', 50) + letters('a', 30));
}

TEST_F(TcpSend, nothingEntersTheStreamInsideAHalfSentPacket) {
    queueRest('a', 99);
    sends.next({hasNoRoom()});  // one send: the packet is not offered
    EXPECT_EQ(send(letters('b', 50)), 0);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 99)));
    EXPECT_EQ(waiting(), 2);
    sends.next({hasNoRoom()});
    EXPECT_EQ(send("\0\2"), 0) << "nor is a connection test";
    EXPECT_THAT(offered(), ElementsAre(letters('a', 99)));
    sends.next({takes(98), hasNoRoom()});
    EXPECT_EQ(socket.flush(flushed), 0);
    EXPECT_EQ(send(letters('c', 60)), 0);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(99 + 50 + 60), letters('a', 99) + letters('b', 50) + letters('c', 60));
}

TEST_F(TcpSend, onceTheRestHasLeftOvertakingIsPossibleAgain) {
    queueRest('a', 99);
    sends.next({hasNoRoom()});
    EXPECT_EQ(send(letters('b', 50)), 0);
    sends.next({takesAll(), hasNoRoom(), takesAll()});
    EXPECT_EQ(send(letters('c', 60)), 99 + 60);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(99 + 50 + 60), letters('a', 99) + letters('c', 60) + letters('b', 50));
}

TEST_F(TcpSend, queuedPieceThatIsCutIsNotOvertaken) {
    queue({letters('a', 50), letters('b', 60)});
    sends.next({takes(20)});
    EXPECT_EQ(socket.flush(flushed), 0);
    sends.next({hasNoRoom()});
    EXPECT_EQ(send(letters('c', 70)), 0);
    EXPECT_EQ(waiting(), 3);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(180), letters('a', 50) + letters('b', 60) + letters('c', 70));
}

// --- flush -----------------------------------------------------------------------------------------------

TEST_F(TcpSend, flushOfAnEmptyQueueMakesNoCall) {
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 0);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_THAT(offered(), IsEmpty());
}

TEST_F(TcpSend, flushSendsOldestFirstUntilEmpty) {
    queue({letters('a', 10), letters('b', 20), letters('c', 30)});
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 60);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 10), letters('b', 20), letters('c', 30)));
    EXPECT_EQ(waiting(), 0);
    EXPECT_EQ(peer.receive(60), letters('a', 10) + letters('b', 20) + letters('c', 30));
}

TEST_F(TcpSend, flushStopsAtAPieceThatIsCut) {
    const std::string cut = "0123456789ABCDEFGHIJ";
    queue({letters('a', 10), cut, letters('c', 30)});
    sends.next({takesAll(), takes(15)});
    EXPECT_EQ(socket.flush(flushed), 0);
    EXPECT_EQ(flushed, 25);
    EXPECT_EQ(waiting(), 2);
    sends.next({takes(4)});
    EXPECT_EQ(socket.flush(), 0);
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 31);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 10), cut, "FGHIJ", "J", letters('c', 30)));
    EXPECT_EQ(peer.receive(60), letters('a', 10) + cut + letters('c', 30));
}

TEST_F(TcpSend, flushStopsWhereThereIsNoRoom) {
    queue({letters('a', 10), letters('b', 20), letters('c', 30)});
    sends.next({takesAll(), hasNoRoom()});
    EXPECT_EQ(socket.flush(flushed), -1);
    EXPECT_EQ(flushed, 10);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 10), letters('b', 20)));
    EXPECT_EQ(waiting(), 2);
    sends.next({hasNoRoom()});
    EXPECT_EQ(socket.flush(), -1);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(static_cast<NwSocket&>(socket).flush(), 1) << "through the base";
    EXPECT_EQ(peer.receive(60), letters('a', 10) + letters('b', 20) + letters('c', 30));
}

// --- the cap ---------------------------------------------------------------------------------------------

TEST_F(TcpSend, capIsStoredAsGivenAndReported) {
    EXPECT_EQ(socket.maxForwarderQueue(), -1);
    for (const int cap : {0, 1, 7, INT_MAX, -1, -2, INT_MIN}) {
        socket.setMaxForwarderQueue(cap);
        EXPECT_EQ(socket.maxForwarderQueue(), cap);
        EXPECT_EQ(socket.getQueueStatus(), QueueStatus(0, cap));
    }
}

class TcpSendCap : public TcpSend, public testing::WithParamInterface<int> {};

// Whole packets at every place where one is queued: no room, and behind a queue that moved in part.
TEST_P(TcpSendCap, admitsThatManyPieces) {
    const int cap = GetParam();
    const int kPackets = 6;
    const int admitted = cap >= 0 && cap < kPackets ? cap : kPackets;
    socket.setMaxForwarderQueue(cap);
    sends.always(hasNoRoom());
    for (int i = 0; i < kPackets; ++i) {
        EXPECT_EQ(send(letters(static_cast<char>('a' + i), 10)), 0);
        EXPECT_EQ(socket.getQueueStatus(), QueueStatus(i < admitted ? i + 1 : admitted, cap));
    }
    sends.always(takesAll());
    if (admitted) {
        sends.next({takes(4)});
        EXPECT_EQ(send(letters('x', 10)), 4);
        EXPECT_EQ(waiting(), admitted == cap ? cap : kPackets + 1);
    }
    EXPECT_EQ(socket.flush(), 1);
    std::string expected;
    for (int i = 0; i < admitted; ++i) expected += letters(static_cast<char>('a' + i), 10);
    if (admitted && admitted != cap) expected += letters('x', 10);
    EXPECT_EQ(peer.receive(expected.size()), expected);
    EXPECT_EQ(send("last"), 4);
    EXPECT_EQ(peer.receive(4), "last") << "the refused ones left no trace in the stream";
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "") << "a full queue says nothing";
}

INSTANTIATE_TEST_SUITE_P(Caps, TcpSendCap, testing::Values(-1, 0, 1, 2, 5, 6, 7, INT_MAX, -2, INT_MIN));

TEST_F(TcpSend, capBelowWhatWaitsDropsNothingThatWaits) {
    queue({letters('a', 10), letters('b', 10), letters('c', 10)});
    socket.setMaxForwarderQueue(1);
    sends.next({hasNoRoom(), hasNoRoom()});
    EXPECT_EQ(send(letters('d', 10)), 0);
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(3, 1));
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(30), letters('a', 10) + letters('b', 10) + letters('c', 10));
}

TEST_F(TcpSend, restThatTheCapRefusesTearsTheStream) {
    socket.setMaxForwarderQueue(0);
    sends.next({takes(60)});
    EXPECT_EQ(send(letters('a', 100)), 60);
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(0, 0));
    EXPECT_EQ(send(letters('b', 30)), 30);
    EXPECT_EQ(peer.receive(90), letters('a', 60) + letters('b', 30)) << "40 bytes are missing, as documented";
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSend, fullQueueRefusesTheRestOfAnOvertakingPacket) {
    socket.setMaxForwarderQueue(2);
    queue({letters('a', 10), letters('b', 10)});
    sends.next({hasNoRoom(), takes(20)});
    EXPECT_EQ(send(letters('c', 50)), 20);
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(40), letters('c', 20) + letters('a', 10) + letters('b', 10));
}

TEST_F(TcpSend, restOfAPieceThatWasQueuedIsKeptWhateverTheCap) {
    for (const int cap : {0, 1, 2}) {
        socket.setMaxForwarderQueue(-1);
        queue({letters('a', 50), letters('b', 10)});
        socket.setMaxForwarderQueue(cap);
        sends.next({takes(20)});
        EXPECT_EQ(socket.flush(), 0);
        EXPECT_EQ(waiting(), 2);
        EXPECT_EQ(socket.flush(), 1);
        EXPECT_EQ(peer.receive(60), letters('a', 50) + letters('b', 10));
    }
}

// --- hard errors -----------------------------------------------------------------------------------------

TEST_F(TcpSend, hardErrorOfAPacketIsReportedAndThePacketIsGone) {
    for (const int error : {ECONNRESET, EPIPE, EINTR, ENOBUFS}) {
        sends.next({refuses(error)});
        EXPECT_EQ(send(letters('a', 100)), 0);
        EXPECT_EQ(messages.all(), sendError(error));
        EXPECT_FALSE(socket.isOk());
        EXPECT_EQ(waiting(), 0);
    }
    EXPECT_EQ(send(letters('b', 10)), 10) << "later calls still try";
    EXPECT_EQ(peer.receive(10), letters('b', 10));
    EXPECT_FALSE(socket.isOk()) << "for good";
}

TEST_F(TcpSend, hardErrorOfAPacketStillCountsWhatTheFlushSent) {
    queue({letters('a', 30)});
    sends.next({takesAll(), refuses(ECONNRESET)});
    EXPECT_EQ(send(letters('b', 100)), 30);
    EXPECT_EQ(waiting(), 0);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), sendError(ECONNRESET));
}

TEST_F(TcpSend, hardErrorOfAQueuedPieceIsReportedAndThePieceStays) {
    queue({letters('a', 30), letters('b', 40)});
    sends.next({refuses(ECONNRESET)});
    EXPECT_EQ(socket.flush(flushed), -1);
    EXPECT_EQ(flushed, 0);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 30))) << "the flush stops there";
    EXPECT_EQ(messages.all(), sendError(ECONNRESET));
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(waiting(), 2);
    EXPECT_EQ(socket.flush(flushed), 1) << "later calls still try";
    EXPECT_EQ(flushed, 70);
    EXPECT_EQ(peer.receive(70), letters('a', 30) + letters('b', 40));
}

TEST_F(TcpSend, hardErrorsOfQueueAndPacketAreBothReported) {
    queue({letters('a', 30)});
    sends.next({refuses(ECONNRESET), refuses(EPIPE)});
    EXPECT_EQ(send(letters('b', 100)), 0);
    EXPECT_EQ(messages.all(), sendError(ECONNRESET) + sendError(EPIPE));
    EXPECT_EQ(waiting(), 1) << "the piece stays, the packet is not queued";
}

TEST_F(TcpSend, packetBehindAHalfSentOneThatFailedIsNeitherSentNorKept) {
    queueRest('a', 99);
    sends.next({refuses(ECONNRESET)});
    EXPECT_EQ(send(letters('b', 50)), 0);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 99)));
    EXPECT_EQ(messages.all(), sendError(ECONNRESET));
    EXPECT_EQ(waiting(), 1);
    sends.next({hasNoRoom()});
    EXPECT_EQ(send(letters('c', 60)), 0);
    EXPECT_EQ(waiting(), 2) << "no room is no error, whatever was before";
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(peer.receive(159), letters('a', 99) + letters('c', 60));
}

TEST_F(TcpSend, quietSocketsFailSilently) {
    const Quiet quiet;
    queue({letters('a', 30)});
    sends.next({refuses(ECONNRESET)});
    EXPECT_EQ(socket.flush(), -1);
    EXPECT_FALSE(socket.isOk());
    sends.next({takesAll(), refuses(ECONNRESET)});
    EXPECT_EQ(send(letters('b', 100)), 30);
    EXPECT_EQ(messages.all(), "");
}

// --- connection tests: packets that end with their length field ------------------------------------------

struct Format {
    int offset, width;
};

class TcpSendTests : public TcpSend, public testing::WithParamInterface<Format> {
protected:
    void SetUp() override {
        socket.setSizeLength(GetParam().width);
        socket.setSizeOffset(GetParam().offset);
    }
    std::size_t header() const { return static_cast<std::size_t>(GetParam().offset + GetParam().width); }
    std::string test() const { return letters('t', header()); }
};

TEST_P(TcpSendTests, refusedOneIsSilentUnlessItMarksBroken) {
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(send(test(), false), 0);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(waiting(), 0);
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(send(test(), true), 0);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), sendError(EPIPE));
    EXPECT_EQ(waiting(), 0);
}

TEST_P(TcpSendTests, packetOneByteShorterOrLongerIsNone) {
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(send(letters('a', header() + 1), false), 0);
    EXPECT_EQ(messages.all(), sendError(EPIPE));
    EXPECT_FALSE(socket.isOk());
    if (header() == 1) return;
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(send(letters('a', header() - 1), false), 0);
    EXPECT_EQ(messages.all(), sendError(EPIPE));
}

TEST_P(TcpSendTests, stuckOneGivesMinusOneWhileLaterPiecesGoOut) {
    queue({test(), letters('a', 50), test(), letters('b', 60)});
    sends.next({refuses(EPIPE), takesAll(), refuses(ECONNRESET), takesAll()});
    EXPECT_EQ(socket.flush(flushed), -1);
    EXPECT_EQ(flushed, 110);
    EXPECT_EQ(waiting(), 2);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(peer.receive(110), letters('a', 50) + letters('b', 60));
    offered();
    EXPECT_EQ(socket.flush(flushed), 1) << "they are tried again";
    EXPECT_THAT(offered(), ElementsAre(test(), test()));
    EXPECT_EQ(flushed, static_cast<long>(2 * header()));
}

TEST_P(TcpSendTests, queuedPieceOneByteShorterOrLongerIsNone) {
    for (const std::size_t length : {header() + 1, header() - 1}) {
        if (length == 0) continue;
        queue({letters('a', length), letters('b', 60)});
        sends.next({refuses(EPIPE)});
        EXPECT_EQ(socket.flush(flushed), -1);
        EXPECT_EQ(flushed, 0);
        EXPECT_FALSE(socket.isOk());
        EXPECT_EQ(messages.all(), sendError(EPIPE));
        EXPECT_EQ(waiting(), 2);
        EXPECT_EQ(socket.flush(), 1);
    }
}

TEST_P(TcpSendTests, restAsShortAsOneIsNone) {
    queueRest('a', header());
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(socket.flush(flushed), -1);
    EXPECT_FALSE(socket.isOk()) << "a packet is lost, not a test";
    EXPECT_EQ(messages.all(), sendError(EPIPE));
    EXPECT_EQ(waiting(), 1);
}

TEST_P(TcpSendTests, onesBehindAHalfSentPacketAreStillOnes) {
    queueRest('a', 30);
    sends.next({hasNoRoom()});
    EXPECT_EQ(send(test()), 0);
    sends.next({takesAll(), refuses(EPIPE)});
    EXPECT_EQ(socket.flush(flushed), -1);
    EXPECT_EQ(flushed, 30);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(waiting(), 1);
    sends.next({refuses(EPIPE)});
    EXPECT_EQ(socket.flush(), -1) << "also once it is the head itself";
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

INSTANTIATE_TEST_SUITE_P(Formats, TcpSendTests,
                         testing::Values(Format{0, 2}, Format{0, 1}, Format{0, 4}, Format{8, 2},
                                         Format{3, 4}));

TEST_F(TcpSend, newPacketIsOfferedBehindAStuckTest) {
    queue({"\1\2"});
    sends.next({refuses(EPIPE), takesAll()});
    EXPECT_EQ(send(letters('a', 100)), 100);
    EXPECT_EQ(waiting(), 1);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(peer.receive(100), letters('a', 100));
}

TEST_F(TcpSend, noRoomBehindAStuckTestStopsTheFlush) {
    queue({"\1\2", letters('a', 50), letters('b', 60)});
    sends.next({refuses(EPIPE), hasNoRoom()});
    EXPECT_EQ(socket.flush(flushed), -1);
    EXPECT_EQ(flushed, 0);
    EXPECT_THAT(offered(), ElementsAre("\1\2", letters('a', 50)));
    EXPECT_EQ(waiting(), 3);
}

TEST_F(TcpSend, pieceCutBehindAStuckTestGoesOnBeforeIt) {
    queue({"\1\2", letters('a', 50), letters('b', 60)});
    sends.next({refuses(EPIPE), takes(20)});
    EXPECT_EQ(socket.flush(flushed), 0);
    EXPECT_EQ(flushed, 20);
    EXPECT_EQ(waiting(), 3);
    offered();
    sends.next({hasNoRoom()});
    EXPECT_EQ(send(letters('c', 70)), 0) << "and nothing gets between";
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_THAT(offered(),
                ElementsAre(letters('a', 30), letters('a', 30), "\1\2", letters('b', 60), letters('c', 70)));
    EXPECT_EQ(peer.receive(182), letters('a', 50) + "\1\2" + letters('b', 60) + letters('c', 70));
}

TEST_F(TcpSend, connectionCountsAsEstablishedByTheBytesThatLeave) {
    EXPECT_TRUE(socket.isConnectionEstablished());
    EXPECT_EQ(peer.receive(2), std::string("\0\2", 2));
    queue({letters('a', 30)});
    EXPECT_FALSE(socket.isConnectionEstablished()) << "the queue left too: 32 bytes, not 2";
    peer.receive(32);
    queueRest('b', 2);
    sends.next({takesAll(), hasNoRoom()});
    EXPECT_TRUE(socket.isConnectionEstablished()) << "by coincidence: the two bytes are the queue's";
    EXPECT_EQ(waiting(), 1);
}

// --- bundles ---------------------------------------------------------------------------------------------

TEST_F(TcpSend, bundlesReachTheConnectionOnlyThroughFlush) {
    socket.setBundling(1400);
    EXPECT_EQ(bundle(letters('a', 100)), 0);
    EXPECT_EQ(bundle(letters('b', 200)), 0);
    EXPECT_THAT(offered(), IsEmpty());
    EXPECT_EQ(waiting(), 0) << "a bundle is no piece yet";
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 300);
    EXPECT_THAT(offered(), ElementsAre(letters('a', 100) + letters('b', 200)));
    EXPECT_EQ(peer.receive(300), letters('a', 100) + letters('b', 200));
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 0) << "once";
    EXPECT_THAT(offered(), IsEmpty()) << "an empty bundle is no piece";
}

TEST_F(TcpSend, bundlesLeaveInTheOrderOfTheirDestinationsBehindWhatWaits) {
    queue({letters('q', 30)});
    sends.next({hasNoRoom()});
    socket.setBundling(1400);
    offered();
    EXPECT_EQ(bundle(letters('c', 30), 0xFFFFFFFFu), 0);
    EXPECT_EQ(bundle(letters('b', 20), 0x0A000001u), 0);
    EXPECT_EQ(bundle(letters('a', 10), 0), 0);
    EXPECT_EQ(bundle(letters('d', 40), 0xFFFFFFFFu), 0);
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 130);
    EXPECT_THAT(offered(), ElementsAre(letters('q', 30), letters('a', 10), letters('b', 20),
                                       letters('c', 30) + letters('d', 40)));
}

TEST_F(TcpSend, bundlesEnterTheQueuePastTheCap) {
    for (const int cap : {0, 1, 2}) {
        socket.setMaxForwarderQueue(cap);
        socket.setBundling(1400);
        for (unsigned int to = 1; to <= 4; ++to) bundle(letters(static_cast<char>('a' + to), 10), to);
        sends.next({hasNoRoom()});
        EXPECT_EQ(socket.flush(flushed), -1);
        EXPECT_EQ(socket.getQueueStatus(), QueueStatus(4, cap));
        EXPECT_EQ(socket.flush(flushed), 1);
        EXPECT_EQ(flushed, 40);
        EXPECT_EQ(peer.receive(40),
                  letters('b', 10) + letters('c', 10) + letters('d', 10) + letters('e', 10));
    }
}

TEST_F(TcpSend, sendToTakesTheBundlesAlong) {
    socket.setBundling(1400);
    bundle(letters('a', 100));
    EXPECT_EQ(send(letters('b', 50)), 150);
    EXPECT_EQ(peer.receive(150), letters('a', 100) + letters('b', 50));
}

TEST_F(TcpSend, switchingBundlingOffKeepsWhatFoundNoRoom) {
    socket.setBundling(1400);
    bundle(letters('a', 100));
    sends.next({hasNoRoom()});
    socket.setBundling(0);
    EXPECT_EQ(waiting(), 1);
    EXPECT_EQ(send(letters('b', 50)), 150);
    EXPECT_EQ(peer.receive(150), letters('a', 100) + letters('b', 50));
}

TEST_F(TcpSend, fullBundleThatFindsNoRoomRefusesThePacketOnce) {
    socket.setBundling(100);
    EXPECT_EQ(bundle(letters('a', 60)), 0);
    sends.always(hasNoRoom());
    EXPECT_EQ(bundle(letters('b', 60)), -1);
    EXPECT_EQ(waiting(), 1) << "the full bundle";
    EXPECT_EQ(bundle(letters('b', 60)), 0) << "sent once more, it is kept";
    EXPECT_EQ(waiting(), 1);
    EXPECT_EQ(bundle(letters('c', 60)), -1);
    EXPECT_EQ(bundle(letters('c', 60)), 0);
    EXPECT_EQ(waiting(), 2);
    sends.always(takesAll());
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 180);
    EXPECT_EQ(peer.receive(180), letters('a', 60) + letters('b', 60) + letters('c', 60)) << "each once";
}

TEST_F(TcpSend, fullBundleThatLeavesInPartIsGoodEnough) {
    socket.setBundling(100);
    EXPECT_EQ(bundle(letters('a', 60)), 0);
    sends.next({takes(20)});
    EXPECT_EQ(bundle(letters('b', 60)), 20);
    EXPECT_EQ(waiting(), 1);
    EXPECT_EQ(socket.flush(flushed), 1);
    EXPECT_EQ(flushed, 100);
    EXPECT_EQ(peer.receive(120), letters('a', 60) + letters('b', 60));
}

TEST_F(TcpSend, packetTooLongForABundleGoesOutItselfBehindTheBundles) {
    socket.setBundling(100);
    EXPECT_EQ(bundle(letters('a', 60), 7), 0);
    EXPECT_EQ(bundle(letters('b', 100), 5), 160) << "no bundle of its own destination: sendTo flushes";
    EXPECT_EQ(peer.receive(160), letters('a', 60) + letters('b', 100));
}

// --- traces ----------------------------------------------------------------------------------------------

TEST_F(TcpSend, tracesTellEachStepInOrder) {
    const Tracing tracing;
    send(letters('a', 100));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 0\n"
              "NwTcpSocket::flush(1): packets sent: 0 with total of 0 bytes\n"
              "SendTo: sent 100 bytes (whole packet): total packets in buffer = 0\n");
    sends.next({takes(60)});
    send(letters('b', 100));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 0\n"
              "NwTcpSocket::flush(1): packets sent: 0 with total of 0 bytes\n"
              "SendTo: sent 60 bytes (part of packet): total packets in buffer = 0\n");
    sends.next({takes(10)});
    send(letters('c', 101));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 1\n"
              "NwTcpSocket::flush: sent 10 bytes (part of a packet)\n"
              "NwTcpSocket::flush(0): packets sent: 1 with total of 10 bytes\n"
              "SendTo: storing 101 bytes (whole packet): total packets in buffer = 1\n");
    sends.next({takesAll(), hasNoRoom(), hasNoRoom()});
    send(letters('d', 102));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 2\n"
              "NwTcpSocket::flush: sent 30 bytes (whole packet)\n"
              "NwTcpSocket::flush(-1): packets sent: 1 with total of 30 bytes\n"
              "SendTo EWOULDBLOCK: storing 102 bytes (whole packet): total packets in buffer = 1\n");
    sends.next({hasNoRoom(), takesAll()});
    send(letters('e', 103));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 2\n"
              "NwTcpSocket::flush(-1): packets sent: 0 with total of 0 bytes\n"
              "SendTo: sent 103 bytes (whole packet): total packets in buffer = 2\n");
    send("");
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 2\n"
              "NwTcpSocket::flush: sent 101 bytes (whole packet)\n"
              "NwTcpSocket::flush: sent 102 bytes (whole packet)\n"
              "NwTcpSocket::flush(1): packets sent: 2 with total of 203 bytes\n");
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSend, traceOfAPacketThatMustNotEnterAHalfSentOneIsThatOfNoRoom) {
    queueRest('a', 99);
    const Tracing tracing;
    sends.next({hasNoRoom()});
    send(letters('b', 50));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 1\n"
              "NwTcpSocket::flush(-1): packets sent: 0 with total of 0 bytes\n"
              "SendTo EWOULDBLOCK: storing 50 bytes (whole packet): total packets in buffer = 1\n");
}

TEST_F(TcpSend, tracesTellOfStoringBeforeTheCapIsAsked) {
    socket.setMaxForwarderQueue(0);
    const Tracing tracing;
    sends.next({hasNoRoom()});
    send(letters('a', 100));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 0\n"
              "NwTcpSocket::flush(1): packets sent: 0 with total of 0 bytes\n"
              "SendTo EWOULDBLOCK: storing 100 bytes (whole packet): total packets in buffer = 0\n");
    EXPECT_EQ(waiting(), 0);
    socket.setMaxForwarderQueue(-1);
    queue({letters('b', 30)});
    socket.setMaxForwarderQueue(1);
    messages.info();
    sends.next({takes(10)});
    send(letters('c', 100));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 1\n"
              "NwTcpSocket::flush: sent 10 bytes (part of a packet)\n"
              "NwTcpSocket::flush(0): packets sent: 1 with total of 10 bytes\n"
              "SendTo: storing 100 bytes (whole packet): total packets in buffer = 1\n");
    EXPECT_EQ(waiting(), 1);
}

TEST_F(TcpSend, tracesCountBundlesAmongThePackets) {
    socket.setBundling(1400);
    bundle(letters('a', 10), 1);
    bundle(letters('b', 20), 2);
    const Tracing tracing;
    socket.flush();
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 2\n"
              "NwTcpSocket::flush: sent 10 bytes (whole packet)\n"
              "NwTcpSocket::flush: sent 20 bytes (whole packet)\n"
              "NwTcpSocket::flush(1): packets sent: 2 with total of 30 bytes\n");
}

TEST_F(TcpSend, tracesOfErrors) {
    queue({"\1\2", letters('a', 30)});
    const Tracing tracing;
    sends.next({refuses(EPIPE), takesAll(), refuses(EPIPE)});
    send("\1\2");
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 2\n"
              "NwTcpSocket::flush: sent 30 bytes (whole packet)\n"
              "NwTcpSocket::flush(-1): packets sent: 1 with total of 30 bytes\n");
    sends.next({refuses(EPIPE), refuses(EPIPE)});
    send(letters('b', 10));
    EXPECT_EQ(messages.info(),
              "NwTcpSocket::flush: packets waiting to be sent: 1\n"
              "NwTcpSocket::flush(-1): packets sent: 0 with total of 0 bytes\n");
    EXPECT_EQ(messages.warn(), sendError(EPIPE));
}

TEST_F(TcpSend, quietSocketsDoNotTrace) {
    const Tracing tracing;
    const Quiet quiet;
    queue({letters('a', 50)});
    sends.next({takes(10)});
    send(letters('b', 50));
    sends.next({takesAll(), hasNoRoom(), takes(20)});
    send(letters('c', 50));
    socket.flush();
    EXPECT_EQ(messages.all(), "");
}

// --- the kernel itself -----------------------------------------------------------------------------------

// A connection with little room in the kernel.
class TcpSendNarrow : public testing::Test {
protected:
    TcpSendNarrow() {
        socket.setSendBufferSize(1 << 18);  // below a segment, each would wait for a late acknowledgement
        messages.all();
    }
    Messages messages;
    TcpListener listener{kLoopback, 1 << 18};
    NwTcpSocket socket{kLoopback, listener.port(), 0};
    TcpPeer peer{listener.accept()};
};

// The first packet is larger than all buffers on the way, so its rest is at the head until the peer reads.
TEST_F(TcpSendNarrow, peerThatDoesNotReadCostsNobodyAByte) {
    std::string all;
    while (all.size() < (1u << 22)) all += std::to_string(all.size());
    const int first = socket.sendTo(&all[0], all.size(), 0u);
    ASSERT_GT(first, 0);
    ASSERT_LT(first, static_cast<int>(all.size()));
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(1, -1));
    for (int i = 0; i < 120; ++i) {
        std::string packet =
            std::to_string(i) + letters(static_cast<char>('a' + i % 26), 50 + i * 977 % 9000);
        all += packet;
        ASSERT_GE(socket.sendTo(&packet[0], packet.size(), 0u), 0);
    }
    EXPECT_EQ(socket.getQueueStatus().first, 121) << "every packet waits behind the first one's rest";
    std::string got;
    int cut = 0;
    ASSERT_TRUE(eventually([&] {
        int result = 0;
        for (int i = 0; i < 100 && result != 1; ++i) {
            got += peer.receiveSome();
            result = socket.flush();
            if (result == 0) ++cut;
        }
        return result == 1;
    }));
    got += peer.receive(all.size() - got.size());
    EXPECT_TRUE(got == all);
    EXPECT_GT(cut, 0) << "the rest left in several";
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSendNarrow, capBoundsWhatAPeerThatDoesNotReadCosts) {
    socket.setMaxForwarderQueue(3);
    std::string packet = letters('a', 100000);
    for (int i = 0; i < 50; ++i) {
        ASSERT_GE(socket.sendTo(&packet[0], packet.size(), 0u), 0);
        ASSERT_LE(socket.getQueueStatus().first, 3);
    }
    EXPECT_EQ(socket.getQueueStatus(), QueueStatus(3, 3));
    EXPECT_TRUE(socket.isOk());
}

TEST(TcpSendEnds, resetByThePeerIsReportedOnceItIsKnown) {
    Messages messages;
    TcpListener listener;
    NwTcpSocket socket(kLoopback, listener.port(), 0);
    listener.accept().reset();
    char packet[] = "packet";
    messages.all();
    ASSERT_TRUE(eventually([&] {
        socket.sendTo(packet, 6, 0u);
        return !socket.isOk();
    }));
    const std::string warning = messages.warn();
    EXPECT_TRUE(warning == sendError(ECONNRESET) || warning == sendError(EPIPE)) << warning;
    EXPECT_EQ(socket.getQueueStatus().first, 0);
}

TEST(TcpSendEnds, connectThatFailsLaterShowsInTheFirstSend) {
    Messages messages;
    NwTcpSocket socket(kLoopback, freeTcpPort(), 1);
    ASSERT_TRUE(socket.isOk());
    messages.all();
    EXPECT_FALSE(socket.isConnectionEstablished()) << "refused, silently";
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
    EXPECT_FALSE(socket.testConnectionStatus());
    EXPECT_EQ(messages.all(), sendError(EPIPE)) << "the error itself was told to the first test";
    EXPECT_FALSE(socket.isOk());
}

// Every way to send, where nothing protects the process from SIGPIPE.
TEST(TcpSendEnds, noSendRaisesSigpipe) {
    const ChildResult result = inChild([] {
        NwSocket::setQuietSockets(true);
        NwTcpSocket socket(kLoopback, freeTcpPort(), 0);
        std::signal(SIGPIPE, SIG_DFL);  // a constructor that got that far has it ignored
        if (socket.isOk()) return 2;
        char packet[] = "packet";
        if (socket.sendTo(packet, 6, 0u) != 0) return 3;
        Sends sends(socket.writeFd());
        sends.next({hasNoRoom()});
        socket.sendTo(packet, 6, 0u);
        if (socket.getQueueStatus().first != 1) return 4;
        if (socket.flush() != -1) return 5;
        socket.isConnectionEstablished();
        socket.testConnectionStatus();
        return sends.unused() == 0 ? 0 : 6;
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "");
}

TEST(TcpSendEnds, whatWaitsGoesWithTheSocket) {
    Messages messages;
    TcpListener listener;
    std::unique_ptr<NwTcpSocket> socket(new NwTcpSocket(kLoopback, listener.port(), 0));
    TcpPeer peer = listener.accept();
    char packet[] = "waits";
    {
        Sends sends(socket->writeFd());
        sends.always(hasNoRoom());
        for (int i = 0; i < 3; ++i) socket->sendTo(packet, 5, 0u);
        ASSERT_EQ(socket->getQueueStatus().first, 3);
        socket->setBundling(1400);
        socket->NwSend(packet, 5, 0u);
    }
    socket.reset();
    EXPECT_EQ(peer.receiveToEnd(), "");
}

}  // namespace
