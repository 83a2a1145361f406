// SPDX-License-Identifier: BSD-3-Clause
// Memory that ends at any moment: no exception leaves a socket, and no descriptor stays open.
#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvPairSock.h>
#include <cvNetworkCompatibility/cvTcpForwarder.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "async_peek.h"
#include "client_fixture.h"
#include "file_transfer.h"
#include "messages.h"
#include "network.h"
#include "packets.h"
#include "process.h"
#include "sends.h"
#include "tcp_connections.h"
#include "tcp_peer.h"

namespace {

thread_local int allocationsLeft = -1;            // of this thread before one fails; negative: none does
std::size_t largestAllocation = std::size_t(-1);  // anything larger fails

bool isTheOneToFail() {
    return allocationsLeft >= 0 && allocationsLeft-- == 0;
}

void* allocate(std::size_t size) {
    return size > largestAllocation || isTheOneToFail() ? nullptr : std::malloc(size ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* memory = allocate(size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

namespace {

// Runs work with its n-th allocation failing, for every n until all succeed; returns how many there were.
template <class Work>
int withEachAllocationFailing(const Work& work) {
    for (int n = 0;; ++n) {
        allocationsLeft = n;
        EXPECT_NO_THROW(work()) << "allocation " << n;
        const bool allSucceeded = allocationsLeft >= 0;
        allocationsLeft = -1;
        if (allSucceeded) return n;
    }
}

const NwIpv4Addr kGroup = 0xEF010203u;  // 239.1.2.3

class OutOfMemory : public testing::Test {
protected:
    void SetUp() override {
        NwNetSocket::initErrorAction = 1;
        NwSetOutputLevel(NwOutputDebug);
        NwInfo.rdbuf(nullptr);
        NwWarn.rdbuf(nullptr);
        NwVerbose.rdbuf(nullptr);
    }
    int port = freePort();
    char packet[64] = {};
};

TEST_F(OutOfMemory, openingASocketFailsWithoutExceptionOrOpenDescriptor) {
    const int before = openDescriptors();
    bool isOk = false;
    const int allocations = withEachAllocationFailing([&] {
        NwNetSocket socket(port, kGroup, static_cast<unsigned char>(11), kLoopback);
        isOk = socket.isOk();
        char* received = packet;
        if (!isOk && (socket.NwRecv(&received, nullptr) != 0 || received)) std::abort();
        if (socket.lastSourceInetAddr() != 0 || socket.dataLeftInCurrentBundle()) std::abort();
    });
    EXPECT_GE(allocations, 4) << "two buffers, two addresses";
    EXPECT_TRUE(isOk) << "once memory holds out";
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(OutOfMemory, joiningAGroupNeedsNone) {
    NwNetSocket socket(port, kLoopback, static_cast<unsigned char>(3), kLoopback);
    int joined = 0;
    withEachAllocationFailing([&] { joined = socket.listenToMulticastGroup(kGroup, 0); });
    EXPECT_EQ(joined, 1);
}

TEST_F(OutOfMemory, packetThatNoBundleCanTakeIsRefusedAndTheNextIsTaken) {
    NwNetSocket socket(port, kLoopback, static_cast<unsigned char>(2), kLoopback);
    socket.setBundling(1400);
    allocationsLeft = 0;
    EXPECT_EQ(socket.NwSend(packet, sizeof packet, kLoopback), -1);
    allocationsLeft = -1;
    EXPECT_EQ(socket.NwSend(packet, sizeof packet, kLoopback), 0);
    long sent = 0;
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(sent, static_cast<long>(sizeof packet)) << "the refused packet is not in the bundle";
}

TEST_F(OutOfMemory, pendingPacketsAreNotOverwrittenWhenNothingCanHoldThem) {
    NwNetSocket socket(port, kLoopback, static_cast<unsigned char>(3), kLoopback);
    socket.NwBecomeNonBlocking();
    UdpPeer peer;
    peer.send(pdu(20, 1) + pdu(24, 2), port);
    peer.send(pdu(28, 3), port);
    ASSERT_TRUE(waitReadable(socket.readFd()));
    char* received = nullptr;
    ASSERT_EQ(socket.NwRecv(&received, nullptr), 20);
    socket.setUnbundling(0);
    allocationsLeft = 0;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 0) << "nothing is read";
    allocationsLeft = -1;
    ASSERT_TRUE(eventually([&] { return socket.NwRecv(&received, nullptr) == 28; }));
    socket.setUnbundling(1);
    ASSERT_EQ(socket.NwRecv(&received, nullptr), 24);
    EXPECT_EQ(std::string(received, 24), pdu(24, 2));
}

TEST_F(OutOfMemory, filterLeavesOutWhatItCannotHold) {
    NwFilterTest test;
    unsigned int values[] = {1, 2};
    allocationsLeft = 0;
    EXPECT_NO_THROW(test.setTest(NwTestInclude, 2, values));
    allocationsLeft = -1;
    char one = 1, two = 2;
    EXPECT_FALSE(test.evalTest(&one, 0, NwFilterByte));
    EXPECT_TRUE(test.evalTest(&two, 0, NwFilterByte));
}

TEST_F(OutOfMemory, socketsWithinTheProcessNeedLittle) {
    int received = -1;
    withEachAllocationFailing([&] {
        NwQueueSocket socket;
        const bool isSent = socket.sendTo(packet, sizeof packet, 0) == static_cast<int>(sizeof packet);
        char copy[64];
        received = socket.NwRecv(copy, sizeof copy);
        if (received != (isSent ? static_cast<int>(sizeof packet) : 0)) std::abort();
    });
    EXPECT_EQ(received, static_cast<int>(sizeof packet)) << "once memory holds out";
    EXPECT_EQ(withEachAllocationFailing([] { NwSocketPairSocket pair(-1); }), 0);
}

TEST_F(OutOfMemory, siteThatTheListCannotHoldIsLeftOut) {
    NwGroupSocket socket(port, kLoopback, static_cast<unsigned char>(2), kLoopback);
    NwSocket::setQuietSockets(true);
    allocationsLeft = 0;
    EXPECT_NO_THROW(socket.addRemoteSite(kLoopback));
    allocationsLeft = -1;
    EXPECT_EQ(socket.findItem(kLoopback), nullptr);
    socket.addRemoteSite(kLoopback);
    EXPECT_NE(socket.findItem(kLoopback), nullptr);
    NwSocket::setQuietSockets(false);
}

// The steps of the workers, on this thread.
TEST_F(OutOfMemory, asynchronousSocketRefusesOrDropsWhatItCannotQueue) {
    NwAsyncNetSocket socket(port, kLoopback, static_cast<unsigned char>(1 | 2 | 8), kLoopback);
    AsyncPeek::dismissWorkers(socket);
    allocationsLeft = 0;
    EXPECT_EQ(socket.sendTo(packet, sizeof packet, kLoopback), -1);
    allocationsLeft = -1;
    EXPECT_EQ(AsyncPeek::unsent(socket), 0u);

    UdpPeer peer;
    peer.send(pdu(20, 1), port);
    peer.send(pdu(24, 2), port);
    Messages messages;
    allocationsLeft = 0;
    EXPECT_NO_THROW(socket.processReceiveQueue());
    allocationsLeft = -1;
    EXPECT_EQ(messages.warn(), "NwAsyncNetSocket: no memory to queue a datagram of 20 bytes\n");
    socket.processReceiveQueue();
    char* received = nullptr;
    ASSERT_EQ(socket.NwRecv(&received, nullptr), 24);
    EXPECT_EQ(std::string(received, 24), pdu(24, 2));
}

// A TCP socket whose kernel and whose memory end by appointment.
class TcpOutOfMemory : public testing::Test {
protected:
    int send(const std::string& bytes) {
        std::string copy = bytes;
        return socket.sendTo(&copy[0], copy.size(), 0u);
    }
    // A send whose n-th allocation from now on fails, the caller's own not counted.
    int sendWithout(int n, const std::string& bytes) {
        std::string copy = bytes;
        allocationsLeft = n;
        const int sent = socket.sendTo(&copy[0], copy.size(), 0u);
        allocationsLeft = -1;
        return sent;
    }
    int waiting() const { return socket.getQueueStatus().first; }

    TcpListener listener;
    NwTcpSocket socket{kLoopback, listener.port(), 0};
    TcpPeer peer{listener.accept()};
    Messages messages;
};

const int kAllocationsOfAPiece = 3;  // record, bytes, place in the list

class TcpOutOfMemoryAt : public TcpOutOfMemory, public testing::WithParamInterface<int> {};

TEST_P(TcpOutOfMemoryAt, packetThatCannotBeQueuedEndsTheConnection) {
    const std::string waits(20, 'w');
    Sends sends(socket.writeFd());
    sends.keepRecord(false);
    sends.always(hasNoRoom());
    send(waits);
    EXPECT_EQ(sendWithout(GetParam(), std::string(100, 'a')), 0);
    EXPECT_EQ(waiting(), 1);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), "NwTcpSocket: no memory to queue 100 bytes\n");
    sendWithout(GetParam(), std::string(100, 'a'));
    EXPECT_EQ(messages.all(), "") << "said once";
    sends.always(takesAll());
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(20), waits);
}

TEST_P(TcpOutOfMemoryAt, nothingFollowsAPacketWhoseRestCannotBeKept) {
    Sends sends(socket.writeFd());
    sends.keepRecord(false);
    sends.next({takes(60)});
    EXPECT_EQ(sendWithout(GetParam(), std::string(100, 'a')), 60);
    EXPECT_EQ(waiting(), 0);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), "NwTcpSocket: no memory to queue 40 bytes\n");
    EXPECT_EQ(send(std::string(50, 'b')), 0);
    socket.setBundling(1400);
    char packet[] = "ccc";
    socket.NwSend(packet, 3, 0u);
    socket.flush();
    EXPECT_EQ(peer.receiveToEnd(), std::string(60, 'a')) << "the peer sees the end inside the packet";
}

