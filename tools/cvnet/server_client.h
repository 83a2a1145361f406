// SPDX-License-Identifier: BSD-3-Clause
// A packet-server client among recv's and send's packets: what the server has to say in between, and how it
// ends.
#ifndef CVNET_SERVER_CLIENT_H
#define CVNET_SERVER_CLIENT_H

#include <cstdint>
#include <optional>

#include "options.h"
#include "output.h"
#include "server_socket.h"
#include "stop_signal.h"

namespace cvnet {

class ServerClient {
public:
    /// Uses all of these as long as it exists; the socket is attached and does not wait.
    ServerClient(NwClientSocket& socket, int port, const ReportOptions& report, Output& out)
        : socket_(socket), port_(port), report_(report), out_(out) {}

    unsigned id() const { return idOf(socket_); }
    bool isInternal() { return socket_.isInternal(); }

    /// Returns once the server has done everything that this client has asked for so far. What came before
    /// is dropped. Throws Failure.
    void settle();

    /// To be called with the status of each receive: shows a message that came in the place of a packet.
    /// Throws when the attachment is over, a failure of exit status 0 after an orderly stop.
    void look(int status);

    /// For who does not receive: takes what has come, packets too, and looks at it.
    void discardIncoming();

    void wait(std::optional<Clock::time_point> until) { waitForServer(socket_, until); }

    /// Asks the server, a second long, for its last figures about this client.
    void finish();

    /// Packets that the server's filters kept back since settle(); known after finish(), if the server
    /// answered.
    std::optional<std::uint64_t> filtered() const { return filtered_; }
    /// Packets that did not fit the queue, as far as the server has told.
    std::uint64_t dropped() const { return dropped_; }

private:
    void makeRoom();
    void show(const NwCsMsg& message);
    void showNotice(int code);
    void countDrops(std::uint64_t count);

    NwClientSocket& socket_;
    const int port_;
    const ReportOptions& report_;
    Output& out_;
    std::uint64_t filteredBefore_ = 0;
    std::uint64_t droppedBefore_ = 0;
    std::optional<std::uint64_t> filtered_;
    std::uint64_t dropped_ = 0;
};

}  // namespace cvnet

#endif
