// SPDX-License-Identifier: BSD-3-Clause
// Neighbours that mean harm, or are merely broken: other users, forged requests, floods, scribbles.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cvutil/cvShmMsgQueue.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "clients.h"
#include "packet_server_process.h"
#include "packets.h"
#include "private_host.h"

using testing::HasSubstr;

namespace {

class PacketServerNeighbours : public testing::Test {
protected:
    void SetUp() override { REQUIRE_PRIVATE_HOST(); }
    Tame tame;
};

std::string textOf(const NwCsMsg& message) {
    const NwCsWarningMsg warning(nullptr, &message);
    return std::string(warning.text(), warning.textLength());
}

// That the server is unharmed: it answers, and delivers.
void expectAtWork(Server& server) {
    ASSERT_TRUE(server.daemon().isRunning());
    WatchedSocket client(server.port());
    ASSERT_TRUE(client.isOk());
    client.settle();
    UdpPeer().send(pdu(123), server.port());
    EXPECT_EQ(client.awaitPacket(), pdu(123));
}

// A handshake in another user's process; what the server answered: the kind of its answer, or the text of
// its warning.
std::string answerTo(unsigned user, const Server& server) {
    ClientProcess other(
        [&](const Line& line) {
            BareClient client(server.requestPath());
            if (client.requestFd < 0) {
                line.say("no way to ask");
                return 0;
            }
            client.bindNotify();
            client.ask();
            client.awaitAnswer();
            line.say(client.answer.kind == NwCsKindWarning ? textOf(client.answer)
                                                           : "kind " + std::to_string(client.answer.kind));
            return 0;
        },
        user);
    const std::string answer = other.hear();
    EXPECT_EQ(other.finish(), 0);
    return answer;
}

const char* const kAccepted = "kind 6";

// --- other users -----------------------------------------------------------------------------------------

TEST_F(PacketServerNeighbours, otherUsersAttachOnlyWhereTheyAreAllowed) {
    REQUIRE_OTHER_USERS();
    {
        Server server;
        EXPECT_EQ(answerTo(kOtherUser, server), "no way to ask");
        EXPECT_EQ(answerTo(0, server), kAccepted);
        server.stop();
        EXPECT_EQ(leftovers(), "");
    }
    {
        Server server({"--allow-user", std::to_string(kThirdUser)});
        EXPECT_EQ(answerTo(kOtherUser, server), "this user may not attach");
        EXPECT_EQ(answerTo(kThirdUser, server), kAccepted);
        EXPECT_EQ(answerTo(0, server), kAccepted);
        ASSERT_TRUE(server.waitForEvents("refused"));
        EXPECT_EQ(server.lastEvent("refused")["uid"], kOtherUser);
        server.stop();
        EXPECT_EQ(leftovers(), "");
    }
    {
        Server server({"--allow-group", std::to_string(kThirdUser)});
        EXPECT_EQ(answerTo(kOtherUser, server), "this user may not attach");
        EXPECT_EQ(answerTo(kThirdUser, server), kAccepted);
        server.stop();
        EXPECT_EQ(leftovers(), "");
    }
    {
        Server server({"--allow-all"});
        EXPECT_EQ(answerTo(kOtherUser, server), kAccepted);
        EXPECT_EQ(answerTo(kThirdUser, server), kAccepted);
    }
}

// The socket of a client that is another user: it gets packets, and has its segment for itself.
TEST_F(PacketServerNeighbours, clientOfAnotherUserIsServed) {
    REQUIRE_OTHER_USERS();
    Server server({"--allow-user", std::to_string(kOtherUser)});
    ClientProcess other(
        [&](const Line& line) {
            NwSocket::setQuietSockets(true);
            WatchedSocket socket(server.port());
            socket.settle();
            line.say("here");
            line.say(socket.awaitPacket());
            line.hear();
            return 0;
        },
        kOtherUser);
    EXPECT_EQ(other.hear(), "here");
    UdpPeer().send(pdu(100), server.port());
    EXPECT_EQ(other.hear(), pdu(100));
    std::ifstream table("/proc/sysvipc/shm");
    std::string line;
    std::getline(table, line);
    long key, id, mode, size, maker, last, attached, uid;
    table >> key >> id >> mode >> size >> maker >> last >> attached >> uid;
    EXPECT_EQ(mode % 1000, 600);
    EXPECT_EQ(uid, static_cast<long>(kOtherUser));
    other.say("bye");
    EXPECT_EQ(other.finish(), 0) << other.errors();
    EXPECT_TRUE(eventually([] { return leftovers().empty(); })) << leftovers();
}

TEST_F(PacketServerNeighbours, clientOfAnotherUserMayNotControlTheServerUnlessAllowed) {
    REQUIRE_OTHER_USERS();
    const auto controlling = [](const Server& server) {
        return [&server](const Line& line) {
            NwSocket::setQuietSockets(true);
            WatchedSocket socket(server.port(), WatchedSocket::control);
            const auto answer = [&] {
                const NwCsMsg message = socket.awaitMessage(NwCsKindWarning);
                line.say(textOf(message));
            };
            socket.setPacketServerInternal();
            answer();
            socket.setPacketServerUnbundling(0);
            answer();
            socket.terminatePacketServer();
            answer();
            return 0;
        };
    };
    {
        Server server({"--allow-all"});
        ClientProcess other(controlling(server), kOtherUser);
        EXPECT_EQ(other.hear(), "not allowed to switch the server's mode");
        EXPECT_EQ(other.hear(), "not allowed to change the server's unbundling");
        EXPECT_EQ(other.hear(), "not allowed to stop the server");
        EXPECT_EQ(other.finish(), 0);
        WatchedSocket own(server.port());
        const NwCsStateReturnRecord state = own.serverState();
        EXPECT_EQ(state.internal, 0);
        EXPECT_EQ(state.unbundling, 1);
    }
    {
        Server server({"--allow-all", "--allow-control"});
        ClientProcess other(
            [&](const Line&) {
                NwSocket::setQuietSockets(true);
                WatchedSocket socket(server.port(), WatchedSocket::control);
                socket.setPacketServerInternal();
                socket.awaitNotice(NwCsNoticeInternal);
                socket.terminatePacketServer();
                socket.awaitNotice(NwCsNoticeStopped);
                return 0;
            },
            kOtherUser);
        EXPECT_EQ(server.daemon().finish().exitStatus, 0);
    }
}

TEST_F(PacketServerNeighbours, nobodySpeaksForAnotherUsersClient) {
    REQUIRE_OTHER_USERS();
    Server server({"--allow-all", "--allow-control"});
    WatchedSocket mine(server.port());
    mine.settle();
    ClientProcess other(
        [&](const Line&) {
            BareClient client(server.requestPath());
            const unsigned victim = static_cast<unsigned>(mine.id());
            for (int request = 0; request < NwCsRequestCount; ++request)
                NwCsControlReqMsg(client.requestFd, static_cast<unsigned short>(request), victim).send();
            NwCsFilterMsg(client.requestFd, NwCsFilterPduKind, NwCsFilterOpOperator, 0, victim).send();
            NwCsMulticastReqMsg(client.requestFd, NwCsMulticastJoin, ipv4("239.1.2.3"), victim).send();
            return 0;
        },
        kOtherUser);
    EXPECT_EQ(other.finish(), 0);
    const NwCsCStateReturnRecord state = mine.stateOf(mine.id());
    EXPECT_EQ(state.groups, 0u);
    EXPECT_EQ(state.unbundling, 1);
    EXPECT_EQ(state.filters[NwCsFilterPduKind].excludes, 1u);
    EXPECT_EQ(mine.serverState().internal, 0);
    server.stop();
    EXPECT_EQ(server.lastEvent("statistics")["requestsRefused"], NwCsRequestCount + 2);
}

// --- forged requests -------------------------------------------------------------------------------------

TEST_F(PacketServerNeighbours, processNumberInARequestIsNotBelieved) {
    Server server;
    BareClient client(server.requestPath());
    client.bindNotify();
    client.ask(NwClientSocket::defaultFlags, 1);
    ASSERT_TRUE(client.awaitAnswer());
    EXPECT_EQ(client.answer.kind, NwCsKindAck);
    ASSERT_TRUE(server.waitForEvents("attached"));
    EXPECT_EQ(server.lastEvent("attached")["pid"], ::getpid());
    WatchedSocket control(server.port(), WatchedSocket::control);
    EXPECT_EQ(control.stateOf(client.ack().clientId).pid, ::getpid());
}

TEST_F(PacketServerNeighbours, notifyPathsThatAreNoneAreRefused) {
    Server server;
    const RunDirectory there;
    BareClient client(server.requestPath());
    client.bindNotify();
    const std::string name = client.notifyPath.substr(std::strlen("/tmp"));
    std::ofstream("/tmp/regular") << "kept";
    std::filesystem::create_symlink(client.notifyPath, "/tmp/link");
    std::filesystem::create_directory("/tmp/directory");
    std::filesystem::create_directory_symlink("/tmp", there.file("tmp"));
    int refused = 0;  // far fewer than a server tells of at once
    for (const auto& [path, why] : std::vector<std::pair<std::string, std::string>>{
             {"/tmp/regular", "is no socket"},
             {"/tmp/directory", "is no socket"},
             {"/tmp/link", "is no socket"},
             {"/tmp/missing", "cannot be reached: No such file or directory"},
             {"/tmp/", "cannot be reached"},
             {"/tmp/..", "cannot be reached"},
             {"/tmp/directory/..", "is not directly in /tmp/"},
             {"/tmp/regular/below", "is not directly in /tmp/"},
             {there.file("tmp") + name, "is not directly in /tmp/"},
             {"/", "is not directly in /tmp/"}}) {
        client.askWithPath(path);
        ASSERT_TRUE(server.waitForEvents("refused", ++refused)) << path;
        EXPECT_THAT(server.lastEvent("refused")["reason"].get<std::string>(),
                    HasSubstr("the notify path " + why))
            << path;
    }
    EXPECT_EQ(server.countEvents("attached"), 0);
    // These do not even look like one.
    client.askWithPath(name.substr(1));
    client.askWithPath("");
    NwCsAddClientRecord endless{};
    endless.kind = NwCsKindAddClient;
    endless.version = NwCsMsgVersion;
    std::memset(endless.notifyPath, '/', sizeof endless.notifyPath);
    client.request(&endless, sizeof endless);
    ASSERT_TRUE(server.waitForEvents("request refused"));
    client.ask();  // and with its own path it is welcome
    ASSERT_TRUE(client.awaitAnswer());
    EXPECT_EQ(client.answer.kind, NwCsKindAck);
    std::ifstream kept("/tmp/regular");
    std::string word;
    kept >> word;
    EXPECT_EQ(word, "kept");
    server.stop();
    EXPECT_EQ(server.lastEvent("statistics")["requestsRefused"], 3);
    EXPECT_EQ(server.lastEvent("statistics")["attachesRefused"], refused);
}

TEST_F(PacketServerNeighbours, notifySocketOfAnotherUserHearsNothing) {
    REQUIRE_OTHER_USERS();
    Server server({"--allow-all"});
    BareClient mine(server.requestPath());
    mine.bindNotify();
    ClientProcess other(
        [&](const Line&) {
            BareClient client(server.requestPath());
            client.askWithPath(mine.notifyPath);
            return 0;
        },
        kOtherUser);
    ASSERT_TRUE(server.waitForEvents("refused"));
    EXPECT_EQ(server.lastEvent("refused")["reason"], "the notify path belongs to another user");
    EXPECT_FALSE(mine.awaitAnswer(0));
    EXPECT_TRUE(std::filesystem::exists(mine.notifyPath));
}

// Or refused, where the system can do that.
TEST_F(PacketServerNeighbours, descriptorsThatArePassedAreClosed) {
    Server server;
    BareClient client(server.requestPath());
    expectAtWork(server);
    const auto pass = [&](int count) {
        const std::vector<int> given(static_cast<std::size_t>(count), STDIN_FILENO);
        const NwCsControlReqMsg request(-1, NwCsRequestPingClients, 4711);
        iovec part{const_cast<NwCsMsg*>(&request.bytes()), static_cast<std::size_t>(request.size())};
        std::vector<char> control(CMSG_SPACE(given.size() * sizeof(int)));
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(given.size() * sizeof(int));
        std::memcpy(CMSG_DATA(head), given.data(), given.size() * sizeof(int));
        return ::sendmsg(client.requestFd, &message, 0);
    };
    WatchedSocket control(server.port(), WatchedSocket::control);
    control.settle();
    const int before = server.daemon().descriptors();
    for (int round = 0; round < 50; ++round)
        for (const int count : {1, 2, 11, 12, 13, 253}) ASSERT_TRUE(pass(count) > 0 || errno == EPERM);
    control.settle();
    EXPECT_EQ(server.daemon().descriptors(), before);
}

// --- floods ----------------------------------------------------------------------------------------------

// Packets for an honest client while somebody does something at the request socket.
class Honest {
public:
    explicit Honest(const Server& server) : socket(server.port()), myPort(server.port()) { socket.settle(); }
    // Ten packets, each of which arrives.
    void exchange() {
        for (int i = 0; i < 10; ++i) mySender.send(pdu(100 + i, ++sent), myPort);
        for (int i = 0; i < 10; ++i) ASSERT_EQ(socket.awaitPacket(), pdu(100 + i, sent - 9 + i));
    }
    WatchedSocket socket;
    int sent = 0;

private:
    const int myPort;
    UdpPeer mySender;
};

// How many lines about clients the log holds since then: 200 at once, and 5 more a second.
int mostLines(std::chrono::steady_clock::time_point start) {
    const auto past = std::chrono::steady_clock::now() - start;
    return 200 + 5 * static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(past).count() + 2);
}

