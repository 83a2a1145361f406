// SPDX-License-Identifier: BSD-3-Clause
// Packets over a TCP connection on loopback: the socket beside a bare loop that makes the same system calls,
// and how long a packet takes there and back.
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bare_tcp.h"
#include "library_loops.h"
#include "report.h"
#include "tcp_pair.h"
#include "traffic.h"

namespace {

const Floor kFloor = {0.95, 1.05};
const int kPdusPerRound = 22 * kPdusPerBundle;  // whole bundles, less than half of the smallest window

// --- packets there, one thread ---------------------------------------------------------------------------

struct Stream {
    TcpPair pair;
    PduSource source;
    bool bundled;

    explicit Stream(bool inBundles) : bundled(inBundles) {
        pair.client.setBundling(bundled ? kBundleBytes : 0);
    }
    void bareSend(int pdus) {
        const int fd = pair.client.writeFd();
        bundled ? bareStreamSendBundled(fd, source, pdus) : bareStreamSend(fd, source, pdus);
    }
    Delivered bareReceive(int pdus) { return bareStreamReceive(pair.server.readFd(), pdus); }
    void librarySend(int pdus) { ::librarySend(pair.client, source, pdus); }
    Delivered libraryReceive(int pdus) { return libraryStreamReceive(pair.server, pdus); }
};

void check(const Delivered& got, const Delivered& wanted) {
    if (!(got == wanted)) fail("other packets came than were sent");
}

enum class Timed { sending, receiving, both };

Cost streamRound(Stream& stream, int pdus, Timed timed, bool library) {
    const Delivered wanted = stream.source.first(pdus);
    const auto send = [&] { library ? stream.librarySend(pdus) : stream.bareSend(pdus); };
    const auto receive = [&] { return library ? stream.libraryReceive(pdus) : stream.bareReceive(pdus); };
    if (timed == Timed::receiving) stream.bareSend(pdus);
    const Stopwatch watch;
    Delivered got;
    if (timed != Timed::receiving) send();
    if (timed != Timed::sending) got = receive();
    const Cost cost = watch.elapsed();
    if (timed == Timed::sending) got = stream.bareReceive(pdus);
    check(got, wanted);
    return cost;
}

void streams(Report& report, int pdus) {
    report.heading(
        "a connection beside a bare loop of the same calls: one send, two recv a packet; one thread");
    for (const bool bundled : {false, true}) {
        Stream stream(bundled);
        const std::string how = bundled ? ", bundles of 1400" : ", plain";
        const auto compare = [&](const std::string& what, Timed timed, Floor floor) {
            report.compare(
                what + how, pdus, floor, [&, timed] { return streamRound(stream, pdus, timed, false); },
                [&, timed] { return streamRound(stream, pdus, timed, true); });
        };
        compare("send and receive", Timed::both, kFloor);
        compare("  send", Timed::sending, kToldOnly);
        compare("  receive", Timed::receiving, kToldOnly);
    }
}

// --- packets there, two threads --------------------------------------------------------------------------

// A thread sends without a pause, but keeps no more under way than a window holds; the caller receives. Both
// give the processor away while they cannot go on.
template <class Send, class Finish, class Take>
Cost betweenThreads(int pdus, PduSource& source, const Send& send, const Finish& finish, const Take& take) {
    std::atomic<int> received{0};
    source.restart();
    const AllThreads watch;
    std::thread sender([&] {
        for (int i = 0; i < pdus; ++i) {
            while (i >= received.load(std::memory_order_relaxed) + kPdusPerRound) std::this_thread::yield();
            send(source.next());
        }
        finish();
    });
    for (int i = 0; i < pdus; ++i) {
        while (take() == 0) std::this_thread::yield();
        received.store(i + 1, std::memory_order_relaxed);
    }
    sender.join();
    return watch.elapsed();
}

void endToEnd(Report& report, int pdus) {
    report.heading("end to end: a thread sends, another receives; all threads' processor time");
    for (const bool bundled : {false, true}) {
        Stream stream(bundled);
        NwSocket &out = stream.pair.client, &in = stream.pair.server;
        const int outFd = out.writeFd(), inFd = in.readFd();
        static char packet[kLargestPacket];
        std::vector<char> bundle;
        bundle.reserve(kBundleBytes);
        const auto bareFinish = [&] {
            if (!bundle.empty()) barePut(outFd, bundle.data(), bundle.size());
            bundle.clear();
        };
        const auto bareSend = [&](const char* pdu) {
            if (!bundled) return barePut(outFd, pdu, kPduBytes);
            if (bundle.size() + kPduBytes > kBundleBytes) bareFinish();
            bundle.insert(bundle.end(), pdu, pdu + kPduBytes);
        };
        const auto librarySend = [&](char* pdu) {
            if (out.NwSend(pdu, kPduBytes, NwUSE_DEFAULT_IP_ADDR) < 0) fail("the library cannot send");
        };
        const auto libraryTake = [&] {
            char* pdu = nullptr;
            return in.NwRecv(&pdu, nullptr);
        };
        report.compare(
            bundled ? "bundles of 1400" : "plain", pdus, kToldOnly,
            [&] {
                return betweenThreads(pdus, stream.source, bareSend, bareFinish,
                                      [&] { return bareTake(inFd, packet); });
            },
            [&] {
                return betweenThreads(
                    pdus, stream.source, librarySend, [&] { out.flush(); }, libraryTake);
            });
    }
}

// --- there and back --------------------------------------------------------------------------------------

// One end of a connection: sends a packet, and takes the next one (null when none is there yet).
struct BareEnd {
    int fd;
    char packet[kLargestPacket];

