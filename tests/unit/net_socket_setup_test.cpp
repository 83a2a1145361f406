// SPDX-License-Identifier: BSD-3-Clause
// Opening and closing a UDP socket: modes, addresses, messages, failures, adopted descriptors.
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <type_traits>

#include "child.h"
#include "messages.h"
#include "network.h"

static bool descriptorsAreUsedUp = false;

// In the place of the system's: fails by appointment, and else goes on to the kernel. (A limit on the process
// would do, but it disturbs the sanitizers.)
extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) noexcept {
    if (!descriptorsAreUsedUp) return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
    errno = EMFILE;
    return -1;
}

static int refusedOption = -1;  // of SOL_SOCKET

extern "C" __attribute__((visibility("default"))) int setsockopt(int fd, int level, int name,
                                                                 const void* value, socklen_t size) noexcept {
    if (level != SOL_SOCKET || name != refusedOption)
        return static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, size));
    errno = EPERM;
    return -1;
}

namespace {

const NwIpv4Addr kNobodysAddress = 0xC0000201u;  // 192.0.2.1, an address of documentation
const NwIpv4Addr kGroup = 0xEF010203u;           // 239.1.2.3

const int kRead = 1;
const int kWrite = 2;
const int kBothSides = 3;
const int kQuietStart = 16;

unsigned char mode(int bits) {
    return static_cast<unsigned char>(bits);
}

// Opens the fields, which derived classes may use.
class Probe : public NwNetSocket {
public:
    using NwNetSocket::adoptedAddr;
    using NwNetSocket::adoptedFd;
    using NwNetSocket::blocking;
    using NwNetSocket::boundToDest;
    using NwNetSocket::bufferSize;
    using NwNetSocket::bundleCursor;
    using NwNetSocket::bundleExercise;
    using NwNetSocket::bundleProtocol;
    using NwNetSocket::bytesLeftInBundle;
    using NwNetSocket::copyBuffer;
    using NwNetSocket::destAddr;
    using NwNetSocket::destSockAddr;
    using NwNetSocket::filterPort;
    using NwNetSocket::firstInBundle;
    using NwNetSocket::mcastDevice_;
    using NwNetSocket::minPacketSize_;
    using NwNetSocket::mode;
    using NwNetSocket::NwNetSocket;
    using NwNetSocket::ok;
    using NwNetSocket::packetsReceived;
    using NwNetSocket::port;
    using NwNetSocket::recvBuffer;
    using NwNetSocket::reserved;
    using NwNetSocket::sendPort;
    using NwNetSocket::sizeLength_;
    using NwNetSocket::sizeOffset_;
    using NwNetSocket::socketFd;
    using NwNetSocket::sourceSockAddr;
    using NwNetSocket::testDisHeader_;
    using NwNetSocket::unbundling;
};

int option(int fd, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    ::getsockopt(fd, SOL_SOCKET, name, &value, &size);
    return value;
}

sockaddr_in localAddress(int fd) {
    sockaddr_in result = {};
    socklen_t size = sizeof result;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&result), &size);
    return result;
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// An address built by hand, for a comparison of all 16 bytes.
sockaddr_in address(NwIpv4Addr addr, int port) {
    sockaddr_in result;
    std::memset(&result, 0, sizeof result);
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(addr);
    result.sin_port = htons(static_cast<in_port_t>(port));
    return result;
}

bool same(const sockaddr_in& a, const sockaddr_in& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

sockaddr_in zeroes() {
    sockaddr_in result;
    std::memset(&result, 0, sizeof result);
    return result;
}

// Closes when it goes, so that a failing test leaks nothing.
class Descriptor {
public:
    explicit Descriptor(int fd) : myFd(fd) {}
    ~Descriptor() {
        if (myFd >= 0) ::close(myFd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return myFd; }

private:
    int myFd;
};

// While it lives, the system has no descriptors left for new sockets.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() { descriptorsAreUsedUp = true; }
    ~NoMoreDescriptors() { descriptorsAreUsedUp = false; }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;
};

// While it lives, the system refuses one socket option.
class Refused {
public:
    explicit Refused(int name) { refusedOption = name; }
    ~Refused() { refusedOption = -1; }
    Refused(const Refused&) = delete;
    Refused& operator=(const Refused&) = delete;
};

std::string number(int value) {
    return std::to_string(value);
}

const char kNoBroadcast[] = "Couldn't find an IP interface capable of broadcast.\n";

// Failures return, and every message is caught.
class UdpSetup : public testing::Test {
protected:
    UdpSetup() { NwNetSocket::initErrorAction = 1; }
    ~UdpSetup() override {
        NwNetSocket::initErrorAction = 0;
        theMaxPacketSize = 15000;
        NwSetFatalHandler(nullptr);
    }

    // The line of a socket that opened.
    std::string readLine() const { return "NetSocket ok to read port " + number(port) + "\n"; }
    std::string writeLine(const std::string& to, const std::string& bound = "") const {
        return "NetSocket ok for port " + number(port) + " to " + to +
               (bound.empty() ? "" : " (bound to " + bound + ")") + "\n";
    }
    std::string bindReport(const std::string& where, int error) const {
        return systemReport("NetSocket: bind " + where + " " + number(port), error);
    }

    Messages messages;
    const int port = freePort();
};

}  // namespace

// --- fields ----------------------------------------------------------------------------------------------

