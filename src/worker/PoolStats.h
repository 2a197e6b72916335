#ifndef TARVO_WORKER_POOLSTATS_H
#define TARVO_WORKER_POOLSTATS_H

#include <atomic>

#include "stats/Stats.h"
#include "tarvo_stats.h"

// What the threads of this process count: those for callbacks and those that receive.
// Owns: a place in the statistics file from the first Begin() on, for ever. Threads: any. Locks: none. Ends: never.
class PoolStats {
public:
    // Before the first thread is made. Once, if anything is counted in this process; later calls do nothing.
    static void Begin();

    static void Taken() {
        With([](TarvoStatsPool &pool) { Stats::Raise(pool.taken); });
    }
    static void GivenBack() {
        With([](TarvoStatsPool &pool) { Stats::Lower(pool.taken); });
    }
    static void Refused() {
        With([](TarvoStatsPool &pool) { Stats::Count(pool.refused); });
    }
    static void Waited() {
        With([](TarvoStatsPool &pool) { Stats::Count(pool.waited); });
    }

    // A thread for callbacks.
    // Owns: one of the level. Threads: the one that it counts. Locks: none. Ends: with its thread.
    struct Thread {
        Thread() {
            With([](TarvoStatsPool &pool) { Stats::Raise(pool.threads); });
        }
        ~Thread() {
            With([](TarvoStatsPool &pool) { Stats::Lower(pool.threads); });
        }
        Thread(const Thread &) = delete;
        Thread &operator=(const Thread &) = delete;
    };
    // A thread that receives. Owns, Threads, Locks, Ends: as Thread.
    struct Monitor {
        Monitor() {
            With([](TarvoStatsPool &pool) { Stats::Count(pool.monitors); });
        }
        ~Monitor() {
            With([](TarvoStatsPool &pool) { __atomic_fetch_sub(&pool.monitors, uint64_t{1}, __ATOMIC_RELAXED); });
        }
        Monitor(const Monitor &) = delete;
        Monitor &operator=(const Monitor &) = delete;
    };

private:
    template <typename Step>
    static void With(Step step) {
        if (TarvoStatsPool *const pool = numbers.load(std::memory_order_acquire)) {
            step(*pool);
        }
    }

    static std::atomic<TarvoStatsPool *> numbers;
};

#endif // TARVO_WORKER_POOLSTATS_H
