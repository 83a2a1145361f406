// SPDX-License-Identifier: BSD-3-Clause
// The receive path of the UDP socket: one datagram in, its packets out one a call, over real kernel sockets
// with a raw peer on the other side.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cvutil/cvByteOrder.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "messages.h"
#include "network.h"
#include "packets.h"

namespace {

const unsigned char kRead = NwNetSocketRead | NwNetSocketQuietStart;
const NwIpv4Addr kOtherLoopback = 0x7F000002u;

const char kHeaderWarning[] =
    "Unbundling warning: PDU header not similar to first                 in bundle\n";
const char kShortFirst[] = "NwNetSocket: problem: packet size less than 12 bytes\n";
const char kShortLater[] = "NwNetSocket: unbundling problem: packet size less than 12 bytes\n";
const char kEmptyWarning[] = "0 bytes read from net\n";
const char kNotReadable[] = "NetSocket not initialized for receiving\n";

// The protected fields of a socket of any class, which derived classes may use.
struct Fields {
    int& blocking;
    int& bufferSize;
    char*& bundleCursor;
    int& bundleExercise;
    int& bundleProtocol;
    int& bytesLeftInBundle;
    std::unique_ptr<char[]>& copyBuffer;
    int& filterPort;
    int& firstInBundle;
    int& packetsReceived;
    int& port;
    std::unique_ptr<char[]>& recvBuffer;
    int& socketFd;
};

struct Names : NwNetSocket {
    static Fields of(NwNetSocket& s) {
        return {s.*&Names::blocking,        s.*&Names::bufferSize,     s.*&Names::bundleCursor,
                s.*&Names::bundleExercise,  s.*&Names::bundleProtocol, s.*&Names::bytesLeftInBundle,
                s.*&Names::copyBuffer,      s.*&Names::filterPort,     s.*&Names::firstInBundle,
                s.*&Names::packetsReceived, s.*&Names::port,           s.*&Names::recvBuffer,
                s.*&Names::socketFd};
    }
};

Fields fieldsOf(NwNetSocket& socket) {
    return Names::of(socket);
}

// A socket that reads on a port of its own.
class Receiver : public NwNetSocket {
public:
    Receiver() : NwNetSocket(freePort(), 0u, kRead, kLoopback) {}
};

// The library takes a shorter way for objects of just its own class: both ways are held against the same
// rules.
enum WhichClass { kItself, kDerived };

std::unique_ptr<NwNetSocket> makeReceiver(WhichClass which) {
    if (which == kDerived) return std::unique_ptr<NwNetSocket>(new Receiver);
    return std::unique_ptr<NwNetSocket>(new NwNetSocket(freePort(), 0u, kRead, kLoopback));
}

// Bytes of kernel memory that datagrams waiting on fd use up.
unsigned int queuedMemory(int fd) {
    unsigned int values[16] = {};
    socklen_t size = sizeof values;
    if (::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, values, &size) != 0) ADD_FAILURE() << "SO_MEMINFO";
    return values[0];
}

// Sends, and returns when the datagram waits at the receiver, so that receives need no patience.
void land(UdpPeer& from, const std::string& bytes, NwNetSocket& at) {
    const unsigned int before = queuedMemory(at.readFd());
    from.send(bytes, fieldsOf(at).port);
    ASSERT_TRUE(eventually([&] { return queuedMemory(at.readFd()) > before; }));
}

struct Taken {
    int length;
    int status;
    char* place;
    std::string bytes;
};

char untouched[1];

Taken takeFrom(NwNetSocket& socket) {
    Taken taken = {0, 77, untouched, std::string()};
    taken.length = socket.NwRecv(&taken.place, &taken.status);
    if (taken.length > 0) taken.bytes.assign(taken.place, static_cast<std::size_t>(taken.length));
    return taken;
}

// The packet, or what came instead of one.
std::string nextFrom(NwNetSocket& socket) {
    const Taken taken = takeFrom(socket);
    return taken.status == 1 ? taken.bytes : "status " + std::to_string(taken.status);
}

const std::string kNone = "status 0";
const std::string kRefused = "status -2";
const std::string kOwn = "status -3";

class Receive : public testing::TestWithParam<WhichClass> {
protected:
    Receive() { socket.NwBecomeNonBlocking(); }
    ~Receive() override { NwSetNetworkByteOrdering(1); }

    void feed(const std::string& bytes) { land(peer, bytes, socket); }
    Taken take() { return takeFrom(socket); }
    std::string next() { return nextFrom(socket); }
    // The lengths of what is delivered until nothing is left.
    std::vector<int> takeLengths(std::string* all = nullptr) {
        std::vector<int> lengths;
        for (Taken taken = take(); taken.status == 1 && lengths.size() < 1000; taken = take()) {
            lengths.push_back(taken.length);
            if (all) *all += taken.bytes;
        }
        return lengths;
    }

    Messages messages;
    const std::unique_ptr<NwNetSocket> mySocket = makeReceiver(GetParam());
    NwNetSocket& socket = *mySocket;
    const Fields fields = fieldsOf(socket);
    UdpPeer peer;
};

// Each suite is one subject; all share the fixture.
class Datagrams : public Receive {};
class Unbundling : public Receive {};
class HeaderTest : public Receive {};
class LengthFields : public Receive {};
class OwnPackets : public Receive {};
class HeaderFilters : public Receive {};
class LentBuffers : public Receive {};
class CopyForm : public Receive {};
class Pending : public Receive {};
class ReceiveSettings : public Receive {};

std::string classOf(const testing::TestParamInfo<WhichClass>& info) {
    return info.param == kItself ? "itself" : "derived";
}

INSTANTIATE_TEST_SUITE_P(, Datagrams, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, Unbundling, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, HeaderTest, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, LengthFields, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, OwnPackets, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, HeaderFilters, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, LentBuffers, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, CopyForm, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, Pending, testing::Values(kItself, kDerived), classOf);
INSTANTIATE_TEST_SUITE_P(, ReceiveSettings, testing::Values(kItself, kDerived), classOf);

// Numbers in the order that the library currently expects on the wire, built from bytes.
std::string field(unsigned long value, int width, bool networkOrder = true) {
    std::string bytes;
    for (int i = 0; i < width; ++i) {
        const char byte = static_cast<char>(value >> (8 * i));
        bytes = networkOrder ? byte + bytes : bytes + byte;
    }
    return bytes;
}

// Bytes that tell their place, each of 128 or more, so that no length field among them lies below 128.
std::string highBytes(int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += static_cast<char>(0x80 | (i & 0x7F));
    return bytes;
}

}  // namespace

// --- a new socket ----------------------------------------------------------------------------------------

TEST_P(ReceiveSettings, newSocketUnbundlesByTheDisHeader) {
    EXPECT_TRUE(socket.isUnbundling());
    EXPECT_TRUE(socket.testDisHeader());
    EXPECT_EQ(socket.minPacketSize(), 12);
    EXPECT_EQ(socket.sizeOffset(), 8);
    EXPECT_EQ(socket.sizeLength(), 2);
    EXPECT_EQ(fields.filterPort, -1);
    EXPECT_EQ(fields.bundleCursor, nullptr);
    EXPECT_EQ(fields.bytesLeftInBundle, 0);
    EXPECT_EQ(fields.firstInBundle, 1);
    EXPECT_EQ(fields.bundleExercise, 0);
    EXPECT_EQ(fields.bundleProtocol, 0);
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
    EXPECT_EQ(socket.lastSourceInetAddr(), 0u);
    EXPECT_EQ(fields.bufferSize, 15000);
}

TEST_P(ReceiveSettings, unbundlingIsAnythingButZero) {
    socket.setUnbundling(0);
    EXPECT_FALSE(socket.isUnbundling());
    for (int on : {1, 2, -1, INT_MIN, 256}) {
        socket.setUnbundling(0);
        socket.setUnbundling(on);
        EXPECT_TRUE(socket.isUnbundling()) << on;
    }
}

