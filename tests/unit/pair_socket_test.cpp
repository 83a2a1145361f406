// SPDX-License-Identifier: BSD-3-Clause
// The socket over one end of a Unix datagram pair: within a process, across fork(), over descriptors brought
// along.
#include <cvNetworkCompatibility/cvPairSock.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "child.h"
#include "messages.h"
#include "network.h"
#include "packets.h"

namespace {

const int kBufferBytes = 1500;

// Opens what derived classes may use.
class Pair : public NwSocketPairSocket {
public:
    using NwSocketPairSocket::blocking;
    using NwSocketPairSocket::buffer;
    using NwSocketPairSocket::fd;
    using NwSocketPairSocket::NwSocketPairSocket;
    using NwSocketPairSocket::peerFd;
    using NwSocketPairSocket::socketFd;

    int send(std::string packet, NwIpv4Addr to = 0) { return sendTo(&packet[0], packet.size(), to); }
    // One receive through the lending form; "" for none.
    std::string take(int* status = nullptr) {
        char* packet = nullptr;
        const int length = NwRecv(&packet, status);
        return length > 0 ? std::string(packet, static_cast<std::size_t>(length)) : std::string();
    }
};

// Closes what pair sockets leave open.
struct Ends {
    explicit Ends(Pair& socket) : first(socket.fd), second(socket.peerFd) {}
    ~Ends() {
        ::close(first);
        if (second > 0) ::close(second);
    }
    const int first, second;
};

class PairSocket : public testing::Test {
protected:
    Messages messages;
    Pair socket;
    Ends ends{socket};
    Pair other{socket.peerDescriptor()};
};

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// No descriptor can be opened while it lives.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &myFormer);
        const rlimit none = {0, myFormer.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoMoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &myFormer); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit myFormer;
};

}  // namespace

// --- construction ----------------------------------------------------------------------------------------

TEST_F(PairSocket, makesAPairOfUnixDatagramSockets) {
    for (int fd : {socket.fd, socket.peerFd}) {
        int value = 0;
        socklen_t size = sizeof value;
        ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &value, &size), 0);
        EXPECT_EQ(value, AF_UNIX);
        ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_TYPE, &value, &size), 0);
        EXPECT_EQ(value, SOCK_DGRAM);
    }
    EXPECT_NE(socket.fd, socket.peerFd);
    EXPECT_EQ(socket.peerDescriptor(), socket.peerFd);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(PairSocket, bothDescriptorsAreTheOneEnd) {
    EXPECT_EQ(socket.readFd(), socket.fd);
    EXPECT_EQ(socket.writeFd(), socket.fd);
    EXPECT_EQ(socket.socketFd, -1) << "the base's descriptor is not used";
    EXPECT_TRUE(socket.isOk());
}

TEST_F(PairSocket, landingBufferStartsAsZeros) {
    EXPECT_EQ(sizeof socket.buffer, 1500u);
    EXPECT_EQ(std::string(socket.buffer, kBufferBytes), std::string(kBufferBytes, '\0'));
    EXPECT_EQ(std::string(other.buffer, kBufferBytes), std::string(kBufferBytes, '\0'));
}

TEST(PairSocketEnd, destructorClosesNeitherDescriptor) {
    int first, second;
    {
        Pair socket;
        first = socket.fd;
        second = socket.peerFd;
    }
    EXPECT_TRUE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    { Pair wrapped(first); }
    EXPECT_TRUE(isOpen(first));
    ::close(first);
    ::close(second);
}

TEST(PairSocketEnd, bundlesThatWaitGoWithTheSocket) {
    Pair* socket = new Pair;
    Ends ends(*socket);
    socket->setBundling(1000);
    std::string packet = "waits";
    EXPECT_EQ(socket->NwSend(&packet[0], packet.size(), 0), 0);
    delete socket;
    EXPECT_FALSE(waitReadable(ends.second, 0));
}

TEST(PairSocketFailure, ofSocketpairIsFatalWithTheSystemsReason) {
    if (std::string(CVNC_SANITIZER) == "address")
        GTEST_SKIP() << "the sanitizer needs descriptors when something is printed for the first time";
    const ChildResult child = inChild([] {
        NoMoreDescriptors none;
        Pair socket;
        return 9;
    });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, systemReport("socketpair:", EMFILE));
}

