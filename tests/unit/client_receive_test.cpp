// SPDX-License-Identifier: BSD-3-Clause
// What a client of the packet server receives, how it waits, and how its server ends the attachment.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "client_fixture.h"

namespace {

std::atomic<int> theReadError{0};            // of the next read, which is not made
std::atomic<bool> theWaitEndsInVain{false};  // the next select marks nothing, and claims something
std::atomic<int> theSleeps{0};               // waits for a semaphore
std::atomic<int> theLastSet{-1};             // where
std::atomic<bool> theSleepIsDisturbed{false};

}  // namespace

#define IN_PLACE_OF_THE_SYSTEM extern "C" __attribute__((visibility("default")))

IN_PLACE_OF_THE_SYSTEM ssize_t read(int fd, void* bytes, size_t size) {
    const int error = theReadError.exchange(0);
    if (!error) return ::syscall(SYS_read, fd, bytes, size);
    errno = error;
    return -1;
}

IN_PLACE_OF_THE_SYSTEM int select(int count, fd_set* reads, fd_set* writes, fd_set* exceptions,
                                  timeval* limit) {
    if (!theWaitEndsInVain.exchange(false))
        return static_cast<int>(::syscall(SYS_select, count, reads, writes, exceptions, limit));
    FD_ZERO(reads);
    return 1;
}

IN_PLACE_OF_THE_SYSTEM int semtimedop(int set, sembuf* operations, size_t count,
                                      const timespec* limit) noexcept {
    ++theSleeps;
    theLastSet = set;
    if (!theSleepIsDisturbed.exchange(false))
        return static_cast<int>(::syscall(SYS_semtimedop, set, operations, count, limit));
    errno = EINTR;
    return -1;
}

namespace {

class ClientReceiveTest : public ClientSocketTest {
protected:
    ClientReceiveTest() { theSleeps = 0; }

    NwShmMsgQueueHeader& queue() { return *static_cast<NwShmMsgQueueHeader*>(server->segment.queue()); }

    // A message that is no packet: nothing comes, and the status says so.
    static void receiveMessage(Client& client) {
        char* packet = reinterpret_cast<char*>(1);
        int status = 9;
        EXPECT_EQ(0, client.NwRecv(&packet, &status));
        EXPECT_EQ(-1, status);
        EXPECT_EQ(nullptr, packet);
    }
    static int receive(Client& client) {
        char* packet = nullptr;
        return client.NwRecv(&packet, nullptr);
    }
};

// --- packets -----------------------------------------------------------------------------------------------

TEST_F(ClientReceiveTest, deliversPackets) {
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
    EXPECT_EQ(reinterpret_cast<char*>(client->recvBuffer.get()) + 16, packet);
    EXPECT_EQ(0x0A000002u, client->lastSourceInetAddr());
    EXPECT_EQ(2, client->NwReportPktsRcvd());
}

TEST_F(ClientReceiveTest, copiesPackets) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("abcdef");
    char bytes[8] = ".......";
    EXPECT_EQ(6, client->NwRecv(bytes, 3ul));
    EXPECT_STREQ("abc....", bytes);
    EXPECT_EQ(0, client->NwRecv(bytes, 3ul));
    EXPECT_STREQ("abc....", bytes);
}

TEST_F(ClientReceiveTest, withoutAPlaceForThePacketItsLengthComes) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    int status = 9;
    server->deliver("abcdef", 0x0A000001u);
    EXPECT_EQ(6, client->NwRecv(static_cast<char**>(nullptr), &status));
    EXPECT_EQ(-1, status);
    EXPECT_EQ(1, client->NwReportPktsRcvd());
    EXPECT_EQ(0x0A000001u, client->lastSourceInetAddr());
    EXPECT_EQ(0, client->NwRecv(static_cast<char**>(nullptr), &status));
    EXPECT_EQ(0, status);
}

TEST_F(ClientReceiveTest, theStatusMayBeLeftOutWhateverComes) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->say(noticeMessage(3));                                            // a message
    server->say(FakePacketServer::data("abc", kLoopback).substr(0, 15));      // a damaged one
    server->say(FakePacketServer::data(std::string(16000, 'x'), kLoopback));  // one that does not fit
    server->deliver("abc");
    for (const int length : {0, 0, 0, 3, 0}) {
        char* packet = reinterpret_cast<char*>(1);
        EXPECT_EQ(length, client->NwRecv(&packet, nullptr));
        EXPECT_EQ(length != 0, packet != nullptr);
    }
    server->writer->sendAway(NwShmGoAwayStopped);
    EXPECT_EQ(0, receive(*client));
    EXPECT_FALSE(client->isOk());
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

