// SPDX-License-Identifier: BSD-3-Clause
// `cvnet relay` with raw peers as its clients: who gets what, who goes and why, what its user is told.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <numeric>
#include <sstream>

#include "cvnet_process.h"
#include "network.h"
#include "packets.h"
#include "tcp_peer.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

using Strings = std::vector<std::string>;

const char* const kTime = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]+ ";

Arguments relayArguments(const Arguments& further) {
    Arguments all = {"relay", "--port", "0"};
    all.insert(all.end(), further.begin(), further.end());
    return all;
}

// A relay on a port of its own.
class Relay : public CvnetProcess {
public:
    explicit Relay(const Arguments& further = {}, Where where = inPipes,
                   const std::function<void()>& beforeExec = nullptr)
        : CvnetProcess(relayArguments(further), where, beforeExec), myPort(listeningPort()) {}

    int port() const { return myPort; }
    // A client that the relay has accepted; it is the n-th that is connected.
    TcpPeer join(int n, int receiveBuffer = 0) {
        TcpPeer peer(myPort, kLoopback, receiveBuffer);
        EXPECT_TRUE(waitForOutput(address(peer) + " ")) << output() << errors();
        EXPECT_TRUE(waitForOutput(std::to_string(n) + " client")) << output() << errors();
        return peer;
    }
    static std::string address(const TcpPeer& peer) { return "127.0.0.1:" + std::to_string(peer.port()); }
    CvnetResult stop(int number = SIGTERM) {
        signal(number);
        return finish();
    }

private:
    int myPort;
};

std::string pattern(const TcpPeer& peer, const std::string& text) {
    return kTime + Relay::address(peer) + " +" + text;
}

// The first line of the output that names the peer and has these words.
std::string lineOf(const CvnetResult& result, int port, const std::string& words) {
    for (const std::string& line : linesOf(result.output)) {
        if (line.find(":" + std::to_string(port)) != std::string::npos &&
            line.find(words) != std::string::npos)
            return line;
    }
    ADD_FAILURE() << "no line with " << port << " and " << words << ":\n" << result.output;
    return "";
}

nlohmann::json eventFor(const std::vector<nlohmann::json>& lines, const std::string& event, int port) {
    for (const nlohmann::json& line : lines) {
        if (line.value("event", "") == event && line.value("port", 0) == port) return line;
    }
    ADD_FAILURE() << "no event " << event << " for port " << port;
    return nlohmann::json::object();
}

void expectError(const CvnetResult& result, int exitStatus, const std::string& words) {
    EXPECT_EQ(result.exitStatus, exitStatus) << result.errors;
    EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
    EXPECT_THAT(result.errors, AllOf(StartsWith("cvnet relay: "), HasSubstr(words)));
}

// The text of a file in /proc/<pid>.
std::string procText(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// How often the process has left a processor, and the time that it used, in clock ticks.
std::string activity(pid_t pid) {
    std::string result;
    for (const std::string& line : linesOf(procText(pid, "status"))) {
        if (line.find("ctxt_switches") != std::string::npos) result += line + "\n";
    }
    std::istringstream stat(procText(pid, "stat"));
    std::string column;
    for (int i = 1; i <= 15 && stat >> column; ++i) {
        if (i >= 14) result += column + " ";
    }
    return result;
}

// Clients that all read, together, and compare what comes with what has to.
class Crowd {
public:
    void add(TcpPeer peer) {
        myPeers.push_back(std::move(peer));
        myReceived.push_back(0);
    }
    // Reads until each has all of expected (since the beginning); false when patience ends or bytes differ.
    bool receive(const std::string& expected) {
        return eventually([&] { return take(expected); });
    }

private:
    bool take(const std::string& expected) {
        bool isComplete = true;
        for (std::size_t i = 0; i < myPeers.size(); ++i) {
            const std::string bytes = myPeers[i].receiveSome();
            if (expected.compare(myReceived[i], bytes.size(), bytes) != 0)
                ADD_FAILURE() << "client " << i << " got other bytes behind the first " << myReceived[i];
            myReceived[i] += bytes.size();
            isComplete = isComplete && myReceived[i] == expected.size();
        }
        return isComplete || testing::Test::HasFailure();
    }

    std::vector<TcpPeer> myPeers;
    std::vector<std::size_t> myReceived;
};

// Sends until the relay says that it drops packets for the client that does not read. Returns how many.
int sendUntilDropped(Relay& relay, TcpPeer& sender, const std::string& packet, const std::string& words) {
    int sent = 0;
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < 20; ++i) sender.sendAll(packet);
        sent += 20;
        sender.receiveSome();
        return relay.outputHas(words);
    }));
    return sent;
}

}  // namespace

