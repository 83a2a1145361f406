// SPDX-License-Identifier: BSD-3-Clause
// `cvnet send --tcp` and `cvnet recv --tcp` with raw peers and with the relay.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "captures.h"
#include "cvnet_process.h"
#include "network.h"
#include "packets.h"
#include "tcp_peer.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

using Strings = std::vector<std::string>;

Arguments with(Arguments first, const Arguments& further) {
    first.insert(first.end(), further.begin(), further.end());
    return first;
}

nlohmann::json totalsOf(const CvnetResult& result) {
    return eventOf(jsonLines(result.output), "totals");
}

void expectError(const CvnetResult& result, int exitStatus, const std::string& words) {
    EXPECT_EQ(result.exitStatus, exitStatus) << result.errors;
    EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
    EXPECT_THAT(result.errors, AllOf(StartsWith("cvnet "), HasSubstr(words)));
}

std::string joined(const Strings& packets) {
    std::string all;
    for (const std::string& packet : packets) all += packet;
    return all;
}

// A raw listener that clients of the tool connect to, and a directory for captures.
class TcpClient : public testing::Test {
protected:
    std::string endpoint() const { return "127.0.0.1:" + std::to_string(myListener.port()); }
    std::string capture(const Strings& datagrams, double seconds = 0.0) {
        std::string path = myDirectory.path("capture" + std::to_string(myCaptures++));
        writeFile(path, datagramsFile(datagrams, seconds));
        return path;
    }
    Arguments send(const Arguments& further) const { return with({"send", "--tcp", endpoint()}, further); }
    Arguments recv(const Arguments& further) const { return with({"recv", "--tcp", endpoint()}, further); }

    static std::string endpointOf(const TcpListener& listener) {
        return "127.0.0.1:" + std::to_string(listener.port());
    }

    TcpListener myListener;
    TcpListener mySmallListener{kLoopback, 4096};  // whose ends take little that they do not read
    TestDirectory myDirectory;
    int myCaptures = 0;
};

std::string procState(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// How many connections to that port the kernel has in a state: "04" is TCP_FIN_WAIT1.
int connectionsInState(const std::string& wantedState, int remotePort) {
    std::ifstream file("/proc/self/net/tcp");
    int count = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream columns(line);
        std::string slot, local, remote, state;
        columns >> slot >> local >> remote >> state;
        const std::size_t colon = remote.find(':');
        if (state == wantedState && colon != std::string::npos &&
            std::stoi(remote.substr(colon + 1), nullptr, 16) == remotePort)
            ++count;
    }
    return count;
}

long residentKilobytes(pid_t pid) {
    const std::string state = procState(pid);
    const std::size_t at = state.find("VmRSS:");
    return at == std::string::npos ? -1 : std::atol(state.c_str() + at + 6);
}

// Whether the process comes to a wait in which nothing wakes it.
bool fallsAsleep(pid_t pid) {
    return eventually([pid] {
        const std::string before = procState(pid);
        ::usleep(200000);
        return before.find("ctxt_switches") != std::string::npos && procState(pid) == before;
    });
}

using TcpSend = TcpClient;
using TcpRecv = TcpClient;

}  // namespace

TEST_F(TcpSend, handsEverythingOverInOrder) {
    Strings packets;
    for (int i = 0; i < 200; ++i) packets.push_back(pdu(12 + i * 7, i));
    const std::string path = capture(packets);
    for (const Arguments& pace :
         {Arguments{"--fast"}, Arguments{"--fast", "--bundle", "1400"}, Arguments{"--rate", "2000"}}) {
        CvnetProcess sender(send(with({"--json", "--pcap", path}, pace)));
        TcpPeer peer = myListener.accept();
        EXPECT_TRUE(peer.receiveToEnd() == joined(packets));
        peer.close();
        const CvnetResult result = sender.finish();
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_EQ(result.errors, "");
        const auto lines = jsonLines(result.output);
        EXPECT_EQ(eventOf(lines, "sending")["transport"], "tcp");
        EXPECT_EQ(eventOf(lines, "sending")["to"], "127.0.0.1");
        EXPECT_EQ(eventOf(lines, "sending")["port"], myListener.port());
        const auto totals = eventOf(lines, "totals");
        EXPECT_EQ(totals["pdus"], 200);
        EXPECT_EQ(totals["bytes"], joined(packets).size());
        EXPECT_TRUE(totals["datagrams"].is_null());
        EXPECT_TRUE(totals["bundlingFactor"].is_null());
        EXPECT_EQ(totals["leftOut"], 0);
        EXPECT_EQ(totals["complete"], true);
        EXPECT_EQ(totals["received"], 0);
    }
}

