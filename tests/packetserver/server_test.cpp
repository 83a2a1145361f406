// SPDX-License-Identifier: BSD-3-Clause
// The server in this process: the test takes its turns, one by one, and its clients are written out by hand,
// so that every step can be held, left out or done wrong.
#include "server.h"

#include <cvutil/cvPacketServer.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "daemon.h"
#include "messages.h"
#include "network.h"
#include "packets.h"
#include "process.h"

// Failures by appointment: so many allocations of a client's size fail; or all of them once so many have
// succeeded (-1: none); and a system that is older than its option to take no descriptors.
static std::atomic<int> clientsWithoutMemory{0};
static std::atomic<int> allocationsLeft{-1};
static std::atomic<bool> theSystemRefusesDescriptors{true};

// All forms, so that nothing is made by one allocator and given back to another.
static void* allocate(std::size_t size) {
    if (size == sizeof(packetserver::Client) && clientsWithoutMemory > 0) {
        --clientsWithoutMemory;
        return nullptr;
    }
    if (allocationsLeft == 0) return nullptr;
    if (allocationsLeft > 0) --allocationsLeft;
    return std::malloc(size);
}
static void* allocateOrThrow(std::size_t size) {
    if (void* const memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
[[gnu::noinline]] void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t length) noexcept {
    const int passRights = 83;
    if (level == SOL_SOCKET && name == passRights && !theSystemRefusesDescriptors) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, length));
}

namespace {

using packetserver::EventLoop;
using packetserver::Log;
using packetserver::Server;
using packetserver::ServerSettings;

const unsigned short kData = 7;
const unsigned short kControl = NwCsClientControlOnly;

bool isThere(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0;
}

// Whether `work` found no memory when its allocations but the first so many fail.
template <class Work>
bool failsAfter(int allocations, Work work) {
    bool fails = false;
    allocationsLeft = allocations;
    try {
        work();
    } catch (const std::bad_alloc&) {
        fails = true;
    }
    allocationsLeft = -1;
    return fails;
}

// A client that does what it is told, and no step more.
class HandClient {
public:
    explicit HandClient(const std::string& requestPath, const std::string& pattern = "/tmp/cvcXXXXXX")
        : path(pattern) {
        ::close(::mkstemp(&path[0]));
        notifyFd = NwOpenUnixDgram(path.c_str(), NwUnixDgramBind, "test");
        requestFd = NwOpenUnixDgram(requestPath.c_str(), NwUnixDgramConnect, "test");
    }
    ~HandClient() {
        detachQueue();
        closeNotify();
        ::close(requestFd);
        ::unlink(path.c_str());
    }
    HandClient(const HandClient&) = delete;
    HandClient& operator=(const HandClient&) = delete;

    void ask(unsigned short flags = kData) {
        EXPECT_GT(NwCsAddClientMsg(requestFd, flags, -1, 32, ::getpid(), path.c_str()).send(), 0);
    }
    // What lies on the notify socket: its kind, or -1.
    int answer() {
        bytes = NwCsMsg{};
        return ::recv(notifyFd, &bytes, sizeof bytes, MSG_DONTWAIT) > 0 ? bytes.kind : -1;
    }
    std::string refusal() {
        return answer() == NwCsKindWarning ? NwCsWarningMsg(nullptr, &bytes).text() : "";
    }
    NwCsAckRecord ack() const {
        NwCsAckRecord record;
        std::memcpy(&record, &bytes, sizeof record);
        return record;
    }
    unsigned id() const { return static_cast<unsigned>(ack().clientId); }
    void attachQueue() {
        const NwCsAckRecord where = ack();
        base = ::shmat(::shmget(where.shmKey, 0, 0), nullptr, 0);
        ASSERT_NE(base, reinterpret_cast<void*>(-1));
        char* const queue = static_cast<char*>(base) + where.client2ServerSize;
        reader = std::make_unique<NwShmMsgQueueReader>(queue, where.server2ClientSize - 16,
                                                       ::semget(where.semKey, 0, 0), 0, true, false, true);
    }
    void detachQueue() {
        reader.reset();
        if (base != nullptr) ::shmdt(base);
        base = nullptr;
    }
    void filter(NwCsFilterIndex index, NwCsFilterOp op, unsigned value) {
        EXPECT_GT(NwCsFilterMsg(requestFd, static_cast<unsigned char>(index), static_cast<unsigned char>(op),
                                value, id())
                      .send(),
                  0);
    }
    void reportFilters() {
        for (int index = 0; index < NwCsFilterCount; ++index)
            filter(static_cast<NwCsFilterIndex>(index), NwCsFilterOpOperator, 1);
    }
    void request(NwCsControlRequest code) {
        EXPECT_GT(NwCsControlReqMsg(requestFd, static_cast<unsigned short>(code), id()).send(), 0);
    }
    void group(NwCsMulticastOp op, unsigned address) {
        EXPECT_GT(NwCsMulticastReqMsg(requestFd, static_cast<unsigned short>(op), address, id()).send(), 0);
    }
    // The next message of the queue: its kind, or -1.
    int message() {
        bytes = NwCsMsg{};
        int result = 0;
        std::uint64_t room[8192];
        const int length = reader->read(room, 8192, &result);
        if (length <= 0) return -1;
        std::memcpy(&bytes, room, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof bytes));
        return bytes.kind;
    }
    void closeNotify() {
        if (notifyFd >= 0) ::close(notifyFd);
        notifyFd = -1;
    }

