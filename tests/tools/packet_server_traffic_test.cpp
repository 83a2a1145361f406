// SPDX-License-Identifier: BSD-3-Clause
// `cvnet recv` and `cvnet send` with --server and --auto: which packets they get and send, what they say of
// the server, and how they end.
#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "captures.h"
#include "network.h"
#include "packet_server_host.h"
#include "packets.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace {

const NwIpv4Addr kGroup = 0xEF010203;  // 239.1.2.3

using Strings = std::vector<std::string>;

Arguments operator+(Arguments first, const Arguments& further) {
    first.insert(first.end(), further.begin(), further.end());
    return first;
}

// The UDP payloads of a capture that cvnet wrote: raw IPv4 without options.
Strings payloadsIn(const std::string& path) {
    const std::string bytes = readFile(path);
    Strings payloads;
    for (std::size_t at = 24; at + 16 <= bytes.size();) {
        std::uint32_t length = 0;
        std::memcpy(&length, bytes.data() + at + 8, sizeof length);
        payloads.push_back(bytes.substr(at + 16 + 28, length - 28));
        at += 16 + length;
    }
    return payloads;
}

class PacketServerTraffic : public PacketServerHost {
protected:
    static nlohmann::json totalsOf(const CvnetResult& result) {
        return eventOf(jsonLines(result.output), "totals");
    }
    std::string capture(const Strings& datagrams) {
        const std::string path = myDirectory.path("capture");
        writeFile(path, datagramsFile(datagrams));
        return path;
    }
    // What a peer got by now.
    static Strings datagramsOf(UdpPeer& peer) {
        Strings all;
        while (!peer.isEmpty()) all.push_back(peer.receive());
        return all;
    }
    // A line of the client of that process in the server's list.
    static nlohmann::json clientOf(const Server& server, pid_t pid) {
        for (const auto& line : jsonLines(cvnetAt(server, {"server", "clients", "--json"}).output))
            if (line["pid"] == pid) return line;
        return nlohmann::json::object();
    }

    TestDirectory myDirectory;
    UdpPeer myPeer;
};

}  // namespace

// --- recv --server ---------------------------------------------------------------------------------------

TEST_F(PacketServerTraffic, eachReceiverGetsExactlyWhatItsFiltersLetThrough) {
    OrderlyServer server;
    const struct {
        Arguments filter;
        std::function<bool(int type, int exercise)> passes;
    } table[] = {
        {{}, [](int, int) { return true; }},
        {{"--type", "1,3"}, [](int type, int) { return type == 1 || type == 3; }},
        {{"--type", "!1", "--exercise", "2"},
         [](int type, int exercise) { return type != 1 && exercise == 2; }},
        {{"--from", "!127.0.0.1"}, [](int, int) { return false; }},
        {{"--version", "6,7"}, [](int, int) { return true; }},
    };
    std::vector<std::unique_ptr<CvnetProcess>> receivers;
    for (const auto& row : table) {
        const std::string file = myDirectory.path(std::to_string(receivers.size()));
        receivers.push_back(std::make_unique<CvnetProcess>(
            at(server, Arguments{"recv", "--server", "--json", "--quiet", "--write", file} + row.filter)));
        receivers.back()->listeningPort();
    }
    std::vector<Strings> expected(receivers.size());
    std::vector<int> refused(receivers.size());
    for (int i = 0; i < 60; ++i) {
        const int type = i % 4;
        const int exercise = 1 + i % 3;
        const std::string packet = pdu(100 + i, i, 7, exercise, type);
        myPeer.send(packet, server.port());
        for (std::size_t r = 0; r < receivers.size(); ++r) {
            if (table[r].passes(type, exercise))
                expected[r].push_back(packet);
            else
                ++refused[r];
        }
    }
    EXPECT_TRUE(eventually([&] { return answer(server, {"status"})["packets"] == 60; }));
    for (std::size_t r = 0; r < receivers.size(); ++r) {
        receivers[r]->signal(SIGINT);
        const CvnetResult result = receivers[r]->finish();
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_THAT(payloadsIn(myDirectory.path(std::to_string(r))), ElementsAreArray(expected[r]));
        const auto totals = totalsOf(result);
        EXPECT_EQ(totals["pdus"], expected[r].size());
        EXPECT_EQ(totals["refused"], refused[r]);
        EXPECT_EQ(totals["clientDropped"], 0);
        EXPECT_TRUE(totals["datagrams"].is_null());
        EXPECT_TRUE(totals["kernelDrops"].is_null());
    }
}

