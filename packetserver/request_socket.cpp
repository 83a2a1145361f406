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
#include <cstdio>
#include <cstring>

#include <cvutil/cvPacketServer.h>

namespace packetserver {

namespace {

const char* const lockSuffix = ".lock";

}  // namespace

RequestSocket::RequestSocket(const std::string& directory, int port, bool isForEverybody) {
    char path[NwPacketServerPathSize];
    if (NwPacketServerPathIn(directory.c_str(), static_cast<unsigned>(port), path, NwPacketServerVersion) ==
        nullptr) {
        problem_ = "the name of the directory is too long: " + directory;
        return;
    }
    path_ = path;
    if (lock() && lockPort(port)) open(isForEverybody);
}

RequestSocket::~RequestSocket() {
    if (fd_ >= 0) {
        ::unlink(path_.c_str());
        ::close(fd_);
    }
    if (portFd_ >= 0) ::close(portFd_);
    if (lockFd_ < 0) return;
    ::unlink((path_ + lockSuffix).c_str());
    ::close(lockFd_);
}

bool RequestSocket::fail(const std::string& what) {
    problem_ = what + ": " + std::strerror(errno);
    return false;
}

// A lock on a file that its last owner has just removed excludes nobody: then once more.
bool RequestSocket::lock() {
    const std::string lockPath = path_ + lockSuffix;
    for (;;) {
        lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (lockFd_ < 0) return fail("cannot open " + lockPath);
        if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) break;
        struct stat locked {};
        struct stat named {};
        if (::fstat(lockFd_, &locked) == 0 && ::lstat(lockPath.c_str(), &named) == 0 &&
            locked.st_ino == named.st_ino && locked.st_dev == named.st_dev)
            return true;
        ::close(lockFd_);
    }
    const bool isServed = errno == EWOULDBLOCK;
    if (!isServed) fail("cannot lock " + lockPath);
    if (isServed) problem_ = "another packet server serves this port: " + path_;
    ::close(lockFd_);
    lockFd_ = -1;
    return false;
}

// The lock file knows one directory. A name that the whole network namespace shares, gone with its process,
// keeps servers with other directories away: they would open the port as well, and split its traffic.
bool RequestSocket::lockPort(int port) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int length =
        std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "cvpacketserver-%d", port);
    portFd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const std::size_t size = offsetof(sockaddr_un, sun_path) + 1 + static_cast<std::size_t>(length);
    if (portFd_ >= 0 &&
        ::bind(portFd_, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(size)) == 0)
        return true;
    if (errno != EADDRINUSE) return fail("cannot lock the port");
    problem_ = "another packet server serves this port, with another run directory";
    return false;
}

bool RequestSocket::open(bool isForEverybody) {
    const int opened = NwOpenUnixDgram(path_.c_str(), NwUnixDgramBind, nullptr);
    if (opened < 0) return fail("cannot open " + path_);
    const int on = 1;
    if (::setsockopt(opened, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
        ::fcntl(opened, F_SETFL, O_NONBLOCK) != 0 ||
        ::chmod(path_.c_str(), isForEverybody ? 0666 : 0600) != 0) {
        fail("cannot set up " + path_);
        ::unlink(path_.c_str());
        ::close(opened);
        return false;
    }
    fd_ = opened;
    return true;
}

RequestSocket::Result RequestSocket::next(NwCsMsg& request, Sender& sender, const char*& why) {
    request = NwCsMsg{};
    iovec room{&request, sizeof request};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred)) + 64];
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
        } else if (part->cmsg_type == SCM_RIGHTS) {  // nobody asked for descriptors: close them
            const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < count; ++i) {
                int given = -1;
                std::memcpy(&given, CMSG_DATA(part) + i * sizeof given, sizeof given);
                ::close(given);
            }
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