    std::string path;
    int notifyFd = -1;
    int requestFd = -1;
    NwCsMsg bytes{};  // of the last answer or message
    void* base = nullptr;
    std::unique_ptr<NwShmMsgQueueReader> reader;
};

class PacketServerTest : public testing::Test {
protected:
    PacketServerTest() {
        NwNetSocket::initErrorAction = 1;  // as in the daemon
        char name[] = "/tmp/cvpiecesXXXXXX";
        settings.directory = ::mkdtemp(name);
        settings.queueBytes = 256 << 10;
        logPath = settings.directory + "/log";
        log = std::make_unique<Log>(true, logPath);
        EXPECT_TRUE(log->open());
    }
    ~PacketServerTest() override {
        server.reset();
        ::unlink(logPath.c_str());
        EXPECT_EQ(::rmdir(settings.directory.c_str()), 0) << "something was left behind";
    }

    void start() {
        server = std::make_unique<Server>(port, settings, loop, *log);
        ASSERT_TRUE(server->start()) << server->problem();
    }
    std::string requestPath() const {
        char path[NwPacketServerPathSize];
        return NwPacketServerPathIn(settings.directory.c_str(), static_cast<unsigned>(port), path,
                                    NwPacketServerVersion);
    }
    void turn() { loop.runOnce(std::chrono::milliseconds(0)); }
    void turns(int count = 8) {
        for (int i = 0; i < count; ++i) turn();
    }
    std::unique_ptr<HandClient> newClient() const { return std::make_unique<HandClient>(requestPath()); }
    std::unique_ptr<HandClient> attached(unsigned short flags = kData) {
        auto client = newClient();
        client->ask(flags);
        turns();
        EXPECT_EQ(client->answer(), NwCsKindAck);
        const NwCsMsg acknowledgement = client->bytes;
        client->attachQueue();
        client->reportFilters();
        turns();
        client->bytes = acknowledgement;
        return client;
    }
    NwCsStateReturnRecord state(HandClient& asking) {
        const NwCsMsg acknowledgement = asking.bytes;
        asking.request(NwCsRequestState);
        turns();
        NwCsStateReturnRecord record{};
        for (int kind = asking.message(); kind != -1; kind = asking.message())
            if (kind == NwCsKindStateReturn) std::memcpy(&record, &asking.bytes, sizeof record);
        asking.bytes = acknowledgement;
        return record;
    }
    packetserver::Options daemonOptions() const {
        packetserver::Options options;
        options.ports = {port};
        options.server = settings;
        options.isJson = true;
        options.logFile = logPath;
        return options;
    }
    static void expectOrderlyStop(pid_t daemon) {
        ::kill(daemon, SIGTERM);
        int status = -1;
        EXPECT_EQ(::waitpid(daemon, &status, 0), daemon);
        EXPECT_EQ(status, 0);
    }
    // The lines of the log about one kind of event.
    std::vector<nlohmann::json> logged(const std::string& event) const {
        std::vector<nlohmann::json> found;
        std::ifstream file(logPath);
        for (std::string line; std::getline(file, line);) {
            nlohmann::json fields = nlohmann::json::parse(line);
            if (fields["event"] == event) found.push_back(std::move(fields));
        }
        return found;
    }

