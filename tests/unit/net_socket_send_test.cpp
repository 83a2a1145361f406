// SPDX-License-Identifier: BSD-3-Clause
// Sending by UDP: one datagram a call, retries, ports, and the call that sets up bundling both ways. What
// arrives is seen by a raw peer; what is asked of the kernel, and how often, is seen by a sendto() of our own
// that fails by appointment and else goes on to the kernel.
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"
#include "packets.h"

namespace {

struct SystemCall {
    int fd;
    const void* bytes;
    unsigned long length;
    int flags;
    sockaddr_in to;
    unsigned int addressSize;
    std::chrono::steady_clock::time_point when;
};

std::vector<SystemCall> theCalls;    // since the last clear()
std::deque<int> theAppointedFaults;  // the errno of each next call; 0 lets one pass

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t sendto(int fd, const void* bytes, size_t length,
                                                                 int flags, const sockaddr* to,
                                                                 socklen_t addressSize) {
    SystemCall call = {fd, bytes, length, flags, {}, addressSize, std::chrono::steady_clock::now()};
    if (to && addressSize >= sizeof call.to) std::memcpy(&call.to, to, sizeof call.to);
    theCalls.push_back(call);
    if (!theAppointedFaults.empty()) {
        const int fault = theAppointedFaults.front();
        theAppointedFaults.pop_front();
        if (fault != 0) {
            errno = fault;
            return -1;
        }
    }
    return ::syscall(SYS_sendto, fd, bytes, length, flags, to, addressSize);
}

namespace {

const NwIpv4Addr kUnreachable = 0x0A090901u;  // no route leads there in a private network

unsigned char mode(int bits) {
    return static_cast<unsigned char>(bits);
}

class Probe : public NwNetSocket {
public:
    using NwNetSocket::bundles;
    using NwNetSocket::filterPort;
    using NwNetSocket::NwNetSocket;
    using NwNetSocket::port;
    using NwNetSocket::sendPort;
    using NwNetSocket::socketFd;
};

bool operator==(const sockaddr_in& a, const sockaddr_in& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

sockaddr_in address(NwIpv4Addr addr, int port) {
    sockaddr_in result;
    std::memset(&result, 0, sizeof result);
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(addr);
    result.sin_port = htons(static_cast<in_port_t>(port));
    return result;
}

class UdpSend : public testing::Test {
protected:
    UdpSend() { start(); }
    ~UdpSend() override { start(); }

    int sendTo(NwNetSocket& sender, std::string packet, NwIpv4Addr to) {
        theCalls.clear();
        const int result = sender.sendTo(&packet[0], packet.size(), to);
        packet.assign(packet.size(), '#');
        return result;
    }
    static void failNext(int times, int error) {
        theAppointedFaults.assign(static_cast<std::size_t>(times), error);
    }
    static void failNext(std::initializer_list<int> errors) { theAppointedFaults.assign(errors); }
    static std::string retried(unsigned long first, unsigned long limit, int result) {
        return "NwNetSocket::retrySendTo: Blocked, retried " + std::to_string(first) + " of " +
               std::to_string(limit) + " times.  Returning: " + std::to_string(result) + "\n";
    }
    static std::string report(int error) { return systemReport("NetSocket::sendTo", error); }

    Messages messages;
    UdpPeer peer;
    Probe socket{peer.port(), kLoopback, mode(2 | 16), kLoopback};

private:
    static void start() {
        theCalls.clear();
        theAppointedFaults.clear();
        NwNetSocket::theMaxSendRetries = 0;
        NwNetSocket::theSendRetryPeriod = 0.0;
    }
};

}  // namespace

// --- one datagram ----------------------------------------------------------------------------------------

TEST_F(UdpSend, bytesArriveAsTheyAreInOneDatagram) {
    std::string all;
    for (int value = 0; value < 256; ++value) all += static_cast<char>(value);
    EXPECT_EQ(sendTo(socket, all, kLoopback), 256);
    EXPECT_EQ(peer.receive(), all);
    for (std::size_t size : {1u, 2u, 11u, 12u, 1400u, 1472u, 1473u, 15000u, 15001u, 65507u}) {
        const std::string packet(size, 'x');
        EXPECT_EQ(sendTo(socket, packet, kLoopback), static_cast<int>(size))
            << "the largest packet setting is no limit here";
        EXPECT_EQ(peer.receive(), packet);
    }
    EXPECT_TRUE(peer.isEmpty());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, isOneSystemCallWithoutFlags) {
    std::string packet = "abc";
    EXPECT_EQ(socket.sendTo(&packet[0], 3, 0x7F000002u), 3);
    ASSERT_EQ(theCalls.size(), 1u);
    const SystemCall& call = theCalls[0];
    EXPECT_EQ(call.fd, socket.socketFd);
    EXPECT_EQ(call.bytes, packet.data()) << "no copy on the way";
    EXPECT_EQ(call.length, 3u);
    EXPECT_EQ(call.flags, 0);
    EXPECT_EQ(call.addressSize, 16u);
    EXPECT_TRUE(call.to == address(0x7F000002u, peer.port()));
}

TEST_F(UdpSend, sourceIsTheSocketsOwnPortWhenItReads) {
    Probe both(freePort(), kLoopback, mode(3 | 16), kLoopback);
    both.setSendPort(peer.port());
    EXPECT_EQ(sendTo(both, "abc", kLoopback), 3);
    EXPECT_EQ(peer.receive(), "abc");
    EXPECT_EQ(peer.lastSenderPort(), both.port);
    EXPECT_EQ(peer.lastSender(), kLoopback);
}

TEST_F(UdpSend, destinationZeroIsTheSocketsOwn) {
    UdpPeer other(0x7F000009u);
    Probe elsewhere(other.port(), 0x7F000009u, mode(2 | 16), kLoopback);
    EXPECT_EQ(sendTo(elsewhere, "default", 0), 7);
    EXPECT_EQ(sendTo(elsewhere, "default again", NwUSE_DEFAULT_IP_ADDR), 13);
    EXPECT_EQ(other.receive(), "default");
    EXPECT_EQ(other.receive(), "default again");
    EXPECT_TRUE(theCalls.at(0).to == address(0x7F000009u, other.port()));
}

TEST_F(UdpSend, broadcastIsEnabledWhateverTheDestination) {
    UdpPeer everywhere(0, 0);
    socket.setSendPort(everywhere.port());
    EXPECT_EQ(sendTo(socket, "to all", 0x7FFFFFFFu), 6);  // the broadcast address of loopback
    EXPECT_EQ(everywhere.receive(), "to all");
}

TEST_F(UdpSend, emptyPacketIsZeroWithoutASystemCall) {
    EXPECT_EQ(sendTo(socket, "", kLoopback), 0);
    EXPECT_EQ(socket.sendTo(nullptr, 0, 0), 0);
    EXPECT_EQ(socket.sendTo(nullptr, 0, kUnreachable), 0);
    NwNetSocket::setRetryOnSend(3, 0.0);
    EXPECT_EQ(socket.NwSend(nullptr, 0, 0), 0);
    EXPECT_TRUE(theCalls.empty());
    EXPECT_TRUE(peer.isEmpty());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, withoutWriteSideItWarnsAndFails) {
    for (int bits : {0, 1, 4, 5, 8, 9, 16, 17}) {
        Probe reader(freePort(), kLoopback, mode(bits | 16), kLoopback);
        EXPECT_EQ(sendTo(reader, "abc", kLoopback), -1) << bits;
        EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
        EXPECT_EQ(sendTo(reader, "abc", 0), -1) << bits;
        EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
        EXPECT_TRUE(theCalls.empty());
    }
    EXPECT_EQ(messages.all(), "");
    EXPECT_TRUE(peer.isEmpty());
}

TEST_F(UdpSend, missingWriteSideIsFoundBeforeTheEmptyPacket) {
    Probe reader(freePort(), kLoopback, mode(1 | 16), kLoopback);
    EXPECT_EQ(reader.sendTo(nullptr, 0, kLoopback), -1);
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
}

TEST_F(UdpSend, missingWriteSideIsSilentWhileQuietAndNeverRetried) {
    Quiet quiet;
    NwNetSocket::setRetryOnSend(3, 0.0);
    Probe reader(freePort(), kLoopback, mode(1), kLoopback);
    EXPECT_EQ(sendTo(reader, "abc", kLoopback), -1);
    EXPECT_TRUE(theCalls.empty());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, lengthsBeyondAnIntReachTheKernelUncut) {
    for (unsigned long length :
         {0x7FFFFFFFul, 0x80000000ul, 0xFFFFFFFFul, 0x100000000ul, 0x100000001ul, ULONG_MAX}) {
        theCalls.clear();
        failNext(1, EMSGSIZE);
        char byte = 0;
        EXPECT_EQ(socket.sendTo(&byte, length, kLoopback), -1);
        ASSERT_EQ(theCalls.size(), 1u);
        EXPECT_EQ(theCalls[0].length, length);
        EXPECT_EQ(messages.warn(), report(EMSGSIZE));
    }
}

// --- ports -----------------------------------------------------------------------------------------------

TEST_F(UdpSend, sendPortReplacesThePortUntilItIsMinusOne) {
    UdpPeer other;
    EXPECT_EQ(socket.sendPort, -1);
    socket.setSendPort(other.port());
    EXPECT_EQ(sendTo(socket, "there", 0), 5);
    EXPECT_EQ(sendTo(socket, "there too", kLoopback), 9);
    EXPECT_EQ(other.receive(), "there");
    EXPECT_EQ(other.receive(), "there too");
    socket.setSendPort(-1);
    EXPECT_EQ(sendTo(socket, "here", 0), 4);
    EXPECT_EQ(peer.receive(), "here");
    EXPECT_TRUE(other.isEmpty());
    EXPECT_EQ(socket.port, peer.port()) << "the socket's own port stays";
}

TEST_F(UdpSend, portsAreStoredByValueAndAsGiven) {
    int given = 5000;
    socket.setSendPort(given);
    socket.setFilterPort(given);
    given = 1;
    EXPECT_EQ(socket.sendPort, 5000);
    EXPECT_EQ(socket.filterPort, 5000);
    for (int value : {-1, 0, -2, 65535, 70000, INT_MIN, INT_MAX}) {
        socket.setSendPort(value);
        socket.setFilterPort(value);
        EXPECT_EQ(socket.sendPort, value);
        EXPECT_EQ(socket.filterPort, value);
    }
}

TEST_F(UdpSend, onlyMinusOneMeansNoSendPort) {
    const int cases[][2] = {{0, 0}, {-2, 65534}, {65535, 65535}, {65536 + 7, 7}};
    for (const auto& c : cases) {
        failNext(1, EPERM);
        socket.setSendPort(c[0]);
        EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
        ASSERT_EQ(theCalls.size(), 1u);
        EXPECT_TRUE(theCalls[0].to == address(kLoopback, c[1])) << c[0];
    }
}

TEST_F(UdpSend, filterPortDoesNotTouchSends) {
    socket.setFilterPort(peer.port());
    EXPECT_EQ(sendTo(socket, "abc", 0), 3);
    EXPECT_EQ(peer.receive(), "abc");
}

TEST_F(UdpSend, bundlesGoToThePortThatHoldsWhenTheyLeave) {
    UdpPeer other;
    socket.setBundling(100);
    char packet[] = "abc";
    socket.NwSend(packet, 3, 0);
    socket.setSendPort(other.port());
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(other.receive(), "abc");
}

// --- failures without retries ----------------------------------------------------------------------------

TEST_F(UdpSend, failureIsReportedAtOnceAndNotRetriedByDefault) {
    failNext(1, ENOBUFS);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    EXPECT_EQ(theCalls.size(), 1u);
    EXPECT_EQ(messages.warn(), report(ENOBUFS));
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(sendTo(socket, "def", kLoopback), 3);
    EXPECT_EQ(peer.receive(), "def");
}

TEST_F(UdpSend, failureIsSilentWhileQuiet) {
    Quiet quiet;
    failNext(1, ENOBUFS);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, interruptedCallIsReportedLikeAnyOther) {
    failNext(1, EINTR);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    EXPECT_EQ(theCalls.size(), 1u) << "a single system call stays single";
    EXPECT_EQ(messages.warn(), report(EINTR));
}

TEST_F(UdpSend, unreachableNetworkIsReported) {
    REQUIRE_PRIVATE_NETWORK();
    EXPECT_EQ(sendTo(socket, "abc", kUnreachable), -1);
    EXPECT_EQ(messages.warn(), report(ENETUNREACH));
}

TEST_F(UdpSend, packetBeyondADatagramIsReported) {
    EXPECT_EQ(sendTo(socket, std::string(65508, 'x'), kLoopback), -1);
    EXPECT_EQ(messages.warn(), report(EMSGSIZE));
    EXPECT_TRUE(peer.isEmpty());
}

TEST_F(UdpSend, fullSendBufferOfANonBlockingSocketIsReported) {
    REQUIRE_PRIVATE_NETWORK();
    Host here, there;
    here.connect("here", "10.9.0.1/24", there, "there", "10.9.0.2/24");
    here.in([&] {
        // Nobody answers for 10.9.0.77: datagrams wait for its hardware address and fill the buffer.
        Probe stuck(freePort(), 0x0A09004Du, mode(2 | 16), 0x0A090001u);
        stuck.NwBecomeNonBlocking();
        stuck.setSendBufferSize(1);  // the kernel makes that its minimum
        NwNetSocket::setRetryOnSend(3, 0.01);
        const std::string packet(1400, 'x');
        int result = 0;
        for (int i = 0; i < 100 && result != -1; ++i) result = sendTo(stuck, packet, 0);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(theCalls.size(), 4u);
        EXPECT_EQ(messages.debug(), retried(4, 3, -1));
        EXPECT_EQ(messages.warn(), report(EAGAIN));
        NwNetSocket::setRetryOnSend(0, 0);
        EXPECT_EQ(sendTo(stuck, packet, 0), -1);
        EXPECT_EQ(messages.warn(), report(EAGAIN));
        EXPECT_EQ(messages.all(), "");
    });
}

TEST_F(UdpSend, failedBundleStaysAndLeavesWithTheNextFlush) {
    socket.setBundling(100);
    char packet[] = "abcdef";
    EXPECT_EQ(socket.NwSend(packet, 6, 0), 0);
    failNext(1, ENOBUFS);
    EXPECT_EQ(socket.flush(), -1);
    EXPECT_EQ(messages.warn(), report(ENOBUFS));
    EXPECT_EQ(socket.bundles[0].size(), 6u);
    EXPECT_EQ(socket.NwSend(packet, 2, 0), 0);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(), "abcdefab");
}

// --- retries ---------------------------------------------------------------------------------------------

TEST_F(UdpSend, sendThatKeepsFailingIsTriedOnceAndThenAsOftenAsSet) {
    NwNetSocket::setRetryOnSend(3, 0.01);
    failNext(100, EAGAIN);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(theCalls.size(), 4u) << "one and three more";
    EXPECT_GE(elapsed.count(), 0.03);
    EXPECT_EQ(messages.debug(), retried(4, 3, -1)) << "the count reads one too many: meant";
    EXPECT_EQ(messages.warn(), report(EAGAIN)) << "reported once, after the last";
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, eachRetryIsTheSameDatagramAfterTheWholePeriod) {
    NwNetSocket::setRetryOnSend(3, 0.01);
    failNext(4, EAGAIN);
    std::string packet = "abc";
    EXPECT_EQ(socket.sendTo(&packet[0], 3, 0x7F000002u), -1);
    ASSERT_EQ(theCalls.size(), 4u);
    for (std::size_t i = 1; i < 4; ++i) {
        const std::chrono::duration<double> pause = theCalls[i].when - theCalls[i - 1].when;
        EXPECT_GE(pause.count(), 0.01) << i;
        EXPECT_EQ(theCalls[i].bytes, packet.data());
        EXPECT_EQ(theCalls[i].length, 3u);
        EXPECT_EQ(theCalls[i].flags, 0);
        EXPECT_EQ(theCalls[i].fd, socket.socketFd);
        EXPECT_TRUE(theCalls[i].to == address(0x7F000002u, peer.port()));
    }
}

TEST_F(UdpSend, firstSuccessEndsTheRetriesAndIsTheResult) {
    for (unsigned int failing = 1; failing <= 3; ++failing) {
        NwNetSocket::setRetryOnSend(3, 0.0);
        failNext(static_cast<int>(failing), EAGAIN);
        EXPECT_EQ(sendTo(socket, "abcd", kLoopback), 4);
        EXPECT_EQ(theCalls.size(), failing + 1);
        EXPECT_EQ(messages.debug(), retried(failing + 1, 3, 4)) << "one more than the sends repeated";
        EXPECT_EQ(messages.warn(), "") << "a retry that succeeds is no failure";
        EXPECT_EQ(peer.receive(), "abcd");
    }
    EXPECT_TRUE(peer.isEmpty());
}

TEST_F(UdpSend, successAtOnceRetriesNothing) {
    NwNetSocket::setRetryOnSend(3, 1000.0);
    EXPECT_EQ(sendTo(socket, "abcd", kLoopback), 4);
    EXPECT_EQ(theCalls.size(), 1u);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, anyFailureIsRetriedNotOnlyAFullBuffer) {
    NwNetSocket::setRetryOnSend(2, 0.0);
    failNext(1, EINTR);
    EXPECT_EQ(sendTo(socket, "abcd", kLoopback), 4);
    EXPECT_EQ(messages.debug(), retried(2, 2, 4));
    EXPECT_EQ(sendTo(socket, std::string(65508, 'x'), kLoopback), -1);
    EXPECT_EQ(theCalls.size(), 3u);
    EXPECT_EQ(messages.debug(), retried(3, 2, -1));
    EXPECT_EQ(messages.warn(), report(EMSGSIZE));
}

TEST_F(UdpSend, reportTellsTheLastError) {
    NwNetSocket::setRetryOnSend(2, 0.0);
    failNext({EAGAIN, EMSGSIZE, ENOBUFS});
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    EXPECT_EQ(messages.warn(), report(ENOBUFS));
}

TEST_F(UdpSend, debugLineComesBeforeTheReport) {
    std::stringbuf both;
    std::streambuf* const warn = NwWarn.rdbuf(&both);
    std::streambuf* const debug = NwDebug.rdbuf(&both);
    NwNetSocket::setRetryOnSend(1, 0.0);
    failNext(2, ENOBUFS);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    NwWarn.rdbuf(warn);
    NwDebug.rdbuf(debug);
    EXPECT_EQ(both.str(), retried(2, 1, -1) + report(ENOBUFS));
}

TEST_F(UdpSend, debugLineNeedsItsLevel) {
    NwNetSocket::setRetryOnSend(1, 0.0);
    NwSetOutputLevel(NwOutputVerbose);
    failNext(2, ENOBUFS);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    EXPECT_EQ(messages.debug(), "");
    EXPECT_EQ(messages.warn(), report(ENOBUFS));
}

TEST_F(UdpSend, retriesAreSilentWhileQuietButDone) {
    Quiet quiet;
    NwNetSocket::setRetryOnSend(2, 0.0);
    failNext(3, ENOBUFS);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
    EXPECT_EQ(theCalls.size(), 3u);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSend, hugeLimitEndsWithTheFirstSuccess) {
    NwNetSocket::setRetryOnSend(UINT_MAX, 0.0);
    failNext(1, EAGAIN);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), 3);
    EXPECT_EQ(messages.debug(), retried(2, 4294967295ul, 3));
}

