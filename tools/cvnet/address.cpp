// SPDX-License-Identifier: BSD-3-Clause
// Addresses and interfaces: what the library does not tell (names, flags) comes from getifaddrs.
#include "address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <memory>

#include <fmt/format.h>

#include <cvNetworkCompatibility/cvNetSocket.h>

#include "descriptor.h"
#include "failure.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr unsigned kMaxPort = 65535;

NwIpv4Addr hostOrder(const sockaddr* address) {
    return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
}

NwIpv4Addr hostAddress(const std::string& host) {
    NwIpv4Addr address = 0;
    if (NwInetAddrFromString(host.c_str(), &address)) return address;
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(host.c_str(), nullptr, &wanted, &found);
    if (error != 0)
        throw Failure(fmt::format("cannot look up {}: {}", printable(host), ::gai_strerror(error)));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, ::freeaddrinfo);
    return hostOrder(found->ai_addr);
}

std::string knownInterfaces(const std::vector<Interface>& interfaces) {
    std::string known;
    for (const Interface& entry : interfaces) {
        if (!entry.hasAddress) continue;
        known += fmt::format("{}{} {}", known.empty() ? "" : ", ", printable(entry.name),
                             addressText(entry.addrHostOrder));
    }
    return known.empty() ? "none has an IPv4 address" : known;
}

}  // namespace

NwIpv4Addr addressFromText(const std::string& text, const std::string& option) {
    NwIpv4Addr address = 0;
    if (!NwInetAddrFromString(text.c_str(), &address)) {
        throw UsageFailure(
            fmt::format("{}: '{}' is no IPv4 address (four numbers of 0 to 255)", option, printable(text)));
    }
    return address;
}

std::string addressText(NwIpv4Addr addrHostOrder) {
    return NwInetAddrString(addrHostOrder);
}

std::string endpointText(NwIpv4Addr addrHostOrder, unsigned port) {
    if (port == 0) return NwInetAddrString(addrHostOrder);  // not known
    return fmt::format("{}:{}", NwInetAddrString(addrHostOrder), port);
}

Endpoint endpointFromText(const std::string& text, const std::string& option) {
    const std::size_t colon = text.rfind(':');
    const std::string host = text.substr(0, colon);
    const std::string digits = colon == std::string::npos ? "" : text.substr(colon + 1);
    const bool isNumber =
        !digits.empty() && digits.size() <= 5 && digits.find_first_not_of("0123456789") == std::string::npos;
    Endpoint endpoint;
    if (isNumber) endpoint.port = static_cast<unsigned>(std::stoul(digits));
    if (host.empty() || endpoint.port == 0 || endpoint.port > kMaxPort) {
        throw UsageFailure(
            fmt::format("{}: '{}' is no HOST:PORT (as in 10.1.2.3:3000)", option, printable(text)));
    }
    endpoint.addrHostOrder = hostAddress(host);
    return endpoint;
}

std::vector<Interface> hostInterfaces() {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        const int error = errno;
        throw Failure("cannot list the interfaces: " + errorText(error));
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(first, ::freeifaddrs);
    std::vector<Interface> addressed;
    std::vector<Interface> bare;  // each interface comes once with its link address, before all others
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        Interface found;
        found.name = entry->ifa_name;
        found.flags = entry->ifa_flags;
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            found.hasAddress = true;
            found.addrHostOrder = hostOrder(entry->ifa_addr);
            if (entry->ifa_netmask != nullptr) found.maskHostOrder = hostOrder(entry->ifa_netmask);
            addressed.push_back(found);
        } else if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family == AF_PACKET) {
            bare.push_back(found);
        }
    }
    for (const Interface& candidate : bare) {
        // A label such as eth0:1 belongs to eth0.
        const auto sameDevice = [&](const Interface& entry) {
            return entry.name.substr(0, entry.name.find(':')) == candidate.name;
        };
        if (std::none_of(addressed.begin(), addressed.end(), sameDevice)) addressed.push_back(candidate);
    }
    return addressed;
}

NwIpv4Addr interfaceAddress(const std::string& nameOrAddress) {
    const std::vector<Interface> interfaces = hostInterfaces();
    NwIpv4Addr wanted = 0;
    const bool isAddress = NwInetAddrFromString(nameOrAddress.c_str(), &wanted);
    for (const Interface& entry : interfaces) {
        if (!entry.hasAddress) continue;
        if (isAddress ? entry.addrHostOrder == wanted : entry.name == nameOrAddress)
            return entry.addrHostOrder;
    }
    throw Failure(fmt::format("no interface of this host {} {} (known: {})",
                              isAddress ? "has the address" : "with an IPv4 address is called",
                              printable(nameOrAddress), knownInterfaces(interfaces)));
}

NwIpv4Addr localAddressTowards(NwIpv4Addr addrHostOrder) {
    const Descriptor probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe) return 0;
    sockaddr_in address{};
    // Any port will do: connecting a datagram socket only looks up the route.
    NwNetSocket::setInetAddr(address, addrHostOrder, 9);
    if (::connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 0;
    socklen_t length = sizeof address;
    if (::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    return ntohl(address.sin_addr.s_addr);
}

}  // namespace cvnet