TEST_P(ReceiveSettings, minPacketSizeAndOffsetAreStoredUnchecked) {
    for (int value : {0, -1, 1, 12, 65536, INT_MAX, INT_MIN}) {
        socket.setMinPacketSize(value);
        EXPECT_EQ(socket.minPacketSize(), value);
        socket.setSizeOffset(value);
        EXPECT_EQ(socket.sizeOffset(), value);
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_P(ReceiveSettings, lengthWidthIsOneTwoOrFour) {
    for (int width : {1, 2, 4}) {
        socket.setSizeLength(width);
        EXPECT_EQ(socket.sizeLength(), width);
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_P(ReceiveSettings, anyOtherWidthStoresTwoAndWarns) {
    for (int width : {3, 0, 5, 8, -1, -4, INT_MAX, INT_MIN, 258, 65540}) {
        socket.setSizeLength(4);
        socket.setSizeLength(width);
        EXPECT_EQ(socket.sizeLength(), 2) << width;
        EXPECT_EQ(messages.warn(), "Invalid value for size, using default value of 2\n") << width;
    }
    Quiet quiet;
    socket.setSizeLength(4);
    socket.setSizeLength(3);
    EXPECT_EQ(socket.sizeLength(), 2);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(ReceiveSettings, headerTestIsSwitchedOffAndOn) {
    socket.enableDisHeaderTest(false);
    EXPECT_FALSE(socket.testDisHeader());
    socket.enableDisHeaderTest(true);
    EXPECT_TRUE(socket.testDisHeader());
}

TEST_P(ReceiveSettings, sixArgumentFormSetsTheReceivingSide) {
    socket.setBundling(0, true, 5, 2, 1, false);
    EXPECT_TRUE(socket.isUnbundling());
    EXPECT_EQ(socket.minPacketSize(), 5);
    EXPECT_EQ(socket.sizeOffset(), 2);
    EXPECT_EQ(socket.sizeLength(), 1);
    EXPECT_FALSE(socket.testDisHeader());
    feed(
        "ab\6def"
        "gh\5jk");
    EXPECT_EQ(next(), "ab\6def");
    EXPECT_EQ(next(), "gh\5jk");

    socket.setBundling(0, false, 5, 2, 3, true);
    EXPECT_FALSE(socket.isUnbundling());
    EXPECT_EQ(socket.sizeLength(), 2);
    EXPECT_TRUE(socket.testDisHeader());
    EXPECT_EQ(messages.warn(), "Invalid value for size, using default value of 2\n");
    feed(
        "ab\6def"
        "gh\5jk");
    EXPECT_EQ(next(),
              "ab\6def"
              "gh\5jk");
}

// --- one datagram ----------------------------------------------------------------------------------------

TEST_P(Datagrams, nothingWaitingGivesZeroAndNullInSilence) {
    for (int on : {1, 0}) {
        socket.setUnbundling(on);
        const Taken taken = take();
        EXPECT_EQ(taken.length, 0);
        EXPECT_EQ(taken.status, 0);
        EXPECT_EQ(taken.place, nullptr);
    }
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Datagrams, packetIsDeliveredFromItsSender) {
    UdpPeer other(kOtherLoopback);
    const std::string packet = pdu(144, 1);
    for (int on : {1, 0}) {
        socket.setUnbundling(on);
        land(other, packet, socket);
        const Taken taken = take();
        EXPECT_EQ(taken.length, 144);
        EXPECT_EQ(taken.status, 1);
        EXPECT_EQ(taken.bytes, packet);
        EXPECT_EQ(socket.lastSourceInetAddr(), kOtherLoopback);
        feed(packet);
        EXPECT_EQ(next(), packet);
        EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    }
    EXPECT_EQ(socket.NwReportPktsRcvd(), 4);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Datagrams, statusMayBeNull) {
    char* place = untouched;
    EXPECT_EQ(socket.NwRecv(&place, nullptr), 0);
    EXPECT_EQ(place, nullptr);
    feed(pdu(20));
    EXPECT_EQ(socket.NwRecv(&place, nullptr), 20);
    socket.exerciseId().setTest(NwTestInclude, 0, nullptr);
    feed(pdu(20));
    EXPECT_EQ(socket.NwRecv(&place, nullptr), 0);
    EXPECT_EQ(place, nullptr);
    socket.setUnbundling(0);
    socket.setFilterPort(peer.port());
    feed(pdu(20));
    place = untouched;
    EXPECT_EQ(socket.NwRecv(&place, nullptr), 0);
    EXPECT_EQ(place, untouched);
}

TEST_P(Datagrams, bundleIsDeliveredWholeWhileUnbundlingIsOff) {
    socket.setUnbundling(0);
    const std::string bundle = pdu(144, 1) + pdu(32, 2) + pdu(12, 3);
    feed(bundle);
    EXPECT_EQ(next(), bundle);
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Datagrams, anySizeIsDeliveredWhileUnbundlingIsOff) {
    socket.setUnbundling(0);
    for (int size : {1, 2, 3, 11, 12, 14999, 15000}) {
        const std::string bytes = highBytes(size);
        feed(bytes);
        EXPECT_EQ(next(), bytes);
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Datagrams, emptyDatagramCountsAndDeliversNothing) {
    feed("");
    const Taken taken = take();
    EXPECT_EQ(taken.length, 0);
    EXPECT_EQ(taken.status, 0);
    EXPECT_EQ(taken.place, nullptr);
    EXPECT_EQ(messages.all(), kEmptyWarning);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);

    socket.setUnbundling(0);
    feed("");
    const Taken whole = take();
    EXPECT_EQ(whole.length, 0);
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.place, fields.recvBuffer.get());
    EXPECT_EQ(messages.all(), kEmptyWarning);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 2);

    Quiet quiet;
    feed("");
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(socket.NwReportPktsRcvd(), 3);
}

TEST_P(Datagrams, emptyDatagramLeavesNoCursorBehind) {
    for (int smallest : {12, 0, -1, INT_MIN}) {
        socket.setMinPacketSize(smallest);
        feed("");
        feed(pdu(40, 1) + pdu(30, 2));
        EXPECT_EQ(next(), kNone);
        EXPECT_EQ(fields.bundleCursor, nullptr);
        EXPECT_FALSE(socket.dataLeftInCurrentBundle());
        EXPECT_EQ(next(), pdu(40, 1));
        EXPECT_EQ(fields.firstInBundle, 1);
        EXPECT_EQ(next(), pdu(30, 2));
        EXPECT_EQ(next(), kNone);
    }
}

TEST_P(Datagrams, countsDatagramsNotPackets) {
    feed(pdu(144, 1) + pdu(144, 2) + pdu(144, 3));
    EXPECT_EQ(takeLengths(), (std::vector<int>{144, 144, 144}));
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);
}

TEST_P(Datagrams, shortRefusedAndEmptyOnesCountAsReceived) {
    unsigned int refused[] = {9};
    socket.exerciseId().setTest(NwTestExclude, 1, refused);
    feed("short");
    feed(pdu(20, 0, 7, 9));
    feed("");
    feed(pdu(20));
    EXPECT_EQ(next(), kRefused);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 2);
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 3);
    EXPECT_EQ(next(), pdu(20));
    EXPECT_EQ(socket.NwReportPktsRcvd(), 4);
}

TEST_P(Datagrams, countWrapsPastItsLargestValue) {
    fields.packetsReceived = INT_MAX;
    feed(pdu(20));
    EXPECT_EQ(next(), pdu(20));
    EXPECT_EQ(socket.NwReportPktsRcvd(), INT_MIN);
    socket.setUnbundling(0);
    feed(pdu(20));
    EXPECT_EQ(next(), pdu(20));
    EXPECT_EQ(socket.NwReportPktsRcvd(), INT_MIN + 1);
}

TEST_P(Datagrams, readErrorIsReportedAndGivesZeroAndNull) {
    for (int on : {1, 0}) {
        const std::unique_ptr<NwNetSocket> owner = makeReceiver(GetParam());  // blocking
        NwNetSocket& broken = *owner;
        broken.setUnbundling(on);
        ::close(fieldsOf(broken).socketFd);
        Taken taken = takeFrom(broken);
        EXPECT_EQ(taken.length, 0);
        EXPECT_EQ(taken.status, 0);
        EXPECT_EQ(taken.place, nullptr);
        EXPECT_EQ(messages.all(), systemReport("Network read error", EBADF));
        fieldsOf(broken).blocking = 0;  // only "nothing there" is silent on a non-blocking socket
        EXPECT_EQ(nextFrom(broken), kNone);
        EXPECT_EQ(messages.all(), systemReport("Network read error", EBADF));
        Quiet quiet;
        EXPECT_EQ(nextFrom(broken), kNone);
        EXPECT_EQ(messages.all(), "");
        EXPECT_EQ(broken.NwReportPktsRcvd(), 0);
        fieldsOf(broken).socketFd = -1;
    }
}

// The descriptor is what waits; the socket only knows that it is a blocking one.
TEST_P(Datagrams, timeOutOfABlockingSocketIsAReadError) {
    const std::unique_ptr<NwNetSocket> owner = makeReceiver(GetParam());
    NwNetSocket& waiting = *owner;
    const timeval soon = {0, 1000};
    ASSERT_EQ(::setsockopt(waiting.readFd(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon), 0);
    EXPECT_EQ(nextFrom(waiting), kNone);
    EXPECT_EQ(messages.all(), systemReport("Network read error", EAGAIN));
    waiting.NwBecomeNonBlocking();
    EXPECT_EQ(nextFrom(waiting), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Datagrams, blockingSocketWaitsForADatagram) {
    const std::unique_ptr<NwNetSocket> owner = makeReceiver(GetParam());
    NwNetSocket& waiting = *owner;
    std::string got;
    std::atomic<bool> done(false);
    std::thread reader([&] {
        got = nextFrom(waiting);
        done = true;
    });
    EXPECT_FALSE(done);
    peer.send(pdu(50, 4), fieldsOf(waiting).port);
    reader.join();
    EXPECT_EQ(got, pdu(50, 4));
}

TEST_P(Datagrams, interruptedReadIsReportedNotRepeated) {
    struct sigaction action = {}, old = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old), 0);
    const std::unique_ptr<NwNetSocket> owner = makeReceiver(GetParam());
    NwNetSocket& waiting = *owner;
    std::string got;
    std::atomic<bool> done(false);
    std::thread reader([&] {
        got = nextFrom(waiting);
        done = true;
    });
    EXPECT_TRUE(eventually([&] {
        if (!done) ::pthread_kill(reader.native_handle(), SIGUSR1);
        return done.load();
    }));
    if (!done) peer.send("a packet that ends the wait", fieldsOf(waiting).port);
    reader.join();
    ::sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(got, kNone);
    EXPECT_EQ(messages.all(), systemReport("Network read error", EINTR));
}

TEST_P(Datagrams, socketThatDoesNotReadSaysSo) {
    NwNetSocket writeOnly(freePort(), kLoopback, (unsigned char)(NwNetSocketWrite | NwNetSocketQuietStart),
                          kLoopback);
    NwNetSocket closed(freePort(), kLoopback, (unsigned char)NwNetSocketQuietStart, kLoopback);
    for (NwNetSocket* mute : {&writeOnly, &closed}) {
        for (int on : {1, 0}) {
            mute->setUnbundling(on);
            const Taken taken = takeFrom(*mute);
            EXPECT_EQ(taken.length, 0);
            EXPECT_EQ(taken.status, 0);
            EXPECT_EQ(taken.place, nullptr);
            EXPECT_EQ(messages.all(), kNotReadable);
            char copy[4] = {'k', 'e', 'p', 't'};
            EXPECT_EQ(mute->NwRecv(copy, 4ul), 0);
            EXPECT_EQ(std::string(copy, 4), "kept");
            EXPECT_EQ(messages.all(), kNotReadable);
            Quiet quiet;
            EXPECT_EQ(nextFrom(*mute), kNone);
            EXPECT_EQ(messages.all(), "");
        }
        EXPECT_EQ(mute->NwReportPktsRcvd(), 0);
    }
}

TEST_P(Datagrams, readOnlySocketReceives) {
    EXPECT_EQ(socket.writeFd(), -1);
    feed(pdu(33));
    EXPECT_EQ(next(), pdu(33));
}

TEST_P(Datagrams, recvFromNetReadsOne) {
    char* place = untouched;
    EXPECT_EQ(socket.recvFromNet(&place), 0);
    EXPECT_EQ(place, nullptr);
    feed(pdu(144) + pdu(144));
    EXPECT_EQ(socket.recvFromNet(&place), 288);
    EXPECT_EQ(place, fields.recvBuffer.get());
    EXPECT_EQ(fields.bundleCursor, nullptr);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);
    feed("");
    place = untouched;
    EXPECT_EQ(socket.recvFromNet(&place), 0);
    EXPECT_EQ(place, fields.recvBuffer.get());
    EXPECT_EQ(socket.NwReportPktsRcvd(), 2);
    socket.setFilterPort(peer.port());
    feed(pdu(144));
    place = untouched;
    EXPECT_EQ(socket.recvFromNet(&place), -3);
    EXPECT_EQ(place, untouched);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 2);
}

