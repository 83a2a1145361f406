// SPDX-License-Identifier: BSD-3-Clause
// The asynchronous UDP socket, step by step: packets, queues, switches, the workers' passes. Where a step is
// looked at by itself the workers are dismissed first and the step runs on the test's own thread. Traffic
// between threads, and how sockets end, is in async_traffic_test.cpp.
#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <cvutil/cvClock.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "async_peek.h"
#include "child.h"
#include "messages.h"
#include "network.h"
#include "packets.h"
#include "received.h"

namespace {

const unsigned char kReadQuietly = 1 | 8 | 16;
const unsigned char kWriteQuietly = 2 | 16;
const NwIpv4Addr kUnreachable = 0x0A090901u;  // no route leads there in a private network

const bool kUnderThreadSanitizer = std::string(CVNC_SANITIZER) == "thread";

int send(NwAsyncNetSocket& socket, std::string packet, NwIpv4Addr to = 0) {
    const int result = socket.sendTo(&packet[0], packet.size(), to);
    packet.assign(packet.size(), '#');  // the socket must not need the caller's bytes any more
    return result;
}

Received receive(NwSocket& socket) {
    char untouched = 0;
    char* packet = &untouched;
    Received received = {0, 7, "", false};
    received.result = socket.NwRecv(&packet, &received.status);
    received.isNull = packet == nullptr;
    if (received.result > 0) received.packet.assign(packet, static_cast<std::size_t>(received.result));
    return received;
}

// What waits in a pipe.
std::string drained(int fd) {
    std::string text;
    char bytes[4096];
    ssize_t count;
    while ((count = ::read(fd, bytes, sizeof bytes)) > 0) text.append(bytes, static_cast<std::size_t>(count));
    return text;
}

class PacketSize {
public:
    explicit PacketSize(int size) { theMaxPacketSize = size; }
    ~PacketSize() { theMaxPacketSize = 15000; }
    PacketSize(const PacketSize&) = delete;
    PacketSize& operator=(const PacketSize&) = delete;
};

class AsyncTest : public testing::Test {
protected:
    void SetUp() override { NwNetSocket::initErrorAction = 1; }
    void TearDown() override { NwNetSocket::initErrorAction = 0; }

    std::unique_ptr<NwAsyncNetSocket> reader(int port = 0) {
        return std::unique_ptr<NwAsyncNetSocket>(
            new NwAsyncNetSocket(port, kLoopback, kReadQuietly, kLoopback));
    }
    std::unique_ptr<NwAsyncNetSocket> writer() {
        return std::unique_ptr<NwAsyncNetSocket>(
            new NwAsyncNetSocket(peer.port(), kLoopback, kWriteQuietly, kLoopback));
    }
    void feed(NwAsyncNetSocket& socket, const std::string& datagram) {
        peer.send(datagram, boundPort(socket.readFd()));
    }
    // Through the worker.
    static bool arrives(NwAsyncNetSocket& socket, std::size_t datagrams) {
        return eventually([&] { return AsyncPeek::received(socket) >= datagrams; });
    }
    static std::vector<std::string> queued(AsyncPeek::Queue& queue) {
        std::vector<std::string> packets;
        while (!queue->empty()) {
            packets.push_back(textOf(queue->front()));
            queue->pop_front();
        }
        return packets;
    }

    Messages messages;
    UdpPeer peer;
};

typedef AsyncTest AsyncConstruction;
typedef AsyncTest AsyncSending;
typedef AsyncTest AsyncReceiving;
typedef AsyncTest AsyncSwitches;
typedef AsyncTest AsyncEnd;
typedef AsyncTest AsyncPipeFailure;

// The same with the workers dismissed.
class AsyncSteps : public AsyncTest {
protected:
    std::unique_ptr<NwAsyncNetSocket> idleReader() {
        std::unique_ptr<NwAsyncNetSocket> socket = reader();
        AsyncPeek::dismissWorkers(*socket);
        messages.all();
        return socket;
    }
    std::unique_ptr<NwAsyncNetSocket> idleWriter() {
        std::unique_ptr<NwAsyncNetSocket> socket = writer();
        AsyncPeek::dismissWorkers(*socket);
        messages.all();
        return socket;
    }
};

}  // namespace

// --- the packet ------------------------------------------------------------------------------------------

TEST(AsyncPacket, startsEmpty) {
    NwAsyncSocketPacket packet;
    EXPECT_EQ(packet.size(), 0);
    EXPECT_EQ(packet.addr(), 0u);
    EXPECT_EQ(packet.sourceAddr(), 0u);
    EXPECT_EQ(packet.sourcePort(), 0);
}

TEST(AsyncPacket, ownsACopyOfItsBytes) {
    std::string bytes = pdu(144);
    NwAsyncSocketPacket packet(144, bytes.data(), 0x0A140002u);
    bytes.assign(144, '#');
    EXPECT_EQ(packet.size(), 144);
    EXPECT_EQ(textOf(packet), pdu(144));
    EXPECT_EQ(packet.addr(), 0x0A140002u);
    EXPECT_EQ(static_cast<const NwAsyncSocketPacket&>(packet).data(), packet.data());
}

TEST(AsyncPacket, sizeOfZeroOrLessHoldsNothing) {
    for (int size : {0, -1, INT_MIN}) EXPECT_EQ(NwAsyncSocketPacket(size, nullptr, 5).size(), 0) << size;
}

TEST(AsyncPacket, copiesAllFields) {
    NwAsyncSocketPacket packet(3, "abc", 5);
    packet.setSource(6, 7);
    NwAsyncSocketPacket copy(packet);
    NwAsyncSocketPacket assigned(1, "x", 1);
    assigned = packet;
    for (NwAsyncSocketPacket* one : {&copy, &assigned}) {
        EXPECT_EQ(textOf(*one), "abc");
        EXPECT_EQ(one->addr(), 5u);
        EXPECT_EQ(one->sourceAddr(), 6u);
        EXPECT_EQ(one->sourcePort(), 7);
        EXPECT_NE(one->data(), packet.data()) << "bytes of its own";
    }
    packet.data()[0] = '!';
    EXPECT_EQ(textOf(copy), "abc");
}

TEST(AsyncPacket, assignmentToItselfChangesNothing) {
    NwAsyncSocketPacket packet(3, "abc", 5);
    NwAsyncSocketPacket& same = packet;
    packet = same;
    EXPECT_EQ(textOf(packet), "abc");
    packet = std::move(same);
    EXPECT_EQ(textOf(packet), "abc");
    EXPECT_EQ(packet.addr(), 5u);
}

TEST(AsyncPacket, movedFromPacketTellsItsTrueSize) {
    NwAsyncSocketPacket packet(3, "abc", 5);
    packet.setSource(6, 7);
    NwAsyncSocketPacket moved(std::move(packet));
    EXPECT_EQ(textOf(moved), "abc");
    EXPECT_EQ(moved.addr(), 5u);
    EXPECT_EQ(moved.sourceAddr(), 6u);
    EXPECT_EQ(moved.sourcePort(), 7);
    EXPECT_EQ(packet.size(), 0);  // NOLINT: looked at on purpose
    NwAsyncSocketPacket other(1, "x", 1);
    other = std::move(moved);
    EXPECT_EQ(textOf(other), "abc");
    EXPECT_LE(moved.size(), 1);
    EXPECT_TRUE(moved.size() == 0 || moved.data()[0] == 'x');
}

// --- the locked container --------------------------------------------------------------------------------

