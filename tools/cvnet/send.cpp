// SPDX-License-Identifier: BSD-3-Clause
// Packets from a source go, when they are due, through one socket of the library; bundling, flushing and
// retrying are the library's work.
#include "send.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <cvNetworkCompatibility/cvGroupSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>

#include "address.h"
#include "capture_source.h"
#include "failure.h"
#include "json_line.h"
#include "library.h"
#include "options.h"
#include "output.h"
#include "port_owner.h"
#include "sending_socket.h"
#include "server_client.h"
#include "server_socket.h"
#include "stop_signal.h"
#include "stream_format.h"
#include "stream_socket.h"
#include "synthetic_source.h"
#include "tally.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr unsigned char kWriteQuietly = NwNetSocketWrite | NwNetSocketQuietStart;
constexpr int kMaxTtl = 255;
constexpr double kLeastSpeed = 1e-6;
constexpr double kMaxSpeed = 1e6;
constexpr double kLeastRate = 1e-6;
constexpr double kMaxRate = 1e9;
constexpr double kMaxFlushMs = 1e6;
constexpr double kMaxSeconds = 1e9;
// Half of what IEEE 1278.1 allows closely coupled simulations for the whole way (100 ms).
constexpr double kDefaultFlushMs = 50.0;
constexpr double kRetryPeriodSeconds = 0.001;
// For a peer that has taken everything and does not close.
constexpr auto kLastWait = std::chrono::seconds(5);
constexpr auto kProgressPeriod = std::chrono::milliseconds(500);

struct SendOptions {
    std::string pcap;
    int synthetic = 0;  // entities
    int exercise = 1;
    double speed = 1.0;
    double rate = 0.0;  // 0: the source's own speed
    bool fast = false;
    std::uint64_t loop = 1;
    std::string to;
    std::vector<std::string> sites;
    bool async = false;
    bool isServer = false;
    bool isAuto = false;
    RunDirOption runDir;             // with either
    std::optional<std::string> tcp;  // HOST:PORT
    StreamFormat format;             // with --tcp
    PortOption port;
    int bundleBytes = 0;
    double flushMs = kDefaultFlushMs;
    int ttl = -1;
    InterfaceOption interface;
    int retries = 0;
    LimitOptions limits;
    ReportOptions report;
};

// An open socket of whichever class the options ask for, its counts, and where it sends to.
struct Transport {
    std::unique_ptr<NwSocket> socket;
    DatagramCounts* counts = nullptr;  // of that socket
    HeldSocket* queue = nullptr;       // that socket, where a thread sends
    SendingStream* stream = nullptr;   // that socket, with --tcp
    NwClientSocket* client = nullptr;  // what that socket holds, as a client of a packet server
    unsigned port = 0;
    std::vector<NwIpv4Addr> destinations;
};

std::unique_ptr<PacketSource> openSource(const SendOptions& options) {
    if (!options.pcap.empty()) return std::make_unique<CaptureSource>(options.pcap, options.loop);
    return std::make_unique<SyntheticSource>(static_cast<unsigned>(options.synthetic),
                                             static_cast<unsigned>(options.exercise));
}

void checkOptions(const SendOptions& options) {
    if (options.pcap.empty() == (options.synthetic == 0)) {
        throw UsageFailure("give --pcap FILE or --synthetic N (one of them)");
    }
    if (options.bundleBytes != 0) checkRange("--bundle", options.bundleBytes, kPduHeaderSize, kMaxPayload);
    // The checks while parsing let "nan" pass.
    checkRange("--speed", options.speed, kLeastSpeed, kMaxSpeed);
    if (options.rate != 0.0) checkRange("--rate", options.rate, kLeastRate, kMaxRate);
    checkRange("--flush-ms", options.flushMs, 0.0, kMaxFlushMs);
    checkRange("--seconds", options.limits.seconds, 0.0, kMaxSeconds);
    options.format.check();
    if (!options.runDir.directory.empty() && !options.isServer && !options.isAuto)
        throw UsageFailure("--run-dir goes with --server or --auto");
    options.runDir.apply();
}

