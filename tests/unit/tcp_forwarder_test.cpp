// SPDX-License-Identifier: BSD-3-Clause
// The forwarder: what goes to whom, whose turn it is, and what happens when connections go at any moment. The
// clock stands still during a round and moves when a test says so.
#include <cvNetworkCompatibility/cvTcpForwarder.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_connections.h"
#include "tcp_peer.h"

static long stoppedAt = 0;  // whole seconds; 0: the clock runs

// In the place of the system's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    if (!stoppedAt || clock != CLOCK_MONOTONIC)
        return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
    *time = timespec();
    time->tv_sec = stoppedAt;
    return 0;
}

namespace {

using testing::ElementsAre;

const long kStart = 5000000;  // where the clock stands at the start of each round
const double kLong = 1000;    // seconds: never over while the clock stands still

// Lets seconds pass on the clock that stands still.
void pass(long seconds) {
    stoppedAt += seconds;
}

class StoppedClock {
public:
    StoppedClock() { stoppedAt = kStart; }
    ~StoppedClock() { stoppedAt = 0; }
    StoppedClock(const StoppedClock&) = delete;
    StoppedClock& operator=(const StoppedClock&) = delete;
};

// A packet with its length in front, in two bytes.
std::string packet(const std::string& text) {
    const std::size_t length = text.size() + 2;
    return std::string{static_cast<char>(length >> 8), static_cast<char>(length & 0xFF)} + text;
}

// A socket that tells what the forwarder does with it. One turn of socket 2 that gets a packet of 6 bytes
// from it reads "f2 r2 s1:6 s2:6 f2 r2".
class LoggedSocket : public NwTcpSocket {
public:
    LoggedSocket(int fd, NwIpv4Addr addr, int number, std::vector<std::string>& log)
        : NwTcpSocket(fd, addr, 0), myNumber(number), myLog(log) {}
    ~LoggedSocket() override { tell("~"); }

    int number() const { return myNumber; }
    void breakDown() { ok = false; }
    using NwTcpSocket::sizeLength;
    using NwTcpSocket::sizeOffset;

    using NwTcpSocket::flush;
    using NwTcpSocket::NwRecv;
    using NwTcpSocket::sendTo;
    int flush() override {
        tell("f");
        return NwTcpSocket::flush();
    }
    int NwRecv(char** pkt, int* status) override {
        EXPECT_EQ(status, nullptr);
        tell("r");
        return NwTcpSocket::NwRecv(pkt, status);
    }
    int sendTo(char* buf, unsigned long len, unsigned int destAddr) override {
        EXPECT_EQ(destAddr, 0u);
        tell("s", ":" + std::to_string(len));
        if (onSend) onSend();
        return NwTcpSocket::sendTo(buf, len, destAddr);
    }

    std::function<void()> onSend;

private:
    void tell(const std::string& what, const std::string& more = "") {
        myLog.push_back(what + std::to_string(myNumber) + more);
    }

    const int myNumber;
    std::vector<std::string>& myLog;
};

// Makes logged sockets, numbered from 1.
struct Workshop {
    static NwSocket* make(void* self, NwTcpSocketMgr* manager) {
        Workshop& shop = *static_cast<Workshop*>(self);
        shop.manager = manager;
        shop.made.push_back(new LoggedSocket(manager->currentSockFd(), manager->currentClientAddr(),
                                             static_cast<int>(shop.made.size()) + 1, shop.log));
        return shop.made.back();
    }
    std::vector<LoggedSocket*> made;  // gone or not
    std::vector<std::string> log;
    NwTcpSocketMgr* manager = nullptr;
};

// A forwarder that tells whose turn it is, and does what a test adds to its steps.
class LoggedForwarder : public NwTcpForwarder {
public:
    using NwTcpForwarder::nextSocket;
    using NwTcpForwarder::NwTcpForwarder;
    using NwTcpForwarder::readAndForward;
    using NwTcpForwarder::sockets;

    void readAndForward(NwTcpSocket* socket, double deadline) override {
        const int number = static_cast<LoggedSocket*>(socket)->number();
        served.push_back(number);
        deadlines.push_back(deadline - kStart);
        if (beforeTurn) beforeTurn(number);
        if (reads) NwTcpForwarder::readAndForward(socket, deadline);
        if (afterTurn) afterTurn(number);
    }
    void sendToAll(char* buf, unsigned long len) override {
        NwTcpForwarder::sendToAll(buf, len);
        if (afterSend) afterSend(served.empty() ? 0 : served.back());
    }

    std::vector<int> served;        // since it was last cleared
    std::vector<double> deadlines;  // since kStart
    bool reads = true;
    std::function<void(int number)> beforeTurn, afterTurn, afterSend;
};

class TcpForwarder : public testing::Test {
protected:
    // What tests hang in uses their stacks: nothing of it runs behind them.
    void TearDown() override {
        if (!forwarder) return;
        forwarder->socketMgr()->emptyCallbackLists();
        forwarder->beforeTurn = forwarder->afterTurn = forwarder->afterSend = nullptr;
    }

