// SPDX-License-Identifier: BSD-3-Clause
// `cvnet server ...` with the real server: what it says, what it changes, and what it says when that does not
// work.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <cvNetworkCompatibility/cvClientSocket.h>

#include "messages.h"
#include "network.h"
#include "packet_server_host.h"
#include "packets.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace {

const char* const kActions[] = {"status", "clients", "ping", "test", "internal", "external", "stop"};

class ServerCommand : public PacketServerHost {
protected:
    std::vector<std::string> linesOfServer(const Server& server, Arguments arguments) {
        arguments.insert(arguments.begin(), "server");
        const CvnetResult result = cvnetAt(server, arguments);
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.errors, "");
        return linesOf(result.output);
    }
    // Sends datagrams and waits until the server has them all.
    void send(const Server& server, const std::vector<std::string>& datagrams) {
        for (const std::string& datagram : datagrams) myPeer.send(datagram, server.port());
        mySent += datagrams.size();
        EXPECT_TRUE(eventually([&] { return answer(server, {"status"})["datagrams"] == mySent; }));
    }

    UdpPeer myPeer;
    std::size_t mySent = 0;
};

}  // namespace

TEST_F(ServerCommand, statusTellsWhatTheServerIsAndHasDone) {
    OrderlyServer server({"--clients", "3", "--queue", "512k"});
    CvnetProcess receiver(at(server, {"recv", "--server"}));
    receiver.listeningPort();
    send(server, {pdu(100) + pdu(144), pdu(40)});
    const auto status = answer(server, {"status"});
    EXPECT_EQ(status["event"], "status");
    EXPECT_EQ(status["port"], server.port());
    EXPECT_EQ(status["pid"], server.pid());
    EXPECT_EQ(status["version"], CVNET_TEST_VERSION);
    EXPECT_EQ(status["internal"], false);
    EXPECT_EQ(status["unbundling"], true);
    EXPECT_EQ(status["clients"], 1);
    EXPECT_EQ(status["clientLimit"], 3);
    EXPECT_EQ(status["controlClients"], 1);
    EXPECT_EQ(status["queueBytes"], 512 << 10);
    EXPECT_EQ(status["groups"], 0);
    EXPECT_LT(status["upSeconds"], 100);
    EXPECT_EQ(status["datagrams"], 2);
    EXPECT_EQ(status["packets"], 3);
    EXPECT_EQ(status["kernelDropped"], 0);
    EXPECT_EQ(status["outsideDropped"], 0);
    EXPECT_TRUE(status["alsoOpenIn"].is_null());
    const std::string port = "port " + std::to_string(server.port());
    EXPECT_THAT(
        linesOfServer(server, {"status"}),
        ElementsAre(
            MatchesRegex(port + ": process " + std::to_string(server.pid()) +
                         ", version " CVNET_TEST_VERSION ", up [0-9]+ s"),
            "external mode, unbundling on, interface any, 0 groups", "1 of 3 clients, queues of 524288 bytes",
            "received 3 packets in 2 datagrams; dropped by the kernel: 0; of other hosts dropped: 0"));
}

TEST_F(ServerCommand, statusNamesAnotherProcessThatHasThePort) {
    OrderlyServer server;
    CvnetProcess other({"recv", "--port", std::to_string(server.port())});
    other.listeningPort();
    const std::string name = "process " + std::to_string(other.pid()) + " (cvnet)";
    EXPECT_EQ(answer(server, {"status"})["alsoOpenIn"], name);
    EXPECT_EQ(linesOfServer(server, {"status"}).back(), "port " + std::to_string(server.port()) +
                                                            " is open in " + name +
                                                            " too: a unicast datagram may go there");
    EXPECT_THAT(other.errors(), HasSubstr("(cvpacketserver): a unicast datagram reaches only one of them"));
}

