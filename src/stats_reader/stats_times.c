// Times in buckets.
#include "tarvo_stats.h"

#define FIRST_END UINT64_C(896)
#define FIRST_EXPONENT 9U
#define SKIPPED 2U // of the quarters of the first power, whose third and last are buckets 0 and 1

uint32_t TarvoStatsBucketOf(uint64_t time) {
    if (time < FIRST_END) {
        return 0;
    }
    const uint32_t exponent = 63U - (uint32_t)__builtin_clzll(time);
    const uint32_t quarter = (uint32_t)(time >> (exponent - 2U)) & 3U;
    const uint32_t bucket = 4U * (exponent - FIRST_EXPONENT) + quarter - SKIPPED;
    return bucket < TARVO_STATS_BUCKETS ? bucket : TARVO_STATS_BUCKETS - 1U;
}

uint64_t TarvoStatsBucketEnd(uint32_t bucket) {
    if (bucket >= TARVO_STATS_BUCKETS - 1U) {
        return UINT64_MAX;
    }
    const uint32_t next = bucket + 1U + SKIPPED;
    const uint32_t exponent = FIRST_EXPONENT + next / 4U;
    return (UINT64_C(4) + next % 4U) << (exponent - 2U);
}

uint64_t TarvoStatsTimesCount(const TarvoStatsTimes *times) {
    uint64_t count = 0;
    for (uint32_t bucket = 0; bucket < TARVO_STATS_BUCKETS; ++bucket) {
        count += times->buckets[bucket];
    }
    return count;
}

uint64_t TarvoStatsPercentile(const TarvoStatsTimes *times, double percent) {
    const uint64_t count = TarvoStatsTimesCount(times);
    if (count == 0) {
        return 0;
    }
    const double rank = (double)count * percent / 100.0;
    uint64_t below = 0;
    for (uint32_t bucket = 0; bucket < TARVO_STATS_BUCKETS; ++bucket) {
        below += times->buckets[bucket];
        if (times->buckets[bucket] != 0 && (double)below >= rank) {
            const uint64_t end = TarvoStatsBucketEnd(bucket);
            // A time of a process that was killed may be counted, and not yet be the longest.
            return times->longest != 0 && times->longest < end ? times->longest : end;
        }
    }
    return times->longest;
}

void TarvoStatsTimesAdd(TarvoStatsTimes *sum, const TarvoStatsTimes *more) {
    sum->sum += more->sum;
    sum->longest = more->longest > sum->longest ? more->longest : sum->longest;
    for (uint32_t bucket = 0; bucket < TARVO_STATS_BUCKETS; ++bucket) {
        sum->buckets[bucket] += more->buckets[bucket];
    }
}

void TarvoStatsTimesSince(const TarvoStatsTimes *now, const TarvoStatsTimes *before, TarvoStatsTimes *since) {
    since->sum = now->sum - before->sum;
    since->longest = now->longest;
    for (uint32_t bucket = 0; bucket < TARVO_STATS_BUCKETS; ++bucket) {
        since->buckets[bucket] = now->buckets[bucket] - before->buckets[bucket];
    }
}