TEST_F(ClientReceiveTest, recordsThatCannotBeTrue) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    std::string lying = FakePacketServer::data("abc", kLoopback);
    lying[12] = 4;
    const std::string huge = lying.substr(0, 12) + "\xFF\xFF\xFF\xFF" + "abc";
    for (const std::string& bytes : {lying, huge, lying.substr(0, 15), lying.substr(0, 1)}) {
        server->say(bytes);
        receiveMessage(*client);
    }
    EXPECT_EQ(0, client->NwReportPktsRcvd());
    // One that is longer than the buffer is skipped.
    server->say(FakePacketServer::data(std::string(16000, 'x'), kLoopback));
    receiveMessage(*client);
    EXPECT_TRUE(client->isOk());
}

// --- messages of the server --------------------------------------------------------------------------------

TEST_F(ClientReceiveTest, messagesOfTheServerArePrinted) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    const auto received = [&](const std::string& bytes) {
        server->say(bytes);
        receiveMessage(*client);
        return printed(messages);
    };
    EXPECT_EQ(nothingPrinted(), received(std::string("\0\x03\0\0", 4)));
    NwCsStateReturnRecord state = NwCsStateReturnRecord();
    state.kind = NwCsKindStateReturn;
    state.version = 3;
    EXPECT_EQ(printedBy(messages, NwCsStateReturnMsg(nullptr, state)), received(bytesOf(state)));
    NwCsCStateReturnRecord clientState = NwCsCStateReturnRecord();
    clientState.kind = NwCsKindCStateReturn;
    clientState.version = 3;
    EXPECT_EQ(printedBy(messages, NwCsCStateReturnMsg(nullptr, clientState)), received(bytesOf(clientState)));
    NwCsWarningMsg warning(nullptr, NwCsWarningText, 0, "careful");
    EXPECT_EQ(printedBy(messages, NwCsWarningMsg(nullptr, NwCsWarningText, 0, "careful")),
              received(std::string(reinterpret_cast<const char*>(&warning.bytes()), 176)));
    for (const int code : {0, 1, 3, 5, 6, 99})
        EXPECT_EQ(printedBy(messages, notice(code)), received(noticeMessage(code)));
    for (const int kind : {1, 2, 3, 4, 5, 6, 7, 13, 200, 255})
        EXPECT_EQ(informed("ClientSocket: unexpected message: " + std::to_string(kind) + "\n"),
                  received(std::string(1, static_cast<char>(kind)) + std::string("\x03\0\0", 3)));
    EXPECT_TRUE(client->isOk());
    Quiet quiet;
    EXPECT_EQ(nothingPrinted(), received(bytesOf(state)));
    EXPECT_EQ(nothingPrinted(), received(bytesOf(clientState)));
    EXPECT_EQ(nothingPrinted(), received(std::string(reinterpret_cast<const char*>(&warning.bytes()), 176)));
    EXPECT_EQ(nothingPrinted(), received(noticeMessage(3)));
    EXPECT_EQ(nothingPrinted(), received(std::string("\x0D", 1)));
}

// --- the end -----------------------------------------------------------------------------------------------