    void join(int count, int receiveBuffer = 0) {
        for (int i = 0; i < count; ++i)
            peers.push_back(connectTo(*forwarder->socketMgr(), kLoopback, receiveBuffer));
        forwarder->socketMgr()->processConnections();
        shop.log.clear();
    }
    TcpPeer& peer(int number) { return peers.at(static_cast<std::size_t>(number) - 1); }
    LoggedSocket* socket(int number) { return shop.made.at(static_cast<std::size_t>(number) - 1); }
    void remove(int number) { forwarder->socketMgr()->removeAndDelete(socket(number)); }

    // Sends from a peer, and waits until all of it is there to be read.
    void send(int number, const std::string& bytes) {
        const auto waiting = [&] {
            int count = 0;
            ::ioctl(socket(number)->readFd(), FIONREAD, &count);
            return count;
        };
        const int before = waiting();
        peer(number).sendAll(bytes);
        EXPECT_TRUE(eventually([&] { return waiting() == before + static_cast<int>(bytes.size()); }));
    }
    // Closes a peer, and waits until the socket can know.
    void close(int number) {
        peer(number).close();
        EXPECT_TRUE(waitReadable(socket(number)->readFd()));
    }

    // One round, from kStart on. Returns whose turns there were.
    std::vector<int> round(double total = kLong, double perSocket = kLong) {
        forwarder->served.clear();
        forwarder->deadlines.clear();
        const StoppedClock clock;
        forwarder->readAndForward(total, perSocket);
        return forwarder->served;
    }

    // What was logged since the last call, and the numbers of the sockets in the list.
    std::string told() {
        std::string text;
        for (const std::string& entry : std::exchange(shop.log, {}))
            text += (text.empty() ? "" : " ") + entry;
        return text;
    }
    std::vector<int> listed() {
        std::vector<int> numbers;
        for (NwTcpSocket* each : socketsOf(*forwarder->socketMgr()))
            numbers.push_back(static_cast<LoggedSocket*>(each)->number());
        return numbers;
    }

