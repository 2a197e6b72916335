#ifndef TARVO_WORKER_WORKERPOOL_H
#define TARVO_WORKER_WORKERPOOL_H

#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/SharedMutex.h"
#include "base/SoleRun.h"
#include "worker/Worker.h"

class WorkerPoolState;

// Owns every worker of the process and hands them out by slot: under a name, or anonymously for one task. Workers come
// into being when their slot is first used; the uppermost slots are open only to urgent anonymous use.
// Owns: the workers, the map of names, the bitmap of free slots. Threads: any. Locks: stateMutex for the state and the
// bitmap, namedMutex for the names, workersMutex for the vector; taken one at a time, except that StopEvent holds
// stateMutex while StopAction takes the other two in turn, and that a worker's own locks nest inside workersMutex. No
// task is released under any of them. Ends: by Destroy, which waits for the tasks that run; all calls stay safe
// afterwards, and a worker handed out before refuses tasks instead of vanishing.
class WorkerPool {
public:
    WorkerPool(unsigned normalWorkers, unsigned urgentWorkers);
    ~WorkerPool();
    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    // What the states do. A slot is free while its bit in `slots` is set.
    // The lowest free slot below `limit`, now allocated, or -ENOSPC.
    int GetSlotAction(unsigned limit) REQUIRES(stateMutex);
    // Frees the slot and wakes whoever waits for one and could use it: an ordinary request, and an urgent one. 0 or a
    // negated errno.
    int FreeSlotAction(unsigned slot) REQUIRES(stateMutex);
    bool HasAllocatedWorker() const REQUIRES(stateMutex);
    // Lets Destroy go on.
    int ReadyToDestroyAction();
    // Forgets all names, stops all workers and frees the slots of the named ones.
    void StopAction() REQUIRES(stateMutex) EXCLUDES(namedMutex, workersMutex);
    void SetState(const WorkerPoolState *newState) REQUIRES(stateMutex);
    Mutex &StateMutex() RETURN_CAPABILITY(stateMutex) { return stateMutex; }

    // A slot, -ENOSPC, or -EACCES once Destroy has begun.
    int GetFreeSlot(unsigned limit) EXCLUDES(stateMutex);
    void FreeWorkerSlot(unsigned slot) EXCLUDES(stateMutex);

    // GetFreeSlot, and the workers up to that slot.
    int PickupWorker(unsigned limit);
    // Creates and starts workers until there are `size`.
    void FillWorkersTo(int size) EXCLUDES(workersMutex);
    // Waits until a slot is given back; 0 or a negated errno. A cancellation point. The post may be stale, or the slot
    // of no use: look again with AllocWorkerAgain and be ready to wait again.
    int WaitForFreeWorker();

    // An anonymous worker, allocated until FreeWorker(worker). Waits while no slot below `limit` is free, and for ever
    // once Destroy has begun. Null only when there was no memory for the worker. The two below give the only limits
    // whose wake-ups are told apart.
    Worker *GetWorker(unsigned limit);
    // From the normal slots.
    Worker *GetWorker();
    // From all slots.
    Worker *GetUrgentWorker();

    // Allocates a worker under `name`. 0, -ENOSPC, -EACCES or -ENOMEM. A name that is there already keeps its worker
    // (the new slot then stays allocated: ask WorkerOf first).
    int AllocWorker(const std::string &name);
    // The same after a wait, for somebody whose first try has failed: logs nothing when there is still no slot, and
    // forgets wake-ups that were left over. Nobody who looks so and then waits again misses a slot.
    int AllocWorkerAgain(const std::string &name);
    // AllocWorker that yields the worker, or null.
    Worker *TryGetNamedWorker(const std::string &name);
    // The worker allocated under `name`, or null.
    Worker *WorkerOf(const std::string &name) EXCLUDES(namedMutex);

