// SPDX-License-Identifier: BSD-3-Clause
// Packets come one by one from a socket that does not block; when there are none, the tool waits for the
// descriptor, for Ctrl-C, or for the next thing that is due.
#include "recv.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <cvNetworkCompatibility/cvAsyncSocket.h>

#include "address.h"
#include "capture_source.h"
#include "capture_writer.h"
#include "failure.h"
#include "json_line.h"
#include "kernel_drops.h"
#include "library.h"
#include "options.h"
#include "output.h"
#include "port_owner.h"
#include "receiving_socket.h"
#include "server_client.h"
#include "server_socket.h"
#include "stop_signal.h"
#include "stream_format.h"
#include "stream_socket.h"
#include "tally.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr double kMaxSeconds = 1e9;
constexpr auto kRedrawPeriod = std::chrono::milliseconds(500);
constexpr auto kHintAfter = std::chrono::seconds(5);
// How often the queue of an asynchronous socket is looked at while it is empty.
constexpr auto kQueuePeriod = std::chrono::milliseconds(5);
// For a peer that does not close.
constexpr auto kLastWait = std::chrono::seconds(1);
constexpr auto kLastWaitAsSender = std::chrono::seconds(5);
constexpr const char* kHeaderTestOption = "--no-header-test";

struct RecvOptions {
    PortOption port;
    std::vector<std::string> groups;
    std::string bind;
    InterfaceOption interface;
    FilterOptions filters;
    bool noHeaderTest = false;
    bool async = false;
    bool isServer = false;
    bool isAuto = false;
    RunDirOption runDir;  // with either
    bool keepsBundles = false;
    std::optional<std::string> tcp;  // HOST:PORT
    StreamFormat format;             // with --tcp
    std::string send;                // a capture, with --tcp
    bool summary = false;
    std::string write;
    int rcvbufBytes = 0;
    double idleSeconds = 0.0;
    LimitOptions limits;
    ReportOptions report;
};

// What the addresses on the command line come to.
struct Place {
    explicit Place(const RecvOptions& options);

    std::vector<NwIpv4Addr> groups;
    NwIpv4Addr bindTo = 0;
    NwIpv4Addr device = 0;

    NwIpv4Addr constructorAddress() const {
        return bindTo != 0 ? bindTo : groups.empty() ? 0 : groups.front();
    }
    std::string text() const;
    /// The interface that groups are joined on where the tool joins them itself. Throws Failure.
    void chooseDevice();
};

Place::Place(const RecvOptions& options) : groups(addressesFromTexts(options.groups, "--group")) {
    for (NwIpv4Addr group : groups) {
        if (!NwIsMulticastAddr(group)) {
            throw UsageFailure(fmt::format(
                "--group: {} is no multicast address (224.0.0.0 to 239.255.255.255)", addressText(group)));
        }
    }
    if (!options.bind.empty()) bindTo = addressFromText(options.bind, "--bind");
    const bool sameGroup = groups.empty() || (groups.size() == 1 && groups.front() == bindTo);
    if (bindTo != 0 && !sameGroup) {
        throw UsageFailure(
            fmt::format("--bind {} keeps out what is sent to other addresses, so --group has to be that "
                        "one address or be left out",
                        addressText(bindTo)));
    }
    if (bindTo != 0 && groups.empty() && NwIsMulticastAddr(bindTo)) groups.push_back(bindTo);
    device = options.interface.address();
}

void Place::chooseDevice() {
    if (device == 0 && !groups.empty()) device = NwFirstHostInetAddr();
    if (device == 0 && !groups.empty()) {
        throw Failure(
            fmt::format("no interface can broadcast, so there is no default one to join {} on: name one with "
                        "--interface (on this host: --interface lo)",
                        addressText(groups.front())));
    }
}

std::string Place::text() const {
    std::string text;
    if (bindTo != 0) text += fmt::format(", bound to {}", addressText(bindTo));
    for (NwIpv4Addr group : groups) text += fmt::format(", group {}", addressText(group));
    if (device != 0 && !groups.empty()) text += fmt::format(" on {}", addressText(device));
    return text;
}

unsigned boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    return ntohs(address.sin_port);
}

