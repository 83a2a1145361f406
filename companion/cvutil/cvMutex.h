// SPDX-License-Identifier: BSD-3-Clause
// A recursive mutex and the lock that lives as long as a block.
//
//     NwMutex myQueueMutex;
//     std::size_t myBytes NW_GUARDED_BY(myQueueMutex);
//     ...
//     NwScopedLock lock(myQueueMutex);
//     myBytes += length;
//
// A thread that holds the mutex may lock it again; it is free once it has been unlocked as often as it was
// locked. clang's -Wthread-safety follows these classes and the NW_ annotations below, and also objects to a
// lock that one function takes twice: the recursion is there for call-backs, and a function that needs it for
// itself is better taken apart. Other compilers ignore the annotations.
#ifndef CVUTIL_CVMUTEX_H
#define CVUTIL_CVMUTEX_H

#include <pthread.h>

#include <cvutil/cvExport.h>

#if defined(__clang__)
#define NW_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define NW_THREAD_ANNOTATION(x)
#endif

// On a class: it is a mutex, or a lock bound to a block.
#define NW_CAPABILITY(name) NW_THREAD_ANNOTATION(capability(name))
#define NW_SCOPED_CAPABILITY NW_THREAD_ANNOTATION(scoped_lockable)
// On a field: to be touched only while the mutex is held (for a pointer: what it points to).
#define NW_GUARDED_BY(mutex) NW_THREAD_ANNOTATION(guarded_by(mutex))
#define NW_PT_GUARDED_BY(mutex) NW_THREAD_ANNOTATION(pt_guarded_by(mutex))
// On a function: the caller holds the mutex, or must not hold it.
#define NW_REQUIRES(...) NW_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define NW_EXCLUDES(...) NW_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// On a function: it takes or gives back the mutex.
#define NW_ACQUIRE(...) NW_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define NW_TRY_ACQUIRE(...) NW_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define NW_RELEASE(...) NW_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// On a function whose locking the analysis cannot follow; the reason stands beside it.
#define NW_NO_THREAD_SAFETY_ANALYSIS NW_THREAD_ANNOTATION(no_thread_safety_analysis)

// A mutex that one thread may lock several times. Any thread may call any operation; nothing throws. It must
// be free, and nobody waiting for it, when it is destroyed.
class NWUTIL_API NW_CAPABILITY("mutex") NwMutex {
public:
    NwMutex();
    ~NwMutex();

    NwMutex(const NwMutex&) = delete;
    NwMutex& operator=(const NwMutex&) = delete;

    // Waits until the calling thread holds the mutex.
    void lock() NW_ACQUIRE();

    // Takes the mutex if that needs no waiting. True: the calling thread holds it (and unlocks it later).
    bool tryLock() NW_TRY_ACQUIRE(true);

    // Gives back one lock(). A thread that does not hold the mutex changes nothing.
    void unlock() NW_RELEASE();

private:
    pthread_mutex_t myMutex;
};

// Holds a mutex from here to the end of the block, whichever way the block is left. The mutex must outlive
// it.
class NW_SCOPED_CAPABILITY NwScopedLock {
public:
    explicit NwScopedLock(NwMutex& mutex) NW_ACQUIRE(mutex) : myMutex(mutex) { myMutex.lock(); }
    ~NwScopedLock() NW_RELEASE() { myMutex.unlock(); }

    NwScopedLock(const NwScopedLock&) = delete;
    NwScopedLock& operator=(const NwScopedLock&) = delete;

private:
    NwMutex& myMutex;
};

#endif
