#include "worker/Worker.h"

#include <cxxabi.h>
#include <sys/prctl.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <new>
#include <system_error>
#include <typeinfo>
#include <utility>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "worker/PoolStats.h"

namespace {

constexpr char LOG_TAG[] = "Worker";
constexpr std::size_t CAPACITY = 1000;
constexpr std::chrono::seconds IDLE_TIMEOUT{60};
constexpr std::size_t THREAD_NAME_SIZE = 16; // the kernel's limit, terminator included

} // namespace

Worker::Worker(std::string workerName) : name(std::move(workerName)) {}

Worker::~Worker() {
    StopRoutine();
    ThreadJoin();
}

bool Worker::Start() {
    running = true;
    needRestart = false;
    MutexLock lock(threadMutex);
    if (!running) {
        return false;
    }
    try {
        thread.Create(&Worker::Routine, this);
    } catch (const std::system_error &error) {
        TARVO_LOG(LOG_ERR, "start thread failed, system error: %s.", error.what());
        needRestart = true;
        return false;
    } catch (...) {
        TARVO_LOG(LOG_ERR, "start thread failed");
        needRestart = true;
        return false;
    }
    TARVO_LOG(LOG_INFO, "start thread");
    return true;
}

void Worker::ThreadJoin() {
    MutexLock lock(threadMutex);
    if (!thread.Joinable()) {
        return;
    }
    try {
        thread.Join();
    } catch (const std::system_error &error) {
        TARVO_LOG(LOG_ERR, "Join worker failed, system error: %s.", error.what());
    } catch (abi::__forced_unwind &) {
        // The caller was cancelled while it waited; the C library ends the process unless this passes on.
        throw;
    } catch (...) {
        TARVO_LOG(LOG_ERR, "Join worker failed");
    }
}

bool Worker::Restart() {
    ThreadJoin();
    if (Start()) {
        return true;
    }
    TARVO_LOG(LOG_ERR, "restart thread failed");
    return false;
}

int Worker::Assign(std::shared_ptr<const TarvoTask> &task) {
    {
        MutexLock lock(taskMutex);
        if (retired) {
            return -1;
        }
        // The routine decides to end under the same mutex, so a task never reaches a thread that is about to end.
        if (needRestart) {
            TARVO_LOG(LOG_INFO, "restart thread by assign");
            if (!Restart()) {
                return -1;
            }
            // It may have ended after the priority of this task was applied.
            if (GetRTType() == TARVO_PRIORITY_URGENT) {
                thread.SetRTType(TARVO_PRIORITY_URGENT);
            }
        }
        const int ret = Enqueue(task);
        if (ret != 0) {
            return ret;
        }
        TARVO_LOG(LOG_INFO, "task posted to worker=%s", name.c_str());
    }
    // Only now, so that the woken thread does not run into a mutex that is still held here. The task may already have
    // run: that is safe because a worker outlives every call of Assign, whatever its tasks bring about.
    wakeup.Post();
    return 0;
}

int Worker::Enqueue(std::shared_ptr<const TarvoTask> &task) {
    int ret = -EBUSY;
    if (tasks.size() < CAPACITY) {
        try {
            tasks.push_back(std::move(task));
            return 0;
        } catch (const std::bad_alloc &) {
            ret = -ENOMEM; // the task is still the caller's
        }
    }
    TARVO_LOG_RESTRAINED(LOG_WARNING, "Tasks exceeds worker's capacity(%lu)", CAPACITY);
    return ret;
}

int Worker::SetRTType(const TarvoPriority &priority) {
    // What nearly every task asks for is the case already, and needs no lock: Assign looks again whether the thread has
    // ended.
    if (!needRestart && !retired && GetRTType() == priority && thread.Reflects(priority)) {
        return 0;
    }
    MutexLock lock(taskMutex);
    if (retired) {
        return -1;
    }
    if (needRestart) {
        TARVO_LOG(LOG_INFO, "restart thread by set rt type");
        if (!Restart()) {
            return -1;
        }
    }
    rtType.store(priority, std::memory_order_relaxed);
    return thread.SetRTType(priority);
}