TEST(ThreadSafe, holdsACopyOfTheValue) {
    std::vector<int> value = {1, 2};
    NwThreadSafe<std::vector<int>> safe(value);
    value.push_back(3);
    EXPECT_EQ(safe->size(), 2u);
    safe->push_back(9);
    EXPECT_EQ(safe->back(), 9);
}

TEST(ThreadSafe, oneExpressionMayHoldSeveralProxies) {
    NwThreadSafe<std::vector<int>> safe(std::vector<int>{1, 2, 3});
    EXPECT_EQ(safe->at(safe->size() - 1) + safe->at(safe->size() - 2) + safe->front(), 6);
}

TEST(ThreadSafe, keepsThreadsApartUntilTheEndOfTheFullExpression) {
    NwThreadSafe<std::vector<int>> safe((std::vector<int>()));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int k = 0; k < 5000; ++k) safe->push_back(static_cast<int>(safe->size()));
        });
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(safe->size(), 20000u);
    for (int i = 0; i < 20000; ++i)
        ASSERT_EQ(safe->at(static_cast<std::size_t>(i)), i) << "size and push in one lock";
}

// --- waiting ---------------------------------------------------------------------------------------------

namespace {

// Opens what derived classes may use.
struct Wait : NwSelectParamWithWrite {
    using NwSelectParamWithWrite::myHighest;
    using NwSelectParamWithWrite::myReadSet;
    using NwSelectParamWithWrite::myReadyToRead;
};

}  // namespace

TEST(SelectParam, startsEmptyAndThenOnlyWaits) {
    Wait wait;
    EXPECT_EQ(wait.myHighest, -1);
    EXPECT_EQ(wait.select(0.0), 0);
    const NwClock clock;
    EXPECT_EQ(wait.select(0.02), 0);
    EXPECT_GE(clock.elapsedRealTime(), 0.02);
}

TEST(SelectParam, tellsHowManyAreReadyAndAsksForAllAgain) {
    int a[2], b[2];
    ASSERT_EQ(::pipe(a) + ::pipe(b), 0);
    Wait wait;
    wait.addRead(b[0]);
    EXPECT_EQ(wait.myHighest, b[0]);
    wait.addRead(a[0]);
    EXPECT_EQ(wait.myHighest, b[0]) << "the highest stays";
    EXPECT_EQ(wait.select(0.0), 0);
    EXPECT_EQ(::write(a[1], "x", 1), 1);
    EXPECT_EQ(wait.select(1.0), 1);
    EXPECT_TRUE(FD_ISSET(a[0], &wait.myReadyToRead));
    EXPECT_FALSE(FD_ISSET(b[0], &wait.myReadyToRead));
    EXPECT_EQ(::write(b[1], "x", 1), 1);
    EXPECT_EQ(wait.select(1.0), 2) << "the wait worked on copies";
    for (int fd : {a[0], a[1], b[0], b[1]}) ::close(fd);
}

TEST(SelectParam, errorIsNegative) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Wait wait;
    wait.addRead(ends[0]);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_LT(wait.select(0.0), 0);
}

TEST(SelectParam, descriptorsThatNoSetHoldsAreLeftOut) {
    Wait wait;
    for (int fd : {-1, INT_MIN, FD_SETSIZE, FD_SETSIZE + 1, INT_MAX}) wait.addRead(fd);
    EXPECT_EQ(wait.myHighest, -1);
    EXPECT_EQ(wait.select(0.0), 0);
    wait.addRead(FD_SETSIZE - 1);
    EXPECT_EQ(wait.myHighest, FD_SETSIZE - 1);
}

// --- construction ----------------------------------------------------------------------------------------

TEST_F(AsyncConstruction, tellsThatTheWorkersRun) {
    const int port = freePort();
    NwAsyncNetSocket socket(port, kLoopback, (unsigned char)3, kLoopback);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.info(), "NetSocket ok for port " + std::to_string(port) +
                                   " to 127.0.0.1\nStarted Asynchronous I/O Thread\n");
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncConstruction, quietConstructionStillTellsAboutTheWorkers) {
    writer();
    EXPECT_EQ(messages.all(), "Started Asynchronous I/O Thread\n");
}

TEST_F(AsyncConstruction, quietSocketsTellNothing) {
    Quiet quiet;
    NwAsyncNetSocket socket(freePort(), kLoopback, (unsigned char)3, kLoopback);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncConstruction, startsWithBothSwitchesOnAndBothQueuesEmpty) {
    auto socket = writer();
    EXPECT_TRUE(socket->usingAsyncSend());
    EXPECT_TRUE(socket->usingAsyncReceive());
    EXPECT_EQ(AsyncPeek::unsent(*socket), 0u);
    EXPECT_EQ(AsyncPeek::received(*socket), 0u);
    EXPECT_EQ(socket->NwReportPktsRcvd(), 0);
}

TEST_F(AsyncConstruction, formWithoutAddressAndFormWithDescriptor) {
    const unsigned char read = 1 | 16;
    NwAsyncNetSocket plain(0, read, kLoopback);
    EXPECT_TRUE(plain.isOk());
    EXPECT_EQ(plain.mcastDevice(), kLoopback);
    feed(plain, pdu(50));
    EXPECT_TRUE(arrives(plain, 1));
    EXPECT_EQ(receive(plain), delivered(pdu(50)));

    UdpPeer owned;
    char name[] = "unused";
    {
        Quiet quiet;  // there is no default interface here to ask for the device
        NwAsyncNetSocket adopted(name, owned.fd(), read);
        EXPECT_TRUE(adopted.isOk());
        EXPECT_EQ(adopted.readFd(), owned.fd());
        feed(adopted, pdu(60));
        EXPECT_TRUE(arrives(adopted, 1));
        EXPECT_EQ(receive(adopted), delivered(pdu(60)));
    }
    EXPECT_NE(::fcntl(owned.fd(), F_GETFD), -1) << "an adopted descriptor stays the caller's";
}

TEST_F(AsyncConstruction, wakeUpPipeIsNonBlockingAtBothEnds) {
    auto socket = writer();
    const int* ends = AsyncPeek::pipeEnds(*socket);
    EXPECT_NE(ends[0], ends[1]);
    for (int i : {0, 1}) {
        const int flags = ::fcntl(ends[i], F_GETFL);
        ASSERT_NE(flags, -1);
        EXPECT_TRUE(flags & O_NONBLOCK);
        EXPECT_EQ(flags & O_ACCMODE, i == 0 ? O_RDONLY : O_WRONLY);
    }
}

TEST_F(AsyncConstruction, pollTimeIsASettingOfTheClass) {
    EXPECT_EQ(NwAsyncNetSocket::queueTimeout(), 0.01);
    EXPECT_EQ(NwAsyncNetSocket::theQueueTimeout, 0.01);
    NwAsyncNetSocket::theQueueTimeout = 0.5;
    EXPECT_EQ(NwAsyncNetSocket::queueTimeout(), 0.5);
    NwAsyncNetSocket::setQueueTimeout(0.01);
    EXPECT_EQ(NwAsyncNetSocket::theQueueTimeout, 0.01);
}

TEST_F(AsyncConstruction, socketThatFailedToOpenLivesAndEnds) {
    REQUIRE_PRIVATE_NETWORK();
    UdpPeer squatter;  // without port reuse
    {
        NwAsyncNetSocket socket(squatter.port(), kLoopback, (unsigned char)(1 | 8), kLoopback);
        EXPECT_FALSE(socket.isOk());
        EXPECT_EQ(receive(socket), nothing());
    }
    NwAsyncNetSocket none(0, kLoopback, (unsigned char)16, kLoopback);
    EXPECT_TRUE(none.isOk());
    EXPECT_EQ(none.readFd(), -1);
}