TEST_F(UdpSend, periodThatIsNoFiniteNumberCountsAsZero) {
    for (double period : {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                          std::numeric_limits<double>::quiet_NaN()}) {
        NwNetSocket::setRetryOnSend(2, period);
        failNext(3, EAGAIN);
        EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);  // and not never
        EXPECT_EQ(theCalls.size(), 3u);
    }
}

TEST_F(UdpSend, periodOfZeroOrLessRetriesAtOnce) {
    for (double period : {0.0, -0.0, -1.0, -1e300}) {
        NwNetSocket::setRetryOnSend(2, period);
        failNext(3, EAGAIN);
        EXPECT_EQ(sendTo(socket, "abc", kLoopback), -1);
        EXPECT_EQ(theCalls.size(), 3u);
    }
}

TEST_F(UdpSend, settingsAssignedDirectlyAreRead) {
    NwNetSocket::theMaxSendRetries = 1;
    failNext(1, EAGAIN);
    EXPECT_EQ(sendTo(socket, "abc", kLoopback), 3);
    EXPECT_EQ(theCalls.size(), 2u);
}

TEST_F(UdpSend, retryCalledDirectlySendsOnlyAsOftenAsSet) {
    sockaddr_in to = address(kLoopback, peer.port());
    char packet[] = "direct";
    EXPECT_EQ(socket.retrySendTo(packet, 6, to), -1);
    EXPECT_TRUE(theCalls.empty());
    EXPECT_EQ(messages.debug(), retried(1, 0, -1)) << "the test that ends the loop counts";
    NwNetSocket::setRetryOnSend(2, 0.0);
    EXPECT_EQ(socket.retrySendTo(packet, 6, to), 6);
    EXPECT_EQ(theCalls.size(), 1u);
    EXPECT_EQ(messages.debug(), retried(2, 2, 6));
    EXPECT_EQ(peer.receive(), "direct");
    EXPECT_EQ(messages.all(), "") << "it reports no failure itself";
}

