// SPDX-License-Identifier: BSD-3-Clause
// Datagrams and requests take turns in bursts, so that a flood of either starves nobody.
#include "server.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <new>
#include <set>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace packetserver {

namespace {

constexpr int packetsInBurst = 256;
constexpr int requestsInBurst = 64;
constexpr int receiveBufferBytes = 8 << 20;
constexpr unsigned mostGroupsOfClient = 256;
constexpr unsigned mostPendingOfProcess = 8;
/// Lines about clients, who come and go, and ask for what they do not get, as often as they like: so many at
/// once, and so many more each second.
constexpr unsigned linesAtOnce = 200;
constexpr unsigned linesPerTick = 5;
/// Tests and pings, which put a message into the queue of every client, whoever asks.
constexpr unsigned callsAtOnce = 20;
constexpr unsigned callsPerTick = 5;
/// A control-only client is sent states, warnings and notices: room for the answer about all clients, and
/// more.
constexpr unsigned long controlQueueBytes = 256UL << 10;
constexpr unsigned long controlQueueBytesPerClient = 256;

bool isLoopback(NwIpv4Addr address) {
    return address >> 24 == 127;
}

bool concernsAllClients(int request) {
    return request == NwCsRequestTestClients || request == NwCsRequestPingClients ||
           request == NwCsRequestClientStates;
}

}  // namespace

// --- start and end ---------------------------------------------------------------------------------------

Server::Server(int port, const ServerSettings& settings, EventLoop& loop, Log& log)
    : port_(port),
      settings_(settings),
      loop_(loop),
      log_(log),
      since_(std::chrono::steady_clock::now()),
      groups_(settings.interface),
      isInternal_(settings.isInternal),
      unbundles_(settings.unbundles),
      linesLeft_(linesAtOnce),
      callsLeft_(callsAtOnce) {}

Server::~Server() {
    if (socket_) loop_.remove(socket_->readFd());
    if (requests_) loop_.remove(requests_->fd());
    linesLeft_ += static_cast<unsigned>(clients_.size());  // nobody can bring about more
    for (const auto& entry : clients_) entry.second->sendAway(NwCsNoticeStopped);
    while (!clients_.empty()) detach(clients_.begin(), "let go, the server stops");
}

// The request path comes last: what clients find there serves them.
bool Server::start() {
    requests_ = std::make_unique<RequestSocket>(settings_.directory, port_);
    if (requests_->isOk()) {
        NwShmMsgQueueSegment::removeLeftovers(port_, NwShmMsgQueueSegment::slotLimit);
        if (!openPort()) return false;
        requests_->open(settings_.permissions.isShared());
    }
    if (!requests_->isOk()) {
        problem_ = requests_->problem();
        return false;
    }
    if (!loop_.add(socket_->readFd(), [this] { readPackets(); }) ||
        !loop_.add(requests_->fd(), [this] { readRequests(); })) {
        problem_ = fmt::format("cannot wait for packets: {}", std::strerror(errno));
        return false;
    }
    log_.event(
        {{"event", "serving"}, {"port", port_}, {"path", requests_->path()}, {"internal", isInternal_}},
        fmt::format("serving port {} at {}{}", port_, requests_->path(), isInternal_ ? " (internal)" : ""));
    return true;
}

bool Server::openPort() {
    errno = 0;
    socket_ = std::make_unique<PortSocket>(port_);
    if (!socket_->isOk()) {
        problem_ = fmt::format("cannot open UDP port {}: {}", port_, std::strerror(errno));
        return false;
    }
    socket_->setReceiveBufferSize(receiveBufferBytes);  // as much of it as the system grants
    for (const NwIpv4Addr group : settings_.groups) {
        if (groups_.wish(group)) continue;
        problem_ = fmt::format("cannot join {}: {}", NwInetAddrString(group), std::strerror(errno));
        return false;
    }
    return true;
}

// --- packets ---------------------------------------------------------------------------------------------

void Server::readPackets() {
    PortSocket::Packet packet;
    for (int i = 0; i < packetsInBurst || socket_->dataLeftInCurrentBundle(); ++i) {
        if (!socket_->next(packet)) break;
        if (packet.length == 0) continue;
        const NwIpv4Addr source = socket_->lastSourceInetAddr();
        if (isInternal_ && !isLoopback(source)) {
            if (packet.isFirst) ++outsideDropped_;
            continue;
        }
        ++packets_;
        distribute(packet, source);
    }
    publish();
}

