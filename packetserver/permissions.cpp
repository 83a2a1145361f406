// SPDX-License-Identifier: BSD-3-Clause
#include "permissions.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace packetserver {

namespace {

bool isOwnerOrRoot(uid_t uid) {
    return uid == 0 || uid == ::geteuid();
}

/// The supplementary groups of a process of that user; none when it has ended. The system knows them; a user
/// database may be slow to answer, and everybody would wait.
std::vector<gid_t> groupsOf(pid_t process, uid_t uid) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    bool isHis = false;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string field;
        words >> field;
        if (field == "Uid:") {
            uid_t real = 0;
            isHis = words >> real && real == uid;
        } else if (field == "Groups:" && isHis) {
            return {std::istream_iterator<gid_t>(words), std::istream_iterator<gid_t>()};
        }
    }
    return {};
}

}  // namespace

bool Permissions::mayAttach(uid_t uid, gid_t gid, pid_t process) const {
    if (everybody || isOwnerOrRoot(uid) || users.count(uid) != 0 || groups.count(gid) != 0) return true;
    if (groups.empty()) return false;
    const std::vector<gid_t> own = groupsOf(process, uid);
    return std::any_of(own.begin(), own.end(), [this](gid_t group) { return groups.count(group) != 0; });
}

bool Permissions::mayControl(uid_t uid) const {
    return control || isOwnerOrRoot(uid);
}

}  // namespace packetserver
