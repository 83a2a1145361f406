// SPDX-License-Identifier: BSD-3-Clause
// What the kernel threw away because a socket's receive buffer was full.
#ifndef CVNET_KERNEL_DROPS_H
#define CVNET_KERNEL_DROPS_H

#include <cstdint>
#include <optional>
#include <string>

namespace cvnet {

/// Datagrams dropped since the socket was opened; nothing when the kernel does not tell (before Linux 4.12).
std::optional<std::uint64_t> kernelDrops(int socketFd);

/// "dropped by the kernel: 12".
std::string kernelDropsText(std::optional<std::uint64_t> drops);

}  // namespace cvnet

#endif
