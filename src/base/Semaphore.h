#ifndef TARVO_BASE_SEMAPHORE_H
#define TARVO_BASE_SEMAPHORE_H

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

    // Whether the next wait would not sleep.
    bool HasPosts() const { return count.load(std::memory_order_acquire) > 0; }

    // Takes one post, waiting for it without limit.
    void Wait() {
        if (Take()) {
            return;
        }
        TakeWake();
    }

    // False when none came in time; nothing is taken then. `now` is the clock that the limit starts from: for long ones
    // CLOCK_MONOTONIC_COARSE will do, which may be a timer tick behind and takes a fifth of the time to read.
    bool WaitFor(std::chrono::milliseconds limit, clockid_t now = CLOCK_MONOTONIC) {
        if (Take()) {
            return true;
        }
        const timespec deadline = DeadlineIn(limit, now);
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

    static timespec DeadlineIn(std::chrono::milliseconds limit, clockid_t now) {
        timespec deadline{};
        clock_gettime(now, &deadline);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
        deadline.tv_sec += static_cast<time_t>(seconds.count());
        deadline.tv_nsec += static_cast<long>(std::chrono::nanoseconds(limit - seconds).count());
        if (deadline.tv_nsec >= NANOSECONDS_PER_SECOND) {
            deadline.tv_nsec -= NANOSECONDS_PER_SECOND;
            ++deadline.tv_sec;
        }
        return deadline;
    }

    static constexpr long NANOSECONDS_PER_SECOND = 1000000000;

    // Negative while the thread waits.
    std::atomic<int32_t> count{0};
    sem_t sleeper;
};

#endif // TARVO_BASE_SEMAPHORE_H