TEST_P(TcpOutOfMemoryAt, bundleThatCannotBeQueuedStaysABundle) {
    socket.setBundling(1400);
    char first[] = "first", second[] = "second";
    socket.NwSend(first, 5, 1u);
    socket.NwSend(second, 6, 2u);
    long sent = 4711;
    allocationsLeft = GetParam();
    EXPECT_EQ(socket.flush(sent), -1);
    allocationsLeft = -1;
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(waiting(), 0);
    allocationsLeft = kAllocationsOfAPiece + GetParam();
    EXPECT_EQ(socket.flush(sent), -1);
    allocationsLeft = -1;
    EXPECT_EQ(sent, 5) << "what got into the queue leaves";
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.flush(sent), 1);
    EXPECT_EQ(sent, 6);
    EXPECT_EQ(peer.receive(11), "firstsecond");
    EXPECT_EQ(messages.all(), "");
}

INSTANTIATE_TEST_SUITE_P(EachAllocation, TcpOutOfMemoryAt, testing::Range(0, kAllocationsOfAPiece));

TEST_F(TcpOutOfMemory, sendingAndCuttingAQueuedPieceNeedNone) {
    Sends sends(socket.writeFd());
    sends.next({hasNoRoom()});
    send(std::string(100, 'a'));
    sends.next({takes(60)});
    sends.keepRecord(false);
    long sent = 0;
    allocationsLeft = 0;
    EXPECT_EQ(socket.flush(sent), 0);
    allocationsLeft = -1;
    EXPECT_EQ(sent, 60);
    EXPECT_EQ(waiting(), 1);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(100), std::string(100, 'a'));
}

