// SPDX-License-Identifier: BSD-3-Clause
// `cvnet ifaces`, and what the tool says before any sub-command runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cvnet_process.h"
#include "network.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(CvnetItself, tellsItsVersionAndItsSubCommands) {
    EXPECT_EQ(cvnet({"--version"}).output, "cvnet " CVNET_TEST_VERSION "\n");
    const CvnetResult help = cvnet({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* word : {"ifaces", "send", "recv", "--version"})
        EXPECT_THAT(help.output, HasSubstr(word));
}

TEST(CvnetItself, showsAnExampleInEachHelp) {
    for (const char* command : {"ifaces", "send", "recv"}) {
        const CvnetResult help = cvnet({command, "--help"});
        EXPECT_EQ(help.exitStatus, 0);
        EXPECT_THAT(help.output, AllOf(HasSubstr("Example"), HasSubstr(std::string("\n  cvnet ") + command)));
        EXPECT_EQ(help.errors, "");
    }
}

TEST(CvnetItself, refusesWhatIsNoSubCommand) {
    for (const Arguments& arguments :
         {Arguments{}, Arguments{"bogus"}, Arguments{"--bogus"}, Arguments{"re\x1b[31mcv"}}) {
        const CvnetResult result = cvnet(arguments);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        EXPECT_THAT(result.errors, AllOf(StartsWith("cvnet: "), Not(HasSubstr("\x1b"))));
    }
}

TEST(Ifaces, saysOnALoopbackOnlyHostThatNoneCanBroadcastAndWhatToDo) {
    REQUIRE_PRIVATE_NETWORK();
    const CvnetResult result = cvnet({"ifaces"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output, AllOf(HasSubstr("lo"), HasSubstr("127.0.0.1"), HasSubstr("255.0.0.0"),
                                     HasSubstr("127.255.255.255"), HasSubstr("up running loopback"),
                                     HasSubstr("No interface can broadcast"), HasSubstr("--to 127.0.0.1"),
                                     HasSubstr("--interface")));
    const auto lines = jsonLines(cvnet({"ifaces", "--json"}).output);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0]["name"], "lo");
    EXPECT_EQ(lines[0]["default"], false);
    EXPECT_EQ(lines[0]["reason"], "loopback");
    EXPECT_TRUE(lines[1]["name"].is_null());
}

TEST(Ifaces, marksTheFirstThatCanBroadcastAndSaysWhyTheOthersAreNot) {
    REQUIRE_PRIVATE_NETWORK();
    Host other;
    other.connect("va", "192.168.1.20/24", "vb", "192.168.1.21/24");
    other.connect("vc", "10.9.8.7/16", "vd", "10.9.8.8/16");
    run("ip addr add 192.168.2.20/24 dev va");
    run("ip addr flush dev vc && ip addr add 10.9.8.7/16 dev vc && ip link set vc down");
    run("ip link add ve type veth peer name vf");

    const auto lines = jsonLines(cvnet({"ifaces", "--json"}).output);
    const auto rowOf = [&](const std::string& name, int skip = 0) {
        for (const auto& line : lines) {
            if (line["event"] == "interface" && line["name"] == name && skip-- == 0) return line;
        }
        ADD_FAILURE() << "no line for " << name;
        return nlohmann::json();
    };
    EXPECT_EQ(rowOf("va")["address"], "192.168.1.20");
    EXPECT_EQ(rowOf("va")["mask"], "255.255.255.0");
    EXPECT_EQ(rowOf("va")["broadcast"], "192.168.1.255");
    EXPECT_EQ(rowOf("va")["default"], true);
    EXPECT_EQ(rowOf("va")["flags"], nlohmann::json({"up", "running", "broadcast", "multicast"}));
    EXPECT_EQ(rowOf("va", 1)["address"], "192.168.2.20");
    EXPECT_EQ(rowOf("va", 1)["broadcast"], "192.168.2.255");
    EXPECT_EQ(rowOf("va", 1)["default"], false);
    EXPECT_EQ(rowOf("vc")["reason"], "not up");
    EXPECT_EQ(rowOf("vc")["broadcast"], "10.9.255.255");
    EXPECT_EQ(rowOf("ve")["reason"], "no IPv4 address");
    EXPECT_TRUE(rowOf("ve")["address"].is_null());
    EXPECT_EQ(eventOf(lines, "default")["name"], "va");
    EXPECT_EQ(eventOf(lines, "default")["address"], "192.168.1.20");

    EXPECT_THAT(
        cvnet({"ifaces"}).output,
        HasSubstr("Default: va (192.168.1.20), the first that is up, can broadcast and is not loopback."));
}

TEST(Ifaces, isColouredOnATerminalOnlyAndNotWithNoColor) {
    EXPECT_THAT(CvnetProcess({"ifaces"}, CvnetProcess::onTerminal).finish().output, HasSubstr("\x1b["));
    EXPECT_THAT(cvnet({"ifaces"}).output, Not(HasSubstr("\x1b")));
    const auto noColour = [] { setVariable("NO_COLOR", "1"); };
    EXPECT_THAT(CvnetProcess({"ifaces"}, CvnetProcess::onTerminal, noColour).finish().output,
                Not(HasSubstr("\x1b")));
}