TEST_F(ClientReceiveTest, closingNoticesReleaseEverything) {
    for (const int code : {2, 4}) {
        std::unique_ptr<Client> client = attach(0x27);
        const std::string path = client->notifyPath;
        Messages messages;
        const Printed expected = printedBy(messages, notice(code));
        server->say(noticeMessage(code));
        receiveMessage(*client);
        EXPECT_EQ(expected, printed(messages));
        EXPECT_FALSE(client->isOk());
        EXPECT_EQ(code, client->endNotice());
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

TEST_F(ClientReceiveTest, serverThatIsGoneIsReportedWithoutRelease) {
    const int goAways[] = {NwShmGoAwayDismissed, NwShmGoAwayStopped};  // results 3 and 4
    const int notices[] = {4, 2};
    for (int i = 0; i < 2; ++i) {
        std::unique_ptr<Client> client = attach(0x27);
        Messages messages;
        const Printed expected = printedBy(messages, notice(notices[i]));
        server->deliver("last");
        server->writer->sendAway(goAways[i]);
        char* packet = nullptr;
        int status = 9;
        EXPECT_EQ(4, client->NwRecv(&packet, &status));  // what was queued comes first
        status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(0, status);
        EXPECT_EQ(nullptr, packet);
        EXPECT_EQ(expected, printed(messages));
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

TEST_F(ClientReceiveTest, theEndIsSilentWhileQuiet) {
    for (const int goAway : {2, 4}) {
        Quiet quiet;
        Messages messages;
        std::unique_ptr<Client> client = attach(0x27);
        sendAway(*client, goAway);
        EXPECT_EQ(nothingPrinted(), printed(messages));
        EXPECT_EQ(goAway, client->endNotice());
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());  // but not the fatal ending
        renewServer();
    }
    Quiet quiet;
    Messages messages;
    for (const bool asks : {false, true}) {
        std::unique_ptr<Client> client = attach(0x27);
        if (asks) {
            server->writer->sendAway(2);
            client->checkGoAway();
        } else {
            server->say(noticeMessage(2));
            receiveMessage(*client);
        }
        EXPECT_EQ(nothingPrinted(), printed(messages));
        EXPECT_EQ(2, client->endNotice());
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        renewServer();
    }
}

TEST_F(ClientReceiveTest, nothingIsReadAfterTheEnd) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    sendAway(*client, NwShmGoAwayStopped);
    server->deliver("too late");
    char* packet = reinterpret_cast<char*>(1);
    int status = 9;
    EXPECT_EQ(0, client->NwRecv(&packet, &status));
    EXPECT_EQ(kNotOk, fatal.take());
    EXPECT_EQ(0, status);
    EXPECT_EQ(nullptr, packet);
    EXPECT_EQ(0u, client->reader->msgsRcvd());
    EXPECT_EQ(0, client->NwReportPktsRcvd());
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

TEST_F(ClientReceiveTest, goAwayIsSeenWhenAskedFor) {
    const int values[][2] = {{2, 2}, {4, 4}, {1, 4}, {3, 4}, {7, 4}, {-1, 4}};  // and the notice of each
    for (const auto& value : values) {
        std::unique_ptr<Client> client = attach(0x27);
        Messages messages;
        client->checkGoAway();
        EXPECT_TRUE(client->isOk());
        EXPECT_EQ(nothingPrinted(), printed(messages));
        const Printed expected = printedBy(messages, notice(value[1]));
        server->writer->sendAway(value[0]);
        client->checkGoAway();
        EXPECT_EQ(expected, printed(messages)) << value[0];
        EXPECT_EQ(value[1], client->endNotice());
        EXPECT_FALSE(client->isOk());
        EXPECT_EQ(-1, client->readFd());
        EXPECT_EQ(controlMessage(7), server->next());
        EXPECT_EQ("", fatal.take());
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        renewServer();
    }
}

TEST_F(ClientReceiveTest, goAwayAskedForAfterTheEndIsNoticeAndFatal) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    sendAway(*client, NwShmGoAwayStopped);
    const Printed once = printed(messages);
    EXPECT_EQ(printedBy(messages, notice(2)), once);
    Printed printedBefore = nothingPrinted();
    fatal.whenItComes = [&] { printedBefore = printed(messages); };
    client->checkGoAway();
    EXPECT_EQ(kNotOk, fatal.take());
    EXPECT_EQ(once, printedBefore);
    fatal.whenItComes = nullptr;
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

// The release of a socket that is not ok takes the path and the reader away, then it is fatal, then the rest
// goes.
TEST_F(ClientReceiveTest, theFatalEndingComesBehindPathAndReader) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    const std::string path = client->notifyPath;
    Client& raw = *client;
    sendAway(raw, NwShmGoAwayDismissed);
    bool wasLooked = false;
    fatal.whenItComes = [&] {
        wasLooked = true;
        EXPECT_FALSE(exists(path));
        EXPECT_STREQ("", raw.notifyPath);
        EXPECT_EQ(nullptr, raw.reader);
        EXPECT_GE(raw.readFd(), 0);
        EXPECT_GE(raw.writeFd(), 0);
        EXPECT_NE(nullptr, raw.recvBuffer);
        EXPECT_EQ(2, attachments(server->segment.shmId()));
    };
    raw.cleanup();
    EXPECT_EQ(kNotOk, fatal.take());
    EXPECT_TRUE(wasLooked);
    EXPECT_EQ(-1, raw.readFd());
    EXPECT_EQ(-1, raw.writeFd());
    EXPECT_EQ(nullptr, raw.recvBuffer);
    EXPECT_EQ(1, attachments(server->segment.shmId()));
    fatal.whenItComes = nullptr;
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

// --- blocking ----------------------------------------------------------------------------------------------

TEST_F(ClientReceiveTest, aBlockingReadWaitsForTheNextPacket) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach();
    std::thread sender([&] {
        if (!eventually([&] { return (queue().attention & NwShmSleeping) != 0; })) ADD_FAILURE();
        server->deliver("abc");
    });
    char* packet = nullptr;
    int status = 9;
    EXPECT_EQ(3, client->NwRecv(&packet, &status));
    sender.join();
    EXPECT_EQ(1, status);
    EXPECT_GE(theSleeps, 1);
    EXPECT_EQ(server->segment.semId(), theLastSet);
}

TEST_F(ClientReceiveTest, aSignalEndsABlockingReadWithNothing) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach();
    theSleepIsDisturbed = true;
    char* packet = reinterpret_cast<char*>(1);
    int status = 9;
    EXPECT_EQ(0, client->NwRecv(&packet, &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(nullptr, packet);
    EXPECT_EQ(1, theSleeps);
    EXPECT_TRUE(client->isOk());
}

TEST_F(ClientReceiveTest, aReadThatDoesNotBlockReturnsAtOnce) {
    Quiet quiet;
    const unsigned short withFlag = 0x27;
    const unsigned short withoutFlag = 7;
    for (const unsigned short flags : {withFlag, withoutFlag}) {
        std::unique_ptr<Client> client = attach(flags);
        if (flags == withoutFlag) {
            EXPECT_EQ(0, client->NwBecomeNonBlocking());
        }
        theSleepIsDisturbed = true;  // should it wait after all
        EXPECT_EQ(0, receive(*client));
        EXPECT_EQ(0, theSleeps);
        theSleepIsDisturbed = false;
        client.reset();
        renewServer();
    }
}

TEST_F(ClientReceiveTest, eachOfTwoClientsSleepsOnItsOwnSet) {
    Quiet quiet;
    NwShmMsgQueueSegment otherSegment;
    FakePacketServer::makeSegment(otherSegment, 1);
    std::unique_ptr<Client> first = attach();
    NwCsAckRecord ack = server->good();
    ack.shmKey = otherSegment.shmKey();
    ack.semKey = otherSegment.semKey();
    std::unique_ptr<Client> second = attachWith(ack, 7, kLoopback);
    ASSERT_EQ(otherSegment.semId(), semid);
    theSleepIsDisturbed = true;
    EXPECT_EQ(0, receive(*first));
    EXPECT_EQ(server->segment.semId(), theLastSet);
    theSleepIsDisturbed = true;
    EXPECT_EQ(0, receive(*second));
    EXPECT_EQ(otherSegment.semId(), theLastSet);
}

// --- being woken -------------------------------------------------------------------------------------------

TEST_F(ClientReceiveTest, isWokenWhenTheNextMessageComes) {
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
    EXPECT_TRUE(isReadable(client->readFd()));
    EXPECT_EQ(1, receive(*client));
    EXPECT_FALSE(isReadable(client->readFd()));  // drained
    EXPECT_FALSE(client->notifyPending);
}

TEST_F(ClientReceiveTest, theNextMessageIsTheOneBehindThoseReceived) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    for (int i = 0; i < 3; ++i) {
        server->deliver("x");
        EXPECT_EQ(1, receive(*client));
    }
    client->notifyMe();
    EXPECT_FALSE(isReadable(client->readFd()));
    EXPECT_FALSE(server->writer->takeNotify());
    server->deliver("x");
    EXPECT_TRUE(server->writer->takeNotify());
}

TEST_F(ClientReceiveTest, wakesItselfWhenTheMessageCameFirst) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("x");
    client->notifyMe();
    EXPECT_FALSE(server->writer->takeNotify());
    EXPECT_TRUE(isReadable(client->readFd()));
    EXPECT_EQ(1, receive(*client));
    EXPECT_FALSE(isReadable(client->readFd()));
}

TEST_F(ClientReceiveTest, wakesItselfWithoutThePathOfItsNotifySocket) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    ASSERT_EQ(0, ::unlink(client->notifyPath));
    server->deliver("x");
    client->notifyMe();
    EXPECT_TRUE(isReadable(client->readFd()));
    EXPECT_EQ(1, receive(*client));
    EXPECT_FALSE(isReadable(client->readFd()));
    // Wishes that are fulfilled at once go on being so, however often.
    for (int i = 0; i < 1000; ++i) {
        server->deliver("x");
        client->notifyMe();
        ASSERT_TRUE(isReadable(client->readFd()));
        ASSERT_EQ(1, receive(*client));
    }
}