void setReceiveBuffer(NwNetSocket& socket, int wantedBytes) {
    if (wantedBytes == 0) return;
    if (socket.setReceiveBufferSize(wantedBytes) != 0) {
        const int error = errno;
        throw Failure(fmt::format("--rcvbuf {}: {}", wantedBytes, errorText(error)));
    }
    int granted = 0;
    socklen_t length = sizeof granted;
    if (::getsockopt(socket.readFd(), SOL_SOCKET, SO_RCVBUF, &granted, &length) != 0) return;
    granted /=
        2;  // the kernel doubles what is asked for, to pay for its own bookkeeping, and tells the double
    if (granted < wantedBytes) {
        warningLine(fmt::format(
            "the kernel granted a receive buffer of {} bytes, not {} (see sysctl net.core.rmem_max)", granted,
            wantedBytes));
    }
}

// All but the one that the construction has joined (0: none).
void joinGroups(NwNetSocket& socket, const Place& place, NwIpv4Addr joined) {
    for (NwIpv4Addr group : place.groups) {
        if (group == joined) continue;
        if (socket.listenToMulticastGroup(group, place.device) != 1) {
            throw Failure(fmt::format("cannot join {} on {}: {}", addressText(group),
                                      addressText(place.device), takeLibraryReason("refused")));
        }
    }
}

void warnOfOwner(int port, const PortOwner& owner) {
    warningLine(fmt::format("port {} is already open in {}: a unicast datagram reaches only one of them",
                            port, portOwnerText(owner)));
}

int portToOpen(const RecvOptions& options) {
    return options.port.port != 0 ? options.port.port : freeUdpPort();
}

std::unique_ptr<NwNetSocket> openUdp(const RecvOptions& options, Place& place, ReceiveCounts& counts) {
    place.chooseDevice();
    const auto owner = options.port.port == 0
                           ? std::nullopt
                           : portOwner(static_cast<unsigned>(options.port.port), place.bindTo);
    int modeBits = NwNetSocketRead | NwNetSocketQuietStart;
    if (place.bindTo != 0) modeBits |= NwNetSocketBindToDest;
    takeLibraryWarning();
    const auto mode = static_cast<unsigned char>(modeBits);
    const NwIpv4Addr address = place.constructorAddress();
    std::unique_ptr<NwNetSocket> socket;
    if (options.async) {
        socket = std::make_unique<NwAsyncNetSocket>(portToOpen(options), address, mode, place.device);
    } else {
        socket = std::make_unique<ReceivingSocket>(portToOpen(options), address, mode, place.device, counts);
    }
    if (!socket->isOk()) {
        throw Failure(fmt::format("cannot listen on port {}{}: {}{}", options.port.port,
                                  place.bindTo != 0 ? " of " + addressText(place.bindTo) : "",
                                  takeLibraryReason("refused"),
                                  owner ? ", it is open in " + portOwnerText(*owner) : ""));
    }
    // Joining the first group is part of the construction, which does not report it.
    if (!place.groups.empty()) {
        const std::string warning = takeLibraryWarning();
        if (!warning.empty())
            throw Failure(fmt::format("cannot join {}: {}", addressText(place.groups.front()), warning));
    }
    joinGroups(*socket, place, address);
    if (owner) warnOfOwner(options.port.port, *owner);
    setReceiveBuffer(*socket, options.rcvbufBytes);
    if (options.noHeaderTest) socket->enableDisHeaderTest(false);
    socket->NwBecomeNonBlocking();
    return socket;
}

// What the library makes of the port by itself: a client of its packet server, or a UDP socket, which is to
// take any address (it is made for sending too, to loopback, and sends nothing here).
SocketPtr<NwSocket> openDefault(const RecvOptions& options, Place& place) {
    const auto owner = portOwner(static_cast<unsigned>(options.port.port), 0);
    SocketPtr<NwSocket> socket = openDefaultSocket(portToOpen(options), loopbackAddr, options.async);
    if (auto* const udp = dynamic_cast<NwNetSocket*>(socket.get())) {
        place.chooseDevice();
        joinGroups(*udp, place, 0);
        if (owner) warnOfOwner(options.port.port, *owner);
        if (options.noHeaderTest) udp->enableDisHeaderTest(false);
    }
    return socket;
}