TEST(Relay, sendsEveryPacketToEveryClientItsSenderIncluded) {
    Relay relay;
    TcpPeer a = relay.join(1), b = relay.join(2), c = relay.join(3);
    const std::string packets = pdu(144, 1) + pdu(12, 2) + pdu(2000, 3);
    a.sendAll(packets);
    for (TcpPeer* peer : {&a, &b, &c}) EXPECT_EQ(peer->receive(packets.size()), packets);
    c.sendBytes(pdu(40, 4));
    for (TcpPeer* peer : {&a, &b, &c}) EXPECT_EQ(peer->receive(40), pdu(40, 4));
}

TEST(Relay, logsWhoComesAndGoesAndEndsWithTotals) {
    for (const int number : {SIGTERM, SIGINT}) {
        Relay relay;
        TcpPeer a = relay.join(1), b = relay.join(2);
        const int portOfA = a.port(), portOfB = b.port();
        a.sendAll(pdu(144) + pdu(100));
        b.receive(244);
        a.receive(244);
        const std::string patternOfA =
            pattern(a,
                    "disconnected: closed by peer; in 2 packets, 244 bytes; out 2 packets, 244 bytes; "
                    "dropped 0; unsent 0; 1 client");
        const std::string patternOfB =
            pattern(b,
                    "disconnected: the relay ends; in 0 packets, 0 bytes; out 2 packets, 244 bytes; "
                    "dropped 0; unsent 0; 0 clients");
        const std::string connectionOfB = pattern(b, "connected; 2 clients");
        a.close();
        ASSERT_TRUE(relay.waitForOutput("closed by peer"));
        const CvnetResult result = relay.stop(number);
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(lineOf(result, portOfB, " connected"), MatchesRegex(connectionOfB));
        EXPECT_THAT(lineOf(result, portOfA, "disconnected"), MatchesRegex(patternOfA));
        EXPECT_THAT(lineOf(result, portOfB, "disconnected"), MatchesRegex(patternOfB));
        EXPECT_THAT(linesOf(result.output).front(),
                    MatchesRegex("listening on port [0-9]+ for up to 500 clients, lengths of 2 bytes at byte "
                                 "8, queues of 1000 packets"));
        EXPECT_THAT(result.output,
                    EndsWith("in 2 packets, 244 bytes; out 4 packets, 488 bytes; dropped 0\n"
                             "clients: 2, 2 at once; closed by peer: 1; read errors: 0; bad lengths: 0; send "
                             "errors: 0; no memory: 0; turned away: 0; unsent: 0\n"));
        b.receiveToEnd();
    }
}

TEST(Relay, saysWhyAConnectionEnded) {
    Relay relay;
    TcpPeer garbage = relay.join(1), reset = relay.join(2), cut = relay.join(3), stays = relay.join(4);
    const int portOfGarbage = garbage.port(), portOfReset = reset.port(), portOfCut = cut.port();
    garbage.sendAll(withLength(pdu(20), 9));
    ASSERT_TRUE(relay.waitForOutput("3 clients\n"));
    reset.reset();
    ASSERT_TRUE(relay.waitForOutput("2 clients\n"));
    cut.sendAll(pdu(100).substr(0, 60));
    cut.close();
    ASSERT_TRUE(relay.waitForOutput("closed by peer"));
    stays.sendAll(pdu(30));
    EXPECT_EQ(stays.receive(30), pdu(30)) << "the others are not disturbed, and nothing of the cut one came";
    const CvnetResult result = relay.stop();
    EXPECT_THAT(lineOf(result, portOfGarbage, "disconnected"), HasSubstr(": bad packet length 9; in 0 "));
    EXPECT_THAT(lineOf(result, portOfReset, "disconnected"),
                HasSubstr(": read error: Connection reset by peer; in 0 "));
    EXPECT_THAT(lineOf(result, portOfCut, "disconnected"), HasSubstr(": closed by peer; in 0 packets"));
    EXPECT_THAT(result.output,
                HasSubstr("closed by peer: 1; read errors: 1; bad lengths: 1; send errors: 0"));
}

