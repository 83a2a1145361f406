// SPDX-License-Identifier: BSD-3-Clause
// Prints what a shared library exports, in the form of the checked-in lists: list_exports LIBRARY
#include <cstdio>
#include <exception>

#include "elf_file.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
        return 2;
    }
    try {
        for (const std::string& line : exportedNames(ElfFile(argv[1]))) std::puts(line.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "list_exports: %s\n", error.what());
        return 1;
    }
    return 0;
}
