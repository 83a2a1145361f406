// SPDX-License-Identifier: BSD-3-Clause
// Every transport behind one set of verbs, for the contract suite. A transport joins by a link of a dozen
// lines and a row in the table of differences:
//
//     struct XyzLink {
//         static const Differences& is();     // its row
//         NwSocket& out();                    // a socket that sends, made when first asked for
//         NwSocket& in();                     // a non-blocking socket that receives
//         std::string wire(std::size_t);      // the next datagram (or message) that left out(), which it
//                                             // waits for. A stream, which has none, gives so many bytes
//         bool wireIsEmpty();                 // whether nothing more left it
//         void feed(const std::string&);      // one datagram for in(), there to be received on return
//         void close();                       // destroys out()
//         bool breakWire();                   // from now on sends fail; false where none ever does
//     };
#ifndef CVNC_TESTS_TRANSPORTS_H
#define CVNC_TESTS_TRANSPORTS_H

#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvPairSock.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvutil/cvPacketServer.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "async_peek.h"
#include "event_loop.h"
#include "log.h"
#include "messages.h"
#include "network.h"
#include "server.h"
#include "tcp_peer.h"

// What differs between transports, and nothing else does. Each column has its test in the contract suite; a
// column is added when a new transport is the first to differ in it.
struct Differences {
    const char* transport;
    bool counts;               // NwReportPktsRcvd grows with what is received
    bool countsRefused;        // also with what the filters refuse
    bool filters;              // the four filter tests are asked
    bool copyTellsFullLength;  // of a packet that was cut; else the length that was copied
    int longestLent;           // more is cut; 0: the full length is told, whatever the buffer holds
    bool sendsEmptyPackets;    // else they do not leave
    int emptyStatus;           // of a packet of no bytes that was received; the result is 0, the pointer null
    bool heedsDestination;     // NwSend keeps a bundle for each destination
    bool splitsBundles;        // a bundle comes in as the packets it is made of
    bool knowsSource;          // lastSourceInetAddr
    bool hasDescriptor;
    bool tellsFailure;     // NwSend and flush say whether the network took what they had
    int refusedByte;       // what sendTo says of one byte that the network refused
    bool queuesBundles;    // a bundle that could not leave waits in a queue of the socket's own
    bool flushesAtTheEnd;  // else what waits in bundles goes with the socket
    bool isStream;         // what comes in is cut where lengths inside say; nothing shorter is a packet
    bool isServed;         // a server filters for it: what is refused, or empty, does not come in at all
};

// clang-format off
//                              counts refused filters full   longest empty  empty   heeds  splits knows  descr. tells   refused queues flushes stream served
//                                                     length lent    leaves status  dest.         source        failure byte    bundles at end
const Differences kQueueIs = {"queue", false, false, false, true,  0,     true,  0, true,  false, false, false, false,  0, false, false, false, false};
const Differences kPairIs  = {"pair",  true,  false, true,  false, 1500,  true,  1, true,  false, false, true,  true,  -1, false, false, false, false};
const Differences kUdpIs   = {"UDP",   true,  true,  true,  true,  15000, false, 0, true,  true,  true,  true,  true,  -1, false, true,  false, false};
const Differences kAsyncIs = {"async", true,  true,  true,  true,  15000, false, 0, true,  true,  true,  true,  false,  1, false, true,  false, false};
const Differences kGroupIs = {"group", true,  true,  true,  true,  15000, false, 0, false, true,  true,  true,  true,  -1, false, true,  false, false};
const Differences kTcpIs   = {"TCP",   false, false, false, true,  65535, false, 0, true,  true,  false, true,  true,   0, true,  false, true, false};
const Differences kServedIs = {"server", true, false, false, true, 15000, false, 0, true, true,  true,  true,  true,  -1, false, true,  false, true};
// clang-format on

const NwIpv4Addr kUnreachable = 0x0A090901u;  // no route leads there in a private network

// A socket that is its own other end.
struct QueueLink {
    static const Differences& is() { return kQueueIs; }
    NwSocket& out() { return *socket; }
    NwSocket& in() { return *socket; }
    std::string wire(std::size_t) {
        std::vector<char> bytes(70000);
        const int length = socket->NwRecv(bytes.data(), bytes.size());
        return std::string(bytes.data(), static_cast<std::size_t>(length));
    }
    bool wireIsEmpty() { return socket->NwRecv(nullptr, 0ul) == 0; }
    void feed(std::string bytes) { socket->sendTo(&bytes[0], bytes.size(), 0); }
    void close() { socket.reset(); }
    static bool breakWire() { return false; }

