// SPDX-License-Identifier: BSD-3-Clause
// A great many packets to a reader that stalls at random: every packet whole, once, and in order except for
// the overtaking that the header tells of, which is counted. It shows what happens on the paths that the
// kernel's timing leads to; that every path is right is shown one by one in tcp_send_test.
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "messages.h"
#include "network.h"
#include "tcp_peer.h"

namespace {

const unsigned int kSeed = 54;
const bool kIsSanitized = sizeof CVNC_SANITIZER > 1;
const std::uint32_t kPackets = kIsSanitized ? 100000 : 1000000;
const unsigned int kDestinations = 3;  // of bundles
const int kPiecesToPauseAt = 2000;
const std::size_t kHeader = 6;  // length, 2 bytes; number of the packet, 4 bytes
const std::size_t kLongest = 65535;

unsigned int destinationOf(std::uint32_t number) {
    return 1 + number % kDestinations;
}

// The body of a packet depends on its number.
const std::string& pattern() {
    static const std::string bytes = [] {
        std::mt19937 random(kSeed);
        std::string result(kLongest + 4096, '\0');
        for (char& byte : result) byte = static_cast<char>(random());
        return result;
    }();
    return bytes;
}

const char* bodyOf(std::uint32_t number) {
    return &pattern()[number % 4096];
}

void write(std::string& packet, std::uint32_t number, std::size_t length) {
    packet.resize(length);
    packet[0] = static_cast<char>(length >> 8);
    packet[1] = static_cast<char>(length);
    std::memcpy(&packet[2], &number, sizeof number);
    std::memcpy(&packet[kHeader], bodyOf(number), length - kHeader);
}

// Mostly small ones, as simulations send; now and then one that no kernel buffer here holds.
std::size_t randomLength(std::mt19937& random) {
    const unsigned int kind = random() % 1000;
    const std::size_t span = kind < 900 ? 300 : kind < 998 ? 3000 : kLongest - kHeader + 1;
    return kHeader + random() % span;
}

// Reads pieces of random size, stalls at random, and takes the stream apart.
class Reader {
public:
    explicit Reader(TcpPeer&& peer) : myPeer(std::move(peer)) { myOrder.reserve(kPackets); }

    void run() {
        std::vector<char> piece(1 << 16);
        while (myComplaint.empty()) {
            if (myRandom() % 64 == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(myRandom() % 1000));
            const ssize_t n = ::recv(myPeer.fd(), piece.data(), 1 + myRandom() % piece.size(), 0);
            if (n <= 0) break;
            myRest.append(piece.data(), static_cast<std::size_t>(n));
            split();
        }
        if (myComplaint.empty() && !myRest.empty())
            myComplaint = std::to_string(myRest.size()) + " bytes at the end";
        myPeer.close();  // a sender does not wait for a reader that gave up
    }

    const std::vector<std::uint32_t>& order() const { return myOrder; }
    const std::string& complaint() const { return myComplaint; }

private:
    void split() {
        std::size_t at = 0;
        for (; myRest.size() - at >= kHeader; at += myLength) {
            const unsigned char* const head = reinterpret_cast<const unsigned char*>(&myRest[at]);
            myLength = static_cast<std::size_t>(head[0] << 8 | head[1]);
            std::uint32_t number;
            std::memcpy(&number, head + 2, sizeof number);
            if (myLength < kHeader || number >= kPackets) return complain("no header", number);
            if (myRest.size() - at < myLength) break;
            if (std::memcmp(head + kHeader, bodyOf(number), myLength - kHeader) != 0)
                return complain("another body", number);
            myOrder.push_back(number);
        }
        myRest.erase(0, at);
    }
    void complain(const char* what, std::uint32_t number) {
        myComplaint = std::string(what) + " behind " + std::to_string(myOrder.size()) +
                      " packets, in number " + std::to_string(number);
    }

    TcpPeer myPeer;
    std::mt19937 myRandom{kSeed + 1};
    std::string myRest;
    std::size_t myLength = 0;
    std::vector<std::uint32_t> myOrder;
    std::string myComplaint;
};

// Tells of each packet whether the kernel took any of it in the call that offered it.
class ObservedSocket : public NwTcpSocket {
public:
    using NwTcpSocket::flush;
    using NwTcpSocket::NwTcpSocket;
    using NwTcpSocket::sendTo;

