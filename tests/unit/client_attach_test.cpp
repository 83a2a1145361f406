// SPDX-License-Identifier: BSD-3-Clause
// The packet-server client attaches: what it asks, what it does with each answer, and how an attach fails.
#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <limits>

#include "child.h"
#include "client_fixture.h"

namespace {

// A failure by appointment: the next such call is not made, and gives this errno.
class Appointment {
public:
    void operator=(int error) { myError = error; }
    bool isDue() {
        const int error = myError.exchange(0);
        if (error) errno = error;
        return error != 0;
    }

private:
    std::atomic<int> myError{0};
};

Appointment theMkstemp, theBind, theSend, theFcntl, theShmat;
std::atomic<bool> theAnswerIsLate{false};  // the next wait ends at once, in vain

// The path that mkstemp has made last, in this process or in a child of it.
char* lastTemporaryPath() {
    static char* const shared =
        static_cast<char*>(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return shared;
}

}  // namespace

#define IN_PLACE_OF_THE_SYSTEM extern "C" __attribute__((visibility("default")))

IN_PLACE_OF_THE_SYSTEM int mkstemp(char* path) {
    if (theMkstemp.isDue()) return -1;
    const int fd = ::mkostemp(path, 0);
    std::strcpy(lastTemporaryPath(), path);
    return fd;
}

IN_PLACE_OF_THE_SYSTEM int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
    return theBind.isDue() ? -1 : static_cast<int>(::syscall(SYS_bind, fd, address, size));
}

IN_PLACE_OF_THE_SYSTEM ssize_t send(int fd, const void* bytes, size_t length, int flags) {
    return theSend.isDue() ? -1 : ::sendto(fd, bytes, length, flags, nullptr, 0);
}

IN_PLACE_OF_THE_SYSTEM int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);  // where there is none, the system does not look at it
    va_end(arguments);
    if (command == F_SETFL && theFcntl.isDue()) return -1;
    return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

IN_PLACE_OF_THE_SYSTEM void* shmat(int id, const void* address, int flags) noexcept {
    const long result = theShmat.isDue() ? -1 : ::syscall(SYS_shmat, id, address, flags);
    return reinterpret_cast<void*>(result);
}

IN_PLACE_OF_THE_SYSTEM int select(int count, fd_set* reads, fd_set* writes, fd_set* exceptions,
                                  timeval* limit) {
    if (!theAnswerIsLate.exchange(false))
        return static_cast<int>(::syscall(SYS_select, count, reads, writes, exceptions, limit));
    FD_ZERO(reads);
    return 0;
}

namespace {

const char kOldServer[] =
    "*** WARNING: Connecting to Packet Server from Corvane 2.4.1\n"
    "*** or earlier.  Server-based filtering, internal mode\n"
    "*** and control messages will not work!\n";
const char kOldServerRefuses[] =
    "** Control-only clients from Corvane 2.4.2 or later\n"
    "** may not connect to server from Corvane 2.4.1 or earlier.\n";
const std::string kQuotaRefusal("\x07\x03\0\0", 4);

// A semaphore set as a server of older days had it.
class OldSet {
public:
    OldSet() : key(NwShmMsgQueueSegment::semKeyOf(1, 0)) {
        id = ::semget(key, 4, IPC_CREAT | IPC_EXCL | 0600);
        EXPECT_GE(id, 0);
    }
    ~OldSet() { ::semctl(id, 0, IPC_RMID); }
    OldSet(const OldSet&) = delete;
    OldSet& operator=(const OldSet&) = delete;
    const int key;
    int id;
};

class ClientAttachTest : public ClientSocketTest {
protected:
    // An attach that must fail with this answer of the server (none: ""), and what it printed.
    Printed refused(const std::string& answer, unsigned short flags = NwClientSocket::defaultFlags) {
        const int before = openDescriptors();
        server->answerAttach(answer);
        const Printed result = fails(flags);
        EXPECT_EQ(server->notifyPath, lastTemporaryPath());
        server->hangUp();
        EXPECT_EQ(before, openDescriptors());
        return result;
    }