TEST(Relay, printsJsonLines) {
    Relay relay({"--json", "--every", "0.01", "--queue", "7", "--max-clients", "2", "--bundle", "1400"});
    TcpPeer a(relay.port());
    const int portOfA = a.port();
    ASSERT_TRUE(relay.waitForOutput("\"clients\":1"));
    TcpPeer b(relay.port());
    ASSERT_TRUE(relay.waitForOutput("\"clients\":2"));
    TcpPeer tooMany(relay.port());
    const int portOfTooMany = tooMany.port();
    tooMany.receiveToEnd();
    a.sendAll(pdu(144));
    EXPECT_EQ(b.receive(144), pdu(144));
    ASSERT_TRUE(relay.waitForOutput("\"packetsIn\":1"));
    b.sendAll(withLength(pdu(20), 0));
    ASSERT_TRUE(relay.waitForOutput("badLength"));
    const int portOfB = b.port();
    const auto before = static_cast<double>(::time(nullptr)) - 100;
    const CvnetResult result = relay.stop();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const auto lines = jsonLines(result.output);

    const nlohmann::json listening = {{"event", "listening"}, {"port", relay.port()}, {"sizeOffset", 8},
                                      {"sizeLength", 2},      {"queue", 7},           {"maxClients", 2},
                                      {"bundle", 1400}};
    EXPECT_EQ(lines.front(), listening);
    const auto connected = eventFor(lines, "connected", portOfB);
    EXPECT_EQ(connected["address"], "127.0.0.1");
    EXPECT_EQ(connected["clients"], 2);
    EXPECT_GT(connected["time"], before);
    EXPECT_EQ(eventFor(lines, "turnedAway", portOfTooMany)["clients"], 2);
    const auto wentBad = eventFor(lines, "disconnected", portOfB);
    EXPECT_EQ(wentBad["reason"], "badLength");
    EXPECT_EQ(wentBad["detail"], "0");
    EXPECT_EQ(wentBad["packetsOut"], 1);
    EXPECT_EQ(wentBad["bytesOut"], 144);
    EXPECT_EQ(wentBad["clients"], 1);
    const auto ended = eventFor(lines, "disconnected", portOfA);
    EXPECT_EQ(ended["reason"], "relayEnds");
    EXPECT_EQ(ended["packetsIn"], 1);
    EXPECT_EQ(ended["bytesIn"], 144);
    EXPECT_EQ(ended["dropped"], 0);
    EXPECT_EQ(ended["unsent"], 0);

    nlohmann::json last;
    for (const auto& line : lines) {
        if (line["event"] == "table" && line["connections"].size() == 2) last = line;
    }
    ASSERT_EQ(last["connections"].size(), 2U) << result.output;
    EXPECT_EQ(last["connections"][0]["port"], portOfA);
    for (const char* field :
         {"seconds", "packetsIn", "bytesIn", "packetsOut", "bytesOut", "queue", "dropped"})
        EXPECT_TRUE(last["connections"][0][field].is_number()) << field;

    const auto totals = eventOf(lines, "totals");
    EXPECT_EQ(totals["packetsIn"], 1);
    EXPECT_EQ(totals["bytesIn"], 144);
    EXPECT_EQ(totals["packetsOut"], 2);
    EXPECT_EQ(totals["bytesOut"], 288);
    EXPECT_EQ(totals["clients"], 2);
    EXPECT_EQ(totals["mostClients"], 2);
    EXPECT_EQ(totals["turnedAway"], 1);
    EXPECT_EQ(totals["endings"]["badLength"], 1);
    EXPECT_EQ(totals["endings"]["relayEnds"], 1);
}