TEST_F(PacketServerTraffic, recordedTrafficArrivesWholeAndInOrder) {
    OrderlyServer server;
    const std::string name = "real-dis7-bundled-patrol.pcap";
    Strings all, attributes;
    for (const std::string& datagram : recorded(name)) {
        for (const std::string& packet : walk(datagram).pdus) {
            all.push_back(packet);
            if (packet[2] == 72) attributes.push_back(packet);
        }
    }
    ASSERT_FALSE(attributes.empty());
    CvnetProcess every(at(server, {"recv", "--server", "--quiet", "--write", myDirectory.path("all"),
                                   "--count", std::to_string(all.size())}));
    CvnetProcess some(at(server, {"recv", "--server", "--quiet", "--write", myDirectory.path("some"),
                                  "--type", "Attribute", "--count", std::to_string(attributes.size())}));
    every.listeningPort();
    some.listeningPort();
    const CvnetResult sent =
        cvnet(at(server, {"send", "--server", "--rate", "4000", "--bundle", "1400", "--to", "127.0.0.1",
                          "--pcap", std::string(CVNC_TEST_DATA "/dis/") + name}));
    EXPECT_EQ(sent.exitStatus, 0) << sent.errors;
    EXPECT_EQ(every.finish().exitStatus, 0);
    EXPECT_EQ(some.finish().exitStatus, 0);
    EXPECT_THAT(payloadsIn(myDirectory.path("all")), ElementsAreArray(all));
    EXPECT_THAT(payloadsIn(myDirectory.path("some")), ElementsAreArray(attributes));
}

TEST_F(PacketServerTraffic, nothingComesThatTheFiltersRefuseEvenWhileItStarts) {
    OrderlyServer server;
    std::atomic<bool> isOver{false};
    std::thread flood([&] {
        for (int i = 0; !isOver; ++i) {
            myPeer.send(pdu(50, i, 7, 1, 1 + i % 2), server.port());
            if (i % 20 == 0) ::usleep(1000);
        }
    });
    for (int round = 0; round < 5; ++round) {
        const CvnetResult result =
            cvnetAt(server, {"recv", "--server", "--json", "--type", "2", "--count", "50"});
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        for (const auto& line : jsonLines(result.output)) {
            if (line["event"] == "pdu") {
                EXPECT_EQ(line["type"], 2);
            }
        }
        EXPECT_EQ(jsonLines(result.output).front()["event"], "listening");
    }
    isOver = true;
    flood.join();
}

TEST_F(PacketServerTraffic, receiverShowsPacketsAndTotals) {
    OrderlyServer server;
    CvnetProcess receiver(at(server, {"recv", "--server", "--type", "!2", "--count", "2"}));
    EXPECT_EQ(receiver.listeningPort(), server.port());
    myPeer.send(pdu(144, 1, 7, 3, 1) + pdu(96, 2, 7, 3, 2), server.port());
    myPeer.send(withLength(pdu(50, 3, 7, 3, 27), 60), server.port());
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
    const Strings lines = linesOf(result.output);
    ASSERT_EQ(lines.size(), 5U) << result.output;
    EXPECT_EQ(lines[0],
              "listening on port " + std::to_string(server.port()) + " as client 1 of its packet server");
    EXPECT_THAT(
        lines[1],
        MatchesRegex("[0-9:.]+ 127\\.0\\.0\\.1 +DIS 7 exercise 3 +Entity State \\(1\\) +144 bytes.*"));
    EXPECT_THAT(lines[2], HasSubstr("CUT: its length field says 60"));
    EXPECT_THAT(
        lines[3],
        MatchesRegex("received 1 PDU and 1 packet that is no whole PDU, 194 bytes from 1 source in .*"));
    EXPECT_EQ(lines[4], "refused by filters: 1; undivided rests: 0; cut: 1; dropped for this client: 0");
}

TEST_F(PacketServerTraffic, receiverTakesDatagramsWholeWhenAsked) {
    OrderlyServer server;
    CvnetProcess receiver(
        at(server, {"recv", "--server", "--no-unbundle", "--json", "--type", "1", "--count", "1"}));
    receiver.listeningPort();
    myPeer.send(pdu(60, 1, 7, 1, 2) + pdu(60, 2, 7, 1, 1), server.port());
    myPeer.send(pdu(60, 3, 7, 1, 1) + pdu(70, 4, 7, 1, 2), server.port());
    const auto packet = eventOf(jsonLines(receiver.finish().output), "pdu");
    EXPECT_EQ(packet["length"], 130) << "filtered by its first packet";
    EXPECT_EQ(packet["odd"], "undivided");
}

