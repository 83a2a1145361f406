// SPDX-License-Identifier: BSD-3-Clause
// From a datagram on loopback to several applications: the packet server and its clients beside as many plain
// sockets on a multicast group, and beside bare rings; and the queue between them by itself.
#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvPacketServer.h>
#include <cvutil/cvShmMsgQueue.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bare_ring.h"
#include "event_loop.h"
#include "log.h"
#include "report.h"
#include "server.h"
#include "traffic.h"

namespace {

const Floor kRingFloor = {1 / 1.2, 1.2};
const int kRoundPackets = 200;  // what the smallest receive buffer holds, and the server takes in one turn
const int kUnderWay = 100;      // between threads
const int kHeaderBytes = 16;    // before each packet in a queue
const NwIpv4Addr kLoopback = 0x7F000001u;
const NwIpv4Addr kGroup = 0xEF010203u;  // 239.1.2.3, on the loopback device alone

int freePort() {
    const Descriptor taken(openSocket(true));
    return portOf(taken);
}

// --- three ways from the wire to the applications --------------------------------------------------------

// Datagrams to one place, none of which leaves this host.
class Wire {
public:
    Wire(NwIpv4Addr to, int port) : myAddress(loopbackAddress(port)) {
        myAddress.sin_addr.s_addr = htonl(to);
        in_addr device;
        device.s_addr = htonl(kLoopback);
        const unsigned char nowhere = 0;
        if (::setsockopt(myFd, IPPROTO_IP, IP_MULTICAST_IF, &device, sizeof device) != 0 ||
            ::setsockopt(myFd, IPPROTO_IP, IP_MULTICAST_TTL, &nowhere, sizeof nowhere) != 0)
            fail("cannot keep a group on this host");
    }
    void send(const char* pdu) {
        if (::sendto(myFd, pdu, kPduBytes, 0, reinterpret_cast<const sockaddr*>(&myAddress),
                     sizeof myAddress) != kPduBytes)
            fail("cannot send");
    }

private:
    const Descriptor myFd{openSocket(false)};
    sockaddr_in myAddress;
};

// A packet server in this process and its clients.
class Served {
public:
    Served(int count, bool waits) : wire(kLoopback, port) {
        char name[] = "/tmp/cvbenchXXXXXX";
        myDirectory = ::mkdtemp(name);
        NwSetPacketServerDirectory(name);
        packetserver::ServerSettings settings;
        settings.directory = myDirectory;
        myServer = std::make_unique<packetserver::Server>(port, settings, myLoop, myLog);
        if (!myLog.open()) fail("cannot open /dev/null");
        if (!myServer->start()) fail(myServer->problem());
        start();
        for (int i = 0; i < count; ++i)
            myClients.push_back(
                std::make_unique<NwClientSocket>(port, kLoopback, -1, NwClientSocket::defaultFlags));
        stop();
        for (const auto& client : myClients)
            if (!waits) client->NwBecomeNonBlocking();
    }
    ~Served() {
        stop();
        myClients.clear();
        myServer.reset();
        ::rmdir(myDirectory.c_str());
    }

    void send(const char* pdu) { wire.send(pdu); }
    // Between sending and taking, where no thread serves.
    void serve() { myLoop.runOnce(std::chrono::milliseconds(0)); }
    // Serves on a thread of its own.
    void start() {
        myStops = false;
        myThread = std::thread([this] {
            while (!myStops) myLoop.runOnce(std::chrono::milliseconds(20));
        });
    }
    void stop() {
        myStops = true;
        if (myThread.joinable()) myThread.join();
    }
    int take(int application, char** packet) {
        return myClients[static_cast<std::size_t>(application)]->NwRecv(packet, nullptr);
    }

private:
    std::string myDirectory;
    packetserver::EventLoop myLoop;
    packetserver::Log myLog{false, "/dev/null"};
    std::unique_ptr<packetserver::Server> myServer;
    std::vector<std::unique_ptr<NwClientSocket>> myClients;
    std::thread myThread;
    std::atomic<bool> myStops{false};
    const int port = freePort();
    Wire wire;
};

// A socket for each application, which all join a group.
class Plain {
public:
    Plain(int count, bool waits) : wire(kGroup, port) {
        for (int i = 0; i < count; ++i) {
            mySockets.push_back(std::make_unique<NwNetSocket>(
                port, kGroup, static_cast<unsigned char>(NwNetSocketRead | NwNetSocketQuietStart),
                kLoopback));
            if (!mySockets.back()->isOk() ||
                roomForDatagrams(mySockets.back()->readFd(), kRoundPackets) < kRoundPackets)
                fail("cannot open a socket for a group");
            if (!waits) mySockets.back()->NwBecomeNonBlocking();
        }
    }