TEST_F(UdpSetup, everyFieldStartsAsDocumented) {
    Probe socket(port, 0x7F000002u, mode(kBothSides), kLoopback);
    EXPECT_EQ(socket.port, port);
    EXPECT_EQ(socket.filterPort, -1);
    EXPECT_EQ(socket.sendPort, -1);
    EXPECT_EQ(socket.reserved, 0);
    EXPECT_TRUE(socket.recvBuffer);
    EXPECT_TRUE(socket.copyBuffer);
    EXPECT_NE(socket.recvBuffer, socket.copyBuffer);
    EXPECT_EQ(socket.bundleCursor, nullptr);
    EXPECT_EQ(socket.adoptedFd, 0);
    EXPECT_EQ(socket.adoptedAddr, 0u);
    EXPECT_EQ(socket.destAddr, 0x7F000002u);
    EXPECT_EQ(socket.mcastDevice_, kLoopback);
    EXPECT_EQ(socket.unbundling, 1);
    EXPECT_EQ(socket.bytesLeftInBundle, 0);
    EXPECT_EQ(socket.minPacketSize_, 12);
    EXPECT_EQ(socket.sizeOffset_, 8);
    EXPECT_EQ(socket.sizeLength_, 2);
    EXPECT_EQ(socket.bufferSize, 15000);
    EXPECT_TRUE(socket.testDisHeader_);
    EXPECT_EQ(socket.boundToDest, 0);
    EXPECT_EQ(socket.firstInBundle, 1);
    EXPECT_EQ(socket.bundleExercise, 0);
    EXPECT_EQ(socket.bundleProtocol, 0);
    EXPECT_TRUE(socket.ok);
    EXPECT_TRUE(same(*socket.destSockAddr, address(0x7F000002u, port)));
    EXPECT_TRUE(same(*socket.sourceSockAddr, zeroes()));
    EXPECT_EQ(socket.mode, kBothSides);
    EXPECT_EQ(socket.blocking, 1);
    EXPECT_EQ(socket.packetsReceived, 0);
    EXPECT_GE(socket.socketFd, 0);
    EXPECT_EQ(socket.mcastDevice(), kLoopback);
    EXPECT_TRUE(socket.isUnbundling());
    EXPECT_EQ(socket.minPacketSize(), 12);
    EXPECT_EQ(socket.sizeOffset(), 8);
    EXPECT_EQ(socket.sizeLength(), 2);
    EXPECT_TRUE(socket.testDisHeader());
    EXPECT_FALSE(socket.dataLeftInCurrentBundle());
    EXPECT_EQ(socket.isBundling(), 0);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 0);
    EXPECT_EQ(socket.lastSourceInetAddr(), 0u);
}

TEST_F(UdpSetup, modeBitsHaveTheirDocumentedValues) {
    EXPECT_EQ(static_cast<int>(NwNetSocketRead), 1);
    EXPECT_EQ(static_cast<int>(NwNetSocketWrite), 2);
    EXPECT_EQ(static_cast<int>(NwNetSocketBindToDest), 8);
    EXPECT_EQ(static_cast<int>(NwNetSocketQuietStart), 16);
}

TEST_F(UdpSetup, buffersAreSizedByTheLargestPacketAtConstruction) {
    theMaxPacketSize = 70000;
    Probe socket(port, kLoopback, mode(kBothSides), kLoopback);
    theMaxPacketSize = 15000;
    EXPECT_EQ(socket.bufferSize, 70000);
    socket.recvBuffer[69999] = 1;  // the address sanitizer looks on
    socket.copyBuffer[69999] = 1;
}

TEST_F(UdpSetup, largestPacketOfZeroOrLessIsStoredAndHarmless) {
    for (int size : {0, -1, -15000, INT_MIN}) {
        theMaxPacketSize = size;
        Probe socket(port, kLoopback, mode(kBothSides), kLoopback);
        EXPECT_EQ(socket.bufferSize, size);
        EXPECT_TRUE(socket.isOk());
        socket.NwBecomeNonBlocking();
        char packet[100] = "";
        EXPECT_EQ(socket.sendTo(packet, sizeof packet, kLoopback), 100);
        ASSERT_TRUE(waitReadable(socket.socketFd));
        char* received = packet;
        EXPECT_EQ(socket.NwRecv(&received, nullptr), 0);
        EXPECT_EQ(received, nullptr);
    }
}

TEST_F(UdpSetup, largestPacketBeyondMemoryIsAFailureAndNoException) {
    if (std::string(CVNC_SANITIZER) != "") GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
    const auto construct = [this](int errorAction) {
        NwNetSocket::initErrorAction = errorAction;
        theMaxPacketSize = INT_MAX;
        const rlimit limit = {512u << 20, 512u << 20};
        ::setrlimit(RLIMIT_AS, &limit);
        Probe socket(port, kLoopback, mode(kBothSides), kLoopback);
        char byte = 0;
        char* received = &byte;
        int status = 9;
        if (socket.isOk() || socket.bufferSize != INT_MAX) return 2;
        if (socket.readFd() != -1 || socket.writeFd() != -1) return 3;
        if (socket.NwRecv(&received, &status) != 0 || received || status != 0) return 4;
        return socket.sendTo(&byte, 1, kLoopback) == -1 ? 0 : 5;
    };
    const ChildResult told = inChild([&] { return construct(1); });
    EXPECT_EQ(told.signal, 0);
    EXPECT_EQ(told.exitStatus, 0);
    const ChildResult aborted = inChild([&] { return construct(0); });
    EXPECT_EQ(aborted.signal, SIGABRT);
}

// --- modes -----------------------------------------------------------------------------------------------

namespace {

struct ModeCase {
    int bits;
    NwIpv4Addr addr;
};

// What each mode must bring, bit by bit.
void expectMode(const ModeCase& c, int port, Messages& messages, bool quiet) {
    SCOPED_TRACE("mode " + number(c.bits) + " addr " + NwInetAddrString(c.addr));
    Probe socket(port, c.addr, mode(c.bits), kLoopback);
    const bool reads = c.bits & 1;
    const bool writes = c.bits & 2;
    const bool hasDescriptor = c.bits != 0 && c.bits != 16;
    const bool bound = reads && (c.bits & 8) && c.addr != 0;

    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.mode, c.bits);
    EXPECT_EQ(socket.socketFd >= 0, hasDescriptor);
    EXPECT_EQ(socket.readFd(), reads ? socket.socketFd : -1);
    EXPECT_EQ(socket.writeFd(), writes ? socket.socketFd : -1);
    EXPECT_EQ(socket.destAddr, writes ? c.addr : 0u);
    EXPECT_TRUE(same(*socket.destSockAddr, writes ? address(c.addr, port) : zeroes()));
    EXPECT_EQ(socket.boundToDest, bound ? 8 : 0);
    EXPECT_EQ(socket.port, port);

    std::string line = writes ? "NetSocket ok for port " + number(port) + " to " + NwInetAddrString(c.addr)
                              : "NetSocket ok to read port " + number(port);
    if (bound) line += std::string(" (bound to ") + NwInetAddrString(c.addr) + ")";
    EXPECT_EQ(messages.info(), (c.bits & 16) || quiet ? "" : line + "\n");
    EXPECT_EQ(messages.all(), "");
    if (!hasDescriptor) return;

