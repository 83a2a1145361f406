// SPDX-License-Identifier: BSD-3-Clause
// The whole program but its command line: serves every port until it is told to stop.
#ifndef PACKETSERVER_DAEMON_H
#define PACKETSERVER_DAEMON_H

#include "options.h"

namespace packetserver {

/// Runs in the foreground until SIGINT, SIGTERM, or the last of its ports was told to stop by a client.
/// Returns the exit status.
int runDaemon(Options options);

}  // namespace packetserver

#endif