// Without --to the destination is the broadcast address of the interface, or of the default one (0).
NwIpv4Addr destinationOf(const SendOptions& options, NwIpv4Addr device) {
    if (!options.to.empty()) {
        const NwIpv4Addr to = addressFromText(options.to, "--to");
        if (to == 0) throw UsageFailure("--to: 0.0.0.0 is no destination");
        return to;
    }
    if (device == 0) return 0;
    for (const Interface& entry : hostInterfaces()) {
        if (entry.hasAddress && entry.addrHostOrder == device) return device | ~entry.maskHostOrder;
    }
    return 0;
}

// Only a join makes an interface the one for outgoing multicast. Nothing is read here, so the group is left
// again.
void chooseMulticastInterface(NwNetSocket& socket, NwIpv4Addr group) {
    if (socket.mcastDevice() == 0) {
        throw Failure(
            fmt::format("no interface can broadcast, so there is no default one for the group {}: name "
                        "one with --interface (on this host: --interface lo)",
                        addressText(group)));
    }
    if (socket.listenToMulticastGroup(group, socket.mcastDevice()) != 1) {
        throw Failure(fmt::format("cannot use the interface {} for the group {}: {}",
                                  addressText(socket.mcastDevice()), addressText(group),
                                  takeLibraryReason("refused")));
    }
    socket.dropMulticastGroup(group, socket.mcastDevice());
}

std::vector<NwIpv4Addr> sitesOf(const SendOptions& options) {
    std::vector<NwIpv4Addr> sites = addressesFromTexts(options.sites, "--sites");
    for (NwIpv4Addr site : sites) {
        if (site == 0 || NwIsMulticastAddr(site))
            throw UsageFailure(fmt::format("--sites: {} is no site", addressText(site)));
    }
    return sites;
}

// What every class of UDP socket is asked for alike.
template <class Socket>
std::unique_ptr<Socket> openUdp(const SendOptions& options, NwIpv4Addr to, NwIpv4Addr device) {
    auto socket = std::make_unique<Socket>(options.port.port, to, kWriteQuietly, device);
    if (!socket->isOk()) throw Failure("cannot open a UDP socket: " + takeLibraryReason("refused"));
    if (NwIsMulticastAddr(to)) chooseMulticastInterface(*socket, to);
    if (options.ttl >= 0 && socket->setMcastTtl(options.ttl) != 1) {
        throw Failure(fmt::format("--ttl {}: {}", options.ttl, takeLibraryReason("refused")));
    }
    // Retrying is for sends that would have to wait for room.
    if (options.retries != 0) socket->NwBecomeNonBlocking();
    return socket;
}

template <class Socket>
Transport transportOf(std::unique_ptr<Socket> socket, std::vector<NwIpv4Addr> destinations) {
    Transport transport;
    transport.counts = socket.get();
    transport.socket = std::move(socket);
    transport.destinations = std::move(destinations);
    return transport;
}

Transport openSites(const SendOptions& options, NwIpv4Addr device) {
    std::vector<NwIpv4Addr> sites = sitesOf(options);
    auto group = openUdp<CountingSocket<NwGroupSocket>>(options, sites.front(), device);
    for (NwIpv4Addr site : sites) group->addRemoteSite(site);
    return transportOf(std::move(group), std::move(sites));
}

Transport openStream(const SendOptions& options) {
    const Endpoint peer = endpointFromText(*options.tcp, "--tcp");
    auto stream = std::make_unique<SendingStream>(peer, options.format);
    SendingStream* const theStream = stream.get();
    Transport transport = transportOf(std::move(stream), {peer.addrHostOrder});
    transport.stream = theStream;
    transport.port = peer.port;
    transport.socket->setBundling(options.bundleBytes);
    return transport;
}

// The server tells a client of its mode and its end; no packets are wanted, and no group for their sake.
void wantNoPackets(NwClientSocket& client, NwIpv4Addr to) {
    client.exerciseId().setTest(NwTestInclude, 0, nullptr);
    if (NwIsMulticastAddr(to)) client.dropMulticastGroup(to);
}