    const Quiet quiet;
    Messages messages;
    Workshop shop;
    std::vector<TcpPeer> peers;
    std::unique_ptr<LoggedForwarder> forwarder = std::make_unique<LoggedForwarder>(Workshop::make, &shop, 0);
};

// --- what it is made of ----------------------------------------------------------------------------------

TEST_F(TcpForwarder, makesAManagerThatListens) {
    const int port = freeTcpPort();
    NwTcpForwarder plain(port);
    ASSERT_NE(plain.socketMgr(), nullptr);
    EXPECT_EQ(plain.socketMgr()->isOk(), 1);
    EXPECT_EQ(portOf(*plain.socketMgr()), port);
    TcpPeer peer = connectTo(*plain.socketMgr());
    plain.socketMgr()->processConnections();
    ASSERT_EQ(socketsOf(*plain.socketMgr()).size(), 1u);

    const int otherPort = freeTcpPort();
    NwTcpForwarder withFactory(Workshop::make, &shop, otherPort);
    EXPECT_EQ(portOf(*withFactory.socketMgr()), otherPort);
    TcpPeer other = connectTo(*withFactory.socketMgr());
    withFactory.socketMgr()->processConnections();
    EXPECT_EQ(shop.manager, withFactory.socketMgr());
    EXPECT_EQ(socketsOf(*withFactory.socketMgr()).at(0), shop.made.at(0));
}

TEST_F(TcpForwarder, worksOnTheManagersLiveList) {
    EXPECT_EQ(forwarder->sockets, forwarder->socketMgr()->socketList());
    EXPECT_EQ(forwarder->nextSocket.item(), nullptr);
}

TEST_F(TcpForwarder, settingsAreTheManagers) {
    EXPECT_EQ(forwarder->sizeLength(), 2);
    EXPECT_EQ(forwarder->sizeOffset(), 0);
    join(1);
    forwarder->setSizeLength(4);
    forwarder->setSizeOffset(8);
    EXPECT_EQ(forwarder->socketMgr()->sizeLength(), 4);
    EXPECT_EQ(forwarder->socketMgr()->sizeOffset(), 8);
    forwarder->socketMgr()->setSizeLength(1);
    forwarder->socketMgr()->setSizeOffset(3);
    EXPECT_EQ(forwarder->sizeLength(), 1);
    EXPECT_EQ(forwarder->sizeOffset(), 3);
    join(1);
    EXPECT_EQ(socket(1)->sizeLength, 2) << "connections that are there keep theirs";
    EXPECT_EQ(socket(1)->sizeOffset, 0);
    EXPECT_EQ(socket(2)->sizeLength, 1);
    EXPECT_EQ(socket(2)->sizeOffset, 3);
}

TEST_F(TcpForwarder, doesNothingOnATakenPort) {
    LoggedForwarder second(portOf(*forwarder->socketMgr()));
    EXPECT_EQ(second.socketMgr()->isOk(), 0);
    EXPECT_EQ(second.socketMgr()->addrInUse(), 1);
    second.socketMgr()->processConnections();
    second.readAndForward(kLong, kLong);
    EXPECT_TRUE(second.served.empty());
    EXPECT_EQ(messages.all(), "");
}

struct Removals {
    static void call(NwTcpSocket* socket, void* self) {
        Removals& removals = *static_cast<Removals*>(self);
        const int number = static_cast<LoggedSocket*>(socket)->number();
        removals.numbers.push_back(number);
        if (removals.work) removals.work(number);
    }
    std::vector<int> numbers;
    std::function<void(int number)> work;
};

TEST_F(TcpForwarder, endRemovesEveryConnection) {
    const int before = openDescriptors();
    join(3);
    Removals removals;
    forwarder->socketMgr()->addSocketRemovalCallback(Removals::call, &removals);
    forwarder.reset();
    EXPECT_THAT(removals.numbers, ElementsAre(1, 2, 3));
    EXPECT_EQ(told(), "~1 ~2 ~3");
    for (TcpPeer& each : peers) EXPECT_EQ(each.receiveToEnd(), "");
    EXPECT_EQ(openDescriptors(), before - 1 + 3) << "the listener is closed, the peers are not";
}

// The manager is there until the last connection has gone: its callbacks ask the forwarder for it, and may
// unregister themselves and remove others.
TEST_F(TcpForwarder, removalCallbacksFindTheManagerWhileTheForwarderEnds) {
    join(4);
    LoggedForwarder* const ending = forwarder.release();
    NwTcpSocketMgr* const manager = ending->socketMgr();
    Removals removals;
    std::vector<std::vector<int>> remaining;
    removals.work = [&](int number) {
        EXPECT_EQ(ending->socketMgr(), manager);
        EXPECT_EQ(ending->sizeLength(), 2);
        manager->processConnections();
        if (number == 1) manager->removeAndDelete(socket(3));
        remaining.push_back({});
        for (NwTcpSocket* each : socketsOf(*manager))
            remaining.back().push_back(static_cast<LoggedSocket*>(each)->number());
        if (number == 2) manager->removeSocketRemovalCallback(Removals::call, &removals);
    };
    manager->addSocketRemovalCallback(Removals::call, &removals);
    delete ending;
    EXPECT_THAT(removals.numbers, ElementsAre(1, 3, 2)) << "the fourth goes without a callback";
    EXPECT_THAT(remaining, ElementsAre(ElementsAre(1, 2, 3, 4), ElementsAre(1, 2, 4), ElementsAre(2, 4)));
    EXPECT_EQ(told(), "~3 ~1 ~2 ~4");
    for (TcpPeer& each : peers) EXPECT_EQ(each.receiveToEnd(), "");
}

// --- what goes to whom -----------------------------------------------------------------------------------

TEST_F(TcpForwarder, packetGoesToEveryConnectionInListOrderAndBackToItsSender) {
    join(3);
    send(2, packet("abcd"));
    round();
    EXPECT_EQ(told(), "f1 r1 f2 r2 s1:6 s2:6 s3:6 f2 r2 f3 r3");
    for (TcpPeer& each : peers) EXPECT_EQ(each.receive(6), packet("abcd"));
    EXPECT_EQ(messages.debug(), "***Received packet with size 6: Forwarding...***\n");
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpForwarder, takesEveryWholePacketInOneTurn) {
    join(2);
    send(1, packet("first") + packet("2nd") + packet("") + packet("x") + packet("cut off").substr(0, 5));
    send(2, packet("other"));
    round();
    // The one of a header alone is a connection test, which ends the turn: nothing was received.
    EXPECT_EQ(told(), "f1 r1 s1:7 s2:7 f1 r1 s1:5 s2:5 f1 r1 f2 r2 s1:7 s2:7 f2 r2");
    round();
    EXPECT_EQ(told(), "f1 r1 s1:3 s2:3 f1 r1 f2 r2");
    send(1, packet("cut off").substr(5));
    round();
    EXPECT_EQ(told(), "f1 r1 s1:9 s2:9 f1 r1 f2 r2");
    const std::string all =
        packet("first") + packet("2nd") + packet("other") + packet("x") + packet("cut off");
    EXPECT_EQ(peer(1).receive(all.size()), all);
    EXPECT_EQ(peer(2).receive(all.size()), all);
}

TEST_F(TcpForwarder, packetThatIsNotWholeIsNotForwarded) {
    join(2);
    const std::string whole = packet("trickle");
    for (const char byte : whole.substr(0, whole.size() - 1)) {
        send(1, std::string(1, byte));
        round();
        EXPECT_EQ(told(), "f1 r1 f2 r2");
    }
    send(1, whole.substr(whole.size() - 1));
    round();
    EXPECT_EQ(peer(2).receive(whole.size()), whole);
}

TEST_F(TcpForwarder, bytesAreNotLookedAt) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    join(2);
    send(1, packet(bytes));
    round();
    EXPECT_EQ(peer(2).receive(bytes.size() + 2), packet(bytes));
}