// --- buffer sizes ----------------------------------------------------------------------------------------

namespace {

// A receiver built while the process-wide packet size was another one.
std::unique_ptr<NwNetSocket> receiverWithRoom(int bytes, WhichClass which) {
    const int before = NwMaxPacketSize();
    NwSetMaxPacketSize(bytes);
    std::unique_ptr<NwNetSocket> receiver = makeReceiver(which);
    NwSetMaxPacketSize(before);
    receiver->NwBecomeNonBlocking();
    return receiver;
}

}  // namespace

TEST_P(Datagrams, sizeIsThatOfConstruction) {
    const std::unique_ptr<NwNetSocket> roomy = receiverWithRoom(20000, GetParam());
    const std::string large = withLength(highBytes(18000), 18000);
    land(peer, large, *roomy);
    EXPECT_EQ(nextFrom(*roomy), large);
    EXPECT_EQ(fieldsOf(*roomy).bufferSize, 20000);
    NwSetMaxPacketSize(100);
    feed(pdu(200));
    EXPECT_EQ(next(), pdu(200));
    NwSetMaxPacketSize(15000);
}

TEST_P(Datagrams, longerOnesAreCutToTheBuffer) {
    const std::unique_ptr<NwNetSocket> small = receiverWithRoom(100, GetParam());
    land(peer, pdu(150), *small);
    EXPECT_EQ(nextFrom(*small), pdu(150).substr(0, 100));
    land(peer, pdu(60, 1) + pdu(60, 2), *small);
    EXPECT_EQ(nextFrom(*small), pdu(60, 1));
    EXPECT_EQ(nextFrom(*small), pdu(60, 2).substr(0, 40)) << "its length reaches beyond what arrived";
    land(peer, pdu(95, 1) + pdu(60, 2), *small);
    EXPECT_EQ(nextFrom(*small), pdu(95, 1));
    EXPECT_EQ(nextFrom(*small), kNone);
    messages.info();
    EXPECT_EQ(messages.all(), kShortLater);
    small->setUnbundling(0);
    land(peer, pdu(101), *small);
    EXPECT_EQ(nextFrom(*small), pdu(101).substr(0, 100));
    land(peer, pdu(100), *small);
    EXPECT_EQ(nextFrom(*small), pdu(100));
}

TEST_P(Datagrams, bufferWithoutRoomReceivesEmptyOnes) {
    for (int room : {0, -1, INT_MIN}) {
        const std::unique_ptr<NwNetSocket> none = receiverWithRoom(room, GetParam());
        EXPECT_EQ(fieldsOf(*none).bufferSize, room);
        messages.all();
        for (int on : {1, 0}) {
            none->setUnbundling(on);
            land(peer, pdu(144), *none);
            EXPECT_EQ(nextFrom(*none), kNone);
            EXPECT_EQ(messages.all(), kEmptyWarning);
            EXPECT_FALSE(none->dataLeftInCurrentBundle());
        }
        EXPECT_EQ(none->NwReportPktsRcvd(), 2);
        EXPECT_EQ(nextFrom(*none), kNone);
        EXPECT_EQ(messages.all(), "");
    }
}

TEST_P(Datagrams, bufferOfOneByteWorks) {
    const std::unique_ptr<NwNetSocket> tiny = receiverWithRoom(1, GetParam());
    messages.all();
    land(peer, "xyz", *tiny);
    EXPECT_EQ(nextFrom(*tiny), kNone);
    EXPECT_EQ(messages.all(), kShortFirst);
    tiny->setMinPacketSize(1);
    land(peer, "xyz", *tiny);
    EXPECT_EQ(nextFrom(*tiny), "x");
    tiny->setUnbundling(0);
    land(peer, "xyz", *tiny);
    EXPECT_EQ(nextFrom(*tiny), "x");
}

// --- unbundling ------------------------------------------------------------------------------------------

TEST_P(Unbundling, packetsComeOneACallInOrder) {
    feed(pdu(144, 1) + pdu(12, 2) + pdu(400, 3) + pdu(13, 4));
    EXPECT_EQ(next(), pdu(144, 1));
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), pdu(12, 2));
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), pdu(400, 3));
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), pdu(13, 4));
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Unbundling, twoPacketsOf144) {
    feed(pdu(144, 1) + pdu(144, 2));
    Taken taken = take();
    EXPECT_EQ(taken.bytes, pdu(144, 1));
    EXPECT_EQ(taken.place, fields.recvBuffer.get());
    EXPECT_EQ(fields.firstInBundle, 1);
    taken = take();
    EXPECT_EQ(taken.length, 144);
    EXPECT_EQ(taken.status, 1);
    EXPECT_EQ(taken.bytes, pdu(144, 2));
    EXPECT_EQ(taken.place, fields.copyBuffer.get());
    EXPECT_EQ(fields.firstInBundle, 0);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);
}

TEST_P(Unbundling, nextDatagramIsReadOnlyWhenTheLastOneIsDone) {
    UdpPeer other(kOtherLoopback);
    feed(pdu(20, 1) + pdu(20, 2));
    land(other, pdu(20, 3) + pdu(20, 4), socket);
    EXPECT_EQ(next(), pdu(20, 1));
    EXPECT_EQ(next(), pdu(20, 2));
    EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);
    EXPECT_EQ(next(), pdu(20, 3));
    EXPECT_EQ(socket.lastSourceInetAddr(), kOtherLoopback);
    EXPECT_EQ(next(), pdu(20, 4));
}

TEST_P(Unbundling, largestDatagramOfSmallestPackets) {
    std::string bundle;
    for (int i = 0; i < 1250; ++i) bundle += pdu(12, 0, 7, 1, i & 0xFF);
    feed(bundle);
    for (int i = 0; i < 1250; ++i) ASSERT_EQ(next(), pdu(12, 0, 7, 1, i & 0xFF)) << i;
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Unbundling, unknownTypeInMidBundleIsNoError) {
    feed(pdu(20, 1) + pdu(20, 2, 7, 1, 255) + pdu(20, 3, 7, 1, 0));
    EXPECT_EQ(next(), pdu(20, 1));
    EXPECT_EQ(next(), pdu(20, 2, 7, 1, 255));
    EXPECT_EQ(next(), pdu(20, 3, 7, 1, 0));
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Unbundling, shortDatagramIsDiscardedAndTheNextOneRead) {
    for (int size : {1, 9, 10, 11}) {
        feed(highBytes(size));
        feed(pdu(20, size));
        EXPECT_EQ(next(), pdu(20, size)) << size;
        EXPECT_EQ(messages.all(), kShortFirst) << size;
    }
    feed(highBytes(10));
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), kShortFirst);
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(fields.bytesLeftInBundle, 0);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 9);
}

TEST_P(Unbundling, everyShortDatagramIsWarnedOfOnItsOwn) {
    for (int i = 0; i < 3; ++i) feed("short");
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), std::string(kShortFirst) + kShortFirst + kShortFirst);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 3);
}

TEST_P(Unbundling, packetOfExactlyTheMinimumIsDelivered) {
    feed(pdu(12));
    EXPECT_EQ(next(), pdu(12));
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Unbundling, paddingBehindTheLastPacketIsDiscarded) {
    feed(pdu(144, 1) + std::string(8, '\0'));
    feed(pdu(144, 2));
    EXPECT_EQ(next(), pdu(144, 1));
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(next(), pdu(144, 2));
    EXPECT_EQ(messages.all(), kShortLater);
    EXPECT_EQ(fields.firstInBundle, 1);
}

