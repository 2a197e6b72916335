#include "worker/CallbackPool.h"

#include <cerrno>
#include <new>
#include <utility>

#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "CallbackPool";

int SetPriority(Worker &worker, TarvoPriority priority) {
    const int ret = worker.SetRTType(priority);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Set worker attribute failed, ret = %d", ret);
    }
    return ret;
}

int ReportNoMemory() {
    TARVO_LOG(LOG_ERR, "Set worker attribute failed, ret = %d", -ENOMEM);
    return -ENOMEM;
}

// What becomes of a task that is not queued stays in `task`, so that the caller says when it goes.
template <typename Task, typename... Arguments>
int AssignTask(Worker &worker, std::shared_ptr<const TarvoTask> &task, Arguments &&...arguments) {
    try {
        task = std::make_shared<const Task>(std::forward<Arguments>(arguments)...);
    } catch (const std::bad_alloc &) {
        return ReportNoMemory();
    }
    return worker.Assign(task);
}

// Hands the worker of `name` to `assign`, with the priority applied.
template <typename Assign>
int DropSerial(CallbackPool &callbacks, const std::string &name, TarvoPriority priority, Assign assign) {
    Worker *worker = callbacks.FindWorker(name);
    if (worker == nullptr) {
        return -ENOMEM;
    }
    const int ret = SetPriority(*worker, priority);
    return ret != 0 ? ret : assign(*worker);
}

} // namespace

CallbackPool::CallbackPool(std::shared_ptr<WorkerPool> workerPool) : pool(std::move(workerPool)) {}

int CallbackPool::DropTo(const std::string &name, const std::function<void()> &callback, TarvoPriority priority) {
    if (!callback) {
        TARVO_LOG(LOG_ERR, "Input parameter invalid");
        return -EINVAL;
    }
    std::shared_ptr<const TarvoTask> task;
    return DropSerial(*this, name, priority,
                      [&](Worker &worker) { return AssignTask<SyncTask>(worker, task, callback); });
}

int CallbackPool::DropTaskTo(const std::string &name, std::shared_ptr<const TarvoTask> task, TarvoPriority priority) {
    return DropSerial(*this, name, priority, [&](Worker &worker) { return worker.Assign(task); });
}

int CallbackPool::DropAsyncTask(const std::function<void()> &callback, TarvoPriority priority) {
    if (!callback) {
        TARVO_LOG(LOG_ERR, "Input parameter invalid");
        return -EINVAL;
    }
    if (destroyed || RefusesTasks()) {
        return RefuseTask();
    }
    // The program's own copy constructor runs here, and its destructor at the very end: they may wait for anything,
    // also for somebody who waits for the submitters.
    std::function<void()> own;
    try {
        own = callback;
    } catch (const std::bad_alloc &) {
        return ReportNoMemory();
    }
    std::shared_ptr<const TarvoTask> task;
    const Turnstile::Passage submitting(submitters);
    return submitting ? AssignAnywhere<OneShotTask>(std::move(own), priority, task) : RefuseTask();
}

int CallbackPool::DropTask(std::shared_ptr<const TarvoTask> callback, TarvoPriority priority) {
    if (destroyed || RefusesTasks()) {
        return RefuseTask();
    }
    std::shared_ptr<const TarvoTask> task;
    const Turnstile::Passage submitting(submitters);
    return submitting ? AssignAnywhere<OneShotOfTask>(std::move(callback), priority, task) : RefuseTask();
}

template <typename Task, typename Callback>
int CallbackPool::AssignAnywhere(Callback &&callback, TarvoPriority priority, std::shared_ptr<const TarvoTask> &task) {
    Worker *worker = priority == TARVO_PRIORITY_URGENT ? pool->GetUrgentWorker() : pool->GetWorker();
    if (worker == nullptr) {
        return -ENOMEM;
    }
    // A failure from here on leaves the worker allocated, as intended: it takes a bad priority or a thread that cannot
    // be started. For want of memory alone it goes back.
    int ret = SetPriority(*worker, priority);
    if (ret != 0) {
        return ret;
    }
    ret = AssignTask<Task>(*worker, task, std::forward<Callback>(callback), *this, *worker);
    if (ret == -ENOMEM) {
        pool->FreeWorker(*worker);
    }
    return ret;
}

Worker *CallbackPool::FindWorker(const std::string &name) {
    if (Worker *worker = pool->WorkerOf(name)) {
        return worker;
    }
    for (bool waited = false;; waited = true) {
        MutexLock lock(findMutex);
        if (Worker *worker = pool->WorkerOf(name)) {
            return worker;
        }
        int ret = waited ? pool->AllocWorkerAgain(name) : pool->AllocWorker(name);
        if (ret == -ENOMEM) {
            return nullptr;
        }
        if (ret == 0) {
            if (Worker *worker = pool->WorkerOf(name)) {
                return worker;
            }
            continue; // freed already by somebody else
        }
        // With findMutex held: submitters of other new names wait behind this one.
        ret = pool->WaitForFreeWorker();
        if (ret < 0) {
            TARVO_LOG(LOG_ERR, "Wait for free worker failed: err = %d", ret);
        }
    }
}

int CallbackPool::FreeWorker(const std::string &name) { return pool->FreeWorker(name); }

void CallbackPool::OnTaskFinished(const TarvoTask &task) { pool->FreeWorker(*task.GetExecutor()); }

int CallbackPool::RefuseTask() const {
    TARVO_LOG(LOG_WARNING, "Using thread pool after destroy.");
    return -EACCES;
}

void CallbackPool::Destroy() {
    pool->Destroy();
    destroyed = true;
}

std::size_t CallbackPool::NumWorkers() const { return pool->NumWorkers(); }

std::size_t CallbackPool::NumUrgentWorkers() const { return pool->NumUrgentWorkers(); }