// A client that takes datagrams whole gets them with their first packet.
void Server::distribute(const PortSocket::Packet& packet, NwIpv4Addr source) {
    for (const auto& entry : clients_) {
        Client& client = *entry.second;
        if (client.isControlOnly()) continue;
        if (client.unbundles) {
            client.offer(packet.bytes, packet.length, source);
        } else if (packet.isFirst) {
            client.offer(packet.bytes, packet.datagramLength, source);
        }
    }
}

void Server::publish() {
    for (const auto& entry : clients_) entry.second->publish();
}

// --- requests --------------------------------------------------------------------------------------------

void Server::readRequests() {
    NwCsMsg request;
    Sender sender;
    for (int i = 0; i < requestsInBurst; ++i) {
        const char* why = nullptr;
        const RequestSocket::Result result = requests_->next(request, sender, why);
        if (result == RequestSocket::Result::nothing) break;
        if (result == RequestSocket::Result::request) {
            serve(request, sender);
        } else {
            refuseRequest(sender, why);
        }
    }
    publish();
}

void Server::serve(const NwCsMsg& request, const Sender& sender) {
    switch (request.kind) {
        case NwCsKindAddClient:
            attach(NwCsAddClientMsg(-1, &request), sender);
            break;
        case NwCsKindFilter:
            setFilter(NwCsFilterMsg(-1, &request), sender);
            break;
        case NwCsKindMulticastReq:
            changeGroups(NwCsMulticastReqMsg(-1, &request), sender);
            break;
        default:
            control(NwCsControlReqMsg(-1, &request), sender);
    }
}

void Server::attach(const NwCsAddClientMsg& request, const Sender& sender) {
    auto notify = std::make_unique<NotifySocket>(request.notifyPath(), sender.uid);
    const bool isControlOnly = (request.flags() & NwCsClientControlOnly) != 0;
    const std::string objection = objectionTo(*notify, sender);
    if (!objection.empty()) return refuse(*notify, sender, objection);
    if (!hasPlace(isControlOnly)) return turnAway(*notify, sender);
    auto made = std::make_unique<Client>(newId(), request.flags(), sender, std::move(notify));
    made->unbundles = unbundles_;
    const unsigned long wanted = isControlOnly
                                     ? controlQueueBytes + controlQueueBytesPerClient * settings_.clients
                                     : settings_.queueBytes;
    if (!makeQueue(*made, NwShmMsgQueueMgr::bytesFor(wanted))) {
        const std::string why = fmt::format("no shared memory for a queue: {}", std::strerror(errno));
        return refuse(made->notify(), sender, why);
    }
    Client& client = *clients_.emplace(made->id(), std::move(made)).first->second;
    if (!client.acknowledge(isInternal_)) {  // it has given up
        clients_.erase(client.id());
        return;
    }
    watchEnd(client);
    if (!mayTell()) return;
    logClient("attached", client,
              fmt::format("client {} attached: process {} ({})", client.id(), sender.pid, client.program()));
}

// Why this one may not become a client; empty when it may.
std::string Server::objectionTo(const NotifySocket& notify, const Sender& sender) const {
    if (!notify.problem().empty()) return "the notify path " + notify.problem();
    if (!settings_.permissions.mayAttach(sender.uid, sender.gid, sender.pid))
        return "this user may not attach";
    if (pendingOf(sender.pid) >= mostPendingOfProcess)
        return "clients of this process have been acknowledged and do not attach";
    return "";
}

int Server::newId() {
    do nextId_ = nextId_ < 0x7FFFFFFF ? nextId_ + 1 : 1;
    while (clients_.count(nextId_) != 0);
    return nextId_;
}

// A process that has ended is told of once: a child of it may go on with the queue, which tick() looks after.
void Server::watchEnd(const Client& client) {
    const int pidFd = client.pidFd();
    if (pidFd < 0) return;
    loop_.add(pidFd, [this, pidFd] {
        loop_.remove(pidFd);
        reap();
    });
}

// Looks among the dead before it says no.
bool Server::hasPlace(bool isControlOnly) {
    const unsigned limit = isControlOnly ? settings_.controlClients : settings_.clients;
    if (count(isControlOnly) >= limit) reap();
    return count(isControlOnly) < limit;
}

unsigned Server::pendingOf(pid_t process) const {
    return static_cast<unsigned>(std::count_if(clients_.begin(), clients_.end(), [=](const auto& entry) {
        return entry.second->sender().pid == process && entry.second->isPending();
    }));
}

unsigned Server::count(bool controlOnly) const {
    return static_cast<unsigned>(std::count_if(clients_.begin(), clients_.end(), [=](const auto& entry) {
        return entry.second->isControlOnly() == controlOnly;
    }));
}