TEST_F(TcpForwarder, brokenSocketsAreSkippedWhenSending) {
    join(3);
    socket(2)->breakDown();
    std::string bytes = packet("ab");
    forwarder->sendToAll(&bytes[0], bytes.size());
    EXPECT_EQ(told(), "s1:4 s3:4");
    EXPECT_THAT(listed(), ElementsAre(1, 2, 3)) << "removed by a round, not here";
    EXPECT_EQ(peer(1).receive(4), bytes);
    EXPECT_EQ(peer(3).receive(4), bytes);
}

TEST_F(TcpForwarder, debugLineComesFirstAlsoForNothingAndWhileQuiet) {
    join(1);
    std::string bytes = packet("ab");
    const std::string line = "***Received packet with size 4: Forwarding...***\n";
    const std::string lineOfNothing = "***Received packet with size 0: Forwarding...***\n";
    forwarder->sendToAll(&bytes[0], 0);
    EXPECT_EQ(messages.debug(), lineOfNothing);
    EXPECT_EQ(told(), "") << "a length of 0 sends nothing";
    forwarder->sendToAll(nullptr, 0);
    EXPECT_EQ(messages.debug(), lineOfNothing);
    bool printedBefore = false;
    socket(1)->onSend = [&] { printedBefore = messages.debug() == line; };
    forwarder->sendToAll(&bytes[0], 4);
    EXPECT_TRUE(printedBefore);

    NwSocket::setQuietSockets(false);
    forwarder->sendToAll(&bytes[0], 0);
    EXPECT_EQ(messages.debug(), lineOfNothing);
    NwSetOutputLevel(NwOutputVerbose);
    socket(1)->onSend = nullptr;
    forwarder->sendToAll(&bytes[0], 4);
    EXPECT_EQ(messages.all(), "") << "the stream's own level decides";
    EXPECT_EQ(told(), "s1:4 s1:4");
}

TEST_F(TcpForwarder, withoutConnectionsThereIsNothingToDo) {
    EXPECT_THAT(round(1.0, 0.1), ElementsAre());  // on a clock that stands still, waiting would never end
    std::string bytes = packet("ab");
    forwarder->sendToAll(&bytes[0], bytes.size());
    EXPECT_EQ(messages.warn(), "");
}

// --- one connection --------------------------------------------------------------------------------------

TEST_F(TcpForwarder, pastTheDeadlineNothingIsDone) {
    join(1);
    send(1, packet("ab"));
    const StoppedClock clock;
    for (const long late : {1000L, 1L, 0L}) {
        forwarder->readAndForward(socket(1), static_cast<double>(kStart - late));
        EXPECT_EQ(told(), "") << "not even a flush";
    }
    forwarder->readAndForward(socket(1), kStart + 0.001);
    EXPECT_EQ(told(), "f1 r1 s1:4 f1 r1");
}

TEST_F(TcpForwarder, deadlineIsLookedAtBeforeEachPacket) {
    join(2);
    send(1, packet("a") + packet("b") + packet("c"));
    forwarder->afterSend = [](int) { pass(2); };
    {
        const StoppedClock clock;
        forwarder->readAndForward(socket(1), kStart + 3);
    }
    EXPECT_EQ(told(), "f1 r1 s1:3 s2:3 f1 r1 s1:3 s2:3");
    {
        const StoppedClock clock;
        forwarder->readAndForward(socket(1), kStart + 2);
    }
    EXPECT_EQ(told(), "f1 r1 s1:3 s2:3");
    EXPECT_EQ(peer(2).receive(9), packet("a") + packet("b") + packet("c"));
}

TEST_F(TcpForwarder, missingSocketIsToldAlsoWhileQuiet) {
    NwTcpForwarder plain(0);
    for (const double deadline : {0.0, 1e12}) {
        plain.readAndForward(nullptr, deadline);
        EXPECT_EQ(messages.warn(), "readAndForward: no socket.\n");
    }
    NwSocket::setQuietSockets(false);
    plain.readAndForward(nullptr, 1e12);
    EXPECT_EQ(messages.warn(), "readAndForward: no socket.\n");
}

TEST_F(TcpForwarder, socketOfTheCallersOwnMayBeServed) {
    join(1);
    TcpListener elsewhere;
    TcpPeer feeder(elsewhere.port());
    NwTcpSocket own(elsewhere.acceptFd(), kLoopback, 0);
    NwTcpForwarder& plain = *forwarder;
    feeder.sendAll(packet("ab"));
    ASSERT_TRUE(waitReadable(own.readFd()));
    // The base's step: the logged one knows logged sockets only.
    plain.NwTcpForwarder::readAndForward(&own, 1e12);
    EXPECT_EQ(told(), "s1:4");
    EXPECT_EQ(peer(1).receive(4), packet("ab"));
    feeder.close();
    ASSERT_TRUE(waitReadable(own.readFd()));
    plain.NwTcpForwarder::readAndForward(&own, 1e12);
    EXPECT_FALSE(own.isOk());
    EXPECT_THAT(listed(), ElementsAre(1)) << "removing is the rounds' business";
}