TEST_F(TcpSend, tellsInLinesWhatItDoes) {
    CvnetProcess sender(send({"--fast", "--pcap", capture({pdu(144)})}));
    TcpPeer peer = myListener.accept();
    EXPECT_EQ(peer.receiveToEnd(), pdu(144));
    peer.sendAll(pdu(100) + pdu(50));
    peer.close();
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0);
    const Strings lines = linesOf(result.output);
    EXPECT_THAT(lines.front(), MatchesRegex("sending .* to " + endpoint() + " over TCP"));
    EXPECT_THAT(lines.back(), MatchesRegex("sent 1 PDU over TCP, 144 bytes in [0-9.]+ s; 2 packets came in"));
    EXPECT_THAT(result.output, HasSubstr("type       1 Entity State                1         -        144"));
    CvnetProcess bundles(send({"--pcap", capture({pdu(144)}), "--bundle", "1400"}));
    TcpPeer second = myListener.accept();
    EXPECT_EQ(second.receiveToEnd(), pdu(144));
    second.close();
    EXPECT_THAT(bundles.finish().output,
                HasSubstr(endpoint() + " over TCP, bundles of up to 1400 bytes, flushed after 50 ms"));
}

TEST_F(TcpSend, keepsTheRateAndFlushesABundleInTime) {
    CvnetProcess rated(send({"--synthetic", "1", "--rate", "20", "--count", "5", "--json"}));
    TcpPeer peer = myListener.accept();
    EXPECT_EQ(peer.receiveToEnd().size(), 5U * 144);
    peer.close();
    EXPECT_GE(totalsOf(rated.finish())["seconds"].get<double>(), 0.2);
    CvnetProcess slow(send(
        {"--pcap", capture({pdu(144, 1), pdu(144, 2)}, 3600.0), "--bundle", "1400", "--flush-ms", "20"}));
    TcpPeer second = myListener.accept();
    EXPECT_EQ(second.receive(144), pdu(144, 1));
    slow.signal(SIGINT);
    EXPECT_EQ(second.receiveToEnd(), "");
    second.close();
    EXPECT_EQ(slow.finish().exitStatus, 0);
}

TEST_F(TcpSend, leavesOutWhatWouldBreakTheStream) {
    const std::string path = capture({pdu(40, 1), withLength(pdu(100), 3000), pdu(50, 2) + "trailing",
                                      withLength(pdu(12), 10).substr(0, 10)});
    CvnetProcess sender(send({"--fast", "--pcap", path}));
    TcpPeer peer = myListener.accept();
    EXPECT_EQ(peer.receiveToEnd(), pdu(40, 1) + pdu(50, 2));
    peer.close();
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output,
                HasSubstr("note: left out 3 packets whose length field does not hold their length, "
                          "which would break the stream"));
}

TEST_F(TcpSend, sendsPacketsOfOtherFormats) {
    const std::string packet("\0\5abc", 5);
    CvnetProcess sender(send({"--fast", "--json", "--size-offset", "0", "--size-length", "2", "--pcap",
                              capture({packet, packet})}));
    TcpPeer peer = myListener.accept();
    EXPECT_EQ(peer.receiveToEnd(), packet + packet);
    peer.close();
    EXPECT_EQ(totalsOf(sender.finish())["leftOut"], 0);
}

TEST_F(TcpSend, waitsForAPeerThatDoesNotReadAndKeepsNothing) {
    CvnetProcess sender({"send", "--tcp", endpointOf(mySmallListener), "--synthetic", "10", "--fast",
                         "--count", "200000", "--json"});
    TcpPeer peer = mySmallListener.accept();
    EXPECT_TRUE(fallsAsleep(sender.pid()));
    // All packets together take five times as much.
    if (std::strlen(CVNC_SANITIZER) == 0) {
        EXPECT_LT(residentKilobytes(sender.pid()), 12000);
    }
    std::size_t received = 0;
    EXPECT_TRUE(eventually([&] {
        received += peer.receiveSome().size();
        return received == 200000U * 144;
    })) << received;
    EXPECT_EQ(peer.receiveToEnd(), "");
    peer.close();
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(totalsOf(result)["pdus"], 200000);
}