TEST_F(TcpOutOfMemory, nothingFollowsAPieceCutBehindAStuckTestThatCannotGoFirst) {
    Sends sends(socket.writeFd());
    sends.always(hasNoRoom());
    for (const std::string& piece : {std::string("tt"), std::string(9, 'a'), std::string(9, 'b')})
        send(piece);
    sends.always(takesAll());
    sends.next({refuses(EPIPE), takes(5)});
    sends.keepRecord(false);
    messages.all();
    long sent = 0;
    allocationsLeft = 0;
    EXPECT_EQ(socket.flush(sent), 0);
    allocationsLeft = -1;
    EXPECT_EQ(sent, 5);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), "NwTcpSocket: no memory to queue 4 bytes\n");
    EXPECT_EQ(socket.flush(), -1);
    EXPECT_EQ(send(std::string(50, 'c')), 0);
    EXPECT_EQ(peer.receiveToEnd(), std::string(5, 'a'));
}

TEST_F(OutOfMemory, tcpSocketWithoutBufferIsNotOk) {
    TcpListener listener;
    const int tcpPort = listener.port();
    const int before = openDescriptors();
    for (bool isClient : {true, false}) {
        bool isOk = false;
        EXPECT_GE(withEachAllocationFailing([&] {
                      const int fd = isClient ? -1 : TcpPeer(tcpPort).release();
                      NwTcpSocket socket =
                          isClient ? NwTcpSocket(kLoopback, tcpPort, 0) : NwTcpSocket(fd, kLoopback, tcpPort);
                      isOk = socket.isOk();
                      char* received = packet;
                      if (socket.NwRecv(&received, nullptr) != 0 || received) std::abort();
                  }),
                  1)
            << "the buffer";
        EXPECT_TRUE(isOk) << "once memory holds out";
    }
    EXPECT_EQ(openDescriptors(), before);
    Messages messages;
    allocationsLeft = 0;
    NwTcpSocket socket(kLoopback, tcpPort, 0);
    allocationsLeft = -1;
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.warn(), "NwTcpSocket: no memory for packets of 20000 bytes\n");
}