    const Quiet quiet;
    const int port = freePort();
    ServerSettings settings;
    EventLoop loop;
    std::string logPath;
    std::unique_ptr<Log> log;
    std::unique_ptr<Server> server;
};

// --- slots, paths, places --------------------------------------------------------------------------------

TEST_F(PacketServerTest, keysInForeignHandsAreNoHindrance) {
    const int set = ::semget(NwShmMsgQueueSegment::semKeyOf(port, 0), 1, IPC_CREAT | IPC_EXCL | 0600);
    const int foreignSet = ::semget(NwShmMsgQueueSegment::semKeyOf(port, 1), 1, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(set, 0);
    ASSERT_GE(foreignSet, 0);
    start();
    const auto first = attached();
    EXPECT_EQ(first->ack().semKey, NwShmMsgQueueSegment::semKeyOf(port, 2));
    const auto second = attached();
    EXPECT_EQ(second->ack().semKey, NwShmMsgQueueSegment::semKeyOf(port, 3));
    ::semctl(set, 0, IPC_RMID);
    ::semctl(foreignSet, 0, IPC_RMID);
}

TEST_F(PacketServerTest, leftoversBeyondThePresentLimitOfClientsAreRemoved) {
    settings.clients = 1;
    const int slot = NwShmMsgQueueSegment::slotLimit - 1;
    const int left = ::shmget(NwShmMsgQueueSegment::shmKeyOf(port, slot), 4096, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(left, 0);
    start();
    EXPECT_EQ(::shmctl(left, IPC_RMID, nullptr), -1);
}

TEST_F(PacketServerTest, stopLeavesALivingClientItsPath) {
    start();
    const auto client = attached();
    server.reset();
    EXPECT_TRUE(isThere(client->path));
}

TEST_F(PacketServerTest, pathOfAClientThatDiedBeforeItsAnswerIsRemoved) {
    start();
    const auto client = newClient();
    client->ask();
    client->closeNotify();
    turns();
    EXPECT_FALSE(isThere(client->path));
    EXPECT_EQ(logged("attached").size(), 0u);
}

TEST_F(PacketServerTest, pathOfALivingClientThatIsRefusedStays) {
    settings.clients = 1;
    start();
    const auto first = attached();
    const auto second = newClient();
    second->ask();
    turns();
    EXPECT_EQ(second->answer(), NwCsKindQuota);
    EXPECT_TRUE(isThere(second->path));
}

TEST_F(PacketServerTest, notifyPathsLieDirectlyInTmp) {
    start();
    for (const std::string& pattern :
         {settings.directory + "/cvcXXXXXX", std::string("/tmp/../tmp/cvcXXXXXX"),
          std::string("/var/tmp/cvcXXXXXX")}) {
        HandClient client(requestPath(), pattern);
        client.ask();
        turns();
        EXPECT_EQ(client.answer(), -1) << pattern;
    }
    const auto refusals = logged("refused");
    ASSERT_EQ(refusals.size(), 3u);
    EXPECT_EQ(refusals[0]["reason"], "the notify path is not directly in /tmp/");
}

// --- floods ----------------------------------------------------------------------------------------------

TEST_F(PacketServerTest, emptyDatagramsHaveTurnsLikeAnyOther) {
    start();
    const auto asking = attached(kControl);
    UdpPeer sender;
    for (int i = 0; i < 400; ++i) sender.send("", port);
    asking->request(NwCsRequestState);
    turn();
    ASSERT_EQ(asking->message(), NwCsKindStateReturn);
    NwCsStateReturnRecord record;
    std::memcpy(&record, &asking->bytes, sizeof record);
    EXPECT_EQ(record.datagrams, 256u);
    EXPECT_EQ(record.packets, 0u);
}

TEST_F(PacketServerTest, refusedRequestsDoNotFillTheLog) {
    start();
    const auto client = newClient();
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(::send(client->requestFd, "?", 1, MSG_DONTWAIT), 1);
        if (i % 5 == 0) turn();  // a queue of the system holds a few
    }
    turns();
    server->tick();
    const std::size_t lines = logged("request refused").size();
    EXPECT_GE(lines, 1u);
    EXPECT_LE(lines, 200u);
    const auto leftOut = logged("lines left out");
    ASSERT_EQ(leftOut.size(), 1u);
    EXPECT_EQ(leftOut[0]["lines"], 1000 - lines);
    EXPECT_EQ(::send(client->requestFd, "?", 1, MSG_DONTWAIT), 1);  // and later ones are seen again
    turns();
    EXPECT_EQ(logged("request refused").size(), lines + 1);
}

TEST_F(PacketServerTest, oneProcessDoesNotTakeEveryPlaceWithoutAttaching) {
    start();
    std::vector<std::unique_ptr<HandClient>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(newClient());
        clients.back()->ask();
        turns();
        EXPECT_EQ(clients.back()->answer(), NwCsKindAck);
    }
    const auto oneMore = newClient();
    oneMore->ask();
    turns();
    EXPECT_EQ(oneMore->refusal(), "clients of this process have been acknowledged and do not attach");
    clients[0]->attachQueue();
    oneMore->ask();
    turns();
    EXPECT_EQ(oneMore->answer(), NwCsKindAck);
}

