// SPDX-License-Identifier: BSD-3-Clause
// The daemon from outside: what it is told, what it says, and how it ends.
#include <cvutil/cvPacketServer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "clients.h"
#include "packet_server_process.h"
#include "packets.h"
#include "private_host.h"

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

std::string contentsOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(PacketServerCommandLine, helpTellsEveryOptionAndEndsWell) {
    const DaemonResult result = cvpacketserver({"--help"});
    EXPECT_EQ(result.exitStatus, 0);
    for (const char* option : {"--port", "--interface", "--group", "--clients", "--queue", "--internal",
                               "--no-unbundle", "--run-dir", "--allow-user", "--allow-group", "--allow-all",
                               "--allow-control", "--stats", "--json", "--log", "--version"})
        EXPECT_THAT(result.output, HasSubstr(option));
    EXPECT_EQ(result.errors, "");
}

TEST(PacketServerCommandLine, versionIsTheProjects) {
    const DaemonResult result = cvpacketserver({"--version"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "cvpacketserver " CVNC_TEST_VERSION "\n");
}

TEST(PacketServerCommandLine, usageErrorsAreOneLineAndStatus2) {
    for (const Arguments& arguments :
         std::vector<Arguments>{{},
                                {"--port"},
                                {"--port", "0"},
                                {"--port", "65536"},
                                {"--port", "x"},
                                {"--port", "3000", "--port", "3001", "--port", "3000"},
                                {"--port", "3000", "--nonsense"},
                                {"--port", "3000", "stray"},
                                {"--port", "3000", "--clients", "0"},
                                {"--port", "3000", "--clients", "4001"},
                                {"--port", "3000", "--queue", "1k"},
                                {"--port", "3000", "--queue", "2g"},
                                {"--port", "3000", "--queue", "many"},
                                {"--port", "3000", "--stats", "0"},
                                {"--port", "3000", "--interface", "nosuchinterface"},
                                {"--port", "3000", "--group", "10.0.0.1"},
                                {"--port", "3000", "--allow-user", "no such user"},
                                {"--port", "3000", "--allow-group", "no such group"}}) {
        const DaemonResult result = cvpacketserver(arguments);
        const std::string last = arguments.empty() ? "nothing" : arguments.back();
        EXPECT_EQ(result.exitStatus, 2) << last;
        EXPECT_EQ(result.output, "") << last;
        EXPECT_THAT(result.errors, StartsWith("cvpacketserver: ")) << last;
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    }
}

// The status of a start that fails, and the one line that says why.
void expectFailure(const Arguments& arguments, const std::string& why) {
    const DaemonResult result = cvpacketserver(arguments);
    EXPECT_EQ(result.exitStatus, 1) << result.errors;
    EXPECT_THAT(result.errors, HasSubstr(why));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
}

TEST(PacketServerStart, portOfAnotherProgramIsRefusedAndNothingIsLeft) {
    REQUIRE_PRIVATE_HOST();
    const UdpPeer other(0);
    const RunDirectory directory;
    const std::string port = std::to_string(other.port());
    expectFailure({"--port", port, "--run-dir", directory.path()},
                  "cannot open UDP port " + port + ": Address already in use");
    EXPECT_THAT(directory.names(), IsEmpty());
}

TEST(PacketServerStart, secondServerForAPortIsRefusedAndTheFirstGoesOn) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    Server server;
    expectFailure({"--port", std::to_string(server.port()), "--run-dir", server.directory().path()},
                  "another packet server serves this port");
    WatchedSocket client(server.port());
    EXPECT_EQ(client.serverState().pid, server.pid());
}

// Both could open the port, and would get a part of the traffic each.
TEST(PacketServerStart, secondServerForAPortIsRefusedWhateverItsDirectory) {
    REQUIRE_PRIVATE_HOST();
    Server server;
    const RunDirectory directory;
    expectFailure({"--port", std::to_string(server.port()), "--run-dir", directory.path()},
                  "another packet server serves this port, with another run directory");
    EXPECT_THAT(directory.names(), IsEmpty());
    server.kill();
    server.startAgain();  // its name has gone with it
}

