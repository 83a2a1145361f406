// SPDX-License-Identifier: BSD-3-Clause
// The transports around plain UDP beside the least that does the same work: the group socket's fan-out beside
// bare system calls, the queue socket beside a std::deque, the pair socket beside a bare Unix datagram pair.
#include <arpa/inet.h>
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <cvNetworkCompatibility/cvPairSock.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "report.h"
#include "traffic.h"

namespace {

const Floor kDatagramFloor = {0.95, 1.05};
const Floor kBundleFloor = {0.90, 1.10};

// --- fan-out ---------------------------------------------------------------------------------------------

// A socket on all of loopback, which takes what goes to any site 127.0.0.N.
int openSink() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any = sockaddr_in();
    any.sin_family = AF_INET;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) fail("cannot open a sink");
    return fd;
}

class FanOut {
public:
    FanOut(int siteCount, int wantedDatagrams)
        : sites(siteCount),
          sink(openSink()),
          port(portOf(sink)),
          group(port, loopbackAddr, static_cast<unsigned char>(NwNetSocketWrite | NwNetSocketQuietStart),
                loopbackAddr) {
        if (!group.isOk()) fail("cannot open the library's sockets on 127.0.0.1");
        for (int i = 0; i < sites; ++i) {
            group.addRemoteSite(loopbackAddr + static_cast<NwIpv4Addr>(i));
            sockaddr_in to = loopbackAddress(port);
            to.sin_addr.s_addr = htonl(loopbackAddr + static_cast<NwIpv4Addr>(i));
            addresses.push_back(to);
        }
        room = roomForDatagrams(sink, wantedDatagrams);
        bundles.resize(static_cast<std::size_t>(sites));
        for (std::vector<char>& bundle : bundles) bundle.reserve(kLargestDatagram);
    }

    // What a receive buffer holds is emptied between the parts of a round, outside of what is timed.
    template <class Part>
    Cost inParts(int pdus, int pdusPerDatagram, const Part& part) {
        const int partPdus = std::max(1, room / sites) * pdusPerDatagram;
        Cost total;
        std::uint64_t arrived = 0;
        source.restart();
        for (int done = 0; done < pdus; done += partPdus) {
            const Stopwatch watch;
            part(std::min(partPdus, pdus - done));
            const Cost cost = watch.elapsed();
            total.wallSeconds += cost.wallSeconds;
            total.cpuSeconds += cost.cpuSeconds;
            arrived += drain(sink);
        }
        if (arrived != static_cast<std::uint64_t>(pdus) * static_cast<std::uint64_t>(sites) * kPduBytes)
            fail("a fan-out lost datagrams");
        return total;
    }