TEST_F(PacketServerTest, listOfAFilterIsLimitedDoublesIncluded) {
    start();
    const auto client = attached();
    const auto asking = attached(kControl);
    const NwCsMsg acknowledgement = client->bytes;
    const auto add = [&](unsigned value) {
        client->filter(NwCsFilterSourceAddr, NwCsFilterOpAdd, value);
        turn();
    };
    const auto expectNoWarning = [&] {
        EXPECT_EQ(client->message(), -1);
        client->bytes = acknowledgement;
    };
    for (unsigned i = 0; i < 65536; ++i) add(1000 + i / 2);
    expectNoWarning();
    add(kLoopback);
    ASSERT_EQ(client->message(), NwCsKindWarning);
    EXPECT_STREQ(NwCsWarningMsg(nullptr, &client->bytes).text(), "the filter's list is full");
    client->bytes = acknowledgement;
    asking->request(NwCsRequestClientStates);
    turns();
    ASSERT_EQ(asking->message(), NwCsKindCStateReturn);
    EXPECT_EQ(NwCsCStateReturnMsg(nullptr, &asking->bytes).state().filters[NwCsFilterSourceAddr].values,
              65536u);
    UdpPeer().send(pdu(100), port);
    turns();
    EXPECT_EQ(client->message(), NwCsKindData) << "the address that found no room is excluded";
    client->bytes = acknowledgement;
    client->filter(NwCsFilterSourceAddr, NwCsFilterOpOperator, 1);  // which empties it
    add(kLoopback);
    UdpPeer().send(pdu(100), port);
    turns();
    expectNoWarning();
}

// They take no permission, and put a message into every queue.
TEST_F(PacketServerTest, testsAndPingsOfAllClientsAreRationed) {
    start();
    const auto bystander = attached();
    const auto asking = attached();
    const auto ask = [&](int times) {
        for (int i = 0; i < times; ++i) {
            asking->request(i % 2 == 0 ? NwCsRequestTestClients : NwCsRequestPingClients);
            if (i % 5 == 0) turn();
        }
        turns();
    };
    const auto heard = [&] {
        std::vector<int> kinds;
        for (int kind = bystander->message(); kind != -1; kind = bystander->message()) kinds.push_back(kind);
        return kinds;
    };
    ask(500);
    const std::vector<int> first = heard();
    EXPECT_EQ(std::count(first.begin(), first.end(), NwCsKindNotice), 10);
    EXPECT_EQ(std::count(first.begin(), first.end(), NwCsKindPing), 10);
    EXPECT_EQ(first.size(), 20u);
    server->tick();
    ask(500);
    EXPECT_EQ(heard().size(), 5u);
    server->logStatistics();
    EXPECT_EQ(logged("statistics").back()["requestsRefused"], 1000 - 25);
    for (int i = 0; i < 20; ++i) EXPECT_NE(asking->message(), NwCsKindWarning);
    ASSERT_EQ(asking->message(), NwCsKindWarning);
    EXPECT_STREQ(NwCsWarningMsg(nullptr, &asking->bytes).text(), "too many tests and pings of all clients");
}

