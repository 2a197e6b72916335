// Compiled only to see whether clang's analysis compares the order of locks of different classes: with INVERTED it has
// to refuse this, and without it to take it.
#include "worker/WorkerPool.h"

void TakeBoth(WorkerPool &pool, Worker &worker) {
#ifdef INVERTED
    const MutexLock first(worker.TaskMutex());
    const MutexLock second(pool.StateMutex());
#else
    const MutexLock first(pool.StateMutex());
    const MutexLock second(worker.TaskMutex());
#endif
}
