// SPDX-License-Identifier: BSD-3-Clause
// Where clients reach the server: one Unix datagram socket for each port, and the locks that keep a second
// server away.
#ifndef PACKETSERVER_REQUEST_SOCKET_H
#define PACKETSERVER_REQUEST_SOCKET_H

#include <sys/types.h>

#include <string>

#include <cvutil/cvPacketServerMsgs.h>

namespace packetserver {

/// Who sent a request, as the system says.
struct Sender {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

class RequestSocket {
public:
    /// Takes the locks for `port`; clients find nothing yet. On failure, here as in open(), isOk() is false
    /// and problem() says why, in one line.
    RequestSocket(const std::string& directory, int port);
    /// Removes the path and the lock file.
    ~RequestSocket();
    RequestSocket(const RequestSocket&) = delete;
    RequestSocket& operator=(const RequestSocket&) = delete;

    /// Opens the socket in `directory`, for everybody or the own user alone. Clients take the server for
    /// running from now on.
    bool open(bool isForEverybody);

    bool isOk() const { return problem_.empty(); }
    const std::string& problem() const { return problem_; }
    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

    enum class Result { nothing, request, refused };
    /// Takes the next datagram. A request is checked in form and filled up with zeros; `why` tells what is
    /// wrong with one that is refused.
    Result next(NwCsMsg& request, Sender& sender, const char*& why);

private:
    bool lockFile();
    bool lockPort(int port);
    bool bind();
    bool fail(const std::string& what);

    std::string path_;
    std::string lockPath_;  // kept for the end, which must not need memory
    std::string problem_;
    int fileLockFd_ = -1;
    int portLockFd_ = -1;
    int fd_ = -1;
};

}  // namespace packetserver

#endif
