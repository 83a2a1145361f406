// SPDX-License-Identifier: BSD-3-Clause
// Packets from a source go, when they are due, through one NwNetSocket; bundling, flushing and retrying
// are the library's work.
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

#include <cvNetworkCompatibility/cvNetSocket.h>

#include "address.h"
#include "capture_source.h"
#include "failure.h"
#include "json_line.h"
#include "library.h"
#include "options.h"
#include "output.h"
#include "stop_signal.h"
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
    PortOption port;
    int bundleBytes = 0;
    double flushMs = kDefaultFlushMs;
    int ttl = -1;
    InterfaceOption interface;
    int retries = 0;
    LimitOptions limits;
    ReportOptions report;
};

// Counts what really left the host: sendTo is where every datagram goes through.
class SendingSocket : public NwNetSocket {
public:
    SendingSocket(int toPort, NwIpv4Addr toAddress, NwIpv4Addr device)
        : NwNetSocket(toPort, toAddress, kWriteQuietly, device) {}

    int sendTo(char* buf, unsigned long len, unsigned int toAddress) override {
        const int sent = NwNetSocket::sendTo(buf, len, toAddress);
        if (sent > 0) count(buf, len);
        return sent;
    }

    NwIpv4Addr destination() const { return destAddr; }
    std::uint64_t datagrams() const { return datagrams_; }
    const Tally& tally() const { return tally_; }

private:
    void count(const char* datagram, std::size_t lengthBytes) {
        ++datagrams_;
        PduWalk walk(datagram, lengthBytes);
        for (PduView pdu; walk.next(pdu);) tally_.add(pdu, datagrams_);
        if (walk.rest().lengthBytes() != 0) tally_.add(walk.rest(), datagrams_);
    }