    EXPECT_EQ(option(socket.socketFd, SO_REUSEPORT), 1);
    EXPECT_EQ(option(socket.socketFd, SO_REUSEADDR), 1);
    EXPECT_EQ(option(socket.socketFd, SO_BROADCAST), writes ? 1 : 0);
    EXPECT_EQ(option(socket.socketFd, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(option(socket.socketFd, SO_DOMAIN), AF_INET);
    const sockaddr_in local = localAddress(socket.socketFd);
    EXPECT_EQ(ntohs(local.sin_port), reads ? port : 0) << "only the read side binds";
    EXPECT_EQ(ntohl(local.sin_addr.s_addr), bound ? c.addr : 0u);
}

}  // namespace

TEST_F(UdpSetup, everyModeOpensWhatItsBitsSay) {
    for (int bits = 0; bits < 256; ++bits) expectMode({bits, 0x7F000002u}, port, messages, false);
}

TEST_F(UdpSetup, everyModeIsSilentWhileSocketsAreQuiet) {
    Quiet quiet;
    for (int bits = 0; bits < 32; ++bits) expectMode({bits, 0x7F000002u}, port, messages, true);
}

TEST_F(UdpSetup, modesThatOnlyReadNeedNoAddress) {
    for (int bits = 0; bits < 32; ++bits) {
        if (!(bits & kWrite)) expectMode({bits, 0}, port, messages, false);
    }
}

TEST_F(UdpSetup, mode0And4AreOkAndSayThatTheyRead) {
    for (int bits : {0, 4}) {
        Probe socket(port, mode(bits), kLoopback);
        EXPECT_TRUE(socket.isOk());
        EXPECT_EQ(messages.info(), readLine());
        EXPECT_EQ(socket.readFd(), -1);
        EXPECT_EQ(socket.writeFd(), -1);
        EXPECT_EQ(socket.socketFd >= 0, bits == 4);
    }
}

TEST_F(UdpSetup, mode16AloneCreatesNoDescriptorAndIsOk) {
    Probe socket(port, mode(16), kLoopback);
    EXPECT_EQ(socket.socketFd, -1);
    EXPECT_EQ(socket.readFd(), -1);
    EXPECT_EQ(socket.writeFd(), -1);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, socketsThatReadAndWriteTellTheirDestination) {
    { Probe socket(port, kLoopback, mode(1), kLoopback); }
    EXPECT_EQ(messages.info(), readLine());
    { Probe socket(port, kLoopback, mode(3), kLoopback); }
    EXPECT_EQ(messages.info(), writeLine("127.0.0.1"));
    { Probe socket(port, 0x7F000005u, mode(11), kLoopback); }
    EXPECT_EQ(messages.info(), writeLine("127.0.0.5", "127.0.0.5"));
    { Probe socket(port, 0x7F000005u, mode(9), kLoopback); }
    EXPECT_EQ(messages.info(), "NetSocket ok to read port " + number(port) + " (bound to 127.0.0.5)\n");
}

TEST_F(UdpSetup, packetsPassBothWaysOnThePort) {
    UdpPeer peer;
    Probe socket(port, kLoopback, mode(3), kLoopback);
    peer.send(std::string("\7\1\1\1\0\0\0\0\0\14\0\0", 12), port);
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 12);
    socket.setSendPort(peer.port());
    char packet[] = "answer";
    EXPECT_EQ(socket.sendTo(packet, 6, 0), 6);
    EXPECT_EQ(peer.receive(), "answer");
    EXPECT_EQ(peer.lastSenderPort(), port);
}

TEST_F(UdpSetup, socketBoundToAnAddressHearsOnlyThatOne) {
    Probe socket(port, 0x7F000005u, mode(9), kLoopback);
    socket.NwBecomeNonBlocking();
    UdpPeer peer;
    const std::string pdu("\7\1\1\1\0\0\0\0\0\14\0\0", 12);
    // Nobody listens on the other address: the kernel refuses there, or drops.
    const sockaddr_in elsewhere = address(0x7F000006u, port);
    ::sendto(peer.fd(), pdu.data(), pdu.size(), 0, reinterpret_cast<const sockaddr*>(&elsewhere),
             sizeof elsewhere);
    peer.send(pdu, port, 0x7F000005u);
    ASSERT_TRUE(waitReadable(socket.readFd()));
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 12);
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 0);
    EXPECT_EQ(socket.NwReportPktsRcvd(), 1);
}

TEST_F(UdpSetup, twoSocketsBindOnePort) {
    Probe first(port, kLoopback, mode(3), kLoopback);
    Probe second(port, kLoopback, mode(3), kLoopback);
    Probe third(port, mode(1), kLoopback);
    UdpPeer foreign(0, port, true);
    EXPECT_TRUE(first.isOk());
    EXPECT_TRUE(second.isOk());
    EXPECT_TRUE(third.isOk());
    EXPECT_EQ(messages.warn(), "");
    for (Probe* socket : {&first, &second, &third})
        EXPECT_EQ(ntohs(localAddress(socket->socketFd).sin_port), port);
}

TEST_F(UdpSetup, unicastDatagramReachesJustOneOfTwoOnThePort) {
    Probe first(port, kLoopback, mode(1), kLoopback);
    Probe second(port, kLoopback, mode(1), kLoopback);
    first.NwBecomeNonBlocking();
    second.NwBecomeNonBlocking();
    UdpPeer peer;
    for (int i = 0; i < 20; ++i) {
        peer.send(std::string("\7\1\1\1\0\0\0\0\0\14\0\0", 12), port);
        char* received = nullptr;
        int got = 0;
        EXPECT_TRUE(eventually([&] {
            got += first.NwRecv(&received, nullptr) > 0;
            got += second.NwRecv(&received, nullptr) > 0;
            return got > 0;
        }));
        EXPECT_EQ(got, 1);
    }
}

// --- failures --------------------------------------------------------------------------------------------

TEST_F(UdpSetup, bindToAForeignAddressFails) {
    Probe socket(port, kNobodysAddress, mode(9), kLoopback);
    EXPECT_EQ(messages.warn(), bindReport("192.0.2.1", EADDRNOTAVAIL));
    EXPECT_EQ(messages.all(), "") << "no line tells that it is ok";
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(socket.mode, 8);
    EXPECT_EQ(socket.readFd(), -1);
    EXPECT_GE(socket.socketFd, 0);
}

TEST_F(UdpSetup, bindToAPortThatAnotherKeepsForItselfFails) {
    UdpPeer selfish(0, port);
    Probe socket(port, kLoopback, mode(1), kLoopback);
    EXPECT_EQ(messages.warn(), bindReport("INADDR_ANY", EADDRINUSE));
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(socket.mode, 0);
}