TEST_P(Unbundling, paddingOfElevenIsDiscardedAndOfTwelveDelivered) {
    feed(pdu(30, 1) + std::string(11, '\0'));
    EXPECT_EQ(next(), pdu(30, 1));
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), kShortLater);
    socket.enableDisHeaderTest(false);
    feed(pdu(30, 1) + std::string(12, '\0'));
    EXPECT_EQ(next(), pdu(30, 1));
    EXPECT_EQ(next(), std::string(12, '\0'));
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Unbundling, warningsKeepQuiet) {
    Quiet quiet;
    feed("short");
    feed(pdu(20, 1) + "padding");
    feed(pdu(20, 2) + pdu(20, 3, 7, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    EXPECT_EQ(next(), pdu(20, 2));
    EXPECT_EQ(next(), pdu(20, 3, 7, 2));
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Unbundling, warningNamesTheMinimumThatWasSet) {
    for (int smallest : {2000, INT_MAX}) {
        socket.setMinPacketSize(smallest);
        feed(pdu(144));
        EXPECT_EQ(next(), kNone);
        EXPECT_EQ(messages.all(),
                  "NwNetSocket: problem: packet size less than " + std::to_string(smallest) + " bytes\n");
    }
    socket.setMinPacketSize(40);
    feed(pdu(40, 1) + pdu(39, 2));
    EXPECT_EQ(next(), pdu(40, 1));
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "NwNetSocket: unbundling problem: packet size less than 40 bytes\n");
}

TEST_P(Unbundling, withoutMinimumEveryByteIsDelivered) {
    for (int smallest : {1, 0, -1, -3, INT_MIN}) {
        socket.setMinPacketSize(smallest);
        feed("x");
        EXPECT_EQ(next(), "x");
        feed(pdu(20, 1) + "y");
        EXPECT_EQ(next(), pdu(20, 1));
        EXPECT_EQ(next(), "y") << "unlike the first, or without a length field: all the same the rest";
        EXPECT_EQ(next(), kNone);
        EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    }
}

// The minimum is a rule for what remains of a datagram, not for a packet's own length.
TEST_P(Unbundling, packetWhoseLengthIsBelowTheMinimumIsDeliveredSo) {
    feed(withLength(pdu(40, 1), 11) + pdu(20, 2));
    const std::string bytes = withLength(pdu(40, 1), 11) + pdu(20, 2);
    Taken taken = take();
    EXPECT_EQ(taken.status, 1);
    EXPECT_EQ(taken.bytes, bytes.substr(0, 11));
    EXPECT_EQ(fields.bytesLeftInBundle, 49);
}

namespace {

// What is still buffered is lost: not even a sanitizer, which stands before _exit, may write it out.
void endAtOnce() {
    ::syscall(SYS_exit_group, 0);
}

}  // namespace

// Whatever was buffered must be on its way before the program goes on: meant, also while sockets are quiet.
TEST(UnbundlingOutput, standardOutputIsFlushedWithTheShortPacketWarning) {
    for (const bool quiet : {false, true}) {
        for (const std::string& bytes : {std::string("short"), pdu(20) + "padding"}) {
            const ChildResult child = inChild([&] {
                Receiver socket;
                socket.NwBecomeNonBlocking();
                UdpPeer peer;
                land(peer, bytes, socket);
                NwSocket::setQuietSockets(quiet);
                std::setvbuf(stdout, nullptr, _IOFBF, 4096);
                std::fputs("before ", stdout);
                while (nextFrom(socket) != kNone) {
                }
                std::fputs("after", stdout);
                endAtOnce();
                return 0;
            });
            EXPECT_EQ(child.exitStatus, 0);
            EXPECT_EQ(child.standardOutput, "before ");
            const std::string warning = bytes == "short" ? kShortFirst : kShortLater;
            EXPECT_EQ(child.output, quiet ? "" : warning);
        }
    }
}

TEST(UnbundlingOutput, standardOutputIsLeftAloneWhenNothingIsDiscarded) {
    const ChildResult child = inChild([&] {
        Receiver socket;
        socket.NwBecomeNonBlocking();
        UdpPeer peer;
        land(peer, pdu(20, 1) + pdu(20, 2, 7, 9), socket);
        land(peer, "", socket);
        std::setvbuf(stdout, nullptr, _IOFBF, 4096);
        std::fputs("buffered", stdout);
        for (int i = 0; i < 4; ++i) nextFrom(socket);
        endAtOnce();
        return 0;
    });
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_EQ(child.standardOutput, "");
}

TEST_P(Unbundling, shortDatagramMakesABlockingSocketWaitForTheNext) {
    const std::unique_ptr<NwNetSocket> owner = makeReceiver(GetParam());
    NwNetSocket& waiting = *owner;
    std::string got;
    std::atomic<bool> done(false);
    peer.send("short", fieldsOf(waiting).port);
    std::thread reader([&] {
        got = nextFrom(waiting);
        done = true;
    });
    EXPECT_TRUE(eventually([&] { return queuedMemory(waiting.readFd()) == 0; }))
        << "the short one is not read";
    EXPECT_FALSE(done);
    peer.send(pdu(20, 7), fieldsOf(waiting).port);
    reader.join();
    EXPECT_EQ(got, pdu(20, 7));
    EXPECT_EQ(messages.all(), kShortFirst);
}

// --- the DIS header test ---------------------------------------------------------------------------------

TEST_P(HeaderTest, otherExerciseIsDeliveredAsTheRestAfterAWarning) {
    feed(pdu(144, 1, 7, 1) + pdu(144, 2, 7, 5));
    EXPECT_EQ(next(), pdu(144, 1, 7, 1));
    EXPECT_EQ(messages.all(), "");
    const Taken taken = take();
    EXPECT_EQ(taken.length, 144);
    EXPECT_EQ(taken.status, 1);
    EXPECT_EQ(taken.bytes, pdu(144, 2, 7, 5));
    EXPECT_EQ(taken.place, fields.copyBuffer.get());
    EXPECT_EQ(messages.all(),
              std::string(kHeaderWarning) + "    (Protocol,exercise) = (7,5) when expecting (7,1)\n");
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
}

TEST_P(HeaderTest, otherVersionIsDeliveredAsTheRestAfterAWarning) {
    feed(pdu(144, 1, 6, 200) + pdu(144, 2, 255, 200));
    EXPECT_EQ(next(), pdu(144, 1, 6, 200));
    EXPECT_EQ(next(), pdu(144, 2, 255, 200));
    EXPECT_EQ(messages.all(),
              std::string(kHeaderWarning) + "    (Protocol,exercise) = (255,200) when expecting (6,200)\n");
}

TEST_P(HeaderTest, everythingFromTheFirstUnlikeHeaderIsOneRest) {
    feed(pdu(20, 1) + pdu(20, 2) + pdu(30, 3, 6) + pdu(20, 4) + pdu(20, 5));
    EXPECT_EQ(next(), pdu(20, 1));
    EXPECT_EQ(next(), pdu(20, 2));
    EXPECT_EQ(next(), pdu(30, 3, 6) + pdu(20, 4) + pdu(20, 5));
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(),
              std::string(kHeaderWarning) + "    (Protocol,exercise) = (6,1) when expecting (7,1)\n");
}