TEST(Relay, quietlyPrintsTheTotalsOnly) {
    for (const bool json : {false, true}) {
        Relay relay(json ? Arguments{"--quiet", "--json", "--every", "0.001"}
                         : Arguments{"--quiet", "--every", "0.001"});
        TcpPeer a(relay.port());
        a.sendAll(pdu(144));
        EXPECT_EQ(a.receive(144), pdu(144));
        const CvnetResult result = relay.stop();
        EXPECT_EQ(linesOf(result.output).size(), json ? 2U : 3U) << result.output;
    }
}

TEST(Relay, showsATableOnATerminal) {
    Relay relay({}, CvnetProcess::onTerminal);
    TcpPeer a(relay.port());
    const std::string address = "127.0.0.1:" + std::to_string(a.port());
    a.sendAll(pdu(144));
    EXPECT_EQ(a.receive(144), pdu(144));
    EXPECT_TRUE(relay.waitForOutput("1 client: 1 packet in, 1 out, 0 dropped")) << relay.output();
    EXPECT_TRUE(relay.waitForOutput("packets in    bytes in packets out  queue dropped")) << relay.output();
    const CvnetResult result = relay.stop(SIGINT);
    EXPECT_THAT(result.output, HasSubstr("\x1b["));
    EXPECT_THAT(result.output, HasSubstr(address + " "));
    EXPECT_THAT(result.output, HasSubstr("disconnected: the relay ends"));
}

TEST(Relay, printsTheTableInAPipeWhenAskedTo) {
    Relay relay({"--every", "0.001"});
    TcpPeer a = relay.join(1);
    a.sendAll(pdu(144));
    const std::string row = Relay::address(a) + " +0 s +1 +144 +1 +0 +0";
    EXPECT_EQ(a.receive(144), pdu(144));
    EXPECT_TRUE(relay.waitForOutput("1 client: 1 packet in, 1 out"));
    a.close();
    const CvnetResult result = relay.stop();
    EXPECT_THAT(linesOf(result.output), testing::Contains(MatchesRegex(row)));
    Relay without;
    TcpPeer b = without.join(1);
    b.sendAll(pdu(144));
    EXPECT_EQ(b.receive(144), pdu(144));
    EXPECT_THAT(without.stop().output, Not(HasSubstr("packets in ")));
}

TEST(Relay, takesTheLengthWhereItIsTold) {
    const struct {
        Arguments options;
        std::string packet;
    } table[] = {
        {{"--size-offset", "0", "--size-length", "1"}, std::string("\x06hello", 6)},
        {{"--size-offset", "3", "--size-length", "1"}, std::string("abc\x7F", 4) + std::string(123, 'x')},
        {{"--size-offset", "0"}, std::string("\x01\x00", 2) + std::string(254, 'x')},
        {{"--size-offset", "1", "--size-length", "4"},
         std::string("a\0\1\x11\x70", 5) + std::string(69995, 'x')},
    };
    for (const auto& row : table) {
        Relay relay(row.options);
        TcpPeer a = relay.join(1), b = relay.join(2);
        a.sendAll(row.packet + row.packet);
        EXPECT_TRUE(b.receive(2 * row.packet.size()) == row.packet + row.packet) << row.packet.size();
    }
}

TEST(Relay, turnsAwayWhoIsTooMuchAndTakesTheNextWhenThereIsRoom) {
    Relay relay({"--max-clients", "2"});
    TcpPeer a = relay.join(1), b = relay.join(2);
    TcpPeer tooMany(relay.port());
    const int port = tooMany.port();
    EXPECT_EQ(tooMany.receiveToEnd(), "");
    a.close();
    ASSERT_TRUE(relay.waitForOutput("disconnected"));
    TcpPeer next = relay.join(2);
    next.sendAll(pdu(50));
    EXPECT_EQ(b.receive(50), pdu(50));
    const CvnetResult result = relay.stop();
    EXPECT_THAT(lineOf(result, port, "turned away"), MatchesRegex(".*turned away: 2 clients connected"));
    EXPECT_THAT(result.output, HasSubstr("clients: 3, 2 at once; "));
    EXPECT_THAT(result.output, HasSubstr("turned away: 1"));
}