TEST_F(PacketServerTest, groupsOfAClientAreLimitedAndTheirSocketsClosed) {
    REQUIRE_PRIVATE_NETWORK();
    settings.interface = kLoopback;
    start();
    const auto client = attached();
    const auto asking = attached(kControl);
    const int before = openDescriptors();
    const auto request = [&](NwCsMulticastOp op) {
        for (unsigned i = 0; i < 300; ++i) {
            client->group(op, 0xEF010000u + i);
            if (i % 5 == 0) turn();
        }
    };
    request(NwCsMulticastJoin);
    EXPECT_EQ(state(*asking).groups, 256u);
    EXPECT_GT(openDescriptors(), before);
    ASSERT_EQ(client->message(), NwCsKindWarning);
    EXPECT_STREQ(NwCsWarningMsg(nullptr, &client->bytes).text(),
                 "cannot join 239.1.1.0: more than 256 groups");
    client->bytes = NwCsMsg{};
    NwCsAckRecord ack{};
    ack.clientId = 1;
    std::memcpy(&client->bytes, &ack, sizeof ack);
    request(NwCsMulticastLeave);
    EXPECT_EQ(state(*asking).groups, 0u);
    EXPECT_EQ(openDescriptors(), before);
}

// --- what is told ----------------------------------------------------------------------------------------

TEST_F(PacketServerTest, warningThatFindsNoRoomIsNoMessageDropped) {
    start();
    const auto client = attached();
    UdpPeer sender;
    for (int i = 0; i < 400; ++i) {
        sender.send(pdu(1000, i), port);
        turn();
    }
    server->logStatistics();
    const auto statistics = logged("client statistics");
    ASSERT_EQ(statistics.size(), 1u);
    const std::uint64_t dropped = statistics[0]["dropped"];
    EXPECT_GT(dropped, 100u);
    EXPECT_EQ(client->reader->queueMgr().msgsDropped(), dropped);
}

TEST_F(PacketServerTest, stateTellsTheRealSizeOfQueues) {
    settings.queueBytes = 300 << 10;
    start();
    EXPECT_EQ(state(*attached(kControl)).queueBytes, 512u << 10);
}

TEST_F(PacketServerTest, statesOfMoreClientsThanAQueueHoldsAreRefused) {
    settings.queueBytes = 512;
    start();
    std::vector<std::unique_ptr<HandClient>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(attached());
    clients[0]->request(NwCsRequestClientStates);
    turns();
    ASSERT_EQ(clients[0]->message(), NwCsKindWarning);
    EXPECT_STREQ(NwCsWarningMsg(nullptr, &clients[0]->bytes).text(),
                 "the states of all clients do not fit this queue: ask from a control-only client");
    EXPECT_EQ(clients[0]->message(), -1);
}

TEST_F(PacketServerTest, clientThatHasGoneBehindItsRequestIsNotAnswered) {
    start();
    const auto other = attached();
    for (const NwCsControlRequest code :
         {NwCsRequestTestClients, NwCsRequestPingClients, NwCsRequestClientStates, NwCsRequestState}) {
        const auto client = attached();
        client->request(code);
        client->detachQueue();
        turns();
    }
    EXPECT_EQ(state(*other).clients, 2u) << "the last one goes with the next tick";
}

TEST_F(PacketServerTest, nameOfAProgramSteersNoTerminal) {
    char own[16];
    ::prctl(PR_GET_NAME, own);
    ::prctl(PR_SET_NAME, "\033[2Jx\r\xFFy");
    start();
    const auto client = attached();
    ::prctl(PR_SET_NAME, own);
    ASSERT_EQ(logged("attached").size(), 1u);
    EXPECT_EQ(logged("attached")[0]["program"], "?[2Jx??y");
}

TEST_F(PacketServerTest, stopByAClientIsLogged) {
    start();
    attached(kControl)->request(NwCsRequestTerminate);
    turns();
    EXPECT_TRUE(server->isAskedToStop());
    ASSERT_EQ(logged("terminate").size(), 1u);
    EXPECT_EQ(logged("terminate")[0]["pid"], ::getpid());
}

// --- who may attach --------------------------------------------------------------------------------------