TEST_P(HeaderTest, comparesWithTheFirstPacketOfTheSameDatagram) {
    feed(pdu(20, 1, 5, 1) + pdu(20, 2, 5, 1));
    feed(pdu(20, 3, 6, 2) + pdu(20, 4, 6, 2));
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(next(), pdu(20, i, 5, 1));
    EXPECT_EQ(fields.bundleProtocol, 5);
    EXPECT_EQ(fields.bundleExercise, 1);
    for (int i = 3; i <= 4; ++i) EXPECT_EQ(next(), pdu(20, i, 6, 2));
    EXPECT_EQ(fields.bundleProtocol, 6);
    EXPECT_EQ(fields.bundleExercise, 2);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(HeaderTest, headerOfARefusedFirstPacketStillCounts) {
    unsigned int types[] = {99};
    socket.pduKind().setTest(NwTestExclude, 1, types);
    feed(pdu(20, 1, 7, 3, 99) + pdu(20, 2, 7, 3) + pdu(20, 3, 7, 4));
    EXPECT_EQ(next(), kRefused);
    EXPECT_EQ(next(), pdu(20, 2, 7, 3));
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(next(), pdu(20, 3, 7, 4));
    EXPECT_EQ(messages.all(),
              std::string(kHeaderWarning) + "    (Protocol,exercise) = (7,4) when expecting (7,3)\n");
}

TEST_P(HeaderTest, lengthIsAlwaysTwoBytesAtEight) {
    for (int width : {1, 2, 4}) {
        for (int offset : {0, 4, -1, INT_MIN, INT_MAX, 1000}) {
            socket.setSizeLength(width);
            socket.setSizeOffset(offset);
            feed(pdu(300, 1) + pdu(20, 2));
            EXPECT_EQ(next(), pdu(300, 1));
            EXPECT_EQ(next(), pdu(20, 2));
        }
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_P(HeaderTest, mixedHeadersAreSplitWhileItIsOff) {
    socket.enableDisHeaderTest(false);
    feed(pdu(20, 1, 5, 1) + pdu(20, 2, 6, 2) + pdu(20, 3, 7, 3));
    EXPECT_EQ(next(), pdu(20, 1, 5, 1));
    EXPECT_EQ(next(), pdu(20, 2, 6, 2));
    EXPECT_EQ(next(), pdu(20, 3, 7, 3));
    EXPECT_EQ(messages.all(), "");
}

// Ten bytes is where the field ends; a shorter packet has none, whatever lies behind it in the buffer.
TEST_P(HeaderTest, packetTooShortForItsLengthFieldIsTheRest) {
    socket.setMinPacketSize(0);
    feed(std::string(100, '\1'));  // what an earlier datagram left in the buffer must not be read
    EXPECT_EQ(next().size(), 100u);
    for (int size = 1; size <= 9; ++size) {
        const std::string bytes = pdu(12, 0, 1, 1).substr(0, static_cast<std::size_t>(size));
        feed(bytes);
        EXPECT_EQ(next(), bytes) << size;
    }
    const std::string ten = withLength(pdu(12, 0, 1, 1), 5).substr(0, 10);
    feed(ten);
    EXPECT_EQ(next(), ten.substr(0, 5));
    EXPECT_EQ(next(), ten.substr(5)) << "the rest has another version, or no length field";
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
}

TEST_P(HeaderTest, bytesBeyondAShortPacketReadAsZero) {
    socket.setMinPacketSize(0);
    feed(std::string(200, '\x55'));
    EXPECT_EQ(next().size(), 200u);
    messages.all();
    feed(pdu(20, 1, 7, 9) + "\7");
    EXPECT_EQ(next(), pdu(20, 1, 7, 9));
    EXPECT_EQ(next(), "\7");
    EXPECT_EQ(messages.all(),
              std::string(kHeaderWarning) + "    (Protocol,exercise) = (7,0) when expecting (7,9)\n");
}

// --- length fields ---------------------------------------------------------------------------------------

TEST_P(LengthFields, everyValueAtEveryWidthInBothOrders) {
    const int kSize = 64, kField = 4;
    struct Row {
        unsigned long value;
        std::vector<int> lengths;
        bool warns;
    };
    const std::vector<Row> rows = {
        {0, {64}, false},          {1, {1, 63}, false},       {11, {11, 53}, false},
        {12, {12, 52}, false},     {13, {13, 51}, false},     {52, {52, 12}, false},
        {53, {53}, true},          {63, {63}, true},          {64, {64}, false},
        {65, {64}, false},         {127, {64}, false},        {128, {64}, false},
        {255, {64}, false},        {256, {64}, false},        {0x7FFF, {64}, false},
        {0x8000, {64}, false},     {0xFFFF, {64}, false},     {0x10000, {64}, false},
        {0x10040, {64}, false},    {0x1000C, {64}, false},    {0x7FFFFFFF, {64}, false},
        {0x80000000, {64}, false}, {0x8000000C, {64}, false}, {0xFFFFFFC0, {64}, false},
        {0xFFFFFFFD, {64}, false}, {0xFFFFFFFE, {64}, false}, {0xFFFFFFFF, {64}, false}};
    socket.enableDisHeaderTest(false);
    socket.setSizeOffset(kField);
    for (const bool networkOrder : {true, false}) {
        NwSetNetworkByteOrdering(networkOrder);
        for (const int width : {1, 2, 4}) {
            socket.setSizeLength(width);
            for (const Row& row : rows) {
                if (width < 4 && row.value >> (8 * width) != 0) continue;
                SCOPED_TRACE(testing::Message()
                             << "value " << row.value << " width " << width << " order " << networkOrder);
                std::string bytes = highBytes(kSize);
                bytes.replace(kField, static_cast<std::size_t>(width), field(row.value, width, networkOrder));
                feed(bytes);
                std::string all;
                EXPECT_EQ(takeLengths(&all), row.lengths);
                EXPECT_EQ(all, bytes.substr(0, all.size()));
                EXPECT_EQ(messages.all(), row.warns ? kShortLater : "");
                EXPECT_FALSE(socket.dataLeftInCurrentBundle());
            }
        }
    }
}

TEST_P(LengthFields, everyValueOfTheDisLengthInBothOrders) {
    struct Row {
        int value;
        std::vector<int> lengths;
        bool warns;
    };
    // The packet behind the first has its header where that one's length says, as long as 12 bytes remain.
    const std::vector<Row> rows = {{0, {64}, false},      {12, {12, 52}, false}, {52, {52, 12}, false},
                                   {53, {53}, true},      {63, {63}, true},      {64, {64}, false},
                                   {65, {64}, false},     {0x0C00, {64}, false}, {0x7FFF, {64}, false},
                                   {0x8000, {64}, false}, {0xFFFF, {64}, false}};
    for (const bool networkOrder : {true, false}) {
        NwSetNetworkByteOrdering(networkOrder);
        for (const Row& row : rows) {
            SCOPED_TRACE(testing::Message() << "value " << row.value << " order " << networkOrder);
            std::string bytes(64, '\1');  // same version and exercise everywhere; 0x0101 is beyond the end
            bytes.replace(8, 2, field(static_cast<unsigned long>(row.value), 2, networkOrder));
            feed(bytes);
            std::string all;
            EXPECT_EQ(takeLengths(&all), row.lengths);
            EXPECT_EQ(all, bytes.substr(0, all.size()));
            EXPECT_EQ(messages.all(), row.warns ? kShortLater : "");
        }
    }
}

TEST_P(LengthFields, networkOrderIsMostSignificantByteFirst) {
    std::string little = pdu(288, 1);  // 0x0120
    std::swap(little[8], little[9]);
    feed(pdu(288, 1) + pdu(20, 2));
    EXPECT_EQ(next(), pdu(288, 1));
    EXPECT_EQ(next(), pdu(20, 2));
    NwSetNetworkByteOrdering(0);
    std::string second = pdu(20, 2);
    std::swap(second[8], second[9]);
    feed(little + second);
    EXPECT_EQ(next(), little);
    EXPECT_EQ(next(), second);
    feed(pdu(288, 1) + pdu(20, 2));  // 0x2001 in this host's order
    EXPECT_EQ(next(), pdu(288, 1) + pdu(20, 2));
}

TEST_P(LengthFields, fourBytesAtTheStart) {
    socket.enableDisHeaderTest(false);
    socket.setSizeLength(4);
    socket.setSizeOffset(0);
    const std::string first = field(300, 4) + highBytes(296);
    const std::string second = field(20, 4) + highBytes(16);
    feed(first + second);
    EXPECT_EQ(next(), first);
    EXPECT_EQ(next(), second);
    NwSetNetworkByteOrdering(0);
    const std::string swapped = field(300, 4, false) + highBytes(296);
    feed(swapped + second);  // 20 reversed is far beyond the end
    EXPECT_EQ(next(), swapped);
    EXPECT_EQ(next(), second);
    EXPECT_EQ(next(), kNone);
}

TEST_P(LengthFields, oneByteIsReadAsItStands) {
    socket.enableDisHeaderTest(false);
    socket.setSizeLength(1);
    socket.setSizeOffset(2);
    for (int networkOrder : {1, 0}) {
        NwSetNetworkByteOrdering(networkOrder);
        std::string first = highBytes(255);
        first[2] = '\xFF';
        std::string second = highBytes(20);
        second[2] = 20;
        feed(first + second);
        EXPECT_EQ(next(), first);
        EXPECT_EQ(next(), second);
    }
}

TEST_P(LengthFields, fieldOutsideWhatRemainsCountsAsZero) {
    socket.enableDisHeaderTest(false);
    const int kSize = 64;
    struct Row {
        int offset, width;
        bool isInside;
    };
    const std::vector<Row> rows = {
        {63, 1, true},           {64, 1, false},      {62, 2, true},       {63, 2, false},
        {64, 2, false},          {60, 4, true},       {61, 4, false},      {63, 4, false},
        {64, 4, false},          {-1, 1, false},      {-1, 2, false},      {-1, 4, false},
        {-4, 4, false},          {-64, 2, false},     {INT_MIN, 1, false}, {INT_MIN, 2, false},
        {INT_MIN, 4, false},     {INT_MAX, 1, false}, {INT_MAX, 2, false}, {INT_MAX, 4, false},
        {INT_MAX - 3, 4, false}, {65536, 2, false},   {15000, 4, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "offset " << row.offset << " width " << row.width);
        socket.setSizeOffset(row.offset);
        socket.setSizeLength(row.width);
        std::string bytes = highBytes(kSize);
        if (row.isInside)
            bytes.replace(static_cast<std::size_t>(row.offset), static_cast<std::size_t>(row.width),
                          field(20, row.width));
        feed(bytes);
        // Where the field of the first packet is inside, that of the second lies beyond the end.
        EXPECT_EQ(takeLengths(), row.isInside ? (std::vector<int>{20, 44}) : std::vector<int>{64});
        EXPECT_EQ(messages.all(), "");
    }
}

// In host order the bytes behind the datagram, zeros, would leave a small and believable length.
TEST_P(LengthFields, fieldThatBeginsInsideAndEndsOutsideCountsAsZero) {
    socket.enableDisHeaderTest(false);
    NwSetNetworkByteOrdering(0);
    for (int width : {2, 4}) {
        for (int inside = 1; inside < width; ++inside) {
            SCOPED_TRACE(testing::Message() << inside << " of " << width << " bytes inside");
            socket.setSizeLength(width);
            socket.setSizeOffset(64 - inside);
            const std::string bytes =
                highBytes(64 - inside) + field(20, width, false).substr(0, static_cast<std::size_t>(inside));
            feed(bytes);
            EXPECT_EQ(next(), bytes);
            EXPECT_EQ(next(), kNone);
        }
    }
}

TEST_P(LengthFields, steppingByOneByteReachesTheEnd) {
    socket.enableDisHeaderTest(false);
    socket.setMinPacketSize(1);
    socket.setSizeLength(1);
    socket.setSizeOffset(0);
    feed(std::string(300, '\1'));
    EXPECT_EQ(takeLengths(), std::vector<int>(300, 1));
    EXPECT_EQ(messages.all(), "");
}

TEST_P(LengthFields, settingsMayChangeInMidDatagram) {
    feed(pdu(40, 1) + field(30, 4) + highBytes(26) + pdu(20, 2));
    EXPECT_EQ(next(), pdu(40, 1));
    socket.enableDisHeaderTest(false);
    socket.setSizeLength(4);
    socket.setSizeOffset(0);
    EXPECT_EQ(next(), field(30, 4) + highBytes(26));
    socket.setSizeLength(2);
    socket.setSizeOffset(8);
    EXPECT_EQ(next(), pdu(20, 2));
}

// --- own packets -----------------------------------------------------------------------------------------

TEST_P(OwnPackets, statusIsMinusThreeAndTheCallersPointerUntouchedWhileUnbundlingIsOff) {
    socket.setUnbundling(0);
    socket.setFilterPort(peer.port());
    feed(pdu(20, 1));
    feed(pdu(20, 2));
    const Taken taken = take();
    EXPECT_EQ(taken.length, 0);
    EXPECT_EQ(taken.status, -3);
    EXPECT_EQ(taken.place, untouched);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
    char copy[4] = {'k', 'e', 'p', 't'};
    EXPECT_EQ(socket.NwRecv(copy, 4ul), 0);
    EXPECT_EQ(std::string(copy, 4), "kept");
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(OwnPackets, statusIsZeroAndThePointerNullWhileUnbundling) {
    socket.setFilterPort(peer.port());
    feed(pdu(20, 1) + pdu(20, 2));
    const Taken taken = take();
    EXPECT_EQ(taken.length, 0);
    EXPECT_EQ(taken.status, 0);
    EXPECT_EQ(taken.place, nullptr);
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
    EXPECT_EQ(messages.all(), "");
}

// What derived classes find in the fields after one.
TEST_P(OwnPackets, leaveMinusThreeInTheCountOfBytesAndNoCursor) {
    feed(pdu(20, 1) + pdu(20, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    EXPECT_EQ(next(), pdu(20, 2));
    EXPECT_EQ(fields.firstInBundle, 0);
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(fields.bytesLeftInBundle, 0);
    EXPECT_EQ(fields.firstInBundle, 0) << "nothing was read";
    socket.setFilterPort(peer.port());
    feed(pdu(20, 3));
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(fields.bytesLeftInBundle, -3);
    EXPECT_EQ(fields.bundleCursor, nullptr);
    EXPECT_EQ(fields.firstInBundle, 1);
}

TEST_P(OwnPackets, callEndsWithTheOwnOneAndTheNextReadsOn) {
    UdpPeer other(kOtherLoopback);
    socket.setFilterPort(peer.port());
    for (int smallest : {12, 0, -3, INT_MIN}) {
        socket.setMinPacketSize(smallest);
        feed(pdu(20, 1));
        land(other, pdu(20, 2) + pdu(20, 3), socket);
        EXPECT_EQ(next(), kNone);
        EXPECT_EQ(next(), pdu(20, 2));
        EXPECT_EQ(next(), pdu(20, 3));
        EXPECT_EQ(next(), kNone);
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_P(OwnPackets, addressAndPortMustBothBeOurs) {
    socket.setUnbundling(0);
    UdpPeer sameAddress(kLoopback);
    UdpPeer samePort(kOtherLoopback, peer.port());
    socket.setFilterPort(peer.port());
    land(sameAddress, "other port", socket);
    land(samePort, "other address", socket);
    EXPECT_EQ(next(), "other port");
    EXPECT_EQ(next(), "other address");
    socket.setMcastDevice(kOtherLoopback);
    land(samePort, "own now", socket);
    feed("other now");
    EXPECT_EQ(next(), kOwn);
    EXPECT_EQ(next(), "other now");
}

TEST_P(OwnPackets, minusOneSwitchesTheTestOff) {
    socket.setUnbundling(0);
    UdpPeer highest(kLoopback, 65535);  // -1 in 16 bits
    land(highest, "highest port", socket);
    EXPECT_EQ(next(), "highest port");
    socket.setFilterPort(65535);
    land(highest, "highest port", socket);
    EXPECT_EQ(next(), kOwn);
    socket.setFilterPort(-1);
    land(highest, "highest port", socket);
    EXPECT_EQ(next(), "highest port");
}

TEST_P(OwnPackets, portsAreComparedAsNumbers) {
    socket.setUnbundling(0);
    for (int port : {peer.port() + 65536, peer.port() - 65536, INT_MIN, -2, 0}) {
        socket.setFilterPort(port);
        feed("foreign");
        EXPECT_EQ(next(), "foreign") << port;
    }
}

TEST_P(OwnPackets, emptyOneIsWarnedOfButNotCounted) {
    socket.setFilterPort(peer.port());
    socket.setUnbundling(0);
    feed("");
    const Taken taken = take();
    EXPECT_EQ(taken.status, -3);
    EXPECT_EQ(taken.place, untouched);
    EXPECT_EQ(messages.all(), kEmptyWarning);
    socket.setUnbundling(1);
    feed("");
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), kEmptyWarning);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
}

// --- header filters --------------------------------------------------------------------------------------

TEST_P(HeaderFilters, refusedPacketGivesMinusTwoAndNull) {
    unsigned int wanted[] = {3};
    socket.exerciseId().setTest(NwTestInclude, 1, wanted);
    for (int on : {1, 0}) {
        socket.setUnbundling(on);
        feed(pdu(20, 1, 7, 2));
        const Taken taken = take();
        EXPECT_EQ(taken.length, 0);
        EXPECT_EQ(taken.status, -2);
        EXPECT_EQ(taken.place, nullptr);
        feed(pdu(20, 1, 7, 3));
        EXPECT_EQ(next(), pdu(20, 1, 7, 3));
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_P(HeaderFilters, eachFieldHasItsTest) {
    struct Row {
        NwFilterTest& (NwSocket::*test)();
        std::string passes, fails;
    };
    const std::vector<Row> rows = {
        {&NwSocket::protocolVersion, pdu(20, 1, 200, 1, 1), pdu(20, 1, 7, 200, 200)},
        {&NwSocket::exerciseId, pdu(20, 1, 7, 200, 1), pdu(20, 1, 200, 1, 200)},
        {&NwSocket::pduKind, pdu(20, 1, 7, 1, 200), pdu(20, 1, 200, 200, 1)}};
    unsigned int values[] = {200};
    for (const Row& row : rows) {
        NwFilterTest& test = (socket.*row.test)();
        test.setTest(NwTestInclude, 1, values);
        feed(row.passes);
        feed(row.fails);
        EXPECT_EQ(next(), row.passes);
        EXPECT_EQ(next(), kRefused);
        test.setTest(NwTestExclude, 1, values);
        feed(row.passes);
        feed(row.fails);
        EXPECT_EQ(next(), kRefused);
        EXPECT_EQ(next(), row.fails);
        test.disableTest();
    }
}

TEST_P(HeaderFilters, senderIsTestedInHostOrder) {
    UdpPeer other(kOtherLoopback);
    unsigned int values[] = {kOtherLoopback};
    socket.ipAddr().setTest(NwTestInclude, 1, values);
    land(other, pdu(20, 1) + pdu(20, 2), socket);
    feed(pdu(20, 3) + pdu(20, 4));
    EXPECT_EQ(next(), pdu(20, 1));
    EXPECT_EQ(next(), pdu(20, 2));
    EXPECT_EQ(next(), kRefused);
    EXPECT_EQ(next(), kRefused);
    EXPECT_EQ(next(), kNone);
}

TEST_P(HeaderFilters, packetsAroundARefusedOneAreDelivered) {
    unsigned int types[] = {20};
    socket.pduKind().setTest(NwTestExclude, 1, types);
    feed(pdu(20, 1, 7, 1, 1) + pdu(30, 2, 7, 1, 20) + pdu(40, 3, 7, 1, 2));
    EXPECT_EQ(next(), pdu(20, 1, 7, 1, 1));
    EXPECT_EQ(next(), kRefused);
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), pdu(40, 3, 7, 1, 2));
}

TEST_P(HeaderFilters, zeroIsAValueLikeAnyOther) {
    unsigned int zero[] = {0};
    socket.exerciseId().setTest(NwTestInclude, 1, zero);
    feed(pdu(20, 1, 7, 1));
    feed(pdu(20, 2, 7, 0));
    EXPECT_EQ(next(), kRefused);
    EXPECT_EQ(next(), pdu(20, 2, 7, 0));
}

TEST_P(HeaderFilters, fieldsBeyondAShortPacketReadAsZero) {
    socket.setUnbundling(0);
    unsigned int zero[] = {0};
    socket.exerciseId().setTest(NwTestInclude, 1, zero);
    socket.pduKind().setTest(NwTestInclude, 1, zero);
    feed(std::string(50, '\5'));
    EXPECT_EQ(next(), kRefused);
    feed("\5");
    EXPECT_EQ(next(), "\5");
}

// --- what the caller gets --------------------------------------------------------------------------------

TEST_P(LentBuffers, firstPacketLiesInTheReceiveBufferLaterOnesInTheCopyBuffer) {
    feed(pdu(20, 1) + pdu(30, 2) + pdu(40, 3));
    EXPECT_EQ(take().place, fields.recvBuffer.get());
    for (int i = 2; i <= 3; ++i) {
        const Taken taken = take();
        EXPECT_EQ(taken.bytes, pdu(10 + 10 * i, i));
        EXPECT_EQ(taken.place, fields.copyBuffer.get());
    }
    socket.setUnbundling(0);
    feed(pdu(20, 4));
    EXPECT_EQ(take().place, fields.recvBuffer.get());
}

TEST_P(LentBuffers, lentPacketStaysUntilTheNextReceive) {
    feed(pdu(20, 1) + pdu(30, 2));
    const Taken first = take();
    feed(pdu(500, 9));  // waits in the kernel
    socket.setSizeOffset(4);
    socket.setUnbundling(0);
    socket.setUnbundling(1);
    EXPECT_EQ(std::string(first.place, 20), pdu(20, 1));
    const Taken second = take();
    EXPECT_EQ(std::string(second.place, 30), pdu(30, 2));
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(std::string(second.place, 30), pdu(30, 2));
}

TEST_P(LentBuffers, lentPacketMayBeOverwrittenByItsBorrower) {
    feed(pdu(20, 1) + pdu(30, 2) + pdu(40, 3));
    Taken taken = take();
    std::memset(taken.place, 0xFF, 20);
    taken = take();
    EXPECT_EQ(taken.bytes, pdu(30, 2));
    std::memset(taken.place, 0xFF, 30);
    EXPECT_EQ(next(), pdu(40, 3));
}

TEST_P(LentBuffers, largestLaterPacketFitsTheCopyBuffer) {
    const std::string large = withLength(highBytes(14988), 14988);
    socket.enableDisHeaderTest(false);
    feed(pdu(12) + large);
    EXPECT_EQ(next(), pdu(12));
    EXPECT_EQ(next(), large);
}

TEST_P(LentBuffers, stepsDeliverInPlace) {
    feed(pdu(20, 1) + pdu(30, 2));
    char* place = nullptr;
    int status = 77;
    EXPECT_EQ(socket.recvWithStatus(&place, &status), 20);
    EXPECT_EQ(place, fields.recvBuffer.get());
    EXPECT_EQ(status, 1);
    EXPECT_EQ(socket.recvWithUnbundling(&place), 30);
    EXPECT_EQ(place, fields.recvBuffer.get() + 20);
    EXPECT_EQ(std::string(place, 30), pdu(30, 2));
}

TEST_P(LentBuffers, stepsOfUnbundlingAsTheyGo) {
    EXPECT_EQ(socket.getNextPacketSize(), 0u);
    EXPECT_EQ(socket.currentHeaderMatchesFirstInBundle(), 0u);
    feed(pdu(20, 1) + pdu(30, 2));
    socket.findNextPacket();
    EXPECT_EQ(fields.bundleCursor, fields.recvBuffer.get());
    EXPECT_EQ(fields.bytesLeftInBundle, 50);
    EXPECT_EQ(fields.firstInBundle, 1);
    EXPECT_EQ(socket.getNextPacketSize(), 20u);
    EXPECT_EQ(socket.currentHeaderMatchesFirstInBundle(), 20u);
    char* place = nullptr;
    EXPECT_EQ(socket.recvWithUnbundling(&place), 20);
    EXPECT_EQ(fields.firstInBundle, 0) << "the packet was found once before";
    EXPECT_EQ(fields.bytesLeftInBundle, 30);
    EXPECT_EQ(fields.bundleCursor, fields.recvBuffer.get() + 20);
}

TEST_P(CopyForm, copiesThePacketAndReturnsItsLength) {
    feed(pdu(144, 1) + pdu(40, 2));
    std::string storage(200, '.');
    EXPECT_EQ(socket.NwRecv(&storage[0], 200ul), 144);
    EXPECT_EQ(storage, pdu(144, 1) + std::string(56, '.'));
    EXPECT_EQ(socket.NwRecv(&storage[0], 40ul), 40);
    EXPECT_EQ(storage.substr(0, 40), pdu(40, 2));
    EXPECT_EQ(socket.NwRecv(&storage[0], 200ul), 0);
}

TEST_P(CopyForm, truncatesAndReturnsTheFullLength) {
    for (int on : {1, 0}) {
        socket.setUnbundling(on);
        for (unsigned long room : {143ul, 10ul, 1ul, 0ul}) {
            feed(pdu(144, 1));
            std::string storage(200, '.');
            EXPECT_EQ(socket.NwRecv(&storage[0], room), 144);
            EXPECT_EQ(storage, pdu(144, 1).substr(0, room) + std::string(200 - room, '.'));
        }
    }
    feed(pdu(144, 1));
    EXPECT_EQ(socket.NwRecv(static_cast<char*>(nullptr), 0ul), 144);
}

TEST_P(CopyForm, aHugeRoomCopiesThePacketAlone) {
    feed(pdu(144, 1));
    std::string storage(200, '.');
    EXPECT_EQ(socket.NwRecv(&storage[0], ULONG_MAX), 144);
    EXPECT_EQ(storage, pdu(144, 1) + std::string(56, '.'));
}

TEST_P(CopyForm, leavesTheStorageAloneWhenNothingIsDelivered) {
    std::string storage(200, '.');
    EXPECT_EQ(socket.NwRecv(&storage[0], 200ul), 0);
    socket.exerciseId().setTest(NwTestInclude, 0, nullptr);
    feed(pdu(144));
    EXPECT_EQ(socket.NwRecv(&storage[0], 200ul), 0);
    feed("");
    EXPECT_EQ(socket.NwRecv(&storage[0], 200ul), 0);
    EXPECT_EQ(storage, std::string(200, '.'));
}

// --- unbundling switched while packets are pending -------------------------------------------------------

TEST_P(Pending, restWaitsUnharmedWhileUnbundlingIsOff) {
    UdpPeer other(kOtherLoopback);
    feed(pdu(20, 1) + pdu(30, 2) + pdu(40, 3));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());
    const std::string between = std::string(1000, '\xAA');
    land(other, between, socket);
    Taken taken = take();
    EXPECT_EQ(taken.bytes, between);
    EXPECT_EQ(taken.place, fields.recvBuffer.get());
    EXPECT_EQ(socket.lastSourceInetAddr(), kOtherLoopback);
    EXPECT_TRUE(socket.dataLeftInCurrentBundle());

    socket.setUnbundling(1);
    taken = take();
    EXPECT_EQ(taken.bytes, pdu(30, 2));
    EXPECT_EQ(taken.place, fields.copyBuffer.get());
    EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    EXPECT_EQ(next(), pdu(40, 3));
    EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 2);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Pending, severalDatagramsOfSeveralSendersMayPassMeanwhile) {
    UdpPeer others[] = {UdpPeer(kOtherLoopback), UdpPeer(kOtherLoopback + 1)};
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    for (int i = 0; i < 6; ++i) {
        land(others[i % 2], pdu(100 + i, i) + pdu(50, i), socket);
        EXPECT_EQ(next(), pdu(100 + i, i) + pdu(50, i));
        EXPECT_EQ(socket.lastSourceInetAddr(), kOtherLoopback + static_cast<unsigned int>(i % 2));
    }
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2));
    EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    EXPECT_EQ(next(), kNone);
}

TEST_P(Pending, addressFilterSeesTheirOwnSender) {
    UdpPeer other(kOtherLoopback);
    unsigned int wanted[] = {kLoopback};
    socket.ipAddr().setTest(NwTestInclude, 1, wanted);
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    land(other, pdu(25, 9), socket);
    EXPECT_EQ(next(), kRefused);
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2));
}

