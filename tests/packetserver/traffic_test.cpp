// SPDX-License-Identifier: BSD-3-Clause
// Recorded traffic through the server to clients in processes of their own: each gets exactly what its
// filters let through, in order, or an honest count of what it did not get.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <set>
#include <sstream>

#include "clients.h"
#include "packet_server_process.h"
#include "packets.h"
#include "private_host.h"
#include "split_model.h"

namespace {

// --- what a client wants, and what it must get -----------------------------------------------------------

struct Wish {
    bool excludes = true;
    std::set<unsigned> values;
    bool passes(unsigned value) const { return excludes != (values.count(value) != 0); }
};

// A datagram taken apart as any receiver does it, but that none is too short.
std::vector<std::string> apart(const std::string& datagram) {
    SplitModel model;
    model.minSize = 1;
    model.room = 65535;
    model.queue.push_back(SplitModel::Datagram{datagram, kLoopback, false});
    std::vector<std::string> packets;
    for (;;) {
        const SplitModel::Outcome outcome = model.receive();
        if (outcome.readNothing) return packets;
        packets.push_back(outcome.bytes);
    }
}

struct Wishes {
    Wish exercise, version, kind;
    bool unbundles = true;

    bool pass(const std::string& packet) const {
        const auto byte = [&](std::size_t at) {
            return at < packet.size() ? static_cast<unsigned char>(packet[at]) : 0u;
        };
        return version.passes(byte(0)) && exercise.passes(byte(1)) && kind.passes(byte(2));
    }
    // All packets of this traffic that this client is to get.
    std::deque<std::string> of(const std::vector<std::string>& datagrams) const {
        std::deque<std::string> packets;
        for (const std::string& datagram : datagrams) {
            const std::vector<std::string> parts = apart(datagram);
            if (!unbundles) {
                if (pass(parts[0])) packets.push_back(datagram);
                continue;
            }
            for (const std::string& packet : parts)
                if (pass(packet)) packets.push_back(packet);
        }
        return packets;
    }
    void tell(NwClientSocket& socket) const {
        const auto set = [](NwFilterTest& test, const Wish& wish) {
            std::vector<unsigned> values(wish.values.begin(), wish.values.end());
            test.setTest(wish.excludes ? NwTestExclude : NwTestInclude, static_cast<int>(values.size()),
                         values.data());
        };
        set(socket.exerciseId(), exercise);
        set(socket.protocolVersion(), version);
        set(socket.pduKind(), kind);
        if (!unbundles) socket.setUnbundling(0);
    }
};

// One of several different wishes, by number.
Wishes wishes(int number) {
    Wishes result;
    switch (number % 8) {
        case 1:
            result.kind = Wish{false, {1}};
            break;
        case 2:
            result.kind = Wish{true, {1, 2, 3}};
            break;
        case 3:
            result.version = Wish{false, {6, 7}};
            break;
        case 4:
            result.exercise = Wish{true, {1}};
            result.kind = Wish{false, {1, 20, 23, 67}};
            break;
        case 5:
            result.unbundles = false;
            break;
        case 6:
            result.unbundles = false;
            result.kind = Wish{false, {1}};
            break;
        case 7:
            result.kind = Wish{false, {}};  // nothing at all
            break;
        default:
            break;
    }
    return result;
}

// --- a client in a process of its own --------------------------------------------------------------------

struct Got {
    std::uint32_t sequence;
    std::string bytes;
};

// What a client reports at its end: its packets, and the drops it was told of.
struct Report {
    std::vector<Got> packets;
    std::uint64_t dropsTold = 0;