TEST_F(TcpForwarder, sendingMayRemoveTheSocketThatIsServedOutsideOfARound) {
    join(2);
    send(1, packet("ab") + packet("cd"));
    forwarder->afterSend = [&](int) { remove(1); };
    forwarder->readAndForward(socket(1), 1e12);
    EXPECT_EQ(told(), "f1 r1 s1:4 s2:4 ~1") << "and it is not touched again";
    EXPECT_THAT(listed(), ElementsAre(2));
}

// --- rounds and budgets ----------------------------------------------------------------------------------

TEST_F(TcpForwarder, eachConnectionHasOneTurnInARound) {
    join(3);
    EXPECT_THAT(round(), ElementsAre(1, 2, 3));
    EXPECT_THAT(round(), ElementsAre(1, 2, 3)) << "a full cycle leaves the start where it was";
}

TEST_F(TcpForwarder, turnEndsAfterItsShareOrWithTheRound) {
    join(4);
    forwarder->reads = false;
    round(10, 3);
    EXPECT_THAT(forwarder->deadlines, ElementsAre(3, 3, 3, 3));
    forwarder->beforeTurn = [](int) { pass(2); };
    round(10, 5);
    EXPECT_THAT(forwarder->deadlines, ElementsAre(5, 7, 9, 10)) << "cut to the end of the round";
}

TEST_F(TcpForwarder, shareLargerThanTheBudgetIsCutToTheEnd) {
    join(3);
    round(1, 1000);
    EXPECT_THAT(forwarder->deadlines, ElementsAre(1, 1, 1));
}

TEST_F(TcpForwarder, budgetThatRunsOutLeavesTheNextStartWithTheFirstOneNotServed) {
    join(4);
    forwarder->beforeTurn = [](int number) {
        if (number == 2) pass(1000);
    };
    EXPECT_THAT(round(1000, 1000), ElementsAre(1, 2));
    EXPECT_THAT(round(1000, 1000), ElementsAre(3, 4, 1, 2));
    EXPECT_THAT(round(1000, 1000), ElementsAre(3, 4, 1, 2)) << "the cycle was full as its time ran out";
    forwarder->beforeTurn = [](int number) {
        if (number == 4) pass(1001);
    };
    EXPECT_THAT(round(1000, 1000), ElementsAre(3, 4));
    EXPECT_THAT(round(1000, 1000), ElementsAre(1, 2, 3, 4)) << "behind the last comes the first";
}

TEST_F(TcpForwarder, budgetIsNotOverUntilItsLastMoment) {
    join(3);
    forwarder->beforeTurn = [](int) { pass(1); };
    EXPECT_THAT(round(2.5, 9), ElementsAre(1, 2, 3));
    EXPECT_THAT(round(2, 9), ElementsAre(1, 2));
    EXPECT_THAT(round(2, 9), ElementsAre(3, 1));
}

TEST_F(TcpForwarder, budgetOfNothingStillMovesOn) {
    join(3);
    send(2, packet("ab"));
    for (const double total : {0.0, -5.0}) {
        EXPECT_THAT(round(total), ElementsAre(1));
        EXPECT_THAT(round(total), ElementsAre(2));
        EXPECT_THAT(round(total), ElementsAre(3));
    }
    EXPECT_EQ(told(), "") << "but nobody is read";
    socket(1)->breakDown();
    EXPECT_THAT(round(0), ElementsAre());
    EXPECT_THAT(listed(), ElementsAre(2, 3)) << "what is broken goes all the same";
    EXPECT_THAT(round(0), ElementsAre(2));
}

TEST_F(TcpForwarder, shareOfNothingReadsNobodyButGoesRound) {
    join(3);
    send(1, packet("ab"));
    EXPECT_THAT(round(kLong, 0), ElementsAre(1, 2, 3));
    EXPECT_EQ(told(), "");
}

TEST_F(TcpForwarder, overrunsByOnePacketAtMost) {
    join(2);
    send(1, packet("a") + packet("b"));
    send(2, packet("c"));
    forwarder->afterSend = [](int) { pass(1); };
    EXPECT_THAT(round(1, 1), ElementsAre(1));
    EXPECT_EQ(told(), "f1 r1 s1:3 s2:3");
    EXPECT_THAT(round(1, 1), ElementsAre(2));
    EXPECT_THAT(round(1, 1), ElementsAre(1));
    EXPECT_EQ(peer(1).receive(9), packet("a") + packet("c") + packet("b"));
}

TEST_F(TcpForwarder, newConnectionsAreServedInTheNextCycle) {
    join(2);
    forwarder->afterTurn = [&](int number) {
        if (number == 1 && peers.size() == 2) join(1);
    };
    EXPECT_THAT(round(), ElementsAre(1, 2, 3));
    join(1);
    EXPECT_THAT(round(), ElementsAre(1, 2, 3, 4));
}