TEST(PacketServerStart, secondOfSeveralPortsInUseStartsNone) {
    REQUIRE_PRIVATE_HOST();
    const UdpPeer other(0);
    const RunDirectory directory;
    const DaemonResult result = cvpacketserver({"--port", std::to_string(freePort()), "--port",
                                                std::to_string(other.port()), "--run-dir", directory.path()});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("Address already in use"));
    EXPECT_THAT(directory.names(), IsEmpty());
}

TEST(PacketServerStart, directoryThatIsNotThereOrTooLong) {
    REQUIRE_PRIVATE_HOST();
    const std::string port = std::to_string(freePort());
    expectFailure({"--port", port, "--run-dir", "/tmp/nosuchdirectory"},
                  "cannot open /tmp/nosuchdirectory/" + port);
    expectFailure({"--port", port, "--run-dir", "/tmp/" + std::string(100, 'x')}, "too long");
}

TEST(PacketServerStart, descriptorsThatAreClosedAreNobodyElses) {
    const RunDirectory directory;
    DaemonProcess server({"--port", std::to_string(freePort()), "--run-dir", directory.path()},
                         [] { ::close_range(0, 2, 0); });
    ASSERT_TRUE(eventually([&] { return directory.names().size() == 2; })) << "lock and request path";
    for (const std::string& name : directory.names()) {
        struct stat status {};
        EXPECT_EQ(::stat(directory.file(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_size, 0) << "the log went into " << name;
    }
    server.signal(SIGTERM);
    EXPECT_EQ(server.finish().exitStatus, 0);
    EXPECT_THAT(directory.names(), testing::IsEmpty());
}

TEST(PacketServerStart, logFileThatCannotBeOpened) {
    const DaemonResult result =
        cvpacketserver({"--port", std::to_string(freePort()), "--log", "/nosuchdirectory/log"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errors, "cvpacketserver: cannot open /nosuchdirectory/log: No such file or directory\n");
}

TEST(PacketServerStart, pathOfAKilledServerIsTakenOver) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    Server server;
    server.kill();
    EXPECT_TRUE(std::filesystem::exists(server.requestPath()));
    EXPECT_EQ(NwPacketServerIsAlive(server.port()), 0);
    server.startAgain();
    EXPECT_EQ(NwPacketServerIsAlive(server.port()), 1);
    WatchedSocket client(server.port());
    EXPECT_TRUE(client.isOk());
}

TEST(PacketServerStart, requestPathIsForItsUserUnlessOthersMayAttach) {
    REQUIRE_PRIVATE_HOST();
    const auto modeOf = [](const Server& server) {
        struct stat status {};
        EXPECT_EQ(::stat(server.requestPath().c_str(), &status), 0);
        return status.st_mode & 07777;
    };
    EXPECT_EQ(modeOf(Server()), 0600u);
    EXPECT_EQ(modeOf(Server({"--allow-all"})), 0666u);
    EXPECT_EQ(modeOf(Server({"--allow-user", "12345"})), 0666u);
}

TEST(PacketServerStart, serviceManagerIsToldOfReadinessAndOfTheEnd) {
    REQUIRE_PRIVATE_HOST();
    const RunDirectory directory;
    const std::string path = directory.file("notify");
    const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto told = [&] {
        char text[100];
        const ssize_t length = waitReadable(manager) ? ::recv(manager, text, sizeof text, 0) : 0;
        return std::string(text, static_cast<std::size_t>(length));
    };
    DaemonProcess daemon({"--port", std::to_string(freePort())}, [&] {
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);                  // NOLINT(concurrency-mt-unsafe)
        ::setenv("RUNTIME_DIRECTORY", directory.path().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    });
    EXPECT_EQ(told(), "READY=1");
    EXPECT_EQ(directory.names().size(), 3u);  // the manager's, the request socket and its lock
    daemon.signal(SIGTERM);
    EXPECT_EQ(told(), "STOPPING=1");
    EXPECT_EQ(daemon.finish().exitStatus, 0);
    EXPECT_EQ(directory.names().size(), 1u);
    ::close(manager);
}

TEST(PacketServerStop, everySignalThatStopsTellsTheClientsAndRemovesAll) {
    REQUIRE_PRIVATE_HOST();
    ::signal(SIGHUP, SIG_DFL);  // these tests may run under nohup themselves
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const Tame tame;
        Server server;
        WatchedSocket data(server.port());
        WatchedSocket control(server.port(), WatchedSocket::control);
        control.settle();
        EXPECT_NE(leftovers(), "");
        server.daemon().signal(signal);
        EXPECT_EQ(server.daemon().finish().exitStatus, 0);
        for (WatchedSocket* client : {&data, &control}) {
            const NwCsMsg notice = client->awaitMessage(NwCsKindNotice);
            EXPECT_EQ(NwCsNoticeMsg(nullptr, &notice).notice(), NwCsNoticeStopped);
            EXPECT_FALSE(client->isOk());
            EXPECT_EQ(client->endNotice(), NwCsNoticeStopped);
        }
        EXPECT_EQ(leftovers(), "");
        EXPECT_THAT(server.directory().names(), IsEmpty());
        EXPECT_EQ(server.countEvents("detached"), 2);
        EXPECT_EQ(server.countEvents("stopped"), 1);
    }
}

// Under nohup, that is.
TEST(PacketServerStop, hangUpThatIsIgnoredAtTheStartStopsNothing) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    const RunDirectory directory;
    const int port = freePort();
    DaemonProcess daemon({"--port", std::to_string(port), "--run-dir", directory.path()},
                         [] { ::signal(SIGHUP, SIG_IGN); });
    ASSERT_TRUE(daemon.waitForError("serving port"));
    daemon.signal(SIGHUP);
    NwSetPacketServerDirectory(directory.path().c_str());
    {
        WatchedSocket client(port);
        client.settle();
        client.settle();  // the server has had its turns since
    }
    NwSetPacketServerDirectory(nullptr);
    EXPECT_TRUE(daemon.isRunning());
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.finish().exitStatus, 0);
}