TEST(Relay, neverRunsOutOfDescriptors) {
    const auto limit = [](rlim_t soft, rlim_t hard) {
        return [soft, hard] {
            const rlimit descriptors = {soft, hard};
            ::setrlimit(RLIMIT_NOFILE, &descriptors);
        };
    };
    const CvnetResult refused =
        CvnetProcess({"relay", "--port", "0", "--max-clients", "50"}, CvnetProcess::inPipes, limit(40, 40))
            .finish();
    expectError(refused, 1, "--max-clients 50 needs 58 descriptors, and ");
    EXPECT_THAT(refused.errors, HasSubstr("are left (see ulimit -Hn): at most "));

    Relay relay({"--max-clients", "50"}, CvnetProcess::inPipes, limit(20, 70));  // the soft limit is raised
    std::vector<TcpPeer> peers;
    for (int i = 0; i < 200; ++i) peers.emplace_back(relay.port());
    ASSERT_TRUE(relay.waitForOutput("connected; 50 clients"));
    int turnedAway = 0;
    EXPECT_TRUE(eventually([&] {
        turnedAway = 0;
        for (TcpPeer& peer : peers) turnedAway += waitReadable(peer.fd(), 0) ? 1 : 0;
        return turnedAway == 150;
    })) << turnedAway;
    peers.front().sendAll(pdu(80));
    EXPECT_EQ(peers.front().receive(80), pdu(80)) << "those who are in are served";
    const CvnetResult result = relay.stop();
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output, HasSubstr("clients: 50, 50 at once"));
    EXPECT_THAT(result.output, HasSubstr("turned away: 150"));
}

TEST(Relay, dropsWholePacketsForAClientThatDoesNotRead) {
    Relay relay({"--queue", "10"});
    TcpPeer sender = relay.join(1), stalled = relay.join(2, 4096);
    const int port = stalled.port();
    const std::string packet = pdu(5000, 1);
    const int sent = sendUntilDropped(relay, sender, packet, "too slow: its queue is full; dropped 1 so far");
    // It reads again: everything that was not dropped comes, in whole packets.
    sender.sendAll(withLength(std::string(5000, 'z'), 5000));
    std::string received;
    EXPECT_TRUE(eventually([&] {
        received += stalled.receiveSome();
        sender.receiveSome();
        return received.size() >= 5000 * 10 && received.size() % 5000 == 0 && !waitReadable(stalled.fd(), 50);
    }));
    const Walk packets = walk(received);
    EXPECT_EQ(packets.rest, "");
    for (const std::string& one : packets.pdus) EXPECT_EQ(one.size(), 5000U);
    stalled.close();
    ASSERT_TRUE(relay.waitForOutput("disconnected"));
    const CvnetResult result = relay.stop();
    const std::size_t dropped = static_cast<std::size_t>(sent) + 1 - packets.pdus.size();
    EXPECT_THAT(lineOf(result, port, "disconnected"),
                HasSubstr("; out " + std::to_string(packets.pdus.size()) + " packets, " +
                          std::to_string(received.size()) + " bytes; dropped " + std::to_string(dropped) +
                          "; unsent 0; 1 client"));
    EXPECT_THAT(linesOf(result.output).back(), EndsWith("unsent: 0"));
    EXPECT_THAT(result.output, HasSubstr("dropped " + std::to_string(dropped) + "\n"))
        << "none for the sender";
}

