// SPDX-License-Identifier: BSD-3-Clause
// The yardstick of the queue in shared memory: a ring for one writer and one reader who trust each other, and
// a futex for a reader that waits. No checks, no counters, no life signs.
#ifndef BENCH_BARE_RING_H
#define BENCH_BARE_RING_H

#include <atomic>
#include <cstdint>

class BareRing {
public:
    static constexpr std::uint32_t kBytes = 1 << 20;

    BareRing();  // in shared memory
    ~BareRing();
    BareRing(const BareRing&) = delete;
    BareRing& operator=(const BareRing&) = delete;

    // Writer: one message of two parts, to be read after publish(). False: no room.
    bool put(const void* head, std::uint32_t headBytes, const void* body, std::uint32_t bodyBytes);
    void publish();

    // Reader: the next message, copied out: its length, 0 when there is none.
    std::uint32_t take(char* out);
    void await();

private:
    struct Shared {
        alignas(128) std::atomic<std::uint64_t> written;
        alignas(128) std::atomic<std::uint64_t> read;
        alignas(128) std::atomic<std::uint32_t> sleeps;
        alignas(128) char bytes[kBytes];
    };

    char* at(std::uint64_t position) { return my->bytes + (position & (kBytes - 1)); }

    Shared* my;
    alignas(128) std::uint64_t writePosition = 0, readSeen = 0;    // the writer's
    alignas(128) std::uint64_t readPosition = 0, writtenSeen = 0;  // the reader's
};

#endif