TEST_F(UdpSetup, writeSideStaysWhenTheReadSideFails) {
    UdpPeer selfish(0, port);
    Probe socket(port, kLoopback, mode(3), kLoopback);
    EXPECT_EQ(messages.warn(), bindReport("INADDR_ANY", EADDRINUSE));
    EXPECT_EQ(messages.info(), "");
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(socket.mode, 2);
    EXPECT_EQ(socket.readFd(), -1);
    EXPECT_EQ(socket.writeFd(), socket.socketFd);
    char packet[] = "still";
    EXPECT_EQ(socket.sendTo(packet, 5, 0), 5);
    EXPECT_EQ(selfish.receive(), "still");
    char* received = packet;
    int status = 7;
    EXPECT_EQ(socket.NwRecv(&received, &status), 0);
    EXPECT_EQ(received, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for receiving\n");
    EXPECT_FALSE(socket.isOk()) << "never turns true again";
}

TEST_F(UdpSetup, readSideStaysWhenTheWriteSideFails) {
    REQUIRE_PRIVATE_NETWORK();
    Probe socket(port, mode(3), kLoopback);
    EXPECT_EQ(messages.warn(), kNoBroadcast);
    EXPECT_EQ(messages.info(), "");
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(socket.mode, 1);
    EXPECT_EQ(socket.writeFd(), -1);
    EXPECT_EQ(socket.readFd(), socket.socketFd);
    EXPECT_EQ(socket.destAddr, 0u);
    EXPECT_TRUE(same(*socket.destSockAddr, zeroes())) << "not filled on this path";
    EXPECT_EQ(option(socket.socketFd, SO_BROADCAST), 0);
    UdpPeer peer;
    peer.send(std::string("\7\1\1\1\0\0\0\0\0\14\0\0", 12), port);
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 12);
    char byte = 0;
    EXPECT_EQ(socket.sendTo(&byte, 1, kLoopback), -1);
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
}

TEST_F(UdpSetup, bothSidesFailTheWriteSideFirst) {
    REQUIRE_PRIVATE_NETWORK();
    UdpPeer selfish(0, port);
    Probe socket(port, mode(3 | 16), kLoopback);
    EXPECT_EQ(messages.warn(), kNoBroadcast + bindReport("INADDR_ANY", EADDRINUSE));
    EXPECT_EQ(socket.mode, 16);
    EXPECT_FALSE(socket.isOk());
}

TEST_F(UdpSetup, failuresAreSilentWhileQuiet) {
    Quiet quiet;
    UdpPeer selfish(0, port);
    Probe taken(port, kLoopback, mode(3), kLoopback);
    Probe foreign(port, kNobodysAddress, mode(9), kLoopback);
    EXPECT_FALSE(taken.isOk());
    EXPECT_FALSE(foreign.isOk());
    if (hasPrivateNetwork()) {
        Probe unwritable(freePort(), mode(2), 0u);
        EXPECT_FALSE(unwritable.isOk());
    }
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, bit16SilencesTheClosingLinesOnly) {
    UdpPeer selfish(0, port);
    Probe taken(port, kLoopback, mode(1 | 16), kLoopback);
    EXPECT_EQ(messages.warn(), bindReport("INADDR_ANY", EADDRINUSE));
    {
        NoMoreDescriptors exhausted;
        Probe unopened(port, kLoopback, mode(2 | 16), kLoopback);
    }
    EXPECT_EQ(messages.warn(),
              systemReport("open socket", EMFILE) + systemReport("Couldn't set SO_REUSEPORT option", EBADF));
    Probe joined(freePort(), kGroup, mode(1 | 16), kLoopback);
    EXPECT_EQ(messages.verbose(), "Listening to multicast group: 239.1.2.3 on interface: 127.0.0.1\n");
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, bit16DoesNotSilenceTheQueryForADevice) {
    REQUIRE_PRIVATE_NETWORK();
    Probe socket(port, kLoopback, mode(2 | 16), 0u);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.mcastDevice(), 0u);
    EXPECT_EQ(messages.warn(), kNoBroadcast);
}

TEST_F(UdpSetup, noDescriptorMeansNoSideAtAll) {
    std::unique_ptr<Probe> socket;
    {
        NoMoreDescriptors exhausted;
        socket.reset(new Probe(port, kLoopback, mode(3), kLoopback));
    }
    EXPECT_EQ(messages.warn(),
              systemReport("open socket", EMFILE) + systemReport("Couldn't set SO_REUSEPORT option", EBADF))
        << "the reuse options are tried all the same";
    EXPECT_EQ(messages.all(), "");
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(socket->mode, 0);
    EXPECT_EQ(socket->socketFd, -1);
    EXPECT_EQ(socket->readFd(), -1);
    EXPECT_EQ(socket->writeFd(), -1);
    char byte = 0;
    EXPECT_EQ(socket->sendTo(&byte, 1, kLoopback), -1);
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
}

TEST_F(UdpSetup, noDescriptorWhileQuietShowsTheReversedReport) {
    Quiet quiet;
    {
        NoMoreDescriptors exhausted;
        Probe socket(port, kLoopback, mode(3), kLoopback);
        EXPECT_FALSE(socket.isOk());
    }
    EXPECT_EQ(messages.warn(), systemReport("Couldn't set SO_REUSEADDR option", EBADF));
    EXPECT_EQ(messages.all(), "");
}

// --- the default: a failure ends the process -------------------------------------------------------------

namespace {

ChildResult aborting(const std::function<void()>& construct) {
    return inChild([&] {
        NwNetSocket::initErrorAction = 0;
        NwInfo.rdbuf(nullptr);
        construct();
        return 0;
    });
}

}  // namespace

class UdpAbort : public testing::Test {};

