// SPDX-License-Identifier: BSD-3-Clause
// `cvnet send` with a raw socket on the other side: what is on the wire, what its user is told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>

#include "captures.h"
#include "cvnet_process.h"
#include "network.h"
#include "packets.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

namespace {

using Strings = std::vector<std::string>;

// A peer on loopback, and a directory for the capture that is sent to it.
class Send : public testing::Test {
protected:
    std::string capture(const std::string& bytes, const std::string& name = "capture") {
        std::string path = myDirectory.path(name);
        writeFile(path, bytes);
        return path;
    }
    // `cvnet send --to` the peer with these further arguments, to its end.
    CvnetResult send(Arguments further) {
        Arguments all = {"send", "--to", "127.0.0.1", "--port", std::to_string(myPeer.port())};
        all.insert(all.end(), further.begin(), further.end());
        return cvnet(all);
    }
    CvnetResult sendFile(const std::string& path, Arguments further = {}) {
        further.insert(further.begin(), {"--pcap", path});
        return send(further);
    }
    // What the peer got, datagram by datagram, once the sender has ended.
    Strings datagrams() {
        Strings all;
        while (!myPeer.isEmpty()) all.push_back(myPeer.receive());
        return all;
    }

    TestDirectory myDirectory;
    UdpPeer myPeer;
};

nlohmann::json totalsOf(const CvnetResult& result) {
    return eventOf(jsonLines(result.output), "totals");
}

// One line "cvnet send: ...", nothing else.
void expectError(const CvnetResult& result, int exitStatus, const std::string& words) {
    EXPECT_EQ(result.exitStatus, exitStatus) << result.errors;
    EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
    EXPECT_THAT(result.errors, AllOf(StartsWith("cvnet send: "), HasSubstr(words)));
}

}  // namespace

TEST_F(Send, readsEveryLinkType) {
    const std::string packet = udpPacket(pdu(144, 5));
    const std::string cooked = std::string("\0\0\0\1\0\6\2\0\0\0\0\1\0\0", 14);
    const struct {
        unsigned linkType;
        std::string frame;
    } captures[] = {{linkEthernet, ethernet(packet)},
                    {linkEthernet, ethernet(u16(5) + u16(0x0800) + packet, 0x8100)},
                    {linkCooked, cooked + u16(0x0800) + packet},
                    {linkCooked2, u16(0x0800) + std::string(18, '\0') + packet},
                    {linkRaw, packet},
                    {linkIpv4, packet},
                    {linkNull, std::string("\2\0\0\0", 4) + packet},
                    {linkLoop, std::string("\0\0\0\2", 4) + packet}};
    for (const auto& tried : captures) {
        const CvnetResult classic = sendFile(capture(pcapFile({{0, tried.frame}}, tried.linkType)));
        EXPECT_EQ(classic.exitStatus, 0) << tried.linkType << classic.errors;
        EXPECT_THAT(datagrams(), ElementsAre(pdu(144, 5))) << tried.linkType;
        const CvnetResult next = sendFile(capture(pcapngFile({{0, tried.frame}}, tried.linkType)));
        EXPECT_EQ(next.exitStatus, 0) << tried.linkType << next.errors;
        EXPECT_THAT(datagrams(), ElementsAre(pdu(144, 5))) << tried.linkType;
    }
}

TEST_F(Send, splitsRecordedDatagramsIntoPdus) {
    const std::string path = capture(datagramsFile({pdu(144, 1) + pdu(40, 2), pdu(12, 3)}));
    EXPECT_EQ(sendFile(path).exitStatus, 0);
    EXPECT_THAT(datagrams(), ElementsAre(pdu(144, 1), pdu(40, 2), pdu(12, 3)));
}