    // Drops the queued tasks of the worker of `name` and gives it back. A task that runs is not waited for, so a task
    // may free its own worker: whatever the slot is used for next queues behind it on the same thread. Always 0.
    int FreeWorker(std::string name) EXCLUDES(namedMutex, workersMutex, stateMutex);
    // Gives a worker back; it keeps its queue. Called by the last task of an anonymous worker. Always 0.
    int FreeWorker(const Worker &worker) EXCLUDES(namedMutex, workersMutex, stateMutex);
    // Forgets the name of a slot.
    void FreeWorker(unsigned slot) REQUIRES(namedMutex);

    // Whether a task runs on any worker; gives back the slots of all others. Part of Destroy.
    bool HasBusyWorker() EXCLUDES(workersMutex, stateMutex);
    // How many workers exist, and for how many of them the urgent priority was last asked for.
    std::size_t NumWorkers() EXCLUDES(workersMutex);
    std::size_t NumUrgentWorkers() EXCLUDES(workersMutex);

    // Refuses allocations from now on, drops every queued task, waits for those that run and ends all threads. Must
    // not be called from a task. A second call waits for the first and does nothing; one that a dropped task makes on
    // its way out does not wait.
    void Destroy() EXCLUDES(stateMutex, namedMutex, workersMutex);

private:
    static constexpr unsigned WORD_BITS = 64;
    static constexpr uint64_t ALL_FREE = ~uint64_t{0};

    using Workers = std::vector<std::unique_ptr<Worker>>;
    // A slot with its worker, so that looking up a name takes one lock.
    struct NamedSlot {
        unsigned slot;
        Worker *worker;
    };
    using NamedWorkers = std::map<std::string, NamedSlot>;

    // The bit of a slot in its word of `slots`.
    static uint64_t SlotBit(unsigned slot);
    Worker *WorkerAt(unsigned slot) EXCLUDES(workersMutex);
    // What a request does after a wait; see AllocWorkerAgain.
    int GetFreeSlotAgain(unsigned limit) EXCLUDES(stateMutex);
    int PickupWorkerAgain(unsigned limit);
    int WaitForFreeWorker(unsigned limit);
    void AwaitLastSlot();
    // The slot now allocated under `name`, or a negated errno.
    int AllocSlot(const std::string &name);
    int NameSlot(const std::string &name, unsigned slot) EXCLUDES(namedMutex);
    // False when there are enough workers already; `worker` is then left to the caller.
    bool AppendWorker(std::unique_ptr<Worker> &worker, std::size_t size) EXCLUDES(workersMutex);
    void ReleaseDetachedTasks();
    // Ends all threads; no worker is added and none takes a task from then on.
    void RetireWorkers() EXCLUDES(workersMutex);

    const unsigned maxWorkers;
    const unsigned normalWorkers;
    NamedWorkers namedWorkers GUARDED_BY(namedMutex);
    Workers workers GUARDED_BY(workersMutex);
    SharedMutex namedMutex ACQUIRED_BEFORE(lock_order::leaves);
    Mutex workersMutex ACQUIRED_BEFORE(lock_order::worker);
    std::vector<uint64_t> slots GUARDED_BY(stateMutex);
    // Posted with every slot given back. What ordinary requests sleep on.
    sem_t freeSem;
    // The same for urgent requests.
    sem_t urgentSem;
    const WorkerPoolState *state GUARDED_BY(stateMutex);
    Mutex stateMutex ACQUIRED_AFTER(lock_order::slots) ACQUIRED_BEFORE(namedMutex, workersMutex);
    sem_t destroySem;

    // Destroy runs once at a time, so that destroyDone and retiredWorkers, which it alone uses, need no lock.
    SoleRun destroying;
    bool destroyDone = false;
    // No worker is added any more.
    bool ended GUARDED_BY(workersMutex) = false;
    // What Destroy has taken out of `workers`; kept because a submitter may still hold a pointer to one.
    Workers retiredWorkers;
};

#endif // TARVO_WORKER_WORKERPOOL_H