TEST(PacketServerStop, whatIsQueuedIsDeliveredBeforeTheNotice) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    Server server;
    WatchedSocket client(server.port());
    client.settle();
    UdpPeer sender;
    for (int i = 0; i < 10; ++i) sender.send(pdu(100 + i), server.port());
    WatchedSocket control(server.port(), WatchedSocket::control);
    EXPECT_TRUE(eventually([&] { return control.serverState().packets == 10; }));
    server.stop();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(client.awaitPacket(), pdu(100 + i));
    client.awaitNotice(NwCsNoticeStopped);
    EXPECT_FALSE(client.isOk());
}

TEST(PacketServerLog, jsonLinesTellOfEachEventWithItsFields) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    Server server;
    {
        WatchedSocket client(server.port());
        client.settle();
    }
    ASSERT_TRUE(server.waitForEvents("detached"));
    server.stop();
    const auto serving = server.lastEvent("serving");
    EXPECT_EQ(serving["port"], server.port());
    EXPECT_EQ(serving["path"], server.requestPath());
    EXPECT_EQ(serving["internal"], false);
    const auto attached = server.lastEvent("attached");
    EXPECT_EQ(attached["pid"], ::getpid());
    EXPECT_EQ(attached["uid"], ::getuid());
    EXPECT_EQ(attached["client"], 1);
    EXPECT_EQ(attached["controlOnly"], false);
    EXPECT_EQ(attached["queueBytes"], 4 << 20);
    EXPECT_EQ(server.lastEvent("detached")["client"], 1);
    EXPECT_EQ(server.lastEvent("statistics")["clients"], 0);
    EXPECT_EQ(server.events().back()["event"], "stopped");
    EXPECT_EQ(server.daemon().errors(), "");
}

TEST(PacketServerLog, wordsGoToStandardErrorWithoutJson) {
    REQUIRE_PRIVATE_HOST();
    const RunDirectory directory;
    const std::string port = std::to_string(freePort());
    DaemonProcess daemon({"--port", port, "--run-dir", directory.path(), "--internal"});
    ASSERT_TRUE(daemon.waitForError("serving port " + port + " at " + directory.path()));
    EXPECT_THAT(daemon.errors(), HasSubstr(" (internal)\n"));
    daemon.signal(SIGTERM);
    const DaemonResult result = daemon.finish();
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("cvpacketserver: stopped\n"));
}