TarvoPriority Worker::GetRTType() const { return rtType.load(std::memory_order_relaxed); }

void Worker::Stop() {
    Clear();
    StopRoutine();
}

void Worker::StopRoutine() {
    running = false;
    needRestart = false;
    // The thread may end before it is notified, but the worker cannot go: whoever destroys it does so after this call,
    // and joins first.
    wakeup.Post();
}

void Worker::Clear() {
    DetachTasks();
    ReleaseDetached();
}

void Worker::DetachTasks() {
    MutexLock lock(taskMutex);
    if (detached.empty()) {
        detached.swap(tasks);
        return;
    }
    // Another caller is still releasing what it has dropped. Without memory the rest stays queued and runs.
    try {
        while (!tasks.empty()) {
            detached.push_back(std::move(tasks.front()));
            tasks.pop_front();
        }
    } catch (const std::bad_alloc &) {
        return;
    }
}

void Worker::ReleaseDetached() {
    for (;;) {
        std::shared_ptr<const TarvoTask> task; // goes after the lock
        MutexLock lock(taskMutex);
        if (detached.empty()) {
            return;
        }
        task = std::move(detached.front());
        detached.pop_front();
    }
}

void Worker::Retire() {
    {
        MutexLock lock(taskMutex);
        retired = true;
    }
    StopRoutine();
    ThreadJoin();
    Clear();
}

bool Worker::ExitCheck() const { return tasks.empty(); }

bool Worker::IsWorking() {
    MutexLock lock(taskMutex);
    return curTask != nullptr;
}

std::size_t Worker::WaitingTasks() {
    MutexLock lock(taskMutex);
    return tasks.size();
}

void Worker::Routine() {
    const PoolStats::Thread counted;
    NameThread();
    NuroCoreSetaffinity();
    do {
        TARVO_LOG(LOG_INFO, "worker=%s sleep!", name.c_str());
        const bool woken = wakeup.WaitFor(IDLE_TIMEOUT, CLOCK_MONOTONIC_COARSE);
        TARVO_LOG(LOG_INFO, "worker=%s awake!", name.c_str());
        if (!woken && EndWhenIdle()) {
            return;
        }
        RunTasks();
    } while (running);
}

void Worker::NameThread() const {
    char threadName[THREAD_NAME_SIZE];
    std::snprintf(threadName, sizeof(threadName), "tv_%s", EnvManager::ProcName());
    if (prctl(PR_SET_NAME, threadName) != 0) {
        TARVO_LOG(LOG_INFO, "Set worker thread name unfinished, errno = %d", errno);
    }
}

bool Worker::EndWhenIdle() {
    MutexLock lock(taskMutex);
    if (!ExitCheck()) {
        return false;
    }
    curTask.reset();
    needRestart = true;
    TARVO_LOG(LOG_INFO, "thread exit after waitting 60s, no task to process");
    return true;
}

std::shared_ptr<const TarvoTask> Worker::GetNormalTask() {
    if (tasks.empty()) {
        return nullptr;
    }
    std::shared_ptr<const TarvoTask> task = std::move(tasks.front());
    tasks.pop_front();
    return task;
}

// One wake-up drains the queue; the wake-ups counted for the tasks it ran then find the queue empty.
void Worker::RunTasks() {
    bool more = true;
    while (more) {
        // Only this thread changes curTask, so the task stays while it runs.
        const TarvoTask *current = nullptr;
        {
            MutexLock lock(taskMutex);
            curTask = GetNormalTask();
            if (curTask == nullptr) {
                return;
            }
            current = curTask.get();
        }
        const TarvoTask &call = *current;
        const char *const type = typeid(call).name();
        TARVO_LOG(LOG_DEBUG, "Calling %s", type);
        call(); // what it throws ends the process
        TARVO_LOG(LOG_DEBUG, "Finish %s", type);
        std::shared_ptr<const TarvoTask> finished; // released without the lock
        {
            MutexLock lock(taskMutex);
            finished.swap(curTask);
            more = !ExitCheck();
        }
        TARVO_LOG(LOG_INFO, "worker=%s task finish!", name.c_str());
    }
}
