// SPDX-License-Identifier: BSD-3-Clause
// `cvnet send`: sends a recorded capture, or synthetic entities, through the library.
#ifndef CVNET_SEND_H
#define CVNET_SEND_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makeSendCommand();

}  // namespace cvnet

#endif
