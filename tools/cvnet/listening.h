// SPDX-License-Identifier: BSD-3-Clause
// TCP ports that sub-commands listen on through the library.
#ifndef CVNET_LISTENING_H
#define CVNET_LISTENING_H

#include <string>

namespace cvnet {

/// Whether the descriptor listens: two that bind to a port at the same moment may both succeed, and only one
/// of them listens.
bool listens(int fd);

/// Throws Failure: "cannot listen on port 4000: ", the reason, and which process has the port.
[[noreturn]] void failToListen(int port, const std::string& reason);

}  // namespace cvnet

#endif