// The keys of a slot may be in the hands of another user, or of a server elsewhere: then the next one.
bool Server::makeQueue(Client& client, long capacity) const {
    std::bitset<NwShmMsgQueueSegment::slotLimit> taken;
    for (const auto& entry : clients_) taken.set(static_cast<std::size_t>(entry.second->slot()));
    for (std::size_t slot = 0; slot < taken.size(); ++slot) {
        if (taken[slot]) continue;
        if (client.makeQueue(port_, static_cast<int>(slot), capacity)) return true;
        if (errno != EEXIST) return false;
    }
    errno = EEXIST;
    return false;
}

void Server::refuse(NotifySocket& notify, const Sender& sender, const std::string& why) {
    ++refusedAttaches_;
    if (mayTell())
        log_.event(
            {{"event", "refused"},
             {"port", port_},
             {"pid", sender.pid},
             {"uid", sender.uid},
             {"reason", why}},
            fmt::format("port {}: process {} of user {} refused: {}", port_, sender.pid, sender.uid, why));
    notify.answer(NwCsWarningMsg(nullptr, NwCsWarningRefused, 0, why.c_str()));
}

void Server::turnAway(NotifySocket& notify, const Sender& sender) {
    ++refusedAttaches_;
    if (mayTell())
        log_.event({{"event", "quota"}, {"port", port_}, {"pid", sender.pid}},
                   fmt::format("port {}: process {} turned away: no place left", port_, sender.pid));
    notify.answer(NwCsQuotaMsg(-1));
}

// Whether a line about a client goes into the log: nobody fills it. tick() tells of those left out.
bool Server::mayTell() {
    if (linesLeft_ > 0) {
        --linesLeft_;
        return true;
    }
    ++linesLeftOut_;
    return false;
}

void Server::refuseRequest(const Sender& sender, const char* why) {
    ++refusedRequests_;
    if (!mayTell()) return;
    log_.event({{"event", "request refused"}, {"port", port_}, {"pid", sender.pid}, {"reason", why}},
               fmt::format("port {}: request of process {} refused: {}", port_, sender.pid, why));
}

Client* Server::clientOf(unsigned id, const Sender& sender) {
    const auto found = clients_.find(static_cast<int>(id));
    if (found == clients_.end()) return nullptr;  // it has gone meanwhile
    if (found->second->isOwnedBy(sender)) {
        found->second->noteAttached();
        return found->second.get();
    }
    refuseRequest(sender, "the client is another user's");
    return nullptr;
}

void Server::setFilter(const NwCsFilterMsg& request, const Sender& sender) {
    Client* client = clientOf(request.clientId(), sender);
    if (client != nullptr && !client->filter.apply(request)) warn(*client, "the filter's list is full");
}

void Server::changeGroups(const NwCsMulticastReqMsg& request, const Sender& sender) {
    Client* client = clientOf(request.clientId(), sender);
    if (client == nullptr) return;
    const NwIpv4Addr group = request.group();
    if (request.op() == NwCsMulticastLeave) {
        if (client->groups.erase(group) != 0) groups_.unwish(group);
    } else if (client->groups.size() >= mostGroupsOfClient) {
        warn(*client,
             fmt::format("cannot join {}: more than {} groups", NwInetAddrString(group), mostGroupsOfClient));
    } else if (client->groups.count(group) == 0) {
        std::set<NwIpv4Addr> wished{group};  // has its memory before the wish counts
        if (groups_.wish(group))
            client->groups.merge(wished);
        else
            warn(*client, fmt::format("cannot join {}: {}", NwInetAddrString(group), std::strerror(errno)));
    }
}

void Server::control(const NwCsControlReqMsg& request, const Sender& sender) {
    // Before it is known who asks: who died behind a request is one of those that go.
    if (concernsAllClients(request.request())) reap();
    Client* client = clientOf(request.clientId(), sender);
    if (client == nullptr) return;
    switch (request.request()) {
        case NwCsRequestExternal:
            return setInternal(*client, false);
        case NwCsRequestInternal:
            return setInternal(*client, true);
        case NwCsRequestTestClients:
        case NwCsRequestPingClients:
            return callAll(*client, request.request());
        case NwCsRequestState:
            return sendState(*client);
        case NwCsRequestClientStates:
            return sendClientStates(*client);
        case NwCsRequestTerminate:
            return askToStop(*client);
        case NwCsRequestDisconnect:
            return detach(clients_.find(client->id()), "disconnected");
        default:
            return setUnbundling(*client, request.request() == NwCsRequestUnbundlingOn);
    }
}

