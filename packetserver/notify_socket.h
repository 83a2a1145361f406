// SPDX-License-Identifier: BSD-3-Clause
// A client's notify socket, seen from the server.
#ifndef PACKETSERVER_NOTIFY_SOCKET_H
#define PACKETSERVER_NOTIFY_SOCKET_H

#include <sys/types.h>

#include <string>

#include <cvutil/cvPacketServerMsgs.h>

namespace packetserver {

/// Reached by the path that the client gave: a socket of the client's user, directly in /tmp, where clients
/// make theirs. Elsewhere a path could lead into a file system that never answers. What is at the path later
/// is of no matter.
class NotifySocket {
public:
    NotifySocket(const std::string& path, uid_t owner);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// Why it cannot be reached; empty when it can.
    const std::string& problem() const { return problem_; }

    /// Sends a message, or wakes the client. Neither ever waits: what the client has no room for is lost.
    /// False when the message did not reach it. When its socket is closed its path goes too.
    bool answer(const NwClientServerMsg& message) const;
    void wake() const;

    /// Removes the path, if it is still this socket's: for a client that died.
    void removePath() const;

private:
    void connect(uid_t owner);
    int openPath();

    const std::string path_;
    std::string problem_;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace packetserver

#endif