    std::string asText() const {
        std::string text(reinterpret_cast<const char*>(&dropsTold), sizeof dropsTold);
        for (const Got& got : packets) {
            const std::uint32_t head[] = {got.sequence, static_cast<std::uint32_t>(got.bytes.size())};
            text.append(reinterpret_cast<const char*>(head), sizeof head).append(got.bytes);
        }
        return text;
    }
    static Report fromText(const std::string& text) {
        Report report;
        if (text.size() < sizeof dropsTold) return report;
        std::memcpy(&report.dropsTold, text.data(), sizeof dropsTold);
        for (std::size_t at = sizeof dropsTold; at < text.size();) {
            std::uint32_t head[2];
            std::memcpy(head, text.data() + at, sizeof head);
            report.packets.push_back(Got{head[0], text.substr(at + sizeof head, head[1])});
            at += sizeof head + head[1];
        }
        return report;
    }
};

// Attaches, says its number, receives until it is told that no more will come, and reports. Odd ones block
// in the receive call, which takes a message to see the end; even ones watch the descriptor.
int receive(const Line& line, int port, const Wishes& mine, int number) {
    NwSocket::setQuietSockets(true);
    WatchedSocket socket(port);
    mine.tell(socket);
    socket.settle();
    line.say(std::to_string(socket.id()));
    Report report;
    // False when nothing came.
    const auto takeOne = [&] {
        const WatchedSocket::Item item = socket.next();
        if (item.kind == WatchedSocket::Item::packet) {
            report.packets.push_back(Got{item.header.sequence, item.bytes});
        } else if (item.text.kind == NwCsKindWarning) {
            const NwCsWarningMsg warning(nullptr, &item.text);
            if (warning.warning() == NwCsWarningDropped) report.dropsTold += warning.count();
        }
        return item.kind != WatchedSocket::Item::nothing;
    };
    if (number % 2 != 0) socket.block();
    while (!line.isHeard()) {
        if (takeOne() || number % 2 != 0) continue;
        socket.notifyMe();
        waitReadable(socket.readFd(), 20);
    }
    line.hear();
    socket.NwBecomeNonBlocking();
    while (takeOne()) {
    }
    line.say(report.asText());
    line.hear();  // so that the server can still be asked about this client
    return 0;
}

class Receiver {
public:
    Receiver(int port, int number)
        : mine(wishes(number)),
          process([=](const Line& line) { return receive(line, port, wishes(number), number); }),
          id(std::atoi(process.hear().c_str())) {}

    // To be called when the server has taken everything; and then some client has to ping them all, to end
    // what blocks.
    void enough() { process.say("enough"); }
    Report report() { return Report::fromText(process.hear()); }
    void leave() {
        process.say("bye");
        EXPECT_EQ(process.finish(), 0) << process.errors();
    }