TEST_F(UdpAbort, failedBindEndsTheProcessAfterItsReport) {
    const int port = freePort();
    UdpPeer selfish(0, port);
    const ChildResult child = aborting([&] { NwNetSocket(port, kLoopback, mode(3), kLoopback); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.output, systemReport("NetSocket: bind INADDR_ANY " + number(port), EADDRINUSE));
    EXPECT_EQ(child.standardOutput, "");
}

TEST_F(UdpAbort, quietFailureEndsTheProcessWithoutAWord) {
    const int port = freePort();
    UdpPeer selfish(0, port);
    const ChildResult child = aborting([&] {
        NwSocket::setQuietSockets(true);
        NwNetSocket(port, kLoopback, mode(3), kLoopback);
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.output, "");
}

TEST_F(UdpAbort, writerWithoutBroadcastInterfaceEndsTheProcess) {
    REQUIRE_PRIVATE_NETWORK();
    const ChildResult child = aborting([] { NwNetSocket(freePort(), mode(2), 0u); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.output, std::string(kNoBroadcast) + kNoBroadcast)
        << "asked for a device, and for a destination";
    const ChildResult withDevice = aborting([] { NwNetSocket(freePort(), mode(2), kLoopback); });
    EXPECT_EQ(withDevice.signal, SIGABRT);
    EXPECT_EQ(withDevice.output, kNoBroadcast);
}

TEST_F(UdpAbort, closedDescriptorEndsTheProcess) {
    const ChildResult child = aborting([] { NwNetSocket(nullptr, -1, mode(1)); });
    EXPECT_EQ(child.signal, SIGABRT);
}

TEST_F(UdpAbort, successGoesOn) {
    const ChildResult child = aborting([] {
        NwNetSocket socket(freePort(), kLoopback, mode(3), kLoopback);
        NwNetSocket none(freePort(), mode(16), kLoopback);
        NwNetSocket still(freePort(), mode(0), kLoopback);
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_EQ(child.output, "");
}

// --- a host that can broadcast ---------------------------------------------------------------------------

namespace {

class UdpOnANetwork : public UdpSetup {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_NETWORK();
        here.reset(new Host);
        there.reset(new Host);
        here->connect("here", "10.9.0.1/24", *there, "there", "10.9.0.2/24");
    }
    std::unique_ptr<Host> here, there;
};

}  // namespace

TEST_F(UdpOnANetwork, noAddressMeansTheBroadcastAddressOfTheDefaultInterface) {
    here->in([&] {
        Probe shortForm(port, mode(3), 0u);
        EXPECT_EQ(messages.info(), writeLine("10.9.0.255"));
        Probe longForm(port, 0u, mode(3), 0u);
        EXPECT_EQ(messages.info(), writeLine("10.9.0.255"));
        for (Probe* socket : {&shortForm, &longForm}) {
            EXPECT_TRUE(socket->isOk());
            EXPECT_EQ(socket->destAddr, 0x0A0900FFu);
            EXPECT_EQ(socket->mcastDevice(), 0x0A090001u) << "device 0 is the host's first address";
            EXPECT_TRUE(same(*socket->destSockAddr, address(0, port))) << "the argument as given, 0 included";
        }
        EXPECT_EQ(messages.all(), "");
    });
}

TEST_F(UdpOnANetwork, defaultDestinationReachesTheOtherHost) {
    std::unique_ptr<UdpPeer> peer;
    there->in([&] { peer.reset(new UdpPeer(0, port)); });
    here->in([&] {
        Probe socket(port, mode(2), 0u);
        char packet[] = "to all";
        EXPECT_TRUE(eventually([&] {  // until the new link carries
            EXPECT_EQ(socket.sendTo(packet, 6, 0), 6);
            return waitReadable(peer->fd(), 100);
        }));
    });
    EXPECT_EQ(peer->receive(), "to all");
    EXPECT_EQ(peer->lastSender(), 0x0A090001u);
}

TEST_F(UdpOnANetwork, deviceArgumentIsTakenAsGiven) {
    here->in([&] {
        Probe socket(port, kLoopback, mode(3), 0x01020304u);
        EXPECT_TRUE(socket.isOk());
        EXPECT_EQ(socket.mcastDevice(), 0x01020304u);
    });
}

TEST_F(UdpOnANetwork, adoptedDescriptorSendsToItsSubnetByTheDefaultInterfacesMask) {
    here->in([&] {
        const Descriptor fd(::socket(AF_INET, SOCK_DGRAM, 0));
        const sockaddr_in local = address(kLoopback, 0);
        ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
        Probe onLoopback(nullptr, fd, mode(3));
        EXPECT_TRUE(onLoopback.isOk());
        EXPECT_EQ(onLoopback.destAddr, 0x7F0000FFu) << "127.0.0.1 and the 24 bits of the other interface";
        EXPECT_EQ(onLoopback.mcastDevice(), 0x0A090001u);

        const Descriptor other(::socket(AF_INET, SOCK_DGRAM, 0));
        const sockaddr_in here9 = address(0x0A090001u, 0);
        ASSERT_EQ(::bind(other, reinterpret_cast<const sockaddr*>(&here9), sizeof here9), 0);
        Probe onLink(nullptr, other, mode(2));
        EXPECT_EQ(onLink.destAddr, 0x0A0900FFu);

        const Descriptor unbound(::socket(AF_INET, SOCK_DGRAM, 0));
        Probe anywhere(nullptr, unbound, mode(2));
        EXPECT_EQ(anywhere.destAddr, 0x000000FFu);
        EXPECT_EQ(anywhere.port, 0);
        EXPECT_EQ(messages.warn(), "");
    });
}

// --- groups ----------------------------------------------------------------------------------------------

TEST_F(UdpSetup, readingAGroupJoinsIt) {
    Probe socket(port, kGroup, mode(1), kLoopback);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.verbose(), "Listening to multicast group: 239.1.2.3 on interface: 127.0.0.1\n");
    EXPECT_EQ(messages.info(), readLine());
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(ntohl(localAddress(socket.socketFd).sin_addr.s_addr), 0u) << "bound to any address";
    UdpPeer peer;
    in_addr device;
    device.s_addr = htonl(kLoopback);
    ASSERT_EQ(::setsockopt(peer.fd(), IPPROTO_IP, IP_MULTICAST_IF, &device, sizeof device), 0);
    peer.send(std::string("\7\1\1\1\0\0\0\0\0\14\0\0", 12), port, kGroup);
    ASSERT_TRUE(waitReadable(socket.readFd()));
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 12);
}

TEST_F(UdpSetup, boundGroupSocketJoinsWithoutTheIneffectiveWarning) {
    Probe socket(port, kGroup, mode(11), kLoopback);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.boundToDest, 8);
    EXPECT_EQ(messages.info(), writeLine("239.1.2.3", "239.1.2.3"));
    EXPECT_EQ(messages.verbose(), "Listening to multicast group: 239.1.2.3 on interface: 127.0.0.1\n");
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(ntohl(localAddress(socket.socketFd).sin_addr.s_addr), kGroup);
}

TEST_F(UdpSetup, failedJoinDoesNotFailTheSocket) {
    Probe socket(port, kGroup, mode(1), kNobodysAddress);
    EXPECT_EQ(messages.warn(), systemReport("NetSocket: setsockopt IP_MULTICAST_IF failed", EADDRNOTAVAIL));
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.info(), readLine());
}

