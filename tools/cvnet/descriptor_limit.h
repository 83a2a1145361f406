// SPDX-License-Identifier: BSD-3-Clause
// How many descriptors the process may have open.
#ifndef CVNET_DESCRIPTOR_LIMIT_H
#define CVNET_DESCRIPTOR_LIMIT_H

#include <cstddef>

namespace cvnet {

/// How many more descriptors could be opened, after raising the process's own limit (RLIMIT_NOFILE) as far as
/// `wanted` more ask for and the system lets it. Throws Failure when /proc cannot be read.
std::size_t descriptorsLeft(std::size_t wanted);

}  // namespace cvnet

#endif