    const Wishes mine;
    ClientProcess process;
    const int id;
};

class PacketServerTraffic : public testing::Test {
protected:
    void SetUp() override { REQUIRE_PRIVATE_HOST(); }
    Tame tame;
};

std::vector<std::string> allRecordings() {
    std::vector<std::string> datagrams;
    for (const std::string& name : recordedNames())
        for (const std::string& datagram : recorded(name)) datagrams.push_back(datagram);
    return datagrams;
}

// As fast as the kernel takes them.
void sendAll(const std::vector<std::string>& datagrams, int port) {
    UdpPeer sender;
    for (const std::string& datagram : datagrams) sender.send(datagram, port);
}

// Waits until every datagram is accounted for: by the server, or by the kernel, which had no room for it.
NwCsStateReturnRecord awaitAll(WatchedSocket& control, std::size_t datagrams) {
    NwCsStateReturnRecord state{};
    EXPECT_TRUE(eventually([&] {
        state = control.serverState();
        return state.datagrams + state.kernelDropped == datagrams;
    })) << state.datagrams
        << " + " << state.kernelDropped << " of " << datagrams;
    return state;
}

// What must hold for each client, whatever was lost: its packets are wanted ones, in order; its sequence
// numbers grow, and have a gap for each packet that the server says it dropped; and if the kernel lost
// nothing, nothing else is missing.
void expectHonest(const Report& report, const Wishes& mine, const std::vector<std::string>& sent,
                  const NwCsCStateReturnRecord& state, std::uint64_t kernelDropped) {
    EXPECT_EQ(state.delivered, report.packets.size());
    std::deque<std::string> wanted = mine.of(sent);
    if (kernelDropped == 0) {
        EXPECT_EQ(wanted.size(), report.packets.size() + state.dropped);
    }
    std::uint64_t next = 0;
    std::uint64_t missing = 0;
    for (const Got& got : report.packets) {
        ASSERT_GE(got.sequence, next);
        missing += got.sequence - next;
        // With every datagram taken, the sequence number is the place among the wanted ones.
        if (kernelDropped == 0) {
            ASSERT_LT(got.sequence, wanted.size());
            ASSERT_EQ(wanted[got.sequence], got.bytes) << "packet " << got.sequence;
        } else {
            while (!wanted.empty() && wanted.front() != got.bytes) wanted.pop_front();
            ASSERT_FALSE(wanted.empty()) << "a packet out of order, or one that nobody sent";
            wanted.pop_front();
        }
        next = got.sequence + std::uint64_t(1);
    }
    EXPECT_LE(missing, state.dropped);  // those behind the last packet leave no gap
}

void expectTrafficReaches(int clients) {
    const std::vector<std::string> sent = allRecordings();
    ASSERT_GT(sent.size(), 500u);
    Server server;
    std::vector<std::unique_ptr<Receiver>> receivers;
    for (int i = 0; i < clients; ++i) receivers.push_back(std::make_unique<Receiver>(server.port(), i));
    WatchedSocket control(server.port(), WatchedSocket::control);
    sendAll(sent, server.port());
    const NwCsStateReturnRecord state = awaitAll(control, sent.size());
    EXPECT_EQ(state.clients, static_cast<unsigned>(clients));
    std::uint64_t total = 0;
    for (const auto& receiver : receivers) receiver->enough();
    control.pingClients();
    for (const auto& receiver : receivers) {
        const Report report = receiver->report();
        const NwCsCStateReturnRecord its = control.stateOf(receiver->id);
        expectHonest(report, receiver->mine, sent, its, state.kernelDropped);
        EXPECT_EQ(report.dropsTold, its.dropped);
        if (receiver->mine.unbundles)
            EXPECT_EQ(its.delivered + its.filtered + its.dropped, state.packets);
        else
            EXPECT_EQ(its.delivered + its.filtered + its.dropped, state.datagrams);
        total += its.delivered;
        receiver->leave();
    }
    EXPECT_GT(total, 0u);
    EXPECT_TRUE(eventually([&] { return control.serverState().clients == 0; }));
    EXPECT_EQ(segmentsThere(), 1);  // the control client's
    EXPECT_EQ(setsThere(), 1);
    EXPECT_EQ(notifyPathsThere(), 1);
}

TEST_F(PacketServerTraffic, oneClientGetsRecordedTraffic) {
    expectTrafficReaches(1);
}
TEST_F(PacketServerTraffic, twoClientsGetRecordedTraffic) {
    expectTrafficReaches(2);
}
TEST_F(PacketServerTraffic, eightClientsGetRecordedTraffic) {
    expectTrafficReaches(8);
}
TEST_F(PacketServerTraffic, thirtyTwoClientsGetRecordedTraffic) {
    expectTrafficReaches(32);
}

// Slow enough for the kernel's buffer: then nothing may be missing at all.
TEST_F(PacketServerTraffic, nothingIsMissingWhenNothingIsDropped) {
    Server server;
    Receiver first(server.port(), 0), second(server.port(), 5);
    WatchedSocket control(server.port(), WatchedSocket::control);
    const std::vector<std::string> sent = allRecordings();
    UdpPeer sender;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sender.send(sent[i], server.port());
        if (i % 50 == 49) awaitAll(control, i + 1);
    }
    EXPECT_EQ(awaitAll(control, sent.size()).kernelDropped, 0u);
    for (Receiver* receiver : {&first, &second}) receiver->enough();
    control.pingClients();
    for (Receiver* receiver : {&first, &second}) {
        const std::deque<std::string> wanted = receiver->mine.of(sent);
        const Report report = receiver->report();
        ASSERT_EQ(report.packets.size(), wanted.size());
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            ASSERT_EQ(report.packets[i].bytes, wanted[i]) << i;
            ASSERT_EQ(report.packets[i].sequence, i);
        }
        receiver->leave();
    }
}