TEST_P(Pending, addressFilterRefusesThemByTheirOwnSender) {
    UdpPeer other(kOtherLoopback);
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    unsigned int wanted[] = {kOtherLoopback};
    socket.ipAddr().setTest(NwTestInclude, 1, wanted);
    socket.setUnbundling(0);
    land(other, pdu(25, 9), socket);
    EXPECT_EQ(next(), pdu(25, 9));
    socket.setUnbundling(1);
    EXPECT_EQ(next(), kRefused);
}

TEST_P(Pending, surviveSeveralToggles) {
    UdpPeer other(kOtherLoopback);
    std::string bundle;
    for (int i = 0; i < 8; ++i) bundle += pdu(20 + i, i);
    feed(bundle);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(next(), pdu(20 + i, i));
        EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
        socket.setUnbundling(0);
        land(other, std::string(200, static_cast<char>('a' + i)), socket);
        EXPECT_EQ(next(), std::string(200, static_cast<char>('a' + i)));
        EXPECT_EQ(socket.lastSourceInetAddr(), kOtherLoopback);
        socket.setUnbundling(1);
    }
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Pending, restOfALaterDatagramIsKeptToo) {
    UdpPeer other(kOtherLoopback);
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    feed("first between");
    EXPECT_EQ(next(), "first between");
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2));
    land(other, pdu(40, 3) + pdu(50, 4), socket);
    EXPECT_EQ(next(), pdu(40, 3));
    socket.setUnbundling(0);
    feed("second between");
    EXPECT_EQ(next(), "second between");
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(50, 4));
    EXPECT_EQ(socket.lastSourceInetAddr(), kOtherLoopback);
}