// Where packets from a source were sent to, as far as a receiver can know.
class Destinations {
public:
    explicit Destinations(const Place& place) {
        // Bound to an address, or with one group, that is it (a group's host may get unicast too, rarely).
        if (place.bindTo != 0) only_ = place.bindTo;
        if (place.groups.size() == 1) only_ = place.groups.front();
    }

    NwIpv4Addr of(NwIpv4Addr source) {
        if (only_ != 0) return only_;
        if (known_.size() == kMaxKnown) known_.clear();
        const auto [entry, isNew] = known_.emplace(source, 0);
        if (isNew) entry->second = localAddressTowards(source);
        return entry->second;
    }

private:
    static constexpr std::size_t kMaxKnown = 1000;

    NwIpv4Addr only_ = 0;
    std::map<NwIpv4Addr, NwIpv4Addr> known_;
};

// One run: receives, tells, saves, and knows when it is over.
class Receiver {
public:
    Receiver(const RecvOptions& options, Output& out);

    void announce();
    void receiveAll();
    void printTotals();

private:
    using Seconds = std::chrono::duration<double>;

    void openSocket();
    void attachToServer(NwClientSocket& client);
    void announceStream();
    void advanceSource();
    Clock::time_point sendDue() const;
    void sendOwn(Clock::time_point now);
    void finishStream();
    bool receiveOne();
    void countOne();
    void countQueued();
    void deliver(const PduView& packet);
    void save(const PduView& packet);
    std::string lineOf(const PduView& packet) const;
    std::string oddText(const PduView& packet) const;
    std::string jsonOf(const PduView& packet) const;

    bool isOver(Clock::time_point now) const;
    void doWhatIsDue(Clock::time_point now);
    std::optional<Clock::time_point> nextEvent() const;
    void idle();
    void showHint();
    void drawSummary();

    bool showsLines() const { return !options_.summary && !options_.report.quiet; }
    bool drawsSummary() const {
        return options_.summary && out_.isTerminal() && !options_.report.json && !options_.report.quiet;
    }
    double activeSeconds() const {
        return datagramsSeen_ == 0 ? 0.0 : Seconds(lastArrival_ - firstArrival_).count();
    }
    unsigned port() const;
    std::string totalsText() const;
    std::string oddTotalsText() const;
    std::string totalsJson() const;
    static Clock::duration duration(double seconds) {
        return std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    }

    const RecvOptions& options_;
    Output& out_;
    Filters filters_;
    Place place_;
    std::unique_ptr<CaptureWriter> writer_;
    ReceiveCounts counts_;
    SocketPtr<NwSocket> socket_;
    NwNetSocket* udp_ = nullptr;             // that socket, or
    ReceivingStream* stream_ = nullptr;      // with --tcp, or
    std::optional<ServerClient> server_;     // what there is beside it as a client of a packet server
    bool isCounting_ = false;                // the socket fills counts_ by itself
    bool isQueue_ = false;                   // filled by a thread: the descriptor is not the tool's to watch
    std::unique_ptr<CaptureSource> source_;  // with --send, until everything is sent
    Destinations destinations_;
    Tally tally_;
    std::uint64_t refused_ = 0;
    std::uint64_t own_ = 0;      // that came back
    std::uint64_t sent_ = 0;     // with --send
    std::uint64_t unsaved_ = 0;  // longer than any datagram, which a capture cannot hold
    std::uint64_t datagramsSeen_ = 0;

    Clock::time_point start_ = Clock::now();
    Clock::time_point lastHeard_ = start_;  // for --idle
    Clock::time_point firstArrival_ = start_;
    Clock::time_point lastArrival_ = start_;
    Clock::time_point redrawDue_ = start_;
    bool hintShown_ = false;
};

Receiver::Receiver(const RecvOptions& options, Output& out)
    : options_(options), out_(out), filters_(options.filters), place_(options), destinations_(place_) {
    openSocket();
    // Not before: a file that is there is emptied by this.
    if (!options_.write.empty()) writer_ = std::make_unique<CaptureWriter>(options_.write);
    applyFilter(socket_->protocolVersion(), filters_.version);
    applyFilter(socket_->exerciseId(), filters_.exercise);
    applyFilter(socket_->pduKind(), filters_.type);
    applyFilter(socket_->ipAddr(), filters_.from);
    if (options_.keepsBundles) socket_->setUnbundling(0);
    if (server_) server_->settle();  // with these filters from the first packet on
}

