// SPDX-License-Identifier: BSD-3-Clause
// `cvnet relay`: a relay between TCP clients that a site can leave running.
#ifndef CVNET_RELAY_H
#define CVNET_RELAY_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makeRelayCommand();

}  // namespace cvnet

#endif
