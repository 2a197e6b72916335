// How numbers are written.
#include "stats/Stats.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

// The lower end of a bucket, from the description of the layout.
uint64_t LowerEnd(unsigned bucket) {
    if (bucket == 0) {
        return 0;
    }
    const unsigned quarter = bucket + 2;
    return (4 + quarter % 4) * (uint64_t{1} << (quarter / 4 + 7));
}

TEST(Stats, EachBucketBeginsWhereTheOneBeforeItEnds) {
    EXPECT_EQ(896U, LowerEnd(1));
    EXPECT_EQ(120259084288U, LowerEnd(TARVO_STATS_BUCKETS - 1));
    for (unsigned bucket = 1; bucket < TARVO_STATS_BUCKETS; ++bucket) {
        EXPECT_EQ(bucket, Stats::BucketOf(LowerEnd(bucket)));
        EXPECT_EQ(bucket - 1, Stats::BucketOf(LowerEnd(bucket) - 1));
    }
}

TEST(Stats, NoBucketIsWiderThanAQuarterOfItsLowerEnd) {
    for (unsigned bucket = 1; bucket + 1 < TARVO_STATS_BUCKETS; ++bucket) {
        EXPECT_LE(4 * (LowerEnd(bucket + 1) - LowerEnd(bucket)), LowerEnd(bucket));
    }
}

TEST(Stats, TheOutermostBucketsTakeWhatIsBeyond) {
    EXPECT_EQ(0U, Stats::BucketOf(0));
    EXPECT_EQ(TARVO_STATS_BUCKETS - 1, Stats::BucketOf(UINT64_MAX));
}

TEST(Stats, ATimeIsCountedInItsBucketItsSumAndAsTheLongest) {
    TarvoStatsTimes times{};
    Stats::Time(times, 2000);
    Stats::TimeAlone(times, 1000);
    EXPECT_EQ(3000U, times.sum);
    EXPECT_EQ(2000U, times.longest);
    EXPECT_EQ(1U, times.buckets[Stats::BucketOf(2000)]);
    EXPECT_EQ(1U, times.buckets[Stats::BucketOf(1000)]);
    Stats::TimeAlone(times, 5000);
    EXPECT_EQ(5000U, times.longest);
}

TEST(Stats, CountersBeginAgainAtZero) {
    uint64_t counter = UINT64_MAX;
    Stats::Count(counter);
    EXPECT_EQ(0U, counter);
    counter = UINT64_MAX - 1;
    Stats::CountAlone(counter, 3);
    EXPECT_EQ(1U, counter);
    TarvoStatsTimes times{};
    times.sum = UINT64_MAX;
    times.buckets[0] = UINT64_MAX;
    Stats::TimeAlone(times, 1);
    EXPECT_EQ(0U, times.sum);
    EXPECT_EQ(0U, times.buckets[0]);
}

TEST(Stats, ALevelKnowsTheHighestThatItHasBeen) {
    TarvoStatsLevel level{};
    Stats::Raise(level);
    Stats::RaiseAlone(level);
    Stats::Lower(level);
    Stats::LowerAlone(level);
    Stats::Raise(level);
    EXPECT_EQ(1U, level.now);
    EXPECT_EQ(2U, level.most);
    Stats::AtMost(level.most, 7);
    Stats::AtMostAlone(level.most, 6);
    EXPECT_EQ(7U, level.most);
}

TEST(Stats, NothingIsLostWhenThreadsCountTheSame) {
    constexpr int THREADS = 4;
    constexpr uint64_t EACH = 20000;
    TarvoStatsTimes times{};
    TarvoStatsLevel level{};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (uint64_t n = 1; n <= EACH; ++n) {
                Stats::Raise(level);
                Stats::Time(times, n);
                Stats::Lower(level);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * EACH * (EACH + 1) / 2, times.sum);
    EXPECT_EQ(EACH, times.longest);
    EXPECT_EQ(0U, level.now);
    EXPECT_GE(level.most, 1U);
    EXPECT_LE(level.most, uint64_t{THREADS});
}

TEST(Stats, ATimeThatRunsBackwardsIsNone) {
    EXPECT_EQ(0U, Stats::Between(10, 5));
    EXPECT_EQ(5U, Stats::Between(5, 10));
}

} // namespace