void Receiver::openSocket() {
    isCounting_ = !options_.async && !options_.isAuto;
    if (options_.tcp) {
        if (!options_.send.empty()) source_ = std::make_unique<CaptureSource>(options_.send, 1);
        socket_.reset(
            new ReceivingStream(endpointFromText(*options_.tcp, "--tcp"), options_.format, counts_));
    } else if (options_.isServer) {
        socket_ = cvnet::attachToServer(options_.port.port, loopbackAddr, NwClientSocket::defaultFlags);
    } else if (options_.isAuto) {
        socket_ = openDefault(options_, place_);
    } else {
        socket_.reset(openUdp(options_, place_, counts_).release());
    }
    stream_ = dynamic_cast<ReceivingStream*>(socket_.get());
    udp_ = dynamic_cast<NwNetSocket*>(socket_.get());
    isQueue_ = dynamic_cast<NwAsyncNetSocket*>(udp_) != nullptr;
    if (auto* const client = dynamic_cast<NwClientSocket*>(socket_.get())) attachToServer(*client);
}

void Receiver::attachToServer(NwClientSocket& client) {
    server_.emplace(client, options_.port.port, options_.report, out_);
    for (NwIpv4Addr group : place_.groups) client.listenToMulticastGroup(group);
}

unsigned Receiver::port() const {
    return server_ ? static_cast<unsigned>(options_.port.port) : boundPort(socket_->readFd());
}

void Receiver::announce() {
    if (stream_) return announceStream();
    if (options_.report.json) {
        nlohmann::ordered_json groups = nlohmann::ordered_json::array();
        for (NwIpv4Addr group : place_.groups) groups.push_back(addressText(group));
        nlohmann::ordered_json line = {{"event", "listening"},
                                       {"port", port()},
                                       {"bind", addressText(place_.bindTo)},
                                       {"groups", groups}};
        if (server_) line["client"] = server_->id();
        out_.line(jsonLine(line));
    } else {
        const std::string how =
            server_ ? fmt::format(" as client {} of its packet server", server_->id()) : "";
        out_.line(fmt::format("listening on port {}{}{}", port(), how, place_.text()));
    }
    out_.flush();
    start_ = lastHeard_ = redrawDue_ = Clock::now();
}

void Receiver::announceStream() {
    const Endpoint& peer = stream_->peer();
    if (options_.report.json) {
        out_.line(jsonLine({{"event", "connected"},
                            {"address", addressText(peer.addrHostOrder)},
                            {"port", peer.port},
                            {"localPort", boundPort(socket_->readFd())}}));
    } else {
        out_.line("connected to " + peer.text());
    }
    out_.flush();
    start_ = lastHeard_ = redrawDue_ = Clock::now();
    if (source_) advanceSource();
}

void Receiver::advanceSource() {
    if (!source_->advance()) source_.reset();
}

Clock::time_point Receiver::sendDue() const {
    return start_ + duration(source_->dueSeconds());
}

// Whatever is due, as long as the peer takes it.
void Receiver::sendOwn(Clock::time_point now) {
    while (source_ && !stream_->hasQueue() && now >= sendDue()) {
        const Packet packet = source_->packet();
        if (options_.format.holds(packet.bytes, packet.lengthBytes)) {
            stream_->NwSend(packet.bytes, packet.lengthBytes, NwUSE_DEFAULT_IP_ADDR);
            stream_->checkIsOk();
            ++sent_;
        }
        advanceSource();
    }
}

void Receiver::receiveAll() {
    for (Clock::time_point now = Clock::now(); !isOver(now); now = Clock::now()) {
        doWhatIsDue(now);
        if (!receiveOne()) idle();
    }
    out_.flush();
    if (writer_) writer_->flush();
    if (stream_) finishStream();
    if (server_) server_->finish();
}

void Receiver::finishStream() {
    while (stream_->hasQueue() && !StopSignal::raised()) {
        stream_->waitAndFlush(std::nullopt);
        stream_->discardIncoming();
    }
    const std::string reason = stream_->finish(sent_ != 0 ? kLastWaitAsSender : kLastWait);
    if (!reason.empty() && sent_ != 0)
        throw Failure(fmt::format("{} has not taken everything: {}", stream_->peer().text(), reason));
}