    std::uint64_t datagrams_ = 0;
    Tally tally_;
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
void chooseMulticastInterface(SendingSocket& socket, NwIpv4Addr group) {
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

std::unique_ptr<SendingSocket> openSocket(const SendOptions& options) {
    const NwIpv4Addr device = options.interface.address();
    const NwIpv4Addr to = destinationOf(options, device);
    const bool toGroup = NwIsMulticastAddr(to);
    if (options.ttl >= 0 && !toGroup) {
        throw UsageFailure(fmt::format("--ttl counts for multicast groups only, and --to is {}",
                                       to == 0 ? "not given" : addressText(to)));
    }
    if (to == 0 && NwInetBroadcastOfDevice(nullptr) == 0) {
        throw Failure(
            "no interface can broadcast, so there is no default destination: give one with --to (on this "
            "host: --to 127.0.0.1), or an interface with --interface");
    }
    if (options.retries != 0)
        NwNetSocket::setRetryOnSend(static_cast<unsigned>(options.retries), kRetryPeriodSeconds);
    auto socket = std::make_unique<SendingSocket>(options.port.port, to, device);
    if (!socket->isOk()) throw Failure("cannot open a UDP socket: " + takeLibraryReason("refused"));
    if (toGroup) chooseMulticastInterface(*socket, to);
    if (options.ttl >= 0 && socket->setMcastTtl(options.ttl) != 1) {
        throw Failure(fmt::format("--ttl {}: {}", options.ttl, takeLibraryReason("refused")));
    }
    // Retrying is for sends that would have to wait for room.
    if (options.retries != 0) socket->NwBecomeNonBlocking();
    socket->setBundling(options.bundleBytes);
    return socket;
}

// One run: waits, sends, flushes and tells.
class Sender {
public:
    Sender(const SendOptions& options, Output& out)
        : options_(options), out_(out), source_(openSource(options)), socket_(openSocket(options)) {}

    void announce();
    void sendAll();
    void printTotals();
    /// When a failure follows: a table of nothing would only hide it.
    void printTotalsIfAny() {
        if (socket_->datagrams() != 0) printTotals();
    }

private:
    using Seconds = std::chrono::duration<double>;

    bool waitUntil(Clock::time_point due);
    Clock::time_point nextEvent(Clock::time_point due) const;
    Clock::time_point dueOf(std::uint64_t index) const;
    Clock::time_point after(double seconds) const {
        return start_ + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    }
    bool isOver(Clock::time_point now) const {
        return StopSignal::raised() || out_.closed() ||
               (options_.limits.seconds > 0.0 && now >= after(options_.limits.seconds));
    }
    void send(const Packet& packet);
    void flush();
    [[noreturn]] void failToSend();
    void showProgress(Clock::time_point now);
    std::string summaryText() const;
    std::string totalsJson() const;

    const SendOptions& options_;
    Output& out_;
    std::unique_ptr<PacketSource> source_;
    std::unique_ptr<SendingSocket> socket_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point end_ = start_;
    std::optional<Clock::time_point> flushDue_;  // set while a bundle holds packets
    Clock::time_point progressDue_ = start_ + kProgressPeriod;
};

void Sender::announce() {
    const std::string to = endpointText(socket_->destination(), static_cast<unsigned>(options_.port.port));
    if (options_.report.json) {
        out_.line(jsonLine({{"event", "sending"},
                            {"what", source_->description()},
                            {"to", addressText(socket_->destination())},
                            {"port", options_.port.port},
                            {"bundle", socket_->isBundling()}}));
    } else if (!options_.report.quiet) {
        const std::string bundles = socket_->isBundling() == 0
                                        ? "one PDU a datagram"
                                        : fmt::format("bundles of up to {} bytes, flushed after {} ms",
                                                      socket_->isBundling(), options_.flushMs);
        out_.line(fmt::format("sending {} to {}, {}", source_->description(), to, bundles));
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
        StopSignal::wait(-1, nextEvent(due));
        out_.lookForReader();
    }
}

Clock::time_point Sender::nextEvent(Clock::time_point due) const {
    Clock::time_point next = due;
    if (flushDue_) next = std::min(next, *flushDue_);
    if (out_.isTerminal()) next = std::min(next, progressDue_);
    if (options_.limits.seconds > 0.0) next = std::min(next, after(options_.limits.seconds));
    return next;
}

void Sender::send(const Packet& packet) {
    if (packet.alone) flush();
    const std::uint64_t datagramsBefore = socket_->datagrams();
    const int result = packet.alone
                           ? socket_->sendTo(packet.bytes, packet.lengthBytes, NwUSE_DEFAULT_IP_ADDR)
                           : socket_->NwSend(packet.bytes, packet.lengthBytes, NwUSE_DEFAULT_IP_ADDR);
    if (result < 0) failToSend();
    // The bundle's time runs from its first packet: an empty one starts now, and so does one just flushed.
    const bool waits = socket_->isBundling() != 0 && !packet.alone &&
                       packet.lengthBytes < static_cast<std::size_t>(socket_->isBundling());
    if (!waits) {
        flushDue_.reset();
    } else if (!flushDue_ || socket_->datagrams() != datagramsBefore) {
        const auto period = std::chrono::duration<double, std::milli>(options_.flushMs);
        flushDue_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(period);
    }
}

void Sender::flush() {
    if (socket_->flush() < 0) failToSend();
    flushDue_.reset();
}

void Sender::failToSend() {
    throw Failure(fmt::format("cannot send to {}: {}",
                              endpointText(socket_->destination(), static_cast<unsigned>(options_.port.port)),
                              takeLibraryReason("refused")));
}

void Sender::showProgress(Clock::time_point now) {
    progressDue_ = now + kProgressPeriod;
    if (!out_.isTerminal() || options_.report.json || options_.report.quiet) return;
    end_ = now;
    out_.draw(summaryText());
}

std::string Sender::summaryText() const {
    const Tally& tally = socket_->tally();
    const std::uint64_t datagrams = socket_->datagrams();
    const double factor =
        datagrams == 0 ? 0.0 : static_cast<double>(tally.total().pdus) / static_cast<double>(datagrams);
    return fmt::format("sent {} in {} ({:.2f} a datagram), {} in {:.1f} s", tally.packetsText(),
                       counted(datagrams, "datagram"), factor, counted(tally.total().bytes, "byte"),
                       Seconds(end_ - start_).count());
}

std::string Sender::totalsJson() const {
    const Tally& tally = socket_->tally();
    const std::uint64_t datagrams = socket_->datagrams();
    nlohmann::ordered_json json = {{"event", "totals"},
                                   {"pdus", tally.wholePdus()},
                                   {"undivided", tally.rests().pdus},
                                   {"cut", tally.cut().pdus},
                                   {"datagrams", datagrams},
                                   {"bytes", tally.total().bytes},
                                   {"bundlingFactor", nullptr},
                                   {"seconds", Seconds(end_ - start_).count()},
                                   {"types", tally.typesJson()},
                                   {"notes", source_->notes()}};
    if (datagrams != 0) {
        json["bundlingFactor"] = static_cast<double>(tally.total().pdus) / static_cast<double>(datagrams);
    }
    return jsonLine(json);
}

void Sender::printTotals() {
    end_ = Clock::now();
    out_.erase();
    if (options_.report.json) {
        out_.line(totalsJson());
    } else {
        std::string table = socket_->tally().typeTable(Seconds(end_ - start_).count());
        table.pop_back();  // its last end of line
        out_.line(table);
        for (const std::string& note : source_->notes()) out_.line("note: " + note);
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
        ->check(CLI::NonNegativeNumber)
        ->type_name("N")
        ->needs(pcap);
    app.add_option("--to", options_.to,
                   "Destination: a host, a broadcast address or a group (default: the broadcast address of "
                   "the interface)")
        ->type_name("ADDRESS");
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
    options_.limits.declare(app, "PDUs");
    options_.report.declare(app);
    app.footer(
        "Examples:\n"
        "  cvnet send --pcap exercise.pcap --to 127.0.0.1 --bundle 1400\n"
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
