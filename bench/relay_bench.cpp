// SPDX-License-Identifier: BSD-3-Clause
// The relay on loopback beside a bare loop that makes the same system calls, and beside relays that let the
// kernel tell who has sent something.
#include <cvNetworkCompatibility/cvTcpForwarder.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bare_tcp.h"
#include "report.h"
#include "traffic.h"

namespace {

const Floor kFloor = {0.95, 1.05};
const int kSendsPerRound = 600;  // about a millisecond, below a time slice;
const int kLeastPdus = 10;       // but a relay does not ask 200 connections for the sake of three packets
const double kNoLimit = 1000;    // seconds

// A relay and its sites. The first site sends; every one receives, the first included.
class Hub {
public:
    explicit Hub(int count) : forwarder(0) {
        if (!forwarder.socketMgr()->isOk()) fail("cannot listen on 127.0.0.1");
        forwarder.setSizeOffset(kLengthOffset);
        NwTcpSocketMgr& manager = *forwarder.socketMgr();
        const int port = portOf(manager.readFd());
        for (int i = 0; i < count; ++i) {
            sites.emplace_back(openConnection(port));
            while (manager.socketList()->count() <= i) manager.processConnections();
        }
        for (NwListItem* item = manager.socketList()->first(); item; item = item->next())
            connections.push_back(static_cast<NwTcpSocket*>(item->data())->readFd());
    }

    // Times `relay`, which finds all packets of the round waiting for it, and takes up what arrives at each
    // site.
    template <class Relay>
    Cost round(int pdus, const Relay& relay) {
        const Delivered wanted = source.first(pdus);
        bareStreamSend(sites[0], source, pdus);
        while (waiting(connections[0]) < pdus * kPduBytes) awaitReadable(connections[0]);
        const Stopwatch watch;
        relay();
        const Cost cost = watch.elapsed();
        for (const Descriptor& site : sites)
            if (!(bareStreamReceive(site, pdus) == wanted)) fail("other packets came than were sent");
        return cost;
    }

    NwTcpForwarder forwarder;
    std::vector<int> connections;  // the relay's ends

private:
    static int waiting(int fd) {
        int bytes = 0;
        if (::ioctl(fd, FIONREAD, &bytes) != 0) fail("cannot ask what waits at a connection");
        return bytes;
    }

    std::vector<Descriptor> sites;
    PduSource source;
};

void relays(Report& report, bool quick) {
    report.heading("relay: one of the sites sends, each packet goes to all of them; per packet and receiver");
    for (const int receivers : {3, 30, 200}) {
        Hub net(receivers);
        BareEpollRelay epoll(net.connections);
        const int pdus = quick ? 1 : std::max(kLeastPdus, kSendsPerRound / receivers);
        const std::string name = std::to_string(receivers) + " receivers";
        const auto library = [&] { net.forwarder.readAndForward(kNoLimit, kNoLimit); };
        const auto beside = [&](const std::string& what, Floor floor, const auto& bare, const char* side) {
            report.compare(
                name + what, pdus * receivers, floor, [&] { return net.round(pdus, bare); },
                [&] { return net.round(pdus, library); }, side);
        };
        beside(
            "", kFloor, [&] { bareRelay(net.connections, seconds(CLOCK_MONOTONIC) + kNoLimit); }, "bare");
        beside(
            ", epoll, a send for each", kToldOnly, [&] { epoll.run(false); }, "epoll");
        beside(
            ", epoll, one send for all", kToldOnly, [&] { epoll.run(true); }, "epoll");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    NwSocket::setQuietSockets(true);
    Report report(options);
    relays(report, options.quick);
    report.finish();
    return 0;
}
