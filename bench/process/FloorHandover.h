#ifndef TARVO_BENCH_PROCESS_FLOORHANDOVER_H
#define TARVO_BENCH_PROCESS_FLOORHANDOVER_H

#include <semaphore.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <type_traits>
#include <utility>

#include "FloorFrame.h"

namespace bench {

// Values that one thread takes after another has put them there, with a mutex and a condition variable.
// Owns: what waits. Threads: any. Locks: its own. Ends: when nobody uses it.
template <typename T>
class ConditionQueue {
public:
    void Put(T value) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            queue.push_back(std::move(value));
        }
        wake.notify_one();
    }
    T Take() {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait(lock, [this] { return !queue.empty(); });
        T value = std::move(queue.front());
        queue.pop_front();
        return value;
    }

private:
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<T> queue;
};

// The same with a semaphore: who waits is woken once, and never for the mutex.
template <typename T>
class SemaphoreQueue {
public:
    SemaphoreQueue() { sem_init(&filled, 0, 0); }
    void Put(T value) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            queue.push_back(std::move(value));
        }
        sem_post(&filled);
    }
    T Take() {
        while (sem_wait(&filled) != 0) {
        }
        const std::lock_guard<std::mutex> lock(mutex);
        T value = std::move(queue.front());
        queue.pop_front();
        return value;
    }

private:
    sem_t filled{};
    std::mutex mutex;
    std::deque<T> queue;
};

// One value at a time, for a caller that waits for its answer.
template <typename T>
class ConditionSlot {
public:
    void Put(T given) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            value = std::move(given);
            filled = true;
        }
        wake.notify_one();
    }
    T Take() {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait(lock, [this] { return filled; });
        filled = false;
        return std::move(value);
    }

private:
    std::mutex mutex;
    std::condition_variable wake;
    T value{};
    bool filled = false;
};

template <typename T>
class SemaphoreSlot {
public:
    SemaphoreSlot() { sem_init(&filled, 0, 0); }
    void Put(T given) {
        value = std::move(given);
        sem_post(&filled);
    }
    T Take() {
        while (sem_wait(&filled) != 0) {
        }
        return std::move(value);
    }

private:
    sem_t filled{};
    T value{};
};

template <typename T>
using Slot = std::conditional_t<FLOOR_WITH_SEMAPHORES, SemaphoreSlot<T>, ConditionSlot<T>>;
template <typename T>
using Handover = std::conditional_t<FLOOR_WITH_SEMAPHORES, SemaphoreQueue<T>, ConditionQueue<T>>;

} // namespace bench

#endif // TARVO_BENCH_PROCESS_FLOORHANDOVER_H
