// SPDX-License-Identifier: BSD-3-Clause
// A TCP connection from its making to its end: both constructors, messages, failures, options, connection
// tests.
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvutil/cvByteOrder.h>
#include <cvutil/cvOutput.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "child.h"
#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_peer.h"

// --- the system's functions, watched and failing by appointment ------------------------------------------

namespace {

std::vector<std::string>* calls = nullptr;  // where calls are noted; null: nowhere
std::string failingCall;                    // which fails, with
int failure = 0;
std::function<void()> onConnect;
// What send() does next: takes that many bytes, or fails with the error whose negative stands there. Behind
// the last it sends everything.
std::deque<int> sends;

// Whether that call is to fail; errno is set then.
bool fails(const std::string& call) {
    if (calls) calls->push_back(call);
    if (call != failingCall) return false;
    errno = failure;
    return true;
}

}  // namespace

#define IN_THE_SYSTEMS_PLACE extern "C" __attribute__((visibility("default")))

IN_THE_SYSTEMS_PLACE int socket(int domain, int type, int protocol) noexcept {
    const bool isTcp = domain == AF_INET && type == SOCK_STREAM && protocol == 0;
    if (isTcp && fails("socket")) return -1;
    return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

IN_THE_SYSTEMS_PLACE int connect(int fd, const sockaddr* address, socklen_t size) {
    if (calls && onConnect) onConnect();
    if (fails("connect " + std::to_string(size))) return -1;
    return static_cast<int>(::syscall(SYS_connect, fd, address, size));
}

IN_THE_SYSTEMS_PLACE int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
    const char* call = level == IPPROTO_TCP && name == TCP_NODELAY ? "no delay"
                       : level == IPPROTO_IP && name == IP_TOS     ? "type of service"
                                                                   : "option";
    if (fails(call)) return -1;
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, size));
}

IN_THE_SYSTEMS_PLACE int getsockname(int fd, sockaddr* address, socklen_t* size) noexcept {
    if (fails("getsockname")) return -1;
    return static_cast<int>(::syscall(SYS_getsockname, fd, address, size));
}

IN_THE_SYSTEMS_PLACE int getpeername(int fd, sockaddr* address, socklen_t* size) noexcept {
    if (fails("getpeername")) return -1;
    return static_cast<int>(::syscall(SYS_getpeername, fd, address, size));
}

IN_THE_SYSTEMS_PLACE int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (command == F_SETFL && fails(argument & O_NONBLOCK ? "become non-blocking" : "become blocking"))
        return -1;
    return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

IN_THE_SYSTEMS_PLACE ssize_t send(int fd, const void* bytes, std::size_t length, int flags) {
    if (calls) calls->push_back("send " + std::to_string(length) + (flags == MSG_NOSIGNAL ? "" : " loudly"));
    if (!sends.empty()) {
        const int next = sends.front();
        sends.pop_front();
        if (next < 0) {
            errno = -next;
            return -1;
        }
        length = std::min(length, static_cast<std::size_t>(next));
    }
    return ::syscall(SYS_sendto, fd, bytes, length, flags, nullptr, 0);
}

namespace {

// --- what the tests look at ------------------------------------------------------------------------------

// The class, with its fields in sight.
class Probe : public NwTcpSocket {
public:
    using NwTcpSocket::bytesToRead;
    using NwTcpSocket::localPortNumber;
    using NwTcpSocket::NwTcpSocket;
    using NwTcpSocket::ok;
    using NwTcpSocket::peerAddr;
    using NwTcpSocket::peerPortNumber;
    using NwTcpSocket::pktBufferSize;
    using NwTcpSocket::sendQueue;
    using NwTcpSocket::sizeLength;
    using NwTcpSocket::sizeOffset;
    using NwTcpSocket::socketFd;
};

int option(int fd, int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(::getsockopt(fd, level, name, &value, &size), 0);
    return value;
}

int noDelayOf(int fd) {
    return option(fd, IPPROTO_TCP, TCP_NODELAY);
}

int typeOfServiceOf(int fd) {
    return option(fd, IPPROTO_IP, IP_TOS);
}

void setTypeOfService(int fd, int value) {
    ASSERT_EQ(::setsockopt(fd, IPPROTO_IP, IP_TOS, &value, sizeof value), 0);
}

bool isNonBlocking(int fd) {
    return ::fcntl(fd, F_GETFL, 0) & O_NONBLOCK;
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD, 0) != -1;
}

int portOf(int fd) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size), 0);
    return ntohs(local.sin_port);
}

bool ignoresBrokenPipes() {
    struct sigaction action = {};
    ::sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

// Waits until what is asked about happens to the descriptor.
bool waitFor(int fd, short events) {
    pollfd entry = {fd, events, 0};
    return ::poll(&entry, 1, kPatienceMilliseconds) == 1;
}

const char kConnecting[] = "TCP Socket connecting to 127.0.0.1.\n";
const char kClientReady[] = "Using TCP Socket with 20000 byte buffer (Client).\n";
const char kServerReady[] = "Using TCP Socket with 20000 byte buffer (Server).\n";

typedef std::vector<std::string> Calls;

class TcpSocket : public testing::Test {
protected:
    TcpSocket() { ::signal(SIGPIPE, SIG_DFL); }
    ~TcpSocket() override {
        calls = nullptr;
        failingCall.clear();
        onConnect = nullptr;
        sends.clear();
        NwTcpSocket::setPacketBufferSize(20000);
        NwSetNetworkByteOrdering(1);
        ::signal(SIGPIPE, SIG_DFL);
    }

    std::unique_ptr<Probe> client(int nonBlockingConnect = 0) {
        return std::unique_ptr<Probe>(new Probe(kLoopback, port, nonBlockingConnect));
    }
    std::unique_ptr<Probe> server() {
        return std::unique_ptr<Probe>(new Probe(listener.acceptFd(), kLoopback, 1));
    }
    // A call fails from here on, until the test ends or another is made to.
    static void fail(const std::string& call, int error) {
        failingCall = call;
        failure = error;
    }
    template <class Work>
    static Calls callsOf(const Work& work) {
        Calls noted;
        calls = &noted;
        work();
        calls = nullptr;
        return noted;
    }

    Messages messages;
    TcpListener listener;
    const int port = listener.port();
};

}  // namespace

