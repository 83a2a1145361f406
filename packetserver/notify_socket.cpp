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

const std::string directory = "/tmp/";

/// Opens what is called `name` in a directory: no link, and no mount (which could be one whose server is
/// slow or hostile). Before Linux 5.6 the kernel cannot promise the latter.
int openIn(int directoryFd, const char* name) {
    open_how how{};
    how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    const long opened = ::syscall(SYS_openat2, directoryFd, name, &how, sizeof how);
    if (opened >= 0 || (errno != ENOSYS && errno != EPERM)) return static_cast<int>(opened);
    return ::openat(directoryFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

}  // namespace

NotifySocket::NotifySocket(const std::string& path, uid_t owner) : path_(path) {
    connect(owner);
}

NotifySocket::~NotifySocket() {
    if (fd_ >= 0) ::close(fd_);
}

// The path itself, not what it may become: -1 with errno.
int NotifySocket::openPath() {
    const int directoryFd = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd < 0) return -1;
    const int opened = openIn(directoryFd, path_.c_str() + directory.size());
    const int error = errno;
    ::close(directoryFd);
    errno = error;
    return opened;
}

void NotifySocket::connect(uid_t owner) {
    if (path_.rfind('/') != directory.size() - 1 || path_.compare(0, directory.size(), directory) != 0) {
        problem_ = "is not directly in " + directory;
        return;
    }
    const int socketPath = openPath();
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
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            problem_ = std::string("cannot be connected to: ") + std::strerror(errno);
            if (errno == ECONNREFUSED) removePath();
        }
    }
    if (socketPath >= 0) ::close(socketPath);
}

bool NotifySocket::answer(const NwClientServerMsg& message) const {
    if (fd_ < 0) return false;
    const std::size_t length = static_cast<std::size_t>(message.size());
    if (::send(fd_, &message.bytes(), length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
    if (errno == ECONNREFUSED) removePath();
    return false;
}

void NotifySocket::wake() const {
    const char datagram[2] = {0, 0};
    ::send(fd_, datagram, sizeof datagram, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void NotifySocket::removePath() const {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_)
        ::unlink(path_.c_str());
}

}  // namespace packetserver
