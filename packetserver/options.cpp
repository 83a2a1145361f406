// SPDX-License-Identifier: BSD-3-Clause
#include "options.h"

#include <arpa/inet.h>
#include <grp.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <pwd.h>

#include <algorithm>
#include <iostream>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cvutil/cvInetAddr.h>

namespace packetserver {

namespace {

constexpr unsigned mostClients = 4000;
constexpr unsigned long leastQueueBytes = 256UL << 10;  // holds the largest datagram, whatever lies in front
constexpr unsigned long mostQueueBytes = 1UL << 30;

const char* const description =
    "Owns UDP ports for several applications of this host: hands every packet to every client that wants it, "
    "filtered for each, through shared memory.";

const char* const footer =
    "Example:\n"
    "  cvpacketserver --port 3000 --group 239.1.2.3 --stats 10\n"
    "  (then, in other terminals: cvnet recv --server --port 3000)\n\n"
    "Clients find the server by themselves. Exit status: 0 after an orderly stop, 1 after a failure, 2 for a "
    "usage error.";

/// The address of an interface, given as such or by its name; nothing when there is none.
std::optional<NwIpv4Addr> interfaceAddress(const std::string& text) {
    NwIpv4Addr address = 0;
    if (NwInetAddrFromString(text.c_str(), &address)) return address;
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) return std::nullopt;
    std::optional<NwIpv4Addr> found;
    for (const ifaddrs* entry = first; entry != nullptr && !found; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET || text != entry->ifa_name)
            continue;
        found = ntohl(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr);
    }
    ::freeifaddrs(first);
    return found;
}

std::optional<unsigned> number(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9)
        return std::nullopt;
    return static_cast<unsigned>(std::stoul(text));
}

std::optional<unsigned> userId(const std::string& text) {
    const passwd* user = ::getpwnam(text.c_str());
    return user != nullptr ? std::optional<unsigned>(user->pw_uid) : number(text);
}

std::optional<unsigned> groupId(const std::string& text) {
    const group* found = ::getgrnam(text.c_str());
    return found != nullptr ? std::optional<unsigned>(found->gr_gid) : number(text);
}

std::optional<NwIpv4Addr> groupAddress(const std::string& text) {
    NwIpv4Addr address = 0;
    if (!NwInetAddrFromString(text.c_str(), &address) || !NwIsMulticastAddr(address)) return std::nullopt;
    return address;
}

/// Runs `read` on each text and hands what it gives to `keep`; refuses what it does not know.
template <class Read, class Keep>
void convertEach(const std::vector<std::string>& texts, const char* what, Read read, Keep keep) {
    for (const std::string& text : texts) {
        const auto value = read(text);
        if (!value) throw CLI::ValidationError(fmt::format("{}: {}", what, text));
        keep(*value);
    }
}

/// What the command line says in words that have to be looked up.
struct Words {
    std::string interface;
    std::vector<std::string> groups;
    std::vector<std::string> users;
    std::vector<std::string> userGroups;
    bool keepsBundles = false;
};

void declare(CLI::App& app, Options& options, Words& words) {
    ServerSettings& server = options.server;
    app.footer(footer);
    app.set_version_flag("--version", "cvpacketserver " PACKETSERVER_VERSION);
    app.add_option("--port", options.ports, "UDP port to serve; may be given several times")
        ->required()
        ->check(CLI::Range(1, 65535));
    app.add_option("--interface", words.interface,
                   "interface for multicast, by address or name (the system's choice)");
    app.add_option("--group", words.groups, "multicast group to join for good; may be given several times");
    app.add_option("--clients", server.clients, "clients at once, for each port (32, at most 4000)")
        ->check(CLI::Range(1U, mostClients));
    app.add_option("--queue", server.queueBytes,
                   "bytes of each client's queue, also as 512k or 16m (4m; 256k to 1g)")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(leastQueueBytes, mostQueueBytes));
    app.add_flag("--internal", server.isInternal,
                 "start in internal mode: packets that do not come from 127/8 are dropped");
    app.add_flag("--no-unbundle", words.keepsBundles,
                 "hand datagrams over whole unless a client wishes otherwise");
    app.add_option("--run-dir", server.directory,
                   "directory of the request sockets (/run/cvpacketserver for root, else one of the user's "
                   "own in /tmp; a "
                   "service's RuntimeDirectory=, where clients look only if it is that of root)");
    app.add_option("--allow-user", words.users,
                   "user who may attach besides the server's own and root; repeatable");
    app.add_option("--allow-group", words.userGroups, "group whose members may attach; repeatable");
    app.add_flag("--allow-all", server.permissions.everybody, "everybody may attach");
    app.add_flag("--allow-control", server.permissions.control,
                 "whoever may attach may stop the server, switch its mode and its unbundling");
    app.add_option("--stats", options.statisticsSeconds,
                   "log statistics every so many seconds, and at the end (at the end alone)")
        ->check(CLI::Range(1U, 86400U));
    app.add_flag("--json", options.isJson, "log JSON lines, on standard output");
    app.add_option("--log", options.logFile,
                   "log to this file instead; SIGHUP opens it anew (without it SIGHUP stops the server)");
}

void refuseDoubles(std::vector<int> ports) {
    std::sort(ports.begin(), ports.end());
    const auto twice = std::adjacent_find(ports.begin(), ports.end());
    if (twice != ports.end()) throw CLI::ValidationError(fmt::format("--port: {} is given twice", *twice));
}

void convert(const Words& words, ServerSettings& server) {
    server.unbundles = !words.keepsBundles;
    if (!words.interface.empty()) {
        const auto address = interfaceAddress(words.interface);
        if (!address) throw CLI::ValidationError("--interface: no such interface: " + words.interface);
        server.interface = *address;
    }
    convertEach(words.groups, "--group: no multicast address", groupAddress,
                [&](NwIpv4Addr group) { server.groups.push_back(group); });
    convertEach(words.users, "--allow-user: no such user", userId,
                [&](unsigned id) { server.permissions.users.insert(id); });
    convertEach(words.userGroups, "--allow-group: no such group", groupId,
                [&](unsigned id) { server.permissions.groups.insert(id); });
}

}  // namespace

std::optional<Options> readOptions(int argc, char** argv, int* status) {
    Options options;
    Words words;
    CLI::App app(description, "cvpacketserver");
    declare(app, options, words);
    try {
        app.parse(argc, argv);
        refuseDoubles(options.ports);
        convert(words, options.server);
    } catch (const CLI::Success& done) {
        *status = app.exit(done);
        return std::nullopt;
    } catch (const CLI::Error& error) {
        std::cerr << "cvpacketserver: " << error.what() << " (see cvpacketserver --help)\n";
        *status = 2;
        return std::nullopt;
    }
    return options;
}

}  // namespace packetserver
