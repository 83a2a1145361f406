// SPDX-License-Identifier: BSD-3-Clause
#include "descriptor_limit.h"

#include <sys/resource.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "failure.h"
#include "text.h"

namespace cvnet {
namespace {

std::size_t openDescriptors() {
    std::error_code error;
    const std::filesystem::directory_iterator list("/proc/self/fd", error);
    if (error) throw Failure("cannot count the open descriptors: " + errorText(error.value()));
    return static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

}  // namespace

std::size_t descriptorsLeft(std::size_t wanted) {
    const std::size_t open = openDescriptors();
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        const int error = errno;
        throw Failure("cannot ask for the limit of descriptors: " + errorText(error));
    }
    if (limit.rlim_cur < open + wanted && limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = std::min<rlim_t>(limit.rlim_max, open + wanted);
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    return limit.rlim_cur > open ? limit.rlim_cur - open : 0;
}

}  // namespace cvnet
