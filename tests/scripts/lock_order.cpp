// Compiled only to see whether clang's analysis compares the order of locks of different classes: with INVERTED it has
// to refuse this, and without it to take it.
#include "base/LockOrder.h"

// Owns: a lock of the slots' level. Threads: none. Locks: as named. Ends: never begins.
struct Pool {
    Mutex slots ACQUIRED_AFTER(lock_order::slots) ACQUIRED_BEFORE(lock_order::worker);
};

// Owns: a lock of a worker's level. Threads: none. Locks: as named. Ends: never begins.
struct Thread {
    Mutex tasks ACQUIRED_AFTER(lock_order::worker) ACQUIRED_BEFORE(lock_order::leaves);
};

void TakeBoth(Pool &pool, Thread &thread) {
#ifdef INVERTED
    const MutexLock first(thread.tasks);
    const MutexLock second(pool.slots);
#else
    const MutexLock first(pool.slots);
    const MutexLock second(thread.tasks);
#endif
}
