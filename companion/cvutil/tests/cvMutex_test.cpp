// SPDX-License-Identifier: BSD-3-Clause
// The recursive mutex, seen from the thread that holds it and from another.
#include <cvutil/cvMutex.h>

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

#include "sanitizers.h"

namespace {

// What another thread finds: true if the mutex was free.
bool isFree(NwMutex& mutex) {
    bool free = false;
    std::thread other([&] {
        free = mutex.tryLock();
        if (free) mutex.unlock();
    });
    other.join();
    return free;
}

// The rules below lock in ways no code should: the analysis is not asked.
TEST(Mutex, isFreeAtTheStart) {
    NwMutex mutex;
    EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, keepsOthersOutWhileLocked) {
    NwMutex mutex;
    mutex.lock();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, isFreeAfterAsManyUnlocksAsLocks) NW_NO_THREAD_SAFETY_ANALYSIS {
    NwMutex mutex;
    mutex.lock();
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, unlockByAStrangerChangesNothing) NW_NO_THREAD_SAFETY_ANALYSIS {
    if (kUnderThreadSanitizer) GTEST_SKIP() << "the thread sanitizer reports this misuse by itself";
    NwMutex mutex;
    mutex.lock();
    std::thread stranger([&]() NW_NO_THREAD_SAFETY_ANALYSIS { mutex.unlock(); });
    stranger.join();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(ScopedLock, holdsToTheEndOfTheBlock) {
    NwMutex mutex;
    {
        NwScopedLock lock(mutex);
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(ScopedLock, letsGoWhenAnExceptionPasses) {
    NwMutex mutex;
    try {
        NwScopedLock lock(mutex);
        throw 1;
    } catch (int) {
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(ScopedLock, nestsInOneThread) NW_NO_THREAD_SAFETY_ANALYSIS {
    NwMutex mutex;
    {
        NwScopedLock outer(mutex);
        { NwScopedLock inner(mutex); }
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(ScopedLock, keepsIncrementsApart) {
    NwMutex mutex;
    int count = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 10000; ++round) {
                NwScopedLock lock(mutex);
                ++count;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(count, 40000);
}

static_assert(!std::is_copy_constructible<NwMutex>::value && !std::is_copy_assignable<NwMutex>::value,
              "a mutex stays put");
static_assert(!std::is_copy_constructible<NwScopedLock>::value, "a lock has one block");

}  // namespace