TEST(PairSocketFailure, whileQuietLeavesASocketWithoutDescriptors) {
    const ChildResult child = inChild([] {
        Quiet quiet;
        // A sanitizer looks at the first object of a class with descriptors of its own.
        std::unique_ptr<Pair> earlier(new Pair), made;
        {
            NoMoreDescriptors none;
            made.reset(new Pair);
        }
        Pair& socket = *made;
        if (socket.fd != -1 || socket.peerFd != -1 || socket.peerDescriptor() != -1) return 1;
        char byte = 'a';
        errno = 0;
        if (socket.sendTo(&byte, 1, 0) != -1 || errno != EBADF) return 2;
        int status = 7;
        char* packet = &byte;
        if (socket.NwRecv(&packet, &status) != 0 || status != 0 || packet) return 3;
        if (socket.NwBecomeNonBlocking() != 0) return 4;
        return 0;
    });
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_EQ(child.output, "");
}

// --- wrapped descriptors ---------------------------------------------------------------------------------

TEST(WrappedDescriptor, sendsAndReceivesOnItAlone) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    Pair socket(ends[0]);
    EXPECT_EQ(socket.readFd(), ends[0]);
    EXPECT_EQ(socket.writeFd(), ends[0]);
    EXPECT_EQ(socket.peerFd, 0) << "the mark of a wrapped one";
    EXPECT_EQ(socket.peerDescriptor(), 0);

    EXPECT_EQ(socket.send("out"), 3);
    char bytes[10];
    EXPECT_EQ(::recv(ends[1], bytes, sizeof bytes, 0), 3);
    EXPECT_EQ(::send(ends[1], "in", 2, 0), 2);
    EXPECT_EQ(socket.take(), "in");
    ::close(ends[0]);
    ::close(ends[1]);
}

// The mark 0 is no descriptor: what is typed at the program stays there.
TEST(WrappedDescriptor, standardInputIsLeftAlone) {
    const ChildResult child = inChild([] {
        int input[2], ends[2];
        if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, input) != 0 ||
            ::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) != 0)
            return 9;
        ::dup2(input[0], 0);
        ::send(input[1], "typed", 5, 0);
        Pair socket(ends[0]);
        if (socket.send("out") != 3) return 1;
        socket.NwBecomeNonBlocking();
        if (socket.take() != "") return 2;
        if (::fcntl(0, F_GETFL) & O_NONBLOCK) return 3;
        char bytes[10];
        if (::recv(0, bytes, sizeof bytes, MSG_DONTWAIT) != 5) return 4;
        return waitReadable(input[1], 0) ? 5 : 0;
    });
    EXPECT_EQ(child.exitStatus, 0);
}

TEST(WrappedDescriptor, anyKindOfSocketWillDo) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    Pair socket(ends[0]);
    ::send(ends[1], "in", 2, 0);
    EXPECT_EQ(socket.take(), "in");
    EXPECT_EQ(socket.send("out"), 3);
    char bytes[10];
    EXPECT_EQ(::recv(ends[1], bytes, sizeof bytes, 0), 3);
    ::close(ends[1]);
    int status = 7;
    EXPECT_EQ(socket.take(&status), "");
    EXPECT_EQ(status, 1) << "the end of a stream is a packet of no bytes";
    ::close(ends[0]);
}

// --- sending ---------------------------------------------------------------------------------------------

TEST_F(PairSocket, datagramsKeepTheirBoundsAndOrderInBothDirections) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(socket.send(pdu(100 + i, i)), 100 + i);
        EXPECT_EQ(other.send(pdu(200 + i, i)), 200 + i);
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(other.take(), pdu(100 + i, i));
        EXPECT_EQ(socket.take(), pdu(200 + i, i));
    }
}

TEST_F(PairSocket, addressIsIgnored) {
    EXPECT_EQ(socket.send("a", 0), 1);
    EXPECT_EQ(socket.send("b", 0x0A090901u), 1);
    EXPECT_EQ(socket.send("c", 0xFFFFFFFFu), 1);
    for (const char* packet : {"a", "b", "c"}) EXPECT_EQ(other.take(), packet);
}

