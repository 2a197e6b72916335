// Percentiles, sums and differences.
#include <cmath>

#include "ReaderKit.h"

namespace tarvo_test {
namespace {

TEST(StatsTimesTest, BucketsAreAsTheHeaderSays) {
    EXPECT_EQ(TarvoStatsBucketOf(0), 0U);
    EXPECT_EQ(TarvoStatsBucketOf(895), 0U);
    EXPECT_EQ(TarvoStatsBucketOf(896), 1U);
    EXPECT_EQ(TarvoStatsBucketOf(UINT64_MAX), TARVO_STATS_BUCKETS - 1);
    for (uint64_t time = 896; time < uint64_t{120} * 1000000000; time += time / 17 + 1) {
        const auto exponent = static_cast<uint32_t>(std::floor(std::log2(static_cast<double>(time))));
        const auto below = static_cast<uint32_t>((time >> (exponent - 2)) & 3U);
        EXPECT_EQ(TarvoStatsBucketOf(time), 4 * (exponent - 9) + below - 2) << time;
    }
}

TEST(StatsTimesTest, BucketsMeetAndNoneIsWiderThanAQuarter) {
    for (uint32_t bucket = 0; bucket + 2 < TARVO_STATS_BUCKETS; ++bucket) {
        const uint64_t end = TarvoStatsBucketEnd(bucket);
        EXPECT_EQ(TarvoStatsBucketOf(end - 1), bucket);
        EXPECT_EQ(TarvoStatsBucketOf(end), bucket + 1);
        EXPECT_LE(TarvoStatsBucketEnd(bucket + 1) - end, end / 4);
    }
    EXPECT_EQ(TarvoStatsBucketEnd(TARVO_STATS_BUCKETS - 1), UINT64_MAX);
    EXPECT_NEAR(static_cast<double>(TarvoStatsBucketEnd(TARVO_STATS_BUCKETS - 2)), 120.26e9, 1e7);
}

TarvoStatsTimes TimesOf(const std::vector<uint64_t> &all) {
    TarvoStatsTimes times{};
    for (const uint64_t time : all) {
        times.sum += time;
        times.longest = std::max(times.longest, time);
        ++times.buckets[TarvoStatsBucketOf(time)];
    }
    return times;
}

TEST(StatsTimesTest, PercentilesAreAtMostAQuarterTooLarge) {
    std::vector<uint64_t> all;
    for (uint64_t i = 1; i <= 1000; ++i) {
        all.push_back(i * 10000);
    }
    const TarvoStatsTimes times = TimesOf(all);
    EXPECT_EQ(TarvoStatsTimesCount(&times), 1000U);
    for (const double percent : {1.0, 50.0, 90.0, 99.0, 99.9}) {
        const double exact = percent * 100000;
        const auto told = static_cast<double>(TarvoStatsPercentile(&times, percent));
        EXPECT_GE(told, exact);
        EXPECT_LE(told, exact * 1.25 + 1);
    }
    EXPECT_EQ(TarvoStatsPercentile(&times, 100), 10000000U) << "never more than the longest";
    const TarvoStatsTimes none{};
    EXPECT_EQ(TarvoStatsPercentile(&none, 99), 0U);
}

TEST(StatsTimesTest, BeyondTheLastPercentileIsTheLongest) {
    TarvoStatsTimes times{};
    times.buckets[3] = 10;
    times.longest = 4711;
    EXPECT_EQ(TarvoStatsPercentile(&times, 200), 4711U);
}

TEST(StatsTimesTest, SumsAndDifferencesUndoEachOther) {
    const TarvoStatsTimes before = TimesOf({1000, 2000});
    TarvoStatsTimes now = before;
    const TarvoStatsTimes more = TimesOf({5000, 900000});
    TarvoStatsTimesAdd(&now, &more);
    TarvoStatsTimes since{};
    TarvoStatsTimesSince(&now, &before, &since);
    EXPECT_EQ(std::memcmp(&since, &more, sizeof(more)), 0);
}

TEST(StatsSumsTest, DifferenceOfCountersGoesOnBeyondTheirWrap) {
    TarvoStatsPipe before{};
    before.sent.messages[TARVO_STATS_CALL] = UINT64_MAX - 2;
    before.calls.outstanding = {7, 9};
    before.callback.longest = 50;
    TarvoStatsPipe now = before;
    now.sent.messages[TARVO_STATS_CALL] += 10;
    now.calls.outstanding = {3, 9};
    TarvoStatsPipe since{};
    TarvoStatsPipeSince(&now, &before, &since);
    EXPECT_EQ(since.sent.messages[TARVO_STATS_CALL], 10U);
    EXPECT_EQ(since.calls.outstanding.now, 3U) << "a level is what it is";
    EXPECT_EQ(since.calls.outstanding.most, 9U);
    EXPECT_EQ(since.callback.longest, 50U);
    TarvoStatsPipeSince(&now, &now, &now);
    EXPECT_EQ(now.sent.messages[TARVO_STATS_CALL], 0U) << "also into one of them";
    EXPECT_EQ(now.calls.outstanding.now, 3U);
}

TEST(StatsSumsTest, TimesOfEachKindAreAddedOnceAndTheLongestIsTheLongest) {
    std::vector<TarvoStatsSlot> slots = {StatsSlot(TARVO_STATS_PIPE, "a"), StatsSlot(TARVO_STATS_PIPE, "b")};
    TarvoStatsTimes TarvoStatsPipe::*const kinds[] = {&TarvoStatsPipe::roundTrip, &TarvoStatsPipe::inFifo,
                                                      &TarvoStatsPipe::wait, &TarvoStatsPipe::callback};
    uint64_t factor = 1;
    for (const auto kind : kinds) {
        for (TarvoStatsSlot &slot : slots) {
            TarvoStatsTimes &times = slot.of.pipe.*kind;
            times.buckets[7] = factor;
            times.sum = 10 * factor;
            times.longest = 100 * factor;
            factor *= 2;
        }
    }
    TarvoStatsReading reading{};
    reading.slots = 2;
    reading.slot = slots.data();
    TarvoStatsPipe sum{};
    TarvoStatsSum(&reading, &sum);
    factor = 1;
    for (const auto kind : kinds) {
        EXPECT_EQ((sum.*kind).buckets[7], 3 * factor);
        EXPECT_EQ((sum.*kind).sum, 30 * factor);
        EXPECT_EQ((sum.*kind).longest, 200 * factor);
        factor *= 4;
    }
}

TEST(StatsSumsTest, SumHasPipesAndThoseGoneAndNothingElse) {
    std::vector<TarvoStatsSlot> slots = {StatsSlot(TARVO_STATS_GONE, ""), StatsSlot(TARVO_STATS_PIPE, "a", "b"),
                                         StatsSlot(TARVO_STATS_SERVER, "a"), StatsSlot(TARVO_STATS_FREE, "x"),
                                         StatsSlot(TARVO_STATS_PIPE, "a", "c")};
    for (TarvoStatsSlot &slot : slots) {
        slot.of.pipe.received.messages[TARVO_STATS_ONE_WAY] = 5;
        slot.of.pipe.requests.queued = {1, 2};
        slot.of.pipe.wait = TimesOf({1000});
    }
    TarvoStatsReading reading{};
    reading.slot = slots.data();
    reading.slots = static_cast<uint32_t>(slots.size());
    TarvoStatsPipe sum{};
    TarvoStatsSum(&reading, &sum);
    EXPECT_EQ(sum.received.messages[TARVO_STATS_ONE_WAY], 15U);
    EXPECT_EQ(sum.requests.queued.now, 3U);
    EXPECT_EQ(sum.requests.queued.most, 6U);
    EXPECT_EQ(sum.wait.sum, 3000U);
    EXPECT_EQ(sum.wait.longest, 1000U);
}

} // namespace
} // namespace tarvo_test
