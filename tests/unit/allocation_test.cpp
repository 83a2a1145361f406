// SPDX-License-Identifier: BSD-3-Clause
// No path of a packet allocates memory once it is warm: every allocation of the process is counted while
// packets go out and come in.
#include <arpa/inet.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "allocation_count.h"
#include "messages.h"
#include "network.h"
#include "packets.h"
#include "tcp_peer.h"

namespace {

// --- traffic ---------------------------------------------------------------------------------------------

const int kPdus = 90;  // ten bundles of 1400 bytes
const int kPduBytes = 144;

int portOf(int fd) {
    sockaddr_in local;
    socklen_t size = sizeof local;
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size), 0);
    return ntohs(local.sin_port);
}

// A socket whose class overrides one step, so that every call goes through the virtual table.
class Derived : public NwNetSocket {
public:
    using NwNetSocket::NwNetSocket;
    bool dataLeftInCurrentBundle() override { return NwNetSocket::dataLeftInCurrentBundle(); }
};

// A receiver bound to loopback and a sender to it; nothing in here allocates while packets move, except the
// sockets themselves if they do.
template <class Socket>
class Traffic : public testing::Test {
public:
    Traffic()
        : restoredAction(NwNetSocket::initErrorAction = 1),
          receiver(0, kLoopback, mode(NwNetSocketRead | NwNetSocketBindToDest), kLoopback),
          port(portOf(receiver.readFd())),
          sender(port, kLoopback, mode(NwNetSocketWrite), kLoopback) {
        receiver.setReceiveBufferSize(1 << 20);
        receiver.NwBecomeNonBlocking();
        for (int i = 0; i < kPdus; ++i) packets.push_back(pdu(kPduBytes, i));
    }
    ~Traffic() override { NwNetSocket::initErrorAction = 0; }

    void SetUp() override {
        ASSERT_TRUE(allocationsAreCounted());
        ASSERT_TRUE(receiver.isOk());
        ASSERT_TRUE(sender.isOk());
    }

    static unsigned char mode(int bits) { return static_cast<unsigned char>(bits | NwNetSocketQuietStart); }

    void sendAll(unsigned int to = NwUSE_DEFAULT_IP_ADDR) {
        for (std::string& packet : packets) failures += sender.NwSend(&packet[0], packet.size(), to) < 0;
        failures += sender.flush() != 1;
    }

    // Each of the following returns how many packets it brought.
    int receiveLent() {
        int count = 0, status = 0;
        char* packet = nullptr;
        do {
            if (receiver.NwRecv(&packet, &status) > 0) ++count;
        } while (status != 0);
        return count;
    }
    int receiveInPlace() {
        int count = 0, status = 0;
        char* packet = nullptr;
        do {
            if (receiver.recvWithStatus(&packet, &status) > 0) ++count;
        } while (status != 0);
        return count;
    }
    int receiveCopied() {
        int count = 0;
        while (receiver.NwRecv(storage, sizeof storage) > 0) ++count;
        return count;
    }

    // Sends and receives everything, once warm; each time all of it must come.
    void expectNoAllocation(int (Traffic::*receive)(), int expectedCount = kPdus) {
        int count = 0;
        EXPECT_EQ(allocationsOnceWarm([&] {
                      sendAll();
                      count = (this->*receive)();
                  }),
                  0);
        EXPECT_EQ(count, expectedCount);
        EXPECT_EQ(failures, 0);
    }

    static void include(NwFilterTest& test, unsigned int wanted, int count) {
        std::vector<unsigned int> values;
        for (int i = 1; i < count; ++i) values.push_back(100u + static_cast<unsigned int>(i));
        values.push_back(wanted);
        test.setTest(NwTestInclude, count, values.data());
    }

    Quiet quiet;
    int restoredAction;
    Socket receiver;
    int port;
    Socket sender;
    std::vector<std::string> packets;
    char storage[15000];
    int failures = 0;
};

struct SocketNames {
    template <class Socket>
    static std::string GetName(int) {
        return std::is_same<Socket, NwNetSocket>::value ? "itself" : "derived";
    }
};
using Sockets = testing::Types<NwNetSocket, Derived>;
TYPED_TEST_SUITE(Traffic, Sockets, SocketNames);

}  // namespace

