// SPDX-License-Identifier: BSD-3-Clause
// `cvnet recv`: receives packets through the library and shows, counts or saves them.
#ifndef CVNET_RECV_H
#define CVNET_RECV_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makeRecvCommand();

}  // namespace cvnet

#endif
