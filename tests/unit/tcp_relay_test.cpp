// SPDX-License-Identifier: BSD-3-Clause
// A relay with many connections, some of which misbehave: what the others get, and what it costs.
#include <cvNetworkCompatibility/cvTcpForwarder.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_connections.h"
#include "tcp_peer.h"

namespace {

const bool kIsSanitized = sizeof CVNC_SANITIZER > 1;

// --- packets that tell who sent them: a mark, sender, number, length at byte 8, and a body of their own
// ------

const char kMark[] = {'o', 'u', 'r', 's'};
const std::size_t kOffset = 8;
const std::size_t kHeader = 10;

std::uint16_t numberAt(const std::string& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[at]) << 8 |
                                      static_cast<unsigned char>(bytes[at + 1]));
}

void append(std::string& bytes, std::size_t number) {
    bytes += static_cast<char>(number >> 8);
    bytes += static_cast<char>(number);
}

std::string packetOf(std::size_t sender, std::size_t number) {
    const std::size_t length = kHeader + 1 + (sender * 37 + number * 101) % 300;
    std::string packet(kMark, sizeof kMark);
    append(packet, sender);
    append(packet, number);
    append(packet, length);
    while (packet.size() < length) packet += static_cast<char>(sender + number * 7 + packet.size());
    return packet;
}

// One end that sends its packets in pieces of any size and takes apart what comes.
class Client {
public:
    Client(TcpPeer&& peer, std::size_t name) : myPeer(std::move(peer)), myName(name) {}

    TcpPeer& peer() { return myPeer; }
    void plan(std::size_t packets) {
        for (std::size_t i = 0; i < packets; ++i) myOutgoing += packetOf(myName, i);
    }
    void sendSome(std::mt19937& random) {
        myOutgoing.erase(0, myPeer.sendSome(myOutgoing.substr(0, 1 + random() % 400)));
    }
    void receiveSome() {
        myIncoming += myPeer.receiveSome();
        std::size_t start = 0;
        while (myIncoming.size() - start >= kHeader) {
            const std::size_t length = numberAt(myIncoming, start + kOffset);
            if (length < kHeader) {
                ADD_FAILURE() << "torn stream to " << myName;
                break;
            }
            if (myIncoming.size() - start < length) break;
            take(myIncoming.substr(start, length));
            start += length;
        }
        myIncoming.erase(0, start);
    }
    bool hasSentAll() const { return myOutgoing.empty(); }
    // The numbers of the packets that came from a sender, as they came.
    const std::vector<std::size_t>& from(std::size_t sender) { return myReceived[sender]; }
    std::size_t foreignPackets() const { return myForeign; }

private:
    void take(const std::string& packet) {
        const std::size_t sender = numberAt(packet, 4), number = numberAt(packet, 6);
        if (packet.compare(0, sizeof kMark, kMark, sizeof kMark) != 0) {
            ++myForeign;
            return;
        }
        EXPECT_EQ(packet, packetOf(sender, number)) << "as it was sent";
        myReceived[sender].push_back(number);
    }

    TcpPeer myPeer;
    const std::size_t myName;
    std::string myOutgoing, myIncoming;
    std::map<std::size_t, std::vector<std::size_t>> myReceived;
    std::size_t myForeign = 0;
};

std::vector<std::size_t> numbersBelow(std::size_t count) {
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < count; ++i) numbers.push_back(i);
    return numbers;
}

// --- the tests -------------------------------------------------------------------------------------------

