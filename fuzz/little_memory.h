// SPDX-License-Identifier: BSD-3-Clause
// Memory that ends early. For one source file of a fuzz target.
#ifndef CVNC_FUZZ_LITTLE_MEMORY_H
#define CVNC_FUZZ_LITTLE_MEMORY_H

#include <cstdint>
#include <cstdlib>
#include <new>

// Announced lengths must cost nothing, but a fuzzer counts what is asked for: more than this is refused.
const std::uint64_t kMostMemory = 1u << 20;

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return size > kMostMemory ? nullptr : std::malloc(size ? size : 1);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void* operator new[](std::size_t size) {
    if (void* memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}

#endif