// --- the count itself ------------------------------------------------------------------------------------

TEST(AllocationCount, seesEveryKind) {
    void* volatile kept = nullptr;  // volatile: the compiler may not leave an allocation out
    EXPECT_EQ(allocationsIn([&] { kept = std::malloc(100); }), 1);
    EXPECT_GE(allocationsIn([&] { kept = std::realloc(kept, 100000); }), 1);
    std::free(kept);
    EXPECT_EQ(allocationsIn([&] { kept = std::calloc(10, 10); }), 1);
    std::free(kept);
    EXPECT_EQ(allocationsIn([&] { kept = new int(5); }), 1);
    delete static_cast<int*>(kept);
    EXPECT_EQ(allocationsIn([] {}), 0);
}

TEST(AllocationCount, seesThoseOfTheLibrary) {
    Quiet quiet;
    NwNetSocket::initErrorAction = 1;
    std::unique_ptr<NwNetSocket> socket;
    const unsigned char read = NwNetSocketRead | NwNetSocketQuietStart;
    EXPECT_GE(allocationsIn([&] { socket.reset(new NwNetSocket(0, kLoopback, read, kLoopback)); }), 5)
        << "the socket, its two buffers and its two addresses";
    unsigned int values[] = {1, 2, 3};
    EXPECT_EQ(allocationsIn([&] { socket->pduKind().setTest(NwTestInclude, 3, values); }), 3);
    NwNetSocket::initErrorAction = 0;
}

TYPED_TEST(Traffic, firstBundleOfADestinationIsSeen) {
    this->sender.setBundling(1400);
    EXPECT_GE(allocationsIn([&] { this->sender.NwSend(&this->packets[0][0], kPduBytes, kLoopback); }), 1)
        << "its buffer is reserved there, once";
}

// --- sending ---------------------------------------------------------------------------------------------

TYPED_TEST(Traffic, sendingOneByOneAllocatesNothing) {
    this->expectNoAllocation(&TestFixture::receiveLent);
}

TYPED_TEST(Traffic, sendingBundlesAllocatesNothing) {
    this->sender.setBundling(1400);
    this->expectNoAllocation(&TestFixture::receiveLent);
}

TYPED_TEST(Traffic, flushingAndResizingAllocateNothing) {
    this->sender.setBundling(1400);
    EXPECT_EQ(allocationsOnceWarm([&] {
                  long bytes = 0;
                  for (std::string& packet : this->packets) {
                      this->sender.NwSend(&packet[0], packet.size(), NwUSE_DEFAULT_IP_ADDR);
                      this->failures += this->sender.flush(bytes) != 1 || bytes != kPduBytes;
                  }
                  this->sender.setBundling(0);
                  this->sender.setBundling(1400);
                  this->receiveLent();
              }),
              0);
    EXPECT_EQ(this->failures, 0);
}

TYPED_TEST(Traffic, packetsTooLargeForABundleAllocateNothing) {
    this->sender.setBundling(200);
    std::string large = pdu(1000);
    int count = 0;
    EXPECT_EQ(
        allocationsOnceWarm([&] {
            for (std::string& packet : this->packets) {
                this->failures += this->sender.NwSend(&packet[0], packet.size(), NwUSE_DEFAULT_IP_ADDR) < 0;
                this->failures += this->sender.NwSend(&large[0], large.size(), NwUSE_DEFAULT_IP_ADDR) != 1000;
            }
            count = this->receiveLent();
        }),
        0);
    EXPECT_EQ(count, 2 * kPdus);
    EXPECT_EQ(this->failures, 0);
}

TYPED_TEST(Traffic, severalDestinationsAllocateNothing) {
    const unsigned int kDestinations = 8;  // 127.0.0.1 to 127.0.0.8; the first is received
    for (const int bundleBytes : {0, 1400}) {
        this->sender.setBundling(bundleBytes);
        int count = 0;
        EXPECT_EQ(allocationsOnceWarm([&] {
                      for (std::string& packet : this->packets)
                          for (unsigned int i = 0; i < kDestinations; ++i)
                              this->sender.NwSend(&packet[0], packet.size(), kLoopback + i);
                      this->sender.flush();
                      count = this->receiveLent();
                  }),
                  0)
            << "bundles of " << bundleBytes;
        EXPECT_EQ(count, kPdus);
    }
}

