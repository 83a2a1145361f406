// SPDX-License-Identifier: BSD-3-Clause
// `cvnet push`: sends whole files to a transporter through the library.
#ifndef CVNET_PUSH_H
#define CVNET_PUSH_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makePushCommand();

}  // namespace cvnet

#endif
