#include "worker/WorkerPool.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "diag/velm_syslog.h"
#include "worker/WorkerPoolState.h"

namespace {

constexpr char LOG_TAG[] = "WorkerPool";

} // namespace

WorkerPool::WorkerPool(unsigned normal, unsigned urgent)
    : maxWorkers(normal + urgent), normalWorkers(normal), slots(maxWorkers / WORD_BITS + 1, ALL_FREE),
      state(PoolIdleState::Instance()) {
    workers.reserve(maxWorkers); // so that appending a worker never needs memory
    sem_init(&freeSem, 0, 0);
    sem_init(&urgentSem, 0, 0);
    sem_init(&destroySem, 0, 0);
}

WorkerPool::~WorkerPool() {
    // Joined outside the lock: a task that still runs may ask the pool for it.
    Workers remaining;
    {
        MutexLock lock(workersMutex);
        ended = true;
        remaining.swap(workers);
    }
    remaining.clear();
    sem_destroy(&freeSem);
    sem_destroy(&urgentSem);
    sem_destroy(&destroySem);
}

void WorkerPool::StopAction() {
    NamedWorkers named;
    {
        WriteLock lock(namedMutex);
        named.swap(namedWorkers);
    }
    {
        // Worker::Stop without the release of the dropped tasks, which must not happen under these locks.
        MutexLock lock(workersMutex);
        for (const std::unique_ptr<Worker> &worker : workers) {
            worker->DetachTasks();
            worker->StopRoutine();
        }
    }
    for (const auto &entry : named) {
        state->FreeSlotEvent(*this, entry.second.slot);
    }
}

void WorkerPool::FillWorkersTo(int size) {
    int existing = 0;
    {
        MutexLock lock(workersMutex);
        existing = static_cast<int>(workers.size());
    }
    if (size < existing) {
        return;
    }
    if (maxWorkers < static_cast<unsigned>(size)) {
        TARVO_LOG(LOG_ERR, "Extended size %d(total new size %d) exceeds max workers %u", size - existing, size,
                  maxWorkers);
        return;
    }
    for (int slot = existing; slot < size; ++slot) {
        std::unique_ptr<Worker> worker;
        try {
            worker = std::make_unique<Worker>(std::to_string(slot));
        } catch (const std::bad_alloc &) {
            continue;
        }
        // A worker that could not start its thread tries again at its first task.
        worker->Start();
        if (!AppendWorker(worker, static_cast<std::size_t>(size))) {
            return;
        }
    }
}

bool WorkerPool::AppendWorker(std::unique_ptr<Worker> &worker, std::size_t size) {
    MutexLock lock(workersMutex);
    if (ended || workers.size() >= size) {
        return false;
    }
    workers.push_back(std::move(worker));
    return true;
}

Worker *WorkerPool::WorkerAt(unsigned slot) {
    MutexLock lock(workersMutex);
    return slot < workers.size() ? workers[slot].get() : nullptr;
}

Worker *WorkerPool::GetWorker(unsigned limit) {
    int slot = PickupWorker(limit);
    while (slot < 0) {
        const int ret = WaitForFreeWorker(limit);
        if (ret < 0) {
            TARVO_LOG(LOG_ERR, "Wait for free worker failed: err = %d", ret);
        }
        slot = PickupWorkerAgain(limit);
    }
    Worker *worker = WorkerAt(static_cast<unsigned>(slot));
    if (worker == nullptr) {
        FreeWorkerSlot(static_cast<unsigned>(slot));
    }
    return worker;
}

Worker *WorkerPool::GetWorker() { return GetWorker(normalWorkers); }

Worker *WorkerPool::GetUrgentWorker() { return GetWorker(maxWorkers); }

int WorkerPool::AllocSlot(const std::string &name) {
    const int slot = PickupWorker(normalWorkers);
    if (slot < 0) {
        TARVO_LOG(LOG_ERR, "Pickup worker failed: %d", slot);
        return slot;
    }
    return NameSlot(name, static_cast<unsigned>(slot));
}

int WorkerPool::NameSlot(const std::string &name, unsigned slot) {
    if (Worker *worker = WorkerAt(slot)) {
        try {
            WriteLock lock(namedMutex);
            namedWorkers.emplace(name, NamedSlot{slot, worker});
            return static_cast<int>(slot);
        } catch (const std::bad_alloc &) {
        }
    }
    FreeWorkerSlot(slot);
    TARVO_LOG(LOG_ERR, "Pickup worker failed: %d", -ENOMEM);
    return -ENOMEM;
}

