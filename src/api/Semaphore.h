#ifndef TARVO_API_SEMAPHORE_H
#define TARVO_API_SEMAPHORE_H

#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>

// A counting semaphore for one waiting thread. Posts that nobody sleeps for cost one atomic addition; a sleeper costs
// one system call on each side. A condition variable takes one more on the way out, and its mutex is often still held
// by the poster when the woken thread asks for it.
// Owns: the kernel's semaphore. Threads: one waits, any post. Locks: none. Ends: after the last Wake has returned.
class Semaphore {
public:
    Semaphore() { sem_init(&sleeper, 0, 0); }
    ~Semaphore() { sem_destroy(&sleeper); }
    Semaphore(const Semaphore &) = delete;
    Semaphore &operator=(const Semaphore &) = delete;

    // Counts without waking. True: the thread waits, and the caller has to call Wake(), once.
    bool Count() { return count.fetch_add(1, std::memory_order_acq_rel) < 0; }
    void Wake() { sem_post(&sleeper); }
    void Post() {
        if (Count()) {
            Wake();
        }
    }

    // Takes one post, waiting for it without limit.
    void Wait() {
        if (Take()) {
            return;
        }
        TakeWake();
    }

    // False when none came in time; nothing is taken then.
    bool WaitFor(std::chrono::milliseconds limit) {
        if (Take()) {
            return true;
        }
        const timespec deadline = DeadlineIn(limit);
        while (sem_clockwait(&sleeper, CLOCK_MONOTONIC, &deadline) != 0) {
            if (errno == EINTR) {
                continue;
            }
            int32_t waiting = -1;
            if (count.compare_exchange_strong(waiting, 0, std::memory_order_acq_rel)) {
                return false;
            }
            // Posted at the last moment: its wake-up is there or on its way, and must not be left for the next wait.
            TakeWake();
            return true;
        }
        Acquire();
        return true;
    }

private:
    bool Take() { return count.fetch_sub(1, std::memory_order_acq_rel) > 0; }

    void TakeWake() {
        while (sem_wait(&sleeper) != 0 && errno == EINTR) {
        }
        Acquire();
    }

    // What the poster wrote before it counted is visible from here on.
    void Acquire() const { static_cast<void>(count.load(std::memory_order_acquire)); }

    static timespec DeadlineIn(std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now().time_since_epoch() + limit;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(end);
        timespec deadline{};
        deadline.tv_sec = static_cast<time_t>(seconds.count());
        deadline.tv_nsec = static_cast<long>(std::chrono::nanoseconds(end - seconds).count());
        return deadline;
    }

    // Negative while the thread waits.
    std::atomic<int32_t> count{0};
    sem_t sleeper;
};

#endif // TARVO_API_SEMAPHORE_H
