// SPDX-License-Identifier: BSD-3-Clause
// The recursive mutex on POSIX threads.
#include <cvutil/cvMutex.h>

NwMutex::NwMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&myMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

NwMutex::~NwMutex() {
    pthread_mutex_destroy(&myMutex);
}

// The bodies are where the analysis ends: it knows nothing of POSIX mutexes.
void NwMutex::lock() NW_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&myMutex);
}

bool NwMutex::tryLock() NW_NO_THREAD_SAFETY_ANALYSIS {
    return pthread_mutex_trylock(&myMutex) == 0;
}

void NwMutex::unlock() NW_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&myMutex);
}