Transport hold(SocketPtr<NwSocket> socket, NwIpv4Addr destination) {
    NwSocket* const theSocket = socket.get();
    auto held = std::make_unique<HeldSocket>(std::move(socket));
    HeldSocket* const theHeld = held.get();
    Transport transport = transportOf(std::move(held), {destination});
    transport.client = dynamic_cast<NwClientSocket*>(theSocket);
    if (dynamic_cast<NwAsyncNetSocket*>(theSocket) != nullptr) transport.queue = theHeld;
    return transport;
}

// With --server or --auto.
Transport openClient(const SendOptions& options, NwIpv4Addr to, NwIpv4Addr destination) {
    const int port = options.port.port;
    const auto owner = portOwner(static_cast<unsigned>(port), 0);
    SocketPtr<NwSocket> socket;
    if (options.isServer) {
        socket = attachToServer(port, to, NwClientSocket::defaultFlags);
    } else {
        socket = openDefaultSocket(port, to, options.async);
    }
    if (options.ttl >= 0 && socket->setMcastTtl(options.ttl) != 1)
        throw Failure(fmt::format("--ttl {}: {}", options.ttl, takeLibraryReason("refused")));
    Transport transport = hold(std::move(socket), destination);
    if (transport.client != nullptr) {
        wantNoPackets(*transport.client, to);
    } else if (owner) {
        // The library's default socket is for both directions, so it may now get what another waits for.
        warningLine(fmt::format("port {} is already open in {}: a unicast datagram reaches only one of them",
                                port, portOwnerText(*owner)));
    }
    return transport;
}

Transport openSocket(const SendOptions& options) {
    if (options.tcp) return openStream(options);
    const NwIpv4Addr device = options.interface.address();
    const NwIpv4Addr to = options.sites.empty() ? destinationOf(options, device) : sitesOf(options).front();
    if (options.ttl >= 0 && !NwIsMulticastAddr(to)) {
        throw UsageFailure(fmt::format("--ttl counts for multicast groups only, and --to is {}",
                                       to == 0 ? "not given" : addressText(to)));
    }
    const NwIpv4Addr broadcast = to == 0 ? NwInetBroadcastOfDevice(nullptr) : 0;
    if (to == 0 && broadcast == 0) {
        throw Failure(
            "no interface can broadcast, so there is no default destination: give one with --to (on this "
            "host: --to 127.0.0.1), or an interface with --interface");
    }
    if (options.retries != 0)
        NwNetSocket::setRetryOnSend(static_cast<unsigned>(options.retries), kRetryPeriodSeconds);
    const NwIpv4Addr destination = to != 0 ? to : broadcast;
    Transport transport;
    if (!options.sites.empty()) {
        transport = openSites(options, device);
    } else if (options.isServer || options.isAuto) {
        transport = openClient(options, to, destination);
    } else if (options.async) {
        transport =
            hold(SocketPtr<NwSocket>(openUdp<NwAsyncNetSocket>(options, to, device).release()), destination);
    } else {
        transport = transportOf(openUdp<CountingSocket<NwNetSocket>>(options, to, device), {destination});
    }
    transport.socket->setBundling(options.bundleBytes);
    transport.port = static_cast<unsigned>(options.port.port);
    return transport;
}

// One run: waits, sends, flushes and tells.
class Sender {
public:
    Sender(const SendOptions& options, Output& out)
        : options_(options), out_(out), source_(openSource(options)), transport_(openSocket(options)) {
        if (transport_.client != nullptr)
            server_.emplace(*transport_.client, options.port.port, options.report, out);
    }

    void announce();
    void sendAll();
    void printTotals();
    /// When a failure follows: a table of nothing would only hide it. The end of a server may be none.
    void printTotalsIfAny() {
        if (server_ || transport_.counts->tally().total().pdus != 0) printTotals();
    }

private:
    using Seconds = std::chrono::duration<double>;