TEST(TcpRelay, connectionsThatMisbehaveTakeNothingFromTheOthers) {
    const std::size_t good = kIsSanitized ? 50 : 200;
    const std::size_t each = 5;  // packets that each of them sends
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Messages messages;

    NwTcpForwarder relay(0);
    relay.setSizeOffset(static_cast<int>(kOffset));
    std::vector<Client> clients;
    const auto join = [&](int receiveBuffer = 0) -> Client& {
        clients.emplace_back(connectTo(*relay.socketMgr(), kLoopback, receiveBuffer), clients.size());
        relay.socketMgr()->processConnections();
        return clients.back();
    };
    for (std::size_t i = 0; i < good; ++i) join().plan(each);
    join(4096);  // never reads, until all is over
    const std::size_t stalled = clients.size() - 1;
    NwTcpSocket* const stalledSocket = socketsOf(*relay.socketMgr()).back();
    const int small = 4096;
    ::setsockopt(stalledSocket->readFd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    TcpPeer badLength = connectTo(*relay.socketMgr());
    TcpPeer noise = connectTo(*relay.socketMgr());
    TcpPeer deserter = connectTo(*relay.socketMgr());
    relay.socketMgr()->processConnections();
    const std::vector<NwTcpSocket*> all = socketsOf(*relay.socketMgr());
    ASSERT_EQ(all.size(), good + 4);
    std::string garbage = packetOf(0, 0).substr(0, kOffset);
    append(garbage, 3);  // below its own header
    badLength.sendAll(garbage + std::string(1000, '!'));
    std::string noisy = std::string(kOffset, '?');
    append(noisy, 40);
    noisy += std::string(30, '?');
    for (int i = 0; i < 200; ++i) noisy += static_cast<char>(random());
    noise.sendAll(noisy);
    deserter.sendAll(packetOf(1, 0).substr(0, 9));

    const auto isDone = [&] {
        relay.readAndForward(10, 1);
        bool isComplete = true;
        for (std::size_t i = 0; i < good; ++i) {
            clients[i].sendSome(random);
            clients[i].receiveSome();
            isComplete = isComplete && clients[i].hasSentAll();
            for (std::size_t sender = 0; sender < good; ++sender)
                isComplete = isComplete && clients[i].from(sender).size() >= each;
        }
        noise.receiveSome();
        return isComplete;
    };
    for (int i = 0; i < 3; ++i) isDone();
    deserter.reset();
    EXPECT_TRUE(eventually(isDone, 4 * kPatienceMilliseconds));
    isDone();  // what came twice would be here
    for (std::size_t receiver = 0; receiver < good; ++receiver) {
        for (std::size_t sender = 0; sender < good; ++sender)
            ASSERT_EQ(clients[receiver].from(sender), numbersBelow(each))
                << "from " << sender << " to " << receiver;
        EXPECT_GE(clients[receiver].foreignPackets(), 1u) << "noise that has a length is a packet";
    }
    const std::vector<NwTcpSocket*> left = socketsOf(*relay.socketMgr());
    const auto isLeft = [&](std::size_t i) { return std::count(left.begin(), left.end(), all[i]) == 1; };
    for (std::size_t i = 0; i <= stalled; ++i) EXPECT_TRUE(isLeft(i)) << i;
    EXPECT_FALSE(isLeft(stalled + 1)) << "its length was bad";
    EXPECT_FALSE(isLeft(stalled + 3)) << "it went in the middle of a packet";
    const std::string complaint = "NwTcpSocket: bad packet length 3\n", warnings = messages.warn();
    EXPECT_NE(warnings.find(complaint), std::string::npos);
    EXPECT_EQ(warnings.find(complaint), warnings.rfind(complaint)) << "its one warning";

    // What the stalled one missed waits for it.
    EXPECT_GT(stalledSocket->getQueueStatus().first, 0);
    const int large = 1 << 20;  // small windows take their time
    ::setsockopt(clients[stalled].peer().fd(), SOL_SOCKET, SO_RCVBUF, &large, sizeof large);
    ::setsockopt(stalledSocket->readFd(), SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
    const auto hasAll = [&] {
        clients[stalled].receiveSome();
        relay.readAndForward(10, 1);
        return stalledSocket->getQueueStatus().first == 0;
    };
    EXPECT_TRUE(eventually(hasAll, 4 * kPatienceMilliseconds));
    EXPECT_TRUE(eventually([&] {
        clients[stalled].receiveSome();
        std::size_t count = 0;
        for (std::size_t sender = 0; sender < good; ++sender) count += clients[stalled].from(sender).size();
        return count >= good * each;
    }));
    for (std::size_t sender = 0; sender < good; ++sender) {
        std::vector<std::size_t> numbers = clients[stalled].from(sender);
        std::sort(numbers.begin(), numbers.end());  // one may have overtaken another
        ASSERT_EQ(numbers, numbersBelow(each)) << "from " << sender;
    }
}

// As many descriptors as the system grants.
std::size_t descriptorsGranted() {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

TEST(TcpRelay, announcedLengthsCostNoMemory) {
    std::ifstream policy("/proc/sys/vm/overcommit_memory");
    if (policy.get() == '2') GTEST_SKIP() << "the system counts memory that nobody touches";
    ::prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);  // how large a page is, is the system's choice
    // Sanitizers keep books about memory that nobody touches, so they get less of it.
    const std::size_t wanted = kIsSanitized ? 100 : 1000;
    const std::size_t count = std::min(wanted, (descriptorsGranted() - 100) / 2);
    const std::size_t announced = kIsSanitized ? 16u << 20 : 0x7FFFFFFFu;
    const std::size_t tolerable = 32u << 20;
    const Quiet quiet;
    NwTcpForwarder relay(0);
    relay.setSizeLength(4);
    std::vector<TcpPeer> peers;
    for (std::size_t i = 0; i < count; ++i) {
        peers.push_back(connectTo(*relay.socketMgr()));
        relay.socketMgr()->processConnections();
    }
    std::string half, tooLong = "\xFF\xFF\xFF\xFF??";
    for (int shift = 24; shift >= 0; shift -= 8) half += static_cast<char>(announced >> shift);
    half += "the start of it";

    const std::size_t before = residentBytes();
    for (TcpPeer& each : peers) each.sendAll(half);
    EXPECT_TRUE(eventually([&] {
        relay.readAndForward(10, 1);
        for (NwTcpSocket* socket : socketsOf(*relay.socketMgr())) {
            int waiting = 0;
            ::ioctl(socket->readFd(), FIONREAD, &waiting);
            if (waiting) return false;
        }
        return true;
    }));
    const std::vector<NwTcpSocket*> sockets = socketsOf(*relay.socketMgr());
    EXPECT_EQ(sockets.size(), count) << "they may go on";
    for (NwTcpSocket* socket : sockets) ASSERT_TRUE(socket->isOk());
    const std::size_t after = residentBytes();
    EXPECT_LT(after - std::min(before, after), tolerable);

    for (std::size_t i = 0; i < count / 10; ++i) peers.push_back(connectTo(*relay.socketMgr()));
    relay.socketMgr()->processConnections();
    for (std::size_t i = count; i < peers.size(); ++i) peers[i].sendAll(tooLong);
    EXPECT_TRUE(eventually([&] {
        relay.readAndForward(10, 1);
        return socketsOf(*relay.socketMgr()).size() == count;
    })) << "what cannot be ends its connection";
    EXPECT_EQ(socketsOf(*relay.socketMgr()), sockets);
}

}  // namespace
