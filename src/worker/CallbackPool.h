#ifndef TARVO_WORKER_CALLBACKPOOL_H
#define TARVO_WORKER_CALLBACKPOOL_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/Turnstile.h"
#include "tarvo.h"
#include "worker/TarvoTask.h"
#include "worker/WorkerPool.h"

// The one way in which the library runs user callbacks: one after another under a name, or each on any free worker.
// Owns: a share of the worker pool. Threads: any. Locks: findMutex, held across the allocation of a named worker and
// the wait for a free one, never across a task. Ends: after Destroy; submitters must have returned (those that wait in
// DropTo for a worker that will not come have their objects for ever).
class CallbackPool : public TarvoTaskObserver {
public:
    explicit CallbackPool(std::shared_ptr<WorkerPool> pool);

    // Runs `callback` on the worker of `name`, after everything submitted under that name before. The first call for a
    // name allocates the worker, waiting while none is free; FreeWorker gives it back. 0, -EINVAL (empty callback, or a
    // priority other than normal and urgent), -EBUSY (1000 tasks wait), -1 (its thread could not be started), -ENOMEM.
    // On failure the callback was not and will not be run. After Destroy a new name waits for ever, as intended.
    int DropTo(const std::string &name, const std::function<void()> &callback, TarvoPriority priority);
    // The same for a callback that is a task already.
    int DropTaskTo(const std::string &name, std::shared_ptr<const TarvoTask> task, TarvoPriority priority);

    // Runs `callback` on any free worker, waiting while none is free; urgent callbacks have a reserve of their own.
    // Results as DropTo, and -EACCES after RefuseTasks or Destroy. With a bad priority, or a thread that could not be
    // started, the worker is not given back.
    int DropAsyncTask(const std::function<void()> &callback, TarvoPriority priority);
    // The same for a callback that is a task already.
    int DropTask(std::shared_ptr<const TarvoTask> callback, TarvoPriority priority);

    // The worker of `name`, allocated if needed; waits while none is free. Null only when there was no memory for it.
    Worker *FindWorker(const std::string &name) EXCLUDES(findMutex);

    // Drops the callbacks queued under `name` and gives its worker back; always 0. Does not wait for a callback that
    // runs, so a callback may free its own worker: a worker's next tasks queue behind it on the same thread.
    int FreeWorker(const std::string &name);

    // For OneShotTask: gives its worker back.
    void OnTaskFinished(const TarvoTask &task) override;

    // ---- The end ----
    // For good: tasks that come from now on are refused with RefuseTask, without a wait. DropTo, which knows no end,
    // has to be kept from its callers by whoever asks RefusesTasks.
    void RefuseTasks() { submitters.Shut(); }
    bool RefusesTasks() const { return submitters.IsShut(); }
    // The report of a task that comes too late, and its result, -EACCES.
    int RefuseTask() const;
    // After RefuseTasks: waits until those inside DropAsyncTask have got their worker. Destroy must not come first, or
    // a callback that asked for a worker when there is none to be had any more would wait for ever, and Destroy for it.
    void AwaitSubmitters() { submitters.AwaitEmpty(); }
    // Drops all queued callbacks, waits for those that run and ends all workers. Not from a callback. A second call
    // waits for the first.
    void Destroy();

    std::size_t NumWorkers() const;
    std::size_t NumUrgentWorkers() const;

private:
    // Runs `callback` on any free worker, as a `Task`. It is in `task` when it has not been queued.
    template <typename Task, typename Callback>
    int AssignAnywhere(Callback &&callback, TarvoPriority priority, std::shared_ptr<const TarvoTask> &task);

    std::shared_ptr<WorkerPool> pool;
    Mutex findMutex ACQUIRED_AFTER(lock_order::submission) ACQUIRED_BEFORE(lock_order::slots);
    std::atomic<bool> destroyed{false};
    // Everybody inside DropAsyncTask; no code of the program runs there.
    Turnstile submitters;
};

#endif // TARVO_WORKER_CALLBACKPOOL_H
