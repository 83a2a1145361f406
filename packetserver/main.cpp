// SPDX-License-Identifier: BSD-3-Clause
#include "daemon.h"

int main(int argc, char** argv) {
    int status = 0;
    const auto options = packetserver::readOptions(argc, argv, &status);
    return options ? packetserver::runDaemon(*options) : status;
}