    bool waitUntil(Clock::time_point due);
    Clock::time_point nextEvent(Clock::time_point due) const;
    Clock::time_point dueOf(std::uint64_t index) const;
    Clock::duration flushPeriod() const {
        const auto period = std::chrono::duration<double, std::milli>(options_.flushMs);
        return std::chrono::duration_cast<Clock::duration>(period);
    }
    Clock::time_point after(double seconds) const {
        return start_ + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    }
    bool isOver(Clock::time_point now) const {
        return StopSignal::raised() || out_.closed() ||
               (options_.limits.seconds > 0.0 && now >= after(options_.limits.seconds));
    }
    void wait(Clock::time_point until);
    void send(const Packet& packet);
    void sendOnStream(const Packet& packet);
    bool emptyStreamQueue(bool isLast);
    void flush();
    void finishQueue();
    void finishStream();
    std::vector<std::string> notes() const;
    [[noreturn]] void failToSend();
    void showProgress(Clock::time_point now);
    std::string destinationText() const;
    std::string summaryText() const;
    std::string totalsJson() const;

    const SendOptions& options_;
    Output& out_;
    std::unique_ptr<PacketSource> source_;
    Transport transport_;
    std::optional<ServerClient> server_;  // what there is beside the socket as a client of a packet server
    Clock::time_point start_ = Clock::now();
    Clock::time_point end_ = start_;
    std::optional<Clock::time_point> flushDue_;  // set while a bundle holds packets
    std::uint64_t leftOut_ = 0;                  // packets that would break the stream
    bool isCut_ = false;                         // stopped before the peer had taken everything
    Clock::time_point progressDue_ = start_ + kProgressPeriod;
};

std::string Sender::destinationText() const {
    std::string text;
    for (NwIpv4Addr address : transport_.destinations) {
        if (!text.empty()) text += ", ";
        text += endpointText(address, transport_.port);
    }
    return text;
}

void Sender::announce() {
    const int bundleBytes = transport_.socket->isBundling();
    if (options_.report.json) {
        nlohmann::ordered_json json = {{"event", "sending"},
                                       {"what", source_->description()},
                                       {"to", addressText(transport_.destinations.front())},
                                       {"port", transport_.port},
                                       {"bundle", bundleBytes}};
        if (!options_.sites.empty()) {
            json["sites"] = nlohmann::ordered_json::array();
            for (NwIpv4Addr site : transport_.destinations) json["sites"].push_back(addressText(site));
        }
        if (transport_.stream) json["transport"] = "tcp";
        if (server_) json["client"] = server_->id();
        if (server_) json["internal"] = server_->isInternal();
        out_.line(jsonLine(json));
    } else if (!options_.report.quiet) {
        const std::string how = bundleBytes != 0
                                    ? fmt::format(", bundles of up to {} bytes, flushed after {} ms",
                                                  bundleBytes, options_.flushMs)
                                : transport_.stream ? ""
                                                    : ", one PDU a datagram";
        out_.line(fmt::format("sending {} to {}{}{}", source_->description(), destinationText(),
                              transport_.stream ? " over TCP" : "", how));
        if (server_ && server_->isInternal())
            out_.line("the packet server is internal: everything goes to 127.0.0.1");
    }
    out_.flush();
}

void Sender::sendAll() {
    start_ = Clock::now();
    progressDue_ = start_ + kProgressPeriod;
    for (std::uint64_t index = 0; options_.limits.count == 0 || index < options_.limits.count; ++index) {
        if (!source_->advance() || !waitUntil(dueOf(index))) break;
        send(source_->packet());
    }
    flush();
    finishQueue();
    finishStream();
}

// With --async only now, when the queue is empty, is it known whether the network took everything.
void Sender::finishQueue() {
    if (!transport_.queue) return;
    takeLibraryWarning();
    transport_.queue->finish();
    if (const std::string warning = takeLibraryWarning(); !warning.empty())
        throw Failure(fmt::format("cannot send to {}: {}", destinationText(), warning));
}

Clock::time_point Sender::dueOf(std::uint64_t index) const {
    if (options_.fast) return start_;
    if (options_.rate > 0.0) return after(static_cast<double>(index) / options_.rate);
    return after(source_->dueSeconds() / options_.speed);
}