// --- sending ---------------------------------------------------------------------------------------------

TEST_F(AsyncSending, packetsLeaveInOrder) {
    auto socket = writer();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(send(*socket, pdu(100, i)), 100);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(peer.receive(), pdu(100, i));
}

TEST_F(AsyncSending, destinationTravelsWithThePacket) {
    UdpPeer other(0x7F000002u, peer.port());
    auto socket = writer();
    send(*socket, "there", 0x7F000002u);
    send(*socket, "default", 0);
    EXPECT_EQ(other.receive(), "there");
    EXPECT_EQ(peer.receive(), "default");
}

TEST_F(AsyncSending, resultIsTheLengthEvenIfTheNetworkRefusesLater) {
    REQUIRE_PRIVATE_NETWORK();
    auto socket = writer();
    EXPECT_EQ(send(*socket, "lost", kUnreachable), 4);
    EXPECT_EQ(send(*socket, "arrives"), 7);
    EXPECT_EQ(peer.receive(), "arrives") << "a failure does not stop what is behind it";
    EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH));
}

TEST_F(AsyncSending, readOnlySocketTakesThePacketAndTheWorkerReports) {
    auto socket = reader();
    EXPECT_EQ(send(*socket, "nowhere"), 7);
    std::string warning;
    EXPECT_TRUE(eventually([&] { return (warning += messages.warn()) != ""; }));
    EXPECT_EQ(warning, "NetSocket not initialized for sending\n");
    socket->setUsingAsyncSend(false);
    EXPECT_EQ(send(*socket, "nowhere"), -1);
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
}

TEST_F(AsyncSending, bundlesGoThroughTheQueue) {
    auto socket = writer();
    socket->setBundling(1400);
    std::string a(700, 'a'), b(700, 'b'), c(1, 'c');
    EXPECT_EQ(socket->NwSend(&a[0], 700, 0), 0);
    EXPECT_EQ(socket->NwSend(&b[0], 700, 0), 0);
    EXPECT_EQ(socket->NwSend(&c[0], 1, 0), 1400);
    long sent = 0;
    EXPECT_EQ(socket->flush(sent), 1);
    EXPECT_EQ(sent, 1);
    EXPECT_EQ(peer.receive(), a + b);
    EXPECT_EQ(peer.receive(), "c");
}

TEST_F(AsyncSteps, sendQueuesACopyAndWritesOneByteAPacket) {
    auto socket = idleWriter();
    drained(AsyncPeek::pipeEnds(*socket)[0]);
    EXPECT_EQ(send(*socket, "first", 5), 5);
    EXPECT_EQ(send(*socket, "second", 6), 6);
    EXPECT_EQ(send(*socket, "", 7), 0);
    ASSERT_EQ(AsyncPeek::unsent(*socket), 3u);
    EXPECT_EQ(textOf(AsyncPeek::sendQueue(*socket)->at(0)), "first");
    EXPECT_EQ(AsyncPeek::sendQueue(*socket)->at(0).addr(), 5u);
    EXPECT_EQ(textOf(AsyncPeek::sendQueue(*socket)->at(1)), "second");
    EXPECT_EQ(AsyncPeek::sendQueue(*socket)->at(1).addr(), 6u);
    EXPECT_EQ(AsyncPeek::sendQueue(*socket)->at(2).size(), 0);
    EXPECT_EQ(drained(AsyncPeek::pipeEnds(*socket)[0]), "eee");
    EXPECT_TRUE(peer.isEmpty());
}

TEST_F(AsyncSteps, fullPipeRefusesNoPacket) {
    auto socket = idleWriter();
    const int kMoreThanAPipeHolds = 70000;
    for (int i = 0; i < kMoreThanAPipeHolds; ++i) ASSERT_EQ(send(*socket, "x"), 1);
    EXPECT_EQ(AsyncPeek::unsent(*socket), static_cast<std::size_t>(kMoreThanAPipeHolds));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, lengthBeyondTheRangeOfAnIntIsRefused) {
    auto socket = idleWriter();
    char byte = 'a';
    for (unsigned long length :
         {static_cast<unsigned long>(INT_MAX) + 1, std::numeric_limits<unsigned long>::max()})
        EXPECT_EQ(socket->sendTo(&byte, length, 0), -1);
    EXPECT_EQ(AsyncPeek::unsent(*socket), 0u);
}

TEST_F(AsyncSteps, switchedOffSendsAtOnceWithTheTransportsResult) {
    auto socket = idleWriter();
    socket->setUsingAsyncSend(false);
    EXPECT_EQ(send(*socket, "now"), 3);
    EXPECT_EQ(peer.receive(), "now");
    EXPECT_EQ(AsyncPeek::unsent(*socket), 0u);
    EXPECT_EQ(send(*socket, ""), 0);
    if (hasPrivateNetwork()) {
        EXPECT_EQ(send(*socket, "lost", kUnreachable), -1);
        EXPECT_EQ(messages.warn(), systemReport("NetSocket::sendTo", ENETUNREACH));
    }
}

TEST_F(AsyncSteps, directSendIsTheUdpSocketsWhateverTheSwitch) {
    auto socket = idleWriter();
    char byte = 'a';
    EXPECT_EQ(socket->directSendTo(&byte, 1, 0), 1);
    EXPECT_EQ(peer.receive(), "a");
    EXPECT_EQ(socket->directSendTo(&byte, 0, 0), 0);
}

TEST_F(AsyncSteps, passOverTheSendQueueEmptiesItInOrderWhateverFails) {
    auto socket = idleWriter();
    for (int i = 0; i < 50; ++i) send(*socket, pdu(30, i), i % 10 == 3 ? kUnreachable : 0);
    if (!hasPrivateNetwork()) GTEST_SKIP() << privateNetworkProblem();
    socket->processSendQueue();
    EXPECT_EQ(AsyncPeek::unsent(*socket), 0u);
    for (int i = 0; i < 50; ++i)
        if (i % 10 != 3) {
            ASSERT_EQ(peer.receive(), pdu(30, i));
        }
    EXPECT_TRUE(peer.isEmpty());
    std::string fiveReports;
    for (int i = 0; i < 5; ++i) fiveReports += systemReport("NetSocket::sendTo", ENETUNREACH);
    EXPECT_EQ(messages.warn(), fiveReports);
}

TEST_F(AsyncSteps, sendLoopEndsWhenAskedToAndTheQueueIsEmptyFirst) {
    auto socket = idleWriter();
    for (int i = 0; i < 20; ++i) send(*socket, pdu(30, i));
    AsyncPeek::requestStop(*socket, true, false);
    socket->workerSendThread();
    EXPECT_EQ(AsyncPeek::unsent(*socket), 0u);
    for (int i = 0; i < 20; ++i) ASSERT_EQ(peer.receive(), pdu(30, i));
    EXPECT_EQ(drained(AsyncPeek::pipeEnds(*socket)[0]), "") << "all wake-up bytes were taken";
}

TEST_F(AsyncSteps, sendLoopDrainsAnyNumberOfWakeUps) {
    auto socket = idleWriter();
    for (int i = 0; i < 1001; ++i) send(*socket, "x");
    AsyncPeek::requestStop(*socket, true, false);
    socket->workerSendThread();
    EXPECT_EQ(drained(AsyncPeek::pipeEnds(*socket)[0]), "");
}

