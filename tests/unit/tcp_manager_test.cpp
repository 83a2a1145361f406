// SPDX-License-Identifier: BSD-3-Clause
// The manager of TCP connections: listening, accepting, settings, callbacks that change everything under its
// feet. What the system refuses, it refuses by appointment.
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_connections.h"
#include "tcp_peer.h"

// --- in the place of the system's calls --------------------------------------------------------------------

namespace {

struct Option {
    int fd, level, name, value;
    bool operator==(const Option& other) const {
        return fd == other.fd && level == other.level && name == other.name && value == other.value;
    }
};

std::ostream& operator<<(std::ostream& out, const Option& option) {
    return out << "option " << option.level << "/" << option.name << " of " << option.fd << " = "
               << option.value;
}

// What the calls below do, and what they saw.
struct System {
    int socketError = 0;  // the error that a call gives, 0: goes on to the kernel
    int bindError = 0;
    int listenError = 0;
    int acceptError = 0;
    int acceptFailures = 0;  // how often; -1: for ever
    int refusedOption = -1;  // of SOL_SOCKET

    int acceptCalls = 0;
    int listenCalls = 0;
    int backlog = 0;
    std::vector<Option> options;  // as they were set
    std::map<int, int> closed;    // how often each descriptor was
    bool records = false;
};

System system_;

int failWith(int error) {
    errno = error;
    return -1;
}

}  // namespace

#define IN_PLACE_OF_THE_SYSTEM extern "C" __attribute__((visibility("default")))

IN_PLACE_OF_THE_SYSTEM int socket(int domain, int type, int protocol) noexcept {
    if (system_.socketError) return failWith(system_.socketError);
    return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

IN_PLACE_OF_THE_SYSTEM int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
    if (system_.bindError) return failWith(system_.bindError);
    return static_cast<int>(::syscall(SYS_bind, fd, address, size));
}

IN_PLACE_OF_THE_SYSTEM int listen(int fd, int backlog) noexcept {
    ++system_.listenCalls;
    system_.backlog = backlog;
    if (system_.listenError) return failWith(system_.listenError);
    return static_cast<int>(::syscall(SYS_listen, fd, backlog));
}

IN_PLACE_OF_THE_SYSTEM int accept(int fd, sockaddr* address, socklen_t* size) {
    ++system_.acceptCalls;
    if (system_.acceptFailures) {
        if (system_.acceptFailures > 0) --system_.acceptFailures;
        return failWith(system_.acceptError);
    }
    return static_cast<int>(::syscall(SYS_accept, fd, address, size));
}

IN_PLACE_OF_THE_SYSTEM int setsockopt(int fd, int level, int name, const void* value,
                                      socklen_t size) noexcept {
    if (system_.records) system_.options.push_back({fd, level, name, *static_cast<const int*>(value)});
    if (level == SOL_SOCKET && name == system_.refusedOption) return failWith(EPERM);
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, size));
}