int WorkerPool::AllocWorker(const std::string &name) {
    const int slot = AllocSlot(name);
    return slot < 0 ? slot : 0;
}

int WorkerPool::AllocWorkerAgain(const std::string &name) {
    int slot = PickupWorkerAgain(normalWorkers);
    if (slot >= 0) {
        slot = NameSlot(name, static_cast<unsigned>(slot));
    }
    return slot < 0 ? slot : 0;
}

Worker *WorkerPool::TryGetNamedWorker(const std::string &name) {
    const int slot = AllocSlot(name);
    return slot < 0 ? nullptr : WorkerAt(static_cast<unsigned>(slot));
}

Worker *WorkerPool::WorkerOf(const std::string &name) {
    ReadLock lock(namedMutex);
    const auto entry = namedWorkers.find(name);
    return entry != namedWorkers.end() ? entry->second.worker : nullptr;
}

int WorkerPool::FreeWorker(std::string name) {
    unsigned slot = 0;
    {
        WriteLock lock(namedMutex);
        const auto entry = namedWorkers.find(name);
        if (entry == namedWorkers.end()) {
            TARVO_LOG(LOG_INFO, "Free unexisting worker for %s", name.c_str());
            return 0;
        }
        slot = entry->second.slot;
        namedWorkers.erase(entry);
    }
    // The slot is still allocated, so these are the tasks of this name and of nobody else.
    if (Worker *worker = WorkerAt(slot)) {
        worker->Clear();
    }
    FreeWorkerSlot(slot);
    return 0;
}

int WorkerPool::FreeWorker(const Worker &worker) {
    unsigned slot = 0;
    {
        MutexLock lock(workersMutex);
        const auto entry =
            std::find_if(workers.begin(), workers.end(), [&](const auto &owned) { return owned.get() == &worker; });
        if (entry == workers.end()) {
            return 0;
        }
        slot = static_cast<unsigned>(entry - workers.begin());
    }
    {
        WriteLock lock(namedMutex);
        FreeWorker(slot);
    }
    FreeWorkerSlot(slot);
    return 0;
}

void WorkerPool::FreeWorker(unsigned slot) {
    for (auto entry = namedWorkers.begin(); entry != namedWorkers.end(); ++entry) {
        if (entry->second.slot == slot) {
            namedWorkers.erase(entry);
            return;
        }
    }
}

void WorkerPool::SetState(const WorkerPoolState *newState) { state = newState; }

bool WorkerPool::HasBusyWorker() {
    // Slot by slot, because StopEvent takes workersMutex inside stateMutex: the other way round they must not nest.
    bool busy = false;
    unsigned slot = 0;
    for (Worker *worker = WorkerAt(slot); worker != nullptr; worker = WorkerAt(++slot)) {
        if (worker->IsWorking()) {
            busy = true;
        } else {
            FreeWorkerSlot(slot);
        }
    }
    return busy;
}

std::size_t WorkerPool::NumWorkers() {
    MutexLock lock(workersMutex);
    return workers.size();
}

std::size_t WorkerPool::NumUrgentWorkers() {
    MutexLock lock(workersMutex);
    return static_cast<std::size_t>(std::count_if(workers.begin(), workers.end(), [](const auto &worker) {
        return worker->GetRTType() == TARVO_PRIORITY_URGENT;
    }));
}

void WorkerPool::Destroy() {
    const SoleRun::Turn turn(destroying);
    if (!turn || destroyDone) {
        return;
    }
    {
        MutexLock lock(stateMutex);
        state->StopEvent(*this);
    }
    ReleaseDetachedTasks();
    if (HasBusyWorker()) {
        // A task that was dropped behind one that runs, as on a slot whose last name was freed meanwhile, gives no slot
        // back. So the threads are waited for first and their slots freed then, or the wait for the last slot might
        // never end.
        RetireWorkers();
        HasBusyWorker();
        AwaitLastSlot();
    }
    RetireWorkers();
    MutexLock lock(workersMutex);
    retiredWorkers.swap(workers);
    destroyDone = true;
}

void WorkerPool::ReleaseDetachedTasks() {
    unsigned slot = 0;
    for (Worker *worker = WorkerAt(slot); worker != nullptr; worker = WorkerAt(++slot)) {
        worker->ReleaseDetached();
    }
}

void WorkerPool::RetireWorkers() {
    {
        MutexLock lock(workersMutex);
        ended = true;
    }
    // Joined outside the lock: tasks that still run may ask the pool for it.
    unsigned slot = 0;
    for (Worker *worker = WorkerAt(slot); worker != nullptr; worker = WorkerAt(++slot)) {
        worker->Retire();
    }
}
