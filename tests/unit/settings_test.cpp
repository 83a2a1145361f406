// SPDX-License-Identifier: BSD-3-Clause
// What holds for the whole process: packet size, quiet sockets, send retries, what a failed opening does.
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "child.h"
#include "messages.h"
#include "network.h"

namespace {

const unsigned char kRead = 1;
const unsigned char kWrite = 2;
const unsigned char kReadBoundToAddress = 9;

// Puts every setting back, so that the tests of one process do not see each other.
class Settings : public testing::Test {
protected:
    Settings() { restore(); }
    ~Settings() override { restore(); }

    static void restore() {
        theMaxPacketSize = 15000;
        NwSocket::theAreQuietSockets = false;
        NwNetSocket::theMaxSendRetries = 0;
        NwNetSocket::theSendRetryPeriod = 0.0;
        NwNetSocket::initErrorAction = 0;
    }
};

// Interface list of the host, as getConfig reads it; the status goes to *result.
std::vector<std::string> interfaceNames(const char* device, int* result) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<ifreq> entries(64);
    ifconf conf;
    conf.ifc_len = static_cast<int>(entries.size() * sizeof(ifreq));
    conf.ifc_req = entries.data();
    *result = NwSocket::getConfig(device, fd, &conf);
    ::close(fd);
    std::vector<std::string> names;
    for (int i = 0; i < conf.ifc_len / static_cast<int>(sizeof(ifreq)); ++i)
        names.push_back(entries[static_cast<std::size_t>(i)].ifr_name);
    return names;
}

int closedDescriptor() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ::close(fd);
    return fd;
}

// Shows the buffer size that a socket was built with, and its port.
class SizedSocket : public NwNetSocket {
public:
    explicit SizedSocket(int newPort)
        : NwNetSocket(newPort, kLoopback, static_cast<unsigned char>(kRead | kWrite), kLoopback) {}
    using NwNetSocket::bufferSize;
    using NwNetSocket::port;
};

// A transport that takes everything, to look at bundles.
class Sink : public NwSocket {
public:
    int sendTo(char*, unsigned long len, unsigned int) override { return static_cast<int>(len); }
    int NwRecv(char**, int*) override { return 0; }
    int NwRecv(char*, unsigned long) override { return 0; }
    using NwSocket::bundles;
};

}  // namespace

// --- defaults, before anything is set ----------------------------------------------------------------------

TEST(SettingsAtLoad, largestPacketIs15000) {
    EXPECT_EQ(NwMaxPacketSize(), 15000);
    EXPECT_EQ(theMaxPacketSize, 15000);
}

TEST(SettingsAtLoad, socketsAreNotQuiet) {
    EXPECT_FALSE(NwSocket::theAreQuietSockets);
    EXPECT_FALSE(NwSocket::areQuietSockets());
}

TEST(SettingsAtLoad, failedSendsAreNotRetried) {
    EXPECT_EQ(NwNetSocket::theMaxSendRetries, 0u);
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, 0.0);
}

TEST(SettingsAtLoad, failedOpeningAborts) {
    EXPECT_EQ(NwNetSocket::initErrorAction, 0);
}

TEST(SettingsAtLoad, typesAreTheDocumentedPlainOnes) {
    static_assert(std::is_same<decltype(theMaxPacketSize), int>::value, "int");
    static_assert(std::is_same<decltype(NwSocket::theAreQuietSockets), bool>::value, "bool");
    static_assert(std::is_same<decltype(NwNetSocket::theMaxSendRetries), unsigned int>::value,
                  "unsigned int");
    static_assert(std::is_same<decltype(NwNetSocket::theSendRetryPeriod), double>::value, "double");
    static_assert(std::is_same<decltype(NwNetSocket::initErrorAction), int>::value, "int");
    SUCCEED();
}

TEST(SettingsAtLoad, addressConstantsAreInHostOrder) {
    static_assert(std::is_same<decltype(loopbackAddr), const NwIpv4Addr>::value, "NwIpv4Addr");
    static_assert(std::is_same<NwIpv4Addr, unsigned int>::value, "unsigned 32-bit");
    EXPECT_EQ(NwInetAddrAny, 0u);
    EXPECT_EQ(NwUSE_DEFAULT_IP_ADDR, 0u);
    EXPECT_EQ(loopbackAddr, 0x7F000001u);
}