    explicit BareEnd(NwTcpSocket& socket) : fd(socket.readFd()) {}
    void put(const char* pdu) { barePut(fd, pdu, kPduBytes); }
    char* take() { return bareTake(fd, packet) > 0 ? packet : nullptr; }
};

struct LibraryEnd {
    NwSocket& socket;
    int fd;

    explicit LibraryEnd(NwTcpSocket& own) : socket(own), fd(own.readFd()) {}
    void put(char* pdu) {
        if (socket.NwSend(pdu, kPduBytes, NwUSE_DEFAULT_IP_ADDR) != kPduBytes)
            fail("the library cannot send");
    }
    char* take() {
        char* packet = nullptr;
        return socket.NwRecv(&packet, nullptr) > 0 ? packet : nullptr;
    }
};

enum class Waiting { inPoll, byAsking };

template <class End>
char* await(End& end, Waiting waiting) {
    for (;;) {
        if (waiting == Waiting::inPoll) awaitReadable(end.fd);
        if (char* packet = end.take()) return packet;
        if (waiting == Waiting::byAsking) std::this_thread::yield();
    }
}

// A thread at the other end sends back what comes. The first packets, while the thread starts, do not count.
template <class End>
void pingPong(TcpPair& pair, PduSource& source, Waiting waiting, int count,
              std::vector<double>& nanoseconds) {
    const int kWarm = 20;
    End here(pair.client), there(pair.server);
    std::thread echo([&] {
        for (int i = 0; i < kWarm + count; ++i) there.put(await(there, waiting));
    });
    for (int i = 0; i < kWarm + count; ++i) {
        char* pdu = source.next();
        const double start = seconds(CLOCK_MONOTONIC);
        here.put(pdu);
        const char* back = await(here, waiting);
        const double taken = seconds(CLOCK_MONOTONIC) - start;
        if (std::memcmp(back, pdu, kPduBytes) != 0) fail("another packet came back");
        if (i >= kWarm) nanoseconds.push_back(1e9 * taken);
    }
    echo.join();
}

void thereAndBack(Report& report, int pairs, int count) {
    report.heading("there and back between two threads, one packet under way");
    for (const Waiting waiting : {Waiting::inPoll, Waiting::byAsking}) {
        const std::string name = waiting == Waiting::inPoll ? "waiting in poll" : "asking again and again";
        if (!report.wants(name)) continue;
        TcpPair pair;
        PduSource source;
        std::vector<double> bare, library;
        for (int i = 0; i < pairs; ++i) {
            pingPong<BareEnd>(pair, source, waiting, count, bare);
            pingPong<LibraryEnd>(pair, source, waiting, count, library);
            pingPong<LibraryEnd>(pair, source, waiting, count, library);
            pingPong<BareEnd>(pair, source, waiting, count, bare);
        }
        report.latencies(name + ", bare", bare);
        report.latencies(name + ", library", library);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    NwSocket::setQuietSockets(true);
    Report report(options);
    streams(report, options.quick ? kPdusPerBundle : kPdusPerRound);
    endToEnd(report, options.quick ? 100 : 20000);
    thereAndBack(report, options.pairs, options.quick ? 50 : 250);
    report.finish();
    return 0;
}
