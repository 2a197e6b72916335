#ifndef TARVO_STATS_STATSFILE_H
#define TARVO_STATS_STATSFILE_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/ForkLock.h"
#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "stats/StatsSlot.h"
#include "tarvo_stats.h"

// The statistics file of this process, which both engines write. It is made on the first call of Get() if the directory
// is there and lets this process write; otherwise nothing is counted in this process, and nobody looks again.
//
// The space is reserved before it is mapped, so that writing to it never meets a full file system; and the last quarter
// of the file system is left to the FIFOs, which the program cannot do without. A lock on the descriptor, which the
// kernel gives back with the end of the process, tells others that it lives. A forked child has neither: its copies of
// the mappings are replaced by memory of its own, where what still writes does no harm, and it may make a file of its
// own.
// Owns: the file, its mappings, the lock. Threads: any. Locks: `mutex`, also across a fork. Ends: never.
class StatsFile {
public:
    // The file of this process; null when nothing is counted.
    static StatsFile *Get() EXCLUDES(mutex) {
        return decided.load(std::memory_order_acquire) ? current.load(std::memory_order_relaxed) : Decide();
    }

    TarvoStatsHeader &Header() const { return *header; }

    // A place: one that was never used, else the one that has been closed for longest, else a new one. None, and one
    // log line in the life of the process, when there is no room. Does not throw.
    StatsSlot Take(const StatsIdentity &identity) EXCLUDES(mutex);
    // Makes room for one more, so that a Take() by somebody who holds locks finds it.
    void MakeRoom() EXCLUDES(mutex);
    // What is written under that index stays there until it is taken again.
    void Release(uint32_t index) EXCLUDES(mutex);

    StatsFile(const StatsFile &) = delete;
    StatsFile &operator=(const StatsFile &) = delete;

private:
    struct Mapping {
        void *start;
        std::size_t size;
    };
    // What is known of a slot without looking into it.
    struct Place {
        TarvoStatsSlot *slot;
        uint32_t nextReleased;
    };
    static constexpr uint32_t NONE = UINT32_MAX;

    StatsFile() = default;
    ~StatsFile() = default;

    static StatsFile *Decide() EXCLUDES(mutex);
    // The steps of it: 0 or a negated errno.
    static int Make(StatsFile *&made) REQUIRES(mutex);
    int Open(const UniqueFd &directory, const std::string &name) REQUIRES(mutex);
    int Fill(uint64_t startTicks, const std::string &process) REQUIRES(mutex);

    int Grow() REQUIRES(mutex);
    int Map(std::size_t from, std::size_t to, char *&start) REQUIRES(mutex);
    // A place to write a new identity to, or NONE.
    uint32_t FindPlace() REQUIRES(mutex);
    uint32_t TakeReleased() REQUIRES(mutex);
    void ReportFull(int result, const StatsIdentity &identity) REQUIRES(mutex);
    void Name(TarvoStatsSlot &slot, const StatsIdentity &identity) REQUIRES(mutex);
    void Fold(TarvoStatsSlot &slot) REQUIRES(mutex);

    static void WatchForks() __attribute__((constructor));
    static void HoldForFork();
    static void ReleaseInParent();
    static void LeaveToParent();
    void Abandon();

    UniqueFd file; // carries the lock
    TarvoStatsHeader *header = nullptr;
    std::vector<Mapping> mappings GUARDED_BY(mutex);
    std::vector<Place> places GUARDED_BY(mutex);
    uint32_t used GUARDED_BY(mutex) = 0; // places from here on have never been taken
    // Those given back, the longest first.
    uint32_t firstReleased GUARDED_BY(mutex) = NONE;
    uint32_t lastReleased GUARDED_BY(mutex) = NONE;
    bool reported GUARDED_BY(mutex) = false;
    bool abandoned GUARDED_BY(mutex) = false;

    static std::atomic<bool> decided;
    static std::atomic<StatsFile *> current;
    static Mutex mutex ACQUIRED_AFTER(lock_order::leaves) ACQUIRED_BEFORE(lock_order::logging);
    static __thread ForkLock forkLock;
};

#endif // TARVO_STATS_STATSFILE_H
