// SPDX-License-Identifier: BSD-3-Clause
// cvnet and packet servers that do not take it, told apart in one line each: a server written out by hand is
// older than this system, refuses, or does not do what it should.
#include <gmock/gmock.h>

#include "fake_packet_server.h"
#include "packet_server_host.h"
#include "packets.h"

using testing::HasSubstr;

namespace {

const char kServer[] = "the packet server of port 3000 ";
const char kCannotAttach[] = "cannot attach to the packet server of port 3000: ";

class ServerRefusals : public PacketServerHost {
protected:
    static Arguments at(const FakePacketServer& server, Arguments arguments) {
        const std::string port = std::to_string(FakePacketServer::kPort);
        for (const std::string& more :
             {std::string("--port"), port, std::string("--run-dir"), server.directory()})
            arguments.push_back(more);
        return arguments;
    }
    static Arguments send(Arguments arguments) {
        arguments.insert(arguments.begin(), "send");
        for (const char* more : {"--to", "127.0.0.1", "--pcap", CVNC_TEST_DATA "/dis/generated-dis7.pcap"})
            arguments.emplace_back(more);
        return arguments;
    }
    // What a command says of an attach that is answered so.
    static void expectNoAttach(FakePacketServer& server, const std::string& answer, const std::string& why) {
        for (const char* command : {"recv", "send"}) {
            server.answerAttach(answer);
            const Arguments attaching = {command, "--server"};
            const CvnetResult result =
                cvnet(at(server, command == std::string("send") ? send({"--server"}) : attaching));
            server.answered();
            server.hangUp();
            expectError(result, 1, std::string("cvnet ") + command + ": " + kCannotAttach + why);
        }
        server.answerAttach(answer);
        const CvnetResult result = cvnet(at(server, {"server", "status"}));
        server.answered();
        server.hangUp();
        expectError(result, 1, std::string("cvnet server: ") + kCannotAttach + why);
    }
    static std::string bytesOf(const NwCsAckRecord& ack) {
        return std::string(reinterpret_cast<const char*>(&ack), sizeof ack);
    }
};

}  // namespace

TEST_F(ServerRefusals, aServerOfOlderDaysIsTooOld) {
    const FakePacketServer server(NwPacketServerOldVersion);
    const std::string tooOld = std::string(kServer) + "is too old";
    expectError(cvnet(at(server, {"server", "status"})), 1, "cvnet server: " + tooOld);
    expectError(cvnet(at(server, {"recv", "--server"})), 1, "cvnet recv: " + tooOld);
    expectError(cvnet(at(server, send({"--server"}))), 1, "cvnet send: " + tooOld);
}

TEST_F(ServerRefusals, autoGoesOnWithoutAServerOfOlderDays) {
    const FakePacketServer server(NwPacketServerOldVersion);
    CvnetProcess receiver(at(server, {"recv", "--auto", "--json", "--count", "1"}));
    receiver.listeningPort();
    EXPECT_FALSE(eventOf(jsonLines(receiver.output()), "listening").contains("client"));
    UdpPeer().send(pdu(50), FakePacketServer::kPort);
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(eventOf(jsonLines(result.output), "pdu")["length"], 50);
    EXPECT_EQ(result.errors,
              std::string("cvnet recv: warning: ") + kServer + "is too old: going on without it\n");
}

TEST_F(ServerRefusals, aRefusalPointsToTheServersLog) {
    FakePacketServer server;
    expectNoAttach(server, std::string("\x0B\x03\0\0", 4),
                   "it refuses (its log says why; may this user attach?)");
}

TEST_F(ServerRefusals, sharedMemoryThatIsNotThereIsSaid) {
    FakePacketServer server;
    server.makeQueue();
    NwCsAckRecord ack = server.good();
    ack.shmKey = 0x1234;
    expectNoAttach(server, bytesOf(ack), "its shared memory is not there");
}

TEST_F(ServerRefusals, aServerThatDoesNotStopIsSaid) {
    FakePacketServer server;
    server.makeQueue();
    server.answerAttach(server.good());
    const CvnetResult result = cvnet(at(server, {"server", "stop"}));
    server.answered();
    expectError(result, 1, std::string("cvnet server: ") + kServer + "does not stop");
    // It was asked to, and the client has taken its leave.
    std::string requests;
    while (!server.isEmpty()) requests += server.next()[2];
    EXPECT_THAT(requests, HasSubstr(std::string({NwCsRequestTerminate, NwCsRequestDisconnect})));
}