TEST_F(Send, packsPdusIntoBundles) {
    Strings pdus;
    for (int i = 0; i < 10; ++i) pdus.push_back(pdu(144, i));
    const CvnetResult result =
        sendFile(capture(datagramsFile(pdus)), {"--fast", "--bundle", "432", "--flush-ms", "1000000"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(datagrams(), ElementsAre(pdus[0] + pdus[1] + pdus[2], pdus[3] + pdus[4] + pdus[5],
                                         pdus[6] + pdus[7] + pdus[8], pdus[9]));
}

TEST_F(Send, sendsWhatDoesNotWalkAsADatagramOfItsOwnWithAFlushAround) {
    const std::string cut = withLength(pdu(100, 4), 3000);
    const std::string path = capture(datagramsFile(
        {pdu(144, 1), pdu(144, 2) + "trailing bytes", pdu(144, 3), cut, pdu(144, 5), pdu(144, 6)}));
    const CvnetResult result =
        sendFile(path, {"--fast", "--bundle", "8192", "--flush-ms", "1000000", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(datagrams(), ElementsAre(pdu(144, 1) + pdu(144, 2), "trailing bytes", pdu(144, 3), cut,
                                         pdu(144, 5) + pdu(144, 6)));
    const auto totals = totalsOf(result);
    EXPECT_EQ(totals["pdus"], 5);
    EXPECT_EQ(totals["cut"].get<int>() + totals["undivided"].get<int>(), 2);
    EXPECT_EQ(totals["datagrams"], 5);
}

TEST_F(Send, flushesABundleWhoseTimeIsOverWhileItWaits) {
    const std::string path = capture(datagramsFile({pdu(144, 1), pdu(144, 2)}, 3600.0));
    CvnetProcess sender({"send", "--pcap", path, "--to", "127.0.0.1", "--port", std::to_string(myPeer.port()),
                         "--bundle", "1400", "--flush-ms", "20"});
    EXPECT_EQ(myPeer.receive(), pdu(144, 1));
    sender.signal(SIGINT);
    EXPECT_EQ(sender.finish().exitStatus, 0);
}

TEST_F(Send, keepsTheRecordedSpeed) {
    const CvnetResult result = sendFile(capture(datagramsFile({pdu(12), pdu(12)}, 0.3)), {"--json"});
    EXPECT_GE(totalsOf(result)["seconds"].get<double>(), 0.3);
    const CvnetResult half =
        sendFile(capture(datagramsFile({pdu(12), pdu(12)}, 0.15)), {"--json", "--speed", "0.5"});
    EXPECT_GE(totalsOf(half)["seconds"].get<double>(), 0.3);
}

TEST_F(Send, isHurriedBySpeedRateAndFast) {
    const std::string hours = capture(datagramsFile({pdu(12), pdu(12), pdu(12)}, 7200.0));
    EXPECT_EQ(sendFile(hours, {"--speed", "1000000"}).exitStatus, 0);
    EXPECT_EQ(sendFile(hours, {"--fast"}).exitStatus, 0);
    const CvnetResult rated = sendFile(hours, {"--rate", "10", "--json"});
    EXPECT_EQ(rated.exitStatus, 0);
    EXPECT_GE(totalsOf(rated)["seconds"].get<double>(), 0.2);
    EXPECT_EQ(datagrams().size(), 9U);
}

TEST_F(Send, playsACaptureSeveralTimes) {
    const std::string path = capture(datagramsFile({pdu(12, 1), pdu(13, 2)}));
    EXPECT_EQ(totalsOf(sendFile(path, {"--loop", "3", "--json"}))["pdus"], 6);
    EXPECT_THAT(datagrams(),
                ElementsAre(pdu(12, 1), pdu(13, 2), pdu(12, 1), pdu(13, 2), pdu(12, 1), pdu(13, 2)));
    EXPECT_EQ(totalsOf(sendFile(path, {"--loop", "0", "--count", "7", "--json"}))["pdus"], 7);
}

TEST_F(Send, stopsAfterItsSeconds) {
    const CvnetResult result = send({"--synthetic", "1", "--rate", "50", "--seconds", "0.3", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_GE(totalsOf(result)["seconds"].get<double>(), 0.3);
    EXPECT_FALSE(datagrams().empty());
}

TEST_F(Send, sendsSyntheticEntitiesInTurn) {
    const CvnetResult result =
        send({"--synthetic", "2", "--exercise", "9", "--count", "5", "--rate", "1000", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const Strings received = datagrams();
    ASSERT_EQ(received.size(), 5U);
    for (size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(received[i].substr(0, 4), std::string("\7\x09\1\1", 4));
        EXPECT_EQ(received[i].size(), 144U);
        EXPECT_EQ(received[i].substr(12, 6), u16(1) + u16(1) + u16(i % 2 + 1));
    }
    EXPECT_NE(received[0].substr(48, 24), received[2].substr(48, 24)) << "entity 1 does not move";
}

TEST_F(Send, putsFragmentsTogetherAndSaysWhatItLeftOut) {
    const std::string whole = udp(pdu(3000, 1));
    std::vector<Frame> frames;
    for (size_t offset : {0U, 1480U, 2960U}) {
        Ipv4Options options;
        options.fragment = static_cast<unsigned>(offset / 8) | (offset < 2960U ? 0x2000U : 0U);
        frames.push_back({0, ethernet(ipv4(whole.substr(offset, 1480), options)), 0});
    }
    Ipv4Options lonely;
    lonely.identification = 99;
    lonely.fragment = 0x2000;
    frames.push_back({0, ethernet(ipv4(std::string(64, 'x'), lonely)), 0});
    frames.push_back({0, ethernet(udpPacket(pdu(144, 2))), 10});  // snapped
    frames.push_back({0, ethernet(std::string(28, 'x'), 0x0806), 0});
    frames.push_back({0, ethernet(udpPacket("")), 0});
    const CvnetResult result = sendFile(capture(pcapFile(frames)), {"--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(datagrams(), ElementsAre(pdu(3000, 1)));
    const std::string notes = totalsOf(result)["notes"].dump();
    EXPECT_THAT(notes, AllOf(HasSubstr("1 datagram put together from IPv4 fragments"),
                             HasSubstr("1 fragmented datagram with pieces missing"),
                             HasSubstr("1 frame of which the recorder kept only a part"),
                             HasSubstr("1 frame that are not UDP"), HasSubstr("1 empty datagram")));
}

TEST_F(Send, tellsPdusDatagramsAndTheBundlingFactor) {
    const std::string path =
        capture(datagramsFile({pdu(144, 1, 7, 1, 1), pdu(100, 2, 7, 1, 20), pdu(144, 3, 7, 1, 1)}));
    const CvnetResult json = sendFile(path, {"--fast", "--bundle", "300", "--json"});
    const auto totals = totalsOf(json);
    EXPECT_EQ(totals["pdus"], 3);
    EXPECT_EQ(totals["datagrams"], 2);
    EXPECT_EQ(totals["bytes"], 388);
    EXPECT_EQ(totals["bundlingFactor"], 1.5);
    EXPECT_THAT(pdusByType(totals), ElementsAre(Pair(1, 2), Pair(20, 1)));
    const CvnetResult text = sendFile(path, {"--fast", "--bundle", "300"});
    EXPECT_THAT(text.output, AllOf(StartsWith("sending "), HasSubstr("bundles of up to 300 bytes"),
                                   HasSubstr("1 Entity State"),
                                   HasSubstr("sent 3 PDUs in 2 datagrams (1.50 a datagram), 388 bytes")));
    const CvnetResult quiet = sendFile(path, {"--fast", "--quiet"});
    EXPECT_THAT(quiet.output, AllOf(Not(HasSubstr("sending ")), HasSubstr("sent 3 PDUs in 3 datagrams")));
}

TEST_F(Send, endsWithTotalsOnSignals) {
    for (int number : {SIGINT, SIGTERM}) {
        CvnetProcess sender({"send", "--synthetic", "1", "--rate", "1000", "--bundle", "1400", "--to",
                             "127.0.0.1", "--port", std::to_string(myPeer.port()), "--json"});
        ASSERT_TRUE(waitReadable(myPeer.fd()));
        sender.signal(number);
        const CvnetResult result = sender.finish();
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.errors, "");
        int pdus = 0;
        for (const std::string& datagram : datagrams()) pdus += static_cast<int>(datagram.size()) / 144;
        EXPECT_EQ(totalsOf(result)["pdus"], pdus) << "the last bundle is flushed and counted";
    }
}

TEST_F(Send, sendsBroadcastsOfAnInterface) {
    REQUIRE_PRIVATE_NETWORK();
    UdpPeer listener(0);
    const CvnetResult result = cvnet({"send", "--synthetic", "1", "--count", "1", "--interface", "lo",
                                      "--port", std::to_string(listener.port())});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("to 127.255.255.255:"));
    EXPECT_EQ(listener.receive().size(), 144U);
}

TEST_F(Send, sendsToGroupsWithItsTimeToLive) {
    REQUIRE_PRIVATE_NETWORK();
    UdpPeer listener(0);
    const ip_mreq membership = {{htonl(0xEF010203)}, {htonl(kLoopback)}};
    ASSERT_EQ(::setsockopt(listener.fd(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
    const int on = 1;
    ASSERT_EQ(::setsockopt(listener.fd(), IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
    for (const char* interfaceName : {"lo", "127.0.0.1"}) {
        const CvnetResult result =
            cvnet({"send", "--synthetic", "1", "--count", "1", "--to", "239.1.2.3", "--interface",
                   interfaceName, "--ttl", "7", "--port", std::to_string(listener.port())});
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        ASSERT_TRUE(waitReadable(listener.fd()));
        char bytes[2000];
        char control[100];
        iovec piece = {bytes, sizeof bytes};
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ASSERT_EQ(::recvmsg(listener.fd(), &message, 0), 144);
        const cmsghdr* header = CMSG_FIRSTHDR(&message);
        ASSERT_NE(header, nullptr);
        int ttl = 0;
        std::memcpy(&ttl, CMSG_DATA(header), sizeof ttl);
        EXPECT_EQ(ttl, 7);
    }
}

TEST_F(Send, usesTheDefaultInterface) {
    REQUIRE_PRIVATE_NETWORK();
    Host other;
    other.connect("va", "10.5.0.1/24", "vb", "10.5.0.2/24");
    std::unique_ptr<UdpPeer> listener;
    other.in([&] { listener = std::make_unique<UdpPeer>(0); });
    const CvnetResult result =
        cvnet({"send", "--synthetic", "1", "--count", "1", "--port", std::to_string(listener->port())});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(listener->receive().size(), 144U);
    EXPECT_EQ(listener->lastSender(), 0x0A050001U);
    EXPECT_THAT(result.output, HasSubstr("to 10.5.0.255:"));
}

TEST_F(Send, repeatsARefusedSendAsOftenAsAsked) {
    REQUIRE_PRIVATE_NETWORK();
    const auto start = std::chrono::steady_clock::now();
    const CvnetResult result =
        cvnet({"send", "--synthetic", "1", "--count", "1", "--to", "10.1.1.1", "--retry", "200"});
    // 200 repetitions, 1 ms apart.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    expectError(result, 1, "cannot send to 10.1.1.1:3000: Network is unreachable");
}

TEST_F(Send, saysInOneLineWhatTheHostRefuses) {
    REQUIRE_PRIVATE_NETWORK();
    const Arguments synthetic = {"send", "--synthetic", "1", "--count", "1"};
    const auto with = [&](Arguments further) {
        further.insert(further.begin(), synthetic.begin(), synthetic.end());
        return cvnet(further);
    };
    expectError(with({"--to", "10.1.1.1"}), 1, "cannot send to 10.1.1.1:3000: Network is unreachable");
    expectError(with({}), 1, "no interface can broadcast");
    expectError(with({}), 1, "--to 127.0.0.1");
    expectError(with({"--to", "239.1.2.3"}), 1, "--interface lo");
    expectError(with({"--to", "127.0.0.1", "--interface", "eth9"}), 1,
                "is called eth9 (known: lo 127.0.0.1)");
    expectError(with({"--to", "127.0.0.1", "--interface", "10.9.9.9"}), 1, "has the address 10.9.9.9");
    expectError(with({"--to", "127.0.0.1", "--interface", "e\x1b[2J"}), 1, "e\\x1B[2J");
}

TEST_F(Send, refusesArgumentsThatMakeNoSense) {
    const std::string path = capture(datagramsFile({pdu(12)}));
    const struct {
        Arguments arguments;
        const char* words;
    } table[] = {
        {{}, "--pcap FILE or --synthetic N"},
        {{"--pcap", path, "--synthetic", "1"}, "--pcap excludes --synthetic"},
        {{"--synthetic", "0"}, "--synthetic"},
        {{"--synthetic", "65535"}, "--synthetic"},
        {{"--synthetic", "x"}, "--synthetic"},
        {{"--synthetic", "1", "--speed", "2"}, "--speed requires --pcap"},
        {{"--synthetic", "1", "--loop", "2"}, "--loop requires --pcap"},
        {{"--pcap", path, "--exercise", "2"}, "--exercise requires --synthetic"},
        {{"--pcap", path, "--speed", "0"}, "--speed"},
        {{"--pcap", path, "--speed", "nan"}, "--speed"},
        {{"--pcap", path, "--rate", "0"}, "--rate"},
        {{"--pcap", path, "--rate", "5", "--fast"}, "excludes"},
        {{"--pcap", path, "--rate", "5", "--speed", "1"}, "excludes"},
        {{"--pcap", path, "--speed", "5", "--fast"}, "excludes"},
        {{"--pcap", path, "--bundle", "11"}, "--bundle: 11 is not in the range 12 to 65507"},
        {{"--pcap", path, "--bundle", "65508"}, "--bundle"},
        {{"--pcap", path, "--bundle", "-1"}, "-1"},
        {{"--pcap", path, "--flush-ms", "5"}, "--flush-ms requires --bundle"},
        {{"--pcap", path, "--port", "0"}, "--port"},
        {{"--pcap", path, "--port", "65536"}, "--port"},
        {{"--pcap", path, "--count", "-1"}, "--count"},
        {{"--pcap", path, "--loop", "-1"}, "--loop"},
        {{"--pcap", path, "--to", "0.0.0.0"}, "--to: 0.0.0.0 is no destination"},
        {{"--pcap", path, "--to", "localhost"}, "--to: 'localhost' is no IPv4 address"},
        {{"--pcap", path, "--to", "127.0.0.1", "--ttl", "3"}, "--ttl counts for multicast groups only"},
        {{"--pcap", path, "--to", "239.1.2.3", "--ttl", "256"}, "--ttl"},
        {{"--pcap", path, "--seconds", "-1"}, "-1"},
        {{"--pcap", path, "--seconds", "inf"}, "--seconds"},
        {{"--pcap", path, "--bogus"}, "--bogus"},
        {{"--pcap", path, "more"}, "more"},
    };
    for (const auto& row : table) {
        Arguments arguments = row.arguments;
        arguments.insert(arguments.begin(), "send");
        SCOPED_TRACE(testing::PrintToString(arguments));
        const CvnetResult result = cvnet(arguments);
        expectError(result, 2, row.words);
        EXPECT_EQ(result.output, "");
    }
}

TEST_F(Send, refusesCapturesThatItCannotRead) {
    const std::string frame = ethernet(udpPacket(pdu(144)));
    expectError(sendFile(myDirectory.path("none")), 1, "No such file or directory");
    expectError(sendFile(capture("this is no capture at all, whatever it may be")), 1, "unknown file format");
    expectError(sendFile(capture("")), 1, "cannot read the capture");
    expectError(sendFile(myDirectory.path("")), 1, "cannot read the capture");
    expectError(sendFile(capture(pcapFile({{0, frame}}, linkWifi))), 1, "link type 802.11 is not read");
    expectError(sendFile(capture(pcapFile({}))), 1, "holds no UDP datagram over IPv4");
    expectError(sendFile(capture(pcapFile({{0, ethernet("x", 0x0806)}}))), 1,
                "holds no UDP datagram over IPv4");
    expectError(sendFile(myDirectory.path("a\x1b[31m")), 1, "a\\x1B[31m: No such file");
    EXPECT_THAT(datagrams(), ElementsAre());
}

TEST_F(Send, sendsWhatADamagedCaptureHoldsAndThenSaysSo) {
    std::string file = datagramsFile({pdu(144, 1), pdu(144, 2)});
    file.resize(file.size() - 5);
    const CvnetResult result = sendFile(capture(file), {"--json"});
    expectError(result, 1, "truncated dump file");
    EXPECT_THAT(datagrams(), ElementsAre(pdu(144, 1)));
    EXPECT_EQ(totalsOf(result)["pdus"], 1);
}

TEST_F(Send, showsItsProgressOnATerminal) {
    CvnetProcess sender({"send", "--synthetic", "1", "--rate", "100", "--to", "127.0.0.1", "--port",
                         std::to_string(myPeer.port())},
                        CvnetProcess::onTerminal);
    EXPECT_TRUE(sender.waitForOutput("\x1b[1A\x1b[J")) << "it redraws its line";
    sender.signal(SIGINT);
    EXPECT_EQ(sender.finish().exitStatus, 0);
}