// False when the run is over before that.
bool Sender::waitUntil(Clock::time_point due) {
    for (;;) {
        const Clock::time_point now = Clock::now();
        if (isOver(now)) return false;
        if (flushDue_ && now >= *flushDue_) flush();
        if (now >= progressDue_) showProgress(now);
        if (now >= due) return true;
        wait(nextEvent(due));
    }
}

void Sender::wait(Clock::time_point until) {
    if (transport_.stream) {
        transport_.stream->waitAndFlush(until);
        transport_.stream->discardIncoming();
        transport_.stream->checkIsOk();
    } else if (server_) {
        server_->wait(until);
        server_->discardIncoming();
    } else {
        StopSignal::wait(-1, until);
    }
    out_.lookForReader();
}

Clock::time_point Sender::nextEvent(Clock::time_point due) const {
    Clock::time_point next = due;
    if (flushDue_) next = std::min(next, *flushDue_);
    if (out_.isTerminal()) next = std::min(next, progressDue_);
    if (options_.limits.seconds > 0.0) next = std::min(next, after(options_.limits.seconds));
    return next;
}

// Nothing but whole packets with a right length may go in there, and no more than the peer takes.
void Sender::sendOnStream(const Packet& packet) {
    SendingStream& stream = *transport_.stream;
    if (!options_.format.holds(packet.bytes, packet.lengthBytes)) {
        ++leftOut_;
        return;
    }
    if (!emptyStreamQueue(false)) return;
    stream.NwSend(packet.bytes, packet.lengthBytes, NwUSE_DEFAULT_IP_ADDR);
    stream.discardIncoming();
    stream.checkIsOk();
    if (options_.bundleBytes != 0 && !flushDue_) flushDue_ = Clock::now() + flushPeriod();
}

// Waits until the kernel has taken everything; false when the run is over before that. At last only a signal
// ends it.
bool Sender::emptyStreamQueue(bool isLast) {
    while (transport_.stream->hasQueue()) {
        const Clock::time_point now = Clock::now();
        if (isLast ? StopSignal::raised() || out_.closed() : isOver(now)) return false;
        if (now >= progressDue_) showProgress(now);
        wait(isLast ? now + kProgressPeriod : nextEvent(now + kProgressPeriod));
    }
    return true;
}

void Sender::finishStream() {
    if (!transport_.stream) return;
    const std::string reason = emptyStreamQueue(true) ? transport_.stream->finish(kLastWait) : "stopped";
    isCut_ = !reason.empty() && StopSignal::raised() && transport_.stream->isOk();
    if (!reason.empty() && !isCut_)
        throw Failure(fmt::format("{} has not taken everything: {}", destinationText(), reason));
}

void Sender::send(const Packet& packet) {
    if (transport_.stream) return sendOnStream(packet);
    if (server_) server_->discardIncoming();
    if (packet.alone) flush();
    const std::uint64_t datagramsBefore = transport_.counts->datagrams();
    if (transport_.socket->NwSend(packet.bytes, packet.lengthBytes, NwUSE_DEFAULT_IP_ADDR) < 0) failToSend();
    if (packet.alone) flush();
    // The bundle's time runs from its first packet: an empty one starts now, and so does one just flushed.
    const auto bundleBytes = static_cast<std::size_t>(transport_.socket->isBundling());
    const bool waits = !packet.alone && packet.lengthBytes < bundleBytes;
    if (!waits) {
        flushDue_.reset();
    } else if (!flushDue_ || transport_.counts->datagrams() != datagramsBefore) {
        flushDue_ = Clock::now() + flushPeriod();
    }
}

void Sender::flush() {
    if (server_) server_->discardIncoming();  // a socket that is not ok must not be asked to send
    const int result = transport_.socket->flush();
    if (transport_.stream)
        transport_.stream->checkIsOk();  // what had no room waits in the queue
    else if (result < 0)
        failToSend();
    flushDue_.reset();
}

void Sender::failToSend() {
    throw Failure(fmt::format("cannot send to {}: {}", destinationText(), takeLibraryReason("refused")));
}

void Sender::showProgress(Clock::time_point now) {
    progressDue_ = now + kProgressPeriod;
    if (!out_.isTerminal() || options_.report.json || options_.report.quiet) return;
    end_ = now;
    out_.draw(summaryText());
}

