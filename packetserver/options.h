// SPDX-License-Identifier: BSD-3-Clause
// The command line of cvpacketserver.
#ifndef PACKETSERVER_OPTIONS_H
#define PACKETSERVER_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "server.h"

namespace packetserver {

struct Options {
    std::vector<int> ports;
    ServerSettings server;
    unsigned statisticsSeconds = 0;  // 0: none
    bool isJson = false;
    std::string logFile;
};

/// Reads the command line. Nothing when the program is to end at once, with *status: after --help or
/// --version, or a usage error, which has been printed.
std::optional<Options> readOptions(int argc, char** argv, int* status);

}  // namespace packetserver

#endif