TEST_F(PacketServerNeighbours, floodOfGarbageHoldsUpNobodyAndIsCounted) {
    const int datagrams = 100000;
    Server server;
    Honest honest(server);
    const int before = server.daemon().descriptors();
    ClientProcess foe([&](const Line&) {
        BareClient client(server.requestPath());
        std::mt19937 random(3);
        std::vector<unsigned> words(128);
        for (int i = 0; i < datagrams; ++i) {
            for (unsigned& word : words) word = random();
            unsigned char* const bytes = reinterpret_cast<unsigned char*>(words.data());
            const std::size_t length = random() % 400;
            if (i % 2 == 0) bytes[0] = static_cast<unsigned char>(1 + random() % 4);  // kinds that there are
            if (i % 4 == 0) bytes[1] = 99;
            if (length == static_cast<std::size_t>(NwCsRecordSize(bytes[0]))) bytes[1] = 99;
            while (client.request(bytes, length) < 0) ::usleep(100);
        }
        return 0;
    });
    const auto start = std::chrono::steady_clock::now();
    while (!foe.hasEnded()) {
        honest.exchange();
        ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    EXPECT_EQ(foe.finish(), 0);
    honest.exchange();
    EXPECT_EQ(server.daemon().descriptors(), before);
    EXPECT_EQ(honest.socket.stateOf(honest.socket.id()).dropped, 0u);
    server.stop();
    EXPECT_EQ(server.lastEvent("statistics")["requestsRefused"], datagrams);
    EXPECT_LE(server.countEvents("request refused"), mostLines(start));
}

TEST_F(PacketServerNeighbours, floodOfAttachesThatAreRefusedDoesNotFillTheLog) {
    const int attaches = 20000;
    Server server;
    Honest honest(server);
    const int before = server.daemon().descriptors();
    ClientProcess foe([&](const Line&) {
        BareClient client(server.requestPath());
        for (int i = 0; i < attaches; ++i) client.askWithPath("/tmp/missing");
        return 0;
    });
    const auto start = std::chrono::steady_clock::now();
    while (!foe.hasEnded()) {
        honest.exchange();
        ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    honest.socket.settle();
    EXPECT_EQ(server.daemon().descriptors(), before);
    server.stop();
    EXPECT_EQ(server.lastEvent("statistics")["attachesRefused"], attaches);
    EXPECT_LE(server.countEvents("refused"), mostLines(start));
}

// One process takes all places; when it dies they are free again.
TEST_F(PacketServerNeighbours, placesTakenByOneProcessComeBackWithItsEnd) {
    Server server({"--clients", "4", "--queue", "256k"});
    ClientProcess foe([&](const Line& line) {
        std::vector<std::unique_ptr<BareClient>> clients;
        for (int i = 0; i < 6; ++i) {
            clients.push_back(std::make_unique<BareClient>(server.requestPath()));
            clients.back()->bindNotify();
            clients.back()->ask();
            clients.back()->awaitAnswer();
            line.say(std::to_string(clients.back()->answer.kind));
        }
        line.hear();
        return 0;
    });
    for (int i = 0; i < 6; ++i) EXPECT_EQ(foe.hear(), i < 4 ? "6" : "7");
    foe.kill();
    expectAtWork(server);
    EXPECT_TRUE(eventually([] { return leftovers().find("segment") == std::string::npos; })) << leftovers();
}

// A notify socket that nobody empties takes no time of the server's.
TEST_F(PacketServerNeighbours, notifySocketThatIsFullHoldsUpNobody) {
    Server server({"--clients", "200", "--queue", "256k"});
    Honest honest(server);
    ClientProcess foe([&](const Line& line) {
        BareClient deaf(server.requestPath());
        deaf.bindNotify();
        for (int i = 0; i < 100; ++i) deaf.ask();  // as many answers as do not fit
        line.say("asked");
        line.hear();
        return 0;
    });
    EXPECT_EQ(foe.hear(), "asked");
    honest.exchange();
    expectAtWork(server);
    foe.say("enough");
    EXPECT_EQ(foe.finish(), 0);
}

// --- scribbles -------------------------------------------------------------------------------------------

TEST_F(PacketServerNeighbours, clientThatScribblesOverItsSegmentHarmsItselfAlone) {
    Server server({"--queue", "256k"});
    Honest honest(server);
    const int before = server.daemon().descriptors();
    for (unsigned seed = 0; seed < 6; ++seed) {
        SCOPED_TRACE(seed);
        ClientProcess foe([&](const Line& line) {
            BareClient client(server.requestPath());
            client.bindNotify();
            client.ask();
            if (!client.awaitAnswer() || !client.attach()) return 1;
            client.reportFilters();
            line.say("here");
            std::mt19937 random(seed);
            unsigned* const words = reinterpret_cast<unsigned*>(client.base);
            const std::size_t count = client.segmentBytes / sizeof(unsigned);
            // Everywhere; or in the queue's header alone, where the positions are.
            const std::size_t most = seed % 2 == 0 ? count : (128 + 512) / sizeof(unsigned);
            for (;;) {
                for (std::size_t i = 0; i < most; ++i)
                    __atomic_store_n(words + i, seed % 3 == 0 ? random() % 8 : random(), __ATOMIC_RELAXED);
            }
            return 0;
        });
        ASSERT_EQ(foe.hear(), "here");
        for (int i = 0; i < 150; ++i) {
            honest.exchange();
            ASSERT_FALSE(testing::Test::HasFatalFailure());
        }
        honest.socket.clientStates();
        foe.kill();
    }
    WatchedSocket& socket = honest.socket;
    EXPECT_TRUE(eventually([&] { return socket.serverState().clients == 1; }));
    const NwCsCStateReturnRecord state = socket.stateOf(socket.id());
    EXPECT_EQ(state.delivered, static_cast<unsigned>(honest.sent));
    EXPECT_EQ(state.dropped, 0u);
    EXPECT_EQ(segmentsThere(), 1);
    EXPECT_EQ(setsThere(), 1);
    EXPECT_EQ(server.daemon().descriptors(), before);
}

// Semaphores are a client's to change, or to remove.
TEST_F(PacketServerNeighbours, clientThatRemovesItsSemaphoresHarmsItselfAlone) {
    Server server;
    Honest honest(server);
    BareClient foe(server.requestPath());
    foe.bindNotify();
    foe.ask();
    ASSERT_TRUE(foe.awaitAnswer());
    ASSERT_TRUE(foe.attach());
    foe.reportFilters();
    const int set = ::semget(foe.ack().semKey, 0, 0);
    ASSERT_GE(set, 0);
    ASSERT_EQ(::semctl(set, NwShmWakeSemaphore, SETVAL, 32767), 0);
    reinterpret_cast<NwShmMsgQueueHeader*>(foe.base + foe.ack().client2ServerSize)->attention =
        NwShmSleeping | NwShmNotifyArmed;
    honest.exchange();
    ASSERT_EQ(::semctl(set, 0, IPC_RMID), 0);
    ASSERT_EQ(::shmctl(foe.shmId, IPC_RMID, nullptr), 0);
    reinterpret_cast<NwShmMsgQueueHeader*>(foe.base + foe.ack().client2ServerSize)->attention =
        NwShmSleeping | NwShmNotifyArmed;
    honest.exchange();
    expectAtWork(server);
}

// --- keys ------------------------------------------------------------------------------------------------

TEST_F(PacketServerNeighbours, keysInTheHandsOfAnotherUserCostASlotAndNoClient) {
    REQUIRE_OTHER_USERS();
    Server server;
    ClientProcess other(
        [&](const Line& line) {
            const int port = server.port();
            const bool taken =
                ::shmget(NwShmMsgQueueSegment::shmKeyOf(port, 0), 100, IPC_CREAT | IPC_EXCL | 0600) >= 0 &&
                ::semget(NwShmMsgQueueSegment::semKeyOf(port, 1), 1, IPC_CREAT | IPC_EXCL | 0666) >= 0 &&
                ::shmget(NwShmMsgQueueSegment::shmKeyOf(port, 2), 1 << 23, IPC_CREAT | IPC_EXCL | 0666) >= 0;
            line.say(taken ? "taken" : "not taken");
            return 0;
        },
        kOtherUser);
    ASSERT_EQ(other.hear(), "taken");
    EXPECT_EQ(other.finish(), 0);
    {
        WatchedSocket first(server.port());
        WatchedSocket second(server.port());
        ASSERT_TRUE(first.isOk() && second.isOk());
        expectAtWork(server);
    }
    server.kill();
    server.startAgain();  // what is not ours stays, and is no obstacle
    expectAtWork(server);
    server.stop();
    EXPECT_EQ(segmentsThere(), 2);
    EXPECT_EQ(setsThere(), 1);
}

}  // namespace
