// What the tests of the worker threads share. All waits end under the watchdog of the test.
#ifndef TARVO_UNIT_WORKER_WORKERTESTKIT_H
#define TARVO_UNIT_WORKER_WORKERTESTKIT_H

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "support/FakeClock.h"
#include "support/Interpose.h"
#include "worker/TarvoTask.h"
#include "worker/Worker.h"
#include "worker/WorkerPool.h"

namespace worker_test {

// Of the library's own pool.
constexpr unsigned NORMAL_SLOTS = 1024;
constexpr unsigned URGENT_SLOTS = 20;

inline bool HasAllocated(WorkerPool &pool) {
    MutexLock lock(pool.StateMutex());
    return pool.HasAllocatedWorker();
}

// Opens once; waiters pass from then on.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all(); // under the lock: a waiter may destroy the gate as soon as it has passed
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return open; });
    }
    bool IsOpen() {
        std::lock_guard<std::mutex> lock(mutex);
        return open;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool open = false;
};

// Counts up; waiters pass when the count has been reached.
class Tally {
public:
    void Add() {
        std::lock_guard<std::mutex> lock(mutex);
        ++count;
        changed.notify_all();
    }
    void WaitFor(int number) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return count >= number; });
    }
    int Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return count;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
};

// Keeps the order in which things happened.
class Journal {
public:
    void Note(int what) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(what);
    }
    std::vector<int> Entries() {
        std::lock_guard<std::mutex> lock(mutex);
        return entries;
    }

private:
    std::mutex mutex;
    std::vector<int> entries;
};

inline std::shared_ptr<const TarvoTask> MakeTask(const std::function<void()> &callback) {
    return std::make_shared<SyncTask>(callback);
}

inline int Assign(Worker &worker, const std::function<void()> &callback) {
    std::shared_ptr<const TarvoTask> task = MakeTask(callback);
    return worker.Assign(task);
}

// Runs `callback` on the worker and waits until it has returned.
inline void RunOn(Worker &worker, const std::function<void()> &callback) {
    Gate done;
    if (Assign(worker, [&] {
            callback();
            done.Open();
        }) == 0) {
        done.Wait();
    }
}

// Counts the rounds of a stress test, which ends early on a machine that has no time for it.
class Rounds {
public:
    Rounds(int most, std::chrono::milliseconds limit) : left(most), end(Now() + limit) {}

    bool Next() {
        if (left == 0 || (done > 0 && Now() > end)) {
            return false;
        }
        --left;
        ++done;
        return true;
    }
    int Done() const { return done; }

private:
    static std::chrono::steady_clock::time_point Now() {
        const tarvo_test::RealTime real;
        return std::chrono::steady_clock::now();
    }

    int left;
    int done = 0;
    const std::chrono::steady_clock::time_point end;
};

// Passes a little time without giving the processor away, which may take long on a machine with much to do.
inline void Spin(unsigned turns) {
    std::atomic<unsigned> turn{0};
    while (turn.fetch_add(1) < turns) {
    }
}

// Calls a function when it is destroyed; for what a callback holds.
class OnDestruction {
public:
    explicit OnDestruction(std::function<void()> what) : action(std::move(what)) {}
    ~OnDestruction() { action(); }
    OnDestruction(const OnDestruction &) = delete;
    OnDestruction &operator=(const OnDestruction &) = delete;

private:
    const std::function<void()> action;
};

// A thread that is joined when the test leaves it.
class ScopedThread {
public:
    explicit ScopedThread(std::function<void()> body) : thread(std::move(body)) {}
    ~ScopedThread() { Join(); }
    ScopedThread(const ScopedThread &) = delete;
    ScopedThread &operator=(const ScopedThread &) = delete;

    void Join() {
        if (thread.joinable()) {
            thread.join();
        }
    }

private:
    std::thread thread;
};

// While it lives, every call site may write a restrained line again, also one that has written in an earlier test of
// this process: the wall clock is beyond the limit of all lines so far.
class UnrestrainedYet {
public:
    UnrestrainedYet() {
        static int made = 0;
        clock.AdvanceWall(std::chrono::minutes(11) * ++made);
    }

private:
    tarvo_test::FakeClock clock;
};

struct Scheduling {
    int policy = -1;
    int priority = -1;
};

// Of the calling thread, as the kernel has it.
inline Scheduling OwnScheduling() {
    sched_param param{};
    const int policy = sched_getscheduler(0);
    sched_getparam(0, &param);
    return {policy, param.sched_priority};
}

// Whether this process may use real-time scheduling.
inline bool HasRealTimeRight() {
    bool allowed = false;
    std::thread([&] {
        sched_param param{};
        param.sched_priority = 50;
        allowed = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
    }).join();
    return allowed;
}

} // namespace worker_test

// In a test: skips it, with the reason printed, where real-time scheduling is not allowed.
#define TARVO_SKIP_WITHOUT_REALTIME()                                                                                  \
    do {                                                                                                               \
        if (!worker_test::HasRealTimeRight()) {                                                                        \
            GTEST_SKIP() << "this user may not use SCHED_FIFO";                                                        \
        }                                                                                                              \
    } while (false)

#endif // TARVO_UNIT_WORKER_WORKERTESTKIT_H
