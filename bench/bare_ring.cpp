// SPDX-License-Identifier: BSD-3-Clause
#include "bare_ring.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "traffic.h"

namespace {

const std::uint32_t kWrap = 0xFFFFFFFFu;
const std::uint32_t kHeader = 8;

std::uint32_t recordBytes(std::uint32_t message) {
    return kHeader + ((message + 7) & ~7u);
}

}  // namespace

BareRing::BareRing() {
    void* pages = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) fail("no shared memory");
    my = static_cast<Shared*>(pages);  // all zero: an empty ring
}

BareRing::~BareRing() {
    ::munmap(my, sizeof(Shared));
}

bool BareRing::put(const void* head, std::uint32_t headBytes, const void* body, std::uint32_t bodyBytes) {
    const std::uint32_t length = headBytes + bodyBytes;
    const std::uint32_t need = recordBytes(length);
    const std::uint32_t toEnd = kBytes - static_cast<std::uint32_t>(writePosition & (kBytes - 1));
    const std::uint32_t all = need <= toEnd ? need : toEnd + need;
    if (writePosition + all - readSeen > kBytes) {
        readSeen = my->read.load(std::memory_order_acquire);
        if (writePosition + all - readSeen > kBytes) return false;
    }
    if (need > toEnd) {
        std::memcpy(at(writePosition), &kWrap, sizeof kWrap);
        writePosition += toEnd;
    }
    char* record = at(writePosition);
    std::memcpy(record, &length, sizeof length);
    std::memcpy(record + kHeader, head, headBytes);
    std::memcpy(record + kHeader + headBytes, body, bodyBytes);
    writePosition += need;
    return true;
}

void BareRing::publish() {
    my->written.store(writePosition, std::memory_order_seq_cst);
    if (my->sleeps.load(std::memory_order_seq_cst) == 0) return;
    my->sleeps.store(0, std::memory_order_relaxed);
    ::syscall(SYS_futex, &my->sleeps, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

std::uint32_t BareRing::take(char* out) {
    if (readPosition == writtenSeen) {
        writtenSeen = my->written.load(std::memory_order_acquire);
        if (readPosition == writtenSeen) return 0;
    }
    std::uint32_t length;
    std::memcpy(&length, at(readPosition), sizeof length);
    if (length == kWrap) {
        readPosition += kBytes - (readPosition & (kBytes - 1));
        std::memcpy(&length, at(readPosition), sizeof length);
    }
    std::memcpy(out, at(readPosition) + kHeader, length);
    readPosition += recordBytes(length);
    my->read.store(readPosition, std::memory_order_release);
    return length;
}

void BareRing::await() {
    while (my->written.load(std::memory_order_acquire) == readPosition) {
        my->sleeps.store(1, std::memory_order_seq_cst);
        if (my->written.load(std::memory_order_seq_cst) == readPosition)
            ::syscall(SYS_futex, &my->sleeps, FUTEX_WAIT, 1, nullptr, nullptr, 0);
        my->sleeps.store(0, std::memory_order_relaxed);
    }
}
