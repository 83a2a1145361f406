// SPDX-License-Identifier: BSD-3-Clause
// What a client of the packet server sends and asks for, its filter tests, and what is left of it when it is
// not attached any more.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <vector>

#include "child.h"
#include "client_fixture.h"

namespace {

using ClientRequestsTest = ClientSocketTest;

// --- requests ----------------------------------------------------------------------------------------------

TEST_F(ClientRequestsTest, controlRequests) {
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
    EXPECT_TRUE(client->isOk());
    client.reset();
    EXPECT_EQ(controlMessage(7), server->next());
}

TEST_F(ClientRequestsTest, groups) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    EXPECT_TRUE(client->listenToMulticastGroup(0xE0000001u));
    EXPECT_EQ(groupMessage(0, 0xE0000001u), server->next());
    EXPECT_TRUE(client->dropMulticastGroup(0xE0000001u));
    EXPECT_EQ(groupMessage(1, 0xE0000001u), server->next());
    EXPECT_EQ(nothingPrinted(), printed(messages));
    EXPECT_FALSE(client->listenToMulticastGroup(0x0A000001u));
    EXPECT_EQ(warned("10.0.0.1 is not a multicast address: Can't subscribe\n"), printed(messages));
    EXPECT_FALSE(client->dropMulticastGroup(0x0A000001u));
    EXPECT_EQ(warned("10.0.0.1 is not a multicast address: Can't drop\n"), printed(messages));
    // The base's forms do nothing.
    EXPECT_EQ(0, client->listenToMulticastGroup(0xE0000001u, 0u));
    EXPECT_EQ(0, client->dropMulticastGroup(0xE0000001u, 0u));
    EXPECT_TRUE(server->isEmpty());
    // True also when the request does not get through.
    server->close();
    EXPECT_TRUE(client->listenToMulticastGroup(0xE0000001u));
    Quiet quiet;
    EXPECT_FALSE(client->listenToMulticastGroup(0x0A000001u));
    EXPECT_FALSE(client->dropMulticastGroup(0x0A000001u));
    EXPECT_EQ(nothingPrinted(), printed(messages));
}

// --- sending -----------------------------------------------------------------------------------------------

TEST_F(ClientRequestsTest, sendsThroughItsOwnSocket) {
    REQUIRE_PRIVATE_NETWORK();
    const NwIpv4Addr ownAddress = 0x0A080001u;
    Quiet quiet;
    UdpPeer loop(kLoopback, FakePacketServer::kPort, true);
    UdpPeer other(ownAddress, FakePacketServer::kPort, true);
    std::unique_ptr<Client> client = attach(0x27, ownAddress);
    char bytes[] = "abc";
    EXPECT_EQ(3, client->sendTo(bytes, 3, kLoopback));
    EXPECT_EQ("abc", loop.receive());
    EXPECT_EQ(2, client->NwSend(bytes, 2, 0));  // to the address of the attach
    EXPECT_EQ("ab", other.receive());
    server->writer->queueMgr().setInternal(true);
    EXPECT_TRUE(client->isInternal());
    EXPECT_FALSE(client->internal);  // what the acknowledgement said stays
    for (const NwIpv4Addr destination : {ownAddress, 0u}) {
        EXPECT_EQ(3, client->sendTo(bytes, 3, destination));
        EXPECT_EQ("abc", loop.receive());
    }
    EXPECT_TRUE(other.isEmpty());
    // Bundles go the same way, and leave with the socket.
    server->writer->queueMgr().setInternal(false);
    EXPECT_FALSE(client->isInternal());
    client->setBundling(1400);
    EXPECT_EQ(0, client->NwSend(bytes, 3, ownAddress));
    EXPECT_EQ(0, client->NwSend(bytes, 3, ownAddress));
    client.reset();
    EXPECT_EQ("abcabc", other.receive());
    EXPECT_EQ(controlMessage(7), server->next());
}