TEST_F(AsyncSteps, sendLoopAskedToEndWithNothingToSendEndsAtOnce) {
    auto socket = idleWriter();
    EXPECT_EQ(::write(AsyncPeek::pipeEnds(*socket)[1], "zz", 2), 2);
    AsyncPeek::requestStop(*socket, true, false);
    drained(AsyncPeek::pipeEnds(*socket)[0]);
    EXPECT_EQ(::write(AsyncPeek::pipeEnds(*socket)[1], "zz", 2), 2);
    socket->workerSendThread();
    EXPECT_EQ(drained(AsyncPeek::pipeEnds(*socket)[0]), "zz") << "before it waits or reads";
}

// --- the receive pass ------------------------------------------------------------------------------------

TEST_F(AsyncSteps, passTakesAllThatTheKernelHas) {
    auto socket = idleReader();
    UdpPeer second(0x7F000002u);
    feed(*socket, "first");
    second.send("second", boundPort(socket->readFd()));
    feed(*socket, pdu(9000));
    socket->processReceiveQueue();
    ASSERT_EQ(AsyncPeek::received(*socket), 3u);
    AsyncPeek::Queue& queue = AsyncPeek::receiveQueue(*socket);
    EXPECT_EQ(textOf(queue->at(0)), "first");
    EXPECT_EQ(textOf(queue->at(1)), "second");
    EXPECT_EQ(textOf(queue->at(2)), pdu(9000));
    EXPECT_EQ(queue->at(0).addr(), 0u) << "a received packet has no destination";
    EXPECT_EQ(queue->at(0).sourceAddr(), kLoopback);
    EXPECT_EQ(queue->at(0).sourcePort(), peer.port());
    EXPECT_EQ(queue->at(1).sourceAddr(), 0x7F000002u);
    EXPECT_EQ(queue->at(1).sourcePort(), second.port());
    EXPECT_EQ(socket->lastSourceInetAddr(), 0u) << "nothing was delivered yet";
    EXPECT_EQ(socket->NwReportPktsRcvd(), 0) << "nor counted";
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, passWithNothingThereIsSilentAndDoesNotWait) {
    auto socket = idleReader();  // a blocking descriptor
    EXPECT_FALSE(::fcntl(socket->readFd(), F_GETFL) & O_NONBLOCK);
    socket->processReceiveQueue();
    EXPECT_EQ(AsyncPeek::received(*socket), 0u);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, emptyDatagramIsQueuedWithAWarningAndEndsThePass) {
    auto socket = idleReader();
    feed(*socket, "before");
    feed(*socket, "");
    feed(*socket, "after");
    socket->processReceiveQueue();
    EXPECT_EQ(messages.warn(), "0 Bytes Read From the Network\n");
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)), (std::vector<std::string>{"before", ""}));
    socket->processReceiveQueue();
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)), (std::vector<std::string>{"after"}));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, emptyDatagramIsQuietWhenSocketsAre) {
    auto socket = idleReader();
    Quiet quiet;
    feed(*socket, "");
    socket->processReceiveQueue();
    EXPECT_EQ(AsyncPeek::received(*socket), 1u);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, readErrorIsReportedOnceAPassWithItsBlankAtTheEnd) {
    auto socket = idleReader();
    const int nothing = ::open("/dev/null", O_RDWR);
    ASSERT_GE(::dup2(nothing, socket->readFd()), 0);
    ::close(nothing);
    socket->processReceiveQueue();
    EXPECT_EQ(messages.warn(), systemReport("Network read error ", ENOTSOCK));
    EXPECT_EQ(AsyncPeek::received(*socket), 0u);
    {
        Quiet quiet;
        socket->processReceiveQueue();
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, ownDatagramsNeverReachTheQueue) {
    auto socket = idleReader();
    UdpPeer elsewhere(0x7F000002u), otherPort;
    socket->setFilterPort(peer.port());
    feed(*socket, "own");
    feed(*socket, "");
    otherPort.send("other port", boundPort(socket->readFd()));
    feed(*socket, "own again");
    elsewhere.send("other address", boundPort(socket->readFd()));
    socket->processReceiveQueue();
    EXPECT_EQ(messages.all(), "") << "an own empty datagram is dropped before it is looked at";
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)),
              (std::vector<std::string>{"other port", "other address"}));

    socket->setFilterPort(-1);
    feed(*socket, "own");
    socket->processReceiveQueue();
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)), (std::vector<std::string>{"own"}));
}

TEST_F(AsyncSteps, samePortOfAnotherAddressIsNotOwn) {
    auto socket = idleReader();
    UdpPeer elsewhere(0x7F000002u, peer.port());
    socket->setFilterPort(peer.port());
    elsewhere.send("other host", boundPort(socket->readFd()));
    socket->processReceiveQueue();
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)), (std::vector<std::string>{"other host"}));
    socket->setMcastDevice(0x7F000002u);
    elsewhere.send("now own", boundPort(socket->readFd()));
    feed(*socket, "now another");
    socket->processReceiveQueue();
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)), (std::vector<std::string>{"now another"}));
}

TEST_F(AsyncSteps, writeOnlySocketIsNotRead) {
    auto socket = idleWriter();
    socket->setUsingAsyncSend(false);
    send(*socket, "gives the socket a port");
    peer.receive();
    peer.send("unasked", peer.lastSenderPort());
    socket->processReceiveQueue();
    EXPECT_EQ(AsyncPeek::received(*socket), 0u);
    int waiting = 0;
    ::ioctl(socket->writeFd(), FIONREAD, &waiting);
    EXPECT_EQ(waiting, 7);
}

TEST_F(AsyncSteps, longDatagramIsCutToTheLargestPacketOfTheSocketsBirth) {
    PacketSize small(100);
    auto socket = idleReader();
    theMaxPacketSize = 15000;
    feed(*socket, std::string(99, 'a'));
    feed(*socket, std::string(100, 'b'));
    feed(*socket, std::string(5000, 'c'));
    socket->processReceiveQueue();
    EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)),
              (std::vector<std::string>{std::string(99, 'a'), std::string(100, 'b'), std::string(100, 'c')}));
}

TEST_F(AsyncSteps, largestPacketOfZeroOrLessReadsNoByte) {
    for (int size : {0, -1, INT_MIN}) {
        PacketSize none(size);
        auto socket = idleReader();
        feed(*socket, "abc");
        socket->processReceiveQueue();
        EXPECT_EQ(queued(AsyncPeek::receiveQueue(*socket)), (std::vector<std::string>{""})) << size;
    }
}

TEST_F(AsyncSteps, passMayBeAskedForWithTheSwitchOff) {
    auto socket = idleReader();
    socket->setUsingAsyncReceive(false);
    feed(*socket, "a");
    feed(*socket, "b");
    socket->processReceiveQueue();
    EXPECT_EQ(AsyncPeek::received(*socket), 2u);
}

// --- receiving -------------------------------------------------------------------------------------------

TEST_F(AsyncSteps, receiveTakesFromTheQueueAlone) {
    auto socket = idleReader();  // a blocking descriptor: a read of it would wait for ever
    EXPECT_EQ(receive(*socket), nothing());
    feed(*socket, pdu(144, 1));
    EXPECT_EQ(receive(*socket), nothing()) << "in the kernel, not in the queue";
    socket->processReceiveQueue();
    EXPECT_EQ(receive(*socket), delivered(pdu(144, 1)));
    EXPECT_EQ(AsyncPeek::received(*socket), 0u);
}

