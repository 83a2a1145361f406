// SPDX-License-Identifier: BSD-3-Clause
// The asynchronous UDP socket on loopback: what a caller pays for a call, beside the plain UDP socket; what
// comes through from end to end; the socket beside a bare loop that does just the steps of the documented
// design; and how long it takes to end.
#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bare_async.h"
#include "report.h"
#include "traffic.h"

namespace {

const unsigned char kSend = NwNetSocketWrite | NwNetSocketQuietStart;
const unsigned char kReceive = NwNetSocketRead | NwNetSocketBindToDest | NwNetSocketQuietStart;
const Floor kDesignFloor = {0.90, 1.10};
const int kBatchPdus = 60;  // under way at once: less than any receive buffer holds

void pause(double length) {
    timespec wait = {0, static_cast<long>(1e9 * length)};
    ::nanosleep(&wait, nullptr);
}

template <class Socket>
std::unique_ptr<Socket> openReceiver() {
    std::unique_ptr<Socket> socket(new Socket(0, loopbackAddr, kReceive, loopbackAddr));
    if (!socket->isOk()) fail("cannot open the library's sockets on 127.0.0.1");
    socket->NwBecomeNonBlocking();
    socket->setReceiveBufferSize(1 << 20);
    return socket;
}

template <class Socket>
std::unique_ptr<Socket> openSender(int port) {
    std::unique_ptr<Socket> socket(new Socket(port, loopbackAddr, kSend, loopbackAddr));
    if (!socket->isOk()) fail("cannot open the library's sockets on 127.0.0.1");
    return socket;
}

// --- what a call costs its caller ------------------------------------------------------------------------

// Idle: between two calls there is time for everything else to be done. Saturated: there is none.
template <class Socket>
void sendCost(Report& report, const std::string& name, int calls, bool saturated) {
    if (!report.wants(name)) return;
    const Descriptor sink(openSocket(true));
    std::unique_ptr<Socket> socket = openSender<Socket>(portOf(sink));
    PduSource source;
    std::vector<double> nanoseconds;
    for (int i = 0; i < calls; ++i) {
        if (!saturated) pause(100e-6);
        char* pdu = source.next();
        const double start = seconds(CLOCK_MONOTONIC);
        if (socket->sendTo(pdu, kPduBytes, 0) != kPduBytes) fail("a send failed");
        nanoseconds.push_back(1e9 * (seconds(CLOCK_MONOTONIC) - start));
    }
    report.latencies(name, nanoseconds);
}

// Feeds a port from another thread, as fast as it can or a packet now and then.
class Feeder {
public:
    Feeder(int port, bool saturated) : myThread([this, port, saturated] { run(port, saturated); }) {}
    ~Feeder() {
        myStop = true;
        myThread.join();
    }
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

private:
    void run(int port, bool saturated) {
        const Descriptor fd(openSocket(true));
        sockaddr_in to = loopbackAddress(port);
        PduSource source;
        while (!myStop) {
            ::sendto(fd, source.next(), kPduBytes, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
            if (!saturated) pause(100e-6);
        }
    }

    std::atomic<bool> myStop{false};
    std::thread myThread;
};

template <class Socket>
void receiveCost(Report& report, const std::string& name, int calls, bool saturated) {
    if (!report.wants(name)) return;
    std::unique_ptr<Socket> socket = openReceiver<Socket>();
    const Feeder feeder(portOf(socket->readFd()), saturated);
    std::vector<double> withPacket, without;
    for (int i = 0; static_cast<int>(withPacket.size()) < calls; ++i) {
        if (!saturated) pause(100e-6);
        char* packet = nullptr;
        const double start = seconds(CLOCK_MONOTONIC);
        const int length = socket->NwRecv(&packet, nullptr);
        const double cost = 1e9 * (seconds(CLOCK_MONOTONIC) - start);
        (length > 0 ? withPacket : without).push_back(cost);
    }
    report.latencies(name + ", a packet", withPacket);
    report.latencies(name + ", nothing there", without);
}

void callerCosts(Report& report, bool quick) {
    report.heading("what a call costs its caller (a clock is read before and after: see the first line)");
    std::vector<double> nothing;
    for (int i = 0; i < 10000; ++i) {
        const double start = seconds(CLOCK_MONOTONIC);
        nothing.push_back(1e9 * (seconds(CLOCK_MONOTONIC) - start));
    }
    report.latencies("the clock itself", nothing);
    for (const bool saturated : {false, true}) {
        const int calls = quick ? 100 : saturated ? 100000 : 5000;
        const std::string load = saturated ? ", saturated" : ", idle";
        sendCost<NwNetSocket>(report, "sendTo, UDP" + load, calls, saturated);
        sendCost<NwAsyncNetSocket>(report, "sendTo, asynchronous" + load, calls, saturated);
        receiveCost<NwNetSocket>(report, "NwRecv, UDP" + load, calls, saturated);
        receiveCost<NwAsyncNetSocket>(report, "NwRecv, asynchronous" + load, calls, saturated);
    }
}

// --- batches: never more under way than a receive buffer holds ------------------------------------------

// Sends a batch, then takes it in at the other end, until all is done.
template <class Send, class Receive>
Cost inBatches(int batches, PduSource& source, const Send& send, const Receive& receive) {
    source.restart();
    const AllThreads watch;
    for (int k = 0; k < batches; ++k) {
        for (int i = 0; i < kBatchPdus; ++i) send(source.next());
        for (int i = 0; i < kBatchPdus; ++i) receive();
    }
    return watch.elapsed();
}

// Waits for a datagram that is on its way.
int bareReceive(int fd, char* buffer) {
    const ssize_t length = ::recv(fd, buffer, kLargestDatagram, 0);
    if (length != kPduBytes) fail("a packet was lost");
    return static_cast<int>(length);
}

// As an application does that has nothing else to do meanwhile.
void receiveSoon(NwSocket& socket) {
    char* packet = nullptr;
    while (socket.NwRecv(&packet, nullptr) <= 0) std::this_thread::yield();
}

// A thread sends without a pause, but keeps no more under way than a receive buffer holds; the caller
// receives.
Cost streamed(int pdus, PduSource& source, NwSocket& out, NwSocket& in) {
    std::atomic<int> received{0};
    source.restart();
    const AllThreads watch;
    std::thread sender([&] {
        for (int i = 0; i < pdus; ++i) {
            while (i >= received.load(std::memory_order_relaxed) + kBatchPdus) std::this_thread::yield();
            if (out.sendTo(source.next(), kPduBytes, 0) != kPduBytes) fail("a send failed");
        }
    });
    for (int i = 0; i < pdus; ++i) {
        receiveSoon(in);
        received.store(i + 1, std::memory_order_relaxed);
    }
    sender.join();
    return watch.elapsed();
}

void endToEnd(Report& report, int pdus) {
    report.heading("end to end: a thread sends, another receives, up to " + std::to_string(kBatchPdus) +
                   " PDUs under way; all threads' processor time");
    const std::string name = "UDP, and asynchronous";
    if (!report.wants(name)) return;
    auto plainIn = openReceiver<NwNetSocket>();
    auto asyncIn = openReceiver<NwAsyncNetSocket>();
    auto plainOut = openSender<NwNetSocket>(portOf(plainIn->readFd()));
    auto asyncOut = openSender<NwAsyncNetSocket>(portOf(asyncIn->readFd()));
    PduSource source;
    report.compare(
        name, pdus, kToldOnly, [&] { return streamed(pdus, source, *plainOut, *plainIn); },
        [&] { return streamed(pdus, source, *asyncOut, *asyncIn); }, "UDP", "async");
}

// --- the documented design, by hand ----------------------------------------------------------------------

void besideTheDesign(Report& report, int batches) {
    report.heading("the library beside a bare loop of the documented steps; all threads' processor time");
    PduSource source;
    const int pdus = batches * kBatchPdus;
    char buffer[kLargestDatagram];
    {
        const Descriptor sink(openSocket(true)), bareFd(openSocket(true));
        BareAsyncSender bare(bareFd, portOf(sink));
        auto library = openSender<NwAsyncNetSocket>(portOf(sink));
        const auto take = [&] { bareReceive(sink, buffer); };
        report.compare(
            "queue, wake, send", pdus, kDesignFloor,
            [&] {
                return inBatches(
                    batches, source, [&](char* pdu) { bare.send(pdu, kPduBytes); }, take);
            },
            [&] {
                return inBatches(
                    batches, source, [&](char* pdu) { library->sendTo(pdu, kPduBytes, 0); }, take);
            });
    }
    const Descriptor bareFd(openSocket(true)), out(openSocket(true));
    BareAsyncReceiver bare(bareFd);
    auto library = openReceiver<NwAsyncNetSocket>();
    const auto sendTo = [&](int port) {
        return [&out, to = loopbackAddress(port)](char* pdu) {
            if (::sendto(out, pdu, kPduBytes, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) !=
                kPduBytes)
                fail("a send failed");
        };
    };
    const auto takeBare = [&] {
        while (bare.receive(buffer) == 0) std::this_thread::yield();
    };
    report.compare(
        "read, queue, take", pdus, kDesignFloor,
        [&] { return inBatches(batches, source, sendTo(portOf(bareFd)), takeBare); },
        [&] {
            return inBatches(batches, source, sendTo(portOf(library->readFd())),
                             [&] { receiveSoon(*library); });
        });
}

// --- the end ---------------------------------------------------------------------------------------------

void endings(Report& report, int count) {
    report.heading("how long the end takes (0.1 s of it as documented)");
    for (const bool flooded : {false, true}) {
        const std::string name = flooded ? "destruction under a flood" : "destruction, idle";
        if (!report.wants(name)) continue;
        std::vector<double> lengths;
        for (int i = 0; i < count; ++i) {
            auto socket = openReceiver<NwAsyncNetSocket>();
            std::unique_ptr<Feeder> feeder;
            if (flooded) feeder.reset(new Feeder(portOf(socket->readFd()), true));
            pause(0.02);
            const double start = seconds(CLOCK_MONOTONIC);
            socket.reset();
            lengths.push_back(seconds(CLOCK_MONOTONIC) - start);
        }
        report.figures(name, "s",
                       {{"median", percentile(lengths, 0.5)}, {"longest", percentile(lengths, 1.0)}});
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    NwNetSocket::initErrorAction = 1;
    NwSocket::setQuietSockets(true);
    Report report(options);
    const int batches = options.quick ? 2 : 20;
    callerCosts(report, options.quick);
    endToEnd(report, options.quick ? 100 : 5000);
    besideTheDesign(report, batches);
    endings(report, options.quick ? 1 : 20);
    report.finish();
    return 0;
}