TEST(PacketServerPermissions, groupsOfTheProcessCount) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to become others";
    const uid_t user = 65533;
    const gid_t primary = 65532;
    const gid_t other = 4711;
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t process = ::fork();
    if (process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool isHim =
            ::syscall(SYS_setgroups, 1, &other) == 0 && ::setgid(primary) == 0 && ::setuid(user) == 0;
        if (::write(ready[1], isHim ? "y" : "n", 1) == 1) ::pause();
        ::syscall(SYS_exit_group, 0);
    }
    char answer = 0;
    EXPECT_EQ(::read(ready[0], &answer, 1), 1);
    if (answer == 'y') {
        packetserver::Permissions permissions;
        permissions.groups = {other};
        EXPECT_TRUE(permissions.mayAttach(user, primary, process));
        EXPECT_FALSE(permissions.mayAttach(user + 1, primary, process)) << "another user's process by now";
        EXPECT_FALSE(permissions.mayAttach(user, primary, ::getpid()));
        EXPECT_FALSE(permissions.mayControl(user));
        permissions.groups = {primary};
        EXPECT_TRUE(permissions.mayAttach(user, primary, process));
    }
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
    if (answer != 'y') GTEST_SKIP() << "this root cannot become others";
}

// --- descriptors that nobody asked for -------------------------------------------------------------------

// A connection that takes 30 s to close.
class SlowToClose {
public:
    SlowToClose() : myListener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(kLoopback);
        socklen_t length = sizeof address;
        sockaddr* const name = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(myListener, name, length), 0);
        EXPECT_EQ(::listen(myListener, 1), 0);
        EXPECT_EQ(::getsockname(myListener, name, &length), 0);
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(fd, name, length), 0);
        const linger patience{1, 30};
        EXPECT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &patience, sizeof patience), 0);
        const std::string unread(65536, 'u');
        while (::send(fd, unread.data(), unread.size(), MSG_DONTWAIT) > 0) {
        }
    }
    ~SlowToClose() { ::close(myListener); }

    int fd;

private:
    int myListener;
};

// Sends it and keeps none; false when the receiver does not take descriptors.
bool give(int socketFd, int fd) {
    iovec bytes{const_cast<char*>("?"), 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(part), &fd, sizeof fd);
    const bool isTaken = ::sendmsg(socketFd, &message, MSG_DONTWAIT) == 1;
    const linger none{};
    if (!isTaken) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    ::close(fd);
    return isTaken;
}

