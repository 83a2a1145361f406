// SPDX-License-Identifier: BSD-3-Clause
// The loop around the forwarder (wait, serve, tell) and everything that is told.
#include "relay.h"

#include <unistd.h>
#include <algorithm>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "descriptor_limit.h"
#include "failure.h"
#include "json_line.h"
#include "library.h"
#include "options.h"
#include "output.h"
#include "relay_forwarder.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {
namespace {

// A second of a busy exercise for a client that pauses; with the largest PDUs, 64 MB for each that never
// reads.
constexpr int kDefaultQueue = 1000;
constexpr int kMaxQueue = 1000000;
// Below the usual limit of 1024 descriptors.
constexpr int kDefaultClients = 500;
constexpr int kMaxClients = 100000;
// A newcomer on its way out, and what the system's libraries open for a moment.
constexpr std::size_t kSpareDescriptors = 8;
constexpr double kTerminalPeriodSeconds = 0.5;
constexpr double kJsonPeriodSeconds = 1.0;
constexpr double kMaxPeriodSeconds = 1e6;

struct RelayOptions {
    PortOption port;
    StreamFormat format;
    int queue = kDefaultQueue;
    int maxClients = kDefaultClients;
    int bundleBytes = 0;
    std::optional<double> everySeconds;
    ReportOptions report;
};

RelaySettings settingsOf(const RelayOptions& options) {
    RelaySettings settings;
    settings.port = options.port.port;
    settings.format = options.format;
    settings.queue = options.queue;
    settings.maxClients = static_cast<std::size_t>(options.maxClients);
    settings.bundleBytes = options.bundleBytes;
    return settings;
}

// accept() tries again for ever when it has no descriptor, so there have to be enough of them.
void checkDescriptors(std::size_t clients) {
    const std::size_t needed = clients + kSpareDescriptors;
    const std::size_t left = descriptorsLeft(needed);
    if (left >= needed) return;
    throw Failure(
        fmt::format("--max-clients {} needs {} descriptors, and {} are left (see ulimit -Hn): at most {}",
                    clients, needed, left, left > kSpareDescriptors ? left - kSpareDescriptors : 0));
}

std::string trafficText(const Traffic& traffic) {
    return fmt::format("{}, {}", counted(traffic.packets, "packet"), counted(traffic.bytes, "byte"));
}

void putTraffic(nlohmann::ordered_json& json, const RelayConnection& connection) {
    json["packetsIn"] = connection.in.packets;
    json["bytesIn"] = connection.in.bytes;
    json["packetsOut"] = connection.out.packets;
    json["bytesOut"] = connection.out.bytes;
    json["dropped"] = connection.dropped;
}

timespec wallClock() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

// One run.
class Relay : public RelayWatcher {
public:
    Relay(const RelayOptions& options, Output& out)
        : options_(options),
          out_(out),
          forwarder_(settingsOf(options), *this),
          periodSeconds_(options.everySeconds.value_or(options.report.json ? kJsonPeriodSeconds
                                                       : out.isTerminal()  ? kTerminalPeriodSeconds
                                                                           : 0.0)) {
        out_.setWaits(false);  // nor does any client wait for who reads this
    }

    void announce();
    void run();
    void end();

    void connected(const RelayConnection& connection) override;
    void disconnected(const RelayConnection& connection) override;
    void turnedAway(const Endpoint& peer) override;
    void drops(const RelayConnection& connection) override;

private:
    using Seconds = std::chrono::duration<double>;

    double secondsOf(const RelayConnection& connection) const {
        return Seconds(Clock::now() - connection.since).count();
    }
    nlohmann::ordered_json event(const char* name, const Endpoint& peer) const;
    void tell(const Endpoint& peer, const std::string& text);
    void tellJson(const nlohmann::ordered_json& json);
    void showLines();
    std::string clientsText() const { return counted(clients_, "client"); }

    bool showsTable() const { return periodSeconds_ > 0.0 && !options_.report.quiet; }
    std::optional<Clock::time_point> nextEvent() const;
    void showTable();
    std::string table() const;
    std::string row(const RelayConnection& connection) const;
    std::string tableJson() const;
    std::string trafficTotals() const;
    std::string clientTotals() const;
    std::string totalsJson() const;