TEST(Relay, countsWhatAConnectionLosesWithItsQueue) {
    Relay relay({"--queue", "10", "--json"});
    TcpPeer sender(relay.port());
    ASSERT_TRUE(relay.waitForOutput("\"clients\":1"));
    auto stalled = std::make_unique<TcpPeer>(relay.port(), kLoopback, 4096);
    const int port = stalled->port();
    ASSERT_TRUE(relay.waitForOutput("\"clients\":2"));
    sendUntilDropped(relay, sender, pdu(5000), "\"event\":\"drops\"");
    stalled->close();
    ASSERT_TRUE(relay.waitForOutput("\"disconnected\""));
    const CvnetResult result = relay.stop();
    const auto lines = jsonLines(result.output);
    EXPECT_EQ(eventFor(lines, "drops", port)["queue"], 10);
    EXPECT_EQ(eventFor(lines, "drops", port)["dropped"], 1);
    const auto gone = eventFor(lines, "disconnected", port);
    EXPECT_EQ(gone["unsent"], 10);
    EXPECT_GE(gone["dropped"], 1);
    EXPECT_EQ(eventOf(lines, "totals")["unsent"], 10);
    EXPECT_EQ(eventOf(lines, "totals")["dropped"], gone["dropped"]);
}

TEST(Relay, twoHundredClientsLoseNothingWhileOneStallsAndOneSendsGarbage) {
    Relay relay({"--queue", "100"});
    TcpPeer sender = relay.join(1), stalled = relay.join(2, 4096);
    sendUntilDropped(relay, sender, pdu(5000), "too slow");  // and it stays so
    // What is under way from here goes to whoever has come by then: the crowd comes when all of it is
    // through.
    sender.sendAll(pdu(60, 99));
    std::string returned;
    ASSERT_TRUE(eventually([&] {
        returned += sender.receiveSome();
        return returned.size() >= 60 && returned.compare(returned.size() - 60, 60, pdu(60, 99)) == 0;
    }));
    Crowd crowd;
    for (int i = 0; i < 197; ++i) crowd.add(TcpPeer(relay.port()));
    TcpPeer garbage(relay.port());
    ASSERT_TRUE(relay.waitForOutput("connected; 200 clients"));
    std::string expected;
    for (int step = 0; step < 20; ++step) {
        std::string packets;
        for (int i = 0; i < 50; ++i) packets += pdu(200, step * 50 + i);
        if (step == 5) garbage.sendAll(std::string(500, '\0'));
        sender.sendAll(packets);
        sender.receiveSome();
        expected += packets;
        ASSERT_TRUE(crowd.receive(expected)) << "step " << step;
    }
    const int portOfSender = sender.port(), portOfStalled = stalled.port(), portOfGarbage = garbage.port();
    const CvnetResult result = relay.stop();
    EXPECT_THAT(lineOf(result, portOfGarbage, "disconnected"), HasSubstr("bad packet length 0"));
    EXPECT_THAT(lineOf(result, portOfStalled, "disconnected"), Not(HasSubstr("dropped 0")));
    EXPECT_THAT(lineOf(result, portOfSender, "disconnected"), HasSubstr("dropped 0"));
    int lossless = 0;
    for (const std::string& line : linesOf(result.output)) {
        if (line.find("out 1000 packets, 200000 bytes; dropped 0; unsent 0") != std::string::npos) ++lossless;
    }
    EXPECT_EQ(lossless, 197);
}

TEST(Relay, busyClientsAreServedInTurn) {
    Relay relay({"--queue", "1000"});
    TcpPeer reader = relay.join(1);
    std::vector<TcpPeer> busy;
    std::vector<std::string> unsent;
    const int clients = 10;
    for (int i = 0; i < clients; ++i) busy.push_back(relay.join(i + 2));
    // Each always has more to send than the relay has taken; none of them reads.
    std::vector<int> seen(clients, 0);
    std::string rest;
    unsent.resize(clients);
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < clients; ++i) {
            std::string& bytes = unsent[static_cast<std::size_t>(i)];
            while (bytes.size() < 1000000) bytes += pdu(1000, i, 7, i);
            bytes.erase(0, busy[static_cast<std::size_t>(i)].sendSome(bytes));
        }
        const Walk packets = walk(rest + reader.receiveSome());
        rest = packets.rest;
        for (const std::string& packet : packets.pdus) ++seen[static_cast<std::size_t>(packet[1])];
        return std::accumulate(seen.begin(), seen.end(), 0) >= 5000;
    }));
    EXPECT_THAT(seen, testing::Each(testing::Ge(50))) << "a fair share is 500";
}

