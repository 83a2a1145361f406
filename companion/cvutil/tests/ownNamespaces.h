// SPDX-License-Identifier: BSD-3-Clause
// Gives a test process namespaces of its own, so that what it leaves behind in the system goes with it and
// nobody meets what it makes.
#ifndef CVUTIL_TESTS_OWNNAMESPACES_H
#define CVUTIL_TESTS_OWNNAMESPACES_H

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstring>
#include <string>

inline bool writeFile(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool isWritten = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return isWritten;
}

// True: this process is alone in namespaces of these kinds (CLONE_NEW...), its user still the same. False
// where the system does not allow it: not root, and no user namespaces or more than one thread.
inline bool enterOwnNamespaces(int kinds) {
    if (::unshare(kinds) == 0) return true;
    const std::string uid = std::to_string(::geteuid());
    const std::string gid = std::to_string(::getegid());
    if (::unshare(kinds | CLONE_NEWUSER) != 0) return false;
    return writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/uid_map", uid + " " + uid + " 1") &&
           writeFile("/proc/self/gid_map", gid + " " + gid + " 1");
}

#endif
