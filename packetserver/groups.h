// SPDX-License-Identifier: BSD-3-Clause
// The multicast groups that a port's clients wish for.
#ifndef PACKETSERVER_GROUPS_H
#define PACKETSERVER_GROUPS_H

#include <map>
#include <vector>

#include <cvutil/cvInetAddr.h>

namespace packetserver {

/// Joins each group with the first wish and leaves it with the last. The kernel limits how many groups one
/// socket joins, so memberships are held by sockets of their own, as many as it takes: a datagram to a group
/// that any of them has joined reaches the port's socket.
class Groups {
public:
    /// Memberships on the interface with this address; 0: the system's choice.
    explicit Groups(NwIpv4Addr device);
    ~Groups();
    Groups(const Groups&) = delete;
    Groups& operator=(const Groups&) = delete;

    /// False, errno set, when the group cannot be joined; the wish does not count then.
    bool wish(NwIpv4Addr group);
    void unwish(NwIpv4Addr group);

    std::size_t count() const { return joined_.size(); }

private:
    struct Socket {
        int fd;
        unsigned groups;
    };
    struct Membership {
        int socketFd;
        unsigned wishes;
    };

    int join(NwIpv4Addr group);
    bool change(int socketFd, int option, NwIpv4Addr group) const;

    const NwIpv4Addr device_;
    std::vector<Socket> sockets_;  // each has joined a group at least
    std::map<NwIpv4Addr, Membership> joined_;
};

}  // namespace packetserver

#endif
