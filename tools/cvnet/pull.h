// SPDX-License-Identifier: BSD-3-Clause
// `cvnet pull`: receives whole files into a directory through the library.
#ifndef CVNET_PULL_H
#define CVNET_PULL_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makePullCommand();

}  // namespace cvnet

#endif