    void send(const char* pdu) { wire.send(pdu); }
    void serve() {}
    void start() {}
    void stop() {}
    int take(int application, char** packet) {
        return mySockets[static_cast<std::size_t>(application)]->NwRecv(packet, nullptr);
    }

private:
    std::vector<std::unique_ptr<NwNetSocket>> mySockets;
    const int port = freePort();
    Wire wire;
};

// The least that somebody who owns the port can do: receives, and copies each packet into a ring for each
// application, which copies it out.
class Rings {
public:
    explicit Rings(int count) : wire(kLoopback, portOf(myFd)) {
        roomForDatagrams(myFd, kRoundPackets);
        for (int i = 0; i < count; ++i) myRings.push_back(std::make_unique<BareRing>());
    }

    void send(const char* pdu) { wire.send(pdu); }
    void serve() {
        for (;;) {
            sockaddr_in from;
            socklen_t fromBytes = sizeof from;
            const ssize_t length = ::recvfrom(myFd, myDatagram, sizeof myDatagram, MSG_DONTWAIT,
                                              reinterpret_cast<sockaddr*>(&from), &fromBytes);
            if (length < 0) break;
            char header[kHeaderBytes] = {};
            std::memcpy(header, &from.sin_addr, 4);
            for (const auto& ring : myRings)
                if (!ring->put(header, sizeof header, myDatagram, static_cast<std::uint32_t>(length)))
                    fail("a ring is full");
        }
        for (const auto& ring : myRings) ring->publish();
    }
    int take(int application, char** packet) {
        *packet = myPacket + kHeaderBytes;
        const std::uint32_t length = myRings[static_cast<std::size_t>(application)]->take(myPacket);
        return static_cast<int>(length) - kHeaderBytes;
    }

private:
    const Descriptor myFd{openSocket(true)};
    std::vector<std::unique_ptr<BareRing>> myRings;
    char myDatagram[kLargestDatagram];
    char myPacket[kHeaderBytes + kLargestDatagram];
    Wire wire;
};

// Most datagrams are there when they have been sent; the kernel may take its time with some.
template <class Way>
int takeSoon(Way& way, int application, char** packet) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int length = way.take(application, packet);
        if (length > 0) return length;
        ::usleep(1000);
        way.serve();
    }
    fail("a packet did not come");
}

// One thread does it all: sends, hands over, takes at each application.
template <class Way>
Cost oneThread(Way& way, PduSource& source, int applications, int packets) {
    const Delivered wanted = source.first(packets);
    const Stopwatch watch;
    for (int i = 0; i < packets; ++i) way.send(source.next());
    way.serve();
    for (int application = 0; application < applications; ++application) {
        Delivered got;
        char* packet = nullptr;
        for (int i = 0; i < packets; ++i) {
            const int length = takeSoon(way, application, &packet);
            got.take(packet, length);
        }
        if (!(got == wanted)) fail("other packets came than were sent");
    }
    return watch.elapsed();
}