TEST_F(OutOfMemory, tcpPacketThatMemoryCannotHoldEndsItsConnection) {
    TcpListener listener;
    TcpPeer peer(listener.port());
    NwTcpSocket socket(listener.acceptFd(), kLoopback, 0);
    Messages messages;
    peer.sendAll(std::string("\0\5abc\xAF\xC8", 7) + "start");
    ASSERT_TRUE(waitReadable(socket.readFd()));
    char* received = nullptr;
    int status = 7;
    ASSERT_EQ(socket.NwRecv(&received, &status), 5);
    ASSERT_TRUE(waitReadable(socket.readFd()));
    allocationsLeft = 0;
    EXPECT_EQ(socket.NwRecv(&received, &status), 0);
    allocationsLeft = -1;
    EXPECT_EQ(received, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), "NwTcpSocket: bad packet length 45000\n");
    EXPECT_EQ(socket.NwRecv(&received, &status), 0) << "also with memory";
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpOutOfMemory, connectionTestThatCannotBeMadeIsNotSent) {
    allocationsLeft = 0;
    EXPECT_EQ(socket.sendMinimumSizePkt(true), 0);
    allocationsLeft = -1;
    EXPECT_TRUE(socket.isOk());
    EXPECT_TRUE(socket.isConnectionEstablished());
}

void count(NwTcpSocket*, void* calls) {
    ++*static_cast<int*>(calls);
}