TEST_F(AsyncSteps, datagramsAreCountedWhenTheyAreDelivered) {
    auto socket = idleReader();
    for (int i = 0; i < 3; ++i) feed(*socket, pdu(20, i));
    socket->processReceiveQueue();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(socket->NwReportPktsRcvd(), i);
        receive(*socket);
    }
    EXPECT_EQ(socket->NwReportPktsRcvd(), 3);
}

TEST_F(AsyncSteps, emptyDatagramIsDeliveredWithSizeZeroAndCounted) {
    auto socket = idleReader();
    feed(*socket, "");
    socket->processReceiveQueue();
    EXPECT_EQ(receive(*socket), nothing());
    EXPECT_EQ(socket->NwReportPktsRcvd(), 1);
    EXPECT_FALSE(socket->dataLeftInCurrentBundle());

    feed(*socket, "");
    socket->processReceiveQueue();
    socket->setUnbundling(0);
    EXPECT_EQ(receive(*socket), (Received{0, 0, "", false}))
        << "whole datagrams: the buffer is lent all the same";
    char* buf = nullptr;
    feed(*socket, "");
    socket->processReceiveQueue();
    EXPECT_EQ(socket->recvFromNet(&buf), 0);
    EXPECT_EQ(buf, AsyncPeek::recvBufferOf(*socket));
}

TEST_F(AsyncSteps, deliveredBytesLieInTheSocketsReceiveBuffer) {
    auto socket = idleReader();
    feed(*socket, "abc");
    socket->processReceiveQueue();
    char* buf = nullptr;
    EXPECT_EQ(socket->recvFromNet(&buf), 3);
    EXPECT_EQ(buf, AsyncPeek::recvBufferOf(*socket));
    EXPECT_EQ(std::string(buf, 3), "abc");
    EXPECT_EQ(socket->recvFromNet(&buf), 0);
    EXPECT_EQ(buf, nullptr);
}

TEST_F(AsyncSteps, bytesBehindAShortDatagramReadAsZero) {
    auto socket = idleReader();
    socket->setUnbundling(0);
    feed(*socket, std::string(50, '\x09'));
    feed(*socket, "\x07");
    socket->processReceiveQueue();
    receive(*socket);
    unsigned int zero[] = {0};
    socket->exerciseId().setTest(NwTestInclude, 1, zero);
    EXPECT_EQ(receive(*socket), delivered("\x07")) << "byte 1 is not that of the datagram before";
}

TEST_F(AsyncSteps, withoutAReadSideItWarnsAndGivesNothing) {
    auto socket = idleWriter();
    EXPECT_EQ(receive(*socket), nothing());
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for receiving\n");
    socket->setUsingAsyncReceive(false);
    EXPECT_EQ(receive(*socket), nothing());
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for receiving\n");
    AsyncPeek::receiveQueue(*socket)->push_back(NwAsyncSocketPacket(3, "abc", 0));
    EXPECT_EQ(receive(*socket), nothing()) << "whatever is in the queue";
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for receiving\n");
    Quiet quiet;
    socket->setUsingAsyncReceive(true);
    EXPECT_EQ(receive(*socket), nothing());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(AsyncSteps, switchedOffDeliversTheQueueFirstAndThenReads) {
    auto socket = idleReader();
    feed(*socket, pdu(20, 1));
    feed(*socket, pdu(20, 2));
    socket->processReceiveQueue();
    feed(*socket, pdu(20, 3));
    socket->setUsingAsyncReceive(false);
    for (int i : {1, 2, 3}) EXPECT_EQ(receive(*socket), delivered(pdu(20, i)));
    socket->NwBecomeNonBlocking();
    EXPECT_EQ(receive(*socket), nothing());
    feed(*socket, "");
    EXPECT_EQ(receive(*socket), nothing());
    EXPECT_EQ(messages.warn(), "0 bytes read from net\n") << "the UDP socket's own text";
}

TEST_F(AsyncSteps, eachPacketSpeaksOfItsOwnSender) {
    auto socket = idleReader();
    UdpPeer other(0x7F000002u);
    const int port = boundPort(socket->readFd());
    peer.send(pdu(20, 1) + pdu(20, 2), port);
    other.send(pdu(20, 3) + pdu(20, 4), port);
    peer.send(pdu(20, 5), port);
    socket->processReceiveQueue();
    const NwIpv4Addr senders[] = {kLoopback, kLoopback, 0x7F000002u, 0x7F000002u, kLoopback};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(receive(*socket), delivered(pdu(20, i + 1)));
        EXPECT_EQ(socket->lastSourceInetAddr(), senders[i]) << i;
    }
}

TEST_F(AsyncSteps, addressFilterJudgesEachPacketByItsOwnSender) {
    auto socket = idleReader();
    UdpPeer other(0x7F000002u);
    unsigned int wanted[] = {0x7F000002u};
    socket->ipAddr().setTest(NwTestInclude, 1, wanted);
    const int port = boundPort(socket->readFd());
    peer.send(pdu(20, 1), port);
    other.send(pdu(20, 2), port);
    peer.send(pdu(20, 3), port);
    socket->processReceiveQueue();
    EXPECT_EQ(receive(*socket), nothing(-2));
    EXPECT_EQ(receive(*socket), delivered(pdu(20, 2)));
    EXPECT_EQ(receive(*socket), nothing(-2));
    EXPECT_EQ(socket->NwReportPktsRcvd(), 3);
}

TEST_F(AsyncSteps, unbundlingSwitchedOffAndOnKeepsWhatIsPending) {
    auto socket = idleReader();
    UdpPeer other(0x7F000002u);
    const int port = boundPort(socket->readFd());
    peer.send(pdu(20, 1) + pdu(30, 2) + pdu(40, 3), port);
    other.send(pdu(20, 4) + pdu(20, 5), port);
    other.send(pdu(20, 6), port);
    socket->processReceiveQueue();
    EXPECT_EQ(receive(*socket), delivered(pdu(20, 1)));
    socket->setUnbundling(0);
    EXPECT_EQ(receive(*socket), delivered(pdu(20, 4) + pdu(20, 5))) << "the next datagram, whole";
    EXPECT_EQ(socket->lastSourceInetAddr(), 0x7F000002u);
    EXPECT_TRUE(socket->dataLeftInCurrentBundle());
    socket->setUnbundling(1);
    EXPECT_EQ(receive(*socket), delivered(pdu(30, 2)));
    EXPECT_EQ(socket->lastSourceInetAddr(), kLoopback);
    socket->setUnbundling(0);
    EXPECT_EQ(receive(*socket), delivered(pdu(20, 6)));
    socket->setUnbundling(1);
    EXPECT_EQ(receive(*socket), delivered(pdu(40, 3)));
    EXPECT_EQ(receive(*socket), nothing());
}

TEST_F(AsyncSteps, emptyDatagramInBetweenLeavesPendingPacketsAlone) {
    auto socket = idleReader();
    feed(*socket, pdu(20, 1) + pdu(30, 2));
    feed(*socket, "");
    socket->processReceiveQueue();
    EXPECT_EQ(receive(*socket), delivered(pdu(20, 1)));
    socket->setUnbundling(0);
    EXPECT_EQ(receive(*socket).result, 0);
    socket->setUnbundling(1);
    EXPECT_EQ(receive(*socket), delivered(pdu(30, 2)));
}

