// SPDX-License-Identifier: BSD-3-Clause
#include "permissions.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace packetserver {

namespace {

bool isOwnerOrRoot(uid_t uid) {
    return uid == 0 || uid == ::geteuid();
}

/// The groups that the user database knows of a user, besides `gid`.
std::vector<gid_t> groupsOf(uid_t uid, gid_t gid) {
    const passwd* user = ::getpwuid(uid);
    if (user == nullptr) return {gid};
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgrouplist(user->pw_name, gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
        if (::getgrouplist(user->pw_name, gid, groups.data(), &count) < 0) return {gid};
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

}  // namespace

bool Permissions::mayAttach(uid_t uid, gid_t gid) const {
    if (everybody || isOwnerOrRoot(uid) || users.count(uid) != 0) return true;
    if (groups.empty()) return false;
    const std::vector<gid_t> own = groupsOf(uid, gid);
    return std::any_of(own.begin(), own.end(), [this](gid_t group) { return groups.count(group) != 0; });
}

bool Permissions::mayControl(uid_t uid) const {
    return control || isOwnerOrRoot(uid);
}

}  // namespace packetserver