    int flush(long& bytesSent) override {
        const int result = NwTcpSocket::flush(bytesSent);
        myFlushed = bytesSent;
        return result;
    }
    int sendTo(char* buf, unsigned long len, unsigned int destAddr) override {
        const int sent = NwTcpSocket::sendTo(buf, len, destAddr);
        myWasTaken = sent > myFlushed;
        return sent;
    }
    int send(std::string& packet, unsigned int to) {
        myWasTaken = false;
        return NwSend(&packet[0], packet.size(), to);
    }
    bool wasTaken() const { return myWasTaken; }

private:
    long myFlushed = 0;
    bool myWasTaken = false;
};

class TcpTraffic : public testing::Test {
protected:
    // Until no more than so many pieces wait.
    void flushTo(int pieces) {
        while (socket->getQueueStatus().first > pieces) {
            pollfd room = {socket->writeFd(), POLLOUT, 0};
            ASSERT_EQ(::poll(&room, 1, kPatienceMilliseconds), 1) << "the reader does not read";
            socket->flush();
            ASSERT_TRUE(socket->isOk());
        }
    }

    void sendAll() {
        std::mt19937 random(kSeed);
        std::string packet;
        wasTaken.assign(kPackets, false);
        for (std::uint32_t number = 0; number < kPackets; ++number) {
            write(packet, number, randomLength(random));
            const unsigned int to = destinationOf(number);
            int sent = socket->send(packet, to);
            if (sent == -1) {
                ++refused;
                sent = socket->send(packet, to);  // once more: kept or sent
            }
            ASSERT_GE(sent, 0) << number;
            wasTaken[number] = socket->wasTaken();
            if (!wasTaken[number]) ++kept;
            if (socket->isBundling() && random() % 50 == 0) socket->flush();
            if (socket->getQueueStatus().first > kPiecesToPauseAt)
                flushTo(random() % 2 ? 0 : static_cast<int>(random() % kPiecesToPauseAt));
            if (HasFatalFailure()) return;
        }
        socket->flush();
        flushTo(0);
    }

    // Sends everything, and gives the order in which it arrived.
    std::vector<std::uint32_t> runAll() {
        socket->setSendBufferSize(1 << 16);
        Reader reader(listener.accept());
        std::thread thread([&] { reader.run(); });
        sendAll();
        socket.reset();
        thread.join();
        EXPECT_EQ(reader.complaint(), "");
        return reader.order();
    }

    void expectEachOnce(std::vector<std::uint32_t> order) {
        std::sort(order.begin(), order.end());
        ASSERT_EQ(order.size(), kPackets);
        for (std::uint32_t i = 0; i < kPackets; ++i) ASSERT_EQ(order[i], i);
    }

    // Whoever arrives before an older packet was taken by the kernel at once, and the older one was not.
    // Returns how many did.
    int countOvertakers(const std::vector<std::uint32_t>& order) {
        int overtakers = 0;
        std::uint32_t newest = 0;
        for (const std::uint32_t number : order) {
            EXPECT_FALSE(number < newest && wasTaken[number]) << number << " was late, but not queued";
            newest = std::max(newest, number);
        }
        std::uint32_t oldestToCome = kPackets;
        for (std::size_t i = order.size(); i-- > 0;) {
            if (order[i] > oldestToCome) {
                ++overtakers;
                EXPECT_TRUE(wasTaken[order[i]]) << order[i] << " was queued, and yet overtook";
            }
            oldestToCome = std::min(oldestToCome, order[i]);
            if (HasFailure()) break;
        }
        return overtakers;
    }

    void print(int overtakers) {
        std::printf("%u packets: %d waited in bundles or queue, %d refused once, %d overtook (seed %u)\n",
                    kPackets, kept, refused, overtakers, kSeed);
        RecordProperty("overtook", overtakers);
    }

    Messages messages;
    TcpListener listener{kLoopback, 1 << 16};
    std::unique_ptr<ObservedSocket> socket{new ObservedSocket(kLoopback, listener.port(), 0)};
    std::vector<bool> wasTaken;
    int kept = 0, refused = 0;
};

TEST_F(TcpTraffic, plainPacketsArriveWholeAndOnce) {
    messages.all();
    const std::vector<std::uint32_t> order = runAll();
    expectEachOnce(order);
    print(countOvertakers(order));
    EXPECT_EQ(refused, 0);
    EXPECT_GT(kept, 0) << "the reader stalled";
    EXPECT_LT(kept, static_cast<int>(kPackets)) << "and read";
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpTraffic, bundledPacketsArriveWholeAndOnce) {
    messages.all();
    socket->setBundling(1400);
    const std::vector<std::uint32_t> order = runAll();
    expectEachOnce(order);
    // Bundles of one flush leave by destination: the order is that of each destination.
    int overtakers = 0;
    for (unsigned int to = 1; to <= kDestinations; ++to) {
        std::vector<std::uint32_t> ofOne;
        std::copy_if(order.begin(), order.end(), std::back_inserter(ofOne),
                     [&](std::uint32_t number) { return destinationOf(number) == to; });
        overtakers += countOvertakers(ofOne);
    }
    print(overtakers);
    EXPECT_GT(refused, 0) << "the reader stalled";
    EXPECT_EQ(messages.all(), "");
}

}  // namespace