TEST_F(AsyncReceiving, workerBringsWhatArrivesAndTheCallerNeverWaits) {
    auto socket = reader();
    EXPECT_EQ(receive(*socket), nothing());
    feed(*socket, pdu(144, 1) + pdu(100, 2));
    ASSERT_TRUE(arrives(*socket, 1));
    EXPECT_EQ(receive(*socket), delivered(pdu(144, 1)));
    EXPECT_EQ(receive(*socket), delivered(pdu(100, 2)));
    EXPECT_EQ(receive(*socket), nothing());
}

TEST_F(AsyncReceiving, datagramsBehindAnEmptyOneComeWithTheNextPass) {
    auto socket = reader();
    for (const char* text : {"", "", ""}) feed(*socket, text);
    feed(*socket, pdu(20));
    ASSERT_TRUE(arrives(*socket, 4));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(receive(*socket), nothing());
    EXPECT_EQ(receive(*socket), delivered(pdu(20)));
    EXPECT_EQ(socket->NwReportPktsRcvd(), 4);
}

TEST_F(AsyncReceiving, ownDatagramsAreDroppedOnTheWay) {
    const int port = freePort();
    NwAsyncNetSocket socket(port, kLoopback, (unsigned char)(3 | 8 | 16), kLoopback);
    socket.setFilterPort(port);
    for (int i = 0; i < 20; ++i) send(socket, pdu(20, i));
    EXPECT_TRUE(eventually([&] { return AsyncPeek::unsent(socket) == 0; }));
    peer.send(pdu(30), port);
    ASSERT_TRUE(arrives(socket, 1));
    EXPECT_EQ(receive(socket), delivered(pdu(30)));
    EXPECT_EQ(receive(socket), nothing());
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);
}

TEST_F(AsyncReceiving, brokenDescriptorIsReportedAndTheWorkerGoesOn) {
    auto socket = reader();
    const int kept = ::dup(socket->readFd());
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, socket->readFd());
    std::string warnings;
    EXPECT_TRUE(eventually([&] {
        warnings += messages.warn();
        return warnings.find(systemReport("Network read error ", ENOTSOCK)) != std::string::npos;
    }));
    ::dup2(kept, socket->readFd());
    feed(*socket, pdu(20));
    EXPECT_TRUE(arrives(*socket, 1));
    ::close(kept);
    ::close(null);
}

// --- switches --------------------------------------------------------------------------------------------

TEST_F(AsyncSwitches, readBackAsTheyWereSet) {
    auto socket = writer();
    for (bool on : {false, true, false}) {
        socket->setUsingAsyncSend(on);
        EXPECT_EQ(socket->usingAsyncSend(), on);
        EXPECT_EQ(socket->usingAsyncReceive(), true);
    }
    socket->setUsingAsyncReceive(false);
    EXPECT_FALSE(socket->usingAsyncReceive());
    EXPECT_FALSE(socket->usingAsyncSend());
}

TEST_F(AsyncSwitches, whileReceivingIsOffTheWorkerReadsNothing) {
    auto socket = reader();
    socket->setUsingAsyncReceive(false);
    socket->NwBecomeNonBlocking();
    receive(*socket);  // behind this no pass of the worker is under way
    for (int i = 0; i < 50; ++i) {
        feed(*socket, pdu(20, i));
        EXPECT_EQ(receive(*socket), delivered(pdu(20, i))) << "there at once, read by the caller";
        EXPECT_EQ(AsyncPeek::received(*socket), 0u);
    }
    socket->setUsingAsyncReceive(true);
    feed(*socket, pdu(20, 99));
    ASSERT_TRUE(arrives(*socket, 1));
    EXPECT_EQ(receive(*socket), delivered(pdu(20, 99)));
}

TEST_F(AsyncSwitches, withBothOffItBehavesAsAUdpSocket) {
    auto socket = reader();
    socket->setUsingAsyncReceive(false);
    socket->setUsingAsyncSend(false);
    socket->NwBecomeNonBlocking();
    EXPECT_EQ(receive(*socket), nothing());
    feed(*socket, "");
    EXPECT_EQ(receive(*socket), nothing());
    EXPECT_THAT(messages.warn(), testing::EndsWith("0 bytes read from net\n"));
    socket->setFilterPort(peer.port());
    socket->setUnbundling(0);
    feed(*socket, "own");
    char* packet = nullptr;
    int status = 7;
    EXPECT_EQ(socket->NwRecv(&packet, &status), 0);
    EXPECT_EQ(status, -3) << "and knows own datagrams as one";
    EXPECT_EQ(send(*socket, "x"), -1);
}

TEST_F(AsyncSwitches, queuedPacketsLeaveWhileSendingIsOff) {
    auto socket = writer();
    for (int i = 0; i < 100; ++i) send(*socket, pdu(20, i));
    socket->setUsingAsyncSend(false);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(peer.receive(), pdu(20, i));
}

// --- virtual calls ---------------------------------------------------------------------------------------

namespace {

// Only calls on the test's own thread are noted: the workers run this class's operations too, from some point
// of its construction on. That is why these tests are left out under the thread sanitizer: constructing any
// derived class changes the table of virtual operations while the base's workers read it.
class Derived : public NwAsyncNetSocket {
public:
    explicit Derived(int newPort)
        : NwAsyncNetSocket(newPort, kLoopback, (unsigned char)(3 | 16), kLoopback), owner(pthread_self()) {}
    ~Derived() override { stopThreads(); }

    int directSendTo(char* buf, unsigned long len, unsigned int addr) override {
        note("directSendTo " + std::string(buf, len) + " " + std::to_string(addr));
        return 77;
    }
    bool usingAsyncSend() const override { return asyncSend; }
    bool usingAsyncReceive() const override {
        const_cast<Derived*>(this)->note("usingAsyncReceive");
        return asyncReceive;
    }
    void workerSendThread() override {
        note("workerSendThread");
        if (!isOwner()) NwAsyncNetSocket::workerSendThread();
    }
    void workerReceiveThread() override {
        note("workerReceiveThread");
        if (!isOwner()) NwAsyncNetSocket::workerReceiveThread();
    }
    void processSendQueue() override {
        note("processSendQueue");
        NwAsyncNetSocket::processSendQueue();
    }
    void processReceiveQueue() override {
        note("processReceiveQueue");
        if (isOwner()) myStopReceive = true;
    }
    void sendLoop() { NwAsyncNetSocket::workerSendThread(); }
    void receiveLoop() {
        myStopReceive = false;
        NwAsyncNetSocket::workerReceiveThread();
    }
    bool isOwner() const { return pthread_equal(pthread_self(), owner); }
    void note(const std::string& call) {
        if (isOwner()) calls.push_back(call);
    }
    using NwAsyncNetSocket::stopThreads;

    const pthread_t owner;
    bool asyncSend = false, asyncReceive = true;
    std::vector<std::string> calls;
};

class AsyncVirtualCalls : public AsyncTest {
protected:
    void SetUp() override {
        AsyncTest::SetUp();
        if (kUnderThreadSanitizer) GTEST_SKIP() << "a derived class is built while the base's workers run";
        derived.reset(new Derived(peer.port()));
        derived->stopThreads();
        derived->calls.clear();
    }

    std::unique_ptr<Derived> derived;
};

}  // namespace

TEST_F(AsyncVirtualCalls, entryPointsRunTheLoopsOfTheTableAndReturnNull) {
    EXPECT_EQ(NwAsyncNetSocket::runSend(static_cast<NwAsyncNetSocket*>(derived.get())), nullptr);
    EXPECT_EQ(NwAsyncNetSocket::runReceive(static_cast<NwAsyncNetSocket*>(derived.get())), nullptr);
    EXPECT_THAT(derived->calls, testing::ElementsAre("workerSendThread", "workerReceiveThread"));
}

