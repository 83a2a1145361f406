// SPDX-License-Identifier: BSD-3-Clause
// The library's forwarder as a service: it waits instead of polling, bounds what it keeps for a slow client,
// and knows of every connection what it did and why it ended.
#ifndef CVNET_RELAY_FORWARDER_H
#define CVNET_RELAY_FORWARDER_H

#include <poll.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <cvNetworkCompatibility/cvTcpForwarder.h>

#include "address.h"
#include "stop_signal.h"
#include "stream_format.h"

class NwTcpSocket;

namespace cvnet {

struct RelaySettings {
    int port = 0;  // 0: the kernel chooses
    StreamFormat format;
    int queue = 0;  // pieces that wait for one client at most
    std::size_t maxClients = 0;
    int bundleBytes = 0;  // 0: each packet by itself
};

struct Traffic {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;

    void add(unsigned long lengthBytes) {
        ++packets;
        bytes += lengthBytes;
    }
};

enum class Ending { closedByPeer, readError, badLength, sendError, noMemory, relayEnds };
constexpr std::size_t kEndings = 6;

/// The word for JSON: "closedByPeer".
const char* endingName(Ending ending);

struct RelayConnection {
    NwTcpSocket* socket = nullptr;  // the manager's
    Endpoint peer;
    Clock::time_point since;
    Traffic in;
    Traffic out;                // sent, or waiting in the queue
    std::uint64_t dropped = 0;  // packets that found the queue full
    Ending ending = Ending::closedByPeer;
    std::string endDetail;  // the system's words, the length

    /// What waits: packets, or bundles of them.
    int queued() const;
    /// "read error: Connection reset by peer".
    std::string endingText() const;

private:
    friend class RelayForwarder;
    bool isReadable = false;  // as poll() said last
    bool holdsBundle = false;
    bool hasEnded = false;  // ending and endDetail are known
    Clock::time_point dropReportDue;
};

struct RelayTotals {
    Traffic in;
    Traffic out;
    std::uint64_t dropped = 0;
    std::uint64_t unsent = 0;  // pieces in the queues of clients that went
    std::uint64_t clients = 0;
    std::size_t mostClients = 0;
    std::uint64_t turnedAway = 0;
    std::array<std::uint64_t, kEndings> endings{};
};

/// Is told what happens. It may look at the forwarder, not change it.
class RelayWatcher {
public:
    virtual ~RelayWatcher() = default;
    /// The connection is in connections() already.
    virtual void connected(const RelayConnection& connection) = 0;
    /// It still is.
    virtual void disconnected(const RelayConnection& connection) = 0;
    virtual void turnedAway(const Endpoint& peer) = 0;
    /// At the first packet that a connection loses, then at most once in ten seconds.
    virtual void drops(const RelayConnection& connection) = 0;
};

/// A slow client: what it does not take waits in its queue, and when that is full, whole packets are dropped,
/// for this client alone, before they come near the stream. The socket's own cap, which could refuse the rest
/// of a packet and tear the stream, stays unset.
class RelayForwarder : public NwTcpForwarder {
public:
    /// Listens. Throws Failure, in one line, when it cannot.
    RelayForwarder(const RelaySettings& settings, RelayWatcher& watcher);
    /// Call end() before, or the watcher is not told.
    ~RelayForwarder() override;

    unsigned port() const;
    const std::vector<std::unique_ptr<RelayConnection>>& connections() const { return connections_; }
    const RelayTotals& totals() const { return totals_; }

    /// Appends what there is to wait for: newcomers, packets, and room where a queue waits.
    void addDescriptors(std::vector<pollfd>& descriptors) const;
    /// Does what these, at the start of the list, are ready for: a limited time of work, so call it again.
    void serve(const std::vector<pollfd>& descriptors);
    /// Offers every client what waits for it once more, then disconnects them all.
    void end();

    void sendToAll(char* buf, unsigned long len) override;
    void readAndForward(NwTcpSocket* socket, double deadline) override;
    using NwTcpForwarder::readAndForward;

private:
    static void onAdded(NwTcpSocket* socket, void* self);
    static void onRemoved(NwTcpSocket* socket, void* self);
    void add(NwTcpSocket* socket);
    void remove(NwTcpSocket* socket);

    void accept();
    void forward(RelayConnection& to, char* buf, unsigned long len);
    void drop(RelayConnection& connection);
    bool isFull(const RelayConnection& connection) const { return connection.queued() >= settings_.queue; }
    static void flush(RelayConnection& connection);
    void flushBundles();
    void removeBroken();
    static void noteEnding(RelayConnection& connection);

    const RelaySettings settings_;
    RelayWatcher& watcher_;
    std::vector<std::unique_ptr<RelayConnection>> connections_;  // in the order of the manager's list
    std::unordered_map<const NwTcpSocket*, RelayConnection*> bySocket_;
    RelayConnection* source_ = nullptr;  // whose packet is being forwarded
    RelayTotals totals_;
};

}  // namespace cvnet

#endif
