// SPDX-License-Identifier: BSD-3-Clause
#include "notify_socket.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace packetserver {

namespace {

/// Opens a directory without following a link on the way; where the kernel cannot promise that (before Linux
/// 5.6), the last component alone is watched.
int openDirectory(const std::string& path) {
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long opened = ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    if (opened >= 0 || (errno != ENOSYS && errno != EPERM)) return static_cast<int>(opened);
    return ::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

}  // namespace

NotifySocket::NotifySocket(const std::string& path, uid_t owner) {
    connect(path, owner);
}

NotifySocket::~NotifySocket() {
    if (fd_ >= 0) ::close(fd_);
    if (directoryFd_ >= 0) ::close(directoryFd_);
}

void NotifySocket::connect(const std::string& path, uid_t owner) {
    const std::string::size_type slash = path.rfind('/');
    name_ = path.substr(slash + 1);
    directoryFd_ = openDirectory(slash == 0 ? "/" : path.substr(0, slash));
    const int socketPath =
        directoryFd_ < 0 ? -1 : ::openat(directoryFd_, name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat status {};
    if (socketPath < 0 || ::fstat(socketPath, &status) != 0) {
        problem_ = std::string("cannot be reached: ") + std::strerror(errno);
    } else if (!S_ISSOCK(status.st_mode)) {
        problem_ = "is no socket";
    } else if (status.st_uid != owner) {
        problem_ = "belongs to another user";
    } else {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d", socketPath);
        device_ = status.st_dev;
        inode_ = status.st_ino;
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            problem_ = std::string("cannot be connected to: ") + std::strerror(errno);
    }
    if (socketPath >= 0) ::close(socketPath);
}

void NotifySocket::wake() const {
    const char datagram[2] = {0, 0};
    ::send(fd_, datagram, sizeof datagram, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void NotifySocket::removePath() const {
    struct stat status {};
    if (::fstatat(directoryFd_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_dev == device_ && status.st_ino == inode_)
        ::unlinkat(directoryFd_, name_.c_str(), 0);
}

}  // namespace packetserver