TEST_F(PacketServerTraffic, aServerThatTakesNothingApartGivesDatagramsWhole) {
    OrderlyServer server({"--no-unbundle"});
    CvnetProcess receiver(at(server, {"recv", "--server", "--json", "--count", "1"}));
    receiver.listeningPort();
    myPeer.send(pdu(60, 3) + pdu(70, 4), server.port());
    const auto packet = eventOf(jsonLines(receiver.finish().output), "pdu");
    EXPECT_EQ(packet["length"], 130);
    EXPECT_EQ(packet["odd"], "undivided");
}

TEST_F(PacketServerTraffic, groupsAreJoinedByTheServer) {
    run("ip link set lo multicast on");
    OrderlyServer server({"--interface", "lo"});
    {
        CvnetProcess receiver(at(server, {"recv", "--server", "--json", "--group", "239.1.2.3,239.1.2.4"}));
        receiver.listeningPort();
        EXPECT_THAT(groupsJoinedOn("lo"), ElementsAre(kGroup, kGroup + 1));
        EXPECT_THAT(eventOf(jsonLines(receiver.output()), "listening")["groups"],
                    ElementsAre("239.1.2.3", "239.1.2.4"));
        receiver.signal(SIGTERM);
        EXPECT_EQ(receiver.finish().exitStatus, 0);
    }
    EXPECT_TRUE(eventually([] { return groupsJoinedOn("lo").empty(); }));
}

TEST_F(PacketServerTraffic, aGroupThatTheServerCannotJoinIsAFailure) {
    OrderlyServer server({"--interface", "10.77.0.1"});
    expectError(cvnetAt(server, {"recv", "--server", "--group", "239.1.2.3"}), 1,
                "cvnet recv: the packet server refuses: cannot join 239.1.2.3: No such device");
}

TEST_F(PacketServerTraffic, signalsEndAReceiverWithTotalsAndLeaveNothing) {
    OrderlyServer server;
    for (const int number : {SIGINT, SIGTERM}) {
        CvnetProcess receiver(at(server, {"recv", "--server"}));
        receiver.listeningPort();
        EXPECT_NE(leftovers(), "") << "a client has a segment, a set and a path";
        receiver.signal(number);
        const CvnetResult result = receiver.finish();
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, HasSubstr("received 0 PDUs"));
        EXPECT_TRUE(eventually([] { return leftovers().empty(); })) << leftovers();
    }
    EXPECT_EQ(server.countEvents("detached"), 2);
}

TEST_F(PacketServerTraffic, anOrderlyStopOfTheServerIsAGoodEnd) {
    OrderlyServer server;
    CvnetProcess plain(at(server, {"recv", "--server"}));
    CvnetProcess json(at(server, {"recv", "--server", "--json"}));
    plain.listeningPort();
    json.listeningPort();
    myPeer.send(pdu(144), server.port());
    EXPECT_TRUE(plain.waitForOutput("Entity State"));
    EXPECT_TRUE(json.waitForOutput("Entity State"));
    server.stop();
    const std::string line =
        "cvnet recv: the packet server of port " + std::to_string(server.port()) + " has stopped";
    const CvnetResult plainEnd = plain.finish();
    expectError(plainEnd, 0, line);
    EXPECT_THAT(plainEnd.output, HasSubstr("received 1 PDU, 144 bytes"));
    EXPECT_THAT(plainEnd.output, Not(HasSubstr("refused"))) << "the server cannot tell any more";
    const CvnetResult jsonEnd = json.finish();
    expectError(jsonEnd, 0, line);
    EXPECT_EQ(totalsOf(jsonEnd)["pdus"], 1);
    EXPECT_TRUE(totalsOf(jsonEnd)["refused"].is_null());
}

TEST_F(PacketServerTraffic, aKilledServerIsOneLineBehindTheTotals) {
    Server server;
    CvnetProcess receiver(at(server, {"recv", "--server"}));
    receiver.listeningPort();
    myPeer.send(pdu(144), server.port());
    EXPECT_TRUE(receiver.waitForOutput("Entity State"));
    server.kill();
    const CvnetResult result = receiver.finish();
    expectError(result, 1,
                "cvnet recv: the packet server of port " + std::to_string(server.port()) + " is gone");
    EXPECT_THAT(result.output, HasSubstr("received 1 PDU, 144 bytes"));
    EXPECT_EQ(leftovers(), "") << "the last one out has cleaned up";
}