TEST_F(PacketServerTraffic, stoppedClientCostsTheOthersNothingAndIsToldOfItsDrops) {
    Server server({"--queue", "256k", "--stats", "1"});
    Receiver living(server.port(), 0), sleeping(server.port(), 0);
    WatchedSocket control(server.port(), WatchedSocket::control);
    sleeping.process.signal(SIGSTOP);
    std::vector<std::string> sent;
    UdpPeer sender;
    for (int i = 0; i < 2000; ++i) {
        sent.push_back(pdu(1000, i));
        sender.send(sent.back(), server.port());
        if (i % 50 == 49) {  // no faster than the living one reads
            awaitAll(control, sent.size());
            ASSERT_TRUE(
                eventually([&] { return control.stateOf(living.id).queueUsedBytes < (256u << 10) / 2; }));
        }
    }
    living.enough();
    const Report all = living.report();
    expectHonest(all, living.mine, sent, control.stateOf(living.id), 0);
    EXPECT_EQ(all.packets.size(), sent.size());
    EXPECT_EQ(all.dropsTold, 0u);

    const NwCsCStateReturnRecord full = control.stateOf(sleeping.id);
    EXPECT_EQ(full.delivered + full.dropped, sent.size());
    EXPECT_NEAR(static_cast<double>(full.delivered), (256 << 10) / (1000 + 24), 2);  // as many as fit
    sleeping.process.signal(SIGCONT);
    // It is told, once there is room, without any further packet; and gets the next one again.
    EXPECT_TRUE(eventually([&] { return control.stateOf(sleeping.id).queueUsedBytes == 0; }));
    server.waitForEvents("statistics", server.countEvents("statistics") + 2);  // a tick passes
    sleeping.enough();
    const Report some = sleeping.report();
    expectHonest(some, sleeping.mine, sent, control.stateOf(sleeping.id), 0);
    EXPECT_EQ(some.dropsTold, full.dropped);
    living.leave();
    sleeping.leave();
}

// What the kernel says it dropped at the sockets of a port.
std::uint64_t kernelDropsAt(int port) {
    std::uint64_t total = 0;
    std::ifstream table("/proc/net/udp");
    std::string row;
    std::getline(table, row);
    while (std::getline(table, row)) {
        std::istringstream fields(row);  // "number: address:port ... drops"
        std::string local, drops;
        fields >> drops >> local;
        while (fields >> drops) {
        }
        if (std::stoi(local.substr(local.find(':') + 1), nullptr, 16) == port) total += std::stoull(drops);
    }
    return total;
}

// A server that is stopped for a while finds its port's buffer full, and the rest gone.
TEST_F(PacketServerTraffic, dropsAtThePortAreCountedExactly) {
    const std::size_t datagrams =
        30000;  // of at least 1024 bytes in the kernel: more than the 16 MiB it may grant
    Server server;
    WatchedSocket control(server.port(), WatchedSocket::control);
    control.settle();
    server.daemon().signal(SIGSTOP);
    UdpPeer sender;
    for (std::size_t i = 0; i < datagrams; ++i) sender.send(pdu(1000), server.port());
    server.daemon().signal(SIGCONT);
    const NwCsStateReturnRecord state = awaitAll(control, datagrams);
    EXPECT_GT(state.datagrams, 0u);
    EXPECT_GT(state.kernelDropped, 0u);
    EXPECT_EQ(state.kernelDropped, kernelDropsAt(server.port()));
    server.stop();
    EXPECT_EQ(server.lastEvent("statistics")["kernelDropped"], state.kernelDropped);
}

