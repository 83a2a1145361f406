// SPDX-License-Identifier: BSD-3-Clause
// The asynchronous UDP socket under traffic: order, switches, several senders, and how it ends. Everything
// here runs the library's own class, so that the thread sanitizer may watch all of it.
//
// The kernel drops what a full receive buffer cannot take. Senders therefore keep no more under way than any
// buffer holds (kWindow), and what is then missing was lost by the library.
#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <cvutil/cvClock.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "async_peek.h"
#include "child.h"
#include "messages.h"
#include "network.h"
#include "packets.h"

extern char** environ;

namespace {

const unsigned char kReadQuietly = 1 | 8 | 16;
const unsigned char kWriteQuietly = 2 | 16;
const unsigned char kBothQuietly = 1 | 2 | 8 | 16;
const int kWindow = 100;
const double kEndBoundSeconds = 30;

// A PDU that carries a number.
std::string numbered(int number, int length = 60) {
    std::string packet = pdu(length);
    std::memcpy(&packet[12], &number, sizeof number);
    return packet;
}

int numberOf(const char* packet) {
    int number;
    std::memcpy(&number, packet + 12, sizeof number);
    return number;
}

int send(NwAsyncNetSocket& socket, std::string packet, NwIpv4Addr to = 0) {
    return socket.sendTo(&packet[0], packet.size(), to);
}

// The next packet's number; waits for it, and -1 when none comes.
int nextNumber(NwSocket& socket) {
    const NwClock clock;
    for (;;) {
        char* packet = nullptr;
        if (socket.NwRecv(&packet, static_cast<int*>(nullptr)) > 0) return numberOf(packet);
        if (clock.elapsedRealTime() > kPatienceMilliseconds / 1000.0) return -1;
        std::this_thread::yield();
    }
}

int threads() {
    int count = 0;
    DIR* tasks = ::opendir("/proc/self/task");
    while (const dirent* entry = ::readdir(tasks)) count += entry->d_name[0] != '.';
    ::closedir(tasks);
    return count;
}

// The threads of this process, one that a sanitizer starts along with the first of ours included.
int threadsAtRest() {
    std::thread([] {}).join();
    return threads();
}

// A thread that was joined is still to be seen for a moment.
bool areThreadsAgain(int count) {
    return eventually([&] { return threads() == count; });
}

// Sends to a port without a pause from another thread until it goes.
class Flood {
public:
    explicit Flood(int port) : myPort(port), myThread([this] { run(); }) {}
    ~Flood() {
        myStop = true;
        myThread.join();
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

private:
    void run() {
        UdpPeer peer;
        const std::string packet = pdu(60);
        while (!myStop) peer.send(packet, myPort);
    }

    const int myPort;
    std::atomic<bool> myStop{false};
    std::thread myThread;
};

class AsyncTraffic : public testing::Test {
protected:
    void SetUp() override {
        NwNetSocket::initErrorAction = 1;
        receiver.reset(new NwAsyncNetSocket(0, kLoopback, kReadQuietly, kLoopback));
        port = boundPort(receiver->readFd());
        sender.reset(new NwAsyncNetSocket(port, kLoopback, kWriteQuietly, kLoopback));
    }
    void TearDown() override {
        NwNetSocket::initErrorAction = 0;
        NwAsyncNetSocket::setQueueTimeout(0.01);
    }