namespace {

// Replaces the retry and answers as told.
class RetryRecorder : public Probe {
public:
    using Probe::Probe;
    int retrySendTo(char* buf, unsigned long len, sockaddr_in& to) override {
        ++calls;
        given.assign(buf, len);
        destination = to;
        return answer;
    }
    int calls = 0;
    int answer = -1;
    std::string given;
    sockaddr_in destination;
};

}  // namespace

TEST_F(UdpSend, retryGoesThroughTheVirtualTableAndItsResultCounts) {
    RetryRecorder recorder(peer.port(), kLoopback, mode(2 | 16), kLoopback);
    NwNetSocket::setRetryOnSend(1, 0.0);
    for (int answer : {3, 0, -2, -1}) {
        recorder.answer = answer;
        recorder.calls = 0;
        failNext(1, ENOBUFS);
        EXPECT_EQ(sendTo(recorder, "abc", 0x7F000002u), answer);
        EXPECT_EQ(recorder.calls, 1);
        EXPECT_EQ(recorder.given, "abc");
        EXPECT_TRUE(recorder.destination == address(0x7F000002u, peer.port()));
        EXPECT_EQ(messages.warn().empty(), answer != -1) << "only -1 is a failure to report";
    }
}

TEST_F(UdpSend, retryIsNotAskedWithoutFailureOrWithoutRetries) {
    RetryRecorder recorder(peer.port(), kLoopback, mode(2 | 16), kLoopback);
    failNext(1, ENOBUFS);
    EXPECT_EQ(sendTo(recorder, "abc", kLoopback), -1);
    NwNetSocket::setRetryOnSend(1, 0.0);
    EXPECT_EQ(sendTo(recorder, "abc", kLoopback), 3);
    EXPECT_EQ(recorder.calls, 0);
}