TEST_F(TcpSend, endsOnASignalWhileThePeerDoesNotRead) {
    CvnetProcess sender({"send", "--tcp", endpointOf(mySmallListener), "--synthetic", "10", "--fast"});
    TcpPeer peer = mySmallListener.accept();
    EXPECT_TRUE(fallsAsleep(sender.pid()));
    sender.signal(SIGTERM);
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("note: stopped before the peer had taken everything\n"));
}

TEST_F(TcpSend, aLostConnectionIsOneLineBehindTheTotals) {
    for (const bool reset : {false, true}) {
        CvnetProcess sender(send({"--synthetic", "10", "--rate", "1000"}));
        TcpPeer peer = myListener.accept();
        peer.receive(1440);
        if (reset)
            peer.reset();
        else
            peer.close();
        const CvnetResult result = sender.finish();
        expectError(result, 1, "cvnet send: the connection to " + endpoint() + " has ended: ");
        EXPECT_THAT(result.output, HasSubstr("PDUs over TCP, "));
    }
    CvnetProcess sender(send({"--synthetic", "10", "--rate", "1000"}));
    TcpPeer peer = myListener.accept();
    peer.shutdownWrite();
    expectError(sender.finish(), 1, "has ended: closed by peer");
}

TEST_F(TcpSend, saysThatThePeerHasNotTakenEverything) {
    CvnetProcess sender(send({"--synthetic", "10", "--fast", "--count", "20"}));
    TcpPeer peer = myListener.accept();
    pollfd end = {peer.fd(), POLLRDHUP, 0};
    ASSERT_EQ(::poll(&end, 1, kPatienceMilliseconds), 1) << "everything has been sent";
    peer.reset();
    expectError(sender.finish(), 1,
                "cvnet send: " + endpoint() + " has not taken everything: Connection reset by peer");
}

TEST_F(TcpSend, endsOnASignalWhileThePeerDoesNotTakeTheLastBytes) {
    CvnetProcess sender({"send", "--tcp", endpointOf(mySmallListener), "--synthetic", "10", "--fast",
                         "--count", "200", "--json"});
    TcpPeer peer = mySmallListener.accept();
    // It has ended its side, which the bytes before keep from arriving.
    ASSERT_TRUE(eventually([&] { return connectionsInState("04", mySmallListener.port()) == 1; }));
    sender.signal(SIGINT);
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(totalsOf(result)["complete"], false);
}

TEST_F(TcpSend, readsWhatComesBackAllTheTime) {
    CvnetProcess sender(send({"--synthetic", "10", "--fast", "--count", "30000", "--json"}));
    TcpPeer peer = myListener.accept();
    // An echo that waits until its own bytes are taken, as a relay would not.
    std::size_t echoed = 0;
    for (;;) {
        ASSERT_TRUE(waitReadable(peer.fd()));
        char buffer[65536];
        const ssize_t n = ::recv(peer.fd(), buffer, sizeof buffer, 0);
        if (n <= 0) break;
        peer.sendAll(std::string(buffer, static_cast<std::size_t>(n)));
        echoed += static_cast<std::size_t>(n);
    }
    peer.close();
    const CvnetResult result = sender.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(echoed, 30000U * 144);
    EXPECT_EQ(totalsOf(result)["received"], 30000);
}