// Receives until a packet has been looked at, delivered or refused; false when there is none.
bool Receiver::receiveOne() {
    char* bytes = nullptr;
    int status = 0;
    const int length = socket_->NwRecv(&bytes, &status);
    if (server_) {
        server_->look(status);
        if (status == -1) return true;
        if (status == 1) countOne();
    } else if (!isCounting_) {
        countQueued();
    }
    if (counts_.datagrams != datagramsSeen_) {
        lastHeard_ = lastArrival_ = Clock::now();
        if (datagramsSeen_ == 0) firstArrival_ = lastArrival_;
        datagramsSeen_ = counts_.datagrams;
    }
    if (status == -2) {
        ++refused_;
        return true;
    }
    if (status == -3) {
        ++own_;
        return true;
    }
    if (stream_ && status != 1) stream_->checkIsOk();
    if (status != 1) return udp_ && udp_->dataLeftInCurrentBundle();
    deliver(PduView(bytes, static_cast<std::size_t>(length)));
    return true;
}

void Receiver::countOne() {
    ++counts_.datagrams;
    ::clock_gettime(CLOCK_REALTIME, &counts_.arrival);
}

// What any application can know of a socket that is not of the tool's own kind.
void Receiver::countQueued() {
    const auto delivered = static_cast<unsigned>(socket_->NwReportPktsRcvd());
    const unsigned more =
        delivered - static_cast<unsigned>(counts_.datagrams);  // the library's count may wrap
    if (more == 0) return;
    counts_.datagrams += more;
    ::clock_gettime(CLOCK_REALTIME, &counts_.arrival);
}

void Receiver::deliver(const PduView& packet) {
    tally_.add(packet, udp_ ? counts_.datagrams : Tally::kNoDatagram,
               {socket_->lastSourceInetAddr(), counts_.sourcePort});
    if (writer_) save(packet);
    if (!showsLines()) return;
    out_.line(options_.report.json ? jsonOf(packet) : lineOf(packet));
}

void Receiver::save(const PduView& packet) {
    if (packet.lengthBytes() > kMaxPayload) {
        ++unsaved_;
        return;
    }
    UdpDatagram datagram;
    datagram.sourceHostOrder = socket_->lastSourceInetAddr();
    datagram.sourcePort = counts_.sourcePort;
    datagram.destinationHostOrder = destinations_.of(datagram.sourceHostOrder);
    datagram.destinationPort = port();
    datagram.payload = Bytes{packet.bytes(), packet.lengthBytes()};
    writer_->write(datagram, counts_.arrival);
}

std::string Receiver::lineOf(const PduView& packet) const {
    std::string line =
        fmt::format("{} {:<21} DIS {} exercise {:<3} {:<30} {:>5} bytes",
                    timeOfDayText(counts_.arrival.tv_sec, counts_.arrival.tv_nsec),
                    endpointText(socket_->lastSourceInetAddr(), counts_.sourcePort), packet.version(),
                    packet.exercise(), pduTypeText(packet.type()), packet.lengthBytes());
    if (const auto id = packet.entity()) line += " entity " + entityText(*id);
    const std::string odd = oddText(packet);
    return odd.empty() ? line : line + " " + out_.styled(33, odd);
}

std::string Receiver::oddText(const PduView& packet) const {
    switch (kindOf(packet)) {
        case PacketKind::wholePdu:
            return "";
        case PacketKind::cutPdu:
            return fmt::format("CUT: its length field says {}", packet.declaredLength());
        case PacketKind::undividedRest:
            break;
    }
    const std::string rest = fmt::format("UNDIVIDED REST: its length field says {}", packet.declaredLength());
    return options_.noHeaderTest || options_.keepsBundles || !udp_
               ? rest
               : fmt::format("{}; {} splits by the length fields alone", rest, kHeaderTestOption);
}

