// SPDX-License-Identifier: BSD-3-Clause
// The server in this process: the test takes its turns, one by one, and its clients are written out by hand,
// so that every step can be held, left out or done wrong.
#include "server.h"

#include <cvutil/cvPacketServer.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"

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

}  // namespace