IN_PLACE_OF_THE_SYSTEM int close(int fd) {
    if (system_.records) ++system_.closed[fd];
    return static_cast<int>(::syscall(SYS_close, fd));
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const int kLowDelay = 0x10;

int option(int fd, int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    ::getsockopt(fd, level, name, &value, &size);
    return value;
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// A socket that tells what is done to it, and when it goes.
class LoggedSocket : public NwTcpSocket {
public:
    LoggedSocket(int fd, NwIpv4Addr addr, int number, std::vector<std::string>& log)
        : NwTcpSocket(fd, addr, 0), myNumber(number), myLog(log) {}
    ~LoggedSocket() override { tell("~"); }

    int number() const { return myNumber; }
    using NwTcpSocket::setNoDelay;
    using NwTcpSocket::sizeLength;
    using NwTcpSocket::sizeOffset;

    void setNoDelay(bool on) override {
        if (tellsSettings) tell("noDelay " + std::to_string(on) + format());
        NwTcpSocket::setNoDelay(on);
    }
    void setBundling(int size) override {
        if (tellsSettings) tell("bundling " + std::to_string(size) + format());
        const bool tells = std::exchange(tellsSettings, false);  // not the flush inside
        NwTcpSocket::setBundling(size);
        tellsSettings = tells;
    }
    void setUnbundling(int on) override {
        if (tellsSettings) tell("unbundling " + std::to_string(on) + format());
    }
    int flush() override {
        if (tellsSettings) tell("flush");
        return NwTcpSocket::flush();
    }

    bool tellsSettings = false;

private:
    std::string format() const {
        return " (" + std::to_string(sizeLength) + " at " + std::to_string(sizeOffset) + ")";
    }
    void tell(const std::string& what) {
        myLog.push_back(what == "~" ? what + std::to_string(myNumber)
                                    : std::to_string(myNumber) + ": " + what);
    }

    const int myNumber;
    std::vector<std::string>& myLog;
};

int numberOf(NwTcpSocket* socket) {
    return static_cast<LoggedSocket*>(socket)->number();
}

// Makes logged sockets, numbered from 1.
struct Workshop {
    static NwSocket* make(void* self, NwTcpSocketMgr* manager) {
        Workshop& shop = *static_cast<Workshop*>(self);
        auto* socket = new LoggedSocket(manager->currentSockFd(), manager->currentClientAddr(),
                                        static_cast<int>(shop.made.size()) + 1, shop.log);
        socket->tellsSettings = shop.tellsSettings;
        shop.made.push_back(socket);
        return socket;
    }

    LoggedSocket* socket(int number) const { return made.at(static_cast<std::size_t>(number) - 1); }

    std::vector<LoggedSocket*> made;  // gone or not
    std::vector<std::string> log;
    bool tellsSettings = false;
};

class TcpManager : public testing::Test {
protected:
    TcpManager() { system_ = System(); }
    ~TcpManager() override { system_ = System(); }

    std::vector<TcpPeer> connect(const NwTcpSocketMgr& manager, int count) {
        std::vector<TcpPeer> peers;
        for (int i = 0; i < count; ++i) peers.push_back(connectTo(manager));
        return peers;
    }

    Messages messages;
    Workshop shop;
};

// --- listening -------------------------------------------------------------------------------------------

TEST_F(TcpManager, listensOnEveryAddressAndPrintsNothing) {
    NwTcpSocketMgr manager(0);
    EXPECT_EQ(manager.isOk(), 1);
    EXPECT_EQ(manager.addrInUse(), 0);
    EXPECT_EQ(manager.sizeOffset(), 0);
    EXPECT_EQ(manager.sizeLength(), 2);
    EXPECT_EQ(manager.currentSockFd(), 0);
    EXPECT_EQ(manager.currentClientAddr(), 0u);
    EXPECT_EQ(manager.currentClientPort(), 0);
    ASSERT_NE(manager.socketList(), nullptr);
    EXPECT_EQ(manager.socketList()->count(), 0);
    EXPECT_EQ(localAddress(manager.readFd()).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_TRUE(::fcntl(manager.readFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(option(manager.readFd(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(system_.backlog, 1024);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpManager, listensOnThePortAskedFor) {
    const int port = freeTcpPort();
    NwTcpSocketMgr manager(port);
    EXPECT_EQ(manager.isOk(), 1);
    EXPECT_EQ(portOf(manager), port);
    NwTcpSocketMgr other(Workshop::make, &shop, freeTcpPort());
    EXPECT_EQ(other.isOk(), 1);
    EXPECT_NE(portOf(other), port);
}

TEST_F(TcpManager, onlyTheConstructorWithoutAFactoryMakesTheAddressReusable) {
    NwTcpSocketMgr plain(0);
    NwTcpSocketMgr factory(Workshop::make, &shop, 0);
    EXPECT_EQ(option(plain.readFd(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(option(factory.readFd(), SOL_SOCKET, SO_REUSEADDR), 0);
    for (const NwTcpSocketMgr* manager : {&plain, &factory}) {
        EXPECT_EQ(option(manager->readFd(), IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(option(manager->readFd(), IPPROTO_IP, IP_TOS), kLowDelay);
        EXPECT_TRUE(::fcntl(manager->readFd(), F_GETFL) & O_NONBLOCK);
    }
    EXPECT_EQ(factory.sizeOffset(), 0);
    EXPECT_EQ(factory.sizeLength(), 2);
    EXPECT_EQ(factory.addrInUse(), 0);
    EXPECT_EQ(system_.backlog, 1024);
}

TEST_F(TcpManager, setsTheOptionsOfTheListenerInOrder) {
    system_.records = true;
    NwTcpSocketMgr manager(0);
    const int fd = manager.readFd();
    EXPECT_THAT(system_.options,
                ElementsAre(Option{fd, SOL_SOCKET, SO_REUSEADDR, 1}, Option{fd, IPPROTO_TCP, TCP_NODELAY, 1},
                            Option{fd, IPPROTO_IP, IP_TOS, kLowDelay}));
}

TEST_F(TcpManager, portOfAnEarlierOwnerIsTakenForAWhileUnlessReusable) {
    auto earlier = std::make_unique<NwTcpSocketMgr>(0);
    const int port = portOf(*earlier);
    {
        TcpPeer peer = connectTo(*earlier);
        earlier->processConnections();
        earlier.reset();  // this end closes first: the port waits out its connection
        EXPECT_EQ(peer.receiveToEnd(), "");
    }
    messages.all();
    {
        NwTcpSocketMgr withFactory(Workshop::make, &shop, port);
        EXPECT_EQ(withFactory.isOk(), 0);
        EXPECT_EQ(withFactory.addrInUse(), 1);
    }
    NwTcpSocketMgr plain(port);
    EXPECT_EQ(plain.isOk(), 1);
    EXPECT_EQ(plain.addrInUse(), 0);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpManager, takenPortIsToldWithoutAWord) {
    NwTcpSocketMgr first(0);
    const int port = portOf(first);
    const int before = openDescriptors();
    {
        NwTcpSocketMgr second(port);
        NwTcpSocketMgr third(Workshop::make, &shop, port);
        for (const NwTcpSocketMgr* manager : {&second, &third}) {
            EXPECT_EQ(manager->isOk(), 0);
            EXPECT_EQ(manager->addrInUse(), 1);
            EXPECT_EQ(manager->readFd(), -1);
        }
        EXPECT_EQ(openDescriptors(), before + 2) << "kept until the destructor: meant";
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(first.isOk(), 1);
}

TEST_F(TcpManager, bindThatFailsOtherwiseIsReportedAlsoWhileQuiet) {
    for (const int error : {EACCES, EADDRNOTAVAIL}) {
        system_ = System();
        system_.bindError = error;
        system_.records = true;
        const int before = openDescriptors();
        {
            const Quiet quiet;
            NwTcpSocketMgr plain(0);
            NwTcpSocketMgr factory(Workshop::make, &shop, 0);
            for (const NwTcpSocketMgr* manager : {&plain, &factory}) {
                EXPECT_EQ(manager->isOk(), 0);
                EXPECT_EQ(manager->addrInUse(), 0);
            }
            EXPECT_EQ(openDescriptors(), before + 2);
        }
        EXPECT_EQ(openDescriptors(), before);
        const std::string report = systemReport("NwSocketMgr Constructor:", error);
        EXPECT_EQ(messages.warn(), report + report);
        EXPECT_EQ(messages.all(), "");
        EXPECT_EQ(system_.options.size(), 1u) << "nothing after bind";
        EXPECT_EQ(system_.listenCalls, 0);
    }
}

TEST_F(TcpManager, constructionGoesOnWithoutASocketAlsoWhileQuiet) {
    const Quiet quiet;
    system_.socketError = EMFILE;
    system_.records = true;
    {
        NwTcpSocketMgr manager(0);
        EXPECT_EQ(manager.isOk(), 0);
        EXPECT_EQ(manager.addrInUse(), 0);
        EXPECT_EQ(messages.info(), "Error setting SO_REUSEADDR\n");
        EXPECT_EQ(messages.warn(),
                  "Failed to open socket\n" + systemReport("NwSocketMgr Constructor:", EBADF));
        manager.processConnections();
        EXPECT_EQ(system_.acceptCalls, 0);
    }
    {
        NwTcpSocketMgr manager(Workshop::make, &shop, 0);
        EXPECT_EQ(manager.isOk(), 0);
        EXPECT_EQ(messages.info(), "");
        EXPECT_EQ(messages.warn(),
                  "Failed to open socket\n" + systemReport("NwSocketMgr Constructor:", EBADF));
    }
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(system_.closed.count(0), 0u) << "descriptor 0 is not ours";
}

TEST_F(TcpManager, refusedReuseIsToldAndGoesOnAlsoWhileQuiet) {
    const Quiet quiet;
    system_.refusedOption = SO_REUSEADDR;
    NwTcpSocketMgr manager(0);
    EXPECT_EQ(manager.isOk(), 1);
    EXPECT_EQ(option(manager.readFd(), SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_EQ(messages.info(), "Error setting SO_REUSEADDR\n");
    EXPECT_EQ(messages.all(), "");
    NwTcpSocketMgr factory(Workshop::make, &shop, 0);
    EXPECT_EQ(messages.all(), "") << "not even tried";
}

TEST_F(TcpManager, resultOfListenIsIgnored) {
    system_.listenError = EADDRINUSE;
    NwTcpSocketMgr manager(0);
    EXPECT_EQ(manager.isOk(), 1);
    EXPECT_EQ(manager.addrInUse(), 0);
    EXPECT_EQ(messages.all(), "");
    manager.processConnections();
    EXPECT_EQ(messages.warn(), systemReport("TcpSocket accept error: ", EINVAL)) << "once, then it ends";
}

// --- accepting -------------------------------------------------------------------------------------------

struct Counted {
    static void call(NwTcpSocket* socket, void* self) {
        static_cast<Counted*>(self)->sockets.push_back(socket);
    }
    std::vector<NwTcpSocket*> sockets;
};

TEST_F(TcpManager, acceptsAllThatIsPendingInOneCall) {
    NwTcpSocketMgr manager(0);
    Counted added;
    manager.addSocketAdditionCallback(Counted::call, &added);
    manager.processConnections();
    EXPECT_TRUE(added.sockets.empty());
    EXPECT_EQ(messages.all(), "") << "nothing pending is no error";

    std::vector<TcpPeer> peers = connect(manager, 3);
    manager.processConnections();
    ASSERT_EQ(added.sockets.size(), 3u);
    EXPECT_EQ(socketsOf(manager), added.sockets) << "oldest first";
    EXPECT_EQ(manager.currentSockFd(), added.sockets[2]->readFd());
    EXPECT_EQ(manager.currentClientAddr(), kLoopback);
    EXPECT_EQ(manager.currentClientPort(), 0);
    for (std::size_t i = 0; i < peers.size(); ++i) {
        EXPECT_TRUE(added.sockets[i]->isOk());
        EXPECT_EQ(added.sockets[i]->peerPort(), peers[i].port());
    }
    const std::string line = "Using TCP Socket with 20000 byte buffer (Server).\n";
    EXPECT_EQ(messages.info(), line + line + line);
    EXPECT_EQ(messages.all(), "");
    EXPECT_EQ(system_.acceptCalls, 1 + 4);

    TcpPeer late = connectTo(manager);
    manager.processConnections();
    ASSERT_EQ(added.sockets.size(), 4u);
    EXPECT_EQ(socketsOf(manager), added.sockets) << "newcomers at the end";
    EXPECT_EQ(manager.currentSockFd(), added.sockets[3]->readFd());
}

TEST_F(TcpManager, knowsTheAddressOfThePeerAcceptedLast) {
    NwTcpSocketMgr manager(0);
    const NwIpv4Addr addresses[] = {0x7F000005u, 0x7F0000FEu, 0x7F010203u};
    std::vector<TcpPeer> peers;
    for (const NwIpv4Addr address : addresses) {
        peers.push_back(connectTo(manager, address));
        manager.processConnections();
        EXPECT_EQ(manager.currentClientAddr(), address);
        EXPECT_EQ(manager.currentClientPort(), 0);
    }
}

TEST_F(TcpManager, leavesConnectionsThatItHasAlone) {
    NwTcpSocketMgr manager(Workshop::make, &shop, 0);
    shop.tellsSettings = true;
    std::vector<TcpPeer> peers = connect(manager, 1);
    manager.processConnections();
    shop.log.clear();
    const std::string bytes(1, '\0');
    peers[0].sendAll(bytes);
    ASSERT_TRUE(waitReadable(shop.socket(1)->readFd()));
    peers[0].close();
    manager.processConnections();
    EXPECT_THAT(shop.log, IsEmpty());
    EXPECT_TRUE(shop.socket(1)->isOk()) << "nobody has looked at it";
    EXPECT_EQ(socketsOf(manager).size(), 1u);
}

// A manager whose word and descriptor can be changed.
class OpenManager : public NwTcpSocketMgr {
public:
    using NwTcpSocketMgr::listenFd;
    using NwTcpSocketMgr::NwTcpSocketMgr;
    int isOk() const override { return isWilling; }
    int isWilling = 1;
};

TEST_F(TcpManager, asksItsVirtualSelfWhetherToAccept) {
    OpenManager manager(0);
    TcpPeer peer = connectTo(manager);
    manager.isWilling = 0;
    manager.processConnections();
    EXPECT_EQ(system_.acceptCalls, 0);
    manager.isWilling = 1;
    manager.processConnections();
    EXPECT_EQ(socketsOf(manager).size(), 1u);
}

TEST_F(TcpManager, triesAgainAtOnceWhenAcceptFailsAlsoWhileQuiet) {
    const Quiet quiet;
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM, ECONNABORTED, EPERM, EPROTO, EINTR, ENETDOWN,
                            EHOSTUNREACH, EOPNOTSUPP, ENETUNREACH}) {
        for (const int failures : {1, 3, 200}) {
            system_ = System();
            NwTcpSocketMgr manager(0);
            TcpPeer peer = connectTo(manager);
            system_.acceptError = error;
            system_.acceptFailures = failures;
            manager.processConnections();
            std::string reports;
            for (int i = 0; i < failures; ++i) reports += systemReport("TcpSocket accept error: ", error);
            EXPECT_EQ(messages.warn(), reports);
            EXPECT_EQ(messages.all(), "");
            EXPECT_EQ(system_.acceptCalls, failures + 2);
            EXPECT_EQ(socketsOf(manager).size(), 1u) << "what waited is accepted in the same call";
        }
    }
}

TEST_F(TcpManager, wouldBlockEndsTheCallWithoutAWord) {
    NwTcpSocketMgr manager(0);
    TcpPeer peer = connectTo(manager);
    system_.acceptError = EAGAIN;
    system_.acceptFailures = 1;
    manager.processConnections();
    EXPECT_EQ(system_.acceptCalls, 1);
    EXPECT_EQ(socketsOf(manager).size(), 0u);
    EXPECT_EQ(messages.all(), "");
    manager.processConnections();
    EXPECT_EQ(socketsOf(manager).size(), 1u);
}

TEST_F(TcpManager, givesUpAfterOneReportWhenTheDescriptorCanNeverAccept) {
    const Quiet quiet;
    NwTcpSocketMgr manager(0);
    for (const int error : {EBADF, EINVAL, ENOTSOCK}) {
        system_.acceptCalls = 0;
        system_.acceptError = error;
        system_.acceptFailures = -1;
        manager.processConnections();
        EXPECT_EQ(messages.warn(), systemReport("TcpSocket accept error: ", error));
        EXPECT_EQ(system_.acceptCalls, 1);
    }
    system_.acceptFailures = 0;
    TcpPeer peer = connectTo(manager);
    manager.processConnections();
    EXPECT_EQ(socketsOf(manager).size(), 1u) << "nothing else was given up";
}

TEST_F(TcpManager, endsForRealDescriptorsThatCanNeverAccept) {
    OpenManager manager(0);
    const int listener = manager.listenFd;
    manager.listenFd = -1;
    manager.processConnections();
    EXPECT_EQ(messages.warn(), systemReport("TcpSocket accept error: ", EBADF));

    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    manager.listenFd = pipeEnds[0];
    manager.processConnections();
    EXPECT_EQ(messages.warn(), systemReport("TcpSocket accept error: ", ENOTSOCK));
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);

    manager.listenFd = listener;
    ::shutdown(listener, SHUT_RDWR);
    manager.processConnections();
    EXPECT_EQ(messages.warn(), systemReport("TcpSocket accept error: ", EINVAL));
}

// --- settings --------------------------------------------------------------------------------------------

TEST_F(TcpManager, settingsReachANewSocketInOrder) {
    NwTcpSocketMgr manager(Workshop::make, &shop, 0);
    shop.tellsSettings = true;
    std::vector<TcpPeer> peers = connect(manager, 1);
    manager.processConnections();
    EXPECT_THAT(shop.log, ElementsAre("1: noDelay 1 (2 at 0)"));
    EXPECT_EQ(shop.socket(1)->sizeLength, 2);
    EXPECT_EQ(shop.socket(1)->sizeOffset, 0);

    manager.setNoDelay(false);
    manager.setSizeLength(4);
    manager.setSizeOffset(8);
    manager.setPacketBundling(1400);
    EXPECT_EQ(manager.sizeLength(), 4);
    EXPECT_EQ(manager.sizeOffset(), 8);
    EXPECT_EQ(shop.socket(1)->sizeLength, 2) << "sockets that are there keep theirs";
    EXPECT_EQ(shop.socket(1)->sizeOffset, 0);
    shop.log.clear();
    peers.push_back(connectTo(manager));
    manager.processConnections();
    EXPECT_THAT(shop.log, ElementsAre("2: noDelay 0 (2 at 0)", "2: bundling 1400 (4 at 8)",
                                      "2: unbundling 1 (4 at 8)"));
    EXPECT_EQ(shop.socket(2)->isBundling(), 1400);
    EXPECT_EQ(option(shop.socket(2)->readFd(), IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(shop.socket(1)->sizeLength, 2);
}

// Notes what a socket looks like at the moment of a warning.
class Witness : public std::streambuf {
public:
    explicit Witness(const Workshop& shop) : myShop(shop), myOld(NwWarn.rdbuf(this)) {}
    ~Witness() override { NwWarn.rdbuf(myOld); }
    std::string text;
    int offsetThen = -1;

protected:
    std::streamsize xsputn(const char* letters, std::streamsize length) override {
        text.append(letters, static_cast<std::size_t>(length));
        if (!myShop.made.empty()) offsetThen = myShop.made.back()->sizeOffset;
        return length;
    }

private:
    const Workshop& myShop;
    std::streambuf* myOld;
};

TEST_F(TcpManager, widthIsSetBeforeOffsetAndAnInvalidOneIsLeftToTheSocket) {
    NwTcpSocketMgr manager(Workshop::make, &shop, 0);
    manager.setSizeLength(3);
    manager.setSizeOffset(8);
    EXPECT_EQ(manager.sizeLength(), 3) << "not checked here";
    EXPECT_EQ(messages.all(), "");
    TcpPeer peer = connectTo(manager);
    Witness witness(shop);
    manager.processConnections();
    EXPECT_EQ(witness.text, "Invalid value for size, using default value\n");
    EXPECT_EQ(witness.offsetThen, 0) << "the offset comes after the width";
    EXPECT_EQ(shop.socket(1)->sizeLength, 2);
    EXPECT_EQ(shop.socket(1)->sizeOffset, 8);
}

TEST_F(TcpManager, bundlingFlushesWhatIsThereAndLeavesUnbundlingAlone) {
    NwTcpSocketMgr manager(Workshop::make, &shop, 0);
    shop.tellsSettings = true;
    std::vector<TcpPeer> peers = connect(manager, 2);
    manager.processConnections();
    shop.log.clear();
    manager.setPacketBundling(1400);
    EXPECT_THAT(shop.log, ElementsAre("1: flush", "1: bundling 1400 (2 at 0)", "2: flush",
                                      "2: bundling 1400 (2 at 0)"));
    std::string packet(
        "\0\x04"
        "ab",
        4);
    EXPECT_EQ(shop.socket(1)->NwSend(&packet[0], packet.size(), NwIpv4Addr{0}), 0);
    EXPECT_EQ(peers[0].receiveSome(), "") << "kept in a bundle";

    shop.log.clear();
    manager.setPacketBundling(0);
    EXPECT_THAT(shop.log,
                ElementsAre("1: flush", "1: bundling 0 (2 at 0)", "2: flush", "2: bundling 0 (2 at 0)"));
    EXPECT_EQ(peers[0].receive(packet.size()), packet);
    EXPECT_EQ(shop.socket(1)->isBundling(), 0);

    shop.log.clear();
    peers.push_back(connectTo(manager));
    manager.processConnections();
    EXPECT_THAT(shop.log, ElementsAre("3: noDelay 1 (2 at 0)")) << "0: neither bundling nor unbundling";
}

TEST_F(TcpManager, noDelayReachesEverySocketAndTheListenerAlwaysHasIt) {
    NwTcpSocketMgr manager(0);
    std::vector<TcpPeer> peers = connect(manager, 2);
    manager.processConnections();
    const int listener = manager.readFd();
    const int first = socketsOf(manager)[0]->readFd();
    const int second = socketsOf(manager)[1]->readFd();
    EXPECT_EQ(option(first, IPPROTO_TCP, TCP_NODELAY), 1);
    system_.records = true;
    for (const int on : {0, 1}) {
        system_.options.clear();
        manager.setNoDelay(on);
        EXPECT_THAT(system_.options, ElementsAre(Option{listener, IPPROTO_TCP, TCP_NODELAY, 1},
                                                 Option{listener, IPPROTO_IP, IP_TOS, kLowDelay},
                                                 Option{first, IPPROTO_TCP, TCP_NODELAY, on},
                                                 Option{first, IPPROTO_IP, IP_TOS, kLowDelay},
                                                 Option{second, IPPROTO_TCP, TCP_NODELAY, on},
                                                 Option{second, IPPROTO_IP, IP_TOS, kLowDelay}));
        EXPECT_EQ(option(second, IPPROTO_TCP, TCP_NODELAY), on);
        EXPECT_EQ(option(listener, IPPROTO_TCP, TCP_NODELAY), 1);
    }
}

// --- factories -------------------------------------------------------------------------------------------

struct Order {
    void* data = nullptr;
    NwTcpSocketMgr* manager = nullptr;
    int fd = -1;
    NwIpv4Addr addr = 0;
    int port = -1;
    int calls = 0;

    static NwSocket* make(void* self, NwTcpSocketMgr* manager) {
        Order& order = *static_cast<Order*>(self);
        order = {self,
                 manager,
                 manager->currentSockFd(),
                 manager->currentClientAddr(),
                 manager->currentClientPort(),
                 order.calls + 1};
        return new NwTcpSocket(order.fd, order.addr, 0);
    }
};

TEST_F(TcpManager, factoryFindsDescriptorAndAddressInTheManager) {
    Order order;
    NwTcpSocketMgr manager(Order::make, &order, 0);
    for (const NwIpv4Addr address : {0x7F000002u, 0x7F000003u}) {
        TcpPeer peer = connectTo(manager, address);
        manager.processConnections();
        EXPECT_EQ(order.data, &order);
        EXPECT_EQ(order.manager, &manager);
        EXPECT_EQ(order.addr, address);
        EXPECT_EQ(order.port, 0);
        EXPECT_EQ(order.fd, socketsOf(manager).back()->readFd());
        EXPECT_EQ(socketsOf(manager).back()->peerPort(), peer.port());
    }
    EXPECT_EQ(order.calls, 2);
}

// What a factory made of a connection that is no NwTcpSocket.
class Stranger : public NwSocket {
public:
    Stranger(int fd, int& gone) : myFd(fd), myGone(gone) {}
    ~Stranger() override {
        if (myFd >= 0) ::close(myFd);
        ++myGone;
    }
    int sendTo(char*, unsigned long, unsigned int) override { return 0; }
    int NwRecv(char**, int*) override { return 0; }
    int NwRecv(char*, unsigned long) override { return 0; }

private:
    int myFd;
    int& myGone;
};

// Disappoints for the first connection, then makes sockets.
struct Disappointing {
    std::function<NwSocket*(int fd)> first;
    int fd = -1;
    Workshop shop;

    static NwSocket* make(void* self, NwTcpSocketMgr* manager) {
        Disappointing& factory = *static_cast<Disappointing*>(self);
        if (factory.fd != -1) return Workshop::make(&factory.shop, manager);
        factory.fd = manager->currentSockFd();
        system_.records = true;
        return factory.first(factory.fd);
    }
};

class DisappointingFactory : public TcpManager {
protected:
    // What must follow whatever the factory gave.
    void expectRefusal(const std::function<NwSocket*(int fd)>& first) {
        system_ = System();
        Disappointing factory;
        factory.first = first;
        NwTcpSocketMgr manager(Disappointing::make, &factory, 0);
        Counted added;
        manager.addSocketAdditionCallback(Counted::call, &added);
        TcpPeer refused = connectTo(manager);
        {
            const Quiet quiet;
            manager.processConnections();
        }
        system_.records = false;
        EXPECT_EQ(messages.warn(), "NwTcpSocketMgr: no socket for a connection\n");
        EXPECT_EQ(messages.all(), "");
        EXPECT_EQ(system_.closed[factory.fd], 1) << "closed once";
        EXPECT_EQ(refused.receiveToEnd(), "");
        EXPECT_TRUE(added.sockets.empty());
        EXPECT_TRUE(socketsOf(manager).empty());
        TcpPeer next = connectTo(manager);
        manager.processConnections();
        EXPECT_EQ(socketsOf(manager).size(), 1u) << "the next one is served";
        messages.all();
    }
};

TEST_F(DisappointingFactory, nullIsRefused) {
    expectRefusal([](int) { return nullptr; });
}

TEST_F(DisappointingFactory, socketOfAnotherKindIsDeleted) {
    int gone = 0;
    expectRefusal([&](int) { return new Stranger(-1, gone); });
    EXPECT_EQ(gone, 1);
}

TEST_F(DisappointingFactory, socketOfAnotherKindMayCloseTheDescriptorItself) {
    int gone = 0;
    expectRefusal([&](int fd) { return new Stranger(fd, gone); });
    EXPECT_EQ(gone, 1);
}

TEST_F(DisappointingFactory, factoryMayCloseTheDescriptorItself) {
    expectRefusal([&](int fd) {
        ::close(fd);
        return nullptr;
    });
}

// The number is given to the next descriptor that anybody opens.
TEST_F(DisappointingFactory, descriptorOpenedInThePlaceOfAClosedOneIsLeftAlone) {
    const std::function<int()> opens[] = {[] { return ::open("/dev/null", O_WRONLY | O_CLOEXEC); },
                                          [] { return ::socket(AF_INET, SOCK_DGRAM, 0); }};
    for (const std::function<int()>& open : opens) {
        int other = -1;
        expectRefusal([&](int fd) {
            ::close(fd);
            other = open();
            EXPECT_EQ(other, fd);
            return nullptr;
        });
        EXPECT_TRUE(isOpen(other));
        ::close(other);
    }
}

TEST_F(TcpManager, factoryThatDisappointsDoesNotKeepTheOthersWaiting) {
    Disappointing factory;
    factory.first = [](int) { return nullptr; };
    NwTcpSocketMgr manager(Disappointing::make, &factory, 0);
    std::vector<TcpPeer> peers = connect(manager, 3);
    manager.processConnections();
    EXPECT_EQ(socketsOf(manager).size(), 2u);
}

// --- callbacks -------------------------------------------------------------------------------------------

// Callbacks with names: each writes its name and the socket's number into the log, then does its work.
class TcpManagerCallbacks : public TcpManager {
protected:
    struct Hook {
        TcpManagerCallbacks& test;
        std::string name;
        std::function<void(int number)> work;

        static void call(NwTcpSocket* socket, void* self) {
            Hook& hook = *static_cast<Hook*>(self);
            const int number = numberOf(socket);
            hook.test.shop.log.push_back(hook.name + std::to_string(number));
            if (hook.work) hook.work(number);
        }
    };

    // Callbacks use what a test has on its stack: none is called behind it.
    void TearDown() override {
        if (manager) manager->emptyCallbackLists();
    }

    Hook* hook(
        const std::string& name, const std::function<void(int)>& work = [](int) {}) {
        hooks.push_back(std::unique_ptr<Hook>(new Hook{*this, name, work}));
        return hooks.back().get();
    }
    void onAddition(Hook* what) { manager->addSocketAdditionCallback(Hook::call, what); }
    void onRemoval(Hook* what) { manager->addSocketRemovalCallback(Hook::call, what); }
    void noAddition(Hook* what) { manager->removeSocketAdditionCallback(Hook::call, what); }
    void noRemoval(Hook* what) { manager->removeSocketRemovalCallback(Hook::call, what); }

    // Connects and accepts so many more.
    void join(int count) {
        for (int i = 0; i < count; ++i) peers.push_back(connectTo(*manager));
        manager->processConnections();
    }
    void remove(int number) { manager->removeAndDelete(shop.socket(number)); }
    void removeAll() {
        while (NwListItem* item = manager->socketList()->last()) {
            const int before = manager->socketList()->count();
            manager->removeAndDelete(static_cast<NwTcpSocket*>(item->data()));
            if (manager->socketList()->count() == before) break;  // under way already
        }
    }

    // What was logged since the last call, and the numbers of the sockets in the list.
    std::string told() {
        std::string text;
        for (const std::string& entry : std::exchange(shop.log, {}))
            text += (text.empty() ? "" : " ") + entry;
        return text;
    }
    std::string listed() {
        std::string text;
        for (NwTcpSocket* socket : socketsOf(*manager)) text += std::to_string(numberOf(socket));
        return text;
    }

    std::deque<std::unique_ptr<Hook>> hooks;
    std::vector<TcpPeer> peers;
    std::unique_ptr<NwTcpSocketMgr> manager = std::make_unique<NwTcpSocketMgr>(Workshop::make, &shop, 0);
};

TEST_F(TcpManagerCallbacks, areCalledInOrderAndAsOftenAsRegistered) {
    Hook* a = hook("a");
    Hook* b = hook("b");
    onAddition(a);
    onAddition(b);
    onAddition(a);
    onRemoval(b);
    onRemoval(a);
    onRemoval(b);
    join(2);
    EXPECT_EQ(told(), "a1 b1 a1 a2 b2 a2");
    remove(1);
    EXPECT_EQ(told(), "b1 a1 b1 ~1");
    EXPECT_EQ(listed(), "2");
}

TEST_F(TcpManagerCallbacks, unregisteringTakesTheFirstMatchAlone) {
    Hook* a = hook("a");
    Hook* b = hook("b");
    for (Hook* each : {a, b, a}) onAddition(each);
    for (Hook* each : {b, a, b}) onRemoval(each);
    noAddition(a);
    noRemoval(b);
    join(1);
    EXPECT_EQ(told(), "b1 a1");
    remove(1);
    EXPECT_EQ(told(), "a1 b1 ~1");
    noAddition(a);
    noAddition(a);  // no match any more
    noRemoval(a);
    noRemoval(a);
    join(1);
    remove(2);
    EXPECT_EQ(told(), "b2 b2 ~2");
}

void otherFunction(NwTcpSocket*, void*) {}

TEST_F(TcpManagerCallbacks, registrationsAreEqualInBothMembersOnly) {
    Hook* a = hook("a");
    Hook* b = hook("b");
    onAddition(a);
    onRemoval(a);
    noAddition(b);
    noRemoval(b);
    manager->removeSocketAdditionCallback(otherFunction, a);
    manager->removeSocketRemovalCallback(otherFunction, a);
    noRemoval(b);
    join(1);
    remove(1);
    EXPECT_EQ(told(), "a1 a1 ~1");
}

TEST_F(TcpManagerCallbacks, listsOfAdditionAndRemovalAreTwo) {
    Hook* a = hook("a");
    onAddition(a);
    noRemoval(a);
    join(1);
    EXPECT_EQ(told(), "a1");
    remove(1);
    EXPECT_EQ(told(), "~1");
}

TEST_F(TcpManagerCallbacks, emptyCallbackListsForgetsBoth) {
    Hook* a = hook("a");
    onAddition(a);
    onAddition(a);
    onRemoval(a);
    manager->emptyCallbackLists();
    join(1);
    remove(1);
    EXPECT_EQ(told(), "~1");
    manager->emptyCallbackLists();
    onAddition(a);
    join(1);
    EXPECT_EQ(told(), "a2") << "and takes new ones";
}

TEST_F(TcpManagerCallbacks, additionSeesASocketThatIsSetUpAndListed) {
    manager->setSizeLength(4);
    manager->setPacketBundling(500);
    onAddition(hook("a", [&](int number) {
        EXPECT_EQ(shop.socket(number)->sizeLength, 4);
        EXPECT_EQ(shop.socket(number)->isBundling(), 500);
        EXPECT_EQ(socketsOf(*manager).back(), shop.socket(number));
    }));
    join(2);
    EXPECT_EQ(told(), "a1 a2");
}

TEST_F(TcpManagerCallbacks, removalSeesASocketThatIsUsableAndListed) {
    join(3);
    onRemoval(hook("a", [&](int number) {
        EXPECT_EQ(listed(), "123");
        EXPECT_TRUE(isOpen(shop.socket(number)->readFd()));
        std::string farewell("\0\x03!", 3);
        EXPECT_EQ(shop.socket(number)->sendTo(&farewell[0], farewell.size(), NwIpv4Addr{0}), 3);
    }));
    remove(2);
    EXPECT_EQ(told(), "a2 ~2");
    EXPECT_EQ(listed(), "13");
    EXPECT_EQ(peers[1].receiveToEnd(), std::string("\0\x03!", 3));
}

TEST_F(TcpManagerCallbacks, removalClosesTheDescriptor) {
    join(1);
    const int fd = shop.socket(1)->readFd();
    system_.records = true;
    remove(1);
    system_.records = false;
    EXPECT_EQ(system_.closed[fd], 1);
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(peers[0].receiveToEnd(), "");
}

TEST_F(TcpManagerCallbacks, removingASocketThatIsNotListedDoesNothing) {
    onRemoval(hook("a"));
    join(1);
    TcpListener elsewhere;
    TcpPeer other(elsewhere.port());
    NwTcpSocket stranger(elsewhere.acceptFd(), kLoopback, 0);
    manager->removeAndDelete(&stranger);
    manager->removeAndDelete(nullptr);
    EXPECT_EQ(told(), "");
    EXPECT_EQ(listed(), "1");
    EXPECT_TRUE(stranger.isOk());
    remove(1);
    remove(1);  // gone
    EXPECT_EQ(told(), "a1 ~1");
}

// --- callbacks that register and unregister, at every point; for additions and removals alike
// ---------------

enum When { kOnAddition, kOnRemoval };

class TcpManagerReentry : public TcpManagerCallbacks, public testing::WithParamInterface<When> {
protected:
    void add(Hook* what) { GetParam() == kOnAddition ? onAddition(what) : onRemoval(what); }
    void drop(Hook* what) { GetParam() == kOnAddition ? noAddition(what) : noRemoval(what); }
    // One walk over the callbacks, for the next socket: what it told of them.
    std::string walk() {
        if (GetParam() == kOnAddition) {
            join(1);
            return told();
        }
        if (shop.made.empty()) join(8);
        const int number = ++myRemoved;
        remove(number);
        std::string text = told();
        const std::string deletion = " ~" + std::to_string(number);
        if (text == deletion.substr(1)) return "";
        EXPECT_GE(text.size(), deletion.size());
        EXPECT_EQ(text.substr(text.size() - deletion.size()), deletion) << text;
        return text.substr(0, text.size() - deletion.size());
    }

private:
    int myRemoved = 0;
};

INSTANTIATE_TEST_SUITE_P(Walk, TcpManagerReentry, testing::Values(kOnAddition, kOnRemoval),
                         [](const testing::TestParamInfo<When>& when) {
                             return when.param == kOnAddition ? "Additions" : "Removals";
                         });

TEST_P(TcpManagerReentry, callbackMayUnregisterItself) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    for (Hook* each : {a, b, c}) {
        add(each);
        each->work = [this, each](int) { drop(each); };
    }
    EXPECT_EQ(walk(), "a1 b1 c1");
    EXPECT_EQ(walk(), "");
}

TEST_P(TcpManagerReentry, unregisteredNextIsNotCalled) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    a->work = [&](int) { drop(b); };
    for (Hook* each : {a, b, c}) add(each);
    EXPECT_EQ(walk(), "a1 c1");
    a->work = [&](int) { drop(c); };
    EXPECT_EQ(walk(), "a2") << "the last one";
}

TEST_P(TcpManagerReentry, unregisteredPreviousChangesNothingForThoseBehind) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    b->work = [&](int) { drop(a); };
    for (Hook* each : {a, b, c}) add(each);
    EXPECT_EQ(walk(), "a1 b1 c1");
    EXPECT_EQ(walk(), "b2 c2");
}

TEST_P(TcpManagerReentry, registeredOneWaitsForTheNextSocket) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    a->work = [&](int) { add(c); };
    for (Hook* each : {a, b}) add(each);
    EXPECT_EQ(walk(), "a1 b1");
    a->work = nullptr;
    EXPECT_EQ(walk(), "a2 b2 c2");
}

TEST_P(TcpManagerReentry, lastOneMayRegisterToo) {
    Hook *a = hook("a"), *b = hook("b");
    a->work = [&](int) { add(b); };
    add(a);
    EXPECT_EQ(walk(), "a1");
    a->work = nullptr;
    EXPECT_EQ(walk(), "a2 b2");
}

TEST_P(TcpManagerReentry, callbackMayArmItselfAnew) {
    Hook *a = hook("a"), *b = hook("b");
    a->work = [&](int) {
        drop(a);
        add(a);
    };
    for (Hook* each : {a, b}) add(each);
    EXPECT_EQ(walk(), "a1 b1");
    EXPECT_EQ(walk(), "b2 a2") << "it stands behind now";
    EXPECT_EQ(walk(), "b3 a3");
}

TEST_P(TcpManagerReentry, callbackMayArmAnotherAnew) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    a->work = [&](int) {
        add(b);
        drop(b);
    };
    for (Hook* each : {a, b, c}) add(each);
    EXPECT_EQ(walk(), "a1 c1") << "the new registration waits for the next socket";
    a->work = nullptr;
    EXPECT_EQ(walk(), "a2 c2 b2");
}

TEST_P(TcpManagerReentry, newOneWaitsAlsoWhenAnOldOneGoes) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c"), *d = hook("d"), *e = hook("e");
    a->work = [&](int) {
        drop(b);
        add(d);
        add(e);
    };
    for (Hook* each : {a, b, c}) add(each);
    EXPECT_EQ(walk(), "a1 c1");
    a->work = nullptr;
    EXPECT_EQ(walk(), "a2 c2 d2 e2");
}

TEST_P(TcpManagerReentry, newOneMayBeUnregisteredAgain) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    a->work = [&](int) {
        add(c);
        drop(c);
    };
    for (Hook* each : {a, b}) add(each);
    EXPECT_EQ(walk(), "a1 b1");
    EXPECT_EQ(walk(), "a2 b2");
}

TEST_P(TcpManagerReentry, allMayBeForgottenInTheMiddle) {
    Hook *a = hook("a"), *b = hook("b"), *c = hook("c");
    b->work = [&](int) { manager->emptyCallbackLists(); };
    for (Hook* each : {a, b, c}) add(each);
    EXPECT_EQ(walk(), "a1 b1");
    EXPECT_EQ(walk(), "");
}

TEST_P(TcpManagerReentry, allMayBeForgottenAndRegisteredAnew) {
    Hook *a = hook("a"), *b = hook("b");
    a->work = [&](int) {
        manager->emptyCallbackLists();
        for (Hook* each : {a, b}) add(each);
    };
    for (Hook* each : {a, b}) add(each);
    EXPECT_EQ(walk(), "a1");
    EXPECT_EQ(walk(), "a2");
}

// --- callbacks that remove sockets -----------------------------------------------------------------------

TEST_F(TcpManagerCallbacks, additionMayRemoveItsOwnSocket) {
    onAddition(hook("a"));
    onAddition(hook("b", [&](int number) {
        if (number == 2) remove(2);
    }));
    onAddition(hook("c"));
    onRemoval(hook("r"));
    join(3);
    EXPECT_EQ(told(), "a1 b1 c1 a2 b2 r2 ~2 a3 b3 c3") << "not shown to those behind";
    EXPECT_EQ(listed(), "13");
}

TEST_F(TcpManagerCallbacks, additionMayRemoveOtherSockets) {
    onAddition(hook("a", [&](int number) {
        if (number > 1) remove(number - 1);
    }));
    onAddition(hook("b"));
    onRemoval(hook("r"));
    join(3);
    EXPECT_EQ(told(), "a1 b1 a2 r1 ~1 b2 a3 r2 ~2 b3");
    EXPECT_EQ(listed(), "3");
}

TEST_F(TcpManagerCallbacks, additionMayRemoveAllSockets) {
    onAddition(hook("a"));
    onAddition(hook("b", [&](int number) {
        if (number == 3) removeAll();
    }));
    onAddition(hook("c"));
    onRemoval(hook("r"));
    join(4);
    EXPECT_EQ(told(), "a1 b1 c1 a2 b2 c2 a3 b3 r3 ~3 r2 ~2 r1 ~1 a4 b4 c4");
    EXPECT_EQ(listed(), "4");
}

TEST_F(TcpManagerCallbacks, additionMayAcceptTheRest) {
    onAddition(hook("a", [&](int) { manager->processConnections(); }));
    onAddition(hook("b"));
    join(3);
    EXPECT_EQ(told(), "a1 a2 a3 b3 b2 b1");
    EXPECT_EQ(listed(), "123");
}

TEST_F(TcpManagerCallbacks, removalOfTheSameSocketAgainDoesNothing) {
    join(1);
    onRemoval(hook("a", [&](int) {
        remove(1);
        remove(1);
    }));
    onRemoval(hook("b", [&](int) { remove(1); }));
    remove(1);
    EXPECT_EQ(told(), "a1 b1 ~1");
    EXPECT_EQ(listed(), "");
}

TEST_F(TcpManagerCallbacks, removalMayRemoveOtherSockets) {
    join(4);
    onRemoval(hook("a", [&](int number) {
        if (number == 2) {
            remove(3);
            remove(1);
        }
    }));
    onRemoval(hook("b"));
    remove(2);
    EXPECT_EQ(told(), "a2 a3 b3 ~3 a1 b1 ~1 b2 ~2");
    EXPECT_EQ(listed(), "4");
}

TEST_F(TcpManagerCallbacks, removalMayRemoveInCircles) {
    join(3);
    onRemoval(hook("a", [&](int number) { remove(number % 3 + 1); }));
    remove(1);
    EXPECT_EQ(told(), "a1 a2 a3 ~3 ~2 ~1");
    EXPECT_EQ(listed(), "");
}

TEST_F(TcpManagerCallbacks, removalMayRemoveAll) {
    join(3);
    onRemoval(hook("a", [&](int number) {
        for (const int each : {1, 2, 3}) remove(each == number ? number : each);
    }));
    onRemoval(hook("b"));
    remove(2);
    EXPECT_EQ(told(), "a2 a1 a3 b3 ~3 b1 ~1 b2 ~2");
    EXPECT_EQ(listed(), "");
}

TEST_F(TcpManagerCallbacks, removalMayAcceptOthers) {
    join(1);
    onAddition(hook("a"));
    onRemoval(hook("r", [&](int number) {
        if (number == 1) join(2);
    }));
    remove(1);
    EXPECT_EQ(told(), "r1 a2 a3 ~1");
    EXPECT_EQ(listed(), "23");
}

// --- the end ---------------------------------------------------------------------------------------------

TEST_F(TcpManagerCallbacks, destructorStopsListeningThenRemovesOldestFirst) {
    join(2);
    const int listener = manager->readFd();
    onRemoval(hook("a", [&](int number) {
        EXPECT_FALSE(isOpen(listener)) << "closed before the first removal";
        EXPECT_EQ(listed(), number == 1 ? "12" : "2");
    }));
    onRemoval(hook("b"));
    NwTcpSocketMgr* const raw = manager.get();
    EXPECT_EQ(raw->socketList()->count(), 2);
    delete raw;  // the pointer stays for the callbacks
    manager.release();
    EXPECT_EQ(told(), "a1 b1 ~1 a2 b2 ~2");
}

class TcpManagerEnd : public TcpManagerCallbacks {
protected:
    void SetUp() override { join(4); }
    std::string end() {
        delete manager.get();  // the pointer stays for the callbacks
        manager.release();
        return told();
    }
};

TEST_F(TcpManagerEnd, removalMayRemoveTheNext) {
    onRemoval(hook("a", [&](int number) {
        if (number < 4) remove(number + 1);
    }));
    EXPECT_EQ(end(), "a1 a2 a3 a4 ~4 ~3 ~2 ~1");
}

TEST_F(TcpManagerEnd, removalMayRemoveTheNextWhenItsOwnIsDone) {
    onRemoval(hook("a", [&](int number) {
        if (number == 1) remove(2);
    }));
    onRemoval(hook("b"));
    EXPECT_EQ(end(), "a1 a2 b2 ~2 b1 ~1 a3 b3 ~3 a4 b4 ~4");
}

TEST_F(TcpManagerEnd, removalMayRemoveAllAndItselfAgain) {
    onRemoval(hook("a", [&](int number) {
        remove(number);
        removeAll();
        remove(number);
    }));
    EXPECT_EQ(end(), "a1 a4 ~4 a3 ~3 a2 ~2 ~1");
}

TEST_F(TcpManagerEnd, callbackMayUnregisterAndArmItselfAnew) {
    Hook* a = hook("a");
    a->work = [&, a](int) {
        noRemoval(a);
        onRemoval(a);
        onRemoval(hook("n"));
    };
    onRemoval(a);
    onRemoval(hook("b", [&](int number) {
        if (number == 3) manager->emptyCallbackLists();
    }));
    EXPECT_EQ(end(), "a1 b1 ~1 b2 a2 n2 ~2 b3 ~3 ~4");
}

TEST_F(TcpManagerEnd, nothingIsAcceptedAnyMore) {
    peers.push_back(connectTo(*manager));
    onAddition(hook("x"));
    onRemoval(hook("a", [&](int number) {
        if (number == 1) manager->processConnections();
        EXPECT_EQ(manager->isOk(), 0);
        EXPECT_EQ(manager->readFd(), -1);
    }));
    EXPECT_EQ(end(), "a1 ~1 a2 ~2 a3 ~3 a4 ~4");
}

TEST_F(TcpManager, endClosesEveryDescriptor) {
    const int before = openDescriptors();
    {
        NwTcpSocketMgr manager(0);
        std::vector<TcpPeer> peers = connect(manager, 3);
        manager.processConnections();
        TcpPeer neverAccepted = connectTo(manager);
        EXPECT_EQ(openDescriptors(), before + 1 + 3 + 3 + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

// Callbacks that do anything at any time. The first one registered is there all the time and sees each
// socket once; every socket is deleted once; every walk ends.
TEST_F(TcpManagerCallbacks, anythingAtAnyTime) {
    const Quiet quiet;
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned int>(n)); };
    Hook* first = hook("+");
    Hook* firstRemoval = hook("-");
    onAddition(first);
    onRemoval(firstRemoval);
    int depth = 0;
    std::vector<Hook*> pool;
    const auto act = [&](int number) {
        if (depth > 3) return;
        ++depth;
        Hook* other = pool[static_cast<std::size_t>(below(static_cast<int>(pool.size())))];
        switch (below(8)) {
            case 0:
                onAddition(other);
                break;
            case 1:
                noAddition(other);
                break;
            case 2:
                onRemoval(other);
                break;
            case 3:
                noRemoval(other);
                break;
            case 4:
                remove(number);
                break;
            case 5:
                remove(1 + below(static_cast<int>(shop.made.size())));
                break;
            case 6:
                manager->processConnections();
                break;
            default:
                break;
        }
        --depth;
    };
    for (int i = 0; i < 6; ++i) pool.push_back(hook("x", act));
    for (int round = 0; round < 60; ++round) {
        for (Hook* each : pool) below(2) ? onAddition(each) : onRemoval(each);
        join(1 + below(4));
        while (manager->socketList()->count() > 6)
            manager->removeAndDelete(static_cast<NwTcpSocket*>(manager->socketList()->first()->data()));
        manager->emptyCallbackLists();
        onAddition(first);
        onRemoval(firstRemoval);
    }
    for (Hook* each : pool) onRemoval(each);
    delete manager.get();  // the pointer stays for the callbacks
    manager.release();
    std::map<std::string, int> count;
    for (const std::string& entry : shop.log) ++count[entry];
    EXPECT_EQ(shop.made.size(), peers.size());
    for (std::size_t number = 1; number <= shop.made.size(); ++number) {
        EXPECT_EQ(count["+" + std::to_string(number)], 1) << number;
        EXPECT_EQ(count["-" + std::to_string(number)], 1) << number;
        EXPECT_EQ(count["~" + std::to_string(number)], 1) << number;
    }
}

}  // namespace
