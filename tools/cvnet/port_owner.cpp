// SPDX-License-Identifier: BSD-3-Clause
// The kernel lists sockets with their inode numbers; a process shows them as links in /proc/<pid>/fd.
#include "port_owner.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

#include <fmt/format.h>

#include "descriptor.h"
#include "text.h"

namespace cvnet {
namespace {

using Inodes = std::set<std::string>;

// Whether a socket bound to the address text of /proc/net/udp (or udp6) takes datagrams to `wanted`.
bool takes(const std::string& boundHex, NwIpv4Addr wanted) {
    constexpr std::size_t ipv4Digits = 8;
    if (boundHex.find_first_not_of('0') == std::string::npos || wanted == 0) return true;
    if (boundHex.size() != ipv4Digits) return false;
    // The kernel prints the address as a number in its own byte order.
    return ntohl(static_cast<NwIpv4Addr>(std::strtoul(boundHex.c_str(), nullptr, 16))) == wanted;
}

// The sockets of a table in one state ("": in any).
void collectInodes(const char* table, const std::string& wantedState, unsigned port, NwIpv4Addr addrHostOrder,
                   Inodes& inodes) {
    std::ifstream file(table);
    std::string line;
    std::getline(file, line);  // headings
    while (std::getline(file, line)) {
        std::istringstream columns(line);
        std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
        columns >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >>
            inode;
        const std::size_t colon = local.find(':');
        if (colon == std::string::npos || inode.empty() || inode == "0") continue;
        if (std::strtoul(local.c_str() + colon + 1, nullptr, 16) != port) continue;
        if (!wantedState.empty() && state != wantedState) continue;
        if (takes(local.substr(0, colon), addrHostOrder)) inodes.insert(inode);
    }
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

std::vector<std::string> entriesOf(const std::string& path) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path.c_str()));
    if (!directory) return names;
    while (const dirent* entry = ::readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe)
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) names.emplace_back(entry->d_name);
    }
    return names;
}

bool holdsOneOf(const std::string& pid, const Inodes& inodes) {
    for (const std::string& fd : entriesOf(fmt::format("/proc/{}/fd", pid))) {
        char target[64];  // "socket:[4294967295]" and shorter; longer ones are no sockets
        const ssize_t length =
            ::readlink(fmt::format("/proc/{}/fd/{}", pid, fd).c_str(), target, sizeof target);
        if (length <= 0) continue;
        const std::string link(target, static_cast<std::size_t>(length));
        if (link.compare(0, 8, "socket:[") != 0 || link.back() != ']') continue;
        if (inodes.count(link.substr(8, link.size() - 9)) != 0) return true;
    }
    return false;
}

std::string commandOf(const std::string& pid) {
    std::ifstream file(fmt::format("/proc/{}/comm", pid));
    std::string command;
    std::getline(file, command);
    return printable(command);
}

// `known` is a process that is known to have one of the sockets, and is not looked for; 0: none.
std::optional<PortOwner> ownerOf(const Inodes& inodes, int known) {
    if (inodes.size() <= (known != 0 ? 1U : 0U)) return std::nullopt;
    const std::string self = std::to_string(::getpid());
    for (const std::string& pid : entriesOf("/proc")) {
        if (pid == self || pid == std::to_string(known) || !holdsOneOf(pid, inodes)) continue;
        return PortOwner{std::atoi(pid.c_str()), commandOf(pid)};
    }
    return PortOwner{};
}

}  // namespace

std::optional<PortOwner> portOwner(unsigned port, NwIpv4Addr addrHostOrder, int knownPid) {
    Inodes inodes;
    collectInodes("/proc/self/net/udp", "", port, addrHostOrder, inodes);
    collectInodes("/proc/self/net/udp6", "", port, addrHostOrder, inodes);
    return ownerOf(inodes, knownPid);
}

std::optional<PortOwner> tcpPortOwner(unsigned port) {
    const char* const listening = "0A";  // TCP_LISTEN, as the kernel prints it
    Inodes inodes;
    collectInodes("/proc/self/net/tcp", listening, port, 0, inodes);
    collectInodes("/proc/self/net/tcp6", listening, port, 0, inodes);
    return ownerOf(inodes, 0);
}

int freeUdpPort() {
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (!socket || ::bind(socket.get(), generic, length) != 0 ||
        ::getsockname(socket.get(), generic, &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

std::string portOwnerText(const PortOwner& owner) {
    if (owner.pid == 0) return "a process that this user may not look into";
    return fmt::format("process {} ({})", owner.pid, owner.command);
}

}  // namespace cvnet