TEST_F(PacketServerTraffic, noServerNoPlaceAndNoAnswerAreOneLineEach) {
    OrderlyServer server({"--clients", "1"});
    const std::string port = std::to_string(server.port());
    const std::string cannot = "cannot attach to the packet server of port " + port + ": ";
    const Arguments send = {"send", "--server", "--to", "127.0.0.1", "--pcap", capture({pdu(20)})};
    {
        CvnetProcess first(at(server, {"recv", "--server"}));
        first.listeningPort();
        const std::string full = cannot + "it has no place left for a client";
        expectError(cvnetAt(server, {"recv", "--server"}), 1, "cvnet recv: " + full);
        expectError(cvnetAt(server, {"recv", "--auto"}), 1, "cvnet recv: " + full);
        expectError(cvnetAt(server, send), 1, "cvnet send: " + full);
    }
    EXPECT_TRUE(eventually([] { return leftovers().empty(); })) << leftovers();
    server.daemon().signal(SIGSTOP);
    CvnetProcess receiver(at(server, {"recv", "--server"}));
    CvnetProcess sender(at(server, send));
    CvnetProcess interrupted(at(server, {"recv", "--server"}));
    EXPECT_TRUE(eventually([] { return notifyPathsThere() == 3; })) << "they wait for an answer";
    interrupted.signal(SIGINT);
    expectError(interrupted.finish(), 1, "cvnet recv: interrupted");
    expectError(receiver.finish(), 1, "cvnet recv: " + cannot + "it does not answer");
    expectError(sender.finish(), 1, "cvnet send: " + cannot + "it does not answer");
    server.daemon().signal(SIGCONT);
    server.stop();
    const std::string none = "no packet server serves port " + port + " on this host";
    expectError(cvnetAt(server, {"recv", "--server"}), 1, "cvnet recv: " + none);
    expectError(cvnetAt(server, send), 1, "cvnet send: " + none);
}

TEST_F(PacketServerTraffic, aServerThatFallsSilentIsNoEnd) {
    OrderlyServer server;
    CvnetProcess receiver(at(server, {"recv", "--server"}));
    receiver.listeningPort();
    server.daemon().signal(SIGSTOP);
    receiver.signal(SIGINT);
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output, AllOf(HasSubstr("received 0 PDUs"), Not(HasSubstr("refused"))));
    server.daemon().signal(SIGCONT);
}

TEST_F(PacketServerTraffic, whatDoesNotFitTheQueueIsCounted) {
    OrderlyServer server({"--queue", "256k"});
    CvnetProcess receiver(at(server, {"recv", "--server", "--json", "--quiet"}));
    receiver.listeningPort();
    receiver.signal(SIGSTOP);
    const int sent = 1000;
    for (int i = 0; i < sent; ++i) {
        myPeer.send(pdu(1400, i), server.port());
        if (i % 50 == 49) {
            EXPECT_TRUE(eventually([&] { return answer(server, {"status"})["datagrams"] == i + 1; }));
        }
    }
    receiver.signal(SIGCONT);
    EXPECT_TRUE(receiver.waitForError("cvnet recv: warning: the queue was full: "));
    receiver.signal(SIGINT);
    const auto totals = totalsOf(receiver.finish());
    EXPECT_GT(totals["clientDropped"], 0);
    EXPECT_EQ(totals["pdus"].get<int>() + totals["clientDropped"].get<int>(), sent);
}