// --- bundling in both directions -------------------------------------------------------------------------

namespace {

class SettingRecorder : public Probe {
public:
    using NwNetSocket::setBundling;
    using Probe::Probe;
    void setBundling(int size) override { note("setBundling", size); }
    void setUnbundling(int on) override { note("setUnbundling", on); }
    void setMinPacketSize(int size) override { note("setMinPacketSize", size); }
    void setSizeOffset(int offset) override { note("setSizeOffset", offset); }
    void setSizeLength(int length) override { note("setSizeLength", length); }
    void enableDisHeaderTest(bool on) override { note("enableDisHeaderTest", on); }
    std::vector<std::string> log;

private:
    void note(const char* what, int value) { log.push_back(std::string(what) + " " + std::to_string(value)); }
};

}  // namespace

TEST_F(UdpSend, oneCallSetsUpBothDirectionsStepByStepThroughTheVirtualTable) {
    SettingRecorder recorder(peer.port(), kLoopback, mode(2 | 16), kLoopback);
    recorder.setBundling(1400, true, 13, 4, 3, false);
    EXPECT_EQ(recorder.log,
              (std::vector<std::string>{"setBundling 1400", "setUnbundling 1", "setMinPacketSize 13",
                                        "setSizeOffset 4", "setSizeLength 3", "enableDisHeaderTest 0"}));
    recorder.log.clear();
    recorder.setBundling(0, false, -1, -2, 0, true);
    EXPECT_EQ(recorder.log,
              (std::vector<std::string>{"setBundling 0", "setUnbundling 0", "setMinPacketSize -1",
                                        "setSizeOffset -2", "setSizeLength 0", "enableDisHeaderTest 1"}));
}