void expectQuickTurns(const std::function<void()>& turns) {
    const auto begin = std::chrono::steady_clock::now();
    turns();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST_F(PacketServerTest, descriptorThatIsSlowToCloseHoldsNobodyUp) {
    start();
    const auto client = newClient();
    const SlowToClose connection;
    give(client->requestFd, connection.fd);
    expectQuickTurns([this] { turns(); });
}

TEST_F(PacketServerTest, theSameOnASystemThatCannotRefuseDescriptors) {
    theSystemRefusesDescriptors = false;
    start();
    theSystemRefusesDescriptors = true;
    const auto client = newClient();
    const int before = openDescriptors();
    const SlowToClose connection;
    EXPECT_TRUE(give(client->requestFd, connection.fd));
    expectQuickTurns([this] { turns(); });
    EXPECT_EQ(openDescriptors(), before + 1);  // that which listens
}

// --- start -----------------------------------------------------------------------------------------------

TEST_F(PacketServerTest, onePortHasOneServerWhateverItsDirectory) {
    start();
    ServerSettings elsewhere = settings;
    elsewhere.directory += "/elsewhere";
    ASSERT_EQ(::mkdir(elsewhere.directory.c_str(), 0700), 0);
    {
        Server second(port, elsewhere, loop, *log);
        EXPECT_FALSE(second.start());
        EXPECT_EQ(second.problem(),
                  "another packet server serves this port, with another run directory: see who "
                  "has @cvpacketserver-" +
                      std::to_string(port) + " (ss -xap)");
    }
    server.reset();
    {
        Server second(port, elsewhere, loop, *log);
        EXPECT_TRUE(second.start()) << second.problem();
    }
    EXPECT_EQ(::rmdir(elsewhere.directory.c_str()), 0);
}

TEST_F(PacketServerTest, serverThatCannotHaveThePortIsNeverFound) {
    UdpPeer taken(0, port);
    std::ofstream(requestPath()) << "untouched";
    server = std::make_unique<Server>(port, settings, loop, *log);
    EXPECT_FALSE(server->start());
    EXPECT_EQ(server->problem(),
              "cannot open UDP port " + std::to_string(port) + ": " + std::strerror(EADDRINUSE));
    std::string found;
    std::ifstream(requestPath()) >> found;
    EXPECT_EQ(found, "untouched");
    ::unlink(requestPath().c_str());
}

// --- the loop, the log -----------------------------------------------------------------------------------

TEST(PacketServerLoop, eventOfADescriptorIsNotGivenToTheNextOneOfItsNumber) {
    EventLoop loop;
    int pipes[3][2];
    for (auto& ends : pipes) ASSERT_EQ(::pipe(ends), 0);
    int stale = 0;
    const auto replaceOther = [&](int own, int other) {
        return [&, own, other] {
            loop.remove(own);
            loop.remove(other);
            ASSERT_EQ(::dup2(pipes[2][0], other), other);  // an empty one
            ASSERT_TRUE(loop.add(other, [&] { ++stale; }));
        };
    };
    ASSERT_TRUE(loop.add(pipes[0][0], replaceOther(pipes[0][0], pipes[1][0])));
    ASSERT_TRUE(loop.add(pipes[1][0], replaceOther(pipes[1][0], pipes[0][0])));
    EXPECT_EQ(::write(pipes[0][1], "0", 1), 1);
    EXPECT_EQ(::write(pipes[1][1], "1", 1), 1);
    loop.runOnce(std::chrono::milliseconds(0));
    loop.runOnce(std::chrono::milliseconds(0));
    EXPECT_EQ(stale, 0);
    for (auto& ends : pipes) {
        ::close(ends[0]);
        ::close(ends[1]);
    }
}

TEST(PacketServerLogLines, pipeThatNobodyReadsLosesLinesAndTellsHowMany) {
    char name[] = "/tmp/cvlogXXXXXX";
    const std::string path = std::string(::mkdtemp(name)) + "/pipe";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    Log log(true, path);
    EXPECT_FALSE(log.open()) << "nobody reads, and the server does not wait until somebody does";
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_TRUE(log.open());
    const int events = 2000;
    for (int i = 0; i < events; ++i) log.event({{"event", "full"}, {"text", std::string(100, 'x')}}, "");
    std::string text;
    const auto drain = [&] {
        char bytes[4096];
        for (ssize_t got; (got = ::read(reader, bytes, sizeof bytes)) > 0;)
            text.append(bytes, static_cast<std::size_t>(got));
    };
    drain();
    const long written = std::count(text.begin(), text.end(), '\n');
    EXPECT_LT(written, events);
    text.clear();
    log.event({{"event", "after"}}, "");
    drain();
    EXPECT_EQ(text, "{\"event\":\"lines lost\",\"lines\":" + std::to_string(events - written) +
                        "}\n{\"event\":\"after\"}\n");
    ::close(reader);
    ::unlink(path.c_str());
    ::rmdir(name);
}

TEST(PacketServerLogLines, fullDiskKeepsWholeLines) {
    char name[] = "/tmp/cvlogXXXXXX";
    const std::string path = std::string(::mkdtemp(name)) + "/log";
    Log log(true, path);
    ASSERT_TRUE(log.open());
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full{30, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
    for (int i = 0; i < 3; ++i) log.event({{"event", "line"}, {"n", i}}, "");  // 23 bytes each
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    log.event({{"event", "after"}}, "");
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    EXPECT_EQ(text.str(),
              "{\"event\":\"line\",\"n\":0}\n{\"event\":\"lines lost\",\"lines\":2}\n"
              "{\"event\":\"after\"}\n");
    ::unlink(path.c_str());
    ::rmdir(name);
}

// --- memory ----------------------------------------------------------------------------------------------

// Wherever the memory ends: the wish does not count, and what another client wishes for stays.
TEST_F(PacketServerTest, groupThatFindsNoMemoryIsNotWishedFor) {
    REQUIRE_PRIVATE_NETWORK();
    settings.interface = kLoopback;
    const NwIpv4Addr group = 0xEF010203u;
    for (const bool isWishedByAnother : {false, true}) {
        start();
        const auto other = attached();
        const auto asking = attached(kControl);
        if (isWishedByAnother) other->group(NwCsMulticastJoin, group);
        const unsigned groupsBefore = state(*asking).groups;
        EXPECT_EQ(groupsBefore, isWishedByAnother ? 1u : 0u);
        const int before = openDescriptors();
        int failures = 0;
        for (bool fails = true; fails;) {
            const auto client = attached();
            client->group(NwCsMulticastJoin, group);
            fails = failsAfter(failures, [this] { turn(); });
            if (fails) ++failures;
            EXPECT_EQ(state(*asking).groups, fails ? groupsBefore : 1u) << failures;
            client->request(NwCsRequestDisconnect);
            turns();
            EXPECT_EQ(state(*asking).groups, groupsBefore) << failures;
        }
        EXPECT_GT(failures, 0);
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(groupsJoinedOn("lo").size(), groupsBefore);
        server.reset();
    }
}

TEST(PacketServerLoop, descriptorWhoseHandlerFindsNoMemoryIsNotWaitedFor) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(::write(ends[1], "1", 1), 1);
    EventLoop loop;
    int calls = 0;
    const EventLoop::Handler handler = [&] { ++calls; };
    int failures = 0;
    while (failsAfter(failures, [&] { EXPECT_TRUE(loop.add(ends[0], handler)) << failures; })) ++failures;
    EXPECT_GT(failures, 0);
    loop.runOnce(std::chrono::milliseconds(0));
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(loop.add(ends[0], handler));
    EXPECT_EQ(errno, EEXIST);
    loop.runOnce(std::chrono::milliseconds(0));
    EXPECT_EQ(calls, 2) << "the first one stays";
    for (const int end : ends) ::close(end);
}

TEST_F(PacketServerTest, stopWithoutMemoryTellsTheClientsAndLeavesNothing) {
    start();
    const auto client = attached();
    ASSERT_FALSE(failsAfter(0, [this] { server.reset(); }));
    ASSERT_EQ(client->message(), NwCsKindNotice);
    EXPECT_EQ(NwCsNoticeMsg(nullptr, &client->bytes).notice(), NwCsNoticeStopped);
    EXPECT_EQ(logged("out of memory").size(), 1u);  // instead of the line about the client
    EXPECT_FALSE(isThere(requestPath()));
}

// The whole program in a process of its own.
pid_t forkDaemon(const packetserver::Options& options, void (*atFirst)()) {
    const pid_t daemon = ::fork();
    if (daemon != 0) return daemon;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    atFirst();
    ::syscall(SYS_exit_group, packetserver::runDaemon(options));
    return -1;
}

TEST_F(PacketServerTest, attachThatFindsNoMemoryCostsNobodyElse) {
    const pid_t daemon = forkDaemon(daemonOptions(), [] { clientsWithoutMemory = 1; });
    ASSERT_TRUE(eventually([this] { return logged("serving").size() == 1; }));
    {
        const auto first = newClient();
        first->ask();
        EXPECT_TRUE(eventually([this] { return logged("out of memory").size() == 1; }));
        const auto second = newClient();
        second->ask();
        EXPECT_TRUE(waitReadable(second->notifyFd));
        EXPECT_EQ(second->answer(), NwCsKindAck);
    }
    expectOrderlyStop(daemon);
}

TEST_F(PacketServerTest, daemonThatHasNoMemoryLeftStopsInOrder) {
    const pid_t daemon =
        forkDaemon(daemonOptions(), [] { ::signal(SIGUSR1, [](int) { allocationsLeft = 0; }); });
    ASSERT_TRUE(eventually([this] { return logged("serving").size() == 1; }));
    HandClient client(requestPath());
    client.ask();
    ASSERT_TRUE(waitReadable(client.notifyFd));
    ASSERT_EQ(client.answer(), NwCsKindAck);
    client.attachQueue();
    ASSERT_TRUE(eventually([this] { return logged("attached").size() == 1; }));
    ::kill(daemon, SIGUSR1);
    expectOrderlyStop(daemon);
    ASSERT_EQ(client.message(), NwCsKindNotice);
    EXPECT_EQ(NwCsNoticeMsg(nullptr, &client.bytes).notice(), NwCsNoticeStopped);
    EXPECT_EQ(logged("out of memory").size(), 3u);  // statistics, the client, the last line
}

}  // namespace