TEST_F(PacketServerTraffic, optionsThatMakeNoSenseAreRefused) {
    const Arguments recv = {"recv", "--server"};
    const Arguments send = {"send", "--synthetic", "1", "--server"};
    const struct {
        Arguments arguments;
        const char* words;
    } table[] = {
        {recv + Arguments{"--auto"}, "excludes"},
        {recv + Arguments{"--tcp", "127.0.0.1:3000"}, "excludes"},
        {recv + Arguments{"--async"}, "excludes"},
        {recv + Arguments{"--bind", "127.0.0.1"}, "excludes"},
        {recv + Arguments{"--interface", "lo"}, "excludes"},
        {recv + Arguments{"--no-header-test"}, "excludes"},
        {recv + Arguments{"--rcvbuf", "9000"}, "excludes"},
        {recv + Arguments{"--port", "0"}, "--server: --port says which server, and none has port 0"},
        {recv + Arguments{"--group", "10.0.0.1"}, "is no multicast address"},
        {{"recv", "--auto", "--rcvbuf", "9000"}, "excludes"},
        {{"recv", "--no-unbundle"}, "--no-unbundle goes with --server or --auto"},
        {{"recv", "--run-dir", "/tmp"}, "--run-dir goes with --server or --auto"},
        {send + Arguments{"--auto"}, "excludes"},
        {send + Arguments{"--async"}, "excludes"},
        {send + Arguments{"--sites", "127.0.0.1"}, "excludes"},
        {send + Arguments{"--tcp", "127.0.0.1:3000"}, "excludes"},
        {send + Arguments{"--interface", "lo"}, "excludes"},
        {send + Arguments{"--retry", "3"}, "excludes"},
        {send + Arguments{"--to", "127.0.0.1", "--ttl", "3"}, "--ttl counts for multicast groups only"},
        {{"send", "--synthetic", "1", "--run-dir", "/tmp"}, "--run-dir goes with --server or --auto"},
    };
    for (const auto& row : table) {
        const CvnetResult result = cvnet(row.arguments);
        EXPECT_EQ(result.exitStatus, 2) << result.output;
        EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(row.words));
    }
}

// --- send --server ---------------------------------------------------------------------------------------

TEST_F(PacketServerTraffic, senderSendsWhereItIsToldAndBundles) {
    OrderlyServer server;
    UdpPeer peer(kLoopback + 1, server.port(), true);
    const std::string rest(7, 'r');
    const CvnetResult result =
        cvnet(at(server, {"send", "--server", "--fast", "--json", "--to", "127.0.0.2", "--bundle", "1400",
                          "--pcap", capture({pdu(100, 1) + pdu(100, 2), pdu(100, 3) + rest, pdu(100, 4)})}));
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(datagramsOf(peer), ElementsAre(pdu(100, 1) + pdu(100, 2) + pdu(100, 3), rest, pdu(100, 4)));
    const auto lines = jsonLines(result.output);
    EXPECT_EQ(eventOf(lines, "sending")["client"], 1);
    EXPECT_EQ(eventOf(lines, "sending")["internal"], false);
    EXPECT_EQ(eventOf(lines, "totals")["pdus"], 4);
    EXPECT_EQ(eventOf(lines, "totals")["datagrams"], 3);
    EXPECT_TRUE(server.waitForEvents("detached"));
    EXPECT_EQ(server.lastEvent("detached")["filtered"], 0) << server.lastEvent("detached");
}

TEST_F(PacketServerTraffic, anInternalServerKeepsWhatIsSentOnThisHost) {
    OrderlyServer server({"--internal"});
    CvnetProcess receiver(at(server, {"recv", "--server", "--json", "--count", "2"}));
    receiver.listeningPort();
    const CvnetResult sent = cvnetAt(
        server, {"send", "--server", "--synthetic", "2", "--count", "2", "--fast", "--to", "10.77.0.1"});
    EXPECT_EQ(sent.exitStatus, 0) << sent.errors;
    EXPECT_THAT(sent.output, HasSubstr("\nthe packet server is internal: everything goes to 127.0.0.1\n"));
    EXPECT_EQ(totalsOf(receiver.finish())["pdus"], 2);
}

TEST_F(PacketServerTraffic, aSenderTakesNoPackets) {
    OrderlyServer server;
    CvnetProcess sender(
        at(server, {"send", "--server", "--synthetic", "1", "--rate", "50", "--to", "127.0.0.1"}));
    ASSERT_TRUE(sender.waitForOutput("sending 1 synthetic entity"));
    EXPECT_TRUE(eventually([&] { return clientOf(server, sender.pid()).value("filtered", 0) >= 3; }));
    EXPECT_EQ(clientOf(server, sender.pid())["delivered"], 0);
    sender.signal(SIGINT);
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("\nsent "));
    EXPECT_TRUE(eventually([] { return leftovers().empty(); })) << leftovers();
}

