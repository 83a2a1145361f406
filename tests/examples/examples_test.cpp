// SPDX-License-Identifier: BSD-3-Clause
// The examples, run as a user would: they end by themselves, with status 0, and say what happened.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "child.h"
#include "network.h"

namespace {

ChildResult runWith(const std::string& name, const char* argument) {
    const std::string path = std::string(CVNC_EXAMPLES "/") + name;
    return inChild([&] {
        ::execl(path.c_str(), name.c_str(), argument, nullptr);
        return 127;
    });
}

// In a network of its own an example has its usual port for itself; elsewhere it gets one that is free.
ChildResult runExample(const std::string& name) {
    const std::string port = std::to_string(freePort());
    return runWith(name, hasPrivateNetwork() ? nullptr : port.c_str());
}

void expectOutput(const std::string& name, const std::string& pattern) {
    const ChildResult result = runExample(name);
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_EQ(result.signal, 0);
    EXPECT_THAT(result.standardOutput, testing::MatchesRegex(pattern));
}

TEST(Examples, sendReceive) {
    expectOutput("send_receive",
                 "before sending: length 0, status 0\n"
                 "sent 144 bytes to port [0-9]+\n"
                 "received 144 bytes from 127.0.0.1, status 1: version 7, exercise 1, type 1\n");
}

TEST(Examples, bundles) {
    // Nine packets of 144 bytes fit into 1400.
    expectOutput("bundles",
                 "packet 10 did not fit: a bundle of 1296 bytes left\n"
                 "packet 19 did not fit: a bundle of 1296 bytes left\n"
                 "flush: 288 bytes left\n"
                 "received 20 packets in 3 datagrams\n");
}

TEST(Examples, multicast) {
    expectOutput("multicast",
                 "in the socket's own group: 100 bytes arrived\n"
                 "in the group joined later: 120 bytes arrived\n"
                 "after leaving it, the next to arrive has 160 bytes\n"
                 "the sender's own packet: length 0, status -3\n");
}

TEST(Examples, filters) {
    expectOutput("filters",
                 "exercise 1, type  1: status  1, delivered\n"
                 "exercise 1, type 26: status -2, refused\n"
                 "exercise 3, type  1: status -2, refused\n"
                 "exercise 2, type  2: status  1, delivered\n"
                 "exercise 2, type 26: status -2, refused\n"
                 "exercise 0, type  1: status -2, refused\n"
                 "2 delivered, 6 datagrams read\n");
}

TEST(Examples, polling) {
    std::string expected;
    for (const char* frame : {"1", "2", "3"}) {
        expected += std::string("frame ") + frame +
                    ": after the first packet select\\(\\) sees 0, the socket has more\n";
        expected += std::string("frame ") + frame + ": 4 packets\n";
    }
    expectOutput("polling", expected);
}

TEST(Examples, files) {
    expectOutput("files",
                 "sent, all of it\n"
                 "arrived: tile_7.dat, 20000 bytes\n");
}

TEST(Examples, defaultSocketWithoutAServer) {
    expectOutput("default_socket",
                 "packets of port [0-9]+ come straight here\n"
                 "sent 3 packets, received 3\n");
}

TEST(Examples, aPortThatIsTakenIsAMessageAndAStatus) {
    const UdpPeer exclusive(0);
    const std::string port = std::to_string(exclusive.port());
    for (const char* name : {"send_receive", "bundles", "multicast", "filters", "polling", "default_socket"}) {
        const ChildResult result = runWith(name, port.c_str());
        EXPECT_EQ(result.exitStatus, 1) << name;
        EXPECT_THAT(result.output,
                    testing::HasSubstr("bind INADDR_ANY " + port + ": Address already in use\n"))
            << name;
        EXPECT_EQ(result.standardOutput, "") << name;
    }
}

TEST(Examples, aPacketThatDoesNotComeIsAMessageAndAStatus) {
    REQUIRE_PRIVATE_NETWORK();
    ASSERT_TRUE(enterPrivateNetwork()) << privateNetworkProblem();
    run("ip link set lo down");
    const ChildResult result = runExample("bundles");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.standardOutput,
                testing::HasSubstr("nothing came: is another program open on this port?\n"));
}

}  // namespace
