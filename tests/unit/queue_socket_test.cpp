// SPDX-License-Identifier: BSD-3-Clause
// The in-process queue: what goes in comes out, in order, whole in its length even where it was cut.
#include <cvNetworkCompatibility/cvSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "child.h"
#include "messages.h"
#include "packets.h"

namespace {

// Opens what derived classes may use.
class Queue : public NwQueueSocket {
public:
    using NwQueueSocket::queue;
    using NwQueueSocket::recvBuffer;
    using NwQueueSocket::recvBufferSize;

    int send(std::string packet, NwIpv4Addr to = 0) {
        const int result = sendTo(&packet[0], packet.size(), to);
        packet.assign(packet.size(), '#');
        return result;
    }
    // The next packet through the copy form, with plenty of room.
    std::string take() {
        std::vector<char> room(100000);
        const int length = NwRecv(room.data(), room.size());
        return std::string(room.data(), static_cast<std::size_t>(length));
    }
};

class PacketSize {
public:
    explicit PacketSize(int size) { theMaxPacketSize = size; }
    ~PacketSize() { theMaxPacketSize = 15000; }
    PacketSize(const PacketSize&) = delete;
    PacketSize& operator=(const PacketSize&) = delete;
};

struct Lent {
    int result;
    int status;
    char* packet;
};

Lent lend(NwQueueSocket& socket) {
    char untouched = 0;
    Lent lent = {0, 7, &untouched};
    lent.result = socket.NwRecv(&lent.packet, &lent.status);
    return lent;
}

}  // namespace

TEST(QueueSocket, packetsComeBackInTheOrderInWhichTheyWereSentWhateverTheirAddresses) {
    Queue socket;
    const NwIpv4Addr addresses[] = {0x7F000003u, 0, 0x7F000001u, 0xFFFFFFFFu, 0x7F000002u};
    for (int i = 0; i < 100; ++i) EXPECT_EQ(socket.send(pdu(20 + i, i), addresses[i % 5]), 20 + i);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(socket.take(), pdu(20 + i, i)) << i;
    EXPECT_EQ(socket.take(), "");
}

TEST(QueueSocket, emptyQueueGivesZeroNullAndStatusZero) {
    Queue socket;
    const Lent lent = lend(socket);
    EXPECT_EQ(lent.result, 0);
    EXPECT_EQ(lent.status, 0);
    EXPECT_EQ(lent.packet, nullptr);
    char untouched = 'x';
    EXPECT_EQ(socket.NwRecv(&untouched, 1ul), 0);
    EXPECT_EQ(untouched, 'x');
}

TEST(QueueSocket, emptyPacketLooksLikeAnEmptyQueue) {
    Queue socket;
    EXPECT_EQ(socket.send(""), 0);
    EXPECT_EQ(socket.sendTo(nullptr, 0, 0), 0);
    EXPECT_EQ(socket.send("after"), 5);
    EXPECT_EQ(socket.queue.count(), 3);
    for (int i = 0; i < 2; ++i) {
        const Lent lent = lend(socket);
        EXPECT_EQ(lent.result, 0);
        EXPECT_EQ(lent.status, 0);
        EXPECT_EQ(lent.packet, nullptr);
    }
    EXPECT_EQ(socket.take(), "after");
}

TEST(QueueSocket, lendingFormLendsTheReceiveBuffer) {
    Queue socket;
    socket.send("packet");
    const Lent lent = lend(socket);
    EXPECT_EQ(lent.result, 6);
    EXPECT_EQ(lent.status, 1);
    EXPECT_EQ(lent.packet, socket.recvBuffer.get());
    EXPECT_EQ(std::string(lent.packet, 6), "packet");
    socket.send("other!");
    EXPECT_EQ(std::string(lent.packet, 6), "packet") << "a send is no receive";
    lend(socket);
    EXPECT_EQ(std::string(lent.packet, 6), "other!");
}

TEST(QueueSocket, statusMayBeNull) {
    Queue socket;
    socket.send("packet");
    char* packet = nullptr;
    EXPECT_EQ(socket.NwRecv(&packet, static_cast<int*>(nullptr)), 6);
    EXPECT_EQ(socket.NwRecv(&packet, static_cast<int*>(nullptr)), 0);
    EXPECT_EQ(packet, nullptr);
}

