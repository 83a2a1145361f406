// SPDX-License-Identifier: BSD-3-Clause
#include "groups.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace packetserver {

Groups::Groups(NwIpv4Addr device) : device_(device) {}

Groups::~Groups() {
    for (const Socket& socket : sockets_) ::close(socket.fd);
}

bool Groups::wish(NwIpv4Addr group) {
    const auto found = joined_.find(group);
    if (found != joined_.end()) {
        ++found->second.wishes;
        return true;
    }
    // What may find no memory comes first: a group that was joined has its place in both.
    sockets_.reserve(sockets_.size() + 1);
    const auto added = joined_.emplace(group, Membership{-1, 1}).first;
    added->second.socketFd = join(group);
    if (added->second.socketFd >= 0) return true;
    joined_.erase(added);
    return false;
}

void Groups::unwish(NwIpv4Addr group) {
    const auto found = joined_.find(group);
    if (found == joined_.end() || --found->second.wishes > 0) return;
    const int socketFd = found->second.socketFd;
    joined_.erase(found);
    change(socketFd, IP_DROP_MEMBERSHIP, group);
    const auto socket = std::find_if(sockets_.begin(), sockets_.end(),
                                     [socketFd](const Socket& one) { return one.fd == socketFd; });
    if (--socket->groups > 0) return;
    ::close(socketFd);
    sockets_.erase(socket);
}

// The socket that has joined, or -1 with errno; sockets_ has room for one more. The newest one first, since
// older ones are full more often.
int Groups::join(NwIpv4Addr group) {
    for (auto socket = sockets_.rbegin(); socket != sockets_.rend(); ++socket) {
        if (change(socket->fd, IP_ADD_MEMBERSHIP, group)) {
            ++socket->groups;
            return socket->fd;
        }
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
    sockets_.push_back(Socket{added, 1});
    return added;
}

bool Groups::change(int socketFd, int option, NwIpv4Addr group) const {
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(device_);
    return ::setsockopt(socketFd, IPPROTO_IP, option, &membership, sizeof membership) == 0;
}

}  // namespace packetserver