    const RelayOptions& options_;
    Output& out_;
    std::size_t clients_ = 0;         // those told of
    std::vector<std::string> lines_;  // told in a callback; written after it, as writing may fail
    RelayForwarder forwarder_;
    const double periodSeconds_;  // of the table; 0: none
    std::vector<pollfd> descriptors_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point tableDue_ = start_;
    bool hasNews_ = false;  // since the last table
};

void Relay::announce() {
    if (options_.report.json) {
        out_.line(jsonLine({{"event", "listening"},
                            {"port", forwarder_.port()},
                            {"sizeOffset", options_.format.sizeOffset},
                            {"sizeLength", options_.format.sizeLength},
                            {"queue", options_.queue},
                            {"maxClients", options_.maxClients},
                            {"bundle", options_.bundleBytes}}));
    } else {
        const auto queue = static_cast<unsigned>(options_.queue);
        const std::string pieces =
            options_.bundleBytes == 0
                ? counted(queue, "packet")
                : fmt::format("{} of up to {} bytes", counted(queue, "bundle"), options_.bundleBytes);
        out_.line(fmt::format("listening on port {} for up to {}, {}, queues of {}", forwarder_.port(),
                              counted(static_cast<unsigned>(options_.maxClients), "client"),
                              options_.format.text(), pieces));
    }
    out_.flush();
}

void Relay::run() {
    while (!StopSignal::raised() && !out_.closed()) {
        descriptors_.clear();
        forwarder_.addDescriptors(descriptors_);
        descriptors_.push_back({out_.hasPending() ? STDOUT_FILENO : -1, POLLOUT, 0});
        StopSignal::wait(descriptors_, nextEvent());
        descriptors_.pop_back();
        const auto isReady = [](const pollfd& descriptor) { return descriptor.revents != 0; };
        if (std::any_of(descriptors_.begin(), descriptors_.end(), isReady)) {
            forwarder_.serve(descriptors_);
            hasNews_ = true;
            showLines();
        } else {
            out_.lookForReader();
        }
        showTable();
        out_.flush();
    }
}

void Relay::end() {
    out_.setWaits(true);
    forwarder_.end();
    showLines();
    out_.erase();
    if (options_.report.json) {
        out_.line(totalsJson());
    } else {
        out_.line(out_.styled(1, trafficTotals()));
        out_.line(clientTotals());
    }
    out_.flush();
    if (out_.droppedLines() != 0) {
        warningLine(
            fmt::format("{} of output dropped, as nobody took them", counted(out_.droppedLines(), "line")));
    }
}

// --- events ------------------------------------------------------------------------------------------------

nlohmann::ordered_json Relay::event(const char* name, const Endpoint& peer) const {
    return {{"event", name},
            {"time", secondsSince1970(wallClock())},
            {"address", addressText(peer.addrHostOrder)},
            {"port", peer.port}};
}

void Relay::tell(const Endpoint& peer, const std::string& text) {
    if (options_.report.quiet || options_.report.json) return;
    const timespec now = wallClock();
    lines_.push_back(fmt::format("{} {:<21} {}", timeOfDayText(now.tv_sec, now.tv_nsec), peer.text(), text));
}

void Relay::tellJson(const nlohmann::ordered_json& json) {
    if (options_.report.json && !options_.report.quiet) lines_.push_back(jsonLine(json));
}

void Relay::showLines() {
    if (lines_.empty()) return;
    if (out_.isTerminal()) {  // the table is drawn anew below
        out_.erase();
        tableDue_ = Clock::now();
    }
    for (const std::string& line : lines_) out_.line(line);
    lines_.clear();
}

void Relay::connected(const RelayConnection& connection) {
    ++clients_;
    tell(connection.peer, fmt::format("connected; {}", clientsText()));
    nlohmann::ordered_json json = event("connected", connection.peer);
    json["clients"] = clients_;
    tellJson(json);
}

void Relay::disconnected(const RelayConnection& connection) {
    --clients_;
    const bool isNormal = connection.ending == Ending::closedByPeer || connection.ending == Ending::relayEnds;
    const std::string reason = connection.endingText();
    tell(connection.peer,
         fmt::format("disconnected: {}; in {}; out {}; dropped {}; unsent {}; {}",
                     isNormal ? reason : out_.styled(33, reason), trafficText(connection.in),
                     trafficText(connection.out), connection.dropped, connection.queued(), clientsText()));
    nlohmann::ordered_json json = event("disconnected", connection.peer);
    json["reason"] = endingName(connection.ending);
    json["detail"] = connection.endDetail;
    json["seconds"] = secondsOf(connection);
    putTraffic(json, connection);
    json["unsent"] = connection.queued();
    json["clients"] = clients_;
    tellJson(json);
}

void Relay::turnedAway(const Endpoint& peer) {
    tell(peer, out_.styled(33, fmt::format("turned away: {} connected", counted(clients_, "client"))));
    nlohmann::ordered_json json = event("turnedAway", peer);
    json["clients"] = clients_;
    tellJson(json);
}

void Relay::drops(const RelayConnection& connection) {
    tell(connection.peer,
         out_.styled(33, fmt::format("too slow: its queue is full; dropped {} so far", connection.dropped)));
    nlohmann::ordered_json json = event("drops", connection.peer);
    json["dropped"] = connection.dropped;
    json["queue"] = connection.queued();
    tellJson(json);
}

// --- the table ---------------------------------------------------------------------------------------------

// Nothing happens, nothing is due: an idle relay sleeps.
std::optional<Clock::time_point> Relay::nextEvent() const {
    if (!showsTable() || !hasNews_) return std::nullopt;
    return tableDue_;
}

void Relay::showTable() {
    const Clock::time_point now = Clock::now();
    if (!showsTable() || !hasNews_ || now < tableDue_) return;
    tableDue_ = now + std::chrono::duration_cast<Clock::duration>(Seconds(periodSeconds_));
    hasNews_ = false;
    out_.flush();
    if (options_.report.json)
        out_.line(tableJson());
    else if (!out_.isTerminal())
        out_.line(table());
    else if (!out_.hasPending())
        out_.draw(table());
}

constexpr const char* kRow = "{:<21} {:>6} {:>10} {:>11} {:>11} {:>6} {:>7}";

std::string Relay::row(const RelayConnection& connection) const {
    return fmt::format(kRow, connection.peer.text(), durationText(secondsOf(connection)),
                       connection.in.packets, connection.in.bytes, connection.out.packets,
                       connection.queued(), connection.dropped);
}

// Those in trouble first: the terminal may end before the table does.
std::string Relay::table() const {
    std::vector<const RelayConnection*> order;
    for (const auto& connection : forwarder_.connections()) order.push_back(connection.get());
    const auto isInTrouble = [](const RelayConnection* connection) {
        return connection->dropped != 0 || connection->queued() != 0;
    };
    std::stable_partition(order.begin(), order.end(), isInTrouble);
    const RelayTotals& totals = forwarder_.totals();
    std::string text =
        fmt::format("{}: {} in, {} out, {} dropped\n", clientsText(), counted(totals.in.packets, "packet"),
                    totals.out.packets, totals.dropped) +
        fmt::format(kRow, "client", "for", "packets in", "bytes in", "packets out", "queue", "dropped");
    for (const RelayConnection* connection : order) text += "\n" + row(*connection);
    return text;
}

std::string Relay::tableJson() const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& connection : forwarder_.connections()) {
        nlohmann::ordered_json entry = {{"address", addressText(connection->peer.addrHostOrder)},
                                        {"port", connection->peer.port},
                                        {"seconds", secondsOf(*connection)}};
        putTraffic(entry, *connection);
        entry["queue"] = connection->queued();
        list.push_back(entry);
    }
    return jsonLine({{"event", "table"}, {"time", secondsSince1970(wallClock())}, {"connections", list}});
}

