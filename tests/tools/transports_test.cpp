// SPDX-License-Identifier: BSD-3-Clause
// cvnet over the other UDP sockets: --async and --sites.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captures.h"
#include "cvnet_process.h"
#include "network.h"
#include "packets.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

const NwIpv4Addr kSecondSite = kLoopback + 1;  // 127.0.0.2

class Transports : public testing::Test {
protected:
    std::string capture(const std::vector<std::string>& datagrams) {
        const std::string path = myDirectory.path("capture");
        writeFile(path, datagramsFile(datagrams));
        return path;
    }
    // What a peer got, once the sender has ended.
    static std::vector<std::string> datagramsOf(UdpPeer& peer) {
        std::vector<std::string> all;
        while (!peer.isEmpty()) all.push_back(peer.receive());
        return all;
    }

    TestDirectory myDirectory;
    UdpPeer myPeer;
};

}  // namespace

TEST_F(Transports, asyncSenderSendsAllInOrderBeforeItEnds) {
    std::vector<std::string> packets;
    for (int i = 0; i < 50; ++i) packets.push_back(pdu(40 + i, i));
    const CvnetResult result = cvnet({"send", "--async", "--fast", "--json", "--to", "127.0.0.1", "--port",
                                      std::to_string(myPeer.port()), "--pcap", capture(packets)});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(datagramsOf(myPeer), packets);
    const auto totals = eventOf(jsonLines(result.output), "totals");
    EXPECT_EQ(totals["pdus"], 50);
    EXPECT_EQ(totals["datagrams"], 50);
}

TEST_F(Transports, asyncSenderBundlesAsTheOtherDoes) {
    const std::string rest(7, 'r');
    const std::string path = capture({pdu(100, 1) + pdu(100, 2), pdu(100, 3) + rest, pdu(100, 4)});
    const CvnetResult result = cvnet({"send", "--async", "--fast", "--to", "127.0.0.1", "--port",
                                      std::to_string(myPeer.port()), "--bundle", "1400", "--pcap", path});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(datagramsOf(myPeer), ElementsAre(pdu(100, 1) + pdu(100, 2) + pdu(100, 3), rest, pdu(100, 4)));
}

TEST_F(Transports, asyncSenderSaysThatTheNetworkRefused) {
    REQUIRE_PRIVATE_NETWORK();
    const CvnetResult result = cvnet({"send", "--async", "--to", "10.77.0.1", "--pcap", capture({pdu(20)})});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("cannot send to 10.77.0.1:3000: "));
    EXPECT_THAT(result.errors, HasSubstr("Network is unreachable"));
}

TEST_F(Transports, asyncReceiverDeliversFiltersAndCounts) {
    CvnetProcess receiver({"recv", "--async", "--port", "0", "--count", "3", "--type", "!2", "--json"});
    const int port = receiver.listeningPort();
    myPeer.send(pdu(144, 1, 7, 1, 1) + pdu(96, 2, 7, 1, 2) + pdu(200, 3, 7, 1, 3), port);
    myPeer.send(pdu(40, 4, 7, 1, 27), port);
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const auto totals = eventOf(jsonLines(result.output), "totals");
    EXPECT_EQ(totals["pdus"], 3);
    EXPECT_EQ(totals["refused"], 1);
    EXPECT_EQ(totals["datagramsRead"], 2);
    EXPECT_TRUE(totals["mixedBundles"].is_null()) << "an application is not told of these";
    EXPECT_EQ(totals["sources"][0]["source"], "127.0.0.1");
    EXPECT_EQ(totals["sources"][0]["port"], nullptr) << "which an asynchronous socket does not tell";
}

TEST_F(Transports, asyncReceiverEndsWithTotalsOnASignal) {
    CvnetProcess receiver({"recv", "--async", "--port", "0"});
    myPeer.send(pdu(144), receiver.listeningPort());
    ASSERT_TRUE(receiver.waitForOutput("Entity State"));
    receiver.signal(SIGINT);
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output, HasSubstr("received 1 PDU in 1 datagram"));
    EXPECT_THAT(result.output, Not(HasSubstr("mixed bundles")));
}

TEST_F(Transports, everySiteGetsEveryBundle) {
    UdpPeer second(kSecondSite, myPeer.port());
    const std::string rest(5, 'r');
    const CvnetResult result =
        cvnet({"send", "--fast", "--json", "--sites", "127.0.0.1,127.0.0.2", "--port",
               std::to_string(myPeer.port()), "--bundle", "1400", "--pcap",
               capture({pdu(100, 1) + pdu(100, 2), pdu(100, 3) + rest, pdu(1400, 4)})});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const auto expected = ElementsAre(pdu(100, 1) + pdu(100, 2) + pdu(100, 3), rest, pdu(1400, 4));
    EXPECT_THAT(datagramsOf(myPeer), expected);
    EXPECT_THAT(datagramsOf(second), expected);
    const auto lines = jsonLines(result.output);
    EXPECT_THAT(eventOf(lines, "sending")["sites"], ElementsAre("127.0.0.1", "127.0.0.2"));
    EXPECT_EQ(eventOf(lines, "totals")["datagrams"], 6) << "three to each";
    EXPECT_EQ(eventOf(lines, "totals")["pdus"], 8);
}

TEST_F(Transports, sitesThatMakeNoSenseAreRefused) {
    const std::string path = capture({pdu(20)});
    const struct {
        Arguments arguments;
        const char* words;
    } table[] = {
        {{"--sites", "0.0.0.0"}, "--sites: 0.0.0.0 is no site"},
        {{"--sites", "127.0.0.1,239.1.2.3"}, "--sites: 239.1.2.3 is no site"},
        {{"--sites", "here"}, "--sites: 'here' is no IPv4 address"},
        {{"--sites", "127.0.0.1", "--to", "127.0.0.1"}, "excludes"},
        {{"--sites", "127.0.0.1", "--async"}, "excludes"},
    };
    for (const auto& row : table) {
        Arguments all = {"send", "--pcap", path};
        all.insert(all.end(), row.arguments.begin(), row.arguments.end());
        const CvnetResult result = cvnet(all);
        EXPECT_EQ(result.exitStatus, 2) << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(row.words));
    }
}
