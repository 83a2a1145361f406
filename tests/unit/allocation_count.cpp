// SPDX-License-Identifier: BSD-3-Clause
#include "allocation_count.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ALLOCATIONS_SEEN_BY_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ALLOCATIONS_SEEN_BY_SANITIZER 1
#endif

namespace {

std::atomic<bool> isCounting{false};
std::atomic<long> allocations{0};

inline void noteAllocation() {
    if (isCounting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

#ifdef ALLOCATIONS_SEEN_BY_SANITIZER

// A sanitizer replaces the allocator; it tells of each allocation instead.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                                         void (*onFree)(const volatile void*));
namespace {
void onMalloc(const volatile void*, std::size_t) {
    noteAllocation();
}
void onFree(const volatile void*) {}
const bool hooksAreIn = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree) != 0;
}  // namespace

#else

// In front of the C library's: whatever the program or a shared library asks for (operator new included,
// which asks malloc) comes by here first.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void* malloc(std::size_t size) {
    noteAllocation();
    return __libc_malloc(size);
}
EXPORTED void* calloc(std::size_t count, std::size_t size) {
    noteAllocation();
    return __libc_calloc(count, size);
}
EXPORTED void* realloc(void* memory, std::size_t size) {
    noteAllocation();
    return __libc_realloc(memory, size);
}
EXPORTED void* memalign(std::size_t alignment, std::size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
EXPORTED int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    noteAllocation();
    *memory = __libc_memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}
}
namespace {
const bool hooksAreIn = true;
}

#endif

bool allocationsAreCounted() {
    return hooksAreIn;
}

long allocationsIn(const std::function<void()>& work) {
    allocations = 0;
    isCounting = true;
    work();
    isCounting = false;
    return allocations;
}

long allocationsOnceWarm(const std::function<void()>& work) {
    work();
    work();
    return allocationsIn(work);
}
