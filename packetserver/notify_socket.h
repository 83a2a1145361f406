// SPDX-License-Identifier: BSD-3-Clause
// A client's notify socket, seen from the server.
#ifndef PACKETSERVER_NOTIFY_SOCKET_H
#define PACKETSERVER_NOTIFY_SOCKET_H

#include <sys/types.h>

#include <string>

namespace packetserver {

/// Reached by the path that the client gave: a socket of the client's user, without a symbolic link on the
/// way. What is at the path later is of no matter.
class NotifySocket {
public:
    NotifySocket(const std::string& path, uid_t owner);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// Why it cannot be reached; empty when it can.
    const std::string& problem() const { return problem_; }

    /// Never waits: what the client has no room for is lost.
    int fd() const { return fd_; }
    void wake() const;

    /// Removes the path, if it is still this socket's: for a client that died.
    void removePath() const;

private:
    void connect(const std::string& path, uid_t owner);

    std::string problem_;
    std::string name_;  // last component
    int directoryFd_ = -1;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace packetserver

#endif