TEST(QueueSocket, copyFormCopiesWhatFitsAndTellsTheFullLength) {
    struct {
        unsigned long room;
        std::string copied;
    } cases[] = {{0, ""}, {1, "a"}, {5, "abcde"}, {6, "abcdef"}, {7, "abcdef"}, {40, "abcdef"}};
    for (const auto& one : cases) {
        Queue socket;
        socket.send("abcdef");
        socket.send("next");
        std::string room(50, '~');
        EXPECT_EQ(socket.NwRecv(&room[0], one.room), 6) << one.room;
        EXPECT_EQ(room, one.copied + std::string(50 - one.copied.size(), '~')) << one.room;
        EXPECT_EQ(socket.take(), "next") << "what was cut is lost";
    }
}

// As ints these would be negative, or small.
TEST(QueueSocket, roomBeyondTheRangeOfAnIntCopiesThePacket) {
    for (unsigned long room :
         {static_cast<unsigned long>(INT_MAX), static_cast<unsigned long>(INT_MAX) + 1, 0xFFFFFFFFul,
          0x100000000ul, 0x100000002ul, std::numeric_limits<unsigned long>::max()}) {
        Queue socket;
        socket.send("abcdef");
        std::string copy(20, '~');
        EXPECT_EQ(socket.NwRecv(&copy[0], room), 6) << room;
        EXPECT_EQ(copy, "abcdef" + std::string(14, '~')) << room;
    }
}

TEST(QueueSocket, receiveBufferHasTheLargestPacketSizeOfItsBirth) {
    {
        Queue socket;
        EXPECT_EQ(socket.recvBufferSize, 15000);
    }
    PacketSize small(10);
    Queue socket;
    EXPECT_EQ(socket.recvBufferSize, 10);
    theMaxPacketSize = 15000;
    socket.send("0123456789ABCDEF");
    const Lent lent = lend(socket);
    EXPECT_EQ(lent.result, 16) << "the full length, though the buffer is shorter";
    EXPECT_EQ(lent.status, 1);
    EXPECT_EQ(std::string(lent.packet, 10), "0123456789");
}

TEST(QueueSocket, bufferWithoutSizeIsReportedAsGivenAndNeverWritten) {
    for (int size : {0, -1, INT_MIN}) {
        PacketSize none(size);
        Queue socket;
        EXPECT_EQ(socket.recvBufferSize, size);
        socket.send("abc");
        const Lent lent = lend(socket);
        EXPECT_EQ(lent.result, 3);
        EXPECT_EQ(lent.status, 1);
        EXPECT_EQ(lent.packet, socket.recvBuffer.get());
    }
}

// A socket that was made while memory was short lends nothing and loses nothing.
TEST(QueueSocket, withoutABufferPacketsStayForTheCopyForm) {
    Queue socket;
    socket.recvBuffer.reset();
    socket.send("abc");
    const Lent lent = lend(socket);
    EXPECT_EQ(lent.result, 0);
    EXPECT_EQ(lent.status, 0);
    EXPECT_EQ(lent.packet, nullptr);
    EXPECT_EQ(socket.take(), "abc");
}

TEST(QueueSocket, lengthBeyondTheRangeOfAnIntIsRefused) {
    Queue socket;
    char byte = 'a';
    EXPECT_EQ(socket.sendTo(&byte, static_cast<unsigned long>(INT_MAX) + 1, 0), -1);
    EXPECT_EQ(socket.sendTo(&byte, std::numeric_limits<unsigned long>::max(), 0), -1);
    EXPECT_EQ(socket.queue.count(), 0);
}

TEST(QueueSocket, takesPacketsOfAnySizeWithoutLimit) {
    Queue socket;
    const std::string large(1000000, 'x');
    for (int i = 0; i < 20; ++i) EXPECT_EQ(socket.send(large), 1000000);
    EXPECT_EQ(socket.queue.count(), 20);
    std::vector<char> room(large.size());
    for (int i = 0; i < 20; ++i) EXPECT_EQ(socket.NwRecv(room.data(), room.size()), 1000000);
    EXPECT_EQ(std::string(room.begin(), room.end()), large);
}