TEST_F(UdpSetup, writersAndUnicastReadersJoinNothing) {
    Probe writer(port, kGroup, mode(2), kLoopback);
    Probe reader(port, kLoopback, mode(1), kLoopback);
    EXPECT_EQ(messages.verbose(), "");
    EXPECT_EQ(writer.destAddr, kGroup);
}

TEST_F(UdpSetup, failedBindJoinsNothing) {
    UdpPeer selfish(0, port);
    Probe socket(port, kGroup, mode(1), kLoopback);
    EXPECT_EQ(messages.verbose(), "");
    EXPECT_FALSE(socket.isOk());
}

// --- adopted descriptors ---------------------------------------------------------------------------------

namespace {

int boundDescriptor(NwIpv4Addr addr) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in local = address(addr, 0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    return fd;
}

class UdpAdopted : public UdpSetup {
protected:
    void SetUp() override { REQUIRE_PRIVATE_NETWORK(); }
    // On a loopback-only host the queries for a device and a netmask find nothing, and say so.
    void dropQueryWarnings() { messages.warn(); }
};

}  // namespace

TEST_F(UdpAdopted, portAndAddressAreLearnt) {
    const Descriptor fd(boundDescriptor(0x7F000003u));
    const int bound = ntohs(localAddress(fd).sin_port);
    char name[] = "not used";
    Probe socket(name, fd, mode(3));
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.adoptedFd, 1);
    EXPECT_EQ(socket.socketFd, fd);
    EXPECT_EQ(socket.readFd(), fd);
    EXPECT_EQ(socket.writeFd(), fd);
    EXPECT_EQ(socket.port, bound);
    EXPECT_EQ(socket.adoptedAddr, 0x7F000003u);
    EXPECT_EQ(socket.destAddr, 0xFFFFFFFFu) << "no netmask is to be had here: its complement is all ones";
    EXPECT_TRUE(same(*socket.destSockAddr, address(0, bound)));
    EXPECT_EQ(socket.mcastDevice(), 0u);
    EXPECT_EQ(socket.boundToDest, 0);
    EXPECT_EQ(option(fd, SO_REUSEPORT), 1);
    EXPECT_EQ(option(fd, SO_REUSEADDR), 1);
    EXPECT_EQ(option(fd, SO_BROADCAST), 1);
    EXPECT_EQ(messages.warn(), std::string(kNoBroadcast) + kNoBroadcast);
    EXPECT_EQ(messages.info(), "NetSocket ok for port " + number(bound) + " to 255.255.255.255\n");
}

TEST_F(UdpAdopted, everyModeOpensWhatItsBitsSay) {
    for (int bits = 0; bits < 32; ++bits) {
        SCOPED_TRACE(bits);
        const Descriptor fd(boundDescriptor(kLoopback));
        const int bound = ntohs(localAddress(fd).sin_port);
        Probe socket(nullptr, fd, mode(bits));
        const bool looksAtIt = bits != 0 && bits != 16;
        EXPECT_TRUE(socket.isOk());
        EXPECT_EQ(socket.mode, bits);
        EXPECT_EQ(socket.socketFd, fd);
        EXPECT_EQ(socket.readFd(), bits & kRead ? static_cast<int>(fd) : -1);
        EXPECT_EQ(socket.writeFd(), bits & kWrite ? static_cast<int>(fd) : -1);
        EXPECT_EQ(socket.port, looksAtIt ? bound : 0);
        EXPECT_EQ(socket.adoptedAddr, looksAtIt ? kLoopback : 0u);
        EXPECT_EQ(socket.boundToDest, 0) << "there is no address to bind to";
        EXPECT_EQ(option(fd, SO_REUSEADDR), looksAtIt ? 1 : 0);
        EXPECT_EQ(option(fd, SO_BROADCAST), bits & kWrite ? 1 : 0);
        std::string line;
        if (!(bits & kQuietStart))
            line = bits & kWrite ? "NetSocket ok for port " + number(bound) + " to 255.255.255.255\n"
                                 : "NetSocket ok to read port " + number(looksAtIt ? bound : 0) + "\n";
        EXPECT_EQ(messages.info(), line);
        EXPECT_EQ(ntohs(localAddress(fd).sin_port), bound) << "not bound again";
    }
}

TEST_F(UdpAdopted, descriptorIsNeverClosed) {
    const Descriptor fd(boundDescriptor(kLoopback));
    for (int bits : {0, 1, 2, 3, 16}) {
        { Probe socket(nullptr, fd, mode(bits)); }
        EXPECT_TRUE(isOpen(fd)) << bits;
    }
}

TEST_F(UdpAdopted, pendingBundlesAreFlushedBeforeItIsGivenBack) {
    UdpPeer peer;
    const Descriptor fd(boundDescriptor(kLoopback));
    {
        Probe socket(nullptr, fd, mode(2));
        socket.setSendPort(peer.port());
        socket.setBundling(100);
        char packet[] = "last words";
        EXPECT_EQ(socket.NwSend(packet, 10, kLoopback), 0);
    }
    EXPECT_EQ(peer.receive(), "last words");
}

TEST_F(UdpAdopted, countsAsBlockingWhateverItIs) {
    const Descriptor fd(boundDescriptor(kLoopback));
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    Probe socket(nullptr, fd, mode(1));
    dropQueryWarnings();
    EXPECT_EQ(socket.blocking, 1);
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK) << "the descriptor itself is left as it is";
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 0);
    EXPECT_EQ(messages.warn(), systemReport("Network read error", EAGAIN))
        << "an empty socket is reported until then";
    socket.NwBecomeNonBlocking();
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 0);
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(UdpAdopted, packetsPassBothWays) {
    UdpPeer peer;
    const Descriptor fd(boundDescriptor(kLoopback));
    Probe socket(nullptr, fd, mode(3));
    peer.send(std::string("\7\1\1\1\0\0\0\0\0\14\0\0", 12), socket.port);
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 12);
    EXPECT_EQ(socket.lastSourceInetAddr(), kLoopback);
    socket.setSendPort(peer.port());
    EXPECT_EQ(socket.sendTo(received, 12, kLoopback), 12);
    EXPECT_EQ(peer.receive().size(), 12u);
    EXPECT_EQ(peer.lastSenderPort(), socket.port);
}

