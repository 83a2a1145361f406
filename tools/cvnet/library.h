// SPDX-License-Identifier: BSD-3-Clause
// The library inside a command-line tool: it never ends the process by itself, and what it says becomes
// part of the tool's own lines.
#ifndef CVNET_LIBRARY_H
#define CVNET_LIBRARY_H

#include <string>
#include <vector>

namespace cvnet {

/// Room for any UDP datagram over IPv4: 65535 bytes less the IPv4 and UDP headers.
constexpr int kMaxPayload = 65507;

/// Sets initErrorAction, the fatal handler, the packet size and the message buffers. Call once, before any
/// socket exists.
void prepareLibrary();

/// The last warning of the library since the last call, on one line and without its end of line; empty
/// when there was none. Sending and receiving warn about a packet or a call, never more than one at a time.
std::string takeLibraryWarning();

/// All of them, oldest first, for calls that warn more than once: at most the latest 16.
std::vector<std::string> takeLibraryWarnings();

/// The reason in a warning of the form "call: reason", else the warning itself; `otherwise` when there was
/// none.
std::string takeLibraryReason(const std::string& otherwise);
std::string reasonIn(const std::string& warning);

}  // namespace cvnet

#endif
