// The slots of the pool: which of them are free, and the waits for one.
#include <pthread.h>

#include <algorithm>
#include <cerrno>

#include "diag/velm_syslog.h"
#include "worker/PoolStats.h"
#include "worker/WorkerPool.h"
#include "worker/WorkerPoolState.h"

namespace {

// One component with the pool, one source tag.
constexpr char LOG_TAG[] = "WorkerPool";

int Post(sem_t &sem) {
    while (sem_post(&sem) != 0) {
        if (errno != EINTR) {
            return -errno;
        }
    }
    return 0;
}

int Wait(sem_t &sem) {
    while (sem_wait(&sem) != 0) {
        if (errno != EINTR) {
            return -errno;
        }
    }
    return 0;
}

// Posts that nobody has waited for yet need not be more than the slots that they may stand for.
int PostUpTo(sem_t &sem, unsigned most) {
    int posts = 0;
    sem_getvalue(&sem, &posts);
    return posts < 0 || static_cast<unsigned>(posts) < most ? Post(sem) : 0;
}

void TakeAllPosts(sem_t &sem) {
    while (sem_trywait(&sem) == 0) {
    }
}

// Hands the wake-up on when the thread is cancelled in its wait: the kernel may have woken this thread, and no other,
// for a post that it then leaves where it is. Owns: nothing. Threads: its own. Locks: none. Ends: before the semaphore.
class WakeUp {
public:
    explicit WakeUp(sem_t &semaphore) : sem(semaphore) {}
    ~WakeUp() {
        if (!taken) {
            Post(sem); // one too many at worst, which somebody wakes for in vain
        }
    }
    WakeUp(const WakeUp &) = delete;
    WakeUp &operator=(const WakeUp &) = delete;

    void Taken() { taken = true; }

private:
    sem_t &sem;
    bool taken = false;
};

} // namespace

uint64_t WorkerPool::SlotBit(unsigned slot) { return uint64_t{1} << (slot % WORD_BITS); }

int WorkerPool::GetSlotAction(unsigned limit) {
    // The bits above the last slot stay set for ever, so the lowest free bit may be one of them.
    const unsigned end = std::min(limit, maxWorkers);
    for (unsigned word = 0; word < slots.size(); ++word) {
        if (slots[word] == 0) {
            continue;
        }
        const unsigned slot = word * WORD_BITS + static_cast<unsigned>(__builtin_ctzll(slots[word]));
        if (slot >= end) {
            break;
        }
        slots[word] &= ~SlotBit(slot);
        PoolStats::Taken();
        return static_cast<int>(slot);
    }
    return -ENOSPC;
}

int WorkerPool::FreeSlotAction(unsigned slot) {
    TARVO_LOG(LOG_INFO, "free action slot worker=%u", slot);
    uint64_t &word = slots[slot / WORD_BITS];
    if ((word & SlotBit(slot)) == 0) {
        PoolStats::GivenBack();
    }
    word |= SlotBit(slot);
    // Urgent requests can use whatever slot it is, and sleep apart from the others, who otherwise might take the
    // wake-up for a reserved slot and leave the slot. Whoever finds nothing left of the slot sleeps on.
    if (maxWorkers > normalWorkers) {
        PostUpTo(urgentSem, maxWorkers);
    }
    return PostUpTo(freeSem, maxWorkers);
}

bool WorkerPool::HasAllocatedWorker() const {
    uint64_t all = ALL_FREE;
    for (const uint64_t word : slots) {
        all &= word;
    }
    return all != ALL_FREE;
}

int WorkerPool::ReadyToDestroyAction() { return Post(destroySem); }

void WorkerPool::AwaitLastSlot() { Wait(destroySem); }

int WorkerPool::GetFreeSlot(unsigned limit) {
    MutexLock lock(stateMutex);
    return state->GetSlotEvent(*this, limit);
}

void WorkerPool::FreeWorkerSlot(unsigned slot) {
    MutexLock lock(stateMutex);
    state->FreeSlotEvent(*this, slot);
}

int WorkerPool::GetFreeSlotAgain(unsigned limit) {
    MutexLock lock(stateMutex);
    const int slot = state->GetSlotEvent(*this, limit);
    // With no slot free no post stands for one, neither for this request nor for any other of its kind: all are left
    // over from slots that have been taken since. A slot that is given back from now on is posted anew, since that
    // happens under the same mutex.
    if (slot < 0 && limit >= normalWorkers) {
        TakeAllPosts(freeSem);
    }
    if (slot < 0 && limit >= maxWorkers) {
        TakeAllPosts(urgentSem);
    }
    return slot;
}

int WorkerPool::PickupWorker(unsigned limit) {
    const int slot = GetFreeSlot(limit);
    if (slot < 0) {
        PoolStats::Refused();
        TARVO_LOG_RESTRAINED(LOG_ERR, "Find free slot failed: err = %d", slot);
        return slot;
    }
    FillWorkersTo(slot + 1);
    return slot;
}

int WorkerPool::PickupWorkerAgain(unsigned limit) {
    const int slot = GetFreeSlotAgain(limit);
    if (slot >= 0) {
        FillWorkersTo(slot + 1);
    }
    return slot;
}

int WorkerPool::WaitForFreeWorker() { return WaitForFreeWorker(normalWorkers); }

int WorkerPool::WaitForFreeWorker(unsigned limit) {
    sem_t &sem = limit > normalWorkers ? urgentSem : freeSem;
    PoolStats::Waited();
    WakeUp wakeUp(sem);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const int ret = Wait(sem);
    // Off, and not as it was before: so it is specified for every thread that has waited for a worker.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    wakeUp.Taken();
    return ret;
}