TEST_F(ClientRequestsTest, timeToLiveIsThatOfTheSendingSocket) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    EXPECT_EQ(1, client->setMcastTtl(3));
    unsigned char ttl = 0;
    socklen_t size = sizeof ttl;
    ASSERT_EQ(0, ::getsockopt(client->netSocket->writeFd(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &size));
    EXPECT_EQ(3, ttl);
    client->cleanup();
    EXPECT_EQ(controlMessage(7), server->next());
    EXPECT_EQ(1, client->setMcastTtl(4));  // the sending socket stays
    ASSERT_EQ(0, ::getsockopt(client->netSocket->writeFd(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &size));
    EXPECT_EQ(4, ttl);
}

// --- not attached any more ---------------------------------------------------------------------------------

TEST_F(ClientRequestsTest, guardedOperationsOfASocketThatIsNotOk) {
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
    EXPECT_FALSE(client->isOk());
    EXPECT_EQ("", fatal.take());
    EXPECT_TRUE(server->isEmpty());
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

TEST_F(ClientRequestsTest, accessorsAnswerAfterTheRelease) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("abc", 0x0A000001u);
    char bytes[4];
    EXPECT_EQ(3, client->NwRecv(bytes, 4ul));
    NwFilterTest* const tests[] = {&client->exerciseId(), &client->protocolVersion(), &client->pduKind(),
                                   &client->ipAddr()};
    client->cleanup();
    EXPECT_EQ(controlMessage(7), server->next());
    EXPECT_FALSE(client->isOk());
    EXPECT_EQ(-1, client->readFd());
    EXPECT_EQ(-1, client->writeFd());
    EXPECT_EQ(0x0A000001u, client->lastSourceInetAddr());
    EXPECT_EQ(1, client->NwReportPktsRcvd());
    EXPECT_EQ(0, client->endNotice());
    EXPECT_EQ(tests[0], &client->exerciseId());
    EXPECT_EQ(tests[1], &client->protocolVersion());
    EXPECT_EQ(tests[2], &client->pduKind());
    EXPECT_EQ(tests[3], &client->ipAddr());
    for (NwFilterTest* const test : tests) test->disableTest();
    EXPECT_EQ("", fatal.take());
}

// Bundles of a socket that is not ok cannot leave: the flush of its end is fatal, and then its release.
TEST_F(ClientRequestsTest, theEndOfASocketThatIsNotOkSendsNothing) {
    Quiet quiet;
    UdpPeer peer(kLoopback, FakePacketServer::kPort, true);
    std::unique_ptr<Client> client = attach(0x27);
    client->setBundling(1400);
    char bytes[] = "abc";
    EXPECT_EQ(0, client->NwSend(bytes, 3, kLoopback));
    const std::string path = client->notifyPath;
    sendAway(*client, NwShmGoAwayStopped);
    std::vector<bool> pathsAtTheEndings;
    fatal.whenItComes = [&] { pathsAtTheEndings.push_back(exists(path)); };
    client.reset();
    EXPECT_EQ(std::string(kNotOk) + kNotOk, fatal.take());
    EXPECT_EQ(std::vector<bool>({true, false}), pathsAtTheEndings);  // the flush first
    EXPECT_TRUE(peer.isEmpty());
}

// With nobody who handles it a fatal ending is the process's, and says so even while sockets are quiet.
TEST_F(ClientRequestsTest, fatalEndingsEndTheProcess) {
    const std::function<void(Client&)> endings[] = {
        [](Client& client) { client.requestServerState(); },
        [](Client& client) { client.notifyMe(); },
        [](Client& client) { client.cleanup(); },
        [](Client& client) { delete &client; },
    };
    for (const auto& ending : endings)
        for (const bool quiet : {false, true}) {
            std::unique_ptr<Client> client = attach(0x27);
            const NwFatalHandler handler = NwSetFatalHandler(nullptr);
            const ChildResult result = inChild([&] {
                NwSocket::setQuietSockets(quiet);
                server->writer->sendAway(NwShmGoAwayStopped);
                char* packet = nullptr;
                client->NwRecv(&packet, nullptr);
                NwWarn("The end:\n");
                ending(*client.release());
                return 0;
            });
            NwSetFatalHandler(handler);
            EXPECT_EQ(1, result.exitStatus);
            const std::string end = std::string("The end:\n") + kNotOk;
            ASSERT_GE(result.output.size(), end.size());
            EXPECT_EQ(end, result.output.substr(result.output.size() - end.size()));
            client.reset();
            EXPECT_EQ("", fatal.take());
            EXPECT_EQ(controlMessage(7), server->next());
            renewServer();
        }
}

// --- filter tests ------------------------------------------------------------------------------------------

TEST_F(ClientRequestsTest, filterChangesAreTold) {
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
    EXPECT_EQ(filterMessage(2, 0, 0), server->next());
    char pdu[12] = {7, 1, 1};
    EXPECT_TRUE(client->pduKind().evalTest(pdu, 2, NwFilterByte));
    EXPECT_TRUE(client->accept(pdu, 0));
    client.reset();
    EXPECT_EQ(controlMessage(7), server->next());
}

TEST_F(ClientRequestsTest, aReductionSendsTheTestAnew) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    NwFilterTest& test = client->pduKind();
    unsigned int values[] = {5, 6, 5, 7};
    const auto isSentAnew = [&](int operation, const std::vector<unsigned int>& rest) {
        EXPECT_EQ(filterMessage(2, 0, static_cast<unsigned int>(operation)), server->next());
        for (const unsigned int value : rest) EXPECT_EQ(filterMessage(2, 1, value), server->next());
        EXPECT_TRUE(server->isEmpty());
    };
    for (const NwTestOperator op : {NwTestExclude, NwTestInclude}) {
        const int operation = op == NwTestExclude;
        test.setTest(op, 4, values);
        isSentAnew(operation, {5, 6, 5, 7});
        unsigned int absent = 9;
        test.reduceTest(1, &absent);
        isSentAnew(operation, {5, 6, 5, 7});
        test.reduceTest(1, values);  // the first of two
        isSentAnew(operation, {6, 5, 7});
        unsigned int twice[] = {5, 5, 7};
        test.reduceTest(3, twice);
        isSentAnew(operation, {6});
        test.reduceTest(0, nullptr);
        isSentAnew(operation, {6});
        test.reduceTest(1, values + 1);
        isSentAnew(operation, {});
    }
    client.reset();
    EXPECT_EQ(controlMessage(7), server->next());
}