// A thread for each application, which sleeps until a packet comes, and one for the server.
template <class Way>
Cost manyThreads(Way& way, PduSource& source, int applications, int packets) {
    const Delivered wanted = source.first(packets);
    std::vector<std::atomic<int>> taken(static_cast<std::size_t>(applications));
    way.start();
    const AllThreads watch;
    std::vector<std::thread> threads;
    for (int application = 0; application < applications; ++application) {
        threads.emplace_back([&, application] {
            Delivered got;
            char* packet = nullptr;
            for (int i = 0; i < packets; ++i) {
                const int length = way.take(application, &packet);
                if (length <= 0) fail("a packet did not come");
                got.take(packet, length);
                taken[static_cast<std::size_t>(application)].store(i + 1, std::memory_order_relaxed);
            }
            if (!(got == wanted)) fail("other packets came than were sent");
        });
    }
    for (int i = 0; i < packets; ++i) {
        for (const auto& count : taken)
            while (i >= count.load(std::memory_order_relaxed) + kUnderWay) ::usleep(50);
        way.send(source.next());
    }
    for (std::thread& thread : threads) thread.join();
    const Cost cost = watch.elapsed();
    way.stop();
    return cost;
}

const int kApplications[] = {1, 2, 8};

std::string applicationsText(int count) {
    return std::to_string(count) + (count == 1 ? " application" : " applications");
}

void fromTheWire(Report& report, bool quick) {
    const int packets = quick ? 20 : kRoundPackets;
    PduSource source;
    report.heading("from the wire to applications, one thread: beside a socket for each of them on a group");
    for (const int count : kApplications) {
        Served served(count, false);
        Plain plain(count, false);
        report.compare(
            applicationsText(count), packets * count, count > 1 ? Floor{1, 1} : kToldOnly,
            [&] { return oneThread(plain, source, count, packets); },
            [&] { return oneThread(served, source, count, packets); }, "sockets", "server");
    }
    report.heading("the same beside the limit: a bare ring for each application");
    for (const int count : kApplications) {
        Served served(count, false);
        Rings rings(count);
        report.compare(
            applicationsText(count), packets * count, kToldOnly,
            [&] { return oneThread(rings, source, count, packets); },
            [&] { return oneThread(served, source, count, packets); }, "rings", "server");
    }
    report.heading("applications that sleep until a packet comes; all threads' processor time");
    for (const int count : kApplications) {
        Served served(count, true);
        Plain plain(count, true);
        const int many = quick ? 50 : 4000 / count;
        report.compare(
            applicationsText(count), many * count, kToldOnly,
            [&] { return manyThreads(plain, source, count, many); },
            [&] { return manyThreads(served, source, count, many); }, "sockets", "server");
    }
}

// --- the queue by itself ---------------------------------------------------------------------------------

// A queue as server and client have it.
class Queue {
public:
    explicit Queue(int slot) {
        const long capacity = NwShmMsgQueueMgr::bytesFor(BareRing::kBytes);
        if (!mySegment.create(freePort(), slot, capacity, ::getuid(), ::getgid()))
            fail("cannot make a queue in shared memory");
        writer = std::make_unique<NwShmMsgQueueWriter>(mySegment.queue(), capacity, mySegment.semId(),
                                                       NwShmWakeSemaphore);
        reader = std::make_unique<NwShmMsgQueueReader>(mySegment.queue(), capacity, mySegment.semId(),
                                                       NwShmWakeSemaphore, true, false, false);
    }
    bool put(const void* head, unsigned headBytes, const void* body, unsigned bodyBytes) {
        return writer->put(head, headBytes, body, bodyBytes);
    }
    void publish() { writer->publish(); }
    int take(char* out) {
        int result = NwShmReadNothing;
        return reader->read(out, (kHeaderBytes + kLargestDatagram) / 8, &result);
    }
    void setWaits(bool on) { reader->queueMgr().setBlockingRead(on); }

private:
    NwShmMsgQueueSegment mySegment;
    std::unique_ptr<NwShmMsgQueueWriter> writer;
    std::unique_ptr<NwShmMsgQueueReader> reader;
};

struct RingQueue : BareRing {
    int take(char* out) {
        if (myWaits) await();
        return static_cast<int>(BareRing::take(out));
    }
    void setWaits(bool on) { myWaits = on; }
    bool myWaits = false;
};