    // The same, while nobody waits for the request.
    Printed fails(unsigned short flags = NwClientSocket::defaultFlags) {
        Messages messages;
        bool pathIsThere = true;
        int attachmentsThen = 0;
        fatal.whenItComes = [&] {  // the path goes before the ending, all else behind it
            pathIsThere = exists(lastTemporaryPath());
            attachmentsThen = attachments(server->segment.shmId());
        };
        {
            Client client(FakePacketServer::kPort, kLoopback, -1, flags);
            server->answered();
            EXPECT_FALSE(client.isOk());
            EXPECT_EQ(kNotOk, fatal.take());
            EXPECT_FALSE(pathIsThere);
            EXPECT_EQ(1, attachmentsThen);
            EXPECT_EQ(-1, client.readFd());
            EXPECT_EQ(-1, client.writeFd());
            EXPECT_STREQ("", client.notifyPath);
            EXPECT_EQ(nullptr, client.shmBase);
            EXPECT_EQ(nullptr, client.recvBuffer);
            EXPECT_EQ(0, client.endNotice());
        }
        EXPECT_EQ(kNotOk, fatal.take());  // the destructor
        fatal.whenItComes = nullptr;
        EXPECT_FALSE(exists(lastTemporaryPath()));
        EXPECT_EQ(1, attachments(server->segment.shmId()));
        return printed(messages);
    }
};

TEST_F(ClientAttachTest, asksForAPlaceAndTellsItsFilters) {
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
    EXPECT_EQ(informed("ClientSocket (id 77) ok for port 3000 (external)\n"), printed(messages));
    EXPECT_EQ(server->segment.semId(), semid);
    EXPECT_EQ(77, client.clientId);
    EXPECT_EQ(3000, client.port);
    EXPECT_EQ(kLoopback, client.addr);
    EXPECT_EQ(5.0, client.timeout);
    EXPECT_FALSE(client.notifyPending);
    EXPECT_FALSE(client.internal);
    EXPECT_TRUE(::fcntl(client.readFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_GE(client.writeFd(), 0);
    EXPECT_EQ(-1, client.netSocket->readFd());  // it only sends
    EXPECT_GE(client.netSocket->writeFd(), 0);
    EXPECT_EQ(0u, client.lastSourceInetAddr());
}

TEST_F(ClientAttachTest, releasesEverythingAtItsEnd) {
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

TEST_F(ClientAttachTest, threeArgumentsMeanAddressZero) {
    Quiet quiet;
    server->answerAttach(server->good());
    Client client(FakePacketServer::kPort, -2, 0x27);
    server->answered();
    EXPECT_TRUE(client.isOk());
    EXPECT_EQ(0u, client.addr);
    EXPECT_EQ(3000, client.port);
    const NwCsAddClientRecord add = recordIn<NwCsAddClientRecord>(server->request);
    EXPECT_EQ(-2, add.clientArg);
    EXPECT_EQ(0x27, add.flags);
    server->drain();
}

// Address 0 is the first interface's broadcast address, and loopback has none.
TEST_F(ClientAttachTest, addressZeroOfAHostWithLoopbackAloneEndsTheProcess) {
    REQUIRE_PRIVATE_NETWORK();
    run("ip link set cv0 down");
    server->answerAttach(server->good());
    const ChildResult result = inChild([] {
        NwNetSocket::initErrorAction = 0;
        NwClientSocket client(FakePacketServer::kPort, -1, NwClientSocket::defaultFlags);
        return 0;
    });
    server->answered();
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_TRUE(exists(server->notifyPath));
    ::unlink(server->notifyPath.c_str());
    server->drain();
    // With another action the client is attached, and only cannot send.
    std::unique_ptr<Client> client = attach(0x27, 0);
    run("ip link set cv0 up");
    EXPECT_TRUE(client->isOk());
    EXPECT_FALSE(client->netSocket->isOk());
    char bytes[] = "abc";
    EXPECT_EQ(-1, client->sendTo(bytes, 3, kLoopback));
}

TEST_F(ClientAttachTest, multicastAddressIsJoined) {
    Quiet quiet;
    server->answerAttach(server->good());
    Client client(FakePacketServer::kPort, 0xEF010203u, -1, NwClientSocket::defaultFlags);
    server->answered();
    for (int index = 0; index < 4; ++index) EXPECT_EQ(filterMessage(index, 0, 1), server->next());
    EXPECT_EQ(groupMessage(0, 0xEF010203u), server->next());
    EXPECT_TRUE(server->isEmpty());
}

TEST_F(ClientAttachTest, theSendingSocketsInterfaceIsTheHostsFirst) {
    REQUIRE_PRIVATE_NETWORK();
    EXPECT_EQ(ipv4("10.8.0.1"), attach(0x27)->netSocket->mcastDevice());
}

TEST_F(ClientAttachTest, internalModeIsTold) {
    Messages messages;
    NwCsAckRecord ack = server->good();
    ack.internal = 5;
    std::unique_ptr<Client> client = attachWith(ack, 7, kLoopback);
    EXPECT_TRUE(client->internal);
    EXPECT_EQ(informed("ClientSocket (id 77) ok for port 3000 (internal)\n"), printed(messages));
}

TEST_F(ClientAttachTest, withoutNotifySocket) {
    std::unique_ptr<Client> client = attach(0x87);
    ASSERT_TRUE(client->isOk());
    EXPECT_EQ(-1, client->readFd());
    EXPECT_FALSE(exists(server->notifyPath));
    EXPECT_STREQ("", client->notifyPath);
    Messages messages;
    char kind = 0;
    char buffer[176];
    EXPECT_EQ(0, client->timedRecv(buffer, sizeof buffer, &kind));
    EXPECT_EQ(warned("ClientSocket not ok to read\n"), printed(messages));
    EXPECT_EQ(nullptr, client->getPsMsg(reinterpret_cast<NwCsMsg*>(buffer), 6));
    EXPECT_EQ(nothingPrinted(), printed(messages));
    EXPECT_TRUE(client->isOk());
    // A wish to be woken has nowhere to be fulfilled, and harms nothing.
    client->NwBecomeNonBlocking();
    client->notifyMe();
    server->deliver("abc");
    char* packet = nullptr;
    EXPECT_EQ(3, client->NwRecv(&packet, nullptr));
    client->notifyMe();
    EXPECT_EQ("", fatal.take());
}

TEST_F(ClientAttachTest, aNotifySocketThatStaysBlockingIsToldOf) {
    Messages messages;
    theFcntl = EACCES;
    std::unique_ptr<Client> client = attach();
    EXPECT_EQ((Printed{"ClientSocket (id 77) ok for port 3000 (external)\n",
                       systemReport("ClientSocket: fcntl(FNDELAY) notify skt failed", EACCES), ""}),
              printed(messages));
    EXPECT_TRUE(client->isOk());
    EXPECT_FALSE(::fcntl(client->readFd(), F_GETFL) & O_NONBLOCK);
}

TEST_F(ClientAttachTest, semidIsTheLatestSetAndEachReaderUsesItsOwn) {
    Quiet quiet;
    NwShmMsgQueueSegment otherSegment;
    FakePacketServer::makeSegment(otherSegment, 1);
    NwShmMsgQueueWriter otherWriter(otherSegment.queue(), otherSegment.capacity(), otherSegment.semId(), 0);
    std::unique_ptr<Client> first = attach(0x27);
    EXPECT_EQ(server->segment.semId(), semid);
    NwCsAckRecord ack = server->good();
    ack.clientId = 78;
    ack.shmKey = otherSegment.shmKey();
    ack.semKey = otherSegment.semKey();
    std::unique_ptr<Client> second = attachWith(ack, 0x27, kLoopback);
    EXPECT_EQ(otherSegment.semId(), semid);
    EXPECT_EQ(78, second->clientId);
    server->deliver("first");
    const std::string bytes = FakePacketServer::data("other", kLoopback);
    ASSERT_TRUE(otherWriter.write(bytes.data(), static_cast<unsigned int>(bytes.size())));
    char* packet = nullptr;
    ASSERT_EQ(5, second->NwRecv(&packet, nullptr));
    EXPECT_EQ("other", std::string(packet, 5));
    ASSERT_EQ(5, first->NwRecv(&packet, nullptr));
    EXPECT_EQ("first", std::string(packet, 5));
    // The set that goes ends its own client's reads alone.
    otherSegment.remove();
    second->reader->isServerAlive();
    EXPECT_EQ(0, second->NwRecv(&packet, nullptr));
    EXPECT_FALSE(second->isOk());
    EXPECT_TRUE(first->reader->isServerAlive());
    EXPECT_EQ(0, first->NwRecv(&packet, nullptr));
    EXPECT_TRUE(first->isOk());
    second.reset();
    EXPECT_EQ(kNotOk, fatal.take());
}

// --- attaches that fail ------------------------------------------------------------------------------------

TEST_F(ClientAttachTest, noPlaceholder) {
    theMkstemp = ENOSPC;
    const std::string said = fails().warn;
    EXPECT_EQ(0u, said.find("NwPacketClient"));
    EXPECT_NE(std::string::npos, said.find(std::strerror(ENOSPC)));
    EXPECT_TRUE(server->isEmpty());
}

TEST_F(ClientAttachTest, noNotifySocket) {
    theBind = EACCES;
    const Printed said = fails();
    EXPECT_EQ(
        warned(systemReport(std::string("NwPacketClient: cannot bind to ") + lastTemporaryPath(), EACCES)),
        said);
    EXPECT_TRUE(server->isEmpty());
}

TEST_F(ClientAttachTest, noServer) {
    server->close();
    const int before = openDescriptors();
    const Printed said = fails();
    EXPECT_EQ(0u, said.warn.find("NwPacketClient: cannot connect to "));
    EXPECT_NE(std::string::npos, said.warn.find(std::strerror(ENOENT)));
    EXPECT_EQ("", said.info + said.other);
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(ClientAttachTest, aRequestThatDoesNotGetThrough) {
    theSend = EAGAIN;
    EXPECT_EQ(warned(systemReport("NwPacketClient add request write failed", EAGAIN)), fails());
    EXPECT_TRUE(server->isEmpty());
}

TEST_F(ClientAttachTest, fatalEndsTheProcess) {
    server->close();
    NwSetFatalHandler(nullptr);
    const std::string before = lastTemporaryPath();
    const ChildResult result = inChild([] {
        NwClientSocket client(FakePacketServer::kPort, kLoopback, -1, (unsigned short)7);
        return 0;
    });
    EXPECT_EQ(1, result.exitStatus);
    const std::string end = kNotOk;
    ASSERT_GE(result.output.size(), end.size());
    EXPECT_EQ(end, result.output.substr(result.output.size() - end.size()));
    EXPECT_NE(before, lastTemporaryPath());
    EXPECT_FALSE(exists(lastTemporaryPath()));
}

TEST_F(ClientAttachTest, silentServer) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(warned("NwClientSocket: timedRecv timeout\n"), refused(""));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
}

TEST_F(ClientAttachTest, quota) {
    EXPECT_EQ(warned("NwClientSocket: server client quota exceeded\n"), refused(kQuotaRefusal));
}

TEST_F(ClientAttachTest, wrongKind) {
    EXPECT_EQ(warned("ClientSocket getPs: 9 not the anticipated kind (6)\n"),
              refused(std::string("\x09\x03\0\0", 4)));
    EXPECT_EQ(warned("ClientSocket getPs: 200 not the anticipated kind (6)\n"),
              refused(std::string("\xC8\x03\0\0", 4)));
}

TEST_F(ClientAttachTest, segmentMissing) {
    NwCsAckRecord ack = server->good();
    ack.shmKey = 0x1234;
    EXPECT_EQ(informed("shmget for key 4660 failed\n"), refused(bytesOf(ack)));
}

TEST_F(ClientAttachTest, segmentSmallerThanSaid) {
    NwCsAckRecord ack = server->good();
    ack.server2ClientSize += 1 << 20;
    EXPECT_EQ(informed("shmget for key " + std::to_string(ack.shmKey) + " failed\n"), refused(bytesOf(ack)));
}

TEST_F(ClientAttachTest, segmentOfAnotherUserThanTheServers) {
    const uid_t other = 65534;
    if (::chown(server->path(), other, static_cast<gid_t>(-1)) != 0) GTEST_SKIP() << "needs another user";
    const NwCsAckRecord forged = server->good();
    EXPECT_EQ(informed("shmget for key " + std::to_string(forged.shmKey) + " failed\n"),
              refused(bytesOf(forged)));
}

TEST_F(ClientAttachTest, acknowledgementsThatCannotBeTrue) {
    const std::string noSegment = "shmget for key " + std::to_string(server->good().shmKey) + " failed\n";
    NwCsAckRecord ack = server->good();
    ack.shmKey = 0;  // would make a new segment
    EXPECT_EQ(informed("shmget for key 0 failed\n"), refused(bytesOf(ack)));
    ack = server->good();
    ack.client2ServerSize = -1;
    EXPECT_EQ(informed(noSegment), refused(bytesOf(ack)));
    ack = server->good();
    ack.server2ClientSize = -16;
    EXPECT_EQ(informed(noSegment), refused(bytesOf(ack)));
    ack.server2ClientSize = ack.client2ServerSize = std::numeric_limits<int>::max();
    EXPECT_EQ(informed(noSegment), refused(bytesOf(ack)));
    ack.server2ClientSize = 16;
    EXPECT_EQ(informed(noSegment), refused(bytesOf(ack)));
    EXPECT_EQ(informed("shmget for key 0 failed\n"), refused(bytesOf(server->good()).substr(0, 23)));
}

TEST_F(ClientAttachTest, setMissing) {
    NwCsAckRecord ack = server->good();
    ack.semKey = 0x4321;
    semid = 12345;
    EXPECT_EQ(warned(systemReport("semget for key 17185", ENOENT)), refused(bytesOf(ack)));
    EXPECT_EQ(-1, semid);
    ack.semKey = 0;
    semid = 12345;
    EXPECT_EQ(warned(systemReport("semget for key 0", EINVAL)), refused(bytesOf(ack)));
    EXPECT_EQ(-1, semid);
}

TEST_F(ClientAttachTest, segmentThatCannotBeMapped) {
    const NwCsAckRecord ack = server->good();
    ASSERT_NE(ack.semKey, ack.shmKey);
    theShmat = ENOMEM;
    // Meant: it names the set's key.
    EXPECT_EQ(warned(systemReport("shmat for key " + std::to_string(ack.semKey), ENOMEM)),
              refused(bytesOf(ack)));
}

TEST_F(ClientAttachTest, oldServerTakesNoControlOnlyClient) {
    NwCsAckRecord ack = server->good();
    ack.version = 2;
    EXPECT_EQ(warned(kOldServerRefuses), refused(bytesOf(ack), 0x100));
}

TEST_F(ClientAttachTest, oldServerHasASetOfFour) {
    NwCsAckRecord ack = server->good();
    ack.version = 2;
    // This one has two.
    EXPECT_EQ(warned(kOldServer + systemReport("semget for key " + std::to_string(ack.semKey), EINVAL)),
              refused(bytesOf(ack)));
    const OldSet old;
    ack.semKey = old.key;
    Messages messages;
    std::unique_ptr<Client> client = attachWith(ack, 0x27, kLoopback);
    EXPECT_TRUE(client->isOk());
    EXPECT_EQ(old.id, semid);
    EXPECT_EQ((Printed{"ClientSocket (id 77) ok for port 3000 (external)\n", kOldServer, ""}),
              printed(messages));
    server->deliver("abc");
    char* packet = nullptr;
    EXPECT_EQ(3, client->NwRecv(&packet, nullptr));
    client.reset();
    EXPECT_EQ("", fatal.take());
    EXPECT_EQ(old.id, ::semget(old.key, 4, 0));  // it was not this client's to remove
}

TEST_F(ClientAttachTest, controlOnlyClientOfAPresentServer) {
    Quiet quiet;
    std::unique_ptr<Client> client = attach(0x127);
    EXPECT_TRUE(client->isOk());
}

TEST_F(ClientAttachTest, everythingIsSilentWhileQuiet) {
    Quiet quiet;
    EXPECT_EQ(nothingPrinted(), refused(kQuotaRefusal));
    EXPECT_EQ(nothingPrinted(), refused(std::string("\x09\x03\0\0", 4)));
    theAnswerIsLate = true;
    EXPECT_EQ(nothingPrinted(), refused(""));
    NwCsAckRecord ack = server->good();
    ack.shmKey = 0x1234;
    EXPECT_EQ(nothingPrinted(), refused(bytesOf(ack)));
    ack = server->good();
    ack.semKey = 0x4321;
    EXPECT_EQ(nothingPrinted(), refused(bytesOf(ack)));
    theShmat = ENOMEM;
    EXPECT_EQ(nothingPrinted(), refused(bytesOf(server->good())));
    ack = server->good();
    ack.version = 2;
    EXPECT_EQ(nothingPrinted(), refused(bytesOf(ack), 0x100));
    theMkstemp = ENOSPC;
    EXPECT_EQ(nothingPrinted(), fails());
    theBind = EACCES;
    EXPECT_EQ(nothingPrinted(), fails());
    theSend = EAGAIN;
    EXPECT_EQ(nothingPrinted(), fails());
    Messages messages;
    const OldSet old;
    ack.semKey = old.key;
    theFcntl = EACCES;
    std::unique_ptr<Client> client = attachWith(ack, 0x27, kLoopback);
    EXPECT_TRUE(client->isOk());
    EXPECT_EQ(nothingPrinted(), printed(messages));
    client.reset();
    server->close();
    EXPECT_EQ(nothingPrinted(), fails());
}

// --- queues that are none ----------------------------------------------------------------------------------

TEST_F(ClientAttachTest, anAreaThatHoldsNoQueueEndsTheAttachmentAtTheFirstRead) {
    const auto firstReadIsTheLast = [&](const NwCsAckRecord& ack) {
        std::unique_ptr<Client> client = attachWith(ack, 7, kLoopback);
        ASSERT_TRUE(client->isOk());
        Messages messages;
        const Printed expected = printedBy(messages, notice(4));
        char* packet = reinterpret_cast<char*>(1);
        int status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(0, status);
        EXPECT_EQ(expected, printed(messages));
        EXPECT_FALSE(client->isOk());
        EXPECT_EQ(4, client->endNotice());
        client.reset();
        EXPECT_EQ(kNotOk, fatal.take());
        // Whose they are is not known: segment and set stay.
        EXPECT_GE(::semctl(server->segment.semId(), 0, GETVAL), 0);
        EXPECT_EQ(server->segment.shmId(), ::shmget(server->segment.shmKey(), 0, 0));
    };
    for (const int size : {0, 8, 16, 17, 500}) {
        NwCsAckRecord ack = server->good();
        ack.server2ClientSize = size;
        firstReadIsTheLast(ack);
    }
    static_cast<NwShmMsgQueueHeader*>(server->segment.queue())->magic ^= 1;
    firstReadIsTheLast(server->good());
}

// --- attached anew -----------------------------------------------------------------------------------------

class ClientAttachedAnew : public ClientAttachTest {
protected:
    static constexpr int kNewId = 78;

    // An attach of a socket that has released what it had; its requests stay.
    void attachAnew(Client& client, unsigned int addr = kLoopback) {
        server->drain();
        server->hangUp();
        NwCsAckRecord ack = server->good();
        ack.clientId = kNewId;
        server->answerAttach(ack);
        client.init(FakePacketServer::kPort, addr, 5, 0x27);
        server->answered();
    }
};

TEST_F(ClientAttachedAnew, itIsAClientAsAnyOther) {
    const Quiet quiet;
    UdpPeer peer(kLoopback, FakePacketServer::kPort, true);
    std::unique_ptr<Client> client = attach(0x27);
    server->deliver("abc", 0x0A000001u);
    char bytes[4];
    EXPECT_EQ(3, client->NwRecv(bytes, 4ul));
    client->notifyMe();
    server->say(noticeMessage(NwCsNoticeStopped));
    EXPECT_EQ(0, client->NwRecv(bytes, 4ul));
    EXPECT_EQ(NwCsNoticeStopped, client->endNotice());
    EXPECT_FALSE(client->isOk());
    server->hangUp();
    const int before = openDescriptors();
    attachAnew(*client);
    EXPECT_TRUE(client->isOk());
    EXPECT_EQ(5, recordIn<NwCsAddClientRecord>(server->request).clientArg);
    for (int index = 0; index < 4; ++index) EXPECT_EQ(filterMessage(index, 0, 1, kNewId), server->next());
    EXPECT_TRUE(server->isEmpty());
    EXPECT_EQ(0, client->endNotice());
    EXPECT_EQ(0u, client->lastSourceInetAddr());
    EXPECT_FALSE(client->notifyPending);
    client->pduKind().setTest(NwTestInclude, 0, nullptr);
    EXPECT_EQ(filterMessage(2, 0, 0, kNewId), server->next());
    server->deliver("de");
    EXPECT_EQ(2, client->NwRecv(bytes, 4ul));
    EXPECT_EQ(2, client->sendTo(bytes, 2, kLoopback));
    EXPECT_EQ("de", peer.receive());
    client.reset();
    EXPECT_EQ("", fatal.take());
    EXPECT_FALSE(exists(server->notifyPath));
    EXPECT_EQ(1, attachments(server->segment.shmId()));
    server->hangUp();
    EXPECT_EQ(before + 1, openDescriptors()) << "the sending socket, which is never destroyed";
}

// The sending socket comes last: what it has to say, it says of a client that is attached.
TEST_F(ClientAttachedAnew, itIsOkBeforeItsSendingSocketIsMade) {
    REQUIRE_PRIVATE_NETWORK();
    class Watch : public std::streambuf {
    public:
        explicit Watch(const Client& client) : myClient(client), myFormer(NwWarn.rdbuf(this)) {}
        ~Watch() override { NwWarn.rdbuf(myFormer); }
        std::string text;
        bool sawItAttached = true;

    private:
        int_type overflow(int_type c) override {
            const char one = static_cast<char>(c);
            return xsputn(&one, 1) == 1 ? c : traits_type::eof();
        }
        std::streamsize xsputn(const char* more, std::streamsize length) override {
            sawItAttached = sawItAttached && myClient.isOk();
            text.append(more, static_cast<std::size_t>(length));
            return length;
        }
        const Client& myClient;
        std::streambuf* const myFormer;
    };
    std::unique_ptr<Client> client = attach(0x27);
    client->cleanup();
    EXPECT_FALSE(client->isOk());
    run("ip link set cv0 down");
    Messages messages;
    {
        Watch watch(*client);
        attachAnew(*client, 0);
        run("ip link set cv0 up");
        EXPECT_NE(std::string::npos, watch.text.find("Couldn't find an IP interface capable of broadcast."));
        EXPECT_TRUE(watch.sawItAttached);
    }
    EXPECT_EQ("ClientSocket (id 78) ok for port 3000 (external)\n", messages.info());
}

// --- the receive buffer ------------------------------------------------------------------------------------

// A largest packet size while it lives.
class PacketSize {
public:
    explicit PacketSize(int size) : myFormer(NwMaxPacketSize()) { set(size); }
    ~PacketSize() { set(myFormer); }
    PacketSize(const PacketSize&) = delete;
    PacketSize& operator=(const PacketSize&) = delete;
    static void set(int size) {
        Messages unseen;
        NwSetMaxPacketSize(size);
    }

private:
    int myFormer;
};

TEST_F(ClientAttachTest, theServersMessagesFitWhateverThePacketSize) {
    const std::string text(160, 't');
    NwCsWarningMsg warning(nullptr, NwCsWarningText, 0, text.c_str());
    for (const int size : {100, 0, -1, -2147483647 - 1}) {
        const PacketSize packetSize(size);
        std::unique_ptr<Client> client = attach(0x27);
        Messages messages;
        server->say(std::string(reinterpret_cast<const char*>(&warning.bytes()), 176));
        char* packet = nullptr;
        int status = 9;
        EXPECT_EQ(0, client->NwRecv(&packet, &status));
        EXPECT_EQ(-1, status);
        EXPECT_EQ(warned("Packet server: " + text + "\n"), printed(messages)) << size;
        server->deliver("abc");
        EXPECT_EQ(3, client->NwRecv(&packet, &status));
        EXPECT_EQ(1, status);
        client.reset();
        renewServer();
    }
}

TEST_F(ClientAttachTest, theBufferHoldsTheLargestPacketOfItsAttach) {
    Quiet quiet;
    char* packet = nullptr;
    int status = 9;
    const std::string largest(1001, 'p');
    const PacketSize packetSize(1001);
    std::unique_ptr<Client> client = attach(0x27);
    PacketSize::set(100);  // of no matter to what is there
    server->deliver(largest);
    ASSERT_EQ(1001, client->NwRecv(&packet, &status));
    EXPECT_EQ(largest, std::string(packet, 1001));
    PacketSize::set(100000);
    server->deliver(largest);
    EXPECT_EQ(1001, client->NwRecv(&packet, &status));
    server->deliver(largest + std::string(8, 'p'));  // longer than the buffer, however it is rounded up
    EXPECT_EQ(0, client->NwRecv(&packet, &status));
    EXPECT_EQ(-1, status);
    EXPECT_EQ(nullptr, packet);
}

// --- the default socket ------------------------------------------------------------------------------------

class DefaultSocket : public ClientSocketTest {};

TEST_F(DefaultSocket, isAUdpSocketWithoutServer) {
    server->close();
    Messages messages;
    const int port = freePort();
    std::unique_ptr<NwSocket> socket(NwNewDfltSocket(port, kLoopback, false));
    EXPECT_NE(nullptr, dynamic_cast<NwNetSocket*>(socket.get()));
    EXPECT_EQ(nullptr, dynamic_cast<NwAsyncNetSocket*>(socket.get()));
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(informed("NetSocket ok for port " + std::to_string(port) + " to 127.0.0.1\n"),
              printed(messages));
    // It reads and writes.
    UdpPeer peer;
    peer.send("0123456789abcdef", port);
    char* packet = nullptr;
    ASSERT_TRUE(waitReadable(socket->readFd()));
    ASSERT_EQ(16, socket->NwRecv(&packet, nullptr));
    EXPECT_EQ("0123456789abcdef", std::string(packet, 16));
    char bytes[] = "to itself: 0123456789abcdef";
    EXPECT_EQ(27, socket->NwSend(bytes, 27, 0));
    ASSERT_TRUE(waitReadable(socket->readFd()));
    EXPECT_EQ(27, socket->NwRecv(&packet, nullptr));
}

TEST_F(DefaultSocket, isAsynchronousIfAskedFor) {
    server->close();
    Quiet quiet;
    const int port = freePort();
    std::unique_ptr<NwSocket> socket(NwNewDfltSocket(port, kLoopback, true));
    ASSERT_NE(nullptr, dynamic_cast<NwAsyncNetSocket*>(socket.get()));
    EXPECT_TRUE(socket->isOk());
    socket->NwBecomeNonBlocking();
    UdpPeer peer;
    peer.send("0123456789abcdef", port);
    char* packet = nullptr;
    int length = 0;
    ASSERT_TRUE(eventually([&] { return (length = socket->NwRecv(&packet, nullptr)) != 0; }));
    EXPECT_EQ(16, length);
}

TEST_F(DefaultSocket, itsInterfaceIsTheHostsFirst) {
    REQUIRE_PRIVATE_NETWORK();
    server->close();
    const Quiet quiet;
    for (const bool async : {false, true}) {
        std::unique_ptr<NwSocket> socket(NwNewDfltSocket(freePort(), kLoopback, async));
        EXPECT_EQ(ipv4("10.8.0.1"), dynamic_cast<NwNetSocket&>(*socket).mcastDevice());
    }
}

TEST_F(DefaultSocket, aSocketThatFailedToOpenIsReturnedAsItIs) {
    server->close();
    Quiet quiet;
    UdpPeer occupant;
    for (const bool async : {false, true}) {
        std::unique_ptr<NwSocket> socket(NwNewDfltSocket(occupant.port(), kLoopback, async));
        ASSERT_NE(nullptr, socket);
        EXPECT_FALSE(socket->isOk());
    }
}

TEST_F(DefaultSocket, warnsOfAnOldServerAndGoesOn) {
    server.reset();
    const FakePacketServer oldServer(NwPacketServerOldVersion);
    const Quiet quiet;  // of no matter to the warning
    for (const bool async : {false, true}) {
        Messages messages;
        std::unique_ptr<NwSocket> socket(NwNewDfltSocket(FakePacketServer::kPort, kLoopback, async));
        EXPECT_EQ(
            warned(
                "             NwNewDfltSocket: a packet server from 2.3.2 or before appears to be running\n"
                "             this application works with servers from 2.3.3 or later\n"),
            printed(messages));
        EXPECT_NE(nullptr, dynamic_cast<NwNetSocket*>(socket.get()));
        EXPECT_EQ(async, dynamic_cast<NwAsyncNetSocket*>(socket.get()) != nullptr);
    }
}

TEST_F(DefaultSocket, isAClientOfALiveServer) {
    Quiet quiet;
    for (const bool async : {false, true}) {
        server->answerAttach(server->good());
        std::unique_ptr<NwSocket> socket(NwNewDfltSocket(FakePacketServer::kPort, 0xEF010203u, async));
        server->answered();
        ASSERT_NE(nullptr, dynamic_cast<NwClientSocket*>(socket.get()));
        EXPECT_TRUE(socket->isOk());
        const NwCsAddClientRecord add = recordIn<NwCsAddClientRecord>(server->request);
        EXPECT_EQ(-1, add.clientArg);
        EXPECT_EQ(7, add.flags);
        for (int index = 0; index < 4; ++index) EXPECT_EQ(filterMessage(index, 0, 1), server->next());
        EXPECT_EQ(groupMessage(0, 0xEF010203u), server->next());  // the address reaches the client
        socket.reset();
        EXPECT_EQ(controlMessage(7), server->next());
        renewServer();
    }
}

}  // namespace