TEST_F(PacketServerTraffic, smallQueueDropsForItsClientAloneAndCountsHonestly) {
    Server server({"--queue", "256k"});
    WatchedSocket idle(server.port());  // never reads while packets come
    idle.settle();
    WatchedSocket control(server.port(), WatchedSocket::control);
    std::vector<std::string> sent;
    for (int i = 0; i < 3000; ++i) sent.push_back(pdu(144 + 8 * (i % 7), i));
    UdpPeer sender;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sender.send(sent[i], server.port());
        if (i % 100 == 99) awaitAll(control, i + 1);
    }
    const NwCsCStateReturnRecord before = control.stateOf(idle.id());
    EXPECT_GT(before.dropped, 1000u);
    EXPECT_EQ(before.delivered + before.dropped, sent.size());
    EXPECT_GE(before.queueHighWater, (256u << 10) * 63 / 64);

    Report report;
    const auto takeAll = [&] {
        WatchedSocket::Item item;
        while ((item = idle.next()).kind != WatchedSocket::Item::nothing)
            if (item.kind == WatchedSocket::Item::packet)
                report.packets.push_back(Got{item.header.sequence, item.bytes});
            else if (item.text.kind == NwCsKindWarning)
                report.dropsTold += NwCsWarningMsg(nullptr, &item.text).count();
    };
    takeAll();
    EXPECT_TRUE(eventually([&] {
        takeAll();
        return report.dropsTold != 0;
    }));
    EXPECT_EQ(report.dropsTold, before.dropped);
    sender.send(pdu(500), server.port());  // behind the gap
    EXPECT_TRUE(eventually([&] {
        takeAll();
        return report.packets.back().bytes == pdu(500);
    }));
    EXPECT_EQ(report.packets.back().sequence, sent.size());
    sent.push_back(pdu(500));
    expectHonest(report, Wishes(), sent, control.stateOf(idle.id()), 0);
}

// The largest datagram that there is fits the smallest queue that can be asked for.
TEST_F(PacketServerTraffic, largestDatagramFitsTheSmallestQueue) {
    theMaxPacketSize = 65535;
    Server server({"--queue", "256k"});
    WatchedSocket client(server.port());
    client.settle();
    const std::string largest = pdu(100, 0) + std::string(65507 - 100, '\0');
    ASSERT_EQ(apart(largest), (std::vector<std::string>{pdu(100), largest.substr(100)}));
    for (int i = 0; i < 20; ++i) {
        UdpPeer().send(largest, server.port());
        ASSERT_EQ(client.awaitPacket(), pdu(100));
        ASSERT_EQ(client.awaitPacket(), largest.substr(100));
    }
    client.setUnbundling(0);
    client.settle();
    for (int i = 0; i < 20; ++i) {
        UdpPeer().send(largest, server.port());
        ASSERT_EQ(client.awaitPacket(), largest);
    }
    EXPECT_EQ(client.stateOf(client.id()).dropped, 0u);
}

// Whatever a datagram is, somebody may want it.
TEST_F(PacketServerTraffic, anyDatagramIsSomebodys) {
    Server server;
    WatchedSocket client(server.port());
    client.settle();
    UdpPeer sender;
    for (const std::string& odd : {std::string("x"), std::string("\0\0\0", 3), std::string(12, '\xFF'),
                                   withLength(pdu(100), 5000), withLength(pdu(100), 0)}) {
        sender.send("", server.port());
        sender.send(odd, server.port());
        EXPECT_EQ(client.awaitPacket(), odd);
    }
    const NwCsStateReturnRecord state = client.serverState();
    EXPECT_EQ(state.datagrams, 10u);
    EXPECT_EQ(state.packets, 5u);
}

TEST_F(PacketServerTraffic, clientsThatForkKeepTheirQueueUntilTheLastOneIsGone) {
    Server server;
    ClientProcess parent([&](const Line& line) -> int {
        NwSocket::setQuietSockets(true);
        WatchedSocket socket(server.port());
        socket.settle();
        line.say(std::to_string(socket.id()));
        const pid_t child = ::fork();
        if (child == 0) {
            line.say(socket.awaitPacket());
            line.hear();
            ::_exit(0);
        }
        line.say(std::to_string(child));
        ::_exit(0);
    });
    const int id = std::atoi(parent.hear().c_str());
    const pid_t child = std::atoi(parent.hear().c_str());
    EXPECT_EQ(parent.finish(), 0);
    WatchedSocket control(server.port(), WatchedSocket::control);
    UdpPeer().send(pdu(100), server.port());
    EXPECT_EQ(parent.hear(), pdu(100));
    EXPECT_EQ(control.stateOf(id).delivered, 1u);
    ::kill(child, SIGKILL);
    EXPECT_TRUE(eventually([&] { return control.serverState().clients == 0; }));
    EXPECT_EQ(segmentsThere(), 1);
}

}  // namespace