const char kMessageHeader[kHeaderBytes] = {};

template <class Way>
Cost throughQueue(Way& way, PduSource& source, int packets, bool together) {
    const Delivered wanted = source.first(packets);
    alignas(8) static char room[kHeaderBytes + kLargestDatagram];
    Delivered got;
    const Stopwatch watch;
    for (int i = 0; i < packets; ++i) {
        if (!way.put(kMessageHeader, kHeaderBytes, source.next(), kPduBytes)) fail("a queue is full");
        if (!together) way.publish();
    }
    if (together) way.publish();
    for (int i = 0; i < packets; ++i) {
        const int length = way.take(room);
        if (length <= 0) fail("a message did not come");
        got.take(room + kHeaderBytes, length - kHeaderBytes);
    }
    const Cost cost = watch.elapsed();
    if (!(got == wanted)) fail("other messages came than were sent");
    return cost;
}

void queues(Report& report, bool quick) {
    const int packets = quick ? 20 : 2000;
    report.heading("a queue in shared memory beside a bare ring, one thread: put in and taken out");
    PduSource source;
    Queue queue(0);
    RingQueue ring;
    for (const bool together : {false, true})
        report.compare(
            together ? "published together" : "published one by one", packets, kRingFloor,
            [&] { return throughQueue(ring, source, packets, together); },
            [&] { return throughQueue(queue, source, packets, together); });
}

// --- there and back --------------------------------------------------------------------------------------

template <class Way>
int await(Way& way, char* room, bool waits) {
    for (;;) {
        const int length = way.take(room);
        if (length > 0) return length;
        if (!waits) std::this_thread::yield();
    }
}

// A thread at the other end sends back what comes. The first messages, while the thread starts, do not count.
template <class Way>
void pingPong(Way& there, Way& back, bool waits, int count, std::vector<double>& nanoseconds) {
    const int kWarm = 20;
    there.setWaits(waits);
    back.setWaits(waits);
    std::thread echo([&] {
        alignas(8) char room[kHeaderBytes + kLargestDatagram];
        for (int i = 0; i < kWarm + count; ++i) {
            const int length = await(there, room, waits);
            back.put(room, static_cast<unsigned>(length), nullptr, 0);
            back.publish();
        }
    });
    alignas(8) char room[kHeaderBytes + kLargestDatagram];
    PduSource source;
    for (int i = 0; i < kWarm + count; ++i) {
        char* pdu = source.next();
        const double start = seconds(CLOCK_MONOTONIC);
        there.put(kMessageHeader, kHeaderBytes, pdu, kPduBytes);
        there.publish();
        await(back, room, waits);
        const double taken = seconds(CLOCK_MONOTONIC) - start;
        if (std::memcmp(room + kHeaderBytes, pdu, kPduBytes) != 0) fail("another message came back");
        if (i >= kWarm) nanoseconds.push_back(1e9 * taken);
    }
    echo.join();
}

void thereAndBack(Report& report, int pairs, int count) {
    report.heading("queues there and back between two threads, one message under way");
    for (const bool waits : {true, false}) {
        const std::string name = waits ? "waiting" : "asking again and again";
        if (!report.wants(name)) continue;
        Queue there(0), back(1);
        RingQueue bareThere, bareBack;
        std::vector<double> bare, library;
        for (int i = 0; i < pairs; ++i) {
            pingPong(bareThere, bareBack, waits, count, bare);
            pingPong(there, back, waits, count, library);
            pingPong(there, back, waits, count, library);
            pingPong(bareThere, bareBack, waits, count, bare);
        }
        report.latencies(name + ", bare ring and futex", bare);
        report.latencies(name + ", library", library);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    NwSocket::setQuietSockets(true);
    Report report(options);
    fromTheWire(report, options.quick);
    queues(report, options.quick);
    thereAndBack(report, options.pairs, options.quick ? 50 : 250);
    report.finish();
    return 0;
}