TEST_F(TcpForwarder, stepsAreVirtual) {
    join(2);
    send(1, packet("ab"));
    int sends = 0;
    forwarder->afterSend = [&](int) { ++sends; };
    EXPECT_THAT(round(), ElementsAre(1, 2));
    EXPECT_EQ(sends, 1);
}

// --- connections that go ---------------------------------------------------------------------------------

TEST_F(TcpForwarder, closedConnectionIsRemovedInTheRoundThatReachesIt) {
    join(3);
    Removals removals;
    removals.work = [&](int) { EXPECT_THAT(listed(), ElementsAre(1, 2, 3)); };
    forwarder->socketMgr()->addSocketRemovalCallback(Removals::call, &removals);
    send(2, packet("last words"));
    close(2);
    EXPECT_THAT(round(), ElementsAre(1, 2, 3));
    EXPECT_EQ(told(), "f1 r1 f2 r2 s1:12 s2:12 s3:12 f2 r2 ~2 f3 r3");
    EXPECT_THAT(removals.numbers, ElementsAre(2));
    EXPECT_THAT(listed(), ElementsAre(1, 3));
    EXPECT_EQ(peer(3).receive(12), packet("last words"));
    EXPECT_EQ(messages.warn(), "");
    EXPECT_THAT(round(), ElementsAre(1, 3));
}

TEST_F(TcpForwarder, brokenConnectionIsRemovedWithoutBeingRead) {
    join(3);
    Removals removals;
    forwarder->socketMgr()->addSocketRemovalCallback(Removals::call, &removals);
    send(2, packet("never read"));
    socket(2)->breakDown();
    EXPECT_THAT(round(), ElementsAre(1, 3));
    EXPECT_EQ(told(), "f1 r1 ~2 f3 r3");
    EXPECT_THAT(removals.numbers, ElementsAre(2));
}

TEST_F(TcpForwarder, connectionThatBreaksWhileSendingIsRemovedWhenItIsReached) {
    join(3);
    send(2, packet("ab"));
    for (const int each : {1, 3}) socket(each)->onSend = [this, each] { socket(each)->breakDown(); };
    EXPECT_THAT(round(), ElementsAre(1, 2)) << "3 still comes in this round, 1 has had its turn";
    EXPECT_THAT(listed(), ElementsAre(1, 2));
    EXPECT_THAT(round(), ElementsAre(2));
    EXPECT_THAT(listed(), ElementsAre(2));
}

TEST_F(TcpForwarder, badLengthEndsItsOwnConnectionOnly) {
    NwSocket::setQuietSockets(false);
    join(3);
    messages.all();
    send(2, std::string("\0\1garbage", 9));
    send(3, packet("ab"));
    EXPECT_THAT(round(), ElementsAre(1, 2, 3));
    EXPECT_EQ(messages.warn(), "NwTcpSocket: bad packet length 1\n");
    EXPECT_THAT(listed(), ElementsAre(1, 3));
    EXPECT_EQ(peer(1).receive(4), packet("ab"));
}

TEST_F(TcpForwarder, startMovesOnWhenItsSocketGoes) {
    join(4);
    round(0);  // the next start is with 2
    socket(2)->breakDown();
    EXPECT_THAT(round(), ElementsAre(3, 4, 1));
    EXPECT_THAT(round(), ElementsAre(3, 4, 1)) << "the start has moved to 3";
    socket(3)->breakDown();
    socket(4)->breakDown();
    EXPECT_THAT(round(), ElementsAre(1));
    EXPECT_THAT(listed(), ElementsAre(1));
    socket(1)->breakDown();
    EXPECT_THAT(round(), ElementsAre());
    EXPECT_THAT(listed(), ElementsAre());
    EXPECT_EQ(forwarder->nextSocket.item(), nullptr);
    join(2);
    EXPECT_THAT(round(), ElementsAre(5, 6)) << "and begins anew";
}

TEST_F(TcpForwarder, startBehindTheLastIsTheFirst) {
    join(3);
    round(0);
    round(0);  // the next start is with 3
    socket(3)->breakDown();
    EXPECT_THAT(round(), ElementsAre(1, 2));
    EXPECT_THAT(round(), ElementsAre(1, 2));
}

TEST_F(TcpForwarder, onlySocketMayGo) {
    join(1);
    close(1);
    EXPECT_THAT(round(), ElementsAre(1));
    EXPECT_THAT(listed(), ElementsAre());
    EXPECT_THAT(round(), ElementsAre());
}

TEST_F(TcpForwarder, allMayBeBrokenAtOnce) {
    join(4);
    for (const int each : {1, 2, 3, 4}) socket(each)->breakDown();
    EXPECT_THAT(round(), ElementsAre());
    EXPECT_EQ(told(), "~1 ~2 ~3 ~4");
}