TEST_F(TcpClient, whatCannotBeReachedIsOneLine) {
    const std::string closed = "127.0.0.1:" + std::to_string(freeTcpPort());
    const std::string path = capture({pdu(20)});
    for (const Arguments& command : {Arguments{"send", "--pcap", path}, Arguments{"recv"}}) {
        expectError(cvnet(with(command, {"--tcp", closed})), 1,
                    "cannot connect to " + closed + ": Connection refused");
        expectError(cvnet(with(command, {"--tcp", "no-such-host.invalid:3000"})), 1,
                    "cannot look up no-such-host.invalid: ");
        for (const char* text : {"", "127.0.0.1", "127.0.0.1:", ":3000", "127.0.0.1:0", "127.0.0.1:65536",
                                 "127.0.0.1:x", "127.0.0.1:3000000000000"})
            expectError(cvnet(with(command, {"--tcp", text})), 2, "--tcp: ");
    }
    REQUIRE_PRIVATE_NETWORK();
    expectError(cvnet({"recv", "--tcp", "10.77.0.1:3000"}), 1,
                "cannot connect to 10.77.0.1:3000: Network is unreachable");
}

TEST_F(TcpClient, aConnectThatGetsNoAnswerEndsOnASignal) {
    TcpListener full(kLoopback, 0, 0);
    TcpPeer waiting(full.port());  // the one that may wait to be accepted
    CvnetProcess receiver({"recv", "--tcp", endpointOf(full)});
    ASSERT_TRUE(fallsAsleep(receiver.pid()));
    receiver.signal(SIGINT);
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.signal, 0);
    expectError(result, 1, "cannot connect to " + endpointOf(full) + ": Interrupted system call");
}

TEST_F(TcpClient, aNameIsLookedUp) {
    CvnetProcess receiver(
        {"recv", "--tcp", "localhost:" + std::to_string(myListener.port()), "--count", "1"});
    TcpPeer peer = myListener.accept();
    peer.sendAll(pdu(144));
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, StartsWith("connected to " + endpoint() + "\n"));
}

TEST_F(TcpClient, optionsThatMakeNoSenseAreRefused) {
    const std::string path = capture({pdu(20)});
    for (const Arguments& option : {Arguments{"--to", "127.0.0.1"},
                                    {"--sites", "127.0.0.1"},
                                    {"--async"},
                                    {"--port", "3000"},
                                    {"--ttl", "1"},
                                    {"--interface", "lo"},
                                    {"--retry", "1"}})
        expectError(cvnet(send(with({"--pcap", path}, option))), 2, "excludes");
    for (const Arguments& option : {Arguments{"--port", "3000"},
                                    {"--group", "239.1.2.3"},
                                    {"--bind", "127.0.0.1"},
                                    {"--interface", "lo"},
                                    {"--from", "127.0.0.1"},
                                    {"--async"},
                                    {"--no-header-test"},
                                    {"--rcvbuf", "1000"}})
        expectError(cvnet(recv(option)), 2, "excludes");
    expectError(cvnet({"send", "--pcap", path, "--size-offset", "0"}), 2, "--tcp");
    expectError(cvnet({"recv", "--size-length", "4"}), 2, "--tcp");
    expectError(cvnet({"recv", "--send", path}), 2, "--tcp");
    expectError(cvnet(recv({"--size-length", "3"})), 2, "--size-length");
    expectError(cvnet(send({"--pcap", path, "--size-length", "1", "--size-offset", "200"})), 2,
                "--size-offset 200");
}

TEST_F(TcpRecv, printsALineForEachPacketHoweverItArrives) {
    CvnetProcess receiver(recv({"--count", "2"}));
    TcpPeer peer = myListener.accept();
    std::string entityState = pdu(144, 0, 7, 3, 1);
    entityState.replace(12, 6, u16(10) + u16(20) + u16(30));
    peer.sendBytes(entityState);
    peer.sendAll(pdu(40, 0, 7, 3, 72) + pdu(1000).substr(0, 500));
    EXPECT_EQ(peer.receiveToEnd(), "");
    peer.close();
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    const Strings lines = linesOf(result.output);
    ASSERT_EQ(lines.size(), 5U) << result.output;
    EXPECT_EQ(lines[0], "connected to " + endpoint());
    const std::string start =
        "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]+ 127\\.0\\.0\\.1:" + std::to_string(myListener.port()) +
        " +";
    EXPECT_THAT(lines[1],
                MatchesRegex(start + "DIS 7 exercise 3 +Entity State \\(1\\) +144 bytes entity 10:20:30"));
    EXPECT_THAT(lines[2], MatchesRegex(start + "DIS 7 exercise 3 +Attribute \\(72\\) +40 bytes"));
    EXPECT_THAT(lines[3], MatchesRegex("received 2 PDUs, 184 bytes from 1 source in [0-9.]+ s"));
    EXPECT_EQ(lines[4], "refused by filters: 0; undivided rests: 0; cut: 0");
}