// --- totals ------------------------------------------------------------------------------------------------

std::string Relay::trafficTotals() const {
    const RelayTotals& totals = forwarder_.totals();
    return fmt::format("in {}; out {}; dropped {}", trafficText(totals.in), trafficText(totals.out),
                       totals.dropped);
}

std::string Relay::clientTotals() const {
    const RelayTotals& totals = forwarder_.totals();
    const auto ended = [&](Ending ending) { return totals.endings[static_cast<std::size_t>(ending)]; };
    return fmt::format(
        "clients: {}, {} at once; closed by peer: {}; read errors: {}; bad lengths: {}; send errors: {}; no "
        "memory: {}; turned away: {}; unsent: {}",
        totals.clients, totals.mostClients, ended(Ending::closedByPeer), ended(Ending::readError),
        ended(Ending::badLength), ended(Ending::sendError), ended(Ending::noMemory), totals.turnedAway,
        totals.unsent);
}

std::string Relay::totalsJson() const {
    const RelayTotals& totals = forwarder_.totals();
    nlohmann::ordered_json endings;
    for (std::size_t i = 0; i < kEndings; ++i)
        endings[endingName(static_cast<Ending>(i))] = totals.endings[i];
    return jsonLine({{"event", "totals"},
                     {"packetsIn", totals.in.packets},
                     {"bytesIn", totals.in.bytes},
                     {"packetsOut", totals.out.packets},
                     {"bytesOut", totals.out.bytes},
                     {"dropped", totals.dropped},
                     {"unsent", totals.unsent},
                     {"clients", totals.clients},
                     {"mostClients", totals.mostClients},
                     {"turnedAway", totals.turnedAway},
                     {"endings", endings},
                     {"seconds", Seconds(Clock::now() - start_).count()}});
}