TEST_F(ClientRequestsTest, aFilterTestThatOutlivesTheAttachmentWritesNowhere) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    NwFilterTest* const tests[] = {&client->exerciseId(), &client->protocolVersion(), &client->pduKind(),
                                   &client->ipAddr()};
    const int number = client->writeFd();
    client->cleanup();
    EXPECT_EQ(controlMessage(7), server->next());
    // The number is another socket's now, one that could send.
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
    const int receiving = ::fcntl(ends[0], F_DUPFD, number + 100);
    const int sending = ::fcntl(ends[1], F_DUPFD, number + 100);
    ::close(ends[0]);
    ::close(ends[1]);
    ASSERT_EQ(number, ::dup2(sending, number));
    unsigned int value = 1;
    for (NwFilterTest* const test : tests) test->setTest(NwTestInclude, 1, &value);
    EXPECT_FALSE(isReadable(receiving));
    EXPECT_EQ(1, ::send(number, "x", 1, 0));
    EXPECT_TRUE(isReadable(receiving));
    for (const int fd : {receiving, sending, number}) ::close(fd);
}

// Puts down when it goes.
class RecordedTest : public NwCsFilterTest {
public:
    RecordedTest(char name, std::string& record) : NwCsFilterTest(-1, 0, 0), myName(name), myRecord(record) {}
    ~RecordedTest() override { myRecord += myName; }

private:
    const char myName;
    std::string& myRecord;
};

TEST_F(ClientRequestsTest, filterTestsGoInAFixedOrder) {
    Quiet quiet;
    for (const bool isReleasedBefore : {false, true}) {
        std::string record;
        std::unique_ptr<Client> client = attach(0x27);
        client->pduKindTest.reset(new RecordedTest('k', record));
        client->ipAddrTest.reset(new RecordedTest('a', record));
        client->exerciseIdTest.reset(new RecordedTest('e', record));
        client->protocolVersionTest.reset(new RecordedTest('v', record));
        if (isReleasedBefore) {
            client->cleanup();
            EXPECT_EQ("", record);  // the application may still refer to them
        }
        client.reset();
        EXPECT_EQ("evak", record);
        EXPECT_EQ(controlMessage(7), server->next());
        EXPECT_EQ(isReleasedBefore ? kNotOk : "", fatal.take());
    }
}

TEST_F(ClientRequestsTest, withoutServerSideTestsTheBasesAreLent) {
    Quiet quiet;
    server->close();
    Client client(FakePacketServer::kPort, kLoopback, -1, 7);
    unsigned int value = 2;
    NwFilterTest* const tests[] = {&client.exerciseId(), &client.protocolVersion(), &client.pduKind()};
    char pdu[12] = {7, 1, 1};
    for (NwFilterTest* const test : tests) {
        EXPECT_TRUE(client.accept(pdu, 0));
        test->setTest(NwTestInclude, 1, &value);
        EXPECT_FALSE(client.accept(pdu, 0));
        test->disableTest();
    }
    client.ipAddr().setTest(NwTestInclude, 1, &value);
    EXPECT_FALSE(client.accept(pdu, 0));
    EXPECT_TRUE(client.accept(pdu, 2));
    EXPECT_EQ(0, client.setMcastTtl(3));
}

}  // namespace