TEST(QueueSocket, recordsHoldSizeAndACopyOldestFirst) {
    Queue socket;
    socket.send("first");
    socket.send("second");
    const NwQueuedPacket* oldest = static_cast<const NwQueuedPacket*>(socket.queue.first()->data());
    EXPECT_EQ(oldest->size, 5);
    EXPECT_EQ(std::string(oldest->data, 5), "first");
    const NwQueuedPacket* youngest = static_cast<const NwQueuedPacket*>(socket.queue.last()->data());
    EXPECT_EQ(youngest->size, 6);
    socket.take();
    EXPECT_EQ(socket.queue.count(), 1) << "a record goes with its delivery";
    socket.take();
}

TEST(QueueSocket, bundleIsQueuedAsOnePacketWhenItIsFlushed) {
    Queue socket;
    socket.setBundling(1400);
    std::string a(100, 'a'), b(50, 'b');
    EXPECT_EQ(socket.NwSend(&a[0], a.size(), 1), 0);
    EXPECT_EQ(socket.NwSend(&b[0], b.size(), 1), 0);
    EXPECT_EQ(socket.queue.count(), 0);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(socket.queue.count(), 1);
    EXPECT_EQ(socket.take(), a + b);
}

TEST(QueueSocket, neitherCountsNorFilters) {
    Queue socket;
    unsigned int none[] = {99};
    socket.protocolVersion().setTest(NwTestInclude, 1, none);
    socket.exerciseId().setTest(NwTestInclude, 1, none);
    socket.pduKind().setTest(NwTestInclude, 1, none);
    socket.ipAddr().setTest(NwTestInclude, 1, none);
    socket.send(pdu(144));
    EXPECT_EQ(lend(socket).status, 1);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
}

TEST(QueueSocket, printsNothing) {
    Messages messages;
    {
        Queue socket;
        socket.send("a");
        socket.send("");
        lend(socket);
        lend(socket);
        lend(socket);
    }
    EXPECT_EQ(messages.all(), "");
}

TEST(QueueSocket, lendingFormGoesThroughTheCopyFormOfADerivedClass) {
    struct Derived : Queue {
        int NwRecv(char* buf, unsigned long maxLen) override {
            rooms.push_back(maxLen);
            std::memcpy(buf, "mine", 4);
            return 4;
        }
        using NwQueueSocket::NwRecv;
        std::vector<unsigned long> rooms;
    } socket;
    char* packet = nullptr;
    int status = 0;
    EXPECT_EQ(static_cast<NwSocket&>(socket).NwRecv(&packet, &status), 4);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::string(packet, 4), "mine");
    EXPECT_THAT(socket.rooms, testing::ElementsAre(15000ul));
}

// Deliberate: what is still queued when the socket goes is not freed.
TEST(QueueSocket, recordsLeftInTheQueueOutliveTheSocket) {
    std::unique_ptr<Queue> socket(new Queue);
    socket->send("still here when the socket has gone");
    NwQueuedPacket* left = static_cast<NwQueuedPacket*>(socket->queue.first()->data());
    socket.reset();
    ASSERT_EQ(left->size, 35);
    EXPECT_EQ(std::string(left->data, 35), "still here when the socket has gone");
    std::free(left->data);
    delete left;
}

// The same with nobody left to free them: the leak that tests/lsan.supp names.
TEST(QueueSocket, mayBeDestroyedWithPacketsInIt) {
    Queue socket;
    EXPECT_EQ(socket.send("never received"), 14);
    EXPECT_EQ(socket.queue.count(), 1);
}

TEST(QueueSocket, packetThatMemoryDoesNotHoldIsRefusedAndTheQueueUnharmed) {
    if (*CVNC_SANITIZER) GTEST_SKIP() << "sanitizers need the address space that this test takes away";
    const std::size_t kHuge = 1u << 30;
    const ChildResult child = inChild([&] {
        void* nowhere = ::mmap(nullptr, kHuge, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (nowhere == MAP_FAILED) return 9;
        Queue socket;
        socket.send("first");
        const rlimit none = {1, 1};
        ::setrlimit(RLIMIT_AS, &none);
        if (socket.sendTo(static_cast<char*>(nowhere), kHuge, 0) != -1) return 1;
        if (socket.queue.count() != 1) return 2;
        char copy[5];
        return socket.NwRecv(copy, sizeof copy) == 5 && std::memcmp(copy, "first", 5) == 0 ? 0 : 3;
    });
    EXPECT_EQ(child.exitStatus, 0);
}
