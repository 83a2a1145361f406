// SPDX-License-Identifier: BSD-3-Clause
#include <fcntl.h>
#include <unistd.h>

#include "daemon.h"

namespace {

// Started with one of them closed, the next socket or file would take its number, and the log would end up in
// there.
void fillStandardDescriptors() {
    int fd = 0;
    while ((fd = ::open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) {
    }
    if (fd >= 0) ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    int status = 0;
    const auto options = packetserver::readOptions(argc, argv, &status);
    return options ? packetserver::runDaemon(*options) : status;
}
