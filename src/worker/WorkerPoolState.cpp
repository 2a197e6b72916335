#include "worker/WorkerPoolState.h"

int PoolIdleState::GetSlotEvent(WorkerPool &pool, unsigned limit) const {
    const int slot = pool.GetSlotAction(limit);
    pool.SetState(PoolWorkingState::Instance());
    return slot;
}

void PoolIdleState::StopEvent(WorkerPool &pool) const {
    pool.SetState(PoolStoppingState::Instance());
    pool.ReadyToDestroyAction();
}

int PoolWorkingState::GetSlotEvent(WorkerPool &pool, unsigned limit) const { return pool.GetSlotAction(limit); }

void PoolWorkingState::FreeSlotEvent(WorkerPool &pool, unsigned slot) const {
    pool.FreeSlotAction(slot);
    if (!pool.HasAllocatedWorker()) {
        pool.SetState(PoolIdleState::Instance());
    }
}

void PoolWorkingState::StopEvent(WorkerPool &pool) const {
    pool.SetState(PoolStoppingState::Instance());
    pool.StopAction();
}

void PoolStoppingState::FreeSlotEvent(WorkerPool &pool, unsigned slot) const {
    pool.FreeSlotAction(slot);
    if (!pool.HasAllocatedWorker()) {
        pool.ReadyToDestroyAction();
    }
}
