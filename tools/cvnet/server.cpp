// SPDX-License-Identifier: BSD-3-Clause
// Attaches as a client that only controls, asks, and waits for the answer in its queue.
#include "server.h"

#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

#include "address.h"
#include "failure.h"
#include "json_line.h"
#include "options.h"
#include "output.h"
#include "port_owner.h"
#include "server_socket.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr auto kStopLimit = std::chrono::seconds(5);
constexpr const char* kActions[] = {"status",   "clients",  "ping",     "test",
                                    "internal", "external", "unbundle", "stop"};

void throwIfRefused(const std::optional<NwCsMsg>& message) {
    if (!message) return;
    if (const auto refusal = refusalText(*message)) throw Failure(*refusal);
}

// One conversation with the server of a port.
class Conversation {
public:
    explicit Conversation(int port)
        : port_(port), socket_(attachToServer(port, loopbackAddr, NwClientSocket::controlOnlyFlag)) {}

    NwClientSocket& socket() { return *socket_; }

    NwCsMsg ask(ServerRequest request, NwCsKind kind) { return cvnet::ask(*socket_, port_, request, kind); }

    NwCsStateReturnRecord state() {
        return recordOf<NwCsStateReturnRecord>(ask(&NwClientSocket::requestServerState, NwCsKindStateReturn));
    }

    std::vector<NwCsCStateReturnRecord> clients() { return askClients(*socket_, port_); }

    /// Asks the server to stop, and waits for its orderly end.
    void stop() {
        socket_->terminatePacketServer();
        const Clock::time_point until = Clock::now() + kStopLimit;
        while (Clock::now() < until && !StopSignal::raised()) {
            int status = 0;
            char* packet = nullptr;
            socket_->NwRecv(&packet, &status);
            if (!socket_->isOk()) {
                if (socket_->endNotice() == NwCsNoticeStopped) return;
                throwServerHasGone(*socket_, port_);
            }
            if (status == 0) waitForServer(*socket_, until);
            if (status == -1) throwIfRefused(takeMessage(*socket_));
        }
        throw Failure(StopSignal::raised()
                          ? "interrupted"
                          : fmt::format("the packet server of port {} does not stop", port_));
    }

private:
    const int port_;
    SocketPtr<NwClientSocket> socket_;
};

const char* onOff(unsigned value) {
    return value != 0 ? "on" : "off";
}

std::string filterText(const NwCsCStateReturnRecord& client) {
    static constexpr const char* names[NwCsFilterCount] = {"exercise", "version", "type", "from"};
    std::string text;
    for (int i = 0; i < NwCsFilterCount; ++i) {
        const NwCsFilterState& filter = client.filters[i];
        if (filter.excludes != 0 && filter.values == 0) continue;
        text += fmt::format("{}{} {}{}", text.empty() ? "" : ", ", names[i],
                            filter.excludes != 0 ? "not " : "", counted(filter.values, "value"));
    }
    return text.empty() ? "none" : text;
}

nlohmann::ordered_json clientJson(const NwCsCStateReturnRecord& client) {
    return {{"event", "client"},
            {"id", client.clientId},
            {"pid", client.pid},
            {"uid", client.uid},
            {"program", fieldText(client.program)},
            {"controlOnly", (client.flags & NwCsClientControlOnly) != 0},
            {"delivered", client.delivered},
            {"filtered", client.filtered},
            {"dropped", client.dropped},
            {"queueBytes", client.queueBytes},
            {"queueUsed", client.queueUsedBytes},
            {"queueHighWater", client.queueHighWater},
            {"groups", client.groups},
            {"unbundling", client.unbundling != 0},
            {"filters", filterText(client)},
            {"attachedSeconds", client.attachedSeconds}};
}

class ServerCommand : public Command {
public:
    const char* name() const override { return "server"; }
    const char* purpose() const override { return "Ask or control the packet server of a port"; }

    void addOptions(CLI::App& app) override {
        app.add_option("action", action_, "status, clients, ping, test, internal, external, unbundle, stop")
            ->required()
            ->check(CLI::IsMember(std::vector<std::string>(std::begin(kActions), std::end(kActions)))
                        .description(""))
            ->type_name("");
        app.add_option("value", value_, "for unbundle: on or off")
            ->check(CLI::IsMember(std::vector<std::string>{"on", "off"}).description(""))
            ->type_name("");
        app.add_option("--port", port_, fmt::format("UDP port that the server owns ({})", kDefaultDisPort))
            ->check(range(1, 65535))
            ->type_name("PORT");
        runDir_.declare(app);
        app.add_flag("--json", json_, "Print JSON lines");
        app.footer(
            "status    what the server has done, and who else has the port open\n"
            "clients   who is attached, with filters, and what was delivered and dropped\n"
            "ping      pings every client; those that died are let go of\n"
            "test      sends every client a test message, which it prints\n"
            "internal  packets that do not come from 127/8 are dropped from now on; external: taken again\n"
            "unbundle  on|off: whether later clients get datagrams taken apart\n"
            "stop      ends the server in order\n\n"
            "Example:\n  cvnet server clients --port 3000");
    }