bool Server::mayControl(Client& asking, const char* what) {
    if (settings_.permissions.mayControl(asking.sender().uid)) return true;
    warn(asking, fmt::format("not allowed {}", what));
    return false;
}

// This takes no permission, so it is rationed: nobody fills the queues of the others with it.
void Server::callAll(Client& asking, unsigned short request) {
    if (callsLeft_ == 0) {
        ++refusedRequests_;
        return warn(asking, "too many tests and pings of all clients");
    }
    --callsLeft_;
    if (request == NwCsRequestTestClients)
        tellAll(NwCsNoticeTest);
    else
        pingAll();
}

void Server::askToStop(Client& asking) {
    if (!mayControl(asking, "to stop the server")) return;
    isAskedToStop_ = true;
    log_.event(
        {{"event", "terminate"}, {"port", port_}, {"pid", asking.sender().pid}, {"uid", asking.sender().uid}},
        fmt::format("port {}: to be stopped, as process {} of user {} asked", port_, asking.sender().pid,
                    asking.sender().uid));
}

void Server::setInternal(Client& asking, bool on) {
    if (!mayControl(asking, "to switch the server's mode") || isInternal_ == on) return;
    isInternal_ = on;
    for (const auto& entry : clients_) entry.second->writer()->queueMgr().setInternal(on);
    tellAll(on ? NwCsNoticeInternal : NwCsNoticeExternal);
    log_.event({{"event", "mode"}, {"port", port_}, {"internal", on}},
               fmt::format("port {}: {} now", port_, on ? "internal" : "external"));
}

// An ordinary client speaks for itself, a control-only one for those to come: the others hear nothing, since
// nothing changes for them.
void Server::setUnbundling(Client& asking, bool on) {
    if (!asking.isControlOnly()) {
        asking.unbundles = on;
    } else if (mayControl(asking, "to change the server's unbundling")) {
        unbundles_ = on;
        tellControlOnly(on ? NwCsNoticeUnbundlingOn : NwCsNoticeUnbundlingOff);
        log_.event({{"event", "unbundling"}, {"port", port_}, {"on", on}, {"pid", asking.sender().pid}},
                   fmt::format("port {}: unbundling {} for clients to come, as process {} asked", port_,
                               on ? "on" : "off", asking.sender().pid));
    }
}

void Server::sendState(Client& asking) {
    NwCsStateReturnRecord state{};
    state.internal = isInternal_ ? 1 : 0;
    state.unbundling = unbundles_ ? 1 : 0;
    state.port = static_cast<std::uint32_t>(port_);
    state.pid = ::getpid();
    state.interfaceAddr = settings_.interface;
    state.clients = count(false);
    state.clientLimit = settings_.clients;
    state.controlClients = count(true);
    state.controlLimit = settings_.controlClients;
    state.queueBytes = static_cast<std::uint32_t>(NwShmMsgQueueMgr::bytesFor(settings_.queueBytes) -
                                                  static_cast<long>(sizeof(NwShmMsgQueueHeader)));
    state.groups = static_cast<std::uint32_t>(groups_.count());
    state.upSeconds = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - since_).count());
    state.datagrams = socket_->datagrams();
    state.packets = packets_;
    state.kernelDropped = kernelDropped();
    state.outsideDropped = outsideDropped_;
    std::memcpy(state.serverVersion, PACKETSERVER_VERSION, sizeof PACKETSERVER_VERSION);
    NwCsStateReturnMsg answer(asking.writer(), state);
    asking.tell(answer);
}

void Server::sendClientStates(Client& asking) {
    const std::size_t answerBytes =
        clients_.size() * (sizeof(NwShmRecordHeader) + sizeof(NwCsCStateReturnRecord));
    if (answerBytes > asking.queueBytes()) {
        warn(asking, "the states of all clients do not fit this queue: ask from a control-only client");
        return;
    }
    std::uint32_t index = 0;
    for (const auto& entry : clients_) {
        NwCsCStateReturnRecord state = entry.second->state();
        state.index = index++;
        state.count = static_cast<std::uint32_t>(clients_.size());
        NwCsCStateReturnMsg answer(asking.writer(), state);
        asking.tell(answer);
    }
}

void Server::tellAll(NwCsNoticeCode code) {
    for (const auto& entry : clients_) {
        NwCsNoticeMsg notice(entry.second->writer(), static_cast<unsigned short>(code));
        entry.second->tell(notice);
    }
}