    void bare(int pdus) {
        const int fd = group.writeFd();
        for (int i = 0; i < pdus; ++i) {
            const char* pdu = source.next();
            for (const sockaddr_in& to : addresses)
                if (::sendto(fd, pdu, kPduBytes, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0)
                    fail("the bare loop cannot send");
        }
    }
    void bareBundled(int pdus) {
        for (int i = 0; i < pdus; ++i) {
            const char* pdu = source.next();
            if (!bundles[0].empty() && bundles[0].size() + kPduBytes > kBundleBytes) bareFlush();
            for (std::vector<char>& bundle : bundles) bundle.insert(bundle.end(), pdu, pdu + kPduBytes);
        }
        bareFlush();
    }
    void library(int pdus) {
        for (int i = 0; i < pdus; ++i)
            if (group.NwSend(source.next(), kPduBytes, NwUSE_DEFAULT_IP_ADDR) < 0)
                fail("the library cannot send");
        if (group.flush() < 0) fail("the library cannot flush");
    }

    const int sites;
    const Descriptor sink;
    const int port;
    NwGroupSocket group;

private:
    void bareFlush() {
        for (std::size_t i = 0; i < bundles.size(); ++i) {
            if (::sendto(group.writeFd(), bundles[i].data(), bundles[i].size(), 0,
                         reinterpret_cast<const sockaddr*>(&addresses[i]), sizeof addresses[i]) < 0)
                fail("the bare loop cannot send");
            bundles[i].clear();
        }
    }

    std::vector<sockaddr_in> addresses;
    std::vector<std::vector<char>> bundles;
    PduSource source;
    int room = 0;
};

void fanOuts(Report& report, bool quick) {
    report.heading("group socket beside bare calls; per PDU and site");
    for (const int sites : {1, 10, 100}) {
        for (const bool bundled : {false, true}) {
            FanOut net(sites, 1000);
            const int perDatagram = bundled ? kPdusPerBundle : 1;
            const int pdus = (quick ? 1 : std::max(5, 500 / sites)) * perDatagram;
            const std::string name = "send to " + std::to_string(sites) + (sites == 1 ? " site" : " sites") +
                                     (bundled ? ", bundles" : "");
            report.compare(
                name, pdus * sites, bundled ? kBundleFloor : kDatagramFloor,
                [&] {
                    net.group.setBundling(0);
                    return net.inParts(pdus, perDatagram, [&](int count) {
                        bundled ? net.bareBundled(count) : net.bare(count);
                    });
                },
                [&] {
                    net.group.setBundling(bundled ? kBundleBytes : 0);
                    return net.inParts(pdus, perDatagram, [&](int count) { net.library(count); });
                });
        }
    }
}

// --- in the process --------------------------------------------------------------------------------------

void queues(Report& report, int pdus) {
    report.heading("queue socket beside a std::deque of byte vectors; both sides copy in and out");
    PduSource source;
    std::deque<std::vector<char>> bare;
    static char buffer[kLargestDatagram];
    NwQueueSocket socket;
    const auto check = [&](const Delivered& delivered) {
        if (delivered.packets != static_cast<std::uint64_t>(pdus)) fail("a queue lost packets");
    };
    report.compare(
        "queue and take out", pdus, kToldOnly,
        [&] {
            source.restart();
            Delivered delivered;
            const Stopwatch watch;
            for (int i = 0; i < pdus; ++i) {
                const char* pdu = source.next();
                bare.emplace_back(pdu, pdu + kPduBytes);
            }
            while (!bare.empty()) {
                std::memcpy(buffer, bare.front().data(), bare.front().size());
                delivered.take(buffer, static_cast<int>(bare.front().size()));
                bare.pop_front();
            }
            const Cost cost = watch.elapsed();
            check(delivered);
            return cost;
        },
        [&] {
            source.restart();
            Delivered delivered;
            NwSocket& any = socket;
            const Stopwatch watch;
            for (int i = 0; i < pdus; ++i) any.NwSend(source.next(), kPduBytes, 0);
            char* packet = nullptr;
            while (const int length = any.NwRecv(&packet, nullptr)) delivered.take(packet, length);
            const Cost cost = watch.elapsed();
            check(delivered);
            return cost;
        },
        "deque");
}

void pairs(Report& report, int pdus) {
    report.heading("pair socket beside a bare Unix datagram pair");
    const int kUnderWay = 8;  // the kernel keeps few datagrams for a receiver
    PduSource source;
    NwSocketPairSocket out;
    NwSocketPairSocket in(out.peerDescriptor());
    static char buffer[kLargestDatagram];
    const auto round = [&](bool library) {
        source.restart();
        Delivered delivered;
        NwSocket &sender = out, &receiver = in;
        const int outFd = out.writeFd(), inFd = in.readFd();
        const Stopwatch watch;
        for (int done = 0; done < pdus; done += kUnderWay) {
            if (library) {
                for (int i = 0; i < kUnderWay; ++i) sender.NwSend(source.next(), kPduBytes, 0);
                char* packet = nullptr;
                for (int i = 0; i < kUnderWay; ++i) {
                    const int length = receiver.NwRecv(&packet, nullptr);
                    if (length > 0) delivered.take(packet, length);
                }
            } else {
                for (int i = 0; i < kUnderWay; ++i)
                    if (::send(outFd, source.next(), kPduBytes, 0) < 0) fail("the bare loop cannot send");
                for (int i = 0; i < kUnderWay; ++i) {
                    const ssize_t length = ::recv(inFd, buffer, sizeof buffer, 0);
                    if (length > 0) delivered.take(buffer, static_cast<int>(length));
                }
            }
        }
        const Cost cost = watch.elapsed();
        if (delivered.packets != static_cast<std::uint64_t>(pdus)) fail("a pair lost packets");
        return cost;
    };
    report.compare(
        "send and receive", pdus, kDatagramFloor, [&] { return round(false); }, [&] { return round(true); });
    ::close(out.readFd());
    ::close(in.readFd());
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    NwNetSocket::initErrorAction = 1;
    NwSocket::setQuietSockets(true);
    Report report(options);
    fanOuts(report, options.quick);
    queues(report, options.quick ? 100 : 2000);
    pairs(report, options.quick ? 80 : 2000);
    report.finish();
    return 0;
}