    int run() override {
        if ((action_ == "unbundle") == value_.empty())
            throw UsageFailure(value_.empty() ? "unbundle: say on or off"
                                              : fmt::format("{} takes no value", action_));
        runDir_.apply();
        Conversation server(port_);
        if (action_ == "status") {
            showStatus(server.state());
        } else if (action_ == "clients") {
            showClients(server.clients());
        } else if (action_ == "ping") {
            ping(server);
        } else if (action_ == "test") {
            server.ask(&NwClientSocket::testClients, NwCsKindNotice);
            say("tested", "the test message went to every client");
        } else if (action_ == "stop") {
            server.stop();
            say("stopped", "stopped");
        } else {
            change(server);
        }
        out_.flush();
        return kExitOk;
    }

private:
    void say(const char* event, const std::string& words) {
        out_.line(json_ ? jsonLine({{"event", event}, {"port", port_}}) : words);
    }

    void ping(Conversation& server) {
        const Clock::time_point asked = Clock::now();
        server.ask(&NwClientSocket::pingClients, NwCsKindPing);
        const double seconds = std::chrono::duration<double>(Clock::now() - asked).count();
        if (json_) {
            out_.line(jsonLine({{"event", "ping"}, {"port", port_}, {"seconds", seconds}}));
        } else {
            out_.line(fmt::format("the server answered after {:.3f} ms", seconds * 1000));
        }
    }

    // The state that comes back shows whether it was done; a refusal comes before it.
    void change(Conversation& server) {
        if (action_ == "internal") server.socket().setPacketServerInternal();
        if (action_ == "external") server.socket().setPacketServerExternal();
        if (action_ == "unbundle") server.socket().setPacketServerUnbundling(value_ == "on");
        const NwCsStateReturnRecord state = server.state();
        say("changed", fmt::format("{} mode, unbundling {}", state.internal != 0 ? "internal" : "external",
                                   onOff(state.unbundling)));
    }

    void showStatus(const NwCsStateReturnRecord& state) {
        const std::optional<PortOwner> other = portOwner(static_cast<unsigned>(port_), 0, state.pid);
        if (json_) {
            nlohmann::ordered_json line = {{"event", "status"},
                                           {"port", state.port},
                                           {"pid", state.pid},
                                           {"version", fieldText(state.serverVersion)},
                                           {"internal", state.internal != 0},
                                           {"unbundling", state.unbundling != 0},
                                           {"clients", state.clients},
                                           {"clientLimit", state.clientLimit},
                                           {"controlClients", state.controlClients},
                                           {"queueBytes", state.queueBytes},
                                           {"groups", state.groups},
                                           {"upSeconds", state.upSeconds},
                                           {"datagrams", state.datagrams},
                                           {"packets", state.packets},
                                           {"kernelDropped", state.kernelDropped},
                                           {"outsideDropped", state.outsideDropped}};
            line["alsoOpenIn"] = other ? nlohmann::ordered_json(portOwnerText(*other)) : nullptr;
            out_.line(jsonLine(line));
            return;
        }
        out_.line(fmt::format("port {}: process {}, version {}, up {}", state.port, state.pid,
                              fieldText(state.serverVersion),
                              durationText(static_cast<double>(state.upSeconds))));
        out_.line(fmt::format("{} mode, unbundling {}, interface {}, {}",
                              state.internal != 0 ? "internal" : "external", onOff(state.unbundling),
                              state.interfaceAddr != 0 ? addressText(state.interfaceAddr) : "any",
                              counted(state.groups, "group")));
        out_.line(fmt::format("{} of {} clients, queues of {} bytes", state.clients, state.clientLimit,
                              state.queueBytes));
        out_.line(fmt::format("received {} in {}; dropped by the kernel: {}; of other hosts dropped: {}",
                              counted(state.packets, "packet"), counted(state.datagrams, "datagram"),
                              state.kernelDropped, state.outsideDropped));
        if (other)
            out_.line(
                out_.styled(33, fmt::format("port {} is open in {} too: a unicast datagram may go there",
                                            port_, portOwnerText(*other))));
    }

    void showClients(const std::vector<NwCsCStateReturnRecord>& clients) {
        constexpr const char* format = "{:>4} {:>8} {:<16} {:>12} {:>12} {:>10} {:>6}  {}";
        if (!json_)
            out_.line(out_.styled(1, fmt::format(format, "id", "process", "program", "delivered", "filtered",
                                                 "dropped", "queue", "filters")));
        for (const NwCsCStateReturnRecord& client : clients) {
            if (json_) {
                out_.line(jsonLine(clientJson(client)));
                continue;
            }
            const double highest =
                client.queueBytes != 0 ? 100.0 * client.queueHighWater / client.queueBytes : 0.0;
            const bool isControl = (client.flags & NwCsClientControlOnly) != 0;
            out_.line(fmt::format(format, client.clientId, client.pid, fieldText(client.program),
                                  client.delivered, client.filtered, client.dropped,
                                  fmt::format("{:.0f} %", highest),
                                  isControl ? "(control only)" : filterText(client)));
        }
    }

    std::string action_;
    std::string value_;
    int port_ = kDefaultDisPort;
    RunDirOption runDir_;
    bool json_ = false;
    Output out_;
};

}  // namespace

std::unique_ptr<Command> makeServerCommand() {
    return std::make_unique<ServerCommand>();
}

}  // namespace cvnet
