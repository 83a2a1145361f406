// SPDX-License-Identifier: BSD-3-Clause
#include "listening.h"

#include <sys/socket.h>

#include <fmt/format.h>

#include "failure.h"
#include "port_owner.h"

namespace cvnet {

bool listens(int fd) {
    int isListening = 0;
    socklen_t length = sizeof isListening;
    return ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &isListening, &length) == 0 && isListening != 0;
}

void failToListen(int port, const std::string& reason) {
    const auto owner = port == 0 ? std::nullopt : tcpPortOwner(static_cast<unsigned>(port));
    throw Failure(fmt::format("cannot listen on port {}: {}{}", port, reason,
                              owner ? ", it is open in " + portOwnerText(*owner) : ""));
}

}  // namespace cvnet