    std::unique_ptr<NwQueueSocket> socket{new NwQueueSocket};
};

struct PairLink {
    static const Differences& is() { return kPairIs; }
    ~PairLink() { release(); }
    NwSocket& out() { return *socket; }
    NwSocket& in() {
        socket->NwBecomeNonBlocking();
        return *socket;
    }
    std::string wire(std::size_t) {
        std::vector<char> bytes(70000);
        const ssize_t length = ::recv(peer, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (length < 0) ADD_FAILURE() << "no datagram came";
        return std::string(bytes.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    bool wireIsEmpty() { return !waitReadable(peer, 0); }
    void feed(const std::string& bytes) { ::send(peer, bytes.data(), bytes.size(), 0); }
    void close() { socket.reset(); }
    bool breakWire() {
        ::close(peer);
        peer = -1;
        return true;
    }
    void release() {
        ::close(peer);
        ::close(end);
    }

    std::unique_ptr<NwSocketPairSocket> socket{new NwSocketPairSocket};
    int peer = socket->peerDescriptor();
    int end = socket->readFd();  // a pair socket closes neither
};

// What the UDP classes share: a raw peer on loopback for each direction.
template <class Socket>
struct UdpLinkOf {
    NwSocket& out() {
        if (!sender) sender.reset(new Socket(far.port(), kLoopback, (unsigned char)18, kLoopback));
        return *sender;
    }
    NwSocket& in() {
        if (!receiver) {
            // Read, bound to the address, quietly.
            receiver.reset(new Socket(0, kLoopback, (unsigned char)25, kLoopback));
            receiver->NwBecomeNonBlocking();
            receiver->setReceiveBufferSize(1 << 20);
        }
        return *receiver;
    }
    std::string wire(std::size_t) { return far.receive(); }
    bool wireIsEmpty() { return far.isEmpty(); }
    void feed(const std::string& bytes) { near.send(bytes, boundPort(in().readFd())); }
    void close() { sender.reset(); }
    static bool breakWire() { return hasPrivateNetwork(); }  // else kUnreachable may be in reach

    UdpPeer far{0}, near;
    std::unique_ptr<Socket> sender, receiver;
};

struct UdpLink : UdpLinkOf<NwNetSocket> {
    static const Differences& is() { return kUdpIs; }
};

struct AsyncLink : UdpLinkOf<NwAsyncNetSocket> {
    static const Differences& is() { return kAsyncIs; }
    bool wireIsEmpty() {
        eventually([&] { return AsyncPeek::unsent(*sender) == 0; });
        return far.isEmpty();
    }
    void feed(const std::string& bytes) {
        in();
        const std::size_t before = AsyncPeek::received(*receiver);
        UdpLinkOf::feed(bytes);
        EXPECT_TRUE(eventually([&] { return AsyncPeek::received(*receiver) > before; }));
    }
};

// One site, so that it can be held against the others.
struct GroupLink : UdpLinkOf<NwGroupSocket> {
    static const Differences& is() { return kGroupIs; }
    NwSocket& out() {
        if (!sender) {
            UdpLinkOf::out();
            sender->addRemoteSite(kLoopback);
        }
        return *sender;
    }
    bool breakWire() {
        out();
        sender->removeAllRemoteSites();
        sender->addRemoteSite(kUnreachable);
        return UdpLinkOf::breakWire();
    }
};

// A raw peer on loopback for each direction; packets have their length where DIS has it.
struct TcpLink {
    static const Differences& is() { return kTcpIs; }
    NwSocket& out() {
        if (!sender) {
            sender.reset(new NwTcpSocket(kLoopback, listener.port(), 0));
            sender->setSizeOffset(8);
            far.reset(new TcpPeer(listener.accept()));
        }
        return *sender;
    }
    NwSocket& in() {
        if (!receiver) {
            near.reset(new TcpPeer(listener.port()));
            receiver.reset(new NwTcpSocket(listener.acceptFd(), kLoopback, 0));
            receiver->setSizeOffset(8);
        }
        return *receiver;
    }
    std::string wire(std::size_t length) { return far->receive(length); }
    bool wireIsEmpty() {
        if (!sender) return !far || far->receiveToEnd().empty();
        eventually([this] { return pending(sender->writeFd(), SIOCOUTQ) == 0; });  // it is there
        return pending(far->fd(), SIOCINQ) == 0;
    }
    void feed(const std::string& bytes) {
        const int fd = in().readFd();
        const std::size_t before = pending(fd, SIOCINQ);
        near->sendAll(bytes);
        EXPECT_TRUE(eventually([&] { return pending(fd, SIOCINQ) == before + bytes.size(); }));
    }
    void close() { sender.reset(); }
    bool breakWire() {
        out();
        far->reset();
        pollfd entry = {sender->writeFd(), POLLRDHUP, 0};
        return ::poll(&entry, 1, kPatienceMilliseconds) == 1;
    }
    static std::size_t pending(int fd, unsigned long question) {
        int count = 0;
        EXPECT_EQ(::ioctl(fd, question, &count), 0);
        return static_cast<std::size_t>(count);
    }

    TcpListener listener{kLoopback, 1 << 20};
    std::unique_ptr<TcpPeer> far, near;
    std::unique_ptr<NwTcpSocket> sender, receiver;
};

// A packet server in this process, whose turns the test takes, and its clients: one that sends, one that
// receives, and one that sees each datagram whole.
struct PacketServerLink {
    static const Differences& is() { return kServedIs; }
    PacketServerLink() {
        char name[] = "/tmp/cvcontractXXXXXX";
        directory = ::mkdtemp(name);
        NwSetPacketServerDirectory(name);
        packetserver::ServerSettings settings;
        settings.directory = directory;
        server.reset(new packetserver::Server(port, settings, loop, log));
        EXPECT_TRUE(log.open());
        EXPECT_TRUE(server->start()) << server->problem();
        tap = attach();
        tap->setUnbundling(0);
        serve();
    }
    ~PacketServerLink() {
        sender.reset();
        receiver.reset();
        tap.reset();
        server.reset();
        ::rmdir(directory.c_str());
        NwSetPacketServerDirectory(nullptr);
    }
    NwSocket& out() {
        if (!sender) sender = attach();
        return *sender;
    }
    NwSocket& in() {
        if (!receiver) receiver = attach();
        return *receiver;
    }
    std::string wire(std::size_t) {
        std::string datagram;
        const bool came = eventually([&] { return hasSeen(datagram); });
        if (!came) ADD_FAILURE() << "no datagram came";
        return datagram;
    }
    bool wireIsEmpty() {
        std::string datagram;
        return !hasSeen(datagram);
    }
    void feed(const std::string& bytes) {
        in();
        serve();  // the filters first
        near.send(bytes, port);
        const std::string::size_type longest = 15000;
        if (bytes.empty())
            serve();
        else
            EXPECT_EQ(wire(bytes.size()), bytes.substr(0, longest));
    }
    void close() { sender.reset(); }
    static bool breakWire() { return hasPrivateNetwork(); }

    // Some turns: each takes up all that waits, up to a burst.
    void serve() {
        for (int turn = 0; turn < 4; ++turn) loop.runOnce(std::chrono::milliseconds(0));
    }
    bool hasSeen(std::string& datagram) {
        serve();
        char* bytes = nullptr;
        const int length = tap->NwRecv(&bytes, static_cast<int*>(nullptr));
        if (length > 0) datagram.assign(bytes, static_cast<std::size_t>(length));
        return length > 0;
    }
    // An attach waits for its answer.
    std::unique_ptr<NwClientSocket> attach() {
        const Quiet quiet;  // where there is loopback alone its UDP socket says so
        std::unique_ptr<NwClientSocket> client;
        std::thread attaching([&] {
            client.reset(new NwClientSocket(port, kLoopback, -1, NwClientSocket::defaultFlags));
            isAttached = true;
        });
        while (!isAttached.exchange(false)) loop.runOnce(std::chrono::milliseconds(1));
        attaching.join();
        client->NwBecomeNonBlocking();
        return client;
    }

    std::string directory;
    int port = freePort();
    packetserver::EventLoop loop;
    packetserver::Log log{false, "/dev/null"};
    std::unique_ptr<packetserver::Server> server;
    std::atomic<bool> isAttached{false};
    std::unique_ptr<NwClientSocket> tap, sender, receiver;
    UdpPeer near;
};

#endif