TEST(Relay, losesNothingInBundles) {
    Relay relay({"--bundle", "4000", "--queue", "1000000"});
    TcpPeer a = relay.join(1), b = relay.join(2), sleeper = relay.join(3, 4096);
    std::string fromA, fromB, expected;
    std::vector<std::string> received(2);
    for (int i = 0; i < 3000; ++i) {
        const std::string small = pdu(1000 + i % 50, i, 7, 1);
        const std::string large = pdu(i % 100 == 0 ? 5000 : 500, i, 7, 2);
        a.sendAll(small);
        b.sendAll(large);
        fromA += small;
        fromB += large;
        received[0] += a.receiveSome();
        received[1] += b.receiveSome();
    }
    const std::size_t total = fromA.size() + fromB.size();
    received[0] += a.receive(total - received[0].size());
    received[1] += b.receive(total - received[1].size());
    received.push_back(sleeper.receive(total));  // all the time its bundles could not leave
    for (const std::string& stream : received) {
        const Walk packets = walk(stream);
        EXPECT_EQ(packets.rest, "");
        std::string ofA, ofB;
        for (const std::string& one : packets.pdus) (one[1] == 1 ? ofA : ofB) += one;
        EXPECT_TRUE(ofA == fromA) << "each sender's packets, all, in order";
        EXPECT_TRUE(ofB == fromB);
    }
    const CvnetResult result = relay.stop();
    EXPECT_THAT(result.output, HasSubstr("; out 18000 packets, "));
    EXPECT_THAT(result.output, HasSubstr("queues of 1000000 bundles of up to 4000 bytes"));
    EXPECT_THAT(result.output, HasSubstr("dropped 0\n"));
}

TEST(Relay, bundlesWhatIsAtHand) {
    Relay relay({"--bundle", "60000"});
    TcpPeer a = relay.join(1), b = relay.join(2);
    relay.signal(SIGSTOP);
    std::string packets;
    for (int i = 0; i < 100; ++i) packets += pdu(100, i);
    a.sendAll(packets);
    relay.signal(SIGCONT);
    EXPECT_EQ(b.receive(packets.size()), packets);
    EXPECT_EQ(a.receive(packets.size()), packets);
}

TEST(Relay, dropsAreCountedWithBundlesToo) {
    Relay relay({"--queue", "5", "--bundle", "12000"});
    TcpPeer sender = relay.join(1), stalled = relay.join(2, 4096);
    const std::string packet = pdu(5000, 1);
    const int sent = sendUntilDropped(relay, sender, packet, "too slow");
    std::string received;
    EXPECT_TRUE(eventually([&] {
        received += stalled.receiveSome();
        return !received.empty() && received.size() % 5000 == 0 && !waitReadable(stalled.fd(), 100);
    }));
    EXPECT_EQ(walk(received).rest, "");
    const CvnetResult result = relay.stop();
    const std::string dropped = std::to_string(static_cast<std::size_t>(sent) - received.size() / 5000);
    EXPECT_THAT(lineOf(result, stalled.port(), "disconnected"),
                HasSubstr("; dropped " + dropped + "; unsent 0"));
}

TEST(Relay, usesNoProcessorTimeWhileIdle) {
    for (const CvnetProcess::Where where : {CvnetProcess::inPipes, CvnetProcess::onTerminal}) {
        Relay relay({"--queue", "10", "--every", "0.01"}, where);
        TcpPeer a(relay.port()), stalled(relay.port(), kLoopback, 4096);
        ASSERT_TRUE(relay.waitForOutput("connected; 2 clients"));
        sendUntilDropped(relay, a, pdu(5000), "too slow");
        // Once everything has been passed on and shown, not a single wake-up: with a full queue, too.
        std::string before;
        EXPECT_TRUE(eventually([&] {
            a.receiveSome();
            relay.outputHas("");
            before = activity(relay.pid());
            ::usleep(300000);
            return activity(relay.pid()) == before;
        })) << before
            << activity(relay.pid());
        ASSERT_THAT(before, HasSubstr("voluntary_ctxt_switches"));
    }
}

