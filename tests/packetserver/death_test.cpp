// SPDX-License-Identifier: BSD-3-Clause
// Processes that are killed: whoever remains notices, nothing stays behind, and the next one starts.
//
// CVPACKETSERVER_CLIENT_DEATHS and CVPACKETSERVER_SERVER_DEATHS say how many are killed at random moments (20
// and 5; 1000 and 100 are for an evening).
#include <cvutil/cvPacketServer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "clients.h"
#include "packet_server_process.h"
#include "packets.h"
#include "private_host.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

int wished(const char* variable, int otherwise) {
    const char* text = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): one thread
    return text != nullptr ? std::atoi(text) : otherwise;
}

class PacketServerDeaths : public testing::Test {
protected:
    void SetUp() override { REQUIRE_PRIVATE_HOST(); }
    Tame tame;
};

// Sooner than the server's limit for clients that never attach: it is an end that is noticed.
void expectNothingLeft() {
    EXPECT_TRUE(eventually([] { return leftovers().empty(); }, 10000)) << leftovers();
}

// The handshake as far as step `last`, then silence. The child says when it is there.
enum Step { bound, asked, answered, attached, firstReport, reported, joined, steps };

int handshake(const Line& line, const std::string& requestPath, int last) {
    BareClient client(requestPath);
    client.bindNotify();
    if (last >= asked) client.ask();
    if (last >= answered) client.awaitAnswer();
    if (last >= attached && !client.attach()) return 1;
    const unsigned id = last >= answered ? static_cast<unsigned>(client.ack().clientId) : 0;
    if (last >= firstReport)
        NwCsFilterMsg(client.requestFd, NwCsFilterExerciseId, NwCsFilterOpOperator, 1, id).send();
    if (last >= reported) client.reportFilters();
    if (last >= joined)
        NwCsMulticastReqMsg(client.requestFd, NwCsMulticastJoin, ipv4("239.1.2.3"), id).send();
    line.say("here");
    line.hear();
    return 0;
}

TEST_F(PacketServerDeaths, clientKilledBetweenAnyTwoStepsLeavesNothing) {
    run("ip link set lo multicast on && ip route add 224.0.0.0/4 dev lo");
    Server server;
    for (int last = asked; last < steps; ++last) {
        SCOPED_TRACE(last);
        ClientProcess client([&](const Line& line) { return handshake(line, server.requestPath(), last); });
        EXPECT_EQ(client.hear(), "here");
        ASSERT_TRUE(server.waitForEvents("attached", last));
        client.kill();
        expectNothingLeft();
        EXPECT_TRUE(eventually([] { return groupsJoinedOn("lo").empty(); }));
        EXPECT_TRUE(server.waitForEvents("detached", last));
    }
}

// It was killed before the server came to its request.
TEST_F(PacketServerDeaths, clientKilledWhileItsRequestWaitsLeavesNothing) {
    Server server;
    server.daemon().signal(SIGSTOP);
    ClientProcess client([&](const Line& line) { return handshake(line, server.requestPath(), asked); });
    EXPECT_EQ(client.hear(), "here");
    client.kill();
    EXPECT_EQ(notifyPathsThere(), 1);
    server.daemon().signal(SIGCONT);
    expectNothingLeft();
    EXPECT_TRUE(server.waitForEvents("refused"));
}

TEST_F(PacketServerDeaths, clientThatGoesOnWithoutItsQueueIsLetGo) {
    Server server;
    BareClient client(server.requestPath());
    client.bindNotify();
    client.ask();
    ASSERT_TRUE(client.awaitAnswer());
    ASSERT_TRUE(client.attach());
    client.reportFilters();
    WatchedSocket control(server.port(), WatchedSocket::control);
    EXPECT_EQ(control.serverState().clients, 1u);
    ASSERT_EQ(::shmdt(client.base), 0);
    client.base = nullptr;
    EXPECT_TRUE(eventually([&] { return control.serverState().clients == 0; }));
}