static_assert(std::is_base_of<NwSocket, NwTcpSocket>::value, "a socket like the others");
static_assert(std::has_virtual_destructor<NwTcpSocket>::value, "deleted through any base");
static_assert(!std::is_copy_constructible<NwTcpSocket>::value && !std::is_copy_assignable<NwTcpSocket>::value,
              "a connection is one");

// --- the client's side -----------------------------------------------------------------------------------

TEST_F(TcpSocket, clientConnectsAndSaysSo) {
    const std::unique_ptr<Probe> socket = client();
    EXPECT_EQ(messages.info(), std::string(kConnecting) + kClientReady);
    EXPECT_EQ(messages.all(), "");
    const TcpPeer peer = listener.accept();
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(socket->peerAddr, kLoopback);
    EXPECT_EQ(socket->peerPort(), port);
    EXPECT_EQ(socket->localPort(), portOf(socket->readFd()));
    EXPECT_NE(socket->localPort(), 0);
    EXPECT_EQ(socket->readFd(), socket->socketFd);
    EXPECT_EQ(socket->writeFd(), socket->socketFd);
    EXPECT_TRUE(isNonBlocking(socket->readFd()));
    EXPECT_EQ(noDelayOf(socket->readFd()), 1);
    EXPECT_EQ(typeOfServiceOf(socket->readFd()), IPTOS_LOWDELAY);
    EXPECT_EQ(socket->getQueueStatus(), std::make_pair(0, -1));
    EXPECT_EQ(socket->bytesToRead, 2u);
    EXPECT_TRUE(ignoresBrokenPipes());
}

TEST_F(TcpSocket, clientTakesItsStepsInOrder) {
    EXPECT_EQ(callsOf([&] { client(0); }), (Calls{"socket", "connect 16", "getsockname",
                                                  "become non-blocking", "no delay", "type of service"}));
    EXPECT_EQ(callsOf([&] { client(1); }), (Calls{"socket", "become non-blocking", "connect 16",
                                                  "getsockname", "no delay", "type of service"}));
    EXPECT_EQ(callsOf([&] { client(-3); })[1], "become non-blocking") << "anything but 0";
}

TEST_F(TcpSocket, clientSaysWhereItConnectsToBeforeItDoes) {
    std::string before;
    onConnect = [&] { before = messages.all(); };
    callsOf([&] { client(); });
    EXPECT_EQ(before, kConnecting);
    EXPECT_EQ(messages.all(), kClientReady);
}

TEST_F(TcpSocket, clientIsSilentWhileQuiet) {
    const Quiet quiet;
    EXPECT_TRUE(client(0)->isOk());
    EXPECT_TRUE(client(1)->isOk());
    fail("connect 16", ECONNREFUSED);
    EXPECT_FALSE(client()->isOk());
    fail("socket", EMFILE);
    EXPECT_FALSE(client()->isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSocket, addressIsPrintedAsDottedQuad) {
    REQUIRE_PRIVATE_NETWORK();
    fail("connect 16", ENETUNREACH);
    const Probe socket(0xC0000201u, 3000, 0);
    EXPECT_EQ(messages.info(), "TCP Socket connecting to 192.0.2.1.\n");
    EXPECT_EQ(socket.peerAddr, 0xC0000201u);
    EXPECT_EQ(socket.peerPort(), 3000);
}

TEST_F(TcpSocket, withoutDescriptorClientIsNotOk) {
    fail("socket", EMFILE);
    const int descriptors = openDescriptors();
    Probe socket(kLoopback, port, 0);
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.warn(), systemReport("Failed to open socket: ", EMFILE));
    EXPECT_EQ(messages.all(), "") << "it does not say that it connects";
    EXPECT_LT(socket.readFd(), 0);
    EXPECT_EQ(socket.localPort(), -1);
    EXPECT_EQ(socket.peerPort(), port);
    EXPECT_FALSE(ignoresBrokenPipes());
    EXPECT_EQ(openDescriptors(), descriptors);
}