TEST(Relay, aStalledReaderOfItsOutputHoldsNoClientUp) {
    Relay relay({"--json", "--every", "0"});
    // Far more lines than a pipe takes, and nobody reads them.
    for (int i = 0; i < 1000; ++i) {
        TcpPeer client(relay.port());
        client.sendAll(pdu(40, i));
        ASSERT_EQ(client.receive(40), pdu(40, i));
    }
    TcpPeer last(relay.port());
    last.sendAll(pdu(60));
    EXPECT_EQ(last.receive(60), pdu(60));
    const CvnetResult result = relay.stop();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(eventOf(jsonLines(result.output), "totals")["clients"], 1001) << "once it reads, it gets all";
    EXPECT_EQ(result.errors, "");
}

TEST(Relay, outputThatNobodyTakesIsDroppedBeyondAMegabyte) {
    Relay relay({"--json", "--every", "0"});
    const int clients = 4000;  // two lines each, of more than 350 bytes together
    for (int i = 0; i < clients; ++i) {
        TcpPeer client(relay.port());
        client.sendAll(pdu(40, i));
        ASSERT_EQ(client.receive(40), pdu(40, i));
    }
    const CvnetResult result = relay.stop();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, MatchesRegex("cvnet relay: warning: [0-9]+ lines of output dropped, as nobody "
                                            "took them\n"));
    EXPECT_LT(result.output.size(), 1200000U);
    EXPECT_EQ(eventOf(jsonLines(result.output), "totals")["clients"], clients);
}

TEST(Relay, endsWhenTheReaderOfItsOutputGoes) {
    Relay relay;
    relay.closeOutput();
    const CvnetResult result = relay.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
}

TEST(Relay, portInUseIsOneLine) {
    Relay relay;
    const CvnetResult second = cvnet({"relay", "--port", std::to_string(relay.port())});
    expectError(second, 1,
                "cannot listen on port " + std::to_string(relay.port()) +
                    ": Address already in use, it is open in process " + std::to_string(relay.pid()) +
                    " (cvnet)");
    TcpListener other;
    expectError(cvnet({"relay", "--port", std::to_string(other.port())}), 1, ": Address already in use");
}

TEST(Relay, aPortIsFreeAgainAtOnce) {
    auto first = std::make_unique<Relay>();
    TcpPeer client = first->join(1);
    const std::string port = std::to_string(first->port());
    EXPECT_EQ(first->stop().exitStatus, 0);  // closed from this side: the kernel remembers the connection
    CvnetProcess second({"relay", "--port", port});
    EXPECT_EQ(std::to_string(second.listeningPort()), port) << second.errors();
}

TEST(Relay, optionsThatMakeNoSenseAreRefused) {
    const struct {
        Arguments arguments;
        const char* words;
    } table[] = {
        {{"--port", "65536"}, "--port"},
        {{"--port", "-1"}, "--port"},
        {{"--size-length", "3"}, "--size-length"},
        {{"--size-length", "0"}, "--size-length"},
        {{"--size-offset", "-1"}, "--size-offset"},
        {{"--size-offset", "126", "--size-length", "1"}, "says 127 at most, so no packet reaches that far"},
        {{"--size-offset", "65533"}, "says 65535 at most"},
        {{"--queue", "0"}, "--queue"},
        {{"--queue", "many"}, "--queue"},
        {{"--max-clients", "0"}, "--max-clients"},
        {{"--bundle", "-5"}, "--bundle"},
        {{"--bundle", "65508"}, "--bundle"},
        {{"--every", "-1"}, "--every"},
        {{"--every", "nan"}, "--every"},
        {{"--to", "127.0.0.1"}, "--to"},
    };
    for (const auto& row : table) {
        Arguments all = {"relay"};
        all.insert(all.end(), row.arguments.begin(), row.arguments.end());
        expectError(cvnet(all), 2, row.words);
    }
}

TEST(Relay, helpTellsItsOptions) {
    const CvnetResult help = cvnet({"relay", "--help"});
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* option : {"--port", "--size-offset", "--size-length", "--queue", "--max-clients",
                               "--bundle", "--every", "--json", "--quiet", "Examples:"})
        EXPECT_THAT(help.output, HasSubstr(option));
    EXPECT_THAT(cvnet({"--help"}).output, HasSubstr("relay"));
}