// The longest wait of the suite: the server's own limit is 15 s.
TEST_F(PacketServerDeaths, clientThatNeverAttachesIsLetGo) {
    Server server;
    BareClient client(server.requestPath());
    client.bindNotify();
    client.ask();
    ASSERT_TRUE(client.awaitAnswer());
    EXPECT_EQ(segmentsThere(), 1);
    EXPECT_TRUE(eventually([] { return segmentsThere() == 0 && setsThere() == 0; }, 60000));
    EXPECT_FALSE(client.attach());
}

// --- at random moments -----------------------------------------------------------------------------------

// Attaches, sets filters, receives; for ever.
int restless(const Line&, int port, unsigned number) {
    NwSocket::setQuietSockets(true);
    WatchedSocket socket(port);
    unsigned int kind = number % 3;
    socket.pduKind().setTest(number % 2 != 0 ? NwTestExclude : NwTestInclude, 1, &kind);
    for (;;) {
        socket.notifyMe();
        waitReadable(socket.readFd(), 1);
        while (socket.next().kind != WatchedSocket::Item::nothing) {
        }
    }
}

TEST_F(PacketServerDeaths, clientsKilledAtRandomMomentsLeaveNothingAndHarmNobody) {
    const int deaths = wished("CVPACKETSERVER_CLIENT_DEATHS", 20);
    Server server({"--clients", "64", "--queue", "256k"});
    WatchedSocket witness(server.port());
    witness.settle();
    const int descriptors = server.daemon().descriptors();
    std::mt19937 random(1);
    UdpPeer sender;
    int sent = 0;
    const auto exchange = [&] {
        for (int i = 0; i < 5; ++i) sender.send(pdu(100, sent++ % 200, 7, 1, i % 3), server.port());
        for (int i = 5; i > 0; --i)
            ASSERT_EQ(witness.awaitPacket(), pdu(100, (sent - i) % 200, 7, 1, (5 - i) % 3));
    };
    int running = 0;
    for (int dead = 0; dead < deaths; running = 0) {
        std::vector<std::unique_ptr<ClientProcess>> clients;
        while (running < 4 && dead + running < deaths) {
            const unsigned number = random();
            clients.push_back(std::make_unique<ClientProcess>(
                [&, number](const Line& line) { return restless(line, server.port(), number); }));
            ++running;
        }
        for (const auto& client : clients) {
            ::usleep(random() % (dead % 2 == 0 ? 600 : 6000));  // in its handshake, or later
            client->signal(SIGKILL);
            ++dead;
        }
        exchange();
        ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    EXPECT_TRUE(eventually([&] { return witness.serverState().clients == 1; }));
    EXPECT_TRUE(eventually([] { return segmentsThere() == 1 && setsThere() == 1; })) << leftovers();
    EXPECT_TRUE(eventually([&] { return server.daemon().descriptors() == descriptors; }));
    EXPECT_EQ(witness.stateOf(witness.id()).dropped, 0u);
    // Of a client that died before it asked the server knows nothing: it leaves a name, or two for a moment.
    const int names = notifyPathsThere() - 1;
    const int attachments = WatchedSocket(server.port()).id() - witness.id() - 1;
    EXPECT_GT(attachments, 0);
    EXPECT_LE(names, 2 * std::max(deaths - attachments, 0)) << leftovers();
    std::printf("%d clients killed, %d attachments, %d names of those that had not asked\n", deaths,
                attachments, names);
}

// --- the server dies -------------------------------------------------------------------------------------

// Receives in one of three ways until the socket is not ok, says how it ended, and lets it be destroyed.
int receiveToTheEnd(const Line& line, int port, int way) {
    NwSocket::setQuietSockets(true);
    NwClientSocket socket(port, kLoopback, -1, 7);
    if (way != 0) socket.NwBecomeNonBlocking();
    line.say("here");
    while (socket.isOk()) {
        char* packet = nullptr;
        int status = 7;
        if (way == 2) {
            socket.notifyMe();
            waitReadable(socket.readFd(), 10);
        }
        socket.NwRecv(&packet, &status);
        if (!socket.isOk() && status != 0 && socket.endNotice() == NwCsNoticeDismissed) return 2;
    }
    line.say(std::to_string(socket.endNotice()));
    return 0;  // not reached: the destructor ends the process
}

TEST_F(PacketServerDeaths, everyClientLearnsOfAKilledServerAndClearsAway) {
    Server server;
    std::vector<std::unique_ptr<ClientProcess>> clients;
    for (int way = 0; way < 3; ++way) {
        clients.push_back(std::make_unique<ClientProcess>(
            [&, way](const Line& line) { return receiveToTheEnd(line, server.port(), way); }));
        EXPECT_EQ(clients.back()->hear(), "here");
    }
    EXPECT_EQ(setsThere(), 3);
    server.kill();
    for (const auto& client : clients) {
        EXPECT_EQ(client->hear(), std::to_string(NwCsNoticeDismissed));
        EXPECT_EQ(client->finish(), 1);
        EXPECT_EQ(client->errors(), "ClientSock not ok\n");
    }
    expectNothingLeft();
    server.startAgain();
    EXPECT_TRUE(WatchedSocket(server.port()).isOk());
}

TEST_F(PacketServerDeaths, everyClientLearnsOfAStoppedServer) {
    Server server;
    std::vector<std::unique_ptr<ClientProcess>> clients;
    for (int way = 0; way < 3; ++way) {
        clients.push_back(std::make_unique<ClientProcess>(
            [&, way](const Line& line) { return receiveToTheEnd(line, server.port(), way); }));
        EXPECT_EQ(clients.back()->hear(), "here");
    }
    server.stop();
    for (const auto& client : clients) {
        EXPECT_EQ(client->hear(), std::to_string(NwCsNoticeStopped));
        EXPECT_EQ(client->finish(), 1);
        EXPECT_EQ(client->errors(), "ClientSock not ok\n");
    }
    expectNothingLeft();
}

TEST_F(PacketServerDeaths, checkGoAwaySeesAnOrderlyStopWithoutReceiving) {
    Server server;
    WatchedSocket client(server.port());
    client.settle();
    client.checkGoAway();
    EXPECT_TRUE(client.isOk());
    server.stop();
    client.checkGoAway();
    EXPECT_FALSE(client.isOk());
    EXPECT_EQ(client.endNotice(), NwCsNoticeStopped);
    expectNothingLeft();
    EXPECT_EQ(Tame::fatalEndings(), 0);
}

// What was queued is delivered first, in order.
TEST_F(PacketServerDeaths, packetsOfAKilledServerAreNotLost) {
    Server server;
    WatchedSocket client(server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    client.settle();
    UdpPeer sender;
    for (int i = 0; i < 20; ++i) sender.send(pdu(100, i), server.port());
    EXPECT_TRUE(eventually([&] { return control.serverState().packets == 20; }));
    server.kill();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(client.awaitPacket(), pdu(100, i));
    EXPECT_TRUE(eventually([&] {
        client.next();
        return !client.isOk();
    }));
    EXPECT_EQ(client.endNotice(), NwCsNoticeDismissed);
}

// What an attached client and its server share has no name any more: it goes with the last of them.
TEST_F(PacketServerDeaths, serverAndClientKilledLeaveNoSegment) {
    Server server;
    ClientProcess client([&](const Line& line) {
        NwSocket::setQuietSockets(true);
        WatchedSocket socket(server.port());
        socket.settle();
        line.say(socket.path());
        line.hear();
        return 0;
    });
    const std::string path = client.hear();
    EXPECT_EQ(segmentsThere(), 1);
    server.kill();
    client.kill();
    EXPECT_EQ(segmentsThere(), 0) << leftovers();
    server.startAgain();
    EXPECT_EQ(setsThere(), 0) << leftovers();
    ::unlink(path.c_str());  // nobody is left who would
}

// The server dies at each step of a client's handshake; the client too, or not.
TEST_F(PacketServerDeaths, serverKilledBetweenAnyTwoStepsStartsAgain) {
    Server server({"--clients", "64"});
    for (const bool clientDies : {true, false}) {
        for (int last = bound; last < steps; ++last) {
            SCOPED_TRACE(std::to_string(last) + (clientDies ? " both" : ""));
            ClientProcess client(
                [&](const Line& line) { return handshake(line, server.requestPath(), last); });
            EXPECT_EQ(client.hear(), "here");
            server.kill();
            if (clientDies) client.kill();
            server.startAgain();
            EXPECT_EQ(setsThere(), 0) << leftovers();
            if (clientDies) {
                EXPECT_EQ(segmentsThere(), 0) << leftovers();
            }
            EXPECT_TRUE(WatchedSocket(server.port()).isOk());
            client.say("go on");
            if (!clientDies) {
                EXPECT_EQ(client.finish(), 0);
            }
            EXPECT_TRUE(eventually([] { return segmentsThere() == 0 && setsThere() == 0; })) << leftovers();
        }
    }
}

TEST_F(PacketServerDeaths, attachWithoutAnAnswerEndsAfterFiveSecondsAndLeavesNothing) {
    Server server;
    server.daemon().signal(SIGSTOP);
    ClientProcess client([&](const Line&) {
        NwClientSocket socket(server.port(), kLoopback, -1, 7);
        return 0;
    });
    EXPECT_TRUE(eventually([] { return notifyPathsThere() == 1; }));
    server.kill();
    EXPECT_EQ(client.finish(), 1);
    EXPECT_THAT(client.errors(), HasSubstr("ClientSock not ok\n"));
    expectNothingLeft();
}

// A server that now has fewer places finds what it left when it had more.
TEST_F(PacketServerDeaths, nextStartClearsEverySlot) {
    Server server({"--clients", "1"});  // and 8 for control
    server.kill();
    const RunDirectory directory;
    DaemonProcess large(
        {"--port", std::to_string(server.port()), "--run-dir", directory.path(), "--clients", "40"});
    ASSERT_TRUE(large.waitForError("serving"));
    char path[NwPacketServerPathSize];
    NwPacketServerPathIn(directory.path().c_str(), static_cast<unsigned>(server.port()), path,
                         NwPacketServerVersion);
    std::vector<std::unique_ptr<BareClient>> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(std::make_unique<BareClient>(path));
        clients.back()->bindNotify();
        clients.back()->ask();
        ASSERT_TRUE(clients.back()->awaitAnswer());
        ASSERT_TRUE(clients.back()->attach());
    }
    EXPECT_EQ(segmentsThere(), 40);
    large.kill();
    clients.clear();
    EXPECT_EQ(setsThere(), 40);
    server.startAgain();
    EXPECT_EQ(leftovers(), "");
}

TEST_F(PacketServerDeaths, serverKilledAtRandomMomentsIsNoticedByAllAndStartsAgain) {
    const int deaths = wished("CVPACKETSERVER_SERVER_DEATHS", 5);
    std::mt19937 random(2);
    Server server({"--queue", "256k"});
    int informed = 0;
    for (int dead = 0; dead < deaths; ++dead) {
        SCOPED_TRACE(dead);
        std::vector<std::unique_ptr<ClientProcess>> clients;
        for (int way = 0; way < 3; ++way)
            clients.push_back(std::make_unique<ClientProcess>(
                [&, way](const Line& line) { return receiveToTheEnd(line, server.port(), way); }));
        UdpPeer sender;
        const unsigned delay = random() % (dead % 2 == 0 ? 2000 : 12000);
        for (unsigned waited = 0; waited < delay; waited += 200) {
            sender.send(pdu(200), server.port());
            ::usleep(200);
        }
        server.kill();
        for (const auto& client : clients) {
            // It learns of it, or its attach fails: a fatal end both times.
            EXPECT_EQ(client->finish(), 1);
            EXPECT_THAT(client->errors(), HasSubstr("ClientSock not ok\n"));
            std::string said;
            if (!client->hear(said)) continue;
            EXPECT_EQ(client->hear(), std::to_string(NwCsNoticeDismissed));
            ++informed;
        }
        EXPECT_EQ(notifyPathsThere(), 0) << leftovers();
        server.startAgain();
        ASSERT_EQ(leftovers(), "");
        ASSERT_TRUE(WatchedSocket(server.port()).isOk());
    }
    std::printf("%d servers killed, %d of %d clients had attached\n", deaths, informed, 3 * deaths);
    server.stop();
    expectNothingLeft();
    EXPECT_THAT(server.directory().names(), IsEmpty());
}

}  // namespace