TEST_F(ClientReceiveTest, aMessageOfTheServerTakesTheWakeUpAwayToo) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    client->notifyMe();
    server->say(noticeMessage(3));
    server->notify(std::string(2, '\0'));
    receiveMessage(*client);
    EXPECT_FALSE(isReadable(client->readFd()));
    EXPECT_FALSE(client->notifyPending);
}

TEST_F(ClientReceiveTest, withoutAWishNothingIsTakenFromTheNotifySocket) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("x");
    server->notify("ab");
    EXPECT_EQ(1, receive(*client));
    EXPECT_TRUE(isReadable(client->readFd()));
    // Nor while nothing has come.
    client->notifyMe();
    server->notify("ab");
    EXPECT_EQ(0, receive(*client));
    EXPECT_TRUE(isReadable(client->readFd()));
    EXPECT_TRUE(client->notifyPending);
}

TEST_F(ClientReceiveTest, theNotifySocketIsDrainedWhenAskedFor) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    client->notifyMe();
    for (const char* bytes : {"a", "ab", "abc"}) server->notify(bytes);
    client->drainNotifySocket();
    EXPECT_FALSE(isReadable(client->readFd()));
    EXPECT_FALSE(client->notifyPending);
    client->drainNotifySocket();  // with nothing there it does not wait
    EXPECT_TRUE(client->isOk());
}