TEST_F(OutOfMemory, tcpCallbackThatTheListCannotHoldIsNotRegistered) {
    const Quiet quiet;
    NwTcpSocketMgr manager(0);
    Messages messages;
    int known = 0, unknown = 0;
    manager.addSocketAdditionCallback(count, &known);
    manager.addSocketRemovalCallback(count, &known);
    for (const int allocation : {0, 1}) {  // the record, its place in the list
        allocationsLeft = allocation;
        manager.addSocketAdditionCallback(count, &unknown);
        EXPECT_EQ(messages.warn(), "NwTcpSocketMgr: no memory for a callback\n");
        allocationsLeft = allocation;
        manager.addSocketRemovalCallback(count, &unknown);
        EXPECT_EQ(messages.warn(), "NwTcpSocketMgr: no memory for a callback\n");
        allocationsLeft = -1;
    }
    const TcpPeer peer = connectTo(manager);
    manager.processConnections();
    manager.removeAndDelete(socketsOf(manager).at(0));
    EXPECT_EQ(known, 2);
    EXPECT_EQ(unknown, 0);
}

TEST_F(OutOfMemory, tcpConnectionThatMemoryCannotHoldIsClosed) {
    const Quiet quiet;
    NwTcpSocketMgr manager(0);
    Messages messages;
    int added = 0;
    manager.addSocketAdditionCallback(count, &added);
    const int before = openDescriptors();
    const std::string complaint = "NwTcpSocketMgr: no memory for a connection\n";
    const std::string expected[] = {complaint, "", complaint, ""};  // the socket, its buffer, its place
    for (int allocation = 0; allocation < 4; ++allocation) {
        SCOPED_TRACE(allocation);
        TcpPeer peer = connectTo(manager);
        added = 0;
        allocationsLeft = allocation;
        EXPECT_NO_THROW(manager.processConnections());
        EXPECT_EQ(allocationsLeft >= 0, allocation == 3) << "the last one needs no more";
        allocationsLeft = -1;
        EXPECT_EQ(messages.all(), expected[allocation]);
        const std::vector<NwTcpSocket*> sockets = socketsOf(manager);
        const bool isKept = expected[allocation].empty();
        ASSERT_EQ(sockets.size(), isKept ? 1u : 0u);
        EXPECT_EQ(added, isKept ? 1 : 0);
        if (isKept) {
            EXPECT_EQ(sockets[0]->isOk(), allocation == 3) << "its owner removes what is not ok";
            manager.removeAndDelete(sockets[0]);
        }
        EXPECT_EQ(peer.receiveToEnd(), "");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(OutOfMemory, relayingNeedsNone) {
    const Quiet quiet;
    NwTcpForwarder relay(0);
    TcpPeer first = connectTo(*relay.socketMgr());
    TcpPeer second = connectTo(*relay.socketMgr());
    relay.socketMgr()->processConnections();
    NwSetOutputLevel(NwOutputInfo);
    const std::string bytes("\0\6four", 6);
    first.sendAll(bytes);
    ASSERT_TRUE(waitReadable(socketsOf(*relay.socketMgr())[0]->readFd()));
    EXPECT_EQ(withEachAllocationFailing([&] { relay.readAndForward(1000, 1000); }), 0);
    EXPECT_EQ(first.receive(bytes.size()), bytes);
    EXPECT_EQ(second.receive(bytes.size()), bytes);
    first.close();
    ASSERT_TRUE(waitReadable(socketsOf(*relay.socketMgr())[0]->readFd()));
    EXPECT_EQ(withEachAllocationFailing([&] { relay.readAndForward(1000, 1000); }), 0);
    EXPECT_EQ(socketsOf(*relay.socketMgr()).size(), 1u);
}

// Calls `work` with its n-th allocation failing. True when it needed no more than n.
template <class Work>
bool succeedsWith(int n, const Work& work) {
    allocationsLeft = n;
    EXPECT_NO_THROW(work()) << "allocation " << n;
    const bool allSucceeded = allocationsLeft >= 0;
    allocationsLeft = -1;
    return allSucceeded;
}

TEST_F(OutOfMemory, aFileIsSentWholeOrNotAtAll) {
    NwDebug.rdbuf(nullptr);
    const Directory dir;
    const NwFilename file(dir.write("file", std::string(100, 'x')));
    TcpListener listener;
    NwFileTransporter sender(-1, false, 0, dir.path(), nullptr);
    const int before = openDescriptors();
    int n = 0, sent = 0;
    for (bool isOver = false; !isOver; ++n) {
        bool result = false;
        isOver = succeedsWith(n, [&] { result = sender.sendFile(file, kLoopback, listener.port()); });
        sent += result;
        EXPECT_EQ(result, sender.lastSendComplete());
        EXPECT_TRUE(result || !isOver);
        std::string stream;
        if (waitReadable(listener.fd(), 0)) stream = listener.accept().receiveToEnd();
        EXPECT_EQ(stream.size(), result ? 21u + 4 + 100 : 0u) << "allocation " << n;
    }
    EXPECT_GE(n, 4) << "the file, a message, the socket's buffer, and none";
    EXPECT_GE(sent, 1);
    EXPECT_EQ(openDescriptors(), before);
}

void countFile(const NwFilename&, void* counter) {
    ++*static_cast<int*>(counter);
}

TEST_F(OutOfMemory, aFileIsReceivedWholeOrNotAtAll) {
    NwDebug.rdbuf(nullptr);
    const Quiet quiet;
    const Directory dir;
    NwFileTransporter receiver(0, false, 0, dir.path(), nullptr);
    int arrived = 0;
    receiver.addFileTransferedCallback(countFile, &arrived);
    const std::string stream =
        FirstMessage(1, "a name that is longer than a short string", "ab").announcing(4).bytes() +
        laterMessage(1, "cd");
    int n = 0;
    for (bool isOver = false; !isOver; ++n) {
        TcpPeer peer(receiver.port());
        peer.sendAll(stream);
        const int before = arrived;
        isOver = succeedsWith(n, [&] { receiver.tick(); });
        EXPECT_TRUE(arrived > before || !isOver);
        const auto files = dir.tree();
        ASSERT_EQ(files.size(), static_cast<std::size_t>(arrived - before)) << "allocation " << n;
        if (files.empty()) continue;
        EXPECT_EQ(files.begin()->second, "abcd");
        ::unlink((dir / files.begin()->first).c_str());
    }
    EXPECT_GE(n, 6) << "the socket, its buffer, a message, a transfer, its name, its data";
    EXPECT_GE(arrived, 1);
}

// Memory that does not hold a transfer, or not even a message, ends that connection with one line.
TEST_F(OutOfMemory, aFileThatMemoryCannotHoldEndsItsTransferAlone) {
    const Quiet quiet;
    const Directory dir;
    NwFileTransporter receiver(0, false, 0, dir.path(), nullptr);
    NwSetOutputLevel(NwOutputWarn);
    FlushedWarnings warnings;
    const std::vector<std::string> noMemory = {"FileTransporter: no memory-Exiting transfer\n"};
    const std::string bytes = randomBytes(2000000);
    for (const std::size_t largest :
         {std::size_t(1) << 20, static_cast<std::size_t>(NwMaxPacketSize()) - 1}) {
        SCOPED_TRACE(largest);
        TcpPeer peer(receiver.port());
        const std::string stream = streamOf(7, "large", bytes, NwMaxPacketSize());
        std::thread sending([&] {
            for (std::size_t at = 0; at < stream.size();) {
                const ssize_t n = ::send(peer.fd(), stream.data() + at, stream.size() - at, MSG_NOSIGNAL);
                if (n <= 0) break;
                at += static_cast<std::size_t>(n);
            }
        });
        largestAllocation = largest;
        EXPECT_NO_THROW(receiver.tick());
        largestAllocation = std::size_t(-1);
        sending.join();
        EXPECT_EQ(warnings.take(), noMemory);
        EXPECT_TRUE(dir.tree().empty());
    }
    TcpPeer peer(receiver.port());
    peer.sendAll(FirstMessage(1, "next", "data").bytes());
    receiver.tick();
    EXPECT_EQ(dir.contents("next"), "data");
    EXPECT_EQ(warnings.take(), std::vector<std::string>());
}

// The same for a file that is to be sent.
TEST_F(OutOfMemory, aFileThatMemoryCannotHoldIsNotSent) {
    const Directory dir;
    const std::string path = dir.write("large", std::string(2000000, 'x'));
    TcpListener listener;
    NwFileTransporter sender(-1, false, 0, dir.path(), nullptr);
    NwSetOutputLevel(NwOutputWarn);
    FlushedWarnings warnings;
    const std::string text = "Corvane(NwFileTransporter) error reading file ";
    const NwFilename file(path);
    largestAllocation = std::size_t(1) << 20;
    EXPECT_FALSE(sender.sendFile(file, kLoopback, listener.port()));
    largestAllocation = std::size_t(-1);
    EXPECT_EQ(warnings.take(), std::vector<std::string>{text + path + "\n"});
    EXPECT_FALSE(waitReadable(listener.fd(), 0)) << "nobody was connected to";
}

// A client of the packet server that is made while the n-th allocation from now on fails.
class ClientOutOfMemory : public ClientSocketTest {
protected:
    // Returns whether it was not reached: all succeeded.
    bool attachWithout(int n) {
        // The buffer for packets comes before the server is asked.
        if (n > 0) server->answerAttach(server->good());
        allocationsLeft = n;
        EXPECT_NO_THROW(client.emplace(FakePacketServer::kPort, kLoopback, -1, NwClientSocket::defaultFlags));
        const bool allSucceeded = allocationsLeft >= 0;
        allocationsLeft = -1;
        server->answered();
        server->drain();
        server->hangUp();
        return allSucceeded;
    }

    std::optional<Client> client;
    char packet[64] = {};
};

TEST_F(ClientOutOfMemory, withoutItsBufferOrItsReaderTheAttachSaysSoAndFails) {
    const std::string texts[] = {"NwClientSocket: no memory for packets of 15000 bytes\n",
                                 "NwClientSocket: no memory for the queue's reader\n"};
    const int before = openDescriptors();
    for (int n = 0; n < 2; ++n) {
        SCOPED_TRACE(n);
        Messages messages;
        attachWithout(n);
        EXPECT_EQ(warned(texts[n]), printed(messages));
        EXPECT_EQ(kNotOk, fatal.take());
        EXPECT_FALSE(client->isOk());
        const Quiet quiet;
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        EXPECT_EQ(before, openDescriptors());
        EXPECT_EQ(0, attachments(server->segment.shmId()) - 1) << "the server's own";
        attachWithout(n);
        client.reset();
        EXPECT_EQ(nothingPrinted(), printed(messages)) << "while quiet";
        fatal.take();
    }
}

// A client without the rest is one: it receives, and what it has not it does without.
TEST_F(ClientOutOfMemory, withoutTheRestItIsAClient) {
    const Quiet quiet;
    unsigned int kind = 1;
    bool allSucceeded = false, canSend = false;
    int n = 2;
    for (; !allSucceeded; ++n) {
        SCOPED_TRACE(n);
        renewServer();
        allSucceeded = attachWithout(n);
        ASSERT_TRUE(client->isOk());
        canSend = client->sendTo(packet, sizeof packet, kLoopback) == static_cast<int>(sizeof packet);
        client->setMcastTtl(3);
        for (NwFilterTest* test :
             {&client->exerciseId(), &client->protocolVersion(), &client->pduKind(), &client->ipAddr()})
            test->setTest(NwTestInclude, 1, &kind);
        client->requestServerState();
        server->deliver("abc");
        char* received = nullptr;
        EXPECT_EQ(3, client->NwRecv(&received, nullptr));
        client.reset();
        EXPECT_EQ("", fatal.take());
    }
    EXPECT_GE(n, 8) << "a control message, four filter tests and a sending socket";
    EXPECT_TRUE(canSend) << "once memory holds out";
}

}  // namespace