class RelayCommand : public Command {
public:
    const char* name() const override { return "relay"; }
    const char* purpose() const override { return "Forward packets between TCP clients"; }
    void addOptions(CLI::App& app) override;
    int run() override;

private:
    RelayOptions options_;
};

void RelayCommand::addOptions(CLI::App& app) {
    options_.port.declareListening(app, "TCP");
    options_.format.declare(app);
    app.add_option("--queue", options_.queue,
                   fmt::format("Keep up to N packets (or bundles) for a slow client and drop those beyond "
                               "(default {})",
                               kDefaultQueue))
        ->check(range(1, kMaxQueue))
        ->type_name("N");
    app.add_option(
           "--max-clients", options_.maxClients,
           fmt::format("Turn further clients away when N are connected (default {})", kDefaultClients))
        ->check(range(1, kMaxClients))
        ->type_name("N");
    app.add_option("--bundle", options_.bundleBytes,
                   "Collect what is at hand for a client into pieces of up to BYTES: fewer system calls "
                   "(default 0: each packet by itself)")
        ->check(range(0, kMaxPayload))
        ->type_name("BYTES");
    app.add_option("--every", options_.everySeconds,
                   fmt::format("Show the table of clients every S seconds while something happens, 0 for "
                               "never (default {} on a terminal, {} with --json, else 0)",
                               kTerminalPeriodSeconds, kJsonPeriodSeconds))
        ->type_name("S");
    options_.report.declare(app);
    app.footer(
        "Every packet goes to every client, its sender included.\n"
        "Examples:\n"
        "  cvnet relay --port 3000\n"
        "  cvnet relay --port 3000 --bundle 1400 --queue 5000 --json\n"
        "  cvnet relay --port 4000 --size-offset 0 --size-length 4");
}

int RelayCommand::run() {
    if (options_.everySeconds) checkRange("--every", *options_.everySeconds, 0.0, kMaxPeriodSeconds);
    options_.format.check();
    checkDescriptors(static_cast<std::size_t>(options_.maxClients));
    Output out;
    Relay relay(options_, out);
    relay.announce();
    relay.run();
    relay.end();
    return kExitOk;
}

}  // namespace

std::unique_ptr<Command> makeRelayCommand() {
    return std::make_unique<RelayCommand>();
}

}  // namespace cvnet
