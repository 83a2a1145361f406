// SPDX-License-Identifier: BSD-3-Clause
// What the library warns of goes, as its text says, to the connection that was at work: each step that can
// end a connection is followed by a look at isOk().
#include "relay_forwarder.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include <cvNetworkCompatibility/cvTcpSocket.h>

#include "library.h"
#include "listening.h"
#include "output.h"
#include "text.h"

namespace cvnet {
namespace {

// The most that serve() works before it looks at all descriptors again, and for one client in a row.
constexpr double kRoundSeconds = 0.02;
constexpr double kTurnSeconds = 0.002;
constexpr auto kDropReportPeriod = std::chrono::seconds(10);

// A host that went without a word is noticed after two minutes, and its place is free again.
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAlivePeriodSeconds = 10;
constexpr int kKeepAliveProbes = 6;

struct EndingText {
    Ending ending;
    const char* name;
    const char* text;
    const char* warning;  // how the library's begins; null: it prints none
};

constexpr EndingText kEndingTexts[kEndings] = {
    {Ending::closedByPeer, "closedByPeer", "closed by peer", nullptr},
    {Ending::readError, "readError", "read error", "Network read error: "},
    {Ending::badLength, "badLength", "bad packet length", "NwTcpSocket: bad packet length "},
    {Ending::sendError, "sendError", "send error", "TCP Socket sendTo error: "},
    {Ending::noMemory, "noMemory", "no memory", "NwTcpSocket: no memory "},
    {Ending::relayEnds, "relayEnds", "the relay ends", nullptr},
};

const EndingText& textOf(Ending ending) {
    return *std::find_if(std::begin(kEndingTexts), std::end(kEndingTexts),
                         [&](const EndingText& entry) { return entry.ending == ending; });
}

void keepAlive(int fd) {
    const struct {
        int level;
        int name;
        int value;
    } options[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                   {IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds},
                   {IPPROTO_TCP, TCP_KEEPINTVL, kKeepAlivePeriodSeconds},
                   {IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes}};
    // Where the system refuses, dead peers stay longer, and nothing else.
    for (const auto& option : options)
        ::setsockopt(fd, option.level, option.name, &option.value, sizeof option.value);
}

}  // namespace

const char* endingName(Ending ending) {
    return textOf(ending).name;
}

int RelayConnection::queued() const {
    return socket->getQueueStatus().first;
}

std::string RelayConnection::endingText() const {
    const char* const text = textOf(ending).text;
    if (endDetail.empty()) return text;
    return fmt::format("{}{} {}", text, ending == Ending::badLength ? "" : ":", endDetail);
}

RelayForwarder::RelayForwarder(const RelaySettings& settings, RelayWatcher& watcher)
    : NwTcpForwarder(settings.port), settings_(settings), watcher_(watcher) {
    if (socketMgr_->addrInUse()) failToListen(settings.port, errorText(EADDRINUSE));
    if (!socketMgr_->isOk()) failToListen(settings.port, takeLibraryReason("refused"));
    if (!listens(socketMgr_->readFd())) failToListen(settings.port, errorText(EADDRINUSE));
    socketMgr_->setSizeOffset(settings.format.sizeOffset);
    socketMgr_->setSizeLength(settings.format.sizeLength);
    socketMgr_->setPacketBundling(static_cast<unsigned>(settings.bundleBytes));
    socketMgr_->addSocketAdditionCallback(onAdded, this);
    socketMgr_->addSocketRemovalCallback(onRemoved, this);
}

RelayForwarder::~RelayForwarder() {
    socketMgr_->emptyCallbackLists();
}

unsigned RelayForwarder::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(socketMgr_->readFd(), reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    return ntohs(address.sin_port);
}

// --- connections come and go -------------------------------------------------------------------------------

void RelayForwarder::onAdded(NwTcpSocket* socket, void* self) {
    static_cast<RelayForwarder*>(self)->add(socket);
}

void RelayForwarder::onRemoved(NwTcpSocket* socket, void* self) {
    static_cast<RelayForwarder*>(self)->remove(socket);
}

// A newcomer too many goes before the next is accepted, so that accept() never runs out of descriptors.
void RelayForwarder::add(NwTcpSocket* socket) {
    const Endpoint peer{socketMgr_->currentClientAddr(), static_cast<unsigned>(socket->peerPort())};
    if (connections_.size() >= settings_.maxClients) {
        ++totals_.turnedAway;
        watcher_.turnedAway(peer);
        socketMgr_->removeAndDelete(socket);
        return;
    }
    keepAlive(socket->readFd());
    auto connection = std::make_unique<RelayConnection>();
    connection->socket = socket;
    connection->peer = peer;
    connection->since = Clock::now();
    connection->dropReportDue = connection->since;
    bySocket_[socket] = connection.get();
    connections_.push_back(std::move(connection));
    ++totals_.clients;
    totals_.mostClients = std::max(totals_.mostClients, connections_.size());
    watcher_.connected(*connections_.back());
}

void RelayForwarder::remove(NwTcpSocket* socket) {
    const auto known = bySocket_.find(socket);
    if (known == bySocket_.end()) return;  // turned away
    const RelayConnection* const connection = known->second;
    totals_.unsent += static_cast<std::uint64_t>(connection->queued());
    ++totals_.endings[static_cast<std::size_t>(connection->ending)];
    watcher_.disconnected(*connection);
    bySocket_.erase(known);
    connections_.erase(std::find_if(connections_.begin(), connections_.end(),
                                    [&](const auto& entry) { return entry.get() == connection; }));
}

// For a socket that is no longer ok: keeps why.
void RelayForwarder::noteEnding(RelayConnection& connection) {
    const std::string warning = takeLibraryWarning();
    if (connection.hasEnded) return;
    connection.hasEnded = true;
    for (const EndingText& entry : kEndingTexts) {
        if (entry.warning == nullptr || warning.rfind(entry.warning, 0) != 0) continue;
        connection.ending = entry.ending;
        const std::size_t separator = warning.rfind(entry.ending == Ending::badLength ? " " : ": ");
        if (entry.ending != Ending::noMemory)
            connection.endDetail = oneLine(std::string_view(warning).substr(separator + 1));
    }
}

void RelayForwarder::removeBroken() {
    for (std::size_t i = 0; i < connections_.size();) {
        NwTcpSocket* const socket = connections_[i]->socket;
        if (socket->isOk())
            ++i;
        else
            socketMgr_->removeAndDelete(socket);
    }
}

void RelayForwarder::end() {
    for (const auto& connection : connections_) flush(*connection);
    removeBroken();
    while (!connections_.empty()) {
        connections_.front()->ending = Ending::relayEnds;
        socketMgr_->removeAndDelete(connections_.front()->socket);
    }
}

// --- waiting and working -----------------------------------------------------------------------------------

void RelayForwarder::addDescriptors(std::vector<pollfd>& descriptors) const {
    descriptors.push_back({socketMgr_->readFd(), POLLIN, 0});
    for (const auto& connection : connections_) {
        const int events = connection->queued() != 0 ? POLLIN | POLLOUT : POLLIN;
        descriptors.push_back({connection->socket->readFd(), static_cast<short>(events), 0});
    }
}

void RelayForwarder::serve(const std::vector<pollfd>& descriptors) {
    bool anyReadable = false;
    for (std::size_t i = 0; i < connections_.size(); ++i) {
        RelayConnection& connection = *connections_[i];
        const int events = descriptors[i + 1].revents;
        connection.isReadable = (events & ~POLLOUT) != 0;  // errors too: reading tells which
        anyReadable = anyReadable || connection.isReadable;
        if ((events & POLLOUT) != 0) flush(connection);
    }
    if (descriptors[0].revents != 0) accept();
    if (anyReadable) readAndForward(kRoundSeconds, kTurnSeconds);
    flushBundles();
    removeBroken();
}

void RelayForwarder::accept() {
    takeLibraryWarning();
    socketMgr_->processConnections();
    const std::string warning = takeLibraryWarning();
    if (!warning.empty()) warningLine(warning);
}

// One client's turn. Those that have nothing are passed over: poll() has looked already.
void RelayForwarder::readAndForward(NwTcpSocket* socket, double deadline) {
    RelayConnection& connection = *bySocket_.at(socket);
    if (!connection.isReadable) return;
    source_ = &connection;
    NwTcpForwarder::readAndForward(socket, deadline);
    source_ = nullptr;
    if (!socket->isOk()) noteEnding(connection);
}

void RelayForwarder::sendToAll(char* buf, unsigned long len) {
    if (source_ != nullptr) source_->in.add(len);
    totals_.in.add(len);
    for (const auto& connection : connections_) {
        if (connection->socket->isOk()) forward(*connection, buf, len);
    }
}

void RelayForwarder::forward(RelayConnection& to, char* buf, unsigned long len) {
    NwTcpSocket& socket = *to.socket;
    if (isFull(to)) flush(to);
    if (!socket.isOk()) return;
    if (isFull(to)) return drop(to);
    int result = settings_.bundleBytes != 0 ? socket.NwSend(buf, len, 0U) : socket.sendTo(buf, len, 0U);
    // The full bundle could not leave and is in the queue now: there is room for the packet.
    if (settings_.bundleBytes != 0 && result < 0 && socket.isOk()) result = socket.NwSend(buf, len, 0U);
    if (!socket.isOk()) return noteEnding(to);
    if (result < 0) return drop(to);
    to.out.add(len);
    totals_.out.add(len);
    to.holdsBundle = settings_.bundleBytes != 0;
}

void RelayForwarder::drop(RelayConnection& connection) {
    ++connection.dropped;
    ++totals_.dropped;
    const Clock::time_point now = Clock::now();
    if (now < connection.dropReportDue) return;
    connection.dropReportDue = now + kDropReportPeriod;
    watcher_.drops(connection);
}

void RelayForwarder::flush(RelayConnection& connection) {
    connection.socket->flush();
    connection.holdsBundle = false;
    if (!connection.socket->isOk()) noteEnding(connection);
}

// What the turns have collected leaves before anything is waited for.
void RelayForwarder::flushBundles() {
    for (const auto& connection : connections_) {
        if (connection->holdsBundle) flush(*connection);
    }
}

}  // namespace cvnet
