// SPDX-License-Identifier: BSD-3-Clause
// SO_MEMINFO: the kernel's figures of one socket, the same as the drops column of /proc/net/udp.
#include "kernel_drops.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <fmt/format.h>

namespace cvnet {

std::optional<std::uint64_t> kernelDrops(int socketFd) {
    std::uint32_t figures[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof figures;
    if (::getsockopt(socketFd, SOL_SOCKET, SO_MEMINFO, figures, &length) != 0) return std::nullopt;
    if (length < (SK_MEMINFO_DROPS + 1) * sizeof figures[0]) return std::nullopt;
    return figures[SK_MEMINFO_DROPS];
}

std::string kernelDropsText(std::optional<std::uint64_t> drops) {
    return drops ? fmt::format("dropped by the kernel: {}", *drops) : "dropped by the kernel: unknown";
}

}  // namespace cvnet