TEST_P(Pending, readThatBringsNothingChangesNothing) {
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(next(), kNone);
        EXPECT_TRUE(socket.dataLeftInCurrentBundle());
        EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    }
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2));
    EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), "");
}

TEST_P(Pending, switchedOffAndOnAgainWithoutAReadIsNothing) {
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2));
}

TEST_P(Pending, emptyAndOwnDatagramsMeanwhileDoNoHarm) {
    UdpPeer other(kOtherLoopback);
    feed(pdu(20, 1) + pdu(30, 2) + pdu(40, 3));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    land(other, "", socket);
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), kEmptyWarning);
    socket.setFilterPort(peer.port());
    feed(std::string(100, '\xAA'));
    EXPECT_EQ(next(), kOwn);
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2)) << "the test for own datagrams was made when theirs was read";
    EXPECT_EQ(next(), pdu(40, 3));
}

TEST_P(Pending, firstHeaderOfTheirDatagramIsRemembered) {
    feed(pdu(20, 1, 7, 1) + pdu(30, 2, 7, 1) + pdu(40, 3, 7, 2));
    EXPECT_EQ(next(), pdu(20, 1, 7, 1));
    socket.setUnbundling(0);
    feed(pdu(25, 9, 5, 5));
    EXPECT_EQ(next(), pdu(25, 9, 5, 5));
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2, 7, 1));
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(next(), pdu(40, 3, 7, 2));
    EXPECT_EQ(messages.all(),
              std::string(kHeaderWarning) + "    (Protocol,exercise) = (7,2) when expecting (7,1)\n");
}

TEST_P(Pending, paddingIsDiscardedAfterwards) {
    feed(pdu(20, 1) + "padding");
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    feed(pdu(25, 9));
    EXPECT_EQ(next(), pdu(25, 9));
    socket.setUnbundling(1);
    feed(pdu(50, 5));
    EXPECT_EQ(next(), pdu(50, 5));
    EXPECT_EQ(messages.all(), kShortLater);
    EXPECT_EQ(fields.firstInBundle, 1);
}

// Kept bytes are followed by zeros as received ones are.
TEST_P(Pending, shortRestReadsZerosBehindItself) {
    socket.setMinPacketSize(0);
    unsigned int zero[] = {0};
    feed(pdu(20, 1) + "\5");
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    feed(std::string(100, '\xAA'));
    EXPECT_EQ(next(), std::string(100, '\xAA'));
    socket.setUnbundling(1);
    socket.exerciseId().setTest(NwTestInclude, 1, zero);
    socket.pduKind().setTest(NwTestInclude, 1, zero);
    EXPECT_EQ(next(), "\5");
}

TEST_P(Pending, copyFormDeliversThemToo) {
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    std::string storage(100, '.');
    feed(pdu(25, 9));
    EXPECT_EQ(socket.NwRecv(&storage[0], 100ul), 25);
    EXPECT_EQ(storage.substr(0, 25), pdu(25, 9));
    socket.setUnbundling(1);
    EXPECT_EQ(socket.NwRecv(&storage[0], 100ul), 30);
    EXPECT_EQ(storage.substr(0, 30), pdu(30, 2));
}