TEST_F(PacketServerTraffic, aSenderEndsWithItsServer) {
    OrderlyServer server;
    const Arguments send = {"send", "--server", "--synthetic", "1", "--to", "127.0.0.1"};
    const Arguments slowly = send + Arguments{"--rate", "50", "--bundle", "1400"};
    const std::string line = "cvnet send: the packet server of port " + std::to_string(server.port());
    const auto hasPackets = [&] { return answer(server, {"status"})["packets"] > 0; };
    for (const Arguments& arguments : {slowly, send + Arguments{"--fast"}}) {
        CvnetProcess sender(at(server, arguments));
        ASSERT_TRUE(sender.waitForOutput("sending"));
        EXPECT_TRUE(eventually(hasPackets));
        server.stop();
        const CvnetResult stopped = sender.finish();
        expectError(stopped, 0, line + " has stopped");
        EXPECT_THAT(stopped.output, HasSubstr("\nsent "));
        server.startAgain();
    }
    CvnetProcess sender(at(server, slowly));
    ASSERT_TRUE(sender.waitForOutput("sending"));
    EXPECT_TRUE(eventually(hasPackets));
    EXPECT_TRUE(eventually([] { return setsThere() == 1; })) << "the asking ones have gone";
    server.kill();
    const CvnetResult killed = sender.finish();
    expectError(killed, 1, line + " is gone");
    EXPECT_THAT(killed.output, HasSubstr("\nsent "));
}

// --- --auto ----------------------------------------------------------------------------------------------

TEST_F(PacketServerTraffic, autoTakesTheServerWhereOneRuns) {
    OrderlyServer server;
    CvnetProcess receiver(at(server, {"recv", "--auto", "--json", "--type", "2", "--count", "1"}));
    receiver.listeningPort();
    EXPECT_EQ(eventOf(jsonLines(receiver.output()), "listening")["client"], 1);
    const CvnetResult sent = cvnet(at(server, {"send", "--auto", "--json", "--to", "127.0.0.1", "--pcap",
                                               capture({pdu(50, 1, 7, 1, 1), pdu(60, 2, 7, 1, 2)})}));
    EXPECT_EQ(sent.exitStatus, 0) << sent.errors;
    EXPECT_EQ(sent.errors, "");
    EXPECT_EQ(eventOf(jsonLines(sent.output), "sending")["client"], 2);
    const CvnetResult received = receiver.finish();
    EXPECT_EQ(eventOf(jsonLines(received.output), "pdu")["length"], 60);
    EXPECT_EQ(totalsOf(received)["refused"], 1);
}

TEST_F(PacketServerTraffic, autoOpensThePortWhereNoneRuns) {
    const std::string port = std::to_string(freePort());
    for (const Arguments& more : {Arguments{}, Arguments{"--async"}}) {
        CvnetProcess receiver(
            Arguments{"recv", "--auto", "--json", "--type", "2", "--count", "1", "--port", port} + more);
        receiver.listeningPort();
        EXPECT_FALSE(eventOf(jsonLines(receiver.output()), "listening").contains("client"));
        myPeer.send(pdu(50, 1, 7, 1, 1) + pdu(60, 2, 7, 1, 2), std::stoi(port));
        const CvnetResult received = receiver.finish();
        EXPECT_EQ(received.errors, "");
        EXPECT_EQ(eventOf(jsonLines(received.output), "pdu")["length"], 60);
        EXPECT_EQ(totalsOf(received)["refused"], 1);
        EXPECT_EQ(totalsOf(received)["datagramsRead"], 1);

        UdpPeer peer(kLoopback + 1, std::stoi(port), true);
        const CvnetResult sent = cvnet(Arguments{"send", "--auto", "--fast", "--to", "127.0.0.2", "--port",
                                                 port, "--pcap", capture({pdu(20, 1), pdu(20, 2)})} +
                                       more);
        EXPECT_EQ(sent.exitStatus, 0) << sent.errors;
        EXPECT_THAT(datagramsOf(peer), ElementsAre(pdu(20, 1), pdu(20, 2)));
        EXPECT_THAT(sent.errors, HasSubstr("a unicast datagram reaches only one of them")) << "this test's";
    }
}

TEST_F(PacketServerTraffic, autoJoinsGroupsItselfWhereNoServerRuns) {
    run("ip link set lo multicast on");
    const CvnetResult result = cvnet({"recv", "--auto", "--group", "239.1.2.3"});
    EXPECT_EQ(result.exitStatus, 1) << "loopback alone cannot broadcast";
    EXPECT_THAT(result.errors, HasSubstr("no interface can broadcast"));
    const Host there;
    there.connect("cable0", "10.9.0.1/24", "cable1", "10.9.0.2/24");
    CvnetProcess receiver({"recv", "--auto", "--group", "239.1.2.3,239.1.2.4", "--port", "0"});
    receiver.listeningPort();
    EXPECT_THAT(groupsJoinedOn("cable0"), ElementsAre(kGroup, kGroup + 1));
}