// A wake-up may come when its message has been received already. It ends the wait that follows, and no more.
TEST_F(ClientReceiveTest, aWakeUpBehindItsMessageEndsOneWait) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x27);
    client->notifyMe();
    server->deliver("x");
    EXPECT_EQ(1, receive(*client));
    server->notify(std::string(2, '\0'));
    int endedWaits = 0;
    for (int wait = 0; wait < 3; ++wait) {
        EXPECT_EQ(0, receive(*client));
        client->notifyMe();
        endedWaits += isReadable(client->readFd());
    }
    EXPECT_LE(endedWaits, 1);
    // And the wish that is open then is fulfilled.
    server->deliver("x");
    EXPECT_TRUE(server->writer->takeNotify());
}

// --- answers on the notify socket --------------------------------------------------------------------------

TEST_F(ClientReceiveTest, answersOfTheServer) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    NwCsMsg message = NwCsMsg();
    server->notify(std::string("\x06\x03\x01", 3));
    EXPECT_EQ(&message, client->getPsMsg(&message, 6));
    EXPECT_EQ(6, message.kind);
    server->notify(std::string("\x0B\x03\x01", 3));
    EXPECT_EQ(&message, client->getPsMsg(&message, 11));
    server->notify(std::string("\xC8\x03\x01", 3));
    EXPECT_EQ(&message, client->getPsMsg(&message, static_cast<char>(200)));
    EXPECT_EQ(nothingPrinted(), printed(messages));
    // A refusal is no answer, whatever was expected.
    for (const char expected : {6, 7}) {
        server->notify(std::string("\x07\x03", 2));
        EXPECT_EQ(nullptr, client->getPsMsg(&message, expected));
        EXPECT_EQ(warned("NwClientSocket: server client quota exceeded\n"), printed(messages));
    }
    // Kinds are numbers from 0 to 255.
    server->notify(std::string("\x08\x03", 2));
    EXPECT_EQ(nullptr, client->getPsMsg(&message, 6));
    EXPECT_EQ(warned("ClientSocket getPs: 8 not the anticipated kind (6)\n"), printed(messages));
    server->notify(std::string("\xC8\x03", 2));
    EXPECT_EQ(nullptr, client->getPsMsg(&message, static_cast<char>(255)));
    EXPECT_EQ(warned("ClientSocket getPs: 200 not the anticipated kind (255)\n"), printed(messages));
    // At most a message is read, whatever was sent.
    server->notify("\x06" + std::string(499, 'x'));
    EXPECT_EQ(&message, client->getPsMsg(&message, 6));
    EXPECT_EQ('x', message.fields[173]);
    EXPECT_FALSE(isReadable(client->readFd()));
    EXPECT_TRUE(client->isOk());
}

