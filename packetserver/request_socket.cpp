// SPDX-License-Identifier: BSD-3-Clause
#include "request_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <cvutil/cvPacketServer.h>

namespace packetserver {

namespace {

const char* const lockSuffix = ".lock";

/// SO_PASSRIGHTS of Linux 6.16 and later: 0 keeps others from sending descriptors.
constexpr int passRights = 83;
/// The most descriptors that come with one message (SCM_MAX_FD).
constexpr std::size_t mostDescriptors = 253;

/// A TCP socket that lingers would hold up the server for as long as its sender pleases.
void closeUnasked(int fd) {
    const linger none{};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    ::close(fd);
}

void closeUnasked(const cmsghdr& rights) {
    const std::size_t count = (rights.cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
        int given = -1;
        std::memcpy(&given, CMSG_DATA(&rights) + i * sizeof given, sizeof given);
        closeUnasked(given);
    }
}

}  // namespace

RequestSocket::RequestSocket(const std::string& directory, int port) {
    char path[NwPacketServerPathSize];
    if (NwPacketServerPathIn(directory.c_str(), static_cast<unsigned>(port), path, NwPacketServerVersion) ==
        nullptr) {
        problem_ = "the name of the directory is too long: " + directory;
        return;
    }
    path_ = path;
    lockPath_ = path_ + lockSuffix;
    if (lockFile()) lockPort(port);
}

RequestSocket::~RequestSocket() {
    if (fd_ >= 0) {
        ::unlink(path_.c_str());
        ::close(fd_);
    }
    if (portLockFd_ >= 0) ::close(portLockFd_);
    if (fileLockFd_ < 0) return;
    ::unlink(lockPath_.c_str());
    ::close(fileLockFd_);
}

bool RequestSocket::fail(const std::string& what) {
    problem_ = what + ": " + std::strerror(errno);
    return false;
}

// A lock on a file that its last owner has just removed excludes nobody: then once more.
bool RequestSocket::lockFile() {
    for (;;) {
        fileLockFd_ = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fileLockFd_ < 0) return fail("cannot open " + lockPath_);
        if (::flock(fileLockFd_, LOCK_EX | LOCK_NB) != 0) break;
        struct stat locked {};
        struct stat named {};
        if (::fstat(fileLockFd_, &locked) == 0 && ::lstat(lockPath_.c_str(), &named) == 0 &&
            locked.st_ino == named.st_ino && locked.st_dev == named.st_dev)
            return true;
        ::close(fileLockFd_);
    }
    const bool isServed = errno == EWOULDBLOCK;
    if (!isServed) fail("cannot lock " + lockPath_);
    if (isServed) problem_ = "another packet server serves this port: " + path_;
    ::close(fileLockFd_);
    fileLockFd_ = -1;
    return false;
}

// Abstract names belong to the network namespace, as ports do: this one keeps away servers of other users and
// directories, with which the traffic would be shared out silently.
bool RequestSocket::lockPort(int port) {
    const std::string name = "cvpacketserver-" + std::to_string(port);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const std::size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    portLockFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (portLockFd_ >= 0 &&
        ::bind(portLockFd_, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)) == 0)
        return true;
    if (errno != EADDRINUSE) return fail("cannot lock @" + name);
    problem_ = "another packet server serves this port, with another run directory: see who has @" + name +
               " (ss -xap)";
    return false;
}

bool RequestSocket::open(bool isForEverybody) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || !bind()) return fail("cannot open " + path_);
    if (isForEverybody && ::chmod(path_.c_str(), 0666) != 0) return fail("cannot set up " + path_);
    return true;
}

// The options come first: there is no moment in which a request comes without its sender, or somebody else
// gets in. What a killed server left at the path goes; the lock says that it is nobody's.
bool RequestSocket::bind() {
    const int on = 1;
    const int off = 0;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.c_str(), path_.size());
    ::setsockopt(fd_, SOL_SOCKET, passRights, &off, sizeof off);  // closeUnasked() serves older systems
    ::unlink(path_.c_str());
    return ::setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 && ::fchmod(fd_, 0600) == 0 &&
           ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

RequestSocket::Result RequestSocket::next(NwCsMsg& request, Sender& sender, const char*& why) {
    request = NwCsMsg{};
    iovec room{&request, sizeof request};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(mostDescriptors * sizeof(int))];
    msghdr message{};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = ::recvmsg(fd_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC | MSG_TRUNC);
    if (length < 0) return Result::nothing;
    bool isSigned = false;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET) continue;
        if (part->cmsg_type == SCM_CREDENTIALS) {
            ucred credentials{};
            std::memcpy(&credentials, CMSG_DATA(part), sizeof credentials);
            sender = Sender{credentials.pid, credentials.uid, credentials.gid};
            isSigned = true;
        } else if (part->cmsg_type == SCM_RIGHTS) {
            closeUnasked(*part);
        }
    }
    if (!isSigned || sender.pid <= 0) {
        why = "no sender that this process can see";
        return Result::refused;
    }
    if (static_cast<std::size_t>(length) > sizeof request) {
        why = "longer than any request";
        return Result::refused;
    }
    why = NwCsRequestProblem(&request, static_cast<long>(length));
    return why == nullptr ? Result::request : Result::refused;
}

}  // namespace packetserver