TEST_F(TcpForwarder, startThatGoesBetweenRoundsMovesOn) {
    join(4);
    round(0);  // the next start is with 2
    remove(2);
    remove(3);
    EXPECT_THAT(round(), ElementsAre(4, 1));
    remove(4);
    EXPECT_THAT(round(), ElementsAre(1));
    remove(1);
    EXPECT_THAT(round(), ElementsAre());
}

TEST_F(TcpForwarder, timeThatRunsOutAsTheStartGoesKeepsTheOrder) {
    join(4);
    forwarder->beforeTurn = [&](int number) {
        if (number != 2) return;
        remove(1);  // the start, served
        pass(1000);
    };
    EXPECT_THAT(round(1000), ElementsAre(1, 2));
    forwarder->beforeTurn = nullptr;
    EXPECT_THAT(round(), ElementsAre(3, 4, 2));
}

TEST_F(TcpForwarder, turnMayServeAnotherConnectionThatGoes) {
    join(3);
    send(2, packet("ab") + packet("cd"));
    forwarder->beforeTurn = [&](int number) {
        if (number == 1) forwarder->readAndForward(socket(2), kStart + 1);
    };
    forwarder->afterSend = [&](int served) { remove(served); };
    EXPECT_THAT(round(), ElementsAre(1, 2, 3));
    EXPECT_EQ(told(), "f2 r2 s1:4 s2:4 s3:4 ~2 f1 r1 f3 r3") << "what went is not touched again";
}

// The inner round moves the start past the outer one's place.
TEST_F(TcpForwarder, turnMayHoldAnotherRound) {
    join(2);
    round(0);  // the next start is with 2
    bool isInner = false;
    forwarder->beforeTurn = [&](int number) {
        if (number == 1 && !std::exchange(isInner, true)) forwarder->readAndForward(0.0, 0.0);
    };
    EXPECT_THAT(round(), ElementsAre(2, 1, 2, 2)) << "it ends at the end of the list";
    isInner = false;
    forwarder->reads = false;  // the inner one takes all away
    forwarder->beforeTurn = [&](int number) {
        if (number == 1 && !std::exchange(isInner, true)) {
            for (const int each : {1, 2}) socket(each)->breakDown();
            forwarder->readAndForward(kLong, kLong);
        }
    };
    EXPECT_THAT(round(), ElementsAre(1));
    EXPECT_THAT(listed(), ElementsAre());
}

// Every way in which one socket's turn can take any sockets away, from every start: nobody who stays loses a
// turn or gets two, nobody who went is touched, and the next round begins with the start, or with the first
// one behind it that stayed.
class TcpForwarderRemoval : public TcpForwarder {
protected:
    enum Way { kInTurn, kAfterTurn, kWhileSending, kInRemovalCallback };

    struct Case {
        int count, start, actor;
        unsigned int gone;  // bit n: socket n
        Way way;
        bool backwards;
    };

    static bool isGone(const Case& c, int number) { return c.gone >> number & 1u; }
    // The numbers in the order of turns.
    static std::vector<int> turns(const Case& c) {
        std::vector<int> numbers;
        for (int i = 0; i < c.count; ++i) numbers.push_back((c.start - 1 + i) % c.count + 1);
        return numbers;
    }

    void removeThose(const Case& c) {
        for (int i = 1; i <= c.count; ++i) {
            const int number = c.backwards ? c.count + 1 - i : i;
            if (isGone(c, number)) remove(number);
        }
    }

    void check(const Case& c) {
        forwarder = nullptr;
        peers.clear();
        shop.made.clear();
        forwarder = std::make_unique<LoggedForwarder>(Workshop::make, &shop, 0);
        join(c.count);
        for (int i = 1; i < c.start; ++i) round(0);

        bool hasActed = false;
        const auto act = [&](int number) {
            if (number != c.actor || std::exchange(hasActed, true)) return;
            removeThose(c);
        };
        Removals removals;
        std::vector<int> stay, expected;
        for (const int number : turns(c)) {
            if (c.way == kInRemovalCallback && number == c.actor) {
                hasActed = true;
            } else {
                if (!hasActed || !isGone(c, number)) expected.push_back(number);
                if (number == c.actor) hasActed = true;
                if (!isGone(c, number)) stay.push_back(number);
            }
        }
        hasActed = false;
        switch (c.way) {
            case kInTurn:  // in the place of reading
                forwarder->reads = false;
                forwarder->beforeTurn = act;
                break;
            case kAfterTurn:
                forwarder->afterTurn = act;
                break;
            case kWhileSending:
                forwarder->afterSend = act;
                send(c.actor, packet("a") + packet("b"));
                break;
            case kInRemovalCallback:
                removals.work = act;
                forwarder->socketMgr()->addSocketRemovalCallback(Removals::call, &removals);
                socket(c.actor)->breakDown();
                break;
        }
        EXPECT_EQ(round(), expected);
        EXPECT_TRUE(hasActed);
        std::vector<int> sorted = stay;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(listed(), sorted);
        EXPECT_EQ(round(), stay) << "the round after it";
        TearDown();
        for (TcpPeer& each : peers) each.reset();
    }
};

