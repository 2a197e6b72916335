#include "worker/PoolStats.h"

#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "stats/StatsSlot.h"

std::atomic<TarvoStatsPool *> PoolStats::numbers{nullptr};

void PoolStats::Begin() {
    if (numbers.load(std::memory_order_acquire) != nullptr) {
        return;
    }
    StatsSlot slot({TARVO_STATS_POOL, TARVO_STATS_THREADS, 0, EnvManager::ProcName(), {}});
    TarvoStatsPool *none = nullptr;
    if (slot.Pool() == nullptr || !numbers.compare_exchange_strong(none, slot.Pool())) {
        return;
    }
    // Threads write there while the process ends.
    alignas(StatsSlot) static unsigned char kept[sizeof(StatsSlot)];
    new (kept) StatsSlot(std::move(slot));
}