    Messages messages;
    std::unique_ptr<NwAsyncNetSocket> receiver, sender;
    int port = 0;
};

}  // namespace

// --- order -----------------------------------------------------------------------------------------------

TEST_F(AsyncTraffic, keepsTheOrderOf100000Packets) {
    const int kPackets = 100000;
    int sent = 0;
    for (int i = 0; i < kPackets; ++i) {
        for (; sent < kPackets && sent < i + kWindow; ++sent) ASSERT_EQ(send(*sender, numbered(sent)), 60);
        ASSERT_EQ(nextNumber(*receiver), i);
    }
    EXPECT_EQ(receiver->NwReportPktsRcvd(), kPackets);
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(AsyncTraffic, keepsTheOrderOfPacketsInBundles) {
    const int kPackets = 20000;
    sender->setBundling(1400);
    int sent = 0;
    for (int i = 0; i < kPackets; ++i) {
        for (; sent < kPackets && sent < i + kWindow; ++sent) {
            std::string packet = numbered(sent);
            sender->NwSend(&packet[0], packet.size(), 0);
        }
        if (sent == kPackets || i == sent - kWindow) sender->flush();
        ASSERT_EQ(nextNumber(*receiver), i);
    }
}

// --- switches under traffic ------------------------------------------------------------------------------

namespace {

// Numbers sent by another thread, never more than kWindow ahead of what was received.
class NumberedTraffic {
public:
    NumberedTraffic(int port, int count) : myPort(port), myCount(count), myThread([this] { run(); }) {}
    ~NumberedTraffic() {
        myReceived = myCount;
        myThread.join();
    }
    NumberedTraffic(const NumberedTraffic&) = delete;
    NumberedTraffic& operator=(const NumberedTraffic&) = delete;

    void received(int number) { myReceived = number + 1; }

private:
    void run() {
        UdpPeer peer;
        for (int i = 0; i < myCount; ++i) {
            while (i >= myReceived + kWindow) std::this_thread::yield();
            peer.send(numbered(i), myPort);
        }
    }

    const int myPort, myCount;
    std::atomic<int> myReceived{0};
    std::thread myThread;
};

const int kSwitchedPackets = 30000;

}  // namespace

TEST_F(AsyncTraffic, switchingReceivingBackAndForthLosesAndReordersNothing) {
    for (bool blocking : {true, false}) {
        if (!blocking) receiver->NwBecomeNonBlocking();
        std::mt19937 random(4711);
        NumberedTraffic traffic(port, kSwitchedPackets);
        int untilSwitch = 0;
        for (int i = 0; i < kSwitchedPackets; ++i) {
            if (untilSwitch-- == 0) {
                receiver->setUsingAsyncReceive(!receiver->usingAsyncReceive());
                untilSwitch = static_cast<int>(random() % 40);
            }
            ASSERT_EQ(nextNumber(*receiver), i) << (blocking ? "blocking" : "non-blocking");
            traffic.received(i);
        }
        receiver->setUsingAsyncReceive(true);
    }
    EXPECT_EQ(receiver->NwReportPktsRcvd(), 2 * kSwitchedPackets);
}

TEST_F(AsyncTraffic, switchesOfReceivingMayComeFromAnotherThread) {
    receiver->NwBecomeNonBlocking();
    std::atomic<bool> done{false};
    NumberedTraffic traffic(port, kSwitchedPackets);
    std::thread switcher([&] {
        while (!done) {
            receiver->setUsingAsyncReceive(!receiver->usingAsyncReceive());
            std::this_thread::yield();
        }
    });
    int arrived = 0;
    while (arrived < kSwitchedPackets && nextNumber(*receiver) == arrived) traffic.received(arrived++);
    done = true;
    switcher.join();
    EXPECT_EQ(arrived, kSwitchedPackets);
}

// Under a flood a pass of the worker would not end by itself.
TEST_F(AsyncTraffic, callerGetsTheDescriptorAlsoUnderAFlood) {
    for (int i = 0; i < 20; ++i) {
        Flood flood(port);
        ASSERT_TRUE(eventually([&] { return AsyncPeek::received(*receiver) > 50; }));
        receiver->setUsingAsyncReceive(false);
        char* packet = nullptr;
        while (AsyncPeek::received(*receiver) > 0) receiver->NwRecv(&packet, static_cast<int*>(nullptr));
        const NwClock clock;
        ASSERT_EQ(receiver->NwRecv(&packet, static_cast<int*>(nullptr)), 60);
        EXPECT_LT(clock.elapsedRealTime(), kEndBoundSeconds);
        receiver->setUsingAsyncReceive(true);
    }
}

TEST_F(AsyncTraffic, switchingSendingLosesNothingAndEachWayKeepsItsOrder) {
    const int kAsync = 1, kDirect = 2;
    std::mt19937 random(4711);
    std::vector<bool> arrived(kSwitchedPackets);
    int sent = 0, last[3] = {-1, -1, -1}, untilSwitch = 0;
    for (int i = 0; i < kSwitchedPackets; ++i) {
        for (; sent < kSwitchedPackets && sent < i + kWindow; ++sent) {
            if (untilSwitch-- == 0) {
                sender->setUsingAsyncSend(!sender->usingAsyncSend());
                untilSwitch = static_cast<int>(random() % 40);
            }
            std::string packet = numbered(sent);
            packet[2] = static_cast<char>(sender->usingAsyncSend() ? kAsync : kDirect);
            ASSERT_EQ(send(*sender, packet), 60);
        }
        char* packet = nullptr;
        ASSERT_TRUE(eventually([&] { return receiver->NwRecv(&packet, static_cast<int*>(nullptr)) > 0; }))
            << i;
        const int number = numberOf(packet), way = packet[2];
        ASSERT_FALSE(arrived[static_cast<std::size_t>(number)]) << number << " came twice";
        arrived[static_cast<std::size_t>(number)] = true;
        ASSERT_GT(number, last[way]) << "way " << way;
        last[way] = number;
    }
    EXPECT_GT(last[kAsync], 0);
    EXPECT_GT(last[kDirect], 0);
}

// --- several senders -------------------------------------------------------------------------------------

TEST_F(AsyncTraffic, everyDatagramSpeaksOfItsOwnSender) {
    const int kSenders = 4, kRounds = 5000;
    std::vector<std::unique_ptr<UdpPeer>> peers;
    for (int i = 0; i < kSenders; ++i)
        peers.emplace_back(new UdpPeer(kLoopback + static_cast<NwIpv4Addr>(i)));
    std::atomic<int> received{0};
    std::thread feeder([&] {
        std::mt19937 random(7);
        for (int i = 0; i < kRounds; ++i) {
            while (i >= received + kWindow) std::this_thread::yield();
            const int who = static_cast<int>(random() % kSenders);
            // Two packets in each datagram: the second is delivered when the worker may have read on.
            peers[static_cast<std::size_t>(who)]->send(numbered(who) + numbered(who), port);
        }
    });
    int refused = 0;
    unsigned int unwanted[] = {kLoopback + 1};
    receiver->ipAddr().setTest(NwTestExclude, 1, unwanted);
    for (int i = 0; i < kRounds * 2; ++i) {
        char* packet = nullptr;
        int status = 0;
        EXPECT_TRUE(eventually([&] { return receiver->NwRecv(&packet, &status) > 0 || status == -2; }));
        const NwIpv4Addr source = receiver->lastSourceInetAddr();
        if (status == -2) {
            ++refused;
            EXPECT_EQ(source, kLoopback + 1);
        } else if (packet) {
            EXPECT_EQ(source, kLoopback + static_cast<NwIpv4Addr>(numberOf(packet))) << i;
            EXPECT_NE(source, kLoopback + 1);
        }
        received = (i + 1) / 2;
        if (HasFailure()) break;
    }
    received = kRounds;
    feeder.join();
    EXPECT_GT(refused, 0);
}

// --- the end ---------------------------------------------------------------------------------------------

namespace {

enum Load { kIdle, kTraffic, kFlood };

struct Ending {
    bool blocking;
    Load load;
};

void PrintTo(const Ending& ending, std::ostream* out) {
    const char* names[] = {"Idle", "UnderTraffic", "UnderAFlood"};
    *out << (ending.blocking ? "blocking" : "nonBlocking") << names[ending.load];
}

class AsyncEnding : public testing::TestWithParam<Ending> {};

}  // namespace

TEST_P(AsyncEnding, comesWithinItsBoundAndLeavesNoThread) {
    Quiet quiet;
    const int before = threadsAtRest();
    UdpPeer sink;
    std::unique_ptr<NwAsyncNetSocket> socket(new NwAsyncNetSocket(0, kLoopback, kBothQuietly, kLoopback));
    EXPECT_EQ(threads(), before + 2);
    if (!GetParam().blocking) socket->NwBecomeNonBlocking();
    socket->setSendPort(sink.port());

    std::vector<std::unique_ptr<Flood>> floods;
    if (GetParam().load == kFlood) {
        for (int i = 0; i < 2; ++i) floods.emplace_back(new Flood(boundPort(socket->readFd())));
    } else if (GetParam().load == kTraffic) {
        for (int i = 0; i < 100; ++i) {
            sink.send(pdu(60), boundPort(socket->readFd()));
            send(*socket, pdu(60));
        }
    }
    if (GetParam().load != kIdle) {
        ASSERT_TRUE(eventually([&] { return AsyncPeek::received(*socket) > 0; }));
    }
    const NwClock clock;
    socket.reset();
    EXPECT_LT(clock.elapsedRealTime(), kEndBoundSeconds);
    floods.clear();
    EXPECT_TRUE(areThreadsAgain(before)) << threads() << " instead of " << before;
}

INSTANTIATE_TEST_SUITE_P(Of, AsyncEnding,
                         testing::Values(Ending{true, kIdle}, Ending{false, kIdle}, Ending{true, kTraffic},
                                         Ending{false, kTraffic}, Ending{true, kFlood},
                                         Ending{false, kFlood}),
                         [](const testing::TestParamInfo<Ending>& row) {
                             return testing::PrintToString(row.param);
                         });

TEST_F(AsyncTraffic, endSendsWhatIsQueuedUnderAFlood) {
    std::unique_ptr<NwAsyncNetSocket> both(new NwAsyncNetSocket(0, kLoopback, kBothQuietly, kLoopback));
    Flood flood(boundPort(both->readFd()));
    both->setSendPort(port);
    for (int i = 0; i < kWindow; ++i) send(*both, numbered(i));
    both.reset();
    for (int i = 0; i < kWindow; ++i) ASSERT_EQ(nextNumber(*receiver), i);
}

TEST_F(AsyncTraffic, hugePollTimeDelaysNeitherTrafficNorTheEnd) {
    const double kDay = 86400;
    for (double seconds : {kDay, static_cast<double>(INFINITY)}) {
        NwAsyncNetSocket::setQueueTimeout(seconds);
        std::unique_ptr<NwAsyncNetSocket> in(new NwAsyncNetSocket(0, kLoopback, kReadQuietly, kLoopback));
        std::unique_ptr<NwAsyncNetSocket> out(
            new NwAsyncNetSocket(boundPort(in->readFd()), kLoopback, kWriteQuietly, kLoopback));
        for (int i = 0; i < 10; ++i) {
            send(*out, numbered(i));
            ASSERT_EQ(nextNumber(*in), i);
        }
        in->setUsingAsyncReceive(false);
        const NwClock clock;
        in.reset();
        out.reset();
        EXPECT_LT(clock.elapsedRealTime(), kEndBoundSeconds) << seconds;
    }
}

TEST_F(AsyncTraffic, pollTimeOfZeroOrLessOrNoneWorks) {
    for (double seconds : {0.0, -1.0, static_cast<double>(NAN)}) {
        NwAsyncNetSocket::setQueueTimeout(seconds);
        NwAsyncNetSocket in(0, kLoopback, kReadQuietly, kLoopback);
        NwAsyncNetSocket out(boundPort(in.readFd()), kLoopback, kWriteQuietly, kLoopback);
        send(out, numbered(5));
        EXPECT_EQ(nextNumber(in), 5);
    }
}

TEST_F(AsyncTraffic, settingsMayChangeWhileWorkersRun) {
    std::atomic<bool> done{false};
    std::thread changer([&] {
        for (int i = 0; !done; ++i) {
            NwAsyncNetSocket::setQueueTimeout(0.001 * (i % 20));
            NwSocket::setQuietSockets(i % 2 == 0);
            NwNetSocket::setRetryOnSend(static_cast<unsigned int>(i % 2), 0.0);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 2000; ++i) {
        receiver->setFilterPort(i % 3 == 0 ? 1 : -1);
        receiver->setMcastDevice(kLoopback);
        sender->setSendPort(i % 2 == 0 ? port : -1);
        send(*sender, numbered(i));
        ASSERT_EQ(nextNumber(*receiver), i);
    }
    done = true;
    changer.join();
    NwSocket::setQuietSockets(false);
    NwNetSocket::setRetryOnSend(0, 0.0);
}

// --- many of them ----------------------------------------------------------------------------------------

namespace {

// Says to a copy of this program how many sockets it is to make and destroy.
const char* const kCycles = "CVNC_TEST_CYCLES";

pid_t startCyclesOf(const char* count, const std::string& log) {
    ::setenv(kCycles, count, 1);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    char program[] = "/proc/self/exe", filter[] = "--gtest_filter=AsyncCycles.withTrafficEndCleanly";
    char* arguments[] = {program, filter, nullptr};
    pid_t pid = -1;
    if (::posix_spawn(&pid, program, &actions, nullptr, arguments, environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::unsetenv(kCycles);
    return pid;
}

std::string contentsAndRemove(const std::string& path) {
    std::string text;
    if (FILE* file = std::fopen(path.c_str(), "r")) {
        char part[4096];
        while (std::size_t count = std::fread(part, 1, sizeof part, file)) text.append(part, count);
        std::fclose(file);
    }
    ::unlink(path.c_str());
    return text;
}

}  // namespace

TEST(AsyncCycles, withTrafficEndCleanly) {
    Quiet quiet;
    NwNetSocket::initErrorAction = 1;
    const char* wanted = std::getenv(kCycles);
    const int cycles = wanted ? std::atoi(wanted) : 3;
    const int before = threadsAtRest();
    UdpPeer peer;
    for (int i = 0; i < cycles; ++i) {
        NwAsyncNetSocket socket(0, kLoopback, kBothQuietly, kLoopback);
        ASSERT_TRUE(socket.isOk());
        socket.setSendPort(peer.port());
        const int port = boundPort(socket.readFd());
        for (int k = 0; k < 20; ++k) {
            peer.send(numbered(k), port);
            send(socket, numbered(k));
        }
        if (i % 2 == 0) {
            ASSERT_EQ(nextNumber(socket), 0);
        }
        if (i % 3 == 0) socket.setUsingAsyncReceive(false);
        AsyncPeek::stop(socket);
        // The descriptors of the pipe stay open, as documented: this test is not about them.
        for (int end : {0, 1}) ::close(AsyncPeek::pipeEnds(socket)[end]);
        for (int k = 0; k < 20; ++k) ASSERT_EQ(numberOf(peer.receive().data()), k);
    }
    EXPECT_TRUE(areThreadsAgain(before)) << threads() << " instead of " << before;
}

TEST(AsyncCycles, thousandInTwentyProcessesSideBySide) {
    const int kProcesses = 20;
    const char* const kCyclesEach = "50";
    char directory[] = "/tmp/cvnc-cycles-XXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    std::vector<pid_t> processes;
    const auto logOf = [&](int i) { return std::string(directory) + "/" + std::to_string(i); };
    for (int i = 0; i < kProcesses; ++i) processes.push_back(startCyclesOf(kCyclesEach, logOf(i)));
    for (int i = 0; i < kProcesses; ++i) {
        int status = -1;
        EXPECT_EQ(::waitpid(processes[static_cast<std::size_t>(i)], &status, 0),
                  processes[static_cast<std::size_t>(i)]);
        const std::string output = contentsAndRemove(logOf(i));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n" << output;
        EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << output;
    }
    ::rmdir(directory);
}

// --- descriptors -----------------------------------------------------------------------------------------

TEST(AsyncDescriptors, moreThanAnySetHoldsAreNoHindrance) {
    rlimit limit;
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit former = limit;
    const rlim_t kNeeded = 2000;
    if (limit.rlim_cur < kNeeded) limit.rlim_cur = kNeeded;
    if (limit.rlim_max < kNeeded || ::setrlimit(RLIMIT_NOFILE, &limit) != 0)
        GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors are allowed";
    std::vector<int> fillers;
    for (int i = 0; i < 1100; ++i) fillers.push_back(::dup(2));
    ASSERT_GT(fillers.back(), FD_SETSIZE);
    {
        Quiet quiet;
        NwNetSocket::initErrorAction = 1;
        NwAsyncNetSocket receiver(0, kLoopback, kReadQuietly, kLoopback);
        NwAsyncNetSocket sender(boundPort(receiver.readFd()), kLoopback, kWriteQuietly, kLoopback);
        EXPECT_GT(receiver.readFd(), FD_SETSIZE);
        EXPECT_GT(AsyncPeek::pipeEnds(sender)[0], FD_SETSIZE);
        for (int i = 0; i < 20; ++i) {
            send(sender, numbered(i));
            ASSERT_EQ(nextNumber(receiver), i);
        }
    }
    for (int fd : fillers) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &former);
}

namespace {

// What someone types reaches the program and nobody else: reads it line by line beside a busy socket.
int readTypedBesideASocket(int keyboard) {
    const int kLines = 200;
    std::thread typist([keyboard] {
        for (int i = 0; i < kLines; ++i) {
            const std::string line = "line " + std::to_string(i) + "\n";
            if (::write(keyboard, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return;
            std::this_thread::yield();
        }
    });
    Quiet quiet;
    NwNetSocket::initErrorAction = 1;
    int result = 0;
    std::string read;
    for (int i = 0; i < kLines && result == 0; ++i) {
        std::unique_ptr<NwAsyncNetSocket> socket;
        // Many beginnings: that is when a worker may see a pipe that is not there yet.
        if (i % 20 == 0) socket.reset(new NwAsyncNetSocket(0, kLoopback, kBothQuietly, kLoopback));
        if (socket) send(*socket, "x");
        const std::string expected = "line " + std::to_string(i) + "\n";
        while (result == 0 && read.find('\n') == std::string::npos) {
            char bytes[64];
            if (!waitReadable(0)) {
                result = 10;
                break;
            }
            const ssize_t count = ::read(0, bytes, sizeof bytes);
            if (count <= 0)
                result = 11;
            else
                read.append(bytes, static_cast<std::size_t>(count));
        }
        if (result == 0 && read.compare(0, expected.size(), expected) != 0) result = 12;
        if (result == 0) read.erase(0, expected.size());
    }
    typist.join();
    if (::fcntl(0, F_GETFL) & O_NONBLOCK) return 13;
    return result;
}

}  // namespace

TEST(AsyncDescriptors, standardInputFromAPipeIsUntouched) {
    const ChildResult child = inChild([] {
        int ends[2];
        if (::pipe(ends) != 0) return 9;
        ::dup2(ends[0], 0);
        return readTypedBesideASocket(ends[1]);
    });
    EXPECT_EQ(child.exitStatus, 0) << child.output;
}

TEST(AsyncDescriptors, standardInputFromATerminalIsUntouched) {
    const ChildResult child = inChild([] {
        const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) return 98;
        const int terminal = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
        if (terminal < 0) return 98;
        termios plain;
        ::tcgetattr(terminal, &plain);
        plain.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHOE | ECHOK));
        ::tcsetattr(terminal, TCSANOW, &plain);
        ::dup2(terminal, 0);
        const int result = readTypedBesideASocket(master);
        if (result != 0) return result;
        return waitReadable(master, 0) ? 14 : 0;  // nothing was written to the terminal
    });
    if (child.exitStatus == 98) GTEST_SKIP() << "no terminals here";
    EXPECT_EQ(child.exitStatus, 0) << child.output;
}

// Closed at the start, descriptor 0 may become the socket's own, and is then read and written like any other.
TEST(AsyncDescriptors, closedStandardInputMayBecomeTheSocketsOwn) {
    const ChildResult child = inChild([] {
        Quiet quiet;
        NwNetSocket::initErrorAction = 1;
        ::close(0);
        NwAsyncNetSocket receiver(0, kLoopback, kReadQuietly, kLoopback);
        if (receiver.readFd() != 0) return 1;
        NwAsyncNetSocket sender(boundPort(0), kLoopback, kWriteQuietly, kLoopback);
        for (int i = 0; i < 20; ++i) {
            send(sender, numbered(i));
            if (nextNumber(receiver) != i) return 2;
        }
        return 0;
    });
    EXPECT_EQ(child.exitStatus, 0) << child.output;
    const ChildResult pipeChild = inChild([] {
        Quiet quiet;
        NwNetSocket::initErrorAction = 1;
        UdpPeer peer;
        char name[] = "adopted";  // so that the pipe is what is opened first
        UdpPeer adopted;
        ::close(0);
        NwAsyncNetSocket sender(name, adopted.fd(), kWriteQuietly);
        if (AsyncPeek::pipeEnds(sender)[0] != 0) return 98;
        sender.setSendPort(peer.port());
        for (int i = 0; i < 20; ++i) {
            send(sender, numbered(i), kLoopback);
            if (numberOf(peer.receive().data()) != i) return 2;
        }
        return 0;
    });
    EXPECT_EQ(pipeChild.exitStatus, 0) << pipeChild.output;
}