TEST_F(TcpRecv, printsJsonLinesAndFilters) {
    CvnetProcess receiver(recv({"--json", "--exercise", "2", "--type", "!5", "--count", "1"}));
    TcpPeer peer = myListener.accept();
    peer.sendAll(pdu(20, 0, 7, 1) + pdu(20, 0, 7, 2, 5) + pdu(24, 0, 7, 2, 9));
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    const auto lines = jsonLines(result.output);
    EXPECT_EQ(eventOf(lines, "connected")["address"], "127.0.0.1");
    EXPECT_EQ(eventOf(lines, "connected")["port"], myListener.port());
    EXPECT_GT(eventOf(lines, "connected")["localPort"], 0);
    EXPECT_EQ(eventOf(lines, "pdu")["type"], 9);
    EXPECT_EQ(eventOf(lines, "pdu")["length"], 24);
    EXPECT_EQ(eventOf(lines, "pdu")["source"], "127.0.0.1");
    EXPECT_EQ(eventOf(lines, "pdu")["port"], myListener.port());
    const auto totals = eventOf(lines, "totals");
    EXPECT_EQ(totals["pdus"], 1);
    EXPECT_EQ(totals["refused"], 2);
    for (const char* field :
         {"datagrams", "datagramsRead", "tooShort", "empty", "mixedBundles", "kernelDrops"})
        EXPECT_TRUE(totals[field].is_null()) << field;
}

TEST_F(TcpRecv, aConnectionThatEndsIsALineAndTotals) {
    const struct {
        std::string bytes;
        bool reset;
        const char* words;
    } table[] = {{pdu(144), false, "closed by peer"},
                 {pdu(144) + pdu(100).substr(0, 50), false, "closed by peer"},
                 {pdu(144) + withLength(pdu(20), 9), false, "bad packet length 9"},
                 {pdu(144), true, "Connection reset by peer"}};
    for (const auto& row : table) {
        CvnetProcess receiver(recv({"--count", "2"}));
        TcpPeer peer = myListener.accept();
        peer.sendAll(row.bytes);
        ASSERT_TRUE(receiver.waitForOutput("Entity State"));
        if (row.reset)
            peer.reset();
        else
            peer.close();
        const CvnetResult result = receiver.finish();
        expectError(result, 1, "cvnet recv: the connection to " + endpoint() + " has ended: " + row.words);
        EXPECT_THAT(result.output, HasSubstr("received 1 PDU, 144 bytes"));
    }
}

TEST_F(TcpRecv, countReachedIsNoFailureThoughTheConnectionEnds) {
    CvnetProcess receiver(recv({"--count", "3", "--quiet"}));
    TcpPeer peer = myListener.accept();
    peer.sendAll(pdu(144) + pdu(20) + pdu(30));
    peer.close();
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("received 3 PDUs"));
}

TEST_F(TcpRecv, endsOnASignalWhenIdleAndInTime) {
    CvnetProcess receiver(recv({}));
    TcpPeer peer = myListener.accept();
    peer.sendAll(pdu(144));
    ASSERT_TRUE(receiver.waitForOutput("Entity State"));
    receiver.signal(SIGTERM);
    EXPECT_EQ(receiver.finish().exitStatus, 0);
    for (const char* limit : {"--idle", "--seconds"}) {
        CvnetProcess limited(recv({limit, "0.1"}));
        TcpPeer second = myListener.accept();
        EXPECT_EQ(limited.finish().exitStatus, 0) << limit;
    }
}

TEST_F(TcpRecv, savesWhatItShows) {
    const std::string path = myDirectory.path("saved.pcap");
    CvnetProcess receiver(recv({"--count", "3", "--write", path, "--quiet"}));
    TcpPeer peer = myListener.accept();
    const std::string large = withLength(std::string(65533, 'L'), 65533);  // no datagram is that long
    peer.sendAll(pdu(144, 1) + large + pdu(60, 2));
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("cut: 0; too long to be saved: 1"));
    CvnetProcess again({"send", "--tcp", endpoint(), "--fast", "--pcap", path});
    TcpPeer second = myListener.accept();
    EXPECT_EQ(second.receiveToEnd(), pdu(144, 1) + pdu(60, 2));
    second.close();
    EXPECT_EQ(again.finish().exitStatus, 0);
}