std::string Receiver::jsonOf(const PduView& packet) const {
    nlohmann::ordered_json json = {
        {"event", "pdu"},
        {"time", secondsSince1970(counts_.arrival)},
        {"source", addressText(socket_->lastSourceInetAddr())},
        {"port", counts_.sourcePort != 0 ? nlohmann::ordered_json(counts_.sourcePort)
                                         : nlohmann::ordered_json(nullptr)},
        {"version", packet.version()},
        {"exercise", packet.exercise()},
        {"type", packet.type()},
        {"typeName", pduTypeName(packet.type())},
        {"length", packet.lengthBytes()}};
    if (const auto id = packet.entity()) {
        json["entity"] = {{"site", id->site}, {"application", id->application}, {"entity", id->entity}};
    }
    const PacketKind kind = kindOf(packet);
    if (kind != PacketKind::wholePdu) {
        json["odd"] = kind == PacketKind::cutPdu ? "cut" : "undivided";
        json["declaredLength"] = packet.declaredLength();
    }
    return jsonLine(json);
}

bool Receiver::isOver(Clock::time_point now) const {
    return StopSignal::raised() || out_.closed() ||
           (options_.limits.count != 0 && tally_.total().pdus >= options_.limits.count) ||
           (options_.limits.seconds > 0.0 && now - start_ >= duration(options_.limits.seconds)) ||
           (options_.idleSeconds > 0.0 && now - lastHeard_ >= duration(options_.idleSeconds));
}

std::optional<Clock::time_point> Receiver::nextEvent() const {
    Clock::time_point next = Clock::time_point::max();
    if (options_.limits.seconds > 0.0) next = std::min(next, start_ + duration(options_.limits.seconds));
    if (options_.idleSeconds > 0.0) next = std::min(next, lastHeard_ + duration(options_.idleSeconds));
    if (drawsSummary()) next = std::min(next, redrawDue_);
    if (out_.isTerminal() && !hintShown_) next = std::min(next, start_ + kHintAfter);
    if (source_ && !stream_->hasQueue()) next = std::min(next, sendDue());
    if (next == Clock::time_point::max()) return std::nullopt;
    return next;
}

void Receiver::doWhatIsDue(Clock::time_point now) {
    if (source_) sendOwn(now);
    if (drawsSummary() && now >= redrawDue_) {
        drawSummary();
        redrawDue_ = now + kRedrawPeriod;
    }
    if (out_.isTerminal() && !hintShown_ && now >= start_ + kHintAfter) showHint();
}

// Nothing is waiting in the socket: everything collected goes out before the wait.
void Receiver::idle() {
    if (writer_) writer_->flush();
    out_.flush();
    if (stream_ || server_) {
        if (stream_) stream_->waitAndFlush(nextEvent());
        if (server_) server_->wait(nextEvent());
        out_.lookForReader();
        return;
    }
    // The descriptor of an asynchronous socket is its worker's: the queue is looked at instead.
    const bool mayWait = !isQueue_;
    const std::optional<Clock::time_point> until = mayWait ? nextEvent() : Clock::now() + kQueuePeriod;
    if (!StopSignal::wait(mayWait ? socket_->readFd() : -1, until)) out_.lookForReader();
}

void Receiver::showHint() {
    hintShown_ = true;
    if (datagramsSeen_ != 0) return;
    out_.erase();  // the hint stands above the live table, which is drawn anew below it
    out_.flush();
    redrawDue_ = Clock::now();
    if (stream_) {
        errorLine(fmt::format("nothing has come for {} s. Does anyone send to {}?", kHintAfter.count(),
                              stream_->peer().text()));
        return;
    }
    if (server_) {
        errorLine(
            fmt::format("nothing has come for {} s. `cvnet server clients --port {}` tells what the server "
                        "hands over and "
                        "keeps back, `cvnet server status --port {}` what reaches the port",
                        kHintAfter.count(), port(), port()));
        return;
    }
    errorLine(fmt::format(
        "nothing has come for {} s. Does the sender use port {} and the interface that this host listens "
        "on{}? Does a firewall drop UDP here?",
        kHintAfter.count(), port(),
        place_.groups.empty() ? " (groups need --group)" : " and the same group"));
}

void Receiver::drawSummary() {
    std::string odd = oddTotalsText();
    const std::size_t drops = odd.rfind("; ");  // what the kernel dropped must not be cut off on the right
    if (drops != std::string::npos) odd.replace(drops, 2, "\n");
    out_.draw(totalsText() + "\n" + odd + "\n" + tally_.fullTable(activeSeconds()));
}