TEST_P(Pending, readErrorMeanwhileDoesNoHarm) {
    feed(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(next(), pdu(20, 1));
    socket.setUnbundling(0);
    const int fd = fields.socketFd;
    fields.socketFd = -1;
    EXPECT_EQ(next(), kNone);
    EXPECT_EQ(messages.all(), systemReport("Network read error", EBADF));
    fields.socketFd = fd;
    socket.setUnbundling(1);
    EXPECT_EQ(next(), pdu(30, 2));
}

TEST_P(Pending, mayBeLeftToTheDestructor) {
    const std::unique_ptr<NwNetSocket> owner = makeReceiver(GetParam());
    NwNetSocket& shortLived = *owner;
    shortLived.NwBecomeNonBlocking();
    land(peer, pdu(20, 1) + pdu(30, 2), shortLived);
    EXPECT_EQ(nextFrom(shortLived), pdu(20, 1));
    shortLived.setUnbundling(0);
    land(peer, pdu(20, 3), shortLived);
    EXPECT_EQ(nextFrom(shortLived), pdu(20, 3));
}

// --- adopted descriptors ---------------------------------------------------------------------------------

namespace {

// Adopts fd for reading; the warning about this host's interfaces belongs to another test.
std::unique_ptr<NwNetSocket> adopt(int fd) {
    Quiet quiet;
    return std::unique_ptr<NwNetSocket>(new NwNetSocket(nullptr, fd, kRead));
}

struct UnixPair {
    UnixPair() {
        if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) != 0) ADD_FAILURE() << "socketpair";
    }
    ~UnixPair() {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    void send(const std::string& bytes) {
        EXPECT_EQ(::send(ends[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    int ends[2];
};

}  // namespace

TEST(AdoptedReceiver, countsAsBlockingSoThatAnEmptyNonBlockingOneIsReported) {
    Messages messages;
    UdpPeer owner;
    NwNetSocket::makeNonBlocking(owner.fd());
    const std::unique_ptr<NwNetSocket> socket = adopt(owner.fd());
    EXPECT_EQ(fieldsOf(*socket).blocking, 1);
    EXPECT_EQ(nextFrom(*socket), kNone);
    EXPECT_EQ(messages.all(), systemReport("Network read error", EAGAIN));
    socket->NwBecomeNonBlocking();
    EXPECT_EQ(nextFrom(*socket), kNone);
    EXPECT_EQ(messages.all(), "");
    UdpPeer peer;
    peer.send(pdu(20, 1) + pdu(20, 2), owner.port());
    ASSERT_TRUE(waitReadable(owner.fd()));
    EXPECT_EQ(nextFrom(*socket), pdu(20, 1));
    EXPECT_EQ(nextFrom(*socket), pdu(20, 2));
    EXPECT_EQ(socket->lastSourceInetAddr(), kLoopback);
}

TEST(AdoptedReceiver, refusedConnectionIsReportedOnce) {
    Messages messages;
    UdpPeer owner;
    const int closedPort = freePort();
    sockaddr_in to;
    NwNetSocket::setInetAddr(to, kLoopback, closedPort);
    ASSERT_EQ(::connect(owner.fd(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    const std::unique_ptr<NwNetSocket> socket = adopt(owner.fd());
    socket->NwBecomeNonBlocking();
    ASSERT_EQ(::send(owner.fd(), "x", 1, 0), 1);
    ASSERT_TRUE(waitReadable(owner.fd()));
    const Taken taken = takeFrom(*socket);
    EXPECT_EQ(taken.length, 0);
    EXPECT_EQ(taken.status, 0);
    EXPECT_EQ(taken.place, nullptr);
    EXPECT_EQ(messages.all(), systemReport("Network read error", ECONNREFUSED));
    EXPECT_EQ(nextFrom(*socket), kNone);
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(socket->NwReportPktsRcvd(), 0);
}

TEST(AdoptedReceiver, unixDescriptorHasAddressAndPortZero) {
    Messages messages;
    UnixPair pair;
    const std::unique_ptr<NwNetSocket> socket = adopt(pair.ends[0]);
    socket->NwBecomeNonBlocking();
    messages.all();
    EXPECT_EQ(fieldsOf(*socket).port, 0);
    pair.send(pdu(20, 1) + pdu(30, 2));
    EXPECT_EQ(nextFrom(*socket), pdu(20, 1));
    EXPECT_EQ(socket->lastSourceInetAddr(), 0u);
    EXPECT_EQ(nextFrom(*socket), pdu(30, 2));
    unsigned int zero[] = {0};
    socket->ipAddr().setTest(NwTestExclude, 1, zero);
    pair.send(pdu(20, 3));
    EXPECT_EQ(nextFrom(*socket), kRefused);
    socket->ipAddr().setTest(NwTestInclude, 1, zero);
    pair.send(pdu(20, 4));
    EXPECT_EQ(nextFrom(*socket), pdu(20, 4));
    EXPECT_EQ(messages.all(), "");
}

TEST(AdoptedReceiver, ipv6DescriptorHasAddressZero) {
    Messages messages;
    const int here = ::socket(AF_INET6, SOCK_DGRAM, 0);
    const int there = ::socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_in6 local = {};
    local.sin6_family = AF_INET6;
    local.sin6_addr = in6addr_loopback;
    if (here < 0 || there < 0 || ::bind(here, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        ::close(here);
        ::close(there);
        GTEST_SKIP() << "no IPv6 on this host: " << std::strerror(errno);
    }
    socklen_t size = sizeof local;
    ASSERT_EQ(::getsockname(here, reinterpret_cast<sockaddr*>(&local), &size), 0);
    {
        const std::unique_ptr<NwNetSocket> socket = adopt(here);
        EXPECT_EQ(fieldsOf(*socket).port, 0);
        const std::string bytes = pdu(20, 1);
        ASSERT_EQ(
            ::sendto(there, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&local), sizeof local),
            20);
        ASSERT_TRUE(waitReadable(here));
        EXPECT_EQ(nextFrom(*socket), bytes);
        EXPECT_EQ(socket->lastSourceInetAddr(), 0u);
    }
    ::close(here);
    ::close(there);
}

// An unnamed sender must not inherit the address of whoever sent before.
TEST(AdoptedReceiver, senderWithoutAddressDoesNotKeepTheLastOne) {
    Messages messages;
    UdpPeer owner, peer;
    UnixPair pair;
    const std::unique_ptr<NwNetSocket> socket = adopt(owner.fd());
    NwNetSocket::makeNonBlocking(owner.fd());
    NwNetSocket::makeNonBlocking(pair.ends[0]);
    peer.send(pdu(20, 1), owner.port());
    ASSERT_TRUE(waitReadable(owner.fd()));
    EXPECT_EQ(nextFrom(*socket), pdu(20, 1));
    EXPECT_EQ(socket->lastSourceInetAddr(), kLoopback);
    fieldsOf(*socket).socketFd = pair.ends[0];
    pair.send(pdu(20, 2));
    EXPECT_EQ(nextFrom(*socket), pdu(20, 2));
    EXPECT_EQ(socket->lastSourceInetAddr(), 0u);
    fieldsOf(*socket).socketFd = owner.fd();
}

// --- steps replaced by derived classes -------------------------------------------------------------------

namespace {

class NonBlocking : public Receiver {
public:
    NonBlocking() { NwBecomeNonBlocking(); }
};

class FixedLength : public NonBlocking {
public:
    unsigned int getNextPacketSize() override { return 25; }
};

class OwnHeaderRule : public NonBlocking {
public:
    unsigned int currentHeaderMatchesFirstInBundle() override { return firstInBundle ? 5 : 7; }
};

// Skips a preamble of four bytes before each datagram.
class Preamble : public NonBlocking {
public:
    void findNextPacket() override {
        const bool isNew = !bundleCursor;
        Receiver::findNextPacket();
        if (!isNew || !bundleCursor) return;
        bundleCursor += 4;
        bytesLeftInBundle -= 4;
    }
};

// Lends datagrams from storage of its own, as a queue would.
class Queued : public NonBlocking {
public:
    int recvFromNet(char** buf) override {
        ++reads;
        if (result <= 0) {
            *buf = nullptr;
            return result;
        }
        *buf = &storage[0];
        return result;
    }
    std::string storage;
    int result = 0;
    int reads = 0;
};

class Counting : public NonBlocking {
public:
    int recvWithUnbundling(char** buf) override {
        ++unbundled;
        return Receiver::recvWithUnbundling(buf);
    }
    int recvWithStatus(char** buf, int* status) override {
        ++received;
        return Receiver::recvWithStatus(buf, status);
    }
    bool accept(char* packet, unsigned int source) override {
        ++tested;
        lastTested = source;
        return packet[3] != 'n';
    }
    NwIpv4Addr lastSourceInetAddr() override { return 4711; }
    int unbundled = 0, received = 0, tested = 0;
    unsigned int lastTested = 0;
};

}  // namespace

TEST(DerivedReceiver, replacesTheLengthFieldWhileTheHeaderTestIsOff) {
    FixedLength socket;
    UdpPeer peer;
    land(peer, std::string(50, 'a') + std::string(20, 'b'), socket);
    socket.enableDisHeaderTest(false);
    EXPECT_EQ(nextFrom(socket), std::string(25, 'a'));
    EXPECT_EQ(nextFrom(socket), std::string(25, 'a'));
    EXPECT_EQ(nextFrom(socket), std::string(20, 'b'));
    socket.enableDisHeaderTest(true);
    land(peer, pdu(30, 1) + pdu(12, 2), socket);
    EXPECT_EQ(nextFrom(socket), pdu(30, 1));
    EXPECT_EQ(nextFrom(socket), pdu(12, 2));
}

TEST(DerivedReceiver, replacesTheHeaderTest) {
    OwnHeaderRule socket;
    UdpPeer peer;
    land(peer, "aaaaabbbbbbbcccccccddddddd", socket);
    EXPECT_EQ(nextFrom(socket), "aaaaa");
    EXPECT_EQ(nextFrom(socket), "bbbbbbb");
    EXPECT_EQ(nextFrom(socket), "ccccccc");
}

TEST(DerivedReceiver, replacesFindingThePacket) {
    Preamble socket;
    UdpPeer peer;
    land(peer, "SYNC" + pdu(30, 1) + pdu(12, 2), socket);
    const Taken taken = takeFrom(socket);
    EXPECT_EQ(taken.bytes, pdu(30, 1));
    EXPECT_EQ(taken.place, fieldsOf(socket).copyBuffer.get())
        << "it does not lie at the start of the receive buffer";
    EXPECT_EQ(nextFrom(socket), pdu(12, 2));
}

TEST(DerivedReceiver, replacesTheReadOfADatagram) {
    Queued socket;
    UdpPeer peer;
    socket.storage = pdu(30, 1) + pdu(12, 2) + std::string(16, '\0');
    socket.result = 42;
    const Taken taken = takeFrom(socket);
    EXPECT_EQ(taken.bytes, pdu(30, 1));
    EXPECT_EQ(taken.place, fieldsOf(socket).copyBuffer.get());
    EXPECT_EQ(nextFrom(socket), pdu(12, 2));
    EXPECT_EQ(socket.reads, 1);
    socket.setUnbundling(0);
    EXPECT_EQ(nextFrom(socket), pdu(30, 1) + pdu(12, 2));
    EXPECT_EQ(socket.reads, 2);
}

TEST(DerivedReceiver, resultsOfAReplacedReadMeanTheSame) {
    Queued socket;
    for (int on : {1, 0}) {
        socket.setUnbundling(on);
        socket.result = 0;
        EXPECT_EQ(nextFrom(socket), kNone);
        socket.result = -3;
        EXPECT_EQ(nextFrom(socket), on ? kNone : kOwn);
    }
    EXPECT_EQ(socket.reads, 4);
}

TEST(DerivedReceiver, replacedReadThatSaysLessThanNothingDeliversNothing) {
    Queued socket;
    unsigned int exercise = 1;
    socket.exerciseId().setTest(NwTestInclude, 1, &exercise);
    socket.result = -1;
    for (int on : {1, 0}) {
        socket.setUnbundling(on);
        EXPECT_EQ(nextFrom(socket), kNone);
        char storage[4] = {};
        EXPECT_EQ(socket.NwRecv(storage, sizeof storage), 0);
    }
}

TEST(DerivedReceiver, datagramLargerThanOurBuffersIsLentInPlace) {
    Queued socket;
    socket.storage = std::string(70000, '\xFF');  // a length of 65535
    socket.result = 60000;
    const Taken taken = takeFrom(socket);
    EXPECT_EQ(taken.length, 60000);
    EXPECT_EQ(taken.place, &socket.storage[0]);
}

TEST(DerivedReceiver, everyStepGoesThroughTheVirtualTable) {
    Counting socket;
    UdpPeer peer;
    land(peer, pdu(20, 1) + pdu(20, 2), socket);
    EXPECT_EQ(nextFrom(socket), pdu(20, 1));
    EXPECT_EQ(socket.unbundled, 1);
    EXPECT_EQ(socket.tested, 1);
    EXPECT_EQ(socket.lastTested, 4711u);
    char copy[20];
    EXPECT_EQ(socket.NwRecv(copy, 20ul), 20);
    EXPECT_EQ(socket.received, 2);
    EXPECT_EQ(socket.unbundled, 2);
    EXPECT_EQ(nextFrom(socket), kNone);
    EXPECT_EQ(socket.tested, 2) << "nothing delivered, nothing tested";
    socket.setUnbundling(0);
    land(peer, "whole", socket);
    land(peer, "nnnnn", socket);
    EXPECT_EQ(nextFrom(socket), "whole");
    EXPECT_EQ(nextFrom(socket), kRefused);
    EXPECT_EQ(socket.unbundled, 3);
    EXPECT_EQ(socket.received, 5);
}
