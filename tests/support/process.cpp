// SPDX-License-Identifier: BSD-3-Clause
#include "process.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>

std::size_t residentBytes() {
    std::size_t totalPages = 0, residentPages = 0;
    std::ifstream("/proc/self/statm") >> totalPages >> residentPages;
    return residentPages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

int openDescriptors() {
    DIR* directory = ::opendir("/proc/self/fd");
    int count = 0;
    while (directory && ::readdir(directory)) ++count;
    if (directory) ::closedir(directory);
    return count - 3;  // without ".", ".." and the directory itself
}