void expectHangUpOpensTheFileAnew(const std::function<void()>& beforeExec) {
    const RunDirectory logs;
    const std::string log = logs.file("log");
    const RunDirectory directory;
    DaemonProcess daemon(
        {"--port", std::to_string(freePort()), "--run-dir", directory.path(), "--log", log, "--json"},
        beforeExec);
    ASSERT_TRUE(eventually([&] { return contentsOf(log).find("serving") != std::string::npos; }));
    ASSERT_EQ(::rename(log.c_str(), (log + ".1").c_str()), 0);
    daemon.signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(log); }));
    daemon.signal(SIGTERM);
    const DaemonResult result = daemon.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output + result.errors, "");
    EXPECT_THAT(contentsOf(log), HasSubstr("\"stopped\""));
    EXPECT_THAT(contentsOf(log), testing::Not(HasSubstr("\"serving\"")));
    EXPECT_THAT(contentsOf(log + ".1"), HasSubstr("\"serving\""));
}

TEST(PacketServerLog, hangUpOpensTheFileAnew) {
    REQUIRE_PRIVATE_HOST();
    expectHangUpOpensTheFileAnew(nullptr);
    expectHangUpOpensTheFileAnew([] { ::signal(SIGHUP, SIG_IGN); });  // under nohup too
}

TEST(PacketServerLog, statisticsCountWhatCameAndWhatEachClientGot) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    Server server({"--stats", "1", "--queue", "256k"});
    WatchedSocket client(server.port());
    unsigned int wanted = 2;
    client.pduKind().setTest(NwTestInclude, 1, &wanted);
    client.settle();
    UdpPeer sender;
    for (int i = 0; i < 300; ++i) sender.send(pdu(100, i, 7, 1, i % 3), server.port());
    ASSERT_TRUE(eventually([&] {
        const auto line = server.lastEvent("client statistics");
        return !line.is_null() && line["delivered"] == 100 && line["filtered"] == 200;
    })) << server.daemon().output();
    const auto statistics = server.lastEvent("statistics");
    EXPECT_EQ(statistics["datagrams"], 300);
    EXPECT_EQ(statistics["packets"], 300);
    EXPECT_EQ(statistics["kernelDropped"], 0);
    EXPECT_EQ(statistics["clients"], 1);
    const auto mine = server.lastEvent("client statistics");
    EXPECT_EQ(mine["dropped"], 0);
    EXPECT_GE(mine["queueHighWater"], 100 * 128 - (256 << 10) / 64);  // it is kept to within a 64th
    EXPECT_LE(mine["queueHighWater"], 100 * 128 + 1000);
    const int before = server.countEvents("statistics");
    EXPECT_TRUE(server.waitForEvents("statistics", before + 1));  // and again
}

// Whoever reads the log may have stopped to do so.
TEST(PacketServerLog, logThatNobodyReadsStopsNobody) {
    REQUIRE_PRIVATE_HOST();
    const Tame tame;
    const RunDirectory directory;
    const int port = freePort();
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    DaemonProcess daemon({"--port", std::to_string(port), "--run-dir", directory.path(), "--json"},
                         [&] { ::dup2(ends[1], STDOUT_FILENO); });
    ::close(ends[1]);
    ASSERT_TRUE(waitReadable(ends[0]));
    NwSetPacketServerDirectory(directory.path().c_str());
    WatchedSocket client(port);
    // More lines than a pipe holds: each comes and goes with two.
    for (int i = 0; i < 400 && !testing::Test::HasFailure(); ++i)
        WatchedSocket guest(port, WatchedSocket::control);
    ASSERT_FALSE(testing::Test::HasFailure());
    EXPECT_GT(client.serverState().pid, 0);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.finish().exitStatus, 0);
    NwSetPacketServerDirectory(nullptr);
    ::close(ends[0]);
}

}  // namespace