TEST_F(UdpAdopted, closedDescriptorFails) {
    int closed = ::socket(AF_INET, SOCK_DGRAM, 0);
    ::close(closed);
    for (int fd : {closed, -1, INT_MAX, INT_MIN}) {
        for (int bits : {1, 2, 3, 4, 8, 17}) {
            Probe socket(nullptr, fd, mode(bits));
            EXPECT_FALSE(socket.isOk());
            EXPECT_EQ(socket.mode, 0);
            EXPECT_EQ(socket.readFd(), -1);
            EXPECT_EQ(socket.writeFd(), -1);
            EXPECT_EQ(socket.port, 0);
            EXPECT_EQ(messages.info(), "");
            EXPECT_EQ(messages.warn(), kNoBroadcast)
                << "the query for a device; the descriptor fails without a word";
        }
    }
}

TEST_F(UdpAdopted, closedDescriptorIsNoMatterToAModeThatOpensNothing) {
    for (int bits : {0, 16}) {
        Probe socket(nullptr, -1, mode(bits));
        EXPECT_TRUE(socket.isOk());
    }
}

TEST_F(UdpAdopted, descriptorThatIsNoSocketFails) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const Descriptor reading(ends[0]), writing(ends[1]);
    {
        Probe socket(nullptr, reading, mode(3));
        EXPECT_FALSE(socket.isOk());
    }
    EXPECT_TRUE(isOpen(reading));
}

TEST_F(UdpAdopted, ipv6DescriptorCountsAsAddressAndPortZero) {
    const Descriptor fd(::socket(AF_INET6, SOCK_DGRAM, 0));
    if (fd < 0) GTEST_SKIP() << "no IPv6 here";
    sockaddr_in6 local = {};
    local.sin6_family = AF_INET6;
    local.sin6_addr = in6addr_any;
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    Probe socket(nullptr, fd, mode(3));
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.port, 0);
    EXPECT_EQ(socket.adoptedAddr, 0u);
    EXPECT_EQ(socket.destAddr, 0xFFFFFFFFu);
    EXPECT_TRUE(same(*socket.destSockAddr, address(0, 0)));
}

