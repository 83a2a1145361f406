// SPDX-License-Identifier: BSD-3-Clause
// Not run: clang's thread-safety analysis must accept this file, and object to it when UNGUARDED is defined.
#include <cvutil/cvMutex.h>

class Counter {
public:
    void increment() {
        NwScopedLock lock(myMutex);
        ++myCount;
    }
    bool incrementIfFree() {
        if (!myMutex.tryLock()) return false;
        ++myCount;
        myMutex.unlock();
        return true;
    }
#ifdef UNGUARDED
    int peek() {
        return myCount;
    }
#endif

private:
    NwMutex myMutex;
    int myCount NW_GUARDED_BY(myMutex) = 0;
};

int main() {
    Counter counter;
    counter.increment();
    return counter.incrementIfFree() ? 0 : 1;
}