std::string Receiver::totalsText() const {
    const Count& total = tally_.total();
    std::string text = "received " + tally_.packetsText();
    if (udp_) text += " in " + counted(total.datagrams, "datagram");
    if (total.datagrams != 0) {
        text += fmt::format(" ({:.2f} a datagram)",
                            static_cast<double>(total.pdus) / static_cast<double>(total.datagrams));
    }
    return text + fmt::format(", {} from {} in {:.1f} s", counted(total.bytes, "byte"),
                              counted(tally_.sourceCount(), "source"), activeSeconds());
}

std::string Receiver::oddTotalsText() const {
    // What a server keeps back it tells at the end, if it can.
    const std::optional<std::uint64_t> refused = server_ ? server_->filtered() : refused_;
    std::string text = refused ? fmt::format("refused by filters: {}; ", *refused) : "";
    text += fmt::format("undivided rests: {}; cut: {}; ", tally_.rests().pdus, tally_.cut().pdus);
    if (server_) return text + fmt::format("dropped for this client: {}", server_->dropped());
    if (counts_.tooShort) {
        text += fmt::format("too short: {}; mixed bundles: {}; ", *counts_.tooShort + *counts_.empty,
                            *counts_.mixed);
    }
    if (stream_) {
        text.resize(text.size() - 2);
        if (!options_.send.empty()) text += fmt::format("; sent: {}; own that came back: {}", sent_, own_);
        if (unsaved_ != 0) text += fmt::format("; too long to be saved: {}", unsaved_);
        return text;
    }
    return text + kernelDropsText(kernelDrops(socket_->readFd()));
}

nlohmann::ordered_json numberOrNull(const std::optional<std::uint64_t>& number) {
    return number ? nlohmann::ordered_json(*number) : nlohmann::ordered_json(nullptr);
}

std::string Receiver::totalsJson() const {
    nlohmann::ordered_json json = {
        {"event", "totals"},
        {"pdus", tally_.wholePdus()},
        {"datagrams", tally_.total().datagrams},
        {"bytes", tally_.total().bytes},
        {"seconds", activeSeconds()},
        {"datagramsRead", counts_.datagrams},
        {"refused", server_ ? numberOrNull(server_->filtered()) : nlohmann::ordered_json(refused_)},
        {"undivided", tally_.rests().pdus},
        {"cut", tally_.cut().pdus},
        {"tooShort", numberOrNull(counts_.tooShort)},
        {"empty", numberOrNull(counts_.empty)},
        {"mixedBundles", numberOrNull(counts_.mixed)},
        {"kernelDrops", nullptr},
        {"types", tally_.typesJson()},
        {"exercises", tally_.exercisesJson()},
        {"sources", tally_.sourcesJson()}};
    if (!udp_) json["datagrams"] = json["datagramsRead"] = nullptr;
    if (server_) {
        json["clientDropped"] = server_->dropped();
        return jsonLine(json);
    }
    if (stream_) {
        json["sent"] = sent_;
        json["own"] = own_;
        json["unsaved"] = unsaved_;
        return jsonLine(json);
    }
    if (const auto drops = kernelDrops(socket_->readFd())) json["kernelDrops"] = *drops;
    return jsonLine(json);
}

void Receiver::printTotals() {
    out_.erase();
    if (options_.report.json) {
        out_.line(totalsJson());
    } else {
        if (options_.summary) {
            std::string table = tally_.fullTable(activeSeconds());
            table.pop_back();  // its last end of line
            out_.line(table);
        }
        out_.line(out_.styled(1, totalsText()));
        out_.line(oddTotalsText());
        if (!options_.noHeaderTest && !options_.keepsBundles && udp_ &&
            (counts_.mixed.value_or(0) != 0 || tally_.rests().pdus != 0)) {
            out_.line(
                fmt::format("hint: {} splits datagrams by the length fields alone, also where versions or "
                            "exercises are mixed",
                            kHeaderTestOption));
        }
    }
    out_.flush();
}

class RecvCommand : public Command {
public:
    const char* name() const override { return "recv"; }
    const char* purpose() const override { return "Receive packets and show, count or save them"; }
    void addOptions(CLI::App& app) override;
    int run() override;

private:
    RecvOptions options_;
};

