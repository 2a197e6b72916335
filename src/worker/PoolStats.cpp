#include "worker/PoolStats.h"

#include <new>

#include "api/EnvManager.h"
#include "stats/StatsSlot.h"

std::atomic<TarvoStatsPool *> PoolStats::numbers{nullptr};

void PoolStats::Begin() {
    // Threads write there while the process ends.
    alignas(StatsSlot) static unsigned char kept[sizeof(StatsSlot)];
    // Tried once: what has been taken without being counted would be given back below 0.
    static const StatsSlot *const slot =
        new (kept) StatsSlot({TARVO_STATS_POOL, TARVO_STATS_THREADS, 0, EnvManager::ProcName(), {}});
    numbers.store(slot->Pool(), std::memory_order_release);
}
