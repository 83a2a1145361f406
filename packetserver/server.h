// SPDX-License-Identifier: BSD-3-Clause
// The server of one port: takes datagrams from its socket and gives each client what it wants of them.
#ifndef PACKETSERVER_SERVER_H
#define PACKETSERVER_SERVER_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <cvutil/cvInetAddr.h>

#include "client.h"
#include "event_loop.h"
#include "groups.h"
#include "log.h"
#include "permissions.h"
#include "port_socket.h"
#include "request_socket.h"

namespace packetserver {

/// What the command line says of every port.
struct ServerSettings {
    std::string directory;     // of the request sockets
    NwIpv4Addr interface = 0;  // for groups; 0: the system's choice
    std::vector<NwIpv4Addr> groups;
    unsigned clients = 32;        // at once, control-only ones not counted
    unsigned controlClients = 8;  // at once
    unsigned long queueBytes = 4UL << 20;
    bool isInternal = false;
    bool unbundles = true;
    Permissions permissions;
};

class Server {
public:
    Server(int port, const ServerSettings& settings, EventLoop& loop, Log& log);
    /// Tells every client that the server has stopped, and removes all that was made for them.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Opens socket and request path and begins to serve. On failure problem() says why, in one line.
    bool start();
    const std::string& problem() const { return problem_; }

    /// To be called about once a second: lets go of clients that died, tells of drops what had no room
    /// before, and renews what the log and requests are rationed by.
    void tick();
    /// Logs a line for the port and one for each client.
    void logStatistics();

    /// Whether a client with permission has asked the server to stop.
    bool isAskedToStop() const { return isAskedToStop_; }

private:
    using Clients = std::map<int, std::unique_ptr<Client>>;  // by identifier

    bool openPort();
    void readPackets();
    void distribute(const PortSocket::Packet& packet, NwIpv4Addr source);
    void publish();

    void readRequests();
    void serve(const NwCsMsg& request, const Sender& sender);
    void attach(const NwCsAddClientMsg& request, const Sender& sender);
    std::string objectionTo(const NotifySocket& notify, const Sender& sender) const;
    int newId();
    void watchEnd(const Client& client);
    bool hasPlace(bool isControlOnly);
    unsigned pendingOf(pid_t process) const;
    bool makeQueue(Client& client, long capacity) const;
    void refuse(NotifySocket& notify, const Sender& sender, const std::string& why);
    void turnAway(NotifySocket& notify, const Sender& sender);
    bool mayTell();
    void setFilter(const NwCsFilterMsg& request, const Sender& sender);
    void changeGroups(const NwCsMulticastReqMsg& request, const Sender& sender);
    void control(const NwCsControlReqMsg& request, const Sender& sender);
    void callAll(Client& asking, unsigned short request);
    void askToStop(Client& asking);
    void setInternal(Client& asking, bool on);
    void setUnbundling(Client& asking, bool on);
    void sendState(Client& asking);
    void sendClientStates(Client& asking);
    void tellAll(NwCsNoticeCode notice);
    void tellControlOnly(NwCsNoticeCode notice);
    void pingAll();

    void refuseRequest(const Sender& sender, const char* why);
    Client* clientOf(unsigned id, const Sender& sender);
    bool mayControl(Client& asking, const char* what);
    void warn(Client& client, const std::string& text);
    void detach(Clients::iterator client, const char* how);
    void reap();
    void logClient(const char* event, const Client& client, const std::string& words);
    void logDetached(const Client& client, const char* how);
    std::uint64_t kernelDropped() const;
    unsigned count(bool controlOnly) const;

    const int port_;
    const ServerSettings settings_;
    EventLoop& loop_;
    Log& log_;
    std::string problem_;
    const std::chrono::steady_clock::time_point since_;
    std::unique_ptr<PortSocket> socket_;
    std::unique_ptr<RequestSocket> requests_;
    Groups groups_;
    Clients clients_;
    int nextId_ = 0;  // of the last client
    bool isInternal_;
    bool unbundles_;
    bool isAskedToStop_ = false;
    std::uint64_t packets_ = 0;
    std::uint64_t outsideDropped_ = 0;
    std::uint64_t refusedRequests_ = 0;
    std::uint64_t refusedAttaches_ = 0;
    unsigned linesLeft_;              // see mayTell()
    std::uint64_t linesLeftOut_ = 0;  // since the last tick
    unsigned callsLeft_;              // see callAll()
};

}  // namespace packetserver

#endif
