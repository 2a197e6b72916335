#ifndef TARVO_WORKER_TARVOTASK_H
#define TARVO_WORKER_TARVOTASK_H

#include <functional>
#include <memory>
#include <utility>

class Worker;

// One callback to be run by a worker.
// Owns: the callback. Threads: run by one worker, at most once. Locks: none. Ends: by the last of the queue,
// the routine that runs it and the submitter, never under a lock of this folder: what the callback holds may run
// arbitrary code when it goes.
class TarvoTask {
public:
    explicit TarvoTask(std::function<void()> callback) : func(std::move(callback)) {}
    virtual ~TarvoTask() = default;
    TarvoTask(const TarvoTask &) = delete;
    TarvoTask &operator=(const TarvoTask &) = delete;

    virtual void operator()() const = 0;

    // The worker that goes back to the pool when this task has finished; null when none does.
    virtual const Worker *GetExecutor() const { return nullptr; }

protected:
    const std::function<void()> func;
};

// Learns that a one-shot task has finished.
// Owns: nothing. Threads: the worker that ran the task. Locks: none held by the caller. Ends: after every task that
// refers to it.
class TarvoTaskObserver {
public:
    TarvoTaskObserver() = default;
    virtual ~TarvoTaskObserver() = default;
    TarvoTaskObserver(const TarvoTaskObserver &) = delete;
    TarvoTaskObserver &operator=(const TarvoTaskObserver &) = delete;

    virtual void OnTaskFinished(const TarvoTask &task) = 0;
};

// A callback for a named worker, which stays with its name afterwards. Owns, Threads, Locks, Ends: as TarvoTask.
class SyncTask : public TarvoTask {
public:
    explicit SyncTask(std::function<void()> callback) : TarvoTask(std::move(callback)) {}

    void operator()() const override { func(); }
};

// A callback for an anonymous worker, which the observer gives back when the callback has returned. Owns, Threads,
// Locks, Ends: as TarvoTask; the observer and the worker outlive it.
class OneShotTask : public TarvoTask {
public:
    OneShotTask(std::function<void()> callback, TarvoTaskObserver &finishObserver, const Worker &executor)
        : TarvoTask(std::move(callback)), observer(finishObserver), worker(executor) {}

    // A callback that throws ends the process, so nobody misses the notice that is then not given.
    void operator()() const override {
        func();
        observer.OnTaskFinished(*this);
    }

    const Worker *GetExecutor() const override { return &worker; }

private:
    TarvoTaskObserver &observer;
    const Worker &worker;
};

// A OneShotTask for a callback that is a task already, which takes no other memory than its own. Owns: the task.
// Threads, Locks, Ends: as OneShotTask.
class OneShotOfTask : public TarvoTask {
public:
    OneShotOfTask(std::shared_ptr<const TarvoTask> &&inner, TarvoTaskObserver &finishObserver, const Worker &executor)
        : TarvoTask(nullptr), task(std::move(inner)), observer(finishObserver), worker(executor) {}

    void operator()() const override {
        (*task)();
        observer.OnTaskFinished(*this);
    }

    const Worker *GetExecutor() const override { return &worker; }

private:
    const std::shared_ptr<const TarvoTask> task;
    TarvoTaskObserver &observer;
    const Worker &worker;
};

#endif // TARVO_WORKER_TARVOTASK_H