TEST_F(ClientReceiveTest, oneDatagramIsReadWithinTheTime) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    char kind = 0;
    char bytes[] = "....";
    server->notify("abcdef");
    EXPECT_EQ(3, client->timedRecv(bytes, 3, &kind));
    EXPECT_STREQ("abc.", bytes);
    EXPECT_EQ('a', kind);
    EXPECT_EQ(nothingPrinted(), printed(messages));
    client->timeout = 0.01;
    kind = 1;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(warned("NwClientSocket: timedRecv timeout\n"), printed(messages));
    EXPECT_EQ(1, kind);
    theWaitEndsInVain = true;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(warned("NwClientSocket: timedRecv cannot read\n"), printed(messages));
    EXPECT_EQ(1, kind);
    EXPECT_TRUE(client->isOk());
    Quiet quiet;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    theWaitEndsInVain = true;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(nothingPrinted(), printed(messages));
}

TEST_F(ClientReceiveTest, aDatagramThatAnotherReaderTookIsNoFailure) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    char kind = 1;
    char bytes[4];
    server->notify("abc");
    theReadError = EAGAIN;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(127, kind);
    EXPECT_EQ(nothingPrinted(), printed(messages));
    EXPECT_TRUE(client->isOk());
    EXPECT_EQ(3, client->timedRecv(bytes, 4, &kind));
}

TEST_F(ClientReceiveTest, aDatagramOfNoBytesIsNoAnswer) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    NwCsMsg message = NwCsMsg();
    char kind = 1;
    char bytes[4];
    server->notify("");
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(127, kind);
    server->notify("");
    EXPECT_EQ(nullptr, client->getPsMsg(&message, 6));
    EXPECT_EQ(nothingPrinted(), printed(messages));
    EXPECT_TRUE(client->isOk());
}

TEST_F(ClientReceiveTest, aNotifySocketThatCannotBeReadEndsTheSocketWithoutARelease) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    char kind = 1;
    char bytes[4];
    server->notify("abc");
    theReadError = EIO;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(warned(systemReport("timedRecv", EIO)), printed(messages));
    EXPECT_EQ(127, kind);
    EXPECT_FALSE(client->isOk());
    EXPECT_GE(client->readFd(), 0);
    EXPECT_TRUE(exists(client->notifyPath));
    EXPECT_EQ("", fatal.take());
    const int notifyFd = client->notifyFd;
    client->notifyFd = ::open("/", O_RDONLY | O_DIRECTORY);
    ::close(client->notifyFd);  // no descriptor any more
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(warned(systemReport("NwClientSocket: NwSelect error", EBADF)), printed(messages));
    client->notifyFd = notifyFd;
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

TEST_F(ClientReceiveTest, aNotifySocketThatCannotBeReadIsNotToldOfWhileQuiet) {
    std::unique_ptr<Client> client = attach(0x27);
    Messages messages;
    const Quiet quiet;
    char kind = 1;
    char bytes[4];
    const int notifyFd = client->notifyFd;
    client->notifyFd = -1;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    client->notifyFd = ::open("/", O_RDONLY | O_DIRECTORY);
    ::close(client->notifyFd);  // no descriptor any more
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    client->notifyFd = notifyFd;
    EXPECT_TRUE(client->isOk());
    server->notify("abc");
    theReadError = EIO;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_FALSE(client->isOk());
    EXPECT_EQ(nothingPrinted(), printed(messages));
    client.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

TEST_F(ClientReceiveTest, descriptorsBeyondASetAreWaitedForToo) {
    std::unique_ptr<Client> client = attach(0x27);
    rlimit former;
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &former));
    if (former.rlim_max < FD_SETSIZE + 16) GTEST_SKIP() << "no such descriptors here";
    rlimit more = former;
    more.rlim_cur = FD_SETSIZE + 16;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &more));
    const int notifyFd = client->notifyFd;
    client->notifyFd = ::fcntl(notifyFd, F_DUPFD, FD_SETSIZE);
    ASSERT_GE(client->notifyFd, FD_SETSIZE);
    Messages messages;
    char kind = 1;
    char bytes[4];
    server->notify("abc");
    EXPECT_EQ(3, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ('a', kind);
    EXPECT_EQ(nothingPrinted(), printed(messages));
    client->timeout = 0.01;
    EXPECT_EQ(0, client->timedRecv(bytes, 4, &kind));
    EXPECT_EQ(warned("NwClientSocket: timedRecv timeout\n"), printed(messages));
    client->notifyMe();
    server->deliver("x");
    server->notify(std::string(2, '\0'));
    EXPECT_EQ(1, receive(*client));
    EXPECT_FALSE(isReadable(client->readFd()));
    ::close(notifyFd);
    client.reset();
    ::setrlimit(RLIMIT_NOFILE, &former);
}

}  // namespace