TEST_F(UdpSend, oneCallSetsUpBothDirections) {
    socket.setBundling(1000, false, 20, 2, 4, false);
    EXPECT_EQ(socket.isBundling(), 1000);
    EXPECT_FALSE(socket.isUnbundling());
    EXPECT_EQ(socket.minPacketSize(), 20);
    EXPECT_EQ(socket.sizeOffset(), 2);
    EXPECT_EQ(socket.sizeLength(), 4);
    EXPECT_FALSE(socket.testDisHeader());
    EXPECT_EQ(messages.all(), "");
    socket.setBundling(100000, true, 12, 8, 3, true);
    EXPECT_EQ(socket.isBundling(), 15000);
    EXPECT_TRUE(socket.isUnbundling());
    EXPECT_EQ(socket.minPacketSize(), 12);
    EXPECT_EQ(socket.sizeOffset(), 8);
    EXPECT_EQ(socket.sizeLength(), 2) << "with its check";
    EXPECT_TRUE(socket.testDisHeader());
    EXPECT_EQ(messages.warn(), "Invalid value for size, using default value of 2\n");
}

TEST_F(UdpSend, oneCallForBothDirectionsSendsWhatWaitsToo) {
    socket.setBundling(100);
    char packet[] = "abc";
    socket.NwSend(packet, 3, 0);
    socket.setBundling(0, true, 12, 8, 2, true);
    EXPECT_EQ(peer.receive(), "abc");
    EXPECT_EQ(socket.isBundling(), 0);
}