void RecvCommand::addOptions(CLI::App& app) {
    options_.port.declareListening(app, "UDP");
    app.add_option("--group", options_.groups, "Join these multicast groups")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("ADDRESS,...");
    app.add_option("--bind", options_.bind, "Take only what is sent to this address")->type_name("ADDRESS");
    options_.interface.declare(app, "Interface to join groups on");
    options_.filters.declare(app);
    app.add_flag("--async", options_.async, "Let a thread of the library's do the receiving");
    CLI::Option* server = app.add_flag("--server", options_.isServer,
                                       "Receive as a client of the packet server that owns the port");
    CLI::Option* automatic =
        app.add_flag("--auto", options_.isAuto, "The same if a packet server owns the port, else open it")
            ->excludes(server);
    app.add_flag("--no-unbundle", options_.keepsBundles,
                 "With --server or --auto: take datagrams whole, filtered by their first packet");
    CLI::Option* tcp =
        app.add_option("--tcp", options_.tcp,
                       "Receive over a TCP connection to a relay (cvnet relay), instead of UDP")
            ->type_name("HOST:PORT");
    options_.format.declare(app, tcp);
    app.add_option("--send", options_.send,
                   "Meanwhile send this capture over the connection, and leave out what comes back of it")
        ->type_name("FILE")
        ->needs(tcp);
    app.add_flag(kHeaderTestOption, options_.noHeaderTest,
                 "Split bundles by the length fields alone, also where versions or exercises are mixed");
    app.add_flag("--summary", options_.summary, "Show a table by type, exercise and source, no line per PDU");
    app.add_option("--write", options_.write, "Save what is delivered as a capture (pcap)")
        ->type_name("FILE");
    app.add_option("--rcvbuf", options_.rcvbufBytes, "Ask for a receive buffer of BYTES")
        ->check(range(1, std::numeric_limits<int>::max()))
        ->type_name("BYTES");
    app.add_option("--idle", options_.idleSeconds, "Stop when no datagram has come for S seconds")
        ->type_name("S");
    for (const char* udpOnly :
         {"--port", "--group", "--bind", "--interface", "--from", "--async", kHeaderTestOption, "--rcvbuf"})
        tcp->excludes(app.get_option(udpOnly));
    for (const char* own : {"--tcp", "--bind", "--interface", "--rcvbuf"}) {
        server->excludes(app.get_option(own));
        automatic->excludes(app.get_option(own));
    }
    for (const char* done : {"--async", kHeaderTestOption}) server->excludes(app.get_option(done));
    options_.runDir.declare(app);
    options_.limits.declare(app, "packets");
    options_.report.declare(app);
    app.footer(
        "Examples:\n"
        "  cvnet recv --port 3000 --exercise 1,2 --type '!Data'\n"
        "  cvnet recv --group 239.1.2.3 --interface eth0 --summary\n"
        "  cvnet recv --tcp relay.example:3000 --summary\n"
        "  cvnet recv --server --type 'Entity State'\n"
        "  cvnet recv --json --seconds 10 --write seen.pcap");
}

int RecvCommand::run() {
    checkRange("--seconds", options_.limits.seconds, 0.0, kMaxSeconds);
    checkRange("--idle", options_.idleSeconds, 0.0, kMaxSeconds);
    options_.format.check();
    if (options_.isServer && options_.port.port == 0)
        throw UsageFailure("--server: --port says which server, and none has port 0");
    const bool isClient = options_.isServer || options_.isAuto;
    if (options_.keepsBundles && !isClient) throw UsageFailure("--no-unbundle goes with --server or --auto");
    if (!options_.runDir.directory.empty() && !isClient)
        throw UsageFailure("--run-dir goes with --server or --auto");
    options_.runDir.apply();
    Output out;
    Receiver receiver(options_, out);
    receiver.announce();
    try {
        receiver.receiveAll();
    } catch (const Failure&) {
        receiver.printTotals();
        throw;
    }
    receiver.printTotals();
    return kExitOk;
}

}  // namespace

std::unique_ptr<Command> makeRecvCommand() {
    return std::make_unique<RecvCommand>();
}

}  // namespace cvnet
