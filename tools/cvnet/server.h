// SPDX-License-Identifier: BSD-3-Clause
// cvnet server: asks the packet server of a port, and tells it what to do.
#ifndef CVNET_SERVER_H
#define CVNET_SERVER_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makeServerCommand();

}  // namespace cvnet

#endif