TEST_F(AsyncVirtualCalls, sendAsksTheTableForTheSwitchAndTheDirectSend) {
    char text[] = "abc";
    EXPECT_EQ(derived->sendTo(text, 3, 5), 77);
    EXPECT_THAT(derived->calls, testing::ElementsAre("directSendTo abc 5"));
    derived->asyncSend = true;
    EXPECT_EQ(derived->sendTo(text, 3, 5), 3);
    EXPECT_EQ(AsyncPeek::unsent(*derived), 1u);
}

TEST_F(AsyncVirtualCalls, sendLoopAsksTheTableForItsPassAndThatForTheDirectSend) {
    derived->asyncSend = true;
    char text[] = "abc";
    derived->sendTo(text, 3, 5);
    derived->sendTo(text, 2, 6);
    AsyncPeek::requestStop(*derived, true, true);
    derived->sendLoop();
    EXPECT_THAT(derived->calls,
                testing::ElementsAre("processSendQueue", "directSendTo abc 5", "directSendTo ab 6"));
}

TEST_F(AsyncVirtualCalls, receiveLoopAsksTheTableForTheSwitchAndThePass) {
    derived->receiveLoop();
    EXPECT_THAT(derived->calls, testing::ElementsAre("usingAsyncReceive", "processReceiveQueue"));
}

TEST_F(AsyncVirtualCalls, receiveAsksTheTableForTheSwitch) {
    receive(*derived);
    EXPECT_THAT(derived->calls, testing::Contains("usingAsyncReceive"));
}

namespace {

// Does something at the third datagram of a pass (or another), which asks for the interface with each.
class Interrupted : public NwAsyncNetSocket {
public:
    Interrupted() : NwAsyncNetSocket(0, kLoopback, kReadQuietly, kLoopback) {
        setFilterPort(1);
        AsyncPeek::dismissWorkers(*this);
    }
    ~Interrupted() override { stopThreads(); }
    unsigned int mcastDevice() const override {
        if (--left == 0) meanwhile();
        return NwAsyncNetSocket::mcastDevice();
    }

    mutable int left = 3;
    std::function<void()> meanwhile;
};

class AsyncPasses : public AsyncTest {
protected:
    void SetUp() override {
        AsyncTest::SetUp();
        if (kUnderThreadSanitizer) GTEST_SKIP() << "a derived class is built while the base's workers run";
        socket.reset(new Interrupted);
        for (int i = 0; i < 10; ++i) feed(*socket, pdu(20, i));
    }
    // What the pass left is still in the kernel, in order.
    void expectTheRestIsReadByTheCaller() {
        EXPECT_EQ(AsyncPeek::received(*socket), 3u);
        socket->setUsingAsyncReceive(false);
        for (int i = 0; i < 10; ++i) EXPECT_EQ(receive(*socket), delivered(pdu(20, i)));
    }

    std::unique_ptr<Interrupted> socket;
};

}  // namespace

// A flood would else keep it going.
TEST_F(AsyncPasses, endWhenTheWorkerIsToStop) {
    socket->meanwhile = [this] { AsyncPeek::requestStop(*socket, false, true); };
    socket->processReceiveQueue();
    expectTheRestIsReadByTheCaller();
}

TEST_F(AsyncPasses, endWhenReceivingIsSwitchedOff) {
    socket->meanwhile = [this] { socket->setUsingAsyncReceive(false); };
    socket->processReceiveQueue();
    expectTheRestIsReadByTheCaller();
}

namespace {

bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.rfind(')');
    return name != std::string::npos && text.compare(name, 3, ") S") == 0;
}

}  // namespace

// The pass has read the first datagram and not queued it yet when the caller, for whom the switch is off
// already, finds an empty queue and wants to read the second one.
TEST_F(AsyncPasses, comeBeforeTheCallerWhoHasJustBeenGivenTheDescriptor) {
    const pid_t caller = static_cast<pid_t>(::syscall(SYS_gettid));
    std::atomic<bool> isUnderWay{false};
    bool callerWaits = false;
    socket->left = 1;
    socket->meanwhile = [&] {
        socket->setUsingAsyncReceive(false);
        isUnderWay = true;
        callerWaits = eventually([&] { return isAsleep(caller); });
    };
    std::thread pass([&] { socket->processReceiveQueue(); });
    while (!isUnderWay) {
    }
    for (int i = 0; i < 10; ++i) EXPECT_EQ(receive(*socket), delivered(pdu(20, i)));
    pass.join();
    EXPECT_TRUE(callerWaits);
}

// --- failures of the system ------------------------------------------------------------------------------

namespace {

// From now on this child may have so many threads, the main one included; false where the system gives no
// way.
bool allowThreads(rlim_t count) {
    const rlimit limit = {count, count};
    const uid_t kNobodysUser = static_cast<uid_t>(100000 + ::getpid());  // so that no other process counts
    return ::setrlimit(RLIMIT_NPROC, &limit) == 0 &&
           ::setresuid(kNobodysUser, kNobodysUser, kNobodysUser) == 0;
}

const int kCannotLimit = 99;

int makeSocketWithThreads(rlim_t count) {
    NwNetSocket::initErrorAction = 1;
    if (!allowThreads(count)) return kCannotLimit;
    NwAsyncNetSocket socket(0, kLoopback, kReadQuietly, kLoopback);
    return 9;
}

std::string theFatalMessages;
void noteFatal(const char* message) {
    theFatalMessages += message;
}

#define REQUIRE_THREAD_LIMIT(child)                                                                      \
    if (child.exitStatus == kCannotLimit) GTEST_SKIP() << "needs root to become a user without threads"; \
    if (kUnderThreadSanitizer) GTEST_SKIP() << "the thread sanitizer has threads of its own"

}  // namespace

TEST(AsyncFailure, ofTheSendWorkersStartIsFatal) {
    const ChildResult child = inChild([] { return makeSocketWithThreads(1); });
    REQUIRE_THREAD_LIMIT(child);
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, "Could not start aynchronousIO thread Send in NwAsyncNetSocket\n");
}

TEST(AsyncFailure, ofTheReceiveWorkersStartIsFatal) {
    const ChildResult child = inChild([] { return makeSocketWithThreads(2); });
    REQUIRE_THREAD_LIMIT(child);
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, "Could not start aynchronousIO thread Receive inNwAsyncNetSocket\n");
}

TEST(AsyncFailure, ofAWorkersStartIsFatalAlsoWhileQuiet) {
    const ChildResult child = inChild([] {
        Quiet quiet;
        return makeSocketWithThreads(1);
    });
    REQUIRE_THREAD_LIMIT(child);
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, "Could not start aynchronousIO thread Send in NwAsyncNetSocket\n");
}

TEST(AsyncFailure, socketWithoutWorkersWorksAsAUdpSocketWhenTheHandlerLetsIt) {
    for (rlim_t threads : {1, 2}) {
        const ChildResult child = inChild([threads] {
            NwNetSocket::initErrorAction = 1;
            NwSetFatalHandler(noteFatal);
            UdpPeer peer;
            if (!allowThreads(threads)) return kCannotLimit;
            Messages messages;
            NwAsyncNetSocket socket(0, kLoopback, kReadQuietly, kLoopback);
            if (socket.usingAsyncReceive() || socket.usingAsyncSend() != (threads == 2)) return 1;
            peer.send("packet", boundPort(socket.readFd()));
            socket.setUnbundling(0);
            if (!(receive(socket) == delivered("packet"))) return 2;
            NwAsyncNetSocket sender(peer.port(), kLoopback, kWriteQuietly, kLoopback);
            if (send(sender, "sent") != 4) return 3;
            return peer.receive() == "sent" ? 0 : 4;
        });
        REQUIRE_THREAD_LIMIT(child);
        EXPECT_EQ(child.exitStatus, 0) << threads << " threads";
    }
}