TEST_F(TcpClient, recordedTrafficPassesThroughTheRelayWhole) {
    CvnetProcess relay({"relay", "--port", "0"});
    const std::string at = "127.0.0.1:" + std::to_string(relay.listeningPort());
    const std::string path = CVNC_TEST_DATA "/dis/real-dis7-bundled-patrol.pcap";
    std::size_t pdus = 0, bytes = 0;
    for (const std::string& datagram : recorded("real-dis7-bundled-patrol.pcap")) {
        const Walk packets = walk(datagram);
        pdus += packets.pdus.size();
        for (const std::string& one : packets.pdus) bytes += one.size();
    }
    CvnetProcess receiver({"recv", "--tcp", at, "--json", "--quiet", "--count", std::to_string(2 * pdus)});
    ASSERT_TRUE(relay.waitForOutput("1 client\n"));
    for (const Arguments& further : {Arguments{}, Arguments{"--bundle", "1400"}}) {
        const CvnetResult sent =
            cvnet(with({"send", "--tcp", at, "--fast", "--json", "--pcap", path}, further));
        EXPECT_EQ(sent.exitStatus, 0) << sent.errors;
        EXPECT_EQ(totalsOf(sent)["pdus"], pdus);
        EXPECT_EQ(totalsOf(sent)["received"], pdus) << "each came back";
    }
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(totalsOf(result)["bytes"], 2 * bytes);
    ASSERT_TRUE(relay.waitForOutput("; 0 clients"));
    relay.signal(SIGINT);
    EXPECT_THAT(relay.finish().output, HasSubstr("closed by peer: 3; read errors: 0; bad lengths: 0"));
}

TEST_F(TcpRecv, leavesOutWhatItSentItself) {
    CvnetProcess relay({"relay", "--port", "0"});
    const int port = relay.listeningPort();
    TcpPeer other(port);
    ASSERT_TRUE(relay.waitForOutput("1 client\n"));
    Strings own;
    for (int i = 0; i < 20; ++i) own.push_back(pdu(100, i, 7, 1, 2));
    CvnetProcess receiver({"recv", "--tcp", "127.0.0.1:" + std::to_string(port), "--json", "--send",
                           capture(with(own, {withLength(pdu(30), 5000)})), "--count", "3"});
    EXPECT_EQ(other.receive(2000), joined(own)) << "everyone else gets them";
    other.sendAll(pdu(100, 1000, 7, 1, 3) + own[7] + pdu(100, 1001, 7, 1, 3));
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    Strings types;
    for (const auto& line : jsonLines(result.output)) {
        if (line["event"] == "pdu") types.push_back(line["type"].dump());
    }
    EXPECT_THAT(types, ElementsAre("3", "2", "3"))
        << "what another client sends is shown, though it looks alike";
    EXPECT_EQ(totalsOf(result)["own"], 20);
    EXPECT_EQ(totalsOf(result)["sent"], 20);
    EXPECT_EQ(totalsOf(result)["refused"], 0);
}

TEST_F(TcpRecv, whoLeavesAmidTrafficIsClosedInOrder) {
    CvnetProcess relay({"relay", "--port", "0"});
    const int port = relay.listeningPort();
    TcpPeer sender(port);
    ASSERT_TRUE(relay.waitForOutput("1 client\n"));
    CvnetProcess receiver({"recv", "--tcp", "127.0.0.1:" + std::to_string(port), "--count", "1", "--quiet"});
    ASSERT_TRUE(relay.waitForOutput("2 clients\n"));
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < 50; ++i) sender.sendAll(pdu(1000, i));
        sender.receiveSome();
        return relay.outputHas("disconnected");
    }));
    EXPECT_EQ(receiver.finish().exitStatus, 0);
    EXPECT_THAT(relay.output(), HasSubstr("disconnected: closed by peer"));
}