TEST_F(PairSocket, sendReturnsWhatTheSystemSaysAndPrintsNothing) {
    std::string tooLarge(400000, 'x');
    errno = 0;
    EXPECT_EQ(socket.send(tooLarge), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    ::close(socket.peerFd);
    EXPECT_EQ(socket.send("a"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(PairSocket, fullPeerIsAFailureOnceNonBlocking) {
    socket.NwBecomeNonBlocking();
    int sent = 0;
    while (socket.send("packet") == 6 && sent < 100000) ++sent;
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_GT(sent, 0);
    EXPECT_EQ(other.take(), "packet");
    EXPECT_EQ(socket.send("packet"), 6) << "room again";
    for (int i = 0; i < sent; ++i) EXPECT_EQ(other.take(), "packet");
}

TEST_F(PairSocket, bundleIsOneDatagram) {
    socket.setBundling(1000);
    std::string a(400, 'a'), b(300, 'b');
    socket.NwSend(&a[0], a.size(), 0);
    socket.NwSend(&b[0], b.size(), 0);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(other.take(), a + b);
}

// --- receiving -------------------------------------------------------------------------------------------

TEST_F(PairSocket, lendingFormLendsTheMemberBuffer) {
    socket.send("packet");
    char* packet = nullptr;
    int status = 7;
    EXPECT_EQ(other.NwRecv(&packet, &status), 6);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(packet, other.buffer);
    EXPECT_EQ(std::string(packet, 6), "packet");
}

TEST_F(PairSocket, longPacketIsCutToTheBufferAndSaysNothing) {
    for (int size : {1499, 1500, 1501, 9000}) {
        socket.send(std::string(static_cast<std::size_t>(size), 'x'));
        int status = 7;
        EXPECT_EQ(other.take(&status).size(), static_cast<std::size_t>(size < 1500 ? size : 1500));
        EXPECT_EQ(status, 1);
    }
    socket.send("next");
    EXPECT_EQ(other.take(), "next") << "the rest is lost with its datagram";
    EXPECT_EQ(messages.all(), "");
}

TEST_F(PairSocket, copyFormTakesPacketsLongerThanTheBuffer) {
    const std::string packet = pdu(9000);
    socket.send(packet);
    std::vector<char> room(9000);
    EXPECT_EQ(other.NwRecv(room.data(), room.size()), 9000);
    EXPECT_EQ(std::string(room.begin(), room.end()), packet);
    EXPECT_EQ(std::string(other.buffer, kBufferBytes), std::string(kBufferBytes, '\0'))
        << "not by way of the buffer";
}

// Unlike every other socket: the length that was copied.
TEST_F(PairSocket, copyFormReturnsTheLengthThatWasCopied) {
    socket.send("abcdef");
    std::string room(10, '~');
    EXPECT_EQ(other.NwRecv(&room[0], 4ul), 4);
    EXPECT_EQ(room, "abcd~~~~~~");
}

TEST_F(PairSocket, emptyDatagramIsDeliveredWithoutAPacket) {
    EXPECT_EQ(socket.send(""), 0);
    char byte = 'x';
    char* packet = &byte;
    int status = 7;
    EXPECT_EQ(other.NwRecv(&packet, &status), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(packet, nullptr);
    EXPECT_EQ(other.NwReportPktsRcvd(), 1);

    socket.send("");
    EXPECT_EQ(other.recvWithStatus(&byte, 1, &status), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(other.NwReportPktsRcvd(), 2);
}

TEST_F(PairSocket, nothingThereIsStatusZero) {
    other.NwBecomeNonBlocking();
    char byte = 'x';
    char* packet = &byte;
    int status = 7;
    EXPECT_EQ(other.NwRecv(&packet, &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(packet, nullptr);
    status = 7;
    EXPECT_EQ(other.recvWithStatus(&byte, 1, &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(other.recvWithStatus(&byte, 1, nullptr), 0);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(other.NwReportPktsRcvd(), 0);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(PairSocket, failedReceiveIsStatusZeroAndSilent) {
    Pair bad(socket.fd);
    bad.fd = -1;
    int status = 7;
    EXPECT_EQ(bad.take(&status), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(PairSocket, recvWithStatusTellsAllThreeEndings) {
    unsigned int unwanted[] = {4};
    char room[50];
    int status = 7;
    socket.send(pdu(20, 0, 7, 1));
    EXPECT_EQ(other.recvWithStatus(room, sizeof room, &status), 20);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::string(room, 20), pdu(20, 0, 7, 1));

    other.exerciseId().setTest(NwTestExclude, 1, unwanted);
    other.buffer[1] = 4;
    socket.send(pdu(20));
    EXPECT_EQ(other.recvWithStatus(room, sizeof room, &status), 0);
    EXPECT_EQ(status, -2);
    EXPECT_EQ(other.NwReportPktsRcvd(), 1) << "refused packets are not counted";
}

// --- filters ---------------------------------------------------------------------------------------------

TEST_F(PairSocket, refusedPacketOfTheLendingFormIsMinusTwoAndNotCounted) {
    unsigned int wanted[] = {2};
    other.pduKind().setTest(NwTestInclude, 1, wanted);
    socket.send(pdu(20, 0, 7, 1, 1));
    socket.send(pdu(20, 0, 7, 1, 2));
    char byte;
    char* packet = &byte;
    int status = 7;
    EXPECT_EQ(other.NwRecv(&packet, &status), 0);
    EXPECT_EQ(status, -2);
    EXPECT_EQ(packet, nullptr);
    EXPECT_EQ(other.NwReportPktsRcvd(), 0);
    EXPECT_EQ(other.take(), pdu(20, 0, 7, 1, 2));
    EXPECT_EQ(other.NwReportPktsRcvd(), 1);
}

// Deliberate: the copying form asks the filters about the member buffer, which holds what the lending form
// received last, whatever is in the packet at hand.
TEST_F(PairSocket, filtersOfTheCopyFormLookAtThePacketOfTheLendingForm) {
    unsigned int wanted[] = {2};
    other.exerciseId().setTest(NwTestInclude, 1, wanted);
    std::string room(20, '~');

    socket.send(pdu(20, 1, 7, 2));
    EXPECT_EQ(other.NwRecv(&room[0], room.size()), 0) << "zeros in the buffer: exercise 0";
    EXPECT_EQ(room, pdu(20, 1, 7, 2)) << "refused, but it has been read into the caller's storage";

    socket.send(pdu(20, 2, 7, 2));
    EXPECT_EQ(other.take(), pdu(20, 2, 7, 2));
    socket.send(pdu(20, 3, 7, 9));
    EXPECT_EQ(other.NwRecv(&room[0], room.size()), 20) << "judged by the packet before";
    EXPECT_EQ(room, pdu(20, 3, 7, 9));

    socket.send(pdu(20, 4, 7, 9));
    int status = 7;
    EXPECT_EQ(other.take(&status), "");
    EXPECT_EQ(status, -2);
    socket.send(pdu(20, 5, 7, 2));
    EXPECT_EQ(other.NwRecv(&room[0], room.size()), 0)
        << "a refused packet, too, was received by the lending form";
    EXPECT_EQ(other.NwReportPktsRcvd(), 2);
}

TEST_F(PairSocket, acceptOfADerivedClassGetsTheMemberBufferAndAddressZero) {
    struct Derived : Pair {
        using Pair::Pair;
        bool accept(char* packet, unsigned int address) override {
            asked = packet;
            source = address;
            return false;
        }
        char* asked = nullptr;
        unsigned int source = 77;
    } derived(other.fd);
    socket.send("a");
    char byte;
    EXPECT_EQ(derived.NwRecv(&byte, 1ul), 0);
    EXPECT_EQ(derived.asked, derived.buffer);
    EXPECT_EQ(derived.source, 0u);
}

// --- blocking --------------------------------------------------------------------------------------------

TEST_F(PairSocket, becomesNonBlockingByReplacingTheStatusFlags) {
    ::fcntl(other.fd, F_SETFL, O_ASYNC);
    other.blocking = 1;
    EXPECT_EQ(other.NwBecomeNonBlocking(), 0);
    EXPECT_EQ(other.blocking, 0);
    const int flags = ::fcntl(other.fd, F_GETFL);
    EXPECT_TRUE(flags & O_NONBLOCK);
    EXPECT_FALSE(flags & O_ASYNC) << "meant: other flags go";
    EXPECT_FALSE(::fcntl(socket.fd, F_GETFL) & O_NONBLOCK) << "each end by itself";
}

TEST(PairSocketFailure, ofFcntlIsFatalWithTheSystemsReason) {
    const ChildResult child = inChild([] {
        Pair socket(12345);
        socket.NwBecomeNonBlocking();
        return 9;
    });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, systemReport("non-blocking", EBADF));
}

TEST(PairSocketFailure, ofFcntlWhileQuietIsPassedOver) {
    const ChildResult child = inChild([] {
        Quiet quiet;
        Pair socket(12345);
        socket.blocking = 1;
        if (socket.NwBecomeNonBlocking() != 0) return 1;
        return socket.blocking == 0 ? 0 : 2;
    });
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_EQ(child.output, "");
}

// --- across fork() ---------------------------------------------------------------------------------------

TEST(PairSocketAcrossFork, parentAndChildTalkThroughTheTwoEnds) {
    Pair parent;
    Ends ends(parent);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        Pair child(parent.peerDescriptor());
        ::close(parent.fd);
        for (int i = 0; i < 1000; ++i) {
            std::string packet = child.take();
            if (packet != pdu(100, i)) ::_exit(1);
            packet[12] = '!';
            if (child.send(packet) != 100) ::_exit(2);
        }
        ::_exit(0);
    }
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(parent.send(pdu(100, i)), 100);
        ASSERT_TRUE(waitReadable(parent.readFd()));
        std::string expected = pdu(100, i);
        expected[12] = '!';
        ASSERT_EQ(parent.take(), expected) << i;
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(parent.NwReportPktsRcvd(), 1000);
}