TEST_F(UdpSend, settingTheBundleSizeAloneLeavesTheOtherDirection) {
    socket.setBundling(0, false, 20, 2, 4, false);
    socket.setBundling(1400);
    EXPECT_EQ(socket.isBundling(), 1400);
    EXPECT_FALSE(socket.isUnbundling());
    EXPECT_EQ(socket.minPacketSize(), 20);
    EXPECT_EQ(socket.sizeOffset(), 2);
    EXPECT_EQ(socket.sizeLength(), 4);
    EXPECT_FALSE(socket.testDisHeader());
}

TEST_F(UdpSend, bundlesCarryThePacketsEndToEndWithNothingBetween) {
    socket.setBundling(1400);
    std::string expected;
    for (int i = 0; i < 9; ++i) {
        std::string packet = pdu(144, i);
        expected += packet;
        EXPECT_EQ(socket.NwSend(&packet[0], packet.size(), 0), 0);
    }
    EXPECT_TRUE(theCalls.empty());
    std::string tenth = pdu(144, 9);
    EXPECT_EQ(socket.NwSend(&tenth[0], tenth.size(), 0), 9 * 144);
    EXPECT_EQ(theCalls.size(), 1u);
    EXPECT_EQ(peer.receive(), expected);
    EXPECT_EQ(socket.flush(), 1);
    EXPECT_EQ(peer.receive(), tenth);
}
