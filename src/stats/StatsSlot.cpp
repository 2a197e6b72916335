#include "stats/StatsSlot.h"

#include <cstddef>

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

void StatsSlot::Opening() {
    if (slot != nullptr) {
        Stats::Store(slot->closedAt, 0);
        SetState(TARVO_STATS_OPENING);
    }
}

void StatsSlot::Opened() {
    if (slot != nullptr) {
        Stats::Store(slot->openedAt, Stats::Now());
        SetState(TARVO_STATS_OPEN);
    }
}

void StatsSlot::RemoteClosed() {
    if (slot == nullptr) {
        return;
    }
    uint32_t state = __atomic_load_n(&slot->state, __ATOMIC_RELAXED);
    while (state != TARVO_STATS_CLOSED &&
           !__atomic_compare_exchange_n(&slot->state, &state, uint32_t{TARVO_STATS_REMOTE_CLOSED}, true,
                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
}

bool StatsSlot::Read(TarvoStatsPipe &copy) const {
    if (slot == nullptr) {
        return false;
    }
    const auto *const from = reinterpret_cast<const uint64_t *>(&slot->of.pipe);
    auto *const to = reinterpret_cast<uint64_t *>(&copy);
    // What ends is counted after what begins. Read before it, it never is more.
    for (std::size_t word = sizeof(copy) / sizeof(*to); word-- > 0;) {
        to[word] = __atomic_load_n(&from[word], __ATOMIC_ACQUIRE);
    }
    // The words of the first stand behind those that end in the words of all.
    copy.requests.firstBegun = Stats::Load(slot->of.pipe.requests.firstBegun);
    copy.calls.firstBegun = Stats::Load(slot->of.pipe.calls.firstBegun);
    Stats::SetLevels(copy);
    return true;
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
