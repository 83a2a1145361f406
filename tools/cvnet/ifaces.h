// SPDX-License-Identifier: BSD-3-Clause
// `cvnet ifaces`: the network interfaces of this host as the library sees them.
#ifndef CVNET_IFACES_H
#define CVNET_IFACES_H

#include <memory>

#include "command.h"

namespace cvnet {

std::unique_ptr<Command> makeIfacesCommand();

}  // namespace cvnet

#endif
