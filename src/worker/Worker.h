#ifndef TARVO_WORKER_WORKER_H
#define TARVO_WORKER_WORKER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/Semaphore.h"
#include "tarvo.h"
#include "worker/TarvoTask.h"
#include "worker/tarvo_thread.h"

// Runs tasks one after another, in the order in which they were assigned, on a thread that exists only while there is
// work: it ends after 60 s without any, and the next task starts it again.
// Owns: its thread and the queued tasks. Threads: any; Routine is the thread's own. Locks: taskMutex, then threadMutex
// (restart); a task runs, and a task is released, with none held. Ends: by its destructor, which
// stops and joins; nobody may be inside another member then.
class Worker {
public:
    explicit Worker(std::string name);
    ~Worker();
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    // Starts the thread; the previous one, if any, must have been joined. False, and to be restarted by the next task,
    // when it cannot be started.
    bool Start() EXCLUDES(threadMutex);

    // Queues a task and moves `task` from the caller on success. 0; -EBUSY when 1000 tasks wait; -1 when the thread had
    // to be restarted and could not, or the worker is retired; -ENOMEM. Does not wait for the task. Any thread, also a
    // task of this worker.
    int Assign(std::shared_ptr<const TarvoTask> &task) EXCLUDES(taskMutex);

    // The body of the thread.
    void Routine() EXCLUDES(taskMutex);

    // Takes the front of the queue, empty when there is none.
    std::shared_ptr<const TarvoTask> GetNormalTask() REQUIRES(taskMutex);

    // Restarts an ended thread, records `priority` and applies it to the thread. 0, -1 when the thread could not be
    // restarted or the worker is retired, -EINVAL.
    int SetRTType(const TarvoPriority &priority) EXCLUDES(taskMutex);
    TarvoPriority GetRTType() const;

    // Drops the queue and lets the thread end after its current task.
    void Stop() EXCLUDES(taskMutex);
    // Lets the thread end once the queue is empty.
    void StopRoutine();
    // Waits for the end of the thread, if there is one.
    void ThreadJoin() EXCLUDES(threadMutex);
    // Drops every queued task unrun.
    void Clear() EXCLUDES(taskMutex);
    // Clear in two steps, for callers that hold a lock in the first: afterwards no queued task will run, and all of
    // them wait for the second, which releases them.
    void DetachTasks() EXCLUDES(taskMutex);
    void ReleaseDetached() EXCLUDES(taskMutex);
    // Stops and joins as the destructor does, but leaves an object that refuses tasks: for a submitter that was handed
    // this worker just before the pool ended.
    void Retire() EXCLUDES(taskMutex);

    bool IsWorking() EXCLUDES(taskMutex);
    std::size_t WaitingTasks() EXCLUDES(taskMutex);
    bool ExitCheck() const REQUIRES(taskMutex);

private:
    bool Restart() REQUIRES(taskMutex);
    int Enqueue(std::shared_ptr<const TarvoTask> &task) REQUIRES(taskMutex);
    bool EndWhenIdle() EXCLUDES(taskMutex);
    void RunTasks() EXCLUDES(taskMutex);
    void NameThread() const;

    const std::string name;
    std::shared_ptr<const TarvoTask> curTask GUARDED_BY(taskMutex);
    std::atomic<bool> running{false};

    // What the thread sleeps on. It may count more wake-ups than there are tasks.
    Semaphore wakeup;

    Mutex taskMutex ACQUIRED_AFTER(lock_order::worker) ACQUIRED_BEFORE(threadMutex);
    std::deque<std::shared_ptr<const TarvoTask>> tasks GUARDED_BY(taskMutex);
    // Created and joined under threadMutex; its scheduling is set under taskMutex, under which it is also restarted.
    TarvoThread thread{TARVO_PRIORITY_NORMAL};
    Mutex threadMutex ACQUIRED_BEFORE(lock_order::leaves);
    std::atomic<TarvoPriority> rtType{TARVO_PRIORITY_NORMAL};
    // Decided under taskMutex; StopRoutine and Start write it without.
    std::atomic<bool> needRestart{false};
    // Dropped tasks on their way out; a member so that dropping needs no memory.
    std::deque<std::shared_ptr<const TarvoTask>> detached GUARDED_BY(taskMutex);
    // Set under taskMutex.
    std::atomic<bool> retired{false};
};

#endif // TARVO_WORKER_WORKER_H
