// SPDX-License-Identifier: BSD-3-Clause
// Lists the interfaces with what the library's own queries say of each, and explains its default.
#include "ifaces.h"

#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <net/if.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <nlohmann/json.hpp>

#include <cvNetworkCompatibility/cvNetSocket.h>

#include "address.h"
#include "failure.h"
#include "json_line.h"
#include "options.h"
#include "output.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr const char* kDefaultRule = "the first that is up, can broadcast and is not loopback";
constexpr const char* kNoDefault =
    "No interface can broadcast (up, broadcast-capable, not loopback), so there is no default one: senders "
    "need "
    "--to ADDRESS (on this host: --to 127.0.0.1), and multicast needs --interface NAME (lo works on this "
    "host).";

struct Row {
    Interface entry;
    NwIpv4Addr broadcast = 0;
    bool isDefault = false;
    std::string reason;  // why it is the default, or why not
};

std::vector<std::string> flagNames(unsigned flags) {
    static const struct {
        unsigned bit;
        const char* name;
    } known[] = {{IFF_UP, "up"},
                 {IFF_RUNNING, "running"},
                 {IFF_BROADCAST, "broadcast"},
                 {IFF_MULTICAST, "multicast"},
                 {IFF_LOOPBACK, "loopback"},
                 {IFF_POINTOPOINT, "point-to-point"}};
    std::vector<std::string> names;
    for (const auto& flag : known) {
        if ((flags & flag.bit) != 0) names.emplace_back(flag.name);
    }
    return names;
}

bool canBroadcast(unsigned flags) {
    return (flags & IFF_UP) != 0 && (flags & IFF_BROADCAST) != 0 && (flags & IFF_LOOPBACK) == 0;
}

std::string whyNotDefault(const Interface& entry, bool isFurtherAddress) {
    if (!entry.hasAddress) return "no IPv4 address";
    if ((entry.flags & IFF_UP) == 0) return "not up";
    if ((entry.flags & IFF_LOOPBACK) != 0) return "loopback";
    if ((entry.flags & IFF_BROADCAST) == 0) return "cannot broadcast";
    return isFurtherAddress ? "a further address; the library uses the first" : "another comes first";
}

// The library's queries answer by name, for the first address of an interface.
Row rowOf(const Interface& entry, bool isFurtherAddress, NwIpv4Addr defaultAddress, bool defaultFound) {
    Row row;
    row.entry = entry;
    if (entry.hasAddress && !isFurtherAddress) {
        row.entry.addrHostOrder = NwInetAddrOfDevice(entry.name.c_str());
        row.entry.maskHostOrder = NwNetMaskOfDevice(entry.name.c_str());
        row.broadcast = NwInetBroadcastOfDevice(entry.name.c_str());
    } else if (entry.hasAddress) {
        row.broadcast = (entry.addrHostOrder & entry.maskHostOrder) | ~entry.maskHostOrder;
    }
    row.isDefault = !defaultFound && defaultAddress != 0 && canBroadcast(entry.flags) &&
                    row.entry.addrHostOrder == defaultAddress;
    row.reason = row.isDefault ? kDefaultRule : whyNotDefault(entry, isFurtherAddress);
    return row;
}

std::vector<Row> collectRows(NwIpv4Addr defaultAddress) {
    std::vector<Row> rows;
    std::set<std::string> seen;
    bool defaultFound = false;
    for (const Interface& entry : hostInterfaces()) {
        rows.push_back(rowOf(entry, !seen.insert(entry.name).second, defaultAddress, defaultFound));
        defaultFound = defaultFound || rows.back().isDefault;
    }
    return rows;
}

std::string addressOrDash(const Interface& entry, NwIpv4Addr address) {
    return entry.hasAddress ? addressText(address) : "-";
}

void printTable(Output& out, const std::vector<Row>& rows, NwIpv4Addr defaultAddress) {
    constexpr const char* format = "{:<16} {:<15} {:<15} {:<15} {}";
    out.line(out.styled(1, fmt::format(format, "interface", "address", "mask", "broadcast", "flags")));
    for (const Row& row : rows) {
        std::string line =
            fmt::format(format, printable(row.entry.name), addressOrDash(row.entry, row.entry.addrHostOrder),
                        addressOrDash(row.entry, row.entry.maskHostOrder),
                        addressOrDash(row.entry, row.broadcast), fmt::join(flagNames(row.entry.flags), " "));
        out.line(row.isDefault ? out.styled(32, line) : line);
    }
    out.line("");
    if (defaultAddress == 0) {
        out.line(out.styled(33, kNoDefault));
        return;
    }
    for (const Row& row : rows) {
        if (row.isDefault) {
            out.line(
                fmt::format("Default: {} ({}), {}. It is used where --interface is not given; without --to, "
                            "senders broadcast to {}.",
                            printable(row.entry.name), addressText(defaultAddress), kDefaultRule,
                            addressText(row.broadcast)));
        }
    }
}

void printJson(Output& out, const std::vector<Row>& rows, NwIpv4Addr defaultAddress) {
    const Row* chosen = nullptr;
    for (const Row& row : rows) {
        nlohmann::ordered_json line = {{"event", "interface"}, {"name", row.entry.name}};
        if (row.entry.hasAddress) {
            line["address"] = addressText(row.entry.addrHostOrder);
            line["mask"] = addressText(row.entry.maskHostOrder);
            line["broadcast"] = addressText(row.broadcast);
        } else {
            for (const char* field : {"address", "mask", "broadcast"}) line[field] = nullptr;
        }
        line["flags"] = flagNames(row.entry.flags);
        line["default"] = row.isDefault;
        line["reason"] = row.reason;
        out.line(jsonLine(line));
        if (row.isDefault) chosen = &row;
    }
    nlohmann::ordered_json summary = {{"event", "default"}, {"name", nullptr}, {"address", nullptr}};
    if (chosen != nullptr) {
        summary["name"] = chosen->entry.name;
        summary["address"] = addressText(defaultAddress);
    }
    summary["reason"] = defaultAddress != 0 ? kDefaultRule : kNoDefault;
    out.line(jsonLine(summary));
}

class IfacesCommand : public Command {
public:
    const char* name() const override { return "ifaces"; }
    const char* purpose() const override {
        return "Show the interfaces of this host and which one is the default";
    }
    void addOptions(CLI::App& app) override {
        app.add_flag("--json", json_, "Print JSON lines");
        app.footer("Example:\n  cvnet ifaces");
    }
    int run() override {
        Output out;
        const NwIpv4Addr defaultAddress = NwFirstHostInetAddr();
        const std::vector<Row> rows = collectRows(defaultAddress);
        if (json_) {
            printJson(out, rows, defaultAddress);
        } else {
            printTable(out, rows, defaultAddress);
        }
        out.flush();
        return kExitOk;
    }

private:
    bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeIfacesCommand() {
    return std::make_unique<IfacesCommand>();
}

}  // namespace cvnet