TEST_F(UdpAdopted, unixDescriptorCountsAsAddressAndPortZero) {
    char directory[] = "/tmp/setup_test_XXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    sockaddr_un local = {};
    local.sun_family = AF_UNIX;
    std::string path = std::string(directory) + "/";
    path.resize(sizeof local.sun_path - 1, 'x');  // as long as they come
    std::strcpy(local.sun_path, path.c_str());
    const Descriptor bound(::socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(::bind(bound, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    const Descriptor unbound(::socket(AF_UNIX, SOCK_DGRAM, 0));
    for (int fd : {static_cast<int>(bound), static_cast<int>(unbound)}) {
        Probe socket(nullptr, fd, mode(3));
        EXPECT_TRUE(socket.isOk());
        EXPECT_EQ(socket.port, 0);
        EXPECT_EQ(socket.adoptedAddr, 0u);
        EXPECT_EQ(socket.destAddr, 0xFFFFFFFFu);
    }
    ::unlink(path.c_str());
    ::rmdir(directory);
}

// --- the end ---------------------------------------------------------------------------------------------

TEST_F(UdpSetup, destructionSendsWhatWaitsThenCloses) {
    UdpPeer peer(kLoopback, port);
    int fd = -1;
    {
        Probe socket(port, kLoopback, mode(2), kLoopback);
        fd = socket.socketFd;
        socket.setBundling(1400);
        char packet[] = "abcdef";
        EXPECT_EQ(socket.NwSend(packet, 3, 0), 0);
        EXPECT_EQ(socket.NwSend(packet + 3, 3, 0), 0);
        EXPECT_TRUE(peer.isEmpty());
    }
    EXPECT_EQ(peer.receive(), "abcdef");
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(UdpSetup, destructionThroughABasePointerClosesToo) {
    Probe* probe = new Probe(port, kLoopback, mode(3), kLoopback);
    const int fd = probe->socketFd;
    NwSocket* socket = probe;
    delete socket;
    EXPECT_FALSE(isOpen(fd));
    UdpPeer again(0, port);  // the port is free at once
}

TEST_F(UdpSetup, destructionReportsABundleThatCannotLeaveAndClosesAllTheSame) {
    int fd = -1;
    {
        Probe socket(port, kLoopback, mode(1), kLoopback);
        fd = socket.socketFd;
        socket.setBundling(1400);
        char packet[] = "abc";
        EXPECT_EQ(socket.NwSend(packet, 3, 0), 0) << "kept; there is no write side to send it by";
        EXPECT_EQ(messages.warn(), "");
    }
    EXPECT_EQ(messages.warn(), "NetSocket not initialized for sending\n");
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(UdpSetup, destructionOfASocketWithoutDescriptorClosesNothing) {
    const bool hadInput = isOpen(0);
    { Probe socket(port, mode(16), kLoopback); }
    { Probe socket(port, mode(0), kLoopback); }
    EXPECT_EQ(isOpen(0), hadInput);
}

TEST_F(UdpSetup, cannotBeCopied) {
    static_assert(!std::is_copy_constructible<NwNetSocket>::value, "it owns a descriptor");
    static_assert(!std::is_copy_assignable<NwNetSocket>::value, "it owns a descriptor");
}

// --- operations on any descriptor ------------------------------------------------------------------------

TEST_F(UdpSetup, makeReusableSetsBothOptions) {
    const Descriptor fd(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(NwNetSocket::makeReusable(fd), 1);
    EXPECT_EQ(option(fd, SO_REUSEPORT), 1);
    EXPECT_EQ(option(fd, SO_REUSEADDR), 1);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, makeReusableReportsTheFirstOptionOnlyWhileNotQuiet) {
    EXPECT_EQ(NwNetSocket::makeReusable(-1), 0);
    EXPECT_EQ(messages.warn(), systemReport("Couldn't set SO_REUSEPORT option", EBADF));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, makeReusableReportsTheSecondOptionOnlyWhileQuiet) {
    Quiet quiet;
    EXPECT_EQ(NwNetSocket::makeReusable(-1), 0);
    EXPECT_EQ(messages.warn(), systemReport("Couldn't set SO_REUSEADDR option", EBADF));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, makeReusableSetsEachOptionWhateverBecomesOfTheOther) {
    for (bool quiet : {false, true}) {
        NwSocket::setQuietSockets(quiet);
        {
            const Descriptor fd(::socket(AF_INET, SOCK_DGRAM, 0));
            Refused onePort(SO_REUSEPORT);
            EXPECT_EQ(NwNetSocket::makeReusable(fd), 0);
            EXPECT_EQ(option(fd, SO_REUSEADDR), 1);
            EXPECT_EQ(messages.warn(), quiet ? "" : systemReport("Couldn't set SO_REUSEPORT option", EPERM));
        }
        const Descriptor fd(::socket(AF_INET, SOCK_DGRAM, 0));
        Refused oneAddress(SO_REUSEADDR);
        EXPECT_EQ(NwNetSocket::makeReusable(fd), 0);
        EXPECT_EQ(option(fd, SO_REUSEPORT), 1);
        EXPECT_EQ(messages.warn(), quiet ? systemReport("Couldn't set SO_REUSEADDR option", EPERM) : "");
    }
    NwSocket::setQuietSockets(false);
}

TEST_F(UdpSetup, portThatCannotBeSharedIsOpenedAllTheSame) {
    Refused one(SO_REUSEPORT);
    Probe socket(port, kLoopback, mode(3), kLoopback);
    EXPECT_EQ(messages.warn(), systemReport("Couldn't set SO_REUSEPORT option", EPERM));
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.info(), writeLine("127.0.0.1"));
}

TEST_F(UdpSetup, writeSideNeedsTheBroadcastOption) {
    Refused one(SO_BROADCAST);
    Probe socket(port, kLoopback, mode(3), kLoopback);
    EXPECT_EQ(messages.warn(), systemReport("Couldn't set SO_BROADCAST option", EPERM));
    EXPECT_EQ(messages.info(), "");
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(socket.mode, 1);
    EXPECT_EQ(socket.destAddr, kLoopback);
    EXPECT_TRUE(same(*socket.destSockAddr, address(kLoopback, port))) << "filled before the option is tried";
    Quiet quiet;
    Probe silent(port, kLoopback, mode(2), kLoopback);
    EXPECT_FALSE(silent.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, enableBroadcastSetsTheOption) {
    const Descriptor fd(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(option(fd, SO_BROADCAST), 0);
    EXPECT_EQ(NwNetSocket::enableBroadcast(fd), 1);
    EXPECT_EQ(option(fd, SO_BROADCAST), 1);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, enableBroadcastIsSilentAboutANegativeDescriptor) {
    for (int fd : {-1, INT_MIN}) {
        EXPECT_EQ(NwNetSocket::enableBroadcast(fd), 0);
        EXPECT_EQ(messages.all(), "");
    }
}

TEST_F(UdpSetup, enableBroadcastReportsAFailure) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const Descriptor reading(ends[0]), writing(ends[1]);
    EXPECT_EQ(NwNetSocket::enableBroadcast(reading), 0);
    EXPECT_EQ(messages.warn(), systemReport("Couldn't set SO_BROADCAST option", ENOTSOCK));
    Quiet quiet;
    EXPECT_EQ(NwNetSocket::enableBroadcast(reading), 0);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, setInetAddrFillsAllSixteenBytes) {
    static_assert(sizeof(sockaddr_in) == 16, "the documented size");
    sockaddr_in filled;
    std::memset(&filled, 0xAA, sizeof filled);
    NwNetSocket::setInetAddr(filled, 0xC0A80114u, 3000);
    EXPECT_TRUE(same(filled, address(0xC0A80114u, 3000)));
    const unsigned char wire[] = {0x0B, 0xB8, 192, 168, 1, 20, 0, 0, 0, 0, 0, 0, 0, 0};  // behind the family
    EXPECT_EQ(std::memcmp(reinterpret_cast<char*>(&filled) + 2, wire, sizeof wire), 0);
    NwNetSocket::setInetAddr(filled, 0, 0);
    EXPECT_TRUE(same(filled, address(0, 0)));
}

TEST_F(UdpSetup, setInetAddrKeepsTheLowBits) {
    sockaddr_in filled;
    NwNetSocket::setInetAddr(filled, 0xABCD00007F000001ul, 65536 + 3000);
    EXPECT_TRUE(same(filled, address(0x7F000001u, 3000)));
    NwNetSocket::setInetAddr(filled, 0xFFFFFFFFul, -1);
    EXPECT_TRUE(same(filled, address(0xFFFFFFFFu, 65535)));
}

TEST_F(UdpSetup, makeNonBlockingReplacesAllStatusFlags) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_DIRECT), 0);
    const Descriptor reading(ends[0]), writing(ends[1]);
    ::fcntl(writing, F_SETFL, O_APPEND | O_DIRECT);
    ASSERT_EQ(::fcntl(writing, F_GETFL) & (O_APPEND | O_DIRECT | O_NONBLOCK), O_APPEND | O_DIRECT);
    NwNetSocket::makeNonBlocking(writing);
    EXPECT_EQ(::fcntl(writing, F_GETFL) & ~(O_ACCMODE | O_LARGEFILE), O_NONBLOCK);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(UdpSetup, becomingNonBlockingChangesDescriptorAndField) {
    Probe socket(port, kLoopback, mode(3), kLoopback);
    EXPECT_FALSE(::fcntl(socket.socketFd, F_GETFL) & O_NONBLOCK) << "sockets block by default";
    EXPECT_EQ(socket.NwBecomeNonBlocking(), 0);
    EXPECT_EQ(socket.blocking, 0);
    EXPECT_TRUE(::fcntl(socket.socketFd, F_GETFL) & O_NONBLOCK);
    char* received = nullptr;
    EXPECT_EQ(socket.NwRecv(&received, nullptr), 0) << "returns at once, and silently";
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(UdpSetup, makeNonBlockingOfABadDescriptorEndsTheProcess) {
    for (bool quiet : {false, true}) {
        const ChildResult child = inChild([quiet] {
            NwSocket::setQuietSockets(quiet);
            NwWarn.rdbuf(std::cerr.rdbuf());
            NwNetSocket::makeNonBlocking(-1);
            return 0;
        });
        EXPECT_EQ(child.exitStatus, 1);
        EXPECT_EQ(child.output, systemReport("non-blocking", EBADF));
    }
}

namespace {

std::string theLastWords;

void keepLastWords(const char* message) {
    theLastWords += message;
}

}  // namespace

TEST_F(UdpSetup, fatalHandlerThatReturnsLeavesTheSocketBlocking) {
    theLastWords.clear();
    NwSetFatalHandler(keepLastWords);
    NwNetSocket::makeNonBlocking(-1);
    EXPECT_EQ(theLastWords, systemReport("non-blocking", EBADF));
    theLastWords.clear();
    Probe socket(port, mode(16), kLoopback);  // has no descriptor
    EXPECT_EQ(socket.NwBecomeNonBlocking(), 0);
    EXPECT_EQ(theLastWords, systemReport("non-blocking", EBADF));
    EXPECT_EQ(socket.blocking, 1) << "nothing was done";
    EXPECT_TRUE(socket.isOk());
}