void Server::tellControlOnly(NwCsNoticeCode code) {
    for (const auto& entry : clients_) {
        if (!entry.second->isControlOnly()) continue;
        NwCsNoticeMsg notice(entry.second->writer(), static_cast<unsigned short>(code));
        entry.second->tell(notice);
    }
}

void Server::pingAll() {
    for (const auto& entry : clients_) {
        NwCsPingMsg ping(entry.second->writer());
        entry.second->tell(ping);
    }
}

void Server::warn(Client& client, const std::string& text) {
    NwCsWarningMsg warning(client.writer(), NwCsWarningRefused, 0, text.c_str());
    client.tell(warning);
}

// --- clients that go -------------------------------------------------------------------------------------

void Server::detach(Clients::iterator client, const char* how) {
    const Client& leaving = *client->second;
    if (mayTell()) logDetached(leaving, how);
    for (const NwIpv4Addr group : leaving.groups) groups_.unwish(group);
    if (leaving.pidFd() >= 0) loop_.remove(leaving.pidFd());
    if (leaving.isDead()) client->second->notify().removePath();  // it was left behind
    clients_.erase(client);
}

void Server::reap() {
    for (auto client = clients_.begin(); client != clients_.end();) {
        const auto next = std::next(client);
        if (client->second->hasGone()) detach(client, "gone");
        client = next;
    }
}

void Server::tick() {
    if (linesLeftOut_ > 0)
        log_.event({{"event", "lines left out"}, {"port", port_}, {"lines", linesLeftOut_}},
                   fmt::format("port {}: {} more lines about clients left out", port_, linesLeftOut_));
    linesLeftOut_ = 0;
    linesLeft_ = std::min(linesLeft_ + linesPerTick, linesAtOnce);
    callsLeft_ = std::min(callsLeft_ + callsPerTick, callsAtOnce);
    reap();
    publish();
}

// --- what happened ---------------------------------------------------------------------------------------

std::uint64_t Server::kernelDropped() const {
    std::uint32_t figures[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof figures;
    if (::getsockopt(socket_->readFd(), SOL_SOCKET, SO_MEMINFO, figures, &length) != 0) return 0;
    return length > SK_MEMINFO_DROPS * sizeof figures[0] ? figures[SK_MEMINFO_DROPS] : 0;
}

void Server::logClient(const char* event, const Client& client, const std::string& words) {
    log_.event({{"event", event},
                {"port", port_},
                {"client", client.id()},
                {"pid", client.sender().pid},
                {"uid", client.sender().uid},
                {"program", client.program()},
                {"controlOnly", client.isControlOnly()},
                {"delivered", client.counts().delivered},
                {"filtered", client.counts().filtered},
                {"dropped", client.counts().dropped},
                {"queueBytes", client.queueBytes()},
                {"queueHighWater", client.queueHighWater()}},
               fmt::format("port {}: {}", port_, words));
}

// Costs the line alone when there is no memory for it: the client is let go, and a stop goes on.
void Server::logDetached(const Client& client, const char* how) {
    const Client::Counts& counts = client.counts();
    try {
        logClient("detached", client,
                  fmt::format("client {} {}: {} delivered, {} filtered, {} dropped", client.id(), how,
                              counts.delivered, counts.filtered, counts.dropped));
    } catch (const std::bad_alloc&) {
        log_.outOfMemory();
    }
}

void Server::logStatistics() {
    log_.event({{"event", "statistics"},
                {"port", port_},
                {"clients", count(false)},
                {"datagrams", socket_->datagrams()},
                {"packets", packets_},
                {"kernelDropped", kernelDropped()},
                {"outsideDropped", outsideDropped_},
                {"requestsRefused", refusedRequests_},
                {"attachesRefused", refusedAttaches_}},
               fmt::format("port {}: {} clients, {} datagrams, {} packets, {} dropped by the kernel, {} of "
                           "other hosts dropped, {} requests and {} attaches refused",
                           port_, count(false), socket_->datagrams(), packets_, kernelDropped(),
                           outsideDropped_, refusedRequests_, refusedAttaches_));
    for (const auto& entry : clients_) {
        const Client& client = *entry.second;
        logClient(
            "client statistics", client,
            fmt::format("client {} ({}): {} delivered, {} filtered, {} dropped, queue at most {} of {} bytes",
                        client.id(), client.program(), client.counts().delivered, client.counts().filtered,
                        client.counts().dropped, client.queueHighWater(), client.queueBytes()));
    }
}

}  // namespace packetserver
