// SPDX-License-Identifier: BSD-3-Clause
// Who may do what: the server's own user and root may do everything, others what the command line allows.
#ifndef PACKETSERVER_PERMISSIONS_H
#define PACKETSERVER_PERMISSIONS_H

#include <sys/types.h>

#include <set>

namespace packetserver {

struct Permissions {
    std::set<uid_t> users;   // may attach
    std::set<gid_t> groups;  // processes that have one of these, primary or not, may attach
    bool everybody = false;  // may attach
    bool control = false;    // whoever attaches may stop the server and switch its mode

    bool mayAttach(uid_t uid, gid_t gid, pid_t process) const;
    bool mayControl(uid_t uid) const;
    /// Whether anybody but the server's user and root may attach.
    bool isShared() const { return everybody || !users.empty() || !groups.empty(); }
};

}  // namespace packetserver

#endif
