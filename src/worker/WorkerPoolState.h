#ifndef TARVO_WORKER_WORKERPOOLSTATE_H
#define TARVO_WORKER_WORKERPOOLSTATE_H

#include <cerrno>
#include <new>

#include "worker/WorkerPool.h"

// What a slot request, a release and the stop mean at one stage of the pool's life; a constant object without data.
// Owns: nothing. Threads: any. Locks: the pool's stateMutex is held by the caller. Ends: never.
class WorkerPoolState {
public:
    virtual ~WorkerPoolState() = default;
    virtual int GetSlotEvent(WorkerPool &pool, unsigned limit) const REQUIRES(pool.StateMutex()) = 0;
    virtual void FreeSlotEvent(WorkerPool &pool, unsigned slot) const REQUIRES(pool.StateMutex()) = 0;
    virtual void StopEvent(WorkerPool &pool) const REQUIRES(pool.StateMutex()) = 0;
};

// The one object of state S, and what a state does that says nothing else: refuse a slot, ignore the rest. Owns,
// Threads, Locks, Ends: as WorkerPoolState.
template <typename S>
class WorkerPoolStateTemplate : public WorkerPoolState {
public:
    // Built in place and never destroyed: pools may be at work while statics die.
    static const S *Instance() {
        alignas(S) static unsigned char storage[sizeof(S)];
        static const S *const instance = new (storage) S;
        return instance;
    }

    int GetSlotEvent(WorkerPool &, unsigned) const override { return -EACCES; }
    void FreeSlotEvent(WorkerPool &, unsigned) const override {}
    void StopEvent(WorkerPool &) const override {}
};

// Nothing is allocated. A release is ignored on purpose: there is nothing it could give back. Owns, Threads, Locks,
// Ends: as WorkerPoolState.
class PoolIdleState : public WorkerPoolStateTemplate<PoolIdleState> {
public:
    int GetSlotEvent(WorkerPool &pool, unsigned limit) const override REQUIRES(pool.StateMutex());
    void StopEvent(WorkerPool &pool) const override REQUIRES(pool.StateMutex());
};

// Some slot is allocated. Owns, Threads, Locks, Ends: as WorkerPoolState.
class PoolWorkingState : public WorkerPoolStateTemplate<PoolWorkingState> {
public:
    int GetSlotEvent(WorkerPool &pool, unsigned limit) const override REQUIRES(pool.StateMutex());
    void FreeSlotEvent(WorkerPool &pool, unsigned slot) const override REQUIRES(pool.StateMutex());
    void StopEvent(WorkerPool &pool) const override REQUIRES(pool.StateMutex());
};

// Destroy has begun; final. Owns, Threads, Locks, Ends: as WorkerPoolState.
class PoolStoppingState : public WorkerPoolStateTemplate<PoolStoppingState> {
public:
    void FreeSlotEvent(WorkerPool &pool, unsigned slot) const override REQUIRES(pool.StateMutex());
};

#endif // TARVO_WORKER_WORKERPOOLSTATE_H
