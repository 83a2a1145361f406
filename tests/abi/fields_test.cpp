// SPDX-License-Identifier: BSD-3-Clause
// The fields that derived classes reach: their order, types and places, and the size of each class. Programs
// that are already built have these places in their code.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <type_traits>
#include <vector>

#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvPairSock.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvNetworkCompatibility/cvTcpForwarder.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>
#include <cvutil/cvShmMsgQueue.h>

namespace {

struct Field {
    const char* name;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;

    std::size_t end() const { return offset + size; }
};

// One field of Class as it lies in object. Does not compile when the field is of another type or class.
template <class Type, class Class, class Member>
Field fieldOf(const char* name, Member member, const Class& object) {
    static_assert(std::is_same<Member, Type Class::*>::value, "a field has its documented type and class");
    const char* place = reinterpret_cast<const char*>(std::addressof(object.*member));
    const char* start = reinterpret_cast<const char*>(std::addressof(object));
    return {name, static_cast<std::size_t>(place - start), sizeof(Type), alignof(Type)};
}

// `Owner` documents the field; `Probe` derives from it, and so may name it; `probe` is one.
#define FIELD(type, field) fieldOf<type, Owner>(#field, &Probe::field, probe)

std::size_t roundedUp(std::size_t offset, std::size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

// Each field begins where the one before it ends, so nothing stands between or in another order; what
// else the class holds comes behind the last.
void expectInOrder(const std::vector<Field>& fields, std::size_t start, std::size_t classSize) {
    std::size_t end = start;
    for (const Field& field : fields) {
        EXPECT_EQ(field.offset, roundedUp(end, field.alignment)) << field.name;
        end = field.end();
    }
    EXPECT_LE(end, classSize);
}

const std::size_t kVirtualTablePointer = sizeof(void*);

class FilterTestFields : public NwFilterTest {
public:
    static std::vector<Field> all() {
        typedef NwFilterTest Owner;
        typedef FilterTestFields Probe;
        Probe probe;
        return {FIELD(NwTestOperator, op), FIELD(NwList, values)};
    }
};

class SocketFields : public NwSocket {
public:
    int sendTo(char*, unsigned long, unsigned int) override { return 0; }
    int NwRecv(char**, int*) override { return 0; }
    int NwRecv(char*, unsigned long) override { return 0; }

    static std::vector<Field> all() {
        typedef NwSocket Owner;
        typedef SocketFields Probe;
        typedef std::map<NwIpv4Addr, std::vector<char>> Bundles;
        Probe probe;
        return {FIELD(int, blocking),
                FIELD(int, packetsReceived),
                FIELD(Bundles, bundles),
                FIELD(int, bundling),
                FIELD(int, bundleSize),
                FIELD(int, socketFd),
                FIELD(NwFilterTest, exerciseIdTest),
                FIELD(NwFilterTest, protocolVersionTest),
                FIELD(NwFilterTest, pduKindTest),
                FIELD(NwFilterTest, ipAddrTest)};
    }
};

class NetSocketFields : public NwNetSocket {
public:
    // Opens nothing and prints nothing.
    NetSocketFields() : NwNetSocket(0, loopbackAddr, (unsigned char)NwNetSocketQuietStart, loopbackAddr) {}

    static std::vector<Field> all() {
        typedef NwNetSocket Owner;
        typedef NetSocketFields Probe;
        Probe probe;
        return {FIELD(int, port),
                FIELD(int, filterPort),
                FIELD(int, sendPort),
                FIELD(int, reserved),
                FIELD(std::unique_ptr<char[]>, recvBuffer),
                FIELD(std::unique_ptr<char[]>, copyBuffer),
                FIELD(char*, bundleCursor),
                FIELD(int, adoptedFd),
                FIELD(NwIpv4Addr, adoptedAddr),
                FIELD(NwIpv4Addr, destAddr),
                FIELD(NwIpv4Addr, mcastDevice_),
                FIELD(int, unbundling),
                FIELD(int, bytesLeftInBundle),
                FIELD(int, minPacketSize_),
                FIELD(int, sizeOffset_),
                FIELD(int, sizeLength_),
                FIELD(int, bufferSize),
                FIELD(bool, testDisHeader_),
                FIELD(int, boundToDest),
                FIELD(int, firstInBundle),
                FIELD(int, bundleExercise),
                FIELD(int, bundleProtocol),
                FIELD(bool, ok),
                FIELD(std::unique_ptr<sockaddr_in>, destSockAddr),
                FIELD(std::unique_ptr<sockaddr_in>, sourceSockAddr),
                FIELD(unsigned char, mode)};
    }
};

class QueueSocketFields : public NwQueueSocket {
public:
    static std::vector<Field> all() {
        typedef NwQueueSocket Owner;
        typedef QueueSocketFields Probe;
        Probe probe;
        return {FIELD(NwList, queue), FIELD(std::unique_ptr<char[]>, recvBuffer), FIELD(int, recvBufferSize)};
    }
};

class PairSocketFields : public NwSocketPairSocket {
public:
    PairSocketFields() : NwSocketPairSocket(-1) {}

    static std::vector<Field> all() {
        typedef NwSocketPairSocket Owner;
        typedef PairSocketFields Probe;
        typedef char Landing[1500];
        Probe probe;
        return {FIELD(int, fd), FIELD(int, peerFd), FIELD(Landing, buffer)};
    }
};

class GroupSocketFields : public NwGroupSocket {
public:
    GroupSocketFields()
        : NwGroupSocket(0, loopbackAddr, (unsigned char)NwNetSocketQuietStart, loopbackAddr) {}

    static std::vector<Field> all() {
        typedef NwGroupSocket Owner;
        typedef GroupSocketFields Probe;
        Probe probe;
        return {FIELD(NwList, remoteSites)};
    }
};

class AsyncPacketFields : public NwAsyncSocketPacket {
public:
    static std::vector<Field> all() {
        typedef NwAsyncSocketPacket Owner;
        typedef AsyncPacketFields Probe;
        Probe probe;
        return {FIELD(int, mySize), FIELD(std::vector<char>, myData), FIELD(unsigned int, myAddr),
                FIELD(NwIpv4Addr, mySourceAddr), FIELD(int, mySourcePort)};
    }
};

class WaitFields : public NwSelectParamWithWrite {
public:
    static std::vector<Field> all() {
        typedef NwSelectParamWithWrite Owner;
        typedef WaitFields Probe;
        Probe probe;
        return {FIELD(int, myHighest), FIELD(fd_set, myReadSet), FIELD(fd_set, myWriteSet),
                FIELD(fd_set, myReadyToRead), FIELD(fd_set, myReadyToWrite)};
    }
};

// Looked at on an object of the library's own class: its workers run while it lives.
class AsyncSocketFields : public NwAsyncNetSocket {
public:
    static std::vector<Field> all() {
        typedef NwAsyncNetSocket Owner;
        typedef AsyncSocketFields Probe;
        typedef NwThreadSafe<Packets> Queue;
        typedef int Pipe[2];
        NwSocket::setQuietSockets(true);
        NwAsyncNetSocket probe(0, loopbackAddr, (unsigned char)NwNetSocketQuietStart, loopbackAddr);
        NwSocket::setQuietSockets(false);
        return {FIELD(std::atomic<bool>, myUsingAsyncSend),
                FIELD(std::atomic<bool>, myUsingAsyncReceive),
                FIELD(Queue, mySendQueue),
                FIELD(Queue, myReceiveQueue),
                FIELD(std::atomic<bool>, myStopSend),
                FIELD(std::atomic<bool>, myStopReceive),
                FIELD(std::unique_ptr<char[]>, myRecvBuffer),
                FIELD(pthread_t, mySendThread),
                FIELD(pthread_t, myReceiveThread),
                FIELD(Pipe, myPipe)};
    }
};

// Around a descriptor without a connection.
class TcpSocketFields : public NwTcpSocket {
public:
    TcpSocketFields() : NwTcpSocket(::socket(AF_INET, SOCK_STREAM, 0), loopbackAddr, 0) {}

    static std::vector<Field> all() {
        typedef NwTcpSocket Owner;
        typedef TcpSocketFields Probe;
        NwSocket::setQuietSockets(true);
        Probe probe;
        NwSocket::setQuietSockets(false);
        return {FIELD(std::unique_ptr<char[]>, pktBuffer),
                FIELD(unsigned int, pktBufferSize),
                FIELD(NwIpv4Addr, peerAddr),
                FIELD(int, peerPortNumber),
                FIELD(int, localPortNumber),
                FIELD(bool, ok),
                FIELD(int, waitingForSize),
                FIELD(int, sizeOffset),
                FIELD(int, sizeLength),
                FIELD(unsigned int, bytesToRead),
                FIELD(unsigned int, bytesRead),
                FIELD(NwList, sendQueue),
                FIELD(int, maxQueue)};
    }
};

class TcpSocketMgrFields : public NwTcpSocketMgr {
public:
    TcpSocketMgrFields() : NwTcpSocketMgr(0) {}

    static std::vector<Field> all() {
        typedef NwTcpSocketMgr Owner;
        typedef TcpSocketMgrFields Probe;
        Probe probe;
        return {FIELD(int, listenFd),
                FIELD(int, sizeOffset_),
                FIELD(int, sizeLength_),
                FIELD(int, currentSockFd_),
                FIELD(NwIpv4Addr, currentClientAddr_),
                FIELD(int, currentClientPort_),
                FIELD(NwList, socketList_),
                FIELD(int, ok),
                FIELD(int, addrInUse_),
                FIELD(bool, noDelay),
                FIELD(unsigned int, packetBundling),
                FIELD(SocketFactory, socketFactory),
                FIELD(void*, factoryData),
                FIELD(NwList, additionCallbacks),
                FIELD(NwList, removalCallbacks)};
    }
};

class TcpForwarderFields : public NwTcpForwarder {
public:
    TcpForwarderFields() : NwTcpForwarder(0) {}

    static std::vector<Field> all() {
        typedef NwTcpForwarder Owner;
        typedef TcpForwarderFields Probe;
        Probe probe;
        return {FIELD(std::unique_ptr<NwTcpSocketMgr>, socketMgr_), FIELD(NwListPosition, nextSocket),
                FIELD(NwClock, clock), FIELD(NwList*, sockets)};
    }
};

class FileTransporterFields : public NwFileTransporter {
public:
    FileTransporterFields() : NwFileTransporter(-1, false, 0, "", nullptr) {}

    static std::vector<Field> all() {
        typedef NwFileTransporter Owner;
        typedef FileTransporterFields Probe;
        typedef std::map<FileTransferedCallback, void*> Callbacks;
        typedef std::map<int, NwFileTransportObject> Transfers;
        Probe probe;
        return {FIELD(Callbacks, callbacks),
                FIELD(int, myPort),
                FIELD(std::unique_ptr<NwTcpSocketMgr>, mySocketMgr),
                FIELD(NwFilename, targetDir),
                FIELD(Transfers, transfers),
                FIELD(bool, sendComplete)};
    }
};

class FileTransportObjectFields : public NwFileTransportObject {
public:
    static std::vector<Field> all() {
        typedef NwFileTransportObject Owner;
        typedef FileTransportObjectFields Probe;
        Probe probe;
        return {FIELD(std::int32_t, identifier),
                FIELD(NwFilename, fileName),
                FIELD(std::uint32_t, fileSize),
                FIELD(std::int64_t, dataSize),
                FIELD(std::int64_t, bytesReceived),
                FIELD(std::vector<char>, data),
                FIELD(NwFileTransporter::NwFileTransportFlags, flags),
                FIELD(bool, headerSeen)};
    }
};

class CsFilterTestFields : public NwCsFilterTest {
public:
    CsFilterTestFields() : NwCsFilterTest(-1, 0, 0) {}

    static std::vector<Field> all() {
        typedef NwCsFilterTest Owner;
        typedef CsFilterTestFields Probe;
        Probe probe;
        return {FIELD(NwCsFilterMsg, msg)};
    }
};

// One whose attach failed, for want of a server.
class ClientSocketFields : public NwClientSocket {
public:
    ClientSocketFields()
        : NwClientSocket(3000, loopbackAddr, -1, (unsigned short)NwClientSocket::defaultFlags) {}

    static std::vector<Field> all() {
        typedef NwClientSocket Owner;
        typedef ClientSocketFields Probe;
        typedef char Path[160];
        NwSetPacketServerDirectory("/nonexistent");
        NwSocket::setQuietSockets(true);
        const NwFatalHandler former = NwSetFatalHandler([](const char*) {});
        std::unique_ptr<Probe> made(new Probe);
        const Probe& probe = *made;
        const std::vector<Field> fields = {FIELD(double, timeout),
                                           FIELD(std::unique_ptr<NwShmMsgQueueReader>, reader),
                                           FIELD(NwNetSocket*, netSocket),
                                           FIELD(bool, notifyPending),
                                           FIELD(bool, ok),
                                           FIELD(int, notifyFd),
                                           FIELD(int, requestFd),
                                           FIELD(int, clientId),
                                           FIELD(std::unique_ptr<NwCsFilterTest>, exerciseIdTest),
                                           FIELD(std::unique_ptr<NwCsFilterTest>, protocolVersionTest),
                                           FIELD(std::unique_ptr<NwCsFilterTest>, pduKindTest),
                                           FIELD(std::unique_ptr<NwCsFilterTest>, ipAddrTest),
                                           FIELD(NwIpv4Addr, addr),
                                           FIELD(Path, notifyPath),
                                           FIELD(int, port),
                                           FIELD(bool, internal),
                                           FIELD(NwIpv4Addr, lastSource),
                                           FIELD(std::unique_ptr<std::uint64_t[]>, recvBuffer),
                                           FIELD(void*, shmBase),
                                           FIELD(std::unique_ptr<NwCsControlReqMsg>, controlMsg)};
        made.reset();
        NwSetFatalHandler(former);
        NwSocket::setQuietSockets(false);
        NwSetPacketServerDirectory(nullptr);
        return fields;
    }
};

}  // namespace

TEST(FieldOrder, ofTheFilterTest) {
    expectInOrder(FilterTestFields::all(), kVirtualTablePointer, sizeof(NwFilterTest));
}

TEST(FieldOrder, ofTheSocket) {
    expectInOrder(SocketFields::all(), kVirtualTablePointer, sizeof(NwSocket));
}

TEST(FieldOrder, ofTheUdpSocket) {
    expectInOrder(NetSocketFields::all(), sizeof(NwSocket), sizeof(NwNetSocket));
}

TEST(FieldOrder, ofTheQueueSocket) {
    expectInOrder(QueueSocketFields::all(), sizeof(NwSocket), sizeof(NwQueueSocket));
}

TEST(FieldOrder, ofTheQueuedPacket) {
    EXPECT_EQ(offsetof(NwQueuedPacket, size), 0u);
    EXPECT_EQ(offsetof(NwQueuedPacket, data), sizeof(char*));
    EXPECT_EQ(sizeof(NwQueuedPacket), 2 * sizeof(char*));
}

TEST(FieldOrder, ofThePairSocket) {
    expectInOrder(PairSocketFields::all(), sizeof(NwSocket), sizeof(NwSocketPairSocket));
}

TEST(FieldOrder, ofTheGroupSocket) {
    expectInOrder(GroupSocketFields::all(), sizeof(NwNetSocket), sizeof(NwGroupSocket));
}

TEST(FieldOrder, ofTheAsynchronousSocketsPacket) {
    expectInOrder(AsyncPacketFields::all(), kVirtualTablePointer, sizeof(NwAsyncSocketPacket));
}

TEST(FieldOrder, ofTheDescriptorsToWaitOn) {
    expectInOrder(WaitFields::all(), 0, sizeof(NwSelectParamWithWrite));
}

TEST(FieldOrder, ofTheAsynchronousSocket) {
    expectInOrder(AsyncSocketFields::all(), sizeof(NwNetSocket), sizeof(NwAsyncNetSocket));
}

TEST(FieldOrder, ofTheTcpSocket) {
    expectInOrder(TcpSocketFields::all(), sizeof(NwSocket), sizeof(NwTcpSocket));
}

TEST(FieldOrder, ofTheQueuedPieceOfAStream) {
    EXPECT_EQ(offsetof(NwTcpMessage, data), 0u);
    EXPECT_EQ(offsetof(NwTcpMessage, size), sizeof(char*));
    EXPECT_EQ(sizeof(NwTcpMessage), 2 * sizeof(char*));
}

TEST(FieldOrder, ofTheTcpManager) {
    expectInOrder(TcpSocketMgrFields::all(), kVirtualTablePointer, sizeof(NwTcpSocketMgr));
}

TEST(FieldOrder, ofTheRegisteredCallback) {
    EXPECT_EQ(offsetof(NwSocketCbInfo, callback), 0u);
    EXPECT_EQ(offsetof(NwSocketCbInfo, userData), sizeof(void*));
    EXPECT_EQ(offsetof(NwSocketCbInfo, number), 2 * sizeof(void*)) << "ours, behind the documented two";
    EXPECT_EQ(sizeof(NwSocketCbInfo), 2 * sizeof(void*) + sizeof(long));
}

TEST(FieldOrder, ofTheTcpForwarder) {
    expectInOrder(TcpForwarderFields::all(), kVirtualTablePointer, sizeof(NwTcpForwarder));
}

TEST(FieldOrder, ofTheFileTransporter) {
    expectInOrder(FileTransporterFields::all(), kVirtualTablePointer, sizeof(NwFileTransporter));
}

TEST(FieldOrder, ofTheServersFilterTest) {
    expectInOrder(CsFilterTestFields::all(), sizeof(NwFilterTest), sizeof(NwCsFilterTest));
}

TEST(FieldOrder, ofThePacketServersClient) {
    expectInOrder(ClientSocketFields::all(), sizeof(NwSocket), sizeof(NwClientSocket));
}

TEST(FieldOrder, ofTheFileOnItsWayIn) {
    expectInOrder(FileTransportObjectFields::all(), 0, sizeof(NwFileTransportObject));
}

// A derived class's own fields lie behind these. Counted by hand from the fields, for 64-bit machines and the
// containers of libstdc++.
TEST(ClassSizes, stayWhatTheyAre) {
#if defined(__LP64__) && defined(__GLIBCXX__)
    EXPECT_EQ(sizeof(NwList), 8u + 8u + 4u + 4u /*padding*/ + 8u /*positions*/);
    EXPECT_EQ(sizeof(NwFilterTest), 8u + 4u + 4u /*padding*/ + sizeof(NwList));
    EXPECT_EQ(sizeof(NwSocket),
              8u + 2 * 4u + 48u /*map*/ + 3 * 4u + 4u /*padding*/ + 4 * 48u + 8u /*the bundle used last*/);
    EXPECT_EQ(sizeof(NwNetSocket), sizeof(NwSocket) + 4 * 4u + 3 * 8u + 10 * 4u + 4u /*bool, padding*/ +
                                       4 * 4u + 4u /*bool, padding*/ + 2 * 8u + 8u /*mode, padding*/ +
                                       2 * 8u /*kept packets and their sender*/);
    EXPECT_EQ(sizeof(NwQueueSocket), sizeof(NwSocket) + sizeof(NwList) + 8u + 4u + 4u /*padding*/);
    EXPECT_EQ(sizeof(NwSocketPairSocket), sizeof(NwSocket) + 2 * 4u + 1500u + 4u /*padding*/);
    EXPECT_EQ(sizeof(NwGroupSocket), sizeof(NwNetSocket) + sizeof(NwList));
    EXPECT_EQ(sizeof(NwAsyncSocketPacket), 8u + 4u + 4u /*padding*/ + 24u + 3 * 4u + 4u /*padding*/);
    EXPECT_EQ(sizeof(NwSelectParamWithWrite), 4u + 4u /*padding*/ + 4 * 128u);
    const std::size_t kMutex = 40, kQueue = 80 + 2 * kMutex;
    EXPECT_EQ(sizeof(NwAsyncNetSocket), sizeof(NwNetSocket) + 8u /*switches, padding*/ + 2 * kQueue +
                                            8u /*stop requests, padding*/ + 8u + 2 * 8u + 2 * 4u +
                                            8u /*flags of ours, padding*/ + kMutex + 8u /*flag, padding*/);
    EXPECT_EQ(sizeof(NwListPosition), 3 * 8u + 8u /*bool, padding*/);
    EXPECT_EQ(sizeof(NwTcpSocket), sizeof(NwSocket) + 8u + 4 * 4u + 4u /*bool, padding*/ + 5 * 4u +
                                       sizeof(NwList) + 4u + 2 * 4u /*format under way*/ +
                                       4u /*two flags, padding*/);
    EXPECT_EQ(sizeof(NwTcpSocketMgr), 8u + 6 * 4u + sizeof(NwList) + 2 * 4u + 4u /*bool, padding*/ + 4u +
                                          2 * 8u + 2 * sizeof(NwList) + 8u /*removals*/ +
                                          8u /*registrations counted*/);
    EXPECT_EQ(sizeof(NwTcpForwarder),
              8u + 8u + sizeof(NwListPosition) + sizeof(NwClock) + 8u + 8u /*turn under way*/);
    EXPECT_EQ(sizeof(NwFilename), 32u);
    EXPECT_EQ(sizeof(NwFileTransporter), 8u + 48u /*map*/ + 4u + 4u /*padding*/ + 8u + sizeof(NwFilename) +
                                             48u /*map*/ + 8u /*bool, padding*/ + 8u /*receptions*/);
    EXPECT_EQ(sizeof(NwFileTransportObject), 4u + 4u /*padding*/ + sizeof(NwFilename) + 4u + 4u /*padding*/ +
                                                 2 * 8u + 24u + 4u + 4u /*bool, padding*/);
#else
    GTEST_SKIP() << "counted for 64-bit machines and libstdc++";
#endif
}