// Whatever is asked of a socket without a descriptor is refused, and nothing happens.
TEST_F(TcpSocket, withoutDescriptorNothingWorks) {
    fail("socket", EMFILE);
    Probe socket(kLoopback, port, 0);
    fail("", 0);
    messages.all();
    EXPECT_FALSE(socket.isConnectionEstablished());
    EXPECT_EQ(messages.all(), "");
    char bytes[10] = {};
    char* lent = bytes;
    int status = 7;
    EXPECT_EQ(socket.sendTo(bytes, 10, 0), 0);
    EXPECT_EQ(messages.warn(), systemReport("TCP Socket sendTo error: ", EBADF) + "\n");
    EXPECT_EQ(socket.NwRecv(&lent, &status), 0);
    EXPECT_EQ(messages.warn(), systemReport("Network read error: ", EBADF) + "\n");
    EXPECT_EQ(lent, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(socket.isOk());
}

TEST_F(TcpSocket, connectingWhereNobodyListensFails) {
    const int deserted = freeTcpPort();
    const int descriptors = openDescriptors();
    {
        Probe socket(kLoopback, deserted, 0);
        EXPECT_FALSE(socket.isOk());
        EXPECT_EQ(messages.warn(), systemReport("TCP Socket connect failed: ", ECONNREFUSED));
        EXPECT_EQ(messages.info(), kConnecting);
        EXPECT_EQ(socket.localPort(), -1);
        EXPECT_EQ(socket.peerPort(), deserted);
        EXPECT_TRUE(isOpen(socket.readFd())) << "until the destructor closes it";
        EXPECT_FALSE(isNonBlocking(socket.readFd())) << "the steps end with the failure";
        EXPECT_EQ(noDelayOf(socket.readFd()), 0);
        EXPECT_FALSE(ignoresBrokenPipes());
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSocket, everyErrorOfConnectButTwoIsAFailure) {
    for (int error : {EINTR, ETIMEDOUT, ENETUNREACH, EISCONN}) {
        fail("connect 16", error);
        for (int nonBlockingConnect : {0, 1}) {
            const std::unique_ptr<Probe> socket = client(nonBlockingConnect);
            EXPECT_FALSE(socket->isOk()) << error;
            EXPECT_EQ(messages.warn(), systemReport("TCP Socket connect failed: ", error));
            EXPECT_EQ(socket->localPort(), -1);
        }
    }
    messages.all();
    for (int error : {EINPROGRESS, EAGAIN}) {
        fail("connect 16", error);
        for (int nonBlockingConnect : {0, 1}) {
            const std::unique_ptr<Probe> socket = client(nonBlockingConnect);
            EXPECT_TRUE(socket->isOk()) << error;
            EXPECT_EQ(messages.all(), std::string(kConnecting) + kClientReady);
            EXPECT_TRUE(isNonBlocking(socket->readFd()));
        }
    }
}

TEST_F(TcpSocket, localPortThatTheSystemDoesNotTellIsMinusOne) {
    fail("getsockname", ENOBUFS);
    const std::unique_ptr<Probe> socket = client();
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(socket->localPort(), -1);
}

TEST_F(TcpSocket, nonBlockingConnectReturnsOkWithItsPort) {
    const std::unique_ptr<Probe> socket = client(1);
    EXPECT_TRUE(socket->isOk());
    EXPECT_NE(socket->localPort(), 0);
    EXPECT_EQ(socket->localPort(), portOf(socket->readFd()));
    EXPECT_TRUE(isNonBlocking(socket->readFd()));
    EXPECT_EQ(noDelayOf(socket->readFd()), 1);
    EXPECT_TRUE(ignoresBrokenPipes());
    EXPECT_EQ(messages.all(), std::string(kConnecting) + kClientReady);
    listener.accept();
}

// --- a connect under way ---------------------------------------------------------------------------------

namespace {

// A listener that answers no connect until accept() makes room: its queue holds one connection, and has it.
class TcpConnecting : public TcpSocket {
protected:
    TcpConnecting() : first(busy.port()), socket(new Probe(kLoopback, busy.port(), 1)) {}

    TcpListener busy{kLoopback, 0, 0};
    TcpPeer first;
    std::unique_ptr<Probe> socket;
};

}  // namespace

TEST_F(TcpConnecting, isOkAndNotEstablishedYet) {
    EXPECT_TRUE(socket->isOk());
    EXPECT_GT(socket->localPort(), 0);
    EXPECT_EQ(socket->localPort(), portOf(socket->readFd()));
    EXPECT_FALSE(socket->isConnectionEstablished());
    EXPECT_TRUE(socket->isOk());
    EXPECT_TRUE(socket->testConnectionStatus()) << "nothing is known to be broken";
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(TcpConnecting, completesByItself) {
    EXPECT_FALSE(socket->isConnectionEstablished());
    EXPECT_FALSE(socket->isConnectionEstablished());
    EXPECT_EQ(socket->getQueueStatus().first, 2) << "what could not leave waits";
    TcpPeer freed = busy.accept();
    ASSERT_TRUE(waitFor(socket->writeFd(), POLLOUT));
    EXPECT_FALSE(socket->isConnectionEstablished()) << "what waited left too, so that the count is another";
    EXPECT_TRUE(socket->isConnectionEstablished());
    EXPECT_EQ(busy.accept().receive(8), std::string("\0\2\0\2\0\2\0\2", 8));
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(TcpConnecting, refusalIsLearntFromATestAndSilent) {
    ASSERT_EQ(::shutdown(busy.fd(), SHUT_RDWR), 0);  // nobody listens any more
    ASSERT_TRUE(waitFor(socket->writeFd(), POLLOUT));
    messages.all();
    EXPECT_FALSE(socket->isConnectionEstablished());
    EXPECT_TRUE(socket->isOk()) << "only that it is not established is said";
    EXPECT_EQ(messages.all(), "");
    EXPECT_FALSE(socket->testConnectionStatus());
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(messages.all(), systemReport("TCP Socket sendTo error: ", EPIPE) + "\n");
}

// --- the server's side -----------------------------------------------------------------------------------

TEST_F(TcpSocket, serverTakesOverAConnection) {
    TcpPeer peer(listener.port());
    const int fd = listener.acceptFd();
    ASSERT_EQ(::fcntl(fd, F_SETFL, O_APPEND), 0);
    {
        Probe socket(fd, 0x01020304u, 5);
        EXPECT_EQ(messages.info(), kServerReady);
        EXPECT_EQ(messages.all(), "");
        EXPECT_TRUE(socket.isOk());
        EXPECT_EQ(socket.readFd(), fd);
        EXPECT_EQ(socket.writeFd(), fd);
        EXPECT_EQ(socket.peerPort(), peer.port()) << "the real one, not the argument";
        EXPECT_EQ(socket.peerAddr, 0x01020304u) << "the argument";
        EXPECT_EQ(socket.localPort(), 0);
        EXPECT_EQ(::fcntl(fd, F_GETFL, 0), O_RDWR | O_NONBLOCK) << "non-blocking alone";
        EXPECT_EQ(noDelayOf(fd), 1);
        EXPECT_EQ(typeOfServiceOf(fd), IPTOS_LOWDELAY);
        EXPECT_EQ(socket.getQueueStatus(), std::make_pair(0, -1));
        EXPECT_EQ(socket.bytesToRead, 2u);
        EXPECT_TRUE(ignoresBrokenPipes());
        EXPECT_EQ(socket.sendMinimumSizePkt(false), 2);
        EXPECT_EQ(peer.receive(2), std::string("\0\2", 2));
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(peer.receiveToEnd(), "");
}

TEST_F(TcpSocket, serverTakesItsStepsInOrder) {
    TcpPeer peer(listener.port());
    const int fd = listener.acceptFd();
    EXPECT_EQ(callsOf([&] { Probe(fd, kLoopback, 0); }),
              (Calls{"become non-blocking", "no delay", "type of service", "getpeername"}));
}

TEST_F(TcpSocket, portArgumentCountsWhenTheSystemDoesNotTell) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);  // has no peer
    Probe socket(fd, kLoopback, 4711);
    EXPECT_EQ(socket.peerPort(), 4711);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(messages.all(), kServerReady);
}

TEST_F(TcpSocket, serverIsSilentWhileQuiet) {
    const Quiet quiet;
    TcpPeer peer(listener.port());
    EXPECT_TRUE(server()->isOk());
    EXPECT_EQ(messages.all(), "");
}

// --- the receive buffer ----------------------------------------------------------------------------------

TEST_F(TcpSocket, bufferSizeIsThatOfLaterSockets) {
    const std::unique_ptr<Probe> before = client();
    messages.all();
    NwTcpSocket::setPacketBufferSize(50000);
    EXPECT_EQ(NwTcpSocket::thePktBuffSize, 50000);
    EXPECT_EQ(before->pktBufferSize, 20000u);
    EXPECT_EQ(client()->pktBufferSize, 50000u);
    EXPECT_EQ(server()->pktBufferSize, 50000u);
    EXPECT_EQ(messages.all(), std::string(kConnecting) +
                                  "Using TCP Socket with 50000 byte buffer (Client).\n"
                                  "Using TCP Socket with 50000 byte buffer (Server).\n");
}

TEST_F(TcpSocket, bufferSizeMayBeAssigned) {
    NwTcpSocket::thePktBuffSize = 30000;
    EXPECT_EQ(client()->pktBufferSize, 30000u);
}

TEST_F(TcpSocket, messageTellsTheSettingAndNotTheBuffer) {
    onConnect = [] { NwTcpSocket::setPacketBufferSize(777); };
    unsigned int size = 0;
    callsOf([&] { size = client()->pktBufferSize; });
    EXPECT_EQ(size, 20000u);
    EXPECT_EQ(messages.all(), std::string(kConnecting) + "Using TCP Socket with 777 byte buffer (Client).\n");
}

TEST_F(TcpSocket, sizesThatNameNoBufferAreToldAsGiven) {
    for (int size : {0, -5}) {
        NwTcpSocket::setPacketBufferSize(size);
        const std::unique_ptr<Probe> socket = client();
        EXPECT_TRUE(socket->isOk());
        EXPECT_EQ(messages.all(), kConnecting + ("Using TCP Socket with " + std::to_string(size)) +
                                      " byte buffer (Client).\n");
    }
}

// --- the end ---------------------------------------------------------------------------------------------

TEST_F(TcpSocket, destructorClosesAndDropsWhatIsQueued) {
    std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
    const int fd = socket->readFd();
    sends = {-EAGAIN, -EAGAIN, -EAGAIN};
    char bytes[] = "abc";
    EXPECT_EQ(socket->sendTo(bytes, 3, false), 0);
    EXPECT_EQ(socket->sendTo(bytes, 3, false), 0);
    EXPECT_EQ(socket->getQueueStatus().first, 2);
    sends.clear();
    socket.reset();
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(peer.receiveToEnd(), "");
}

TEST_F(TcpSocket, destructorDropsBundlesToo) {
    std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
    char bytes[] = "abc";
    socket->setBundling(1400);
    EXPECT_EQ(socket->NwSend(bytes, 3, kLoopback), 0);
    socket.reset();
    EXPECT_EQ(peer.receiveToEnd(), "");
}

TEST_F(TcpSocket, deletedThroughItsBase) {
    TcpPeer peer(listener.port());
    NwSocket* socket = new NwTcpSocket(listener.acceptFd(), kLoopback, 0);
    const int fd = socket->readFd();
    delete socket;
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(TcpSocket, shutDownEndsBothDirectionsAndKeepsTheDescriptor) {
    std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
    messages.all();
    const int fd = socket->readFd();
    peer.sendAll(std::string("\0\5abc", 5));
    ASSERT_TRUE(waitFor(fd, POLLIN));
    socket->shutDown();
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(peer.receiveToEnd(), "");
    EXPECT_TRUE(isOpen(fd)) << "until the destructor";
    EXPECT_EQ(socket->readFd(), fd);
    char bytes[] = "abc";
    EXPECT_EQ(::send(fd, bytes, 3, MSG_NOSIGNAL), -1) << "nothing can leave any more";
    socket->shutDown();
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(messages.all(), "") << "silent, also the second time";
    EXPECT_FALSE(socket->testConnectionStatus());
    socket.reset();
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(TcpSocket, shutDownOfASocketWithoutDescriptorDoesNothing) {
    fail("socket", EMFILE);
    Probe socket(kLoopback, port, 0);
    ASSERT_FALSE(socket.isOk());
    messages.all();
    socket.shutDown();
    EXPECT_FALSE(socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSocket, shutDownDropsWhatIsQueued) {
    std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
    sends = {-EAGAIN};
    char bytes[] = "abc";
    EXPECT_EQ(socket->sendTo(bytes, 3, false), 0);
    sends.clear();
    socket->shutDown();
    messages.all();
    const Quiet quiet;
    socket->flush();
    EXPECT_EQ(peer.receiveToEnd(), "");
    EXPECT_FALSE(socket->isOk());
}

TEST_F(TcpSocket, noDescriptorStaysOpen) {
    const int descriptors = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        client(i % 2);
        server();
        Probe(kLoopback, freeTcpPort(), 0);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

// --- blocking --------------------------------------------------------------------------------------------

TEST_F(TcpSocket, blockingIsSwitchedWithoutTouchingOtherFlags) {
    const std::unique_ptr<Probe> socket = client();
    const int fd = socket->readFd();
    ASSERT_EQ(::fcntl(fd, F_SETFL, O_NONBLOCK | O_APPEND), 0);
    EXPECT_EQ(socket->NwBecomeBlocking(), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL, 0), O_RDWR | O_APPEND);
    EXPECT_EQ(socket->NwBecomeBlocking(), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL, 0), O_RDWR | O_APPEND);
}

TEST_F(TcpSocket, nonBlockingReplacesTheFlags) {
    const std::unique_ptr<Probe> socket = client();
    const int fd = socket->readFd();
    ASSERT_EQ(::fcntl(fd, F_SETFL, O_APPEND), 0);
    EXPECT_EQ(socket->NwBecomeNonBlocking(), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL, 0), O_RDWR | O_NONBLOCK) << "meant: other flags go";
}

TEST_F(TcpSocket, blockingReceiveWaitsForEachOfItsReads) {
    const std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
    socket->NwBecomeBlocking();
    std::thread sender([&] {
        peer.sendAll(std::string("\0\5", 2));
        eventually([&] { return socket->readFd() >= 0 && !waitReadable(socket->readFd(), 0); });
        peer.sendAll("abc");
    });
    char* lent = nullptr;
    EXPECT_EQ(socket->NwRecv(&lent, nullptr), 5);
    sender.join();
    EXPECT_EQ(std::string(lent, 5), std::string("\0\5abc", 5));
}

TEST(TcpFatal, ofNonBlockingAtConstruction) {
    const ChildResult child = inChild([] {
        const Quiet quiet;
        NwTcpSocket socket(-1, kLoopback, 1);
        return 9;
    });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, systemReport("non-blocking", EBADF));
}

TEST(TcpFatal, ofNonBlockingOfAClient) {
    for (int nonBlockingConnect : {0, 1}) {
        const ChildResult child = inChild([=] {
            const Quiet quiet;
            TcpListener listener;
            failingCall = "become non-blocking";
            failure = EINVAL;
            NwTcpSocket socket(kLoopback, listener.port(), nonBlockingConnect);
            return 9;
        });
        EXPECT_EQ(child.exitStatus, 1);
        EXPECT_EQ(child.output, systemReport("non-blocking", EINVAL));
    }
}

TEST(TcpFatal, ofBlocking) {
    const ChildResult child = inChild([] {
        const Quiet quiet;
        TcpListener listener;
        TcpPeer peer(listener.port());
        NwTcpSocket socket(listener.acceptFd(), kLoopback, 1);
        failingCall = "become blocking";
        failure = EINVAL;
        socket.NwBecomeBlocking();
        return 9;
    });
    EXPECT_EQ(child.exitStatus, 1);
    EXPECT_EQ(child.output, systemReport("blocking", EINVAL));
}

namespace {

std::string lastWords;
void keepLastWords(const char* message) {
    lastWords += message;
}

}  // namespace

TEST_F(TcpSocket, fatalHandlerThatReturnsLeavesASocketThatNothingHappensTo) {
    NwSetFatalHandler(keepLastWords);
    {
        Probe socket(-1, kLoopback, 7);
        EXPECT_EQ(lastWords, systemReport("non-blocking", EBADF));
        EXPECT_EQ(socket.NwBecomeBlocking(), 0);
        EXPECT_EQ(socket.NwBecomeNonBlocking(), 0);
        EXPECT_EQ(socket.peerPort(), 7);
        char* lent = nullptr;
        EXPECT_EQ(socket.NwRecv(&lent, nullptr), 0);
        EXPECT_FALSE(socket.isOk());
    }
    NwSetFatalHandler(nullptr);
}

// --- options ---------------------------------------------------------------------------------------------

TEST_F(TcpSocket, noDelayIsSwitchedAndTheTypeOfServiceIsLowDelayEitherWay) {
    const std::unique_ptr<Probe> socket = client();
    const int fd = socket->readFd();
    for (bool on : {false, true, false}) {
        setTypeOfService(fd, 0);
        socket->setNoDelay(on);
        EXPECT_EQ(noDelayOf(fd), on ? 1 : 0);
        EXPECT_EQ(typeOfServiceOf(fd), IPTOS_LOWDELAY);
        setTypeOfService(fd, 0);
        NwTcpSocket::setNoDelay(fd, !on);
        EXPECT_EQ(noDelayOf(fd), on ? 0 : 1);
        EXPECT_EQ(typeOfServiceOf(fd), IPTOS_LOWDELAY);
    }
}

TEST_F(TcpSocket, refusedOptionsAreReportedAndPassedOver) {
    const std::unique_ptr<Probe> socket = client();
    messages.all();
    fail("no delay", EPERM);
    setTypeOfService(socket->readFd(), 0);
    socket->setNoDelay(true);
    EXPECT_EQ(messages.warn(), systemReport("NwTcpSocket::setNoDelay\n", EPERM));
    EXPECT_EQ(typeOfServiceOf(socket->readFd()), IPTOS_LOWDELAY) << "the second is tried all the same";
    fail("type of service", EINVAL);
    socket->setNoDelay(false);
    EXPECT_EQ(messages.warn(), systemReport("NwTcpSocket::set IPTOS_LOWDELAY\n", EINVAL));
    EXPECT_EQ(noDelayOf(socket->readFd()), 0);
    NwTcpSocket::setNoDelay(-1, true);
    EXPECT_EQ(messages.warn(), systemReport("NwTcpSocket::setNoDelay\n", EBADF) +
                                   systemReport("NwTcpSocket::set IPTOS_LOWDELAY\n", EINVAL));
    EXPECT_TRUE(socket->isOk());
    const Quiet quiet;
    NwTcpSocket::setNoDelay(-1, true);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpSocket, optionsRefusedAtConstructionHurtNothing) {
    fail("no delay", EPERM);
    const std::unique_ptr<Probe> socket = client();
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(messages.warn(), systemReport("NwTcpSocket::setNoDelay\n", EPERM));
    EXPECT_TRUE(socket->isConnectionEstablished());
}

TEST_F(TcpSocket, capOfTheQueueIsStoredUnchecked) {
    const std::unique_ptr<Probe> socket = client();
    EXPECT_EQ(socket->maxForwarderQueue(), -1);
    for (int cap : {0, 1, 500, -7, INT_MIN, INT_MAX, -1}) {
        socket->setMaxForwarderQueue(cap);
        EXPECT_EQ(socket->maxForwarderQueue(), cap);
        EXPECT_EQ(socket->getQueueStatus(), std::make_pair(0, cap));
    }
}

// --- sending to a peer -----------------------------------------------------------------------------------

TEST_F(TcpSocket, sendToTakesEveryFormOfItsThirdArgument) {
    const std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
    char bytes[] = "abc";
    EXPECT_EQ(socket->sendTo(bytes, 3, 0), 3);
    EXPECT_EQ(socket->sendTo(bytes, 3, 0u), 3);
    EXPECT_EQ(socket->sendTo(bytes, 3, 0x01020304u), 3) << "an address says nothing here";
    EXPECT_EQ(socket->sendTo(bytes, 3, false), 3);
    EXPECT_EQ(socket->sendTo(bytes, 3, true), 3);
    EXPECT_EQ(peer.receive(15), "abcabcabcabcabc");
}

TEST_F(TcpSocket, zeroIsAnAddressAndNotAnOrderToMarkBroken) {
    const std::unique_ptr<Probe> socket = client();
    char test[] = {0, 2};
    messages.all();
    for (int destination : {0, 1}) {
        sends = {-EPIPE};
        EXPECT_EQ(socket->sendTo(test, 2, destination), 0);
        EXPECT_TRUE(socket->isOk());
    }
    sends = {-EPIPE};
    EXPECT_EQ(socket->sendTo(test, 2, true), 0);
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(messages.all(), systemReport("TCP Socket sendTo error: ", EPIPE) + "\n");
}

TEST(TcpSignal, ofAClosedPeerEndsNoProcess) {
    const ChildResult child = inChild([] {
        const Quiet quiet;
        ::signal(SIGPIPE, SIG_DFL);
        TcpListener listener;
        TcpPeer peer(listener.port());
        NwTcpSocket socket(listener.acceptFd(), kLoopback, 1);
        peer.reset();
        waitFor(socket.readFd(), POLLRDHUP);
        char bytes[10] = {};
        for (int i = 0; i < 3; ++i) socket.sendTo(bytes, sizeof bytes, 0);
        return socket.isOk() ? 1 : 0;
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exitStatus, 0);
}

// Its constructor did not get as far as to ignore the signal.
TEST(TcpSignal, ofAConnectionThatNeverWasEndsNoProcess) {
    const int port = freeTcpPort();
    const ChildResult child = inChild([=] {
        const Quiet quiet;
        ::signal(SIGPIPE, SIG_DFL);
        NwTcpSocket socket(kLoopback, port, 0);
        char bytes[10] = {};
        for (int i = 0; i < 3; ++i) socket.sendTo(bytes, sizeof bytes, 0);
        socket.flush();
        socket.isConnectionEstablished();
        return ignoresBrokenPipes() ? 1 : 0;
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exitStatus, 0);
}

// --- connection tests ------------------------------------------------------------------------------------

namespace {

// What a connection test looks like on the wire: letters, and the field at offset times width as far as it
// lies in what is sent.
std::string connectionTest(int width, int offset, bool isNetworkOrder = true) {
    const int size = offset + width;
    std::string bytes(static_cast<std::size_t>(size + 4 * width * (offset + 1)), 'x');
    const int position = offset * width;
    for (int i = 0; i < width; ++i) {
        const int shift = 8 * (isNetworkOrder ? width - 1 - i : i);
        bytes[static_cast<std::size_t>(position + i)] = static_cast<char>(size >> shift & 0xFF);
    }
    return bytes.substr(0, static_cast<std::size_t>(size));
}

class TcpConnectionTest : public TcpSocket {
protected:
    // What leaves the socket with that format.
    std::string sent(int width, int offset) {
        socket->setSizeLength(width);
        socket->setSizeOffset(offset);
        EXPECT_EQ(socket->sendMinimumSizePkt(false), offset + width);
        return peer.receive(static_cast<std::size_t>(offset + width));
    }

    std::unique_ptr<Probe> socket = client();
    TcpPeer peer = listener.accept();
};

}  // namespace

TEST_F(TcpConnectionTest, bytesOfTheWidths) {
    EXPECT_EQ(sent(1, 0), "\x01");
    EXPECT_EQ(sent(2, 0), std::string("\x00\x02", 2));
    EXPECT_EQ(sent(4, 0), std::string("\x00\x00\x00\x04", 4));
    EXPECT_EQ(sent(1, 3), "xxx\x04");
    EXPECT_EQ(sent(1, 8), "xxxxxxxx\x09");
    NwSetNetworkByteOrdering(0);
    EXPECT_EQ(sent(1, 0), "\x01");
    EXPECT_EQ(sent(2, 0), std::string("\x02\x00", 2));
    EXPECT_EQ(sent(4, 0), std::string("\x04\x00\x00\x00", 4));
}

// Meant: the place of a field of 2 or 4 bytes is its offset times its width.
TEST_F(TcpConnectionTest, bytesOfOffsetsOtherThanZero) {
    EXPECT_EQ(sent(2, 3), "xxxxx") << "the field lies at 6 and 7";
    EXPECT_EQ(sent(2, 1), std::string("xx\x00", 3)) << "half of the field is sent";
    EXPECT_EQ(sent(2, 2), "xxxx");
    EXPECT_EQ(sent(2, 8), "xxxxxxxxxx");
    EXPECT_EQ(sent(4, 1), std::string("xxxx\x00", 5));
    EXPECT_EQ(sent(4, 8), "xxxxxxxxxxxx");
    NwSetNetworkByteOrdering(0);
    EXPECT_EQ(sent(2, 1), "xx\x03");
    EXPECT_EQ(sent(4, 1), "xxxx\x05");
}

TEST_F(TcpConnectionTest, bytesOfManyFormats) {
    for (int isNetworkOrder : {1, 0}) {
        NwSetNetworkByteOrdering(isNetworkOrder);
        for (int width : {1, 2, 4})
            for (int offset : {0, 1, 2, 3, 4, 5, 7, 8, 9, 60, 100, 126, 250, 253})
                EXPECT_EQ(sent(width, offset), connectionTest(width, offset, isNetworkOrder == 1))
                    << "width " << width << ", offset " << offset;
    }
}

TEST_F(TcpConnectionTest, oneByteHoldsTheLowByteOfTheSize) {
    EXPECT_EQ(sent(1, 300), std::string(300, 'x') + static_cast<char>(301 & 0xFF));
}

TEST_F(TcpConnectionTest, largeOffsetStaysInItsMemory) {
    EXPECT_EQ(sent(4, 30000), connectionTest(4, 30000));
}

// Letters where the length should be: the receiver waits for a packet of 0x7878 bytes.
TEST_F(TcpConnectionTest, peerReadsLettersAsALength) {
    const std::unique_ptr<Probe> receiver(new Probe(peer.release(), kLoopback, 0));
    for (Probe* end : {socket.get(), receiver.get()}) {
        end->setSizeOffset(3);
        end->setSizeLength(2);
    }
    EXPECT_EQ(socket->sendMinimumSizePkt(false), 5);
    ASSERT_TRUE(waitReadable(receiver->readFd()));
    char* lent = nullptr;
    int status = 7;
    EXPECT_EQ(receiver->NwRecv(&lent, &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(receiver->bytesToRead, 0x7878u - 5);
    EXPECT_TRUE(receiver->isOk());
}

TEST_F(TcpConnectionTest, isSwallowedByTheOtherEnd) {
    const std::unique_ptr<Probe> receiver(new Probe(peer.release(), kLoopback, 0));
    for (int width : {1, 2, 4}) {
        socket->setSizeLength(width);
        receiver->setSizeLength(width);
        EXPECT_TRUE(socket->isConnectionEstablished());
        ASSERT_TRUE(waitReadable(receiver->readFd()));
        char mark = 0;
        char* lent = &mark;
        int status = 7;
        EXPECT_EQ(receiver->NwRecv(&lent, &status), 0);
        EXPECT_EQ(status, 7);
        EXPECT_EQ(lent, &mark);
        EXPECT_FALSE(waitReadable(receiver->readFd(), 0));
    }
}

TEST_F(TcpConnectionTest, widthThatIsNoneIsRefused) {
    messages.all();
    for (int width : {0, 3, 8, -1}) {
        socket->sizeLength = width;  // by a derived class; setSizeLength would not have it
        EXPECT_EQ(socket->sendMinimumSizePkt(true), 0);
        EXPECT_EQ(messages.all(), "NwTcpSocket::isConnectionEstablished: Invalid Size length!\n") << width;
        EXPECT_TRUE(socket->isOk());
    }
    const Quiet quiet;
    EXPECT_EQ(socket->sendMinimumSizePkt(true), 0);
    EXPECT_EQ(messages.all(), "");
    socket.reset();
    EXPECT_EQ(peer.receiveToEnd(), "");
}

TEST_F(TcpConnectionTest, offsetThatNoPacketCanHaveSendsNothing) {
    messages.all();
    for (int width : {1, 2, 4})
        for (int offset : {-1, -2, -100, INT_MIN, INT_MAX}) {
            socket->setSizeLength(width);
            socket->setSizeOffset(offset);
            EXPECT_EQ(socket->sendMinimumSizePkt(true), 0);
        }
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(messages.all(), "");
    socket.reset();
    EXPECT_EQ(peer.receiveToEnd(), "");
}

TEST_F(TcpConnectionTest, ofALivingConnectionSucceeds) {
    messages.all();
    EXPECT_TRUE(socket->isConnectionEstablished());
    EXPECT_TRUE(socket->testConnectionStatus());
    peer.shutdownWrite();
    ASSERT_TRUE(waitFor(socket->readFd(), POLLRDHUP));
    EXPECT_TRUE(socket->isConnectionEstablished()) << "half of it is still there";
    EXPECT_TRUE(socket->testConnectionStatus());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpConnectionTest, ofABrokenConnectionIsSilentAndMarksNothing) {
    peer.reset();
    ASSERT_TRUE(waitFor(socket->readFd(), POLLRDHUP));
    messages.all();
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(socket->isConnectionEstablished());
    EXPECT_TRUE(socket->isOk());
    EXPECT_EQ(socket->getQueueStatus().first, 0);
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpConnectionTest, onRequestABrokenConnectionIsReportedAndMarked) {
    peer.reset();
    ASSERT_TRUE(waitFor(socket->readFd(), POLLRDHUP));
    messages.all();
    EXPECT_FALSE(socket->testConnectionStatus());
    EXPECT_FALSE(socket->isOk());
    EXPECT_EQ(messages.all(), systemReport("TCP Socket sendTo error: ", ECONNRESET) + "\n");
    EXPECT_FALSE(socket->isConnectionEstablished());
    EXPECT_FALSE(socket->isOk()) << "for good";
    const Quiet quiet;
    EXPECT_FALSE(socket->testConnectionStatus());
}

TEST_F(TcpConnectionTest, onRequestABrokenConnectionIsMarkedQuietly) {
    const Quiet quiet;
    sends = {-ECONNRESET};
    messages.all();
    EXPECT_FALSE(socket->testConnectionStatus());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpConnectionTest, whatHasItsLengthIsOne) {
    char bytes[] = "abcdefghij";
    socket->setSizeOffset(8);
    sends = {-EPIPE};
    EXPECT_EQ(socket->sendTo(bytes, 10, false), 0);
    EXPECT_TRUE(socket->isOk());
    for (unsigned long length : {9ul, 11ul}) {
        Probe other(kLoopback, port, 0);
        other.setSizeOffset(8);
        sends = {-EPIPE};
        EXPECT_EQ(other.sendTo(bytes, length, false), 0);
        EXPECT_FALSE(other.isOk()) << length;
    }
}

TEST_F(TcpConnectionTest, failsWhileOthersWait) {
    sends = {-EAGAIN};
    EXPECT_FALSE(socket->isConnectionEstablished()) << "nothing left";
    EXPECT_EQ(socket->getQueueStatus().first, 1);
    EXPECT_FALSE(socket->isConnectionEstablished()) << "two left";
    EXPECT_EQ(socket->getQueueStatus().first, 0);
    EXPECT_TRUE(socket->isConnectionEstablished());
    EXPECT_EQ(peer.receive(6), std::string("\0\2\0\2\0\2", 6));
}

TEST_F(TcpConnectionTest, countsAnotherThatLeftInItsPlace) {
    sends = {-EAGAIN};
    EXPECT_FALSE(socket->isConnectionEstablished());
    sends = {2, -EAGAIN};
    EXPECT_TRUE(socket->isConnectionEstablished()) << "by coincidence: as many bytes left as it has";
    EXPECT_EQ(socket->getQueueStatus().first, 1);
}

TEST_F(TcpConnectionTest, everySendIsWithoutSignal) {
    sends = {-EAGAIN, 1};
    EXPECT_EQ(callsOf([&] {
                  socket->isConnectionEstablished();
                  socket->flush();
                  socket->testConnectionStatus();
              }),
              (Calls{"send 2", "send 2", "send 1", "send 2"}));
}