// --- largest packet ----------------------------------------------------------------------------------------

TEST_F(Settings, packetSizeIsStoredAfterItsMessage) {
    Messages messages;
    NwSetMaxPacketSize(8192);
    EXPECT_EQ(messages.info(), "Setting max UDP packet size to 8192 bytes\n");
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(NwMaxPacketSize(), 8192);
    EXPECT_EQ(theMaxPacketSize, 8192);
}

TEST_F(Settings, packetSizeMessagePrintsEvenWhenQuiet) {
    Messages messages;
    Quiet quiet;
    NwSetMaxPacketSize(1500);
    EXPECT_EQ(messages.info(), "Setting max UDP packet size to 1500 bytes\n");
    EXPECT_EQ(NwMaxPacketSize(), 1500);
}

TEST_F(Settings, packetSizeZeroIsPrintedAndStored) {
    Messages messages;
    NwSetMaxPacketSize(0);
    EXPECT_EQ(messages.info(), "Setting max UDP packet size to 0 bytes\n");
    EXPECT_EQ(NwMaxPacketSize(), 0);
}

TEST_F(Settings, packetSizeHasNoBounds) {
    for (int size : {-1, INT_MIN, 1, 65507, 65508, 1 << 20, INT_MAX}) {
        Messages messages;
        NwSetMaxPacketSize(size);
        EXPECT_EQ(messages.info(), "Setting max UDP packet size to " + std::to_string(size) + " bytes\n");
        EXPECT_EQ(NwMaxPacketSize(), size);
    }
}

TEST_F(Settings, packetSizeAssignedDirectlyReachesTheLibrary) {
    theMaxPacketSize = 4321;
    EXPECT_EQ(NwMaxPacketSize(), 4321);
    Sink socket;
    socket.setBundling(10000);
    EXPECT_EQ(socket.isBundling(), 4321);
}

TEST_F(Settings, socketsThatExistKeepTheirBuffers) {
    Messages messages;
    SizedSocket before(freePort());
    NwSetMaxPacketSize(100);
    SizedSocket after(freePort());
    EXPECT_EQ(before.bufferSize, 15000);
    EXPECT_EQ(after.bufferSize, 100);

    for (SizedSocket* socket : {&before, &after}) socket->setUnbundling(0);
    UdpPeer peer;
    char* received = nullptr;
    peer.send(std::string(300, 'x'), before.port);
    EXPECT_EQ(before.NwRecv(&received, nullptr), 300);
    peer.send(std::string(300, 'x'), after.port);
    EXPECT_EQ(after.NwRecv(&received, nullptr), 100) << "the new size is the size of each read";
}

TEST_F(Settings, laterBundleReservationsSeeTheNewSize) {
    Messages messages;
    Sink socket;
    socket.setBundling(1400);
    char packet[10] = "";
    socket.NwSend(packet, sizeof packet, 1);
    EXPECT_GE(socket.bundles[1].capacity(), 15000u);
    NwSetMaxPacketSize(40000);
    EXPECT_EQ(socket.isBundling(), 1400) << "a bundle size that is set stays";
    socket.NwSend(packet, sizeof packet, 1);
    EXPECT_GE(socket.bundles[1].capacity(), 40000u) << "reserved at each call";
    EXPECT_EQ(socket.bundles[1].size(), 20u);
}

// --- quiet, retries, nothing at all ------------------------------------------------------------------------

TEST_F(Settings, quietIsSetAndRead) {
    NwSocket::setQuietSockets(true);
    EXPECT_TRUE(NwSocket::areQuietSockets());
    EXPECT_TRUE(NwSocket::theAreQuietSockets);
    NwSocket::setQuietSockets(false);
    EXPECT_FALSE(NwSocket::areQuietSockets());
    NwSocket::theAreQuietSockets = true;
    EXPECT_TRUE(NwSocket::areQuietSockets());
}

TEST_F(Settings, retriesAreStoredTogetherAsGiven) {
    NwNetSocket::setRetryOnSend(3, 0.25);
    EXPECT_EQ(NwNetSocket::theMaxSendRetries, 3u);
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, 0.25);
    NwNetSocket::setRetryOnSend(UINT_MAX, -1.0);
    EXPECT_EQ(NwNetSocket::theMaxSendRetries, UINT_MAX);
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, -1.0);
    NwNetSocket::setRetryOnSend(1, std::numeric_limits<double>::infinity());
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, std::numeric_limits<double>::infinity());
    NwNetSocket::setRetryOnSend(0, 0.0);
    EXPECT_EQ(NwNetSocket::theMaxSendRetries, 0u);
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, 0.0);
}

