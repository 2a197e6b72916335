// How the numbers of a statistics file are written: 64-bit words of shared memory, each read by others at any moment.
//
// What ends in Alone is for numbers that one thread at a time writes, as the holder of a lock or as the only one that
// ever does: a load, an addition and a store, which no other processor hears of. Where several threads count the same,
// the first of them does so alone too, in words of its own (FirstThread).
#ifndef TARVO_STATS_STATS_H
#define TARVO_STATS_STATS_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "tarvo_stats.h"

namespace Stats {

inline uint64_t Load(const uint64_t &number) { return __atomic_load_n(&number, __ATOMIC_RELAXED); }

inline void Store(uint64_t &number, uint64_t value) { __atomic_store_n(&number, value, __ATOMIC_RELAXED); }

inline void Count(uint64_t &counter, uint64_t by = 1) { __atomic_fetch_add(&counter, by, __ATOMIC_RELAXED); }

inline void CountAlone(uint64_t &counter, uint64_t by = 1) { Store(counter, Load(counter) + by); }

// Raises `most` to `value` where it is lower.
inline void AtMost(uint64_t &most, uint64_t value) {
    uint64_t seen = Load(most);
    while (seen < value &&
           !__atomic_compare_exchange_n(&most, &seen, value, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
}

inline void AtMostAlone(uint64_t &most, uint64_t value) {
    if (Load(most) < value) {
        Store(most, value);
    }
}

inline void Raise(TarvoStatsLevel &level) {
    AtMost(level.most, __atomic_add_fetch(&level.now, uint64_t{1}, __ATOMIC_RELAXED));
}

inline void Lower(TarvoStatsLevel &level) { __atomic_fetch_sub(&level.now, uint64_t{1}, __ATOMIC_RELAXED); }

inline void RaiseAlone(TarvoStatsLevel &level) {
    Store(level.now, Load(level.now) + 1);
    AtMostAlone(level.most, Load(level.now));
}

inline void LowerAlone(TarvoStatsLevel &level) { Store(level.now, Load(level.now) - 1); }

// The bucket of a time.
inline unsigned BucketOf(uint64_t ns) {
    constexpr uint64_t FIRST = 896;
    constexpr unsigned LAST = TARVO_STATS_BUCKETS - 1;
    if (ns < FIRST) {
        return 0;
    }
    const auto power = 63U - static_cast<unsigned>(__builtin_clzll(ns));
    const unsigned bucket = 4 * (power - 9) + static_cast<unsigned>((ns >> (power - 2)) & 3U) - 2;
    return bucket < LAST ? bucket : LAST;
}

// Tells the compiler which way a condition seldom goes.
inline bool IsRare(bool value) { return __builtin_expect(static_cast<long>(value), 0) != 0; }

// A thread is told from all that run at the same time by where this one of its own is.
extern __thread char mark __attribute__((tls_model("initial-exec"), visibility("hidden")));

// Which thread has the words of the first. When it has ended, another one may come to the same place; it began after
// that end, and goes on where the first has stopped.
// Owns: nothing. Threads: any. Locks: none. Ends: any time.
class FirstThread {
public:
    // Whether it is the caller.
    bool IsThis() const { return !IsRare(first.load(std::memory_order_relaxed) != &mark); }
    // The same, but the caller becomes it if nobody is yet. Who is not the first here never will be.
    bool IsOrBecomesThis() {
        const char *nobody = nullptr;
        return first.compare_exchange_strong(nobody, &mark, std::memory_order_relaxed) || IsThis();
    }

private:
    std::atomic<const char *> first{nullptr};
};

inline void Time(TarvoStatsTimes &times, uint64_t ns) {
    Count(times.buckets[BucketOf(ns)]);
    Count(times.sum, ns);
    AtMost(times.longest, ns);
}

inline void TimeAlone(TarvoStatsTimes &times, uint64_t ns) {
    CountAlone(times.buckets[BucketOf(ns)]);
    CountAlone(times.sum, ns);
    AtMostAlone(times.longest, ns);
}

constexpr uint64_t NS_PER_SECOND = 1000000000;
constexpr uint64_t NS_PER_US = 1000;

inline uint64_t ToNs(const timespec &time) {
    return static_cast<uint64_t>(time.tv_sec) * NS_PER_SECOND + static_cast<uint64_t>(time.tv_nsec);
}

// The clock of all times in the file.
inline uint64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return ToNs(now);
}

// The same as it was at the last tick of the kernel's clock, for a fraction of the cost.
inline uint64_t NowOrJustBefore() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return ToNs(now);
}

// From one moment to a later one: 0 when they are reversed, as for a time that another process claims.
inline uint64_t Between(uint64_t from, uint64_t to) { return to > from ? to - from : 0; }

// What the results of a send, a call and an open are counted as.
inline unsigned RefusalOf(int result) {
    switch (result) {
    case -EAGAIN:
        return TARVO_STATS_SEND_FULL;
    case -EPIPE:
        return TARVO_STATS_SEND_BROKEN;
    default:
        return TARVO_STATS_SEND_OTHER;
    }
}

// Of a call without its answer.
inline unsigned CallEndOf(int result) {
    switch (result) {
    case -ETIMEDOUT:
        return TARVO_STATS_END_TIMED_OUT;
    case -EPIPE:
        return TARVO_STATS_END_BROKEN;
    case -ECANCELED:
        return TARVO_STATS_END_CANCELED;
    default:
        return TARVO_STATS_END_OTHER;
    }
}

// `result` may be a handle.
inline unsigned OpenEndOf(int result) {
    switch (result) {
    case -ETIMEDOUT:
        return TARVO_STATS_OPEN_TIMED_OUT;
    case -ENXIO:
    case -ENOENT:
        return TARVO_STATS_OPEN_NO_SERVER;
    case -EACCES:
    case -EPERM:
        return TARVO_STATS_OPEN_REFUSED;
    default:
        return result < 0 ? TARVO_STATS_OPEN_OTHER : TARVO_STATS_OPEN_OK;
    }
}

// Moves the words of the first threads to those of all.
inline void AddFirst(TarvoStatsPipe &copy) {
    const auto move = [](uint64_t &sum, uint64_t &first) {
        sum += first;
        first = 0;
    };
    for (unsigned kind = 0; kind < TARVO_STATS_KINDS; ++kind) {
        move(copy.sent.messages[kind], copy.sent.firstMessages[kind]);
        move(copy.sent.bytes[kind], copy.sent.firstBytes[kind]);
    }
    move(copy.requests.begun, copy.requests.firstBegun);
    move(copy.requests.finished, copy.requests.firstFinished);
    move(copy.calls.begun, copy.calls.firstBegun);
    move(copy.calls.ended[TARVO_STATS_END_ANSWERED], copy.calls.firstAnswered);
}

// The levels of a copy, which the file leaves to its readers, as the sums with the words of the first threads.
inline void SetLevels(TarvoStatsPipe &copy) {
    AddFirst(copy);
    uint64_t gone = copy.requests.begun;
    for (const uint64_t dropped : copy.requests.dropped) {
        gone += dropped;
    }
    uint64_t ended = 0;
    for (const uint64_t end : copy.calls.ended) {
        ended += end;
    }
    const uint64_t *const received = copy.received.messages;
    copy.requests.queued.now = Between(gone, received[TARVO_STATS_ONE_WAY] + received[TARVO_STATS_CALL]);
    copy.requests.running.now = Between(copy.requests.finished, copy.requests.begun);
    copy.calls.outstanding.now = Between(ended, copy.calls.begun);
}

// Of so many one-way requests one is timed. A power of two. Timing one takes two looks at the clock, some 40 ns, where
// a loop sends and delivers one in less than 100.
constexpr uint32_t ONE_WAYS_PER_TIME = 64;

// And so many calls.
constexpr uint32_t CALLS_PER_TIME = 8;

// Whether it is the one with that number, from 0 on, that is timed: by multiples of the golden ratio, whose fractions
// lie evenly and never in turns. The distances are 5, 8 and 13.
inline bool IsTimedCall(uint64_t number) {
    constexpr uint32_t GOLDEN = 0x9E3779B9U;
    return static_cast<uint32_t>(number) * GOLDEN < UINT32_MAX / CALLS_PER_TIME;
}

// A round trip that is not timed: the longest is known all the same, up to a tick.
inline void NoteRoundTrip(TarvoStatsTimes &times, uint64_t begunAt) {
    const uint64_t ns = Between(begunAt, NowOrJustBefore());
    if (IsRare(ns > Load(times.longest))) {
        AtMost(times.longest, ns);
    }
}

} // namespace Stats

#endif // TARVO_STATS_STATS_H
