// SPDX-License-Identifier: BSD-3-Clause
#include "groups.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace packetserver {

Groups::Groups(NwIpv4Addr device) : device_(device) {}

Groups::~Groups() {
    for (const int socketFd : sockets_) ::close(socketFd);
}

bool Groups::wish(NwIpv4Addr group) {
    const auto found = joined_.find(group);
    if (found != joined_.end()) {
        ++found->second.wishes;
        return true;
    }
    const int socketFd = join(group);
    if (socketFd < 0) return false;
    joined_[group] = Membership{socketFd, 1};
    return true;
}

void Groups::unwish(NwIpv4Addr group) {
    const auto found = joined_.find(group);
    if (found == joined_.end() || --found->second.wishes > 0) return;
    change(found->second.socketFd, IP_DROP_MEMBERSHIP, group);
    joined_.erase(found);
}

// The socket that has joined, or -1 with errno: the newest one first, since older ones are full more often.
int Groups::join(NwIpv4Addr group) {
    for (auto socketFd = sockets_.rbegin(); socketFd != sockets_.rend(); ++socketFd) {
        if (change(*socketFd, IP_ADD_MEMBERSHIP, group)) return *socketFd;
        if (errno != ENOBUFS) return -1;  // another reason than this socket being full
    }
    const int added = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (added < 0) return -1;
    if (!change(added, IP_ADD_MEMBERSHIP, group)) {
        const int error = errno;
        ::close(added);
        errno = error;
        return -1;
    }
    sockets_.push_back(added);
    return added;
}

bool Groups::change(int socketFd, int option, NwIpv4Addr group) const {
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(device_);
    return ::setsockopt(socketFd, IPPROTO_IP, option, &membership, sizeof membership) == 0;
}

}  // namespace packetserver
