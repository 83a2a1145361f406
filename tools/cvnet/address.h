// SPDX-License-Identifier: BSD-3-Clause
// IPv4 addresses as users write them, and the interfaces of this host. Addresses are in host byte order.
#ifndef CVNET_ADDRESS_H
#define CVNET_ADDRESS_H

#include <string>
#include <vector>

#include <cvutil/cvInetAddr.h>

namespace cvnet {

/// "10.1.2.3". Throws UsageFailure for anything else; `option` is named in its text.
NwIpv4Addr addressFromText(const std::string& text, const std::string& option);

std::string addressText(NwIpv4Addr addrHostOrder);

/// "10.1.2.3:3000".
std::string endpointText(NwIpv4Addr addrHostOrder, unsigned port);

struct Endpoint {
    NwIpv4Addr addrHostOrder = 0;
    unsigned port = 0;

    std::string text() const { return endpointText(addrHostOrder, port); }
};

/// "10.1.2.3:3000" or "relay.site:3000"; a name is looked up. Throws UsageFailure for what is none of them,
/// Failure for a name without an IPv4 address; `option` is named in the former.
Endpoint endpointFromText(const std::string& text, const std::string& option);

struct Interface {
    std::string name;
    bool hasAddress = false;
    NwIpv4Addr addrHostOrder = 0;
    NwIpv4Addr maskHostOrder = 0;
    unsigned flags = 0;  // IFF_...
};

/// One entry an address, in the system's order; interfaces without an IPv4 address come with none.
std::vector<Interface> hostInterfaces();

/// The local address that `nameOrAddress` stands for. Throws Failure, naming those that exist.
NwIpv4Addr interfaceAddress(const std::string& nameOrAddress);

/// The address of this host that the system would use towards `addrHostOrder`; 0 when there is no way.
/// Nothing is sent.
NwIpv4Addr localAddressTowards(NwIpv4Addr addrHostOrder);

}  // namespace cvnet

#endif