TYPED_TEST(Traffic, sendsThatFailAllocateNothing) {
    std::string tooLong(70000, 'x');  // above what a datagram holds
    int result = 0;
    NwNetSocket::setRetryOnSend(2, 0.0);
    EXPECT_EQ(
        allocationsOnceWarm([&] { result = this->sender.NwSend(&tooLong[0], tooLong.size(), kLoopback); }),
        0);
    NwNetSocket::setRetryOnSend(0, 0.0);
    EXPECT_EQ(result, -1);
}

// --- receiving -------------------------------------------------------------------------------------------

TYPED_TEST(Traffic, everyFormOfReceivingAllocatesNothing) {
    for (const int bundleBytes : {0, 1400}) {
        this->sender.setBundling(bundleBytes);
        this->expectNoAllocation(&TestFixture::receiveLent);
        this->expectNoAllocation(&TestFixture::receiveInPlace);
        this->expectNoAllocation(&TestFixture::receiveCopied);
    }
}

TYPED_TEST(Traffic, receivingWholeDatagramsAllocatesNothing) {
    this->sender.setBundling(1400);
    this->receiver.setUnbundling(0);
    this->expectNoAllocation(&TestFixture::receiveLent, kPdus / 9);
    this->expectNoAllocation(&TestFixture::receiveCopied, kPdus / 9);
}

TYPED_TEST(Traffic, splittingByALengthFieldElsewhereAllocatesNothing) {
    this->sender.setBundling(1400);
    this->receiver.setBundling(0, true, 12, 8, 2, false);
    this->expectNoAllocation(&TestFixture::receiveLent);
}

TYPED_TEST(Traffic, filtersAllocateNothing) {
    for (const int values : {1, 16}) {
        this->include(this->receiver.pduKind(), 1, values);
        this->expectNoAllocation(&TestFixture::receiveLent);
        this->include(this->receiver.protocolVersion(), 7, values);
        this->include(this->receiver.exerciseId(), 1, values);
        this->include(this->receiver.ipAddr(), kLoopback, values);
        for (const int bundleBytes : {0, 1400}) {
            this->sender.setBundling(bundleBytes);
            this->expectNoAllocation(&TestFixture::receiveLent);
            this->expectNoAllocation(&TestFixture::receiveCopied);
        }
    }
}

TYPED_TEST(Traffic, refusedPacketsAllocateNothing) {
    this->include(this->receiver.pduKind(), 2, 1);
    for (const int bundleBytes : {0, 1400}) {
        this->sender.setBundling(bundleBytes);
        const int before = this->receiver.NwReportPktsRcvd();
        this->expectNoAllocation(&TestFixture::receiveLent, 0);
        EXPECT_GT(this->receiver.NwReportPktsRcvd(), before);
    }
}

TYPED_TEST(Traffic, oddDatagramsAllocateNothing) {
    std::string shortOne = pdu(12).substr(0, 8), unlike = pdu(20) + pdu(20, 0, 6),
                lengthless = withLength(pdu(30), 0);
    int count = 0;
    EXPECT_EQ(allocationsOnceWarm([&] {
                  for (std::string* datagram : {&shortOne, &unlike, &lengthless})
                      this->failures += this->sender.sendTo(&(*datagram)[0], datagram->size(), kLoopback) < 0;
                  count = this->receiveLent();
              }),
              0);
    EXPECT_EQ(count, 3) << "two of the unlike pair, and the one without a length";
    EXPECT_EQ(this->failures, 0);
}

TYPED_TEST(Traffic, ownDatagramsAllocateNothing) {
    this->sendAll();
    this->receiveLent();
    this->receiver.setFilterPort(portOf(this->sender.writeFd()));
    this->expectNoAllocation(&TestFixture::receiveLent, 0);
}

TYPED_TEST(Traffic, pollsThatFindNothingAllocateNothing) {
    int results = 0;
    EXPECT_EQ(allocationsOnceWarm([&] {
                  for (int i = 0; i < 100; ++i) {
                      char* packet = nullptr;
                      int status = 5;
                      results += this->receiver.NwRecv(&packet, &status) + status;
                      results += this->receiver.NwRecv(this->storage, sizeof this->storage);
                      results += this->receiver.dataLeftInCurrentBundle();
                  }
              }),
              0);
    EXPECT_EQ(results, 0);
}

