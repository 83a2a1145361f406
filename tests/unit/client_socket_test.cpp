// SPDX-License-Identifier: BSD-3-Clause
// The packet-server client against a server written out by hand: what it asks, what it does with each answer,
// and how it ends.
#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <fstream>

#include "child.h"
#include "fake_packet_server.h"
#include "messages.h"

namespace {

std::string* lastFatal = nullptr;
void noteFatal(const char* message) {
    *lastFatal += message;
}

// While it lives, fatal endings are noted and the process goes on.
class Fatal {
public:
    Fatal() : myFormer(NwSetFatalHandler(noteFatal)) { lastFatal = &text; }
    ~Fatal() { NwSetFatalHandler(myFormer); }
    std::string take() {
        std::string taken;
        std::swap(taken, text);
        return taken;
    }
    std::string text;

private:
    NwFatalHandler myFormer;
};

const char kNotOk[] = "ClientSock not ok\n";

class Client : public NwClientSocket {
public:
    using NwClientSocket::clientId;
    using NwClientSocket::internal;
    using NwClientSocket::netSocket;
    using NwClientSocket::notifyFd;
    using NwClientSocket::notifyPath;
    using NwClientSocket::notifyPending;
    using NwClientSocket::NwClientSocket;
    using NwClientSocket::recvBuffer;
    using NwClientSocket::shmBase;
    using NwClientSocket::timeout;
};

template <class Record>
std::string bytesOf(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

template <class Record>
Record recordIn(const std::string& bytes) {
    Record record = Record();
    EXPECT_EQ(sizeof record, bytes.size());
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

std::string filterMessage(int index, int op, unsigned int value,
                          unsigned int id = FakePacketServer::kClientId) {
    return bytesOf(NwCsFilterRecord{NwCsKindFilter, 3, static_cast<std::uint8_t>(index),
                                    static_cast<std::uint8_t>(op), value, id});
}

std::string controlMessage(int request) {
    return bytesOf(NwCsControlReqRecord{NwCsKindControlReq, 3, static_cast<std::uint16_t>(request),
                                        FakePacketServer::kClientId});
}

std::string noticeMessage(int code) {
    return bytesOf(NwCsNoticeRecord{NwCsKindNotice, 3, static_cast<std::uint16_t>(code)});
}

bool exists(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0;
}

int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += ::fcntl(fd, F_GETFD) != -1;
    return count;
}

int attachments(int shmId) {
    shmid_ds status;
    return ::shmctl(shmId, IPC_STAT, &status) == 0 ? static_cast<int>(status.shm_nattch) : -1;
}

// The process's files under /tmp that clients make for their notify sockets.
class ClientSocketTest : public ::testing::Test {
protected:
    void SetUp() override {
        NwNetSocket::initErrorAction = 1;
        renewServer();
    }

    // A server with an empty queue, at the place of the one before.
    void renewServer() {
        server.reset();
        server.reset(new FakePacketServer);
        server->makeQueue();
    }

    // A client that is attached; the requests of its attach are taken away.
    std::unique_ptr<Client> attach(unsigned short flags = NwClientSocket::defaultFlags,
                                   unsigned int addr = kLoopback) {
        return attachWith(server->good(), flags, addr);
    }
    std::unique_ptr<Client> attachWith(const NwCsAckRecord& ack, unsigned short flags, unsigned int addr) {
        server->answerAttach(ack);
        std::unique_ptr<Client> client(new Client(FakePacketServer::kPort, addr, -1, flags));
        server->answered();
        server->drain();
        return client;
    }

    // An attach that must fail: what was printed, warnings behind information.
    std::string refused(const std::string& answer, unsigned short flags = NwClientSocket::defaultFlags) {
        const int before = openDescriptors();
        server->answerAttach(answer);
        Messages messages;
        {
            Client client(FakePacketServer::kPort, kLoopback, -1, flags);
            server->answered();
            EXPECT_FALSE(client.isOk());
            EXPECT_EQ(kNotOk, fatal.take());
            EXPECT_EQ(-1, client.readFd());
            EXPECT_EQ(-1, client.writeFd());
            EXPECT_STREQ("", client.notifyPath);
            EXPECT_EQ(nullptr, client.shmBase);
        }
        EXPECT_EQ(kNotOk, fatal.take());  // the destructor
        EXPECT_FALSE(exists(server->notifyPath));
        EXPECT_EQ(before + 1, openDescriptors());  // the server's end of the notify socket
        EXPECT_EQ(1, attachments(server->segment.shmId()));
        return messages.info() + messages.warn();
    }

    Fatal fatal;
    std::unique_ptr<FakePacketServer> server;
};

TEST_F(ClientSocketTest, asksForAPlaceAndTellsItsFilters) {
    Messages messages;
    server->answerAttach(server->good());
    Client client(FakePacketServer::kPort, kLoopback, 42, 7);
    server->answered();
    ASSERT_TRUE(client.isOk());
    const NwCsAddClientRecord add = recordIn<NwCsAddClientRecord>(server->request);
    EXPECT_EQ(NwCsKindAddClient, add.kind);
    EXPECT_EQ(3, add.version);
    EXPECT_EQ(7, add.flags);
    EXPECT_EQ(42, add.clientArg);
    EXPECT_EQ(32, add.option);
    EXPECT_EQ(::getpid(), add.pid);
    EXPECT_EQ(0u, std::string(add.notifyPath).find("/tmp/cvc"));
    EXPECT_STREQ(add.notifyPath, client.notifyPath);
    EXPECT_TRUE(exists(add.notifyPath));
    for (int index = 0; index < 4; ++index) EXPECT_EQ(filterMessage(index, 0, 1), server->next());
    EXPECT_TRUE(server->isEmpty());  // a unicast address makes no join
    EXPECT_EQ("ClientSocket (id 77) ok for port 3000 (external)\n", messages.info());
    EXPECT_EQ(server->segment.semId(), semid);
    EXPECT_EQ(77, client.clientId);
    EXPECT_NE(-1, ::fcntl(client.readFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(::fcntl(client.readFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_GE(client.writeFd(), 0);
    EXPECT_EQ(0u, client.lastSourceInetAddr());
}

TEST_F(ClientSocketTest, releasesEverythingAtItsEnd) {
    const int before = openDescriptors();
    std::unique_ptr<Client> client = attach();
    const std::string path = client->notifyPath;
    EXPECT_EQ(2, attachments(server->segment.shmId()));
    client.reset();
    EXPECT_EQ("", fatal.take());
    EXPECT_EQ(controlMessage(7), server->next());
    EXPECT_TRUE(server->isEmpty());
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(1, attachments(server->segment.shmId()));
    // What is left is the server's end, and the sending socket, which is never destroyed.
    EXPECT_EQ(before + 2, openDescriptors());
}

TEST_F(ClientSocketTest, threeArgumentsMeanAddressZero) {
    Quiet quiet;
    server->answerAttach(server->good());
    Client client(FakePacketServer::kPort, -1, NwClientSocket::defaultFlags);
    server->answered();
    EXPECT_TRUE(client.isOk());
    server->drain();
}

TEST_F(ClientSocketTest, multicastAddressIsJoined) {
    Quiet quiet;
    server->answerAttach(server->good());
    Client client(FakePacketServer::kPort, 0xEF010203u, -1, NwClientSocket::defaultFlags);
    server->answered();
    for (int i = 0; i < 4; ++i) server->next();
    EXPECT_EQ(bytesOf(NwCsMulticastReqRecord{NwCsKindMulticastReq, 3, 0, 0xEF010203u, 77}), server->next());
    EXPECT_TRUE(server->isEmpty());
}

TEST_F(ClientSocketTest, internalModeIsTold) {
    Messages messages;
    NwCsAckRecord ack = server->good();
    ack.internal = 5;
    std::unique_ptr<Client> client = attachWith(ack, 7, kLoopback);
    EXPECT_TRUE(client->internal);
    EXPECT_EQ("ClientSocket (id 77) ok for port 3000 (internal)\n", messages.info());
}

TEST_F(ClientSocketTest, withoutNotifySocket) {
    std::unique_ptr<Client> client = attach(0x87);
    ASSERT_TRUE(client->isOk());
    EXPECT_EQ(-1, client->readFd());
    EXPECT_FALSE(exists(server->notifyPath));
    EXPECT_STREQ("", client->notifyPath);
    Messages messages;
    char kind = 0;
    char buffer[176];
    EXPECT_EQ(0, client->timedRecv(buffer, sizeof buffer, &kind));
    EXPECT_EQ("ClientSocket not ok to read\n", messages.warn());
    EXPECT_EQ(nullptr, client->getPsMsg(reinterpret_cast<NwCsMsg*>(buffer), 6));
    EXPECT_EQ("", messages.all());
}

// --- attaches that fail ------------------------------------------------------------------------------------

TEST_F(ClientSocketTest, noServer) {
    server->close();
    Messages messages;
    const int before = openDescriptors();
    { Client client(FakePacketServer::kPort, kLoopback, -1, 7); }
    EXPECT_EQ(std::string(kNotOk) + kNotOk, fatal.take());
    EXPECT_EQ(0u, messages.warn().find("NwPacketClient"));
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(ClientSocketTest, fatalEndsTheProcess) {
    server->close();
    NwSetFatalHandler(nullptr);
    const ChildResult result = inChild([] {
        NwClientSocket client(FakePacketServer::kPort, kLoopback, -1, (unsigned short)7);
        return 0;
    });
    EXPECT_EQ(1, result.exitStatus);
    const std::string end = kNotOk;
    ASSERT_GE(result.output.size(), end.size());
    EXPECT_EQ(end, result.output.substr(result.output.size() - end.size()));
}

TEST_F(ClientSocketTest, silentServer) {
    EXPECT_EQ("NwClientSocket: timedRecv timeout\n", refused(""));
}

TEST_F(ClientSocketTest, quota) {
    EXPECT_EQ("NwClientSocket: server client quota exceeded\n", refused(std::string("\x07\x03\0\0", 4)));
}

TEST_F(ClientSocketTest, wrongKind) {
    EXPECT_EQ("ClientSocket getPs: 9 not the anticipated kind (6)\n",
              refused(std::string("\x09\x03\0\0", 4)));
}

TEST_F(ClientSocketTest, failuresAreSilentWhileQuiet) {
    Quiet quiet;
    EXPECT_EQ("", refused(std::string("\x07\x03\0\0", 4)));
}

TEST_F(ClientSocketTest, segmentMissing) {
    NwCsAckRecord ack = server->good();
    ack.shmKey = 0x1234;
    EXPECT_EQ("shmget for key 4660 failed\n", refused(bytesOf(ack)));
}

TEST_F(ClientSocketTest, segmentSmallerThanSaid) {
    NwCsAckRecord ack = server->good();
    ack.server2ClientSize += 1 << 20;
    EXPECT_EQ("shmget for key " + std::to_string(ack.shmKey) + " failed\n", refused(bytesOf(ack)));
}

TEST_F(ClientSocketTest, segmentOfAnotherUserThanTheServers) {
    const uid_t other = 65534;
    if (::chown(server->path(), other, static_cast<gid_t>(-1)) != 0) GTEST_SKIP() << "needs another user";
    const NwCsAckRecord forged = server->good();
    EXPECT_EQ("shmget for key " + std::to_string(forged.shmKey) + " failed\n", refused(bytesOf(forged)));
}

TEST_F(ClientSocketTest, acknowledgementsThatCannotBeTrue) {
    NwCsAckRecord ack = server->good();
    ack.shmKey = 0;  // would make a new segment
    EXPECT_EQ("shmget for key 0 failed\n", refused(bytesOf(ack)));
    ack = server->good();
    ack.client2ServerSize = -1;
    EXPECT_EQ("shmget for key " + std::to_string(ack.shmKey) + " failed\n", refused(bytesOf(ack)));
    ack = server->good();
    ack.server2ClientSize = -16;
    EXPECT_EQ("shmget for key " + std::to_string(ack.shmKey) + " failed\n", refused(bytesOf(ack)));
    EXPECT_EQ("shmget for key 0 failed\n", refused(bytesOf(server->good()).substr(0, 23)));
}

TEST_F(ClientSocketTest, setMissing) {
    NwCsAckRecord ack = server->good();
    ack.semKey = 0x4321;
    EXPECT_EQ(systemReport("semget for key 17185", ENOENT), refused(bytesOf(ack)));
    ack.semKey = 0;
    EXPECT_EQ(systemReport("semget for key 0", EINVAL), refused(bytesOf(ack)));
}

TEST_F(ClientSocketTest, oldServer) {
    NwCsAckRecord ack = server->good();
    ack.version = 2;
    // Control-only: refused.
    EXPECT_EQ(
        "** Control-only clients from Corvane 2.4.2 or later\n"
        "** may not connect to server from Corvane 2.4.1 or earlier.\n",
        refused(bytesOf(ack), 0x100));
    // Ordinary: a set of four is asked for, which this one is not.
    EXPECT_EQ(
        "*** WARNING: Connecting to Packet Server from Corvane 2.4.1\n"
        "*** or earlier.  Server-based filtering, internal mode\n"
        "*** and control messages will not work!\n" +
            systemReport("semget for key " + std::to_string(ack.semKey), EINVAL),
        refused(bytesOf(ack)));
}

// --- receiving ---------------------------------------------------------------------------------------------

TEST_F(ClientSocketTest, deliversPackets) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    char* packet = reinterpret_cast<char*>(1);
    int status = 9;
    EXPECT_EQ(0, client->NwRecv(&packet, &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(nullptr, packet);
    server->deliver("first", 0x0A000001u);
    server->deliver("", 0x0A000002u);
    EXPECT_EQ(5, client->NwRecv(&packet, &status));
    EXPECT_EQ(1, status);
    EXPECT_EQ("first", std::string(packet, 5));
    EXPECT_EQ(reinterpret_cast<char*>(client->recvBuffer.get()) + 16, packet);
    EXPECT_EQ(0x0A000001u, client->lastSourceInetAddr());
    EXPECT_EQ(0, client->NwRecv(&packet, &status));  // a packet of no bytes
    EXPECT_EQ(1, status);
    EXPECT_NE(nullptr, packet);
    EXPECT_EQ(0x0A000002u, client->lastSourceInetAddr());
    EXPECT_EQ(2, client->NwReportPktsRcvd());
}

TEST_F(ClientSocketTest, copiesPackets) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("abcdef");
    char bytes[8] = ".......";
    EXPECT_EQ(6, client->NwRecv(bytes, 3ul));
    EXPECT_STREQ("abc....", bytes);
    EXPECT_EQ(0, client->NwRecv(bytes, 3ul));
    EXPECT_STREQ("abc....", bytes);
}

TEST_F(ClientSocketTest, recordsThatCannotBeTrue) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    std::string lying = FakePacketServer::data("abc", kLoopback);
    lying[12] = 4;
    const std::string huge = lying.substr(0, 12) + "\xFF\xFF\xFF\xFF" + "abc";
    for (const std::string& bytes : {lying, huge, lying.substr(0, 15), lying.substr(0, 1)}) {
        server->say(bytes);
        char* packet = reinterpret_cast<char*>(1);
        int status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(-1, status);
        EXPECT_EQ(nullptr, packet);
    }
    EXPECT_EQ(0, client->NwReportPktsRcvd());
    // One that is longer than the buffer is skipped.
    server->say(FakePacketServer::data(std::string(16000, 'x'), kLoopback));
    int status = 9;
    char* packet = nullptr;
    EXPECT_EQ(0, client->NwRecv(&packet, &status));
    EXPECT_EQ(-1, status);
    EXPECT_TRUE(client->isOk());
}

TEST_F(ClientSocketTest, messagesOfTheServerArePrinted) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    const auto received = [&](const std::string& bytes) {
        server->say(bytes);
        char* packet = reinterpret_cast<char*>(1);
        int status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(-1, status);
        EXPECT_EQ(nullptr, packet);
        return messages.all();
    };
    const auto printed = [&](NwShmMsg&& message) {
        message.print();
        return messages.all();
    };
    EXPECT_EQ("", received(std::string("\0\x03\0\0", 4)));
    NwCsStateReturnRecord state = NwCsStateReturnRecord();
    state.kind = NwCsKindStateReturn;
    state.version = 3;
    EXPECT_EQ(printed(NwCsStateReturnMsg(nullptr, state)), received(bytesOf(state)));
    NwCsCStateReturnRecord clientState = NwCsCStateReturnRecord();
    clientState.kind = NwCsKindCStateReturn;
    clientState.version = 3;
    EXPECT_EQ(printed(NwCsCStateReturnMsg(nullptr, clientState)), received(bytesOf(clientState)));
    NwCsWarningMsg warning(nullptr, NwCsWarningText, 0, "careful");
    EXPECT_EQ(printed(NwCsWarningMsg(nullptr, NwCsWarningText, 0, "careful")),
              received(std::string(reinterpret_cast<const char*>(&warning.bytes()), 176)));
    for (const int code : {0, 1, 3, 5, 6, 99})
        EXPECT_EQ(printed(NwCsNoticeMsg(nullptr, static_cast<unsigned short>(code))),
                  received(noticeMessage(code)));
    for (const int kind : {1, 2, 3, 4, 5, 6, 7, 13, 200, 255})
        EXPECT_EQ("ClientSocket: unexpected message: " + std::to_string(kind) + "\n",
                  received(std::string(1, static_cast<char>(kind)) + std::string("\x03\0\0", 3)));
    EXPECT_TRUE(client->isOk());
    Quiet quiet;
    EXPECT_EQ("", received(bytesOf(state)));
    EXPECT_EQ("", received(noticeMessage(3)));
    EXPECT_EQ("", received(std::string("\x0D", 1)));
}

TEST_F(ClientSocketTest, closingNoticesReleaseEverything) {
    for (const int code : {2, 4}) {
        std::unique_ptr<Client> client = attach(0x27);
        const std::string path = client->notifyPath;
        Messages messages;
        NwCsNoticeMsg(nullptr, static_cast<unsigned short>(code)).print();
        const std::string expected = messages.all();
        server->say(noticeMessage(code));
        char* packet = reinterpret_cast<char*>(1);
        int status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(-1, status);
        EXPECT_EQ(nullptr, packet);
        EXPECT_EQ(expected, messages.all());
        EXPECT_FALSE(client->isOk());
        EXPECT_EQ("", fatal.take());  // it was ok when it left
        EXPECT_EQ(controlMessage(7), server->next());
        EXPECT_FALSE(exists(path));
        EXPECT_EQ(-1, client->readFd());
        EXPECT_EQ(-1, client->writeFd());
        EXPECT_EQ(nullptr, client->recvBuffer);
        EXPECT_EQ(1, attachments(server->segment.shmId()));
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        renewServer();
    }
}

TEST_F(ClientSocketTest, serverThatIsGoneIsReportedWithoutRelease) {
    const int goAways[] = {NwShmGoAwayDismissed, NwShmGoAwayStopped};  // results 3 and 4
    const int notices[] = {4, 2};
    for (int i = 0; i < 2; ++i) {
        std::unique_ptr<Client> client = attach(0x27);
        Messages messages;
        NwCsNoticeMsg(nullptr, static_cast<unsigned short>(notices[i])).print();
        const std::string expected = messages.all();
        server->deliver("last");
        server->writer->sendAway(goAways[i]);
        char* packet = nullptr;
        int status = 9;
        EXPECT_EQ(4, client->NwRecv(&packet, &status));  // what was queued comes first
        status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(0, status);
        EXPECT_EQ(expected, messages.all());
        EXPECT_FALSE(client->isOk());
        EXPECT_GE(client->readFd(), 0);
        EXPECT_TRUE(exists(client->notifyPath));
        EXPECT_EQ(2, attachments(server->segment.shmId()));
        EXPECT_TRUE(server->isEmpty());
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        EXPECT_TRUE(server->isEmpty());  // nothing is sent by a socket that is not ok
        renewServer();
    }
}

TEST_F(ClientSocketTest, goAwayIsSeenWhenAskedFor) {
    const int values[] = {2, 4};
    for (const int value : values) {
        std::unique_ptr<Client> client = attach(0x27);
        Messages messages;
        client->checkGoAway();
        EXPECT_TRUE(client->isOk());
        EXPECT_EQ("", messages.all());
        NwCsNoticeMsg(nullptr, static_cast<unsigned short>(value)).print();
        const std::string expected = messages.all();
        server->writer->sendAway(value);
        client->checkGoAway();
        EXPECT_EQ(expected, messages.all());
        EXPECT_FALSE(client->isOk());
        EXPECT_EQ(controlMessage(7), server->next());
        EXPECT_EQ("", fatal.take());
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        renewServer();
    }
}

// --- waiting -----------------------------------------------------------------------------------------------

TEST_F(ClientSocketTest, isWokenWhenTheNextMessageComes) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    client->notifyMe();
    EXPECT_TRUE(client->notifyPending);
    EXPECT_FALSE(server->writer->takeNotify());
    server->deliver("x");
    EXPECT_TRUE(server->writer->takeNotify());
    EXPECT_FALSE(server->writer->takeNotify());  // once
    server->notify(std::string(2, '\0'));
    server->notify(std::string(2, '\0'));
    pollfd readable = {client->readFd(), POLLIN, 0};
    EXPECT_EQ(1, ::poll(&readable, 1, 0));
    char* packet = nullptr;
    EXPECT_EQ(1, client->NwRecv(&packet, nullptr));
    EXPECT_EQ(0, ::poll(&readable, 1, 0));  // drained
    EXPECT_FALSE(client->notifyPending);
}

TEST_F(ClientSocketTest, wakesItselfWhenTheMessageCameFirst) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("x");
    client->notifyMe();
    EXPECT_FALSE(server->writer->takeNotify());
    pollfd readable = {client->readFd(), POLLIN, 0};
    EXPECT_EQ(1, ::poll(&readable, 1, 0));
}

TEST_F(ClientSocketTest, answersOfTheServer) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    NwCsMsg message = NwCsMsg();
    server->notify(std::string("\x06\x03\x01", 3));
    EXPECT_EQ(&message, client->getPsMsg(&message, 6));
    EXPECT_EQ(6, message.kind);
    server->notify(std::string("\x07\x03", 2));
    EXPECT_EQ(nullptr, client->getPsMsg(&message, 6));
    EXPECT_EQ("NwClientSocket: server client quota exceeded\n", messages.warn());
    server->notify(std::string("\x08\x03", 2));
    EXPECT_EQ(nullptr, client->getPsMsg(&message, 6));
    EXPECT_EQ("ClientSocket getPs: 8 not the anticipated kind (6)\n", messages.warn());
    char kind = 0;
    char bytes[4];
    server->notify("abcdef");
    EXPECT_EQ(4, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ('a', kind);
    client->timeout = 0.01;
    kind = 1;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ("NwClientSocket: timedRecv timeout\n", messages.warn());
    // A descriptor that cannot be read ends the socket, without a release.
    const int notifyFd = client->notifyFd;
    client->notifyFd = ::open("/tmp", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(systemReport("timedRecv", EISDIR), messages.warn());
    EXPECT_EQ(127, kind);
    EXPECT_FALSE(client->isOk());
    ::close(client->notifyFd);  // no descriptor any more
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(systemReport("NwClientSocket: NwSelect error", EBADF), messages.warn());
    client->notifyFd = notifyFd;
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

// --- requests and sending ----------------------------------------------------------------------------------

TEST_F(ClientSocketTest, controlRequests) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    client->setPacketServerExternal();
    client->setPacketServerInternal();
    client->testClients();
    client->pingClients();
    client->requestServerState();
    client->requestServerCStates();
    client->terminatePacketServer();
    client->disconnectFromServer();
    client->setPacketServerUnbundling(-3);
    client->setPacketServerUnbundling(0);
    for (int code = 0; code <= 9; ++code) EXPECT_EQ(controlMessage(code), server->next());
    client->setUnbundling(1);
    EXPECT_EQ(controlMessage(8), server->next());
    client->setUnbundling(0);
    EXPECT_EQ(controlMessage(9), server->next());
    EXPECT_TRUE(server->isEmpty());
}

TEST_F(ClientSocketTest, groups) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    EXPECT_TRUE(client->listenToMulticastGroup(0xE0000001u));
    EXPECT_EQ(bytesOf(NwCsMulticastReqRecord{NwCsKindMulticastReq, 3, 0, 0xE0000001u, 77}), server->next());
    EXPECT_TRUE(client->dropMulticastGroup(0xE0000001u));
    EXPECT_EQ(bytesOf(NwCsMulticastReqRecord{NwCsKindMulticastReq, 3, 1, 0xE0000001u, 77}), server->next());
    EXPECT_FALSE(client->listenToMulticastGroup(0x0A000001u));
    EXPECT_EQ("10.0.0.1 is not a multicast address: Can't subscribe\n", messages.all());
    EXPECT_FALSE(client->dropMulticastGroup(0x0A000001u));
    EXPECT_EQ("10.0.0.1 is not a multicast address: Can't drop\n", messages.all());
    // The base's forms do nothing.
    EXPECT_EQ(0, client->listenToMulticastGroup(0xE0000001u, 0u));
    EXPECT_EQ(0, client->dropMulticastGroup(0xE0000001u, 0u));
    EXPECT_TRUE(server->isEmpty());
    Quiet quiet;
    EXPECT_FALSE(client->dropMulticastGroup(0x0A000001u));
    EXPECT_EQ("", messages.all());
}

TEST_F(ClientSocketTest, sendsThroughItsOwnSocket) {
    REQUIRE_PRIVATE_NETWORK();
    run("ip address add 10.9.0.1/24 dev lo");
    Quiet quiet;
    UdpPeer loop(kLoopback, FakePacketServer::kPort, true);
    UdpPeer other(0x0A090001u, FakePacketServer::kPort, true);
    std::unique_ptr<Client> client = attach(0x27);
    char bytes[] = "abc";
    EXPECT_EQ(3, client->sendTo(bytes, 3, 0x0A090001u));
    EXPECT_EQ("abc", other.receive());
    EXPECT_EQ(3, client->NwSend(bytes, 3, kLoopback));
    EXPECT_EQ("abc", loop.receive());
    server->writer->queueMgr().setInternal(true);
    EXPECT_TRUE(client->isInternal());
    EXPECT_EQ(3, client->sendTo(bytes, 3, 0x0A090001u));
    EXPECT_EQ("abc", loop.receive());
    EXPECT_TRUE(other.isEmpty());
    // Bundles go the same way, and leave with the socket.
    server->writer->queueMgr().setInternal(false);
    client->setBundling(1400);
    EXPECT_EQ(0, client->NwSend(bytes, 3, 0x0A090001u));
    EXPECT_EQ(0, client->NwSend(bytes, 3, 0x0A090001u));
    client.reset();
    EXPECT_EQ("abcabc", other.receive());
    run("ip address del 10.9.0.1/24 dev lo");
}

TEST_F(ClientSocketTest, guardedOperationsOfASocketThatIsNotOk) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    client->cleanup();
    EXPECT_EQ("", fatal.take());
    EXPECT_EQ(controlMessage(7), server->next());
    char bytes[] = "abc";
    char* packet = reinterpret_cast<char*>(1);
    int status = 9;
    const std::function<void()> guarded[] = {
        [&] { EXPECT_EQ(0, client->NwRecv(&packet, &status)); },
        [&] { EXPECT_EQ(0, client->NwRecv(bytes, 3ul)); },
        [&] { EXPECT_EQ(-1, client->sendTo(bytes, 3, 0u)); },
        [&] { EXPECT_EQ(0, client->NwBecomeNonBlocking()); },
        [&] { client->notifyMe(); },
        [&] { EXPECT_FALSE(client->listenToMulticastGroup(0xE0000001u)); },
        [&] { EXPECT_FALSE(client->dropMulticastGroup(0xE0000001u)); },
        [&] { EXPECT_FALSE(client->isInternal()); },
        [&] { client->setPacketServerExternal(); },
        [&] { client->setPacketServerInternal(); },
        [&] { client->testClients(); },
        [&] { client->pingClients(); },
        [&] { client->requestServerState(); },
        [&] { client->requestServerCStates(); },
        [&] { client->terminatePacketServer(); },
        [&] { client->disconnectFromServer(); },
        [&] { client->setPacketServerUnbundling(1); },
        [&] { client->setUnbundling(1); },
        [&] { client->cleanup(); },  // again: nothing is released twice
    };
    for (const auto& operation : guarded) {
        operation();
        EXPECT_EQ(kNotOk, fatal.take());
    }
    client->checkGoAway();
    EXPECT_EQ(-1, client->readFd());
    EXPECT_FALSE(client->isOk());
    EXPECT_EQ("", fatal.take());
    EXPECT_TRUE(server->isEmpty());
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

// --- filter tests ------------------------------------------------------------------------------------------

TEST_F(ClientSocketTest, filterChangesAreTold) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    NwFilterTest* tests[] = {&client->exerciseId(), &client->protocolVersion(), &client->pduKind(),
                             &client->ipAddr()};
    unsigned int values[] = {5, 0, 0xFFFFFFFFu};
    for (int index = 0; index < 4; ++index) {
        tests[index]->setTest(NwTestInclude, 3, values);
        EXPECT_EQ(filterMessage(index, 0, 0), server->next());
        for (const unsigned int value : values) EXPECT_EQ(filterMessage(index, 1, value), server->next());
        tests[index]->reduceTest(1, values);
        EXPECT_EQ(filterMessage(index, 0, 0), server->next());
        EXPECT_EQ(filterMessage(index, 1, 0), server->next());
        EXPECT_EQ(filterMessage(index, 1, 0xFFFFFFFFu), server->next());
        tests[index]->setOperator(NwTestExclude);
        EXPECT_EQ(filterMessage(index, 0, 1), server->next());
        tests[index]->setOperator(static_cast<NwTestOperator>(7));
        EXPECT_EQ(filterMessage(index, 0, 0), server->next());
        tests[index]->extendTest(1, values);
        EXPECT_EQ(filterMessage(index, 1, 5), server->next());
        tests[index]->clearList();  // local
        EXPECT_TRUE(server->isEmpty());
        tests[index]->disableTest();
        EXPECT_EQ(filterMessage(index, 0, 1), server->next());
        tests[index]->extendTest(0, nullptr);
        tests[index]->extendTest(-1, nullptr);
        EXPECT_TRUE(server->isEmpty());
    }
    // Nothing is refused here.
    client->pduKind().setTest(NwTestInclude, 0, nullptr);
    char pdu[12] = {7, 1, 1};
    EXPECT_TRUE(client->pduKind().evalTest(pdu, 2, NwFilterByte));
    EXPECT_TRUE(client->accept(pdu, 0));
}

TEST_F(ClientSocketTest, aFilterTestThatOutlivesTheAttachmentWritesNowhere) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    NwFilterTest& test = client->pduKind();
    const int number = client->writeFd();
    client->cleanup();
    int pipeEnds[2];
    ASSERT_EQ(0, ::pipe(pipeEnds));
    ASSERT_EQ(number, ::dup2(pipeEnds[1], number));  // the number is another file's now
    unsigned int value = 1;
    test.setTest(NwTestInclude, 1, &value);
    pollfd readable = {pipeEnds[0], POLLIN, 0};
    EXPECT_EQ(0, ::poll(&readable, 1, 0));
    ::close(number);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
}

TEST(ClientSocket, withoutServerSideTestsTheBasesAreLent) {
    Quiet quiet;
    Fatal fatal;
    NwSetPacketServerDirectory("/nonexistent");
    {
        Client client(FakePacketServer::kPort, kLoopback, -1, 7);
        unsigned int value = 2;
        client.pduKind().setTest(NwTestInclude, 1, &value);
        char pdu[12] = {7, 1, 1};
        EXPECT_FALSE(client.accept(pdu, 0));
        EXPECT_EQ(0, client.setMcastTtl(3));
    }
    NwSetPacketServerDirectory(nullptr);
}

// --- the default socket ------------------------------------------------------------------------------------

TEST(DefaultSocket, isAUdpSocketWithoutServer) {
    NwSetPacketServerDirectory("/nonexistent");
    Messages messages;
    const int port = freePort();
    std::unique_ptr<NwSocket> socket(NwNewDfltSocket(port, kLoopback, false));
    EXPECT_NE(nullptr, dynamic_cast<NwNetSocket*>(socket.get()));
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ("NetSocket ok for port " + std::to_string(port) + " to 127.0.0.1\n", messages.info());
    NwSetPacketServerDirectory(nullptr);
}

TEST(DefaultSocket, warnsOfAnOldServerAndGoesOn) {
    FakePacketServer server(NwPacketServerOldVersion);
    Quiet quiet;  // of no matter to the warning
    Messages messages;
    std::unique_ptr<NwSocket> socket(NwNewDfltSocket(FakePacketServer::kPort, kLoopback, false));
    EXPECT_EQ(
        "             NwNewDfltSocket: a packet server from 2.3.2 or before appears to be running\n"
        "             this application works with servers from 2.3.3 or later\n",
        messages.all());
    EXPECT_NE(nullptr, dynamic_cast<NwNetSocket*>(socket.get()));
}

TEST_F(ClientSocketTest, defaultSocketIsAClientOfALiveServer) {
    Quiet quiet;
    server->answerAttach(server->good());
    std::unique_ptr<NwSocket> socket(NwNewDfltSocket(FakePacketServer::kPort, kLoopback, true));
    server->answered();
    ASSERT_NE(nullptr, dynamic_cast<NwClientSocket*>(socket.get()));
    EXPECT_TRUE(socket->isOk());
    const NwCsAddClientRecord add = recordIn<NwCsAddClientRecord>(server->request);
    EXPECT_EQ(-1, add.clientArg);
    EXPECT_EQ(7, add.flags);
}

}  // namespace
