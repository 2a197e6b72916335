#ifndef TARVO_STATS_STATSSLOT_H
#define TARVO_STATS_STATSSLOT_H

#include <cstdint>
#include <string_view>
#include <utility>

#include "tarvo_stats.h"

class StatsFile;

// Whose numbers a slot holds. The names need to live for the call only.
struct StatsIdentity {
    uint32_t kind;   // TARVO_STATS_PIPE ...
    uint32_t engine; // TARVO_STATS_THREADS ...
    int64_t handle;
    std::string_view name;
    std::string_view remote;
};

// The place of one pipe, server or pool in the statistics file of this process, or none.
// Owns: the place. Threads: the numbers in it as Stats.h says; the rest from one thread at a time. Locks: those of the
// file, while it is taken and given back. Ends: when nothing writes to the place any more; the numbers stay there until
// somebody else takes it.
class StatsSlot {
public:
    StatsSlot() = default;
    // Nothing when nothing is counted in this process, or no room is left. Does not throw.
    explicit StatsSlot(const StatsIdentity &identity);
    ~StatsSlot() {
        if (slot != nullptr) {
            Release();
        }
    }
    StatsSlot(StatsSlot &&other) noexcept
        : file(other.file), index(other.index), slot(std::exchange(other.slot, nullptr)) {}
    StatsSlot &operator=(StatsSlot &&other) noexcept {
        std::swap(file, other.file);
        std::swap(index, other.index);
        std::swap(slot, other.slot);
        return *this;
    }
    StatsSlot(const StatsSlot &) = delete;
    StatsSlot &operator=(const StatsSlot &) = delete;

    // The numbers, or null.
    TarvoStatsPipe *Pipe() const { return slot == nullptr ? nullptr : &slot->of.pipe; }
    TarvoStatsServer *Server() const { return slot == nullptr ? nullptr : &slot->of.server; }
    TarvoStatsPool *Pool() const { return slot == nullptr ? nullptr : &slot->of.pool; }

    // A copy of a pipe's numbers as a reader of the file gets it: its levels worked out. False without a place.
    bool Read(TarvoStatsPipe &copy) const;

    // What the slot says of the life of the pipe. Any thread.
    void Opening();
    void Opened();
    // Nothing once it is closed.
    void RemoteClosed();
    void Closed();

private:
    friend class StatsFile;

    StatsSlot(StatsFile &owner, uint32_t place, TarvoStatsSlot &taken) : file(&owner), index(place), slot(&taken) {}

    static void Close(TarvoStatsSlot &slot);
    void Release();
    void SetState(uint32_t state) { __atomic_store_n(&slot->state, state, __ATOMIC_RELAXED); }

    StatsFile *file = nullptr;
    uint32_t index = 0;
    TarvoStatsSlot *slot = nullptr;
};

#endif // TARVO_STATS_STATSSLOT_H