// --- TCP -------------------------------------------------------------------------------------------------

namespace {

// Two ends of a connection, with packets as DIS has them.
class TcpTraffic : public testing::Test {
public:
    TcpTraffic() {
        sender.setSizeOffset(8);
        receiver.setSizeOffset(8);
        for (int i = 0; i < kPdus; ++i) packets.push_back(pdu(kPduBytes, i));
    }
    void SetUp() override {
        ASSERT_TRUE(allocationsAreCounted());
        ASSERT_TRUE(sender.isOk());
    }

    void sendAll() {
        for (std::string& packet : packets)
            failures +=
                sender.NwSend(&packet[0], packet.size(), kLoopback) != static_cast<int>(packet.size());
    }
    // Polls until all of them have come.
    void receiveLent() {
        for (int count = 0; count < kPdus;) {
            char* packet = nullptr;
            int status = 0;
            const int length = receiver.NwRecv(&packet, &status);
            if (length > 0) ++count;
            failures += length > 0 && std::memcmp(packet + 12, &packets[count - 1][12], 12) != 0;
            if (length == 0 && !waitReadable(receiver.readFd())) return noteFailure();
        }
    }
    void receiveCopied() {
        for (int count = 0; count < kPdus;) {
            if (receiver.NwRecv(storage, sizeof storage) > 0)
                ++count;
            else if (!waitReadable(receiver.readFd()))
                return noteFailure();
        }
    }
    void noteFailure() { ++failures; }

    Quiet quiet;
    TcpListener listener;
    NwTcpSocket sender{kLoopback, listener.port(), 0};
    NwTcpSocket receiver{listener.acceptFd(), kLoopback, 0};
    std::vector<std::string> packets;
    char storage[20000];
    int failures = 0;
};

}  // namespace

TEST_F(TcpTraffic, packetsThatTheKernelTakesAllocateNothing) {
    EXPECT_EQ(allocationsOnceWarm([&] {
                  sendAll();
                  receiveLent();
              }),
              0);
    EXPECT_EQ(allocationsOnceWarm([&] {
                  sendAll();
                  receiveCopied();
              }),
              0);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(sender.getQueueStatus().first, 0);
}

TEST_F(TcpTraffic, packetsThatComeInPiecesAllocateNothing) {
    TcpPeer peer(listener.port());
    NwTcpSocket socket(listener.acceptFd(), kLoopback, 0);
    socket.setSizeOffset(8);
    const std::string whole = pdu(kPduBytes);
    int length = 0;
    EXPECT_EQ(allocationsOnceWarm([&] {
                  char* packet = nullptr;
                  for (std::size_t i = 0; i < whole.size(); ++i) {
                      failures += length > 0 && i > 0;
                      failures += ::send(peer.fd(), &whole[i], 1, 0) != 1;
                      failures += !waitReadable(socket.readFd());
                      length = socket.NwRecv(&packet, nullptr);
                  }
              }),
              0);
    EXPECT_EQ(length, kPduBytes);
}

TEST_F(TcpTraffic, largePacketsAllocateOnce) {
    for (std::string& packet : packets) packet = pdu(kPduBytes);
    packets[0] = pdu(30000);
    EXPECT_GE(allocationsIn([&] {
                  sendAll();
                  receiveLent();
              }),
              1)
        << "the buffer grows";
    EXPECT_EQ(allocationsIn([&] {
                  sendAll();
                  receiveLent();
              }),
              0)
        << "and stays";
    EXPECT_EQ(failures, 0);
}

TEST_F(TcpTraffic, pollsAndFlushesThatFindNothingAllocateNothing) {
    int results = 0;
    EXPECT_EQ(allocationsOnceWarm([&] {
                  for (int i = 0; i < 100; ++i) {
                      char* packet = nullptr;
                      int status = 5;
                      results += receiver.NwRecv(&packet, &status) + status;
                      results += receiver.NwRecv(storage, sizeof storage);
                      results += sender.flush() - 1;
                      results += sender.sendTo(storage, 0, 0);
                  }
              }),
              0);
    EXPECT_EQ(results, 0);
}