TEST_F(ServerCommand, clientsTellsWhoIsThereAndWhatBecameOfItsPackets) {
    OrderlyServer server;
    CvnetProcess all(at(server, {"recv", "--server"}));
    all.listeningPort();
    CvnetProcess some(at(server, {"recv", "--server", "--type", "!2,3", "--exercise", "1", "--no-unbundle"}));
    some.listeningPort();
    send(server, {pdu(100, 0, 7, 1, 1), pdu(100, 0, 7, 1, 2), pdu(100, 0, 7, 2, 1)});

    const CvnetResult result = cvnetAt(server, {"server", "clients", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const auto lines = jsonLines(result.output);
    ASSERT_EQ(lines.size(), 3U) << "the two and the asking one";
    for (const auto& line : lines) {
        EXPECT_EQ(line["event"], "client");
        EXPECT_EQ(line["program"], "cvnet");
        EXPECT_EQ(line["uid"], ::geteuid());
        EXPECT_EQ(line["dropped"], 0);
    }
    EXPECT_EQ(lines[0]["pid"], all.pid());
    EXPECT_EQ(lines[0]["delivered"], 3);
    EXPECT_EQ(lines[0]["filtered"], 0);
    EXPECT_EQ(lines[0]["filters"], "none");
    EXPECT_EQ(lines[0]["unbundling"], true);
    EXPECT_EQ(lines[0]["controlOnly"], false);
    EXPECT_EQ(lines[1]["pid"], some.pid());
    EXPECT_EQ(lines[1]["delivered"], 1);
    EXPECT_EQ(lines[1]["filtered"], 2);
    EXPECT_EQ(lines[1]["filters"], "exercise 1 value, type not 2 values");
    EXPECT_EQ(lines[1]["unbundling"], false);
    EXPECT_EQ(lines[1]["queueBytes"], 4 << 20);
    EXPECT_EQ(lines[2]["controlOnly"], true);
    EXPECT_EQ(lines[2]["delivered"], 0);

    const auto rows = linesOfServer(server, {"clients"});
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_THAT(rows[0],
                MatchesRegex(" +id +process +program +delivered +filtered +dropped +queue +filters"));
    EXPECT_THAT(rows[1],
                MatchesRegex(" +1 +" + std::to_string(all.pid()) + " cvnet +3 +0 +0 +[0-9]+ %  none"));
    EXPECT_THAT(rows[2], MatchesRegex(" +2 +" + std::to_string(some.pid()) +
                                      " cvnet +1 +2 +0 +[0-9]+ %  exercise 1 value, type not 2 values"));
    EXPECT_THAT(rows[3], HasSubstr("(control only)"));
}

TEST_F(ServerCommand, pingTellsHowLongItTook) {
    OrderlyServer server;
    const auto ping = answer(server, {"ping"});
    EXPECT_EQ(ping["event"], "ping");
    EXPECT_EQ(ping["port"], server.port());
    EXPECT_GT(ping["seconds"], 0.0);
    EXPECT_LT(ping["seconds"], 5.0);
    EXPECT_THAT(linesOfServer(server, {"ping"}),
                ElementsAre(MatchesRegex("the server answered after [0-9]+\\.[0-9]{3} ms")));
}

TEST_F(ServerCommand, testReachesEveryClient) {
    OrderlyServer server;
    CvnetProcess first(at(server, {"recv", "--server"}));
    CvnetProcess second(at(server, {"recv", "--server", "--json"}));
    first.listeningPort();
    second.listeningPort();
    EXPECT_THAT(linesOfServer(server, {"test"}), ElementsAre("the test message went to every client"));
    EXPECT_TRUE(first.waitForError("cvnet recv: the packet server tests its clients\n"));
    EXPECT_TRUE(second.waitForOutput("{\"event\":\"notice\",\"notice\":\"test\"}\n"));
    const auto tested = answer(server, {"test"});
    EXPECT_EQ(tested["event"], "tested");
    EXPECT_EQ(tested["port"], server.port());
}

TEST_F(ServerCommand, internalAndExternalSwitchTheModeAndTellTheClients) {
    OrderlyServer server;
    CvnetProcess receiver(at(server, {"recv", "--server"}));
    receiver.listeningPort();
    EXPECT_THAT(linesOfServer(server, {"internal"}), ElementsAre("internal mode, unbundling on"));
    EXPECT_TRUE(receiver.waitForError("the packet server keeps packets on this host from now on\n"));
    EXPECT_EQ(answer(server, {"status"})["internal"], true);
    EXPECT_THAT(linesOfServer(server, {"external"}), ElementsAre("external mode, unbundling on"));
    EXPECT_TRUE(receiver.waitForError("the packet server takes packets of other hosts too from now on\n"));
    EXPECT_EQ(answer(server, {"status"})["internal"], false);
    EXPECT_EQ(answer(server, {"internal"})["event"], "changed");
    EXPECT_EQ(answer(server, {"status"})["internal"], true);
    EXPECT_EQ(answer(server, {"external"})["event"], "changed");
    EXPECT_EQ(answer(server, {"status"})["internal"], false);
}

TEST_F(ServerCommand, unbundleSaysWhatLaterClientsGet) {
    OrderlyServer server;
    EXPECT_THAT(linesOfServer(server, {"unbundle", "off"}), ElementsAre("external mode, unbundling off"));
    CvnetProcess receiver(at(server, {"recv", "--server", "--json", "--count", "1"}));
    receiver.listeningPort();
    EXPECT_EQ(answer(server, {"unbundle", "on"})["event"], "changed");
    EXPECT_EQ(answer(server, {"status"})["unbundling"], true);
    send(server, {pdu(100) + pdu(144)});
    EXPECT_EQ(eventOf(jsonLines(receiver.finish().output), "pdu")["length"], 244);
    EXPECT_EQ(answer(server, {"unbundle", "off"})["event"], "changed");
    EXPECT_EQ(answer(server, {"status"})["unbundling"], false);
    EXPECT_THAT(linesOfServer(server, {"unbundle", "on"}), ElementsAre("external mode, unbundling on"));
}

TEST_F(ServerCommand, stopEndsTheServer) {
    OrderlyServer server;
    EXPECT_THAT(linesOfServer(server, {"stop"}), ElementsAre("stopped"));
    EXPECT_EQ(server.daemon().finish().exitStatus, 0);
    EXPECT_THAT(server.directory().names(), IsEmpty());
    server.startAgain();
    const auto stopped = answer(server, {"stop"});
    EXPECT_EQ(stopped["event"], "stopped");
    EXPECT_EQ(stopped["port"], server.port());
    EXPECT_EQ(server.daemon().finish().exitStatus, 0);
}

TEST_F(ServerCommand, findsServersWithoutARunDirectory) {
    if (::access("/run", W_OK) != 0) GTEST_SKIP() << "needs a /run to write to";
    const std::string port = std::to_string(freePort());
    DaemonProcess daemon({"--port", port, "--json"});
    ASSERT_TRUE(daemon.waitForOutput("serving"));
    EXPECT_EQ(cvnet({"server", "stop", "--port", port}).exitStatus, 0);
    EXPECT_EQ(daemon.finish().exitStatus, 0);
}

TEST_F(ServerCommand, withoutAServerEachIsOneLine) {
    OrderlyServer server;
    server.kill();  // its path stays, and nobody listens there
    const std::string line =
        "cvnet server: no packet server serves port " + std::to_string(server.port()) + " on this host";
    for (const char* action : kActions) expectError(cvnetAt(server, {"server", action}), 1, line);
    expectError(cvnetAt(server, {"server", "unbundle", "on", "--json"}), 1, line);
}

TEST_F(ServerCommand, aServerThatIsStoppedBySignalDoesNotAnswer) {
    OrderlyServer server;
    server.daemon().signal(SIGSTOP);
    CvnetProcess asking(at(server, {"server", "status"}));
    CvnetProcess stopping(at(server, {"server", "stop"}));
    const std::string line = "cvnet server: cannot attach to the packet server of port " +
                             std::to_string(server.port()) + ": it does not answer";
    expectError(asking.finish(), 1, line);
    expectError(stopping.finish(), 1, line);
    server.daemon().signal(SIGCONT);
    EXPECT_EQ(answer(server, {"status"})["clients"], 0) << "it works on";
}

TEST_F(ServerCommand, withAllPlacesTakenThereIsOneLine) {
    OrderlyServer server;
    const Quiet quiet;
    std::vector<std::unique_ptr<NwClientSocket>> others;
    for (int i = 0; i < 8; ++i)
        others.push_back(std::make_unique<NwClientSocket>(server.port(), loopbackAddr, -1,
                                                          NwClientSocket::controlOnlyFlag));
    expectError(cvnetAt(server, {"server", "ping"}), 1,
                "cvnet server: cannot attach to the packet server of port " + std::to_string(server.port()) +
                    ": it has no place left for a client");
    others.pop_back();
    EXPECT_EQ(cvnetAt(server, {"server", "ping"}).exitStatus, 0);
}

TEST_F(ServerCommand, anotherUserLearnsThatItMayNot) {
    REQUIRE_OTHER_USERS();
    const auto asOther = [](const Server& server, const Arguments& arguments) {
        return CvnetProcess(at(server, arguments), CvnetProcess::inPipes,
                            [] {
                                if (::setgid(kOtherUser) != 0 || ::setuid(kOtherUser) != 0) ::_exit(125);
                            })
            .finish();
    };
    OrderlyServer open({"--allow-all"});
    const CvnetResult status = asOther(open, {"server", "status"});
    if (status.exitStatus == 126) GTEST_SKIP() << "the other user cannot reach the build";
    EXPECT_EQ(status.exitStatus, 0) << status.errors;
    const std::string refuses = "cvnet server: the packet server refuses: not allowed to ";
    expectError(asOther(open, {"server", "stop"}), 1, refuses + "stop the server");
    expectError(asOther(open, {"server", "internal"}), 1, refuses + "switch the server's mode");
    expectError(asOther(open, {"server", "unbundle", "off"}), 1, refuses + "change the server's unbundling");
    EXPECT_EQ(answer(open, {"status"})["internal"], false);
    OrderlyServer closed;
    expectError(asOther(closed, {"server", "status"}), 1,
                "cvnet server: this user may not attach to the packet server of port " +
                    std::to_string(closed.port()));
}

TEST_F(ServerCommand, argumentsThatMakeNoSenseAreRefused) {
    const struct {
        Arguments arguments;
        const char* words;
    } table[] = {
        {{}, "action is required"},
        {{"restart"}, "restart"},
        {{"unbundle"}, "unbundle: say on or off"},
        {{"unbundle", "maybe"}, "maybe"},
        {{"status", "on"}, "status takes no value"},
        {{"status", "--port", "0"}, "--port"},
        {{"status", "--run-dir", std::string(200, 'x')}, "--run-dir: the name is too long"},
    };
    for (const auto& row : table) {
        Arguments all = {"server"};
        all.insert(all.end(), row.arguments.begin(), row.arguments.end());
        const CvnetResult result = cvnet(all);
        EXPECT_EQ(result.exitStatus, 2) << result.output;
        EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(row.words));
    }
}
