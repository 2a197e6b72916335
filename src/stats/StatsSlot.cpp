#include "stats/StatsSlot.h"

#include "stats/Stats.h"
#include "stats/StatsFile.h"

StatsSlot::StatsSlot(const StatsIdentity &identity) {
    if (StatsFile *const counting = StatsFile::Get()) {
        *this = counting->Take(identity);
    }
}

void StatsSlot::Release() {
    file->Release(index);
    slot = nullptr;
}

void StatsSlot::Opened() {
    if (slot != nullptr) {
        Stats::Store(slot->openedAt, Stats::Now());
        Stats::Store(slot->closedAt, 0);
        SetState(TARVO_STATS_OPEN);
    }
}

void StatsSlot::Closed() {
    if (slot != nullptr) {
        Close(*slot);
    }
}

void StatsSlot::Close(TarvoStatsSlot &slot) {
    if (Stats::Load(slot.closedAt) == 0) {
        Stats::Store(slot.closedAt, Stats::Now());
        __atomic_store_n(&slot.state, TARVO_STATS_CLOSED, __ATOMIC_RELAXED);
    }
}