std::string Sender::summaryText() const {
    const Tally& tally = transport_.counts->tally();
    if (transport_.stream) {
        return fmt::format("sent {} over TCP, {} in {:.1f} s; {} came in", tally.packetsText(),
                           counted(tally.total().bytes, "byte"), Seconds(end_ - start_).count(),
                           counted(transport_.stream->discarded(), "packet"));
    }
    const std::uint64_t datagrams = transport_.counts->datagrams();
    const double factor =
        datagrams == 0 ? 0.0 : static_cast<double>(tally.total().pdus) / static_cast<double>(datagrams);
    return fmt::format("sent {} in {} ({:.2f} a datagram), {} in {:.1f} s", tally.packetsText(),
                       counted(datagrams, "datagram"), factor, counted(tally.total().bytes, "byte"),
                       Seconds(end_ - start_).count());
}

std::string Sender::totalsJson() const {
    const Tally& tally = transport_.counts->tally();
    const std::uint64_t datagrams = transport_.counts->datagrams();
    nlohmann::ordered_json json = {{"event", "totals"},
                                   {"pdus", tally.wholePdus()},
                                   {"undivided", tally.rests().pdus},
                                   {"cut", tally.cut().pdus},
                                   {"datagrams", datagrams},
                                   {"bytes", tally.total().bytes},
                                   {"bundlingFactor", nullptr},
                                   {"seconds", Seconds(end_ - start_).count()},
                                   {"types", tally.typesJson()},
                                   {"notes", notes()}};
    if (transport_.stream) {
        json["datagrams"] = nullptr;
        json["received"] = transport_.stream->discarded();
        json["leftOut"] = leftOut_;
        json["complete"] = !isCut_;
    }
    if (datagrams != 0) {
        json["bundlingFactor"] = static_cast<double>(tally.total().pdus) / static_cast<double>(datagrams);
    }
    return jsonLine(json);
}

std::vector<std::string> Sender::notes() const {
    std::vector<std::string> notes = source_->notes();
    if (leftOut_ != 0) {
        notes.push_back(
            fmt::format("left out {} whose length field does not hold their length, which would break "
                        "the stream",
                        counted(leftOut_, "packet")));
    }
    if (isCut_) notes.emplace_back("stopped before the peer had taken everything");
    return notes;
}

void Sender::printTotals() {
    end_ = Clock::now();
    out_.erase();
    if (options_.report.json) {
        out_.line(totalsJson());
    } else {
        std::string table = transport_.counts->tally().typeTable(Seconds(end_ - start_).count());
        table.pop_back();  // its last end of line
        out_.line(table);
        for (const std::string& note : notes()) out_.line("note: " + note);
        out_.line(out_.styled(1, summaryText()));
    }
    out_.flush();
}

class SendCommand : public Command {
public:
    const char* name() const override { return "send"; }
    const char* purpose() const override { return "Send a recorded capture or synthetic entities"; }
    void addOptions(CLI::App& app) override;
    int run() override;

private:
    SendOptions options_;
};