TEST_F(Settings, initializeNetworkDoesNothing) {
    Messages messages;
    theMaxPacketSize = 77;
    NwSocket::initializeNetwork();
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(theMaxPacketSize, 77);
    EXPECT_FALSE(NwSocket::areQuietSockets());
}

TEST_F(Settings, noneIsResetByTheLibrary) {
    Messages messages;
    NwSetMaxPacketSize(9000);
    NwSocket::setQuietSockets(true);
    NwNetSocket::setRetryOnSend(2, 0.001);
    NwNetSocket::initErrorAction = 5;
    {
        SizedSocket socket(freePort());
        NwNetSocket failing(freePort(), 0xC0000201u, kReadBoundToAddress, kLoopback);
        EXPECT_FALSE(failing.isOk());
    }
    EXPECT_EQ(NwMaxPacketSize(), 9000);
    EXPECT_TRUE(NwSocket::areQuietSockets());
    EXPECT_EQ(NwNetSocket::theMaxSendRetries, 2u);
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, 0.001);
    EXPECT_EQ(NwNetSocket::initErrorAction, 5);
}

// --- interface list ----------------------------------------------------------------------------------------

TEST_F(Settings, getConfigFillsTheCallersList) {
    Messages messages;
    int result = -1;
    const std::vector<std::string> names = interfaceNames(nullptr, &result);
    EXPECT_EQ(result, 1);
    EXPECT_NE(std::find(names.begin(), names.end(), "lo"), names.end());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(Settings, getConfigDoesNotUseTheDevice) {
    int result = -1;
    EXPECT_EQ(interfaceNames("no such device", &result), interfaceNames(nullptr, &result));
    EXPECT_EQ(result, 1);
}

TEST_F(Settings, getConfigReportsAFailure) {
    Messages messages;
    ifconf conf = {};
    EXPECT_EQ(NwSocket::getConfig(nullptr, closedDescriptor(), &conf), 0);
    EXPECT_EQ(messages.warn(), systemReport("getConfig failed to get host network config", EBADF));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(Settings, getConfigReportsAFailureEvenWhenQuiet) {
    Messages messages;
    Quiet quiet;
    ifconf conf = {};
    EXPECT_EQ(NwSocket::getConfig("lo", closedDescriptor(), &conf), 0);
    EXPECT_EQ(messages.warn(), systemReport("getConfig failed to get host network config", EBADF));
}

TEST_F(Settings, getConfigReportsTheSystemsReason) {
    Messages messages;
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ifconf conf = {};
    EXPECT_EQ(NwSocket::getConfig(nullptr, ends[0], &conf), 0);
    EXPECT_EQ(messages.warn(), systemReport("getConfig failed to get host network config", ENOTTY));
    ::close(ends[0]);
    ::close(ends[1]);
}

// --- what a failed opening does ----------------------------------------------------------------------------

TEST_F(Settings, failedBindAbortsByDefault) {
    const int port = freePort();
    const ChildResult child = inChild([port] {
        // 192.0.2.1 belongs to no host
        NwNetSocket socket(port, 0xC0000201u, kReadBoundToAddress, kLoopback);
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.output, systemReport("NetSocket: bind 192.0.2.1 " + std::to_string(port), EADDRNOTAVAIL));
}

TEST_F(Settings, failedBindAbortsWithoutAWordWhenQuiet) {
    const int port = freePort();
    const ChildResult child = inChild([port] {
        NwSocket::setQuietSockets(true);
        NwNetSocket socket(port, 0xC0000201u, kReadBoundToAddress, kLoopback);
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.output, "");
}

TEST_F(Settings, anyOtherActionLetsTheConstructorReturn) {
    for (int action : {1, 2, -1, INT_MIN}) {
        Messages messages;
        NwNetSocket::initErrorAction = action;
        NwNetSocket socket(freePort(), 0xC0000201u, kReadBoundToAddress, kLoopback);
        EXPECT_FALSE(socket.isOk()) << action;
        EXPECT_EQ(socket.readFd(), -1) << action;
    }
}
