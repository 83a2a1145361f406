// SPDX-License-Identifier: BSD-3-Clause
// A relay whose clients are killed all the time: those who stay lose nothing, and nothing is left behind.
// Takes some seconds; CVNET_SOAK_SECONDS=600 makes it ten minutes (run the test program itself, ctest would
// stop it).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "cvnet_process.h"
#include "network.h"
#include "packets.h"
#include "tcp_peer.h"

namespace {

const int kClients = 12;
const int kWitnessExercise = 77;

double soakSeconds() {
    const char* text = std::getenv("CVNET_SOAK_SECONDS");  // NOLINT(concurrency-mt-unsafe): one thread
    return text ? std::atof(text) : 3.0;
}

std::size_t descriptorsOf(pid_t pid) {
    const std::filesystem::directory_iterator list("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

std::size_t residentKilobytesOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) return std::strtoul(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

// A client in a process of its own, until it is killed. It sends whole packets in bursts, in pieces of any
// size; one in four never reads.
[[noreturn]] void beClient(int port, unsigned seed) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::minstd_rand random(seed);
    try {
        TcpPeer peer(port);
        const bool reads = seed % 4 != 0;
        std::string unsent;
        for (;;) {
            for (int i = 0; i < 5; ++i)
                unsent += pdu(12 + static_cast<int>(random() % 600), static_cast<int>(seed));
            const std::size_t cut = random() % (unsent.size() + 1);
            unsent.erase(0, peer.sendSome(unsent.substr(0, cut)));
            if (reads) peer.receiveSome();
            ::usleep(5000 + random() % 5000);
        }
    } catch (const std::exception&) {
    }
    ::pause();
    ::_exit(0);
}

// Two clients that stay: one sends numbered packets, the other gets every one of them, once and in order.
class Witnesses {
public:
    explicit Witnesses(int port) : mySender(port), myReader(port) {}

    void step() {
        std::string packet = pdu(144, 0, 7, kWitnessExercise);
        std::memcpy(&packet[12], &mySent, sizeof mySent);
        mySender.sendAll(packet);
        ++mySent;
        mySender.receiveSome();
        read();
    }
    bool gotAll() {
        return eventually([&] {
            mySender.receiveSome();
            read();
            return myReceived == mySent;
        });
    }
    unsigned sent() const { return mySent; }
    unsigned received() const { return myReceived; }

private:
    void read() {
        Walk packets = walk(myRest + myReader.receiveSome());
        myRest = packets.rest;
        for (const std::string& packet : packets.pdus) {
            if (static_cast<unsigned char>(packet[1]) != kWitnessExercise) continue;
            unsigned number = 0;
            std::memcpy(&number, &packet[12], sizeof number);
            EXPECT_EQ(number, myReceived);
            myReceived = number + 1;
        }
    }

    TcpPeer mySender;
    TcpPeer myReader;
    std::string myRest;
    unsigned mySent = 0;
    unsigned myReceived = 0;
};

class Soak {
public:
    explicit Soak(int port) : myPort(port) {}

    // Kills and replaces clients for some time, then kills them all.
    void run(double seconds, Witnesses& witnesses) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure()) {
            while (myClients.size() < static_cast<std::size_t>(kClients)) start();
            for (int i = 0; i < 5; ++i) {
                witnesses.step();
                ::usleep(2000);
            }
            kill(myRandom() % myClients.size());
        }
        while (!myClients.empty()) kill(0);
    }
    int killed() const { return myKilled; }

private:
    void start() {
        const unsigned seed = ++mySeed;
        const pid_t pid = ::fork();
        if (pid == 0) beClient(myPort, seed);
        myClients.push_back(pid);
    }
    void kill(std::size_t which) {
        ::kill(myClients[which], SIGKILL);
        ::waitpid(myClients[which], nullptr, 0);
        myClients.erase(myClients.begin() + static_cast<std::ptrdiff_t>(which));
        ++myKilled;
    }

    int myPort;
    std::vector<pid_t> myClients;
    std::minstd_rand myRandom{1};
    unsigned mySeed = 0;
    int myKilled = 0;
};

}  // namespace

TEST(RelaySoak, clientsKilledAtRandomLeaveNothingBehind) {
    CvnetProcess relay({"relay", "--port", "0", "--quiet", "--queue", "2000"});
    const int port = relay.listeningPort();
    const std::size_t descriptorsBefore = descriptorsOf(relay.pid()) + 2;  // with the witnesses' connections
    Witnesses witnesses(port);
    ASSERT_TRUE(eventually([&] { return descriptorsOf(relay.pid()) == descriptorsBefore; }));
    witnesses.step();
    ASSERT_TRUE(witnesses.gotAll());

    Soak soak(port);
    const auto runAndSettle = [&](double seconds) {
        soak.run(seconds, witnesses);
        EXPECT_TRUE(witnesses.gotAll()) << witnesses.received() << " of " << witnesses.sent();
        EXPECT_TRUE(eventually([&] { return descriptorsOf(relay.pid()) == descriptorsBefore; }));
        return residentKilobytesOf(relay.pid());
    };
    const std::size_t residentBefore =
        runAndSettle(1.5);  // until the relay has the memory that it works with
    const std::size_t residentAfter = runAndSettle(soakSeconds());
    std::cout << soak.killed() << " clients killed, " << witnesses.sent()
              << " packets between those who stayed; "
              << "descriptors " << descriptorsBefore << " before and " << descriptorsOf(relay.pid())
              << " after, resident " << residentBefore << " kB before and " << residentAfter << " kB after\n";
    // Sanitizers keep freed memory for themselves.
    if (std::strlen(CVNC_SANITIZER) == 0) {
        EXPECT_LE(residentAfter, residentBefore + 3000);
    }

    relay.signal(SIGTERM);
    const CvnetResult result = relay.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
}