void SendCommand::addOptions(CLI::App& app) {
    CLI::Option* pcap =
        app.add_option("--pcap", options_.pcap,
                       "Send the UDP datagrams of this capture (pcap, pcapng), split into PDUs")
            ->type_name("FILE");
    CLI::Option* synthetic =
        app.add_option("--synthetic", options_.synthetic, "Send Entity State PDUs of N moving entities")
            ->check(range(1, SyntheticEntities::kMaxEntities))
            ->type_name("N")
            ->excludes(pcap);
    app.add_option("--exercise", options_.exercise, "Exercise of the synthetic entities (default 1)")
        ->check(range(0, 255))
        ->type_name("N")
        ->needs(synthetic);
    CLI::Option* speed =
        app.add_option("--speed", options_.speed, "Replay N times as fast as recorded (default 1)")
            ->check(range(kLeastSpeed, kMaxSpeed))
            ->type_name("N")
            ->needs(pcap);
    CLI::Option* rate = app.add_option("--rate", options_.rate,
                                       "Send R PDUs per second (synthetic entities: 5 each, if not given)")
                            ->check(range(kLeastRate, kMaxRate))
                            ->type_name("R")
                            ->excludes(speed);
    app.add_flag("--fast", options_.fast, "Send as fast as the host takes it")
        ->excludes(speed)
        ->excludes(rate);
    app.add_option("--loop", options_.loop, "Play the capture N times, 0 until stopped (default 1)")
        ->check(wholeNumberFrom(0))
        ->type_name("N")
        ->needs(pcap);
    CLI::Option* to =
        app.add_option(
               "--to", options_.to,
               "Destination: a host, a broadcast address or a group (default: the broadcast address of "
               "the interface)")
            ->type_name("ADDRESS");
    CLI::Option* sites =
        app.add_option("--sites", options_.sites,
                       "Send to each of these hosts by unicast, where broadcast and groups do "
                       "not get through")
            ->delimiter(',')
            ->type_name("ADDRESS,...")
            ->excludes(to);
    app.add_flag("--async", options_.async, "Let a thread of the library's do the sending")->excludes(sites);
    CLI::Option* server = app.add_flag(
        "--server", options_.isServer,
        "Send as a client of the packet server that owns the port (which may keep packets on this host)");
    CLI::Option* automatic = app.add_flag("--auto", options_.isAuto,
                                          "The same if a packet server owns the port, else open the port")
                                 ->excludes(server);
    server->excludes(app.get_option("--async"));
    CLI::Option* tcp = app.add_option("--tcp", options_.tcp,
                                      "Send over a TCP connection to a relay (cvnet relay), instead of UDP")
                           ->type_name("HOST:PORT");
    options_.format.declare(app, tcp);
    options_.port.declareDestination(app);
    CLI::Option* bundle =
        app.add_option("--bundle", options_.bundleBytes,
                       "Collect PDUs into datagrams of up to BYTES (default 0: one PDU a datagram)")
            ->type_name("BYTES");
    app.add_option("--flush-ms", options_.flushMs,
                   fmt::format("Send a bundle at the latest MS milliseconds after its first PDU (default {})",
                               kDefaultFlushMs))
        ->check(range(0.0, kMaxFlushMs))
        ->type_name("MS")
        ->needs(bundle);
    app.add_option("--ttl", options_.ttl, "Time-to-live of multicast")
        ->check(range(0, kMaxTtl))
        ->type_name("N");
    options_.interface.declare(app, "Interface for multicast and for the default destination");
    app.add_option("--retry", options_.retries,
                   "Never wait for the send buffer: repeat a refused send up to N times, 1 ms apart")
        ->check(range(0, 1000000))
        ->type_name("N");
    options_.runDir.declare(app);
    for (const char* own : {"--sites", "--tcp", "--interface", "--retry"}) {
        server->excludes(app.get_option(own));
        automatic->excludes(app.get_option(own));
    }
    for (const char* udpOnly : {"--to", "--sites", "--async", "--port", "--ttl", "--interface", "--retry"})
        tcp->excludes(app.get_option(udpOnly));
    options_.limits.declare(app, "PDUs");
    options_.report.declare(app);
    app.footer(
        "Examples:\n"
        "  cvnet send --pcap exercise.pcap --to 127.0.0.1 --bundle 1400\n"
        "  cvnet send --pcap exercise.pcap --tcp relay.example:3000\n"
        "  cvnet send --pcap exercise.pcap --server --to 10.1.255.255\n"
        "  cvnet send --pcap exercise.pcap --sites 10.1.0.5,10.2.0.5 --bundle 1400\n"
        "  cvnet send --synthetic 20 --rate 200 --to 239.1.2.3 --interface eth0 --ttl 4");
}

int SendCommand::run() {
    checkOptions(options_);
    Output out;
    Sender sender(options_, out);
    sender.announce();
    try {
        sender.sendAll();
    } catch (const Failure&) {
        sender.printTotalsIfAny();
        throw;
    }
    sender.printTotals();
    return kExitOk;
}

}  // namespace

std::unique_ptr<Command> makeSendCommand() {
    return std::make_unique<SendCommand>();
}

}  // namespace cvnet