TEST(AsyncFailure, ofAJoinIsFatal) {
    if (*CVNC_SANITIZER) GTEST_SKIP() << "sanitizers watch joins by themselves";
    const ChildResult sender = inChild([] {
        NwAsyncNetSocket socket(0, kLoopback, kReadQuietly, kLoopback);
        NwSetOutputLevel(NwOutputWarn);
        AsyncPeek::sendThread(socket) = pthread_self();  // nobody can wait for himself
        AsyncPeek::stop(socket);
        return 9;
    });
    EXPECT_EQ(sender.exitStatus, 1);
    EXPECT_EQ(sender.output, "Started Asynchronous I/O Thread\nSend Thread Exit failed.\n");
    const ChildResult receiver = inChild([] {
        Quiet quiet;
        NwAsyncNetSocket socket(0, kLoopback, kReadQuietly, kLoopback);
        AsyncPeek::receiveThread(socket) = pthread_self();
        AsyncPeek::stop(socket);
        return 9;
    });
    EXPECT_EQ(receiver.exitStatus, 1);
    EXPECT_EQ(receiver.output, "Receive Thread Exit failed.\n");
}

namespace {

// A sanitizer looks at the first object of a class, and at the first print, with descriptors of its own: it
// has done so before they become scarce.
void useOneOfThese() {
    Messages unseen;
    NwAsyncNetSocket socket(0, kLoopback, (unsigned char)16, kLoopback);
    send(socket, "x");
    receive(socket);
}

// Only one more descriptor can be opened while it lives: the socket's own, none for the pipe.
class OneMoreDescriptor {
public:
    OneMoreDescriptor() {
        useOneOfThese();
        ::getrlimit(RLIMIT_NOFILE, &myFormer);
        const int next = ::dup(0);
        ::close(next);
        const rlimit limit = {static_cast<rlim_t>(next) + 1, myFormer.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~OneMoreDescriptor() { ::setrlimit(RLIMIT_NOFILE, &myFormer); }
    OneMoreDescriptor(const OneMoreDescriptor&) = delete;
    OneMoreDescriptor& operator=(const OneMoreDescriptor&) = delete;

private:
    rlimit myFormer;
};

}  // namespace

TEST_F(AsyncPipeFailure, isAWarningAndTheSocketGoesOn) {
    std::unique_ptr<NwAsyncNetSocket> socket;
    {
        OneMoreDescriptor scarce;
        socket = writer();
    }
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(messages.warn(), "AsyncConnectionMgr::Init bad pipe\n");
    EXPECT_EQ(messages.info(), "Started Asynchronous I/O Thread\n");
    EXPECT_EQ(AsyncPeek::pipeEnds(*socket)[0], 0);
    EXPECT_EQ(AsyncPeek::pipeEnds(*socket)[1], 0);
    for (int i = 0; i < 10; ++i) send(*socket, pdu(20, i));
    for (int i = 0; i < 10; ++i) EXPECT_EQ(peer.receive(), pdu(20, i)) << "by the time-out";
}

TEST_F(AsyncPipeFailure, isSilentWhileQuiet) {
    Quiet quiet;
    OneMoreDescriptor scarce;
    writer();
    EXPECT_EQ(messages.all(), "");
}

// The marks 0 of a pipe that does not exist are no descriptors. Standard input is one end of a socket pair
// here: a byte written to it would come out at the other.
TEST(AsyncPipe, thatDoesNotExistLeavesStandardInputAlone) {
    const ChildResult child = inChild([] {
        Quiet quiet;
        NwNetSocket::initErrorAction = 1;
        int input[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, input) != 0) return 9;
        ::dup2(input[0], 0);
        if (::write(input[1], "typed", 5) != 5) return 9;
        UdpPeer peer;
        {
            OneMoreDescriptor scarce;
            NwAsyncNetSocket socket(peer.port(), kLoopback, kWriteQuietly, kLoopback);
            for (int i = 0; i < 10; ++i) send(socket, "packet");
        }
        for (int i = 0; i < 10; ++i)
            if (peer.receive() != "packet") return 1;
        if (::fcntl(0, F_GETFL) & O_NONBLOCK) return 2;
        char bytes[10];
        if (::recv(0, bytes, sizeof bytes, MSG_DONTWAIT) != 5) return 3;
        return waitReadable(input[1], 0) ? 4 : 0;
    });
    EXPECT_EQ(child.exitStatus, 0) << child.output;
}

// --- the end ---------------------------------------------------------------------------------------------

TEST_F(AsyncEnd, pipeStaysOpenBehindTheSocket) {
    int ends[2];
    {
        auto socket = writer();
        ends[0] = AsyncPeek::pipeEnds(*socket)[0];
        ends[1] = AsyncPeek::pipeEnds(*socket)[1];
    }
    for (int fd : ends) {
        EXPECT_NE(::fcntl(fd, F_GETFD), -1);
        ::close(fd);
    }
}

TEST_F(AsyncEnd, whatIsQueuedLeavesAndThenTheBundles) {
    auto socket = writer();
    socket->setBundling(1000);
    std::string waits = "bundle";
    EXPECT_EQ(socket->NwSend(&waits[0], waits.size(), 0), 0);
    for (int i = 0; i < 100; ++i) send(*socket, pdu(20, i));
    socket.reset();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(peer.receive(), pdu(20, i));
    EXPECT_EQ(peer.receive(), "bundle");
}

TEST_F(AsyncEnd, takesAtLeastATenthOfASecond) {
    auto socket = writer();
    const NwClock clock;
    socket.reset();
    EXPECT_GE(clock.elapsedRealTime(), 0.1);
}

TEST_F(AsyncEnd, stoppingTwiceIsStoppingOnce) {
    auto socket = writer();
    AsyncPeek::stop(*socket);
    const NwClock clock;
    AsyncPeek::stop(*socket);
    EXPECT_LT(clock.elapsedRealTime(), 0.1);
}

TEST_F(AsyncEnd, afterStoppingSendsAndReadsAreDirect) {
    auto socket = writer();
    AsyncPeek::stop(*socket);
    EXPECT_FALSE(socket->usingAsyncSend());
    EXPECT_FALSE(socket->usingAsyncReceive());
    EXPECT_EQ(send(*socket, "late"), 4);
    EXPECT_EQ(peer.receive(), "late");
    auto in = reader();
    feed(*in, pdu(20, 1));
    ASSERT_TRUE(arrives(*in, 1));
    AsyncPeek::stop(*in);
    feed(*in, pdu(20, 2));
    EXPECT_EQ(receive(*in), delivered(pdu(20, 1)));
    EXPECT_EQ(receive(*in), delivered(pdu(20, 2)));
}

TEST(AsyncWorkers, takeNoSignals) {
    const ChildResult child = inChild([] {
        NwAsyncNetSocket socket(0, kLoopback, kReadQuietly, kLoopback);
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &mask, nullptr);
        ::kill(::getpid(), SIGUSR1);  // would end the process if any thread took it
        const timespec limit = {20, 0};
        return ::sigtimedwait(&mask, nullptr, &limit) == SIGUSR1 ? 0 : 1;
    });
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_EQ(child.signal, 0);
}