TEST_F(TcpForwarderRemoval, ofAnySocketsInAnyTurn) {
    for (const Way way : {kInTurn, kAfterTurn, kWhileSending, kInRemovalCallback})
        for (int count = 1; count <= 4; ++count)
            for (int start = 1; start <= count; ++start)
                for (int actor = 1; actor <= count; ++actor)
                    for (unsigned int gone = 0; gone < 2u << count; gone += 2)
                        for (const bool backwards : {false, true}) {
                            check({count, start, actor, gone, way, backwards});
                            ASSERT_FALSE(HasFailure())
                                << "way " << way << ", " << count << " sockets, start " << start << ", in "
                                << actor << "'s turn, gone: bits " << gone << ", backwards " << backwards;
                        }
}

// Steps that do anything at any time: every round ends, and every socket goes once.
TEST_F(TcpForwarder, anythingAtAnyTime) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](std::size_t n) { return random() % n; };
    Removals removals;
    int depth = 0;
    const auto act = [&](int) {
        if (depth >= 2 || below(3)) return;
        ++depth;
        const std::vector<int> there = listed();
        const int any = there.empty() ? 1 : there[below(there.size())];
        switch (below(5)) {
            case 0:
                remove(any);
                break;
            case 1:
                if (!there.empty()) socket(any)->breakDown();
                break;
            case 2:
                pass(static_cast<long>(below(400)));
                break;
            case 3:
                forwarder->socketMgr()->processConnections();
                break;
            default:
                forwarder->readAndForward(500, 100);
                break;
        }
        --depth;
    };
    forwarder->socketMgr()->addSocketRemovalCallback(Removals::call, &removals);
    removals.work = act;
    std::string log;
    for (int i = 0; i < 150; ++i) {
        forwarder->afterTurn = forwarder->afterSend = nullptr;
        peers.push_back(connectTo(*forwarder->socketMgr()));
        forwarder->socketMgr()->processConnections();
        for (const int number : listed())
            if (below(2)) peer(number).sendAll(packet("some") + packet("thing"));
        forwarder->afterTurn = act;
        forwarder->afterSend = [&](int served) {
            if (listed().size() > 1 && served != 0) act(served);
        };
        round();
        log += " " + told();
    }
    TearDown();
    forwarder.reset();
    log += " " + told() + " ";
    for (std::size_t number = 1; number <= shop.made.size(); ++number) {
        const std::string deletion = " ~" + std::to_string(number) + " ";
        const std::size_t at = log.find(deletion);
        EXPECT_NE(at, std::string::npos) << number;
        EXPECT_EQ(log.find(deletion, at + 1), std::string::npos) << number;
    }
}

// --- slow receivers --------------------------------------------------------------------------------------

class SlowReceiver : public TcpForwarder {
protected:
    // 1 sends, 2 does not read, 3 does; until so many packets went out.
    void forward(int count, const std::function<bool()>& isEnough) {
        join(1);
        join(1, 4096);
        join(1);
        const int small = 4096;
        ::setsockopt(socket(2)->readFd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        for (int i = 0; i < count && !isEnough(); ++i) {
            const std::string next = packet(std::to_string(i) + std::string(1000, '.'));
            send(1, next);
            round();
            EXPECT_EQ(peer(1).receive(next.size()), next);
            EXPECT_EQ(peer(3).receive(next.size()), next) << "nobody waits for 2";
            sent += next;
        }
        told();
    }
    std::string sent;
};

TEST_F(SlowReceiver, queueKeepsWhatItDoesNotTakeAndEachTurnTriesAgain) {
    forward(2000, [&] { return socket(2)->getQueueStatus().first >= 50; });
    ASSERT_GE(socket(2)->getQueueStatus().first, 50);
    std::string received;
    EXPECT_TRUE(eventually([&] {
        received += peer(2).receiveSome();
        round();  // nothing arrives, and still the queue moves
        return received.size() >= sent.size();
    }));
    EXPECT_EQ(received, sent);
    EXPECT_EQ(socket(2)->getQueueStatus(), std::make_pair(0, -1));
}

void capAtThree(NwTcpSocket* socket, void*) {
    socket->setMaxForwarderQueue(3);
}

TEST_F(SlowReceiver, queueIsCappedAndTheRestDropped) {
    forwarder->socketMgr()->addSocketAdditionCallback(capAtThree, nullptr);
    int rounds = 0;
    forward(200, [&] {
        EXPECT_LE(socket(2)->getQueueStatus().first, 3);
        return ++rounds > 100;
    });
    EXPECT_EQ(socket(2)->getQueueStatus(), std::make_pair(3, 3));
    EXPECT_TRUE(socket(2)->isOk());
    EXPECT_THAT(listed(), ElementsAre(1, 2, 3));
    const std::string start = peer(2).receive(1003);
    EXPECT_EQ(start, sent.substr(0, 1003)) << "what was queued first comes first";
}

}  // namespace
