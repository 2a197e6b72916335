// Messages and calls in the statistics, from the writing of a request to the end of its call.
#include <pthread.h>

#include <atomic>

#include "api/TableFactory.h"
#include "stats/Stats.h"
#include "support/Threads.h"
#include "table/TarvoTable.h"
#include "unit/api/StatsFixture.h"

namespace {

using namespace tarvo_test;

class CountedMessagesTest : public ApiStatsTest {};

TEST_F(CountedMessagesTest, OneWayRequestsAreCountedAtBothEnds) {
    const PipePair pair(Ignore);
    const uint64_t refused = SendMany(pair.far, 20);
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == 20; }));
    const TarvoStatsPipe far = Of(pair.far);
    EXPECT_EQ(20U, far.sent.messages[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(100U, far.sent.bytes[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(refused, far.sent.refused[TARVO_STATS_SEND_FULL]);
    EXPECT_EQ(0U, far.calls.begun);
    const TarvoStatsPipe near = Of(pair.near);
    EXPECT_EQ(20U, near.received.messages[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(100U, near.received.bytes[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(20U, near.requests.begun);
    EXPECT_EQ(0U, near.requests.queued.now);
    EXPECT_GE(near.requests.queued.most, 1U);
    EXPECT_EQ(0U, near.requests.running.now);
    EXPECT_EQ(1U, near.requests.running.most);
}

TEST_F(CountedMessagesTest, FirstRequestHasBeenInTheQueue) {
    const PipePair pair(Ignore);
    SendMany(pair.far, 1);
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == 1; }));
    EXPECT_EQ(1U, Of(pair.near).requests.queued.most);
}

TEST_F(CountedMessagesTest, OfSoManyOneWayRequestsOneIsTimed) {
    const PipePair pair(Ignore);
    constexpr int REQUESTS = 2 * static_cast<int>(Stats::ONE_WAYS_PER_TIME) + 1;
    SendMany(pair.far, REQUESTS);
    ASSERT_TRUE(
        EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == REQUESTS; }));
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return CountOf(stats.callback) == 3; }));
    EXPECT_EQ(3U, CountOf(Of(pair.near).inFifo));
    EXPECT_EQ(3U, CountOf(Of(pair.near).wait));
}

TEST_F(CountedMessagesTest, CallsAreCountedEachAndTheFirstIsTimed) {
    const PipePair pair(Echo);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("12345", Ask(pair.far, "12345"));
    }
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == 3; }));
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return CountOf(stats.callback) == 1; }));
    const TarvoStatsPipe far = Of(pair.far);
    EXPECT_EQ(3U, far.sent.messages[TARVO_STATS_CALL]);
    EXPECT_EQ(15U, far.sent.bytes[TARVO_STATS_CALL]);
    EXPECT_EQ(0U, far.sent.messages[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(3U, far.received.messages[TARVO_STATS_RESPONSE]);
    EXPECT_EQ(15U, far.received.bytes[TARVO_STATS_RESPONSE]);
    EXPECT_EQ(3U, far.calls.begun);
    EXPECT_EQ(3U, far.calls.ended[TARVO_STATS_END_ANSWERED]);
    EXPECT_EQ(0U, far.calls.outstanding.now);
    EXPECT_EQ(1U, far.calls.outstanding.most);
    EXPECT_EQ(1U, CountOf(far.roundTrip));
    EXPECT_EQ(1U, CountOf(far.inFifo));
    const TarvoStatsPipe near = Of(pair.near);
    EXPECT_EQ(3U, near.received.messages[TARVO_STATS_CALL]);
    EXPECT_EQ(3U, near.sent.messages[TARVO_STATS_RESPONSE]);
    EXPECT_EQ(15U, near.sent.bytes[TARVO_STATS_RESPONSE]);
    EXPECT_EQ(1U, CountOf(near.inFifo));
    EXPECT_EQ(1U, CountOf(near.wait));
    // A round trip contains what it is made of.
    EXPECT_GE(far.roundTrip.sum, near.wait.sum);
    EXPECT_GT(near.wait.longest, 0U);
    EXPECT_GE(near.callback.sum, near.callback.longest);
}

TEST_F(CountedMessagesTest, OfSoManyCallsOneIsTimedAtBothEnds) {
    constexpr uint64_t CALLS = 8 * Stats::CALLS_PER_TIME;
    const PipePair pair(Echo);
    uint64_t timed = 0;
    for (uint64_t i = 0; i < CALLS; ++i) {
        timed += Stats::IsTimedCall(i) ? 1 : 0;
        ASSERT_EQ("12345", Ask(pair.far, "12345"));
    }
    EXPECT_NEAR(8, static_cast<double>(timed), 1);
    ASSERT_TRUE(EventuallyOf(pair.near, [=](const TarvoStatsPipe &stats) { return CountOf(stats.callback) == timed; }));
    EXPECT_EQ(timed, CountOf(Of(pair.far).roundTrip));
    EXPECT_EQ(timed, CountOf(Of(pair.near).inFifo));
    EXPECT_EQ(timed, CountOf(Of(pair.near).wait));
    EXPECT_EQ(Stats::CALLS_PER_TIME, OwnStats().Header().callsPerTime);
}

// The second call of a thread is not timed.
TEST_F(CountedMessagesTest, ALongCallIsKnownAlsoIfItIsNotTimed) {
    constexpr uint64_t TICKS = 50000000;
    Gate &gate = Gate::Make();
    std::atomic<int> number{0};
    const PipePair pair([&](int fd, TarvoRequest *request) {
        if (++number == 2) {
            gate.Pass();
        }
        Echo(fd, request);
    });
    EXPECT_EQ("quick", Ask(pair.far, "quick"));
    const uint64_t quick = Of(pair.far).roundTrip.longest;
    const uint64_t begin = Stats::Now();
    std::thread opener([&] {
        gate.AwaitWaiting(1);
        EXPECT_TRUE(Eventually([&] { return Stats::Now() - begin > quick + 2 * TICKS; }));
        gate.Open();
    });
    EXPECT_EQ("slow", Ask(pair.far, "slow"));
    opener.join();
    EXPECT_EQ(1U, CountOf(Of(pair.far).roundTrip));
    EXPECT_GT(Of(pair.far).roundTrip.longest, quick + TICKS);
    EXPECT_LE(Of(pair.far).roundTrip.longest, Stats::Now() - begin);
}

TEST_F(CountedMessagesTest, ACallWithoutALimitIsAOneWayRequestToItsReceiver) {
    const PipePair pair(Echo);
    EXPECT_EQ("x", Ask(pair.far, "x", -1));
    EXPECT_EQ(1U, Of(pair.far).sent.messages[TARVO_STATS_CALL]);
    EXPECT_EQ(1U, Of(pair.near).received.messages[TARVO_STATS_ONE_WAY]);
}

TEST_F(CountedMessagesTest, ASlowCallbackShowsAsRunningAndInItsTime) {
    Gate &gate = Gate::Make();
    const PipePair pair([&gate](int, TarvoRequest *) { gate.Pass(); });
    const auto begin = Stats::Now();
    SendMany(pair.far, 3);
    gate.AwaitWaiting(1);
    ASSERT_TRUE(EventuallyReceives(pair.near, TARVO_STATS_ONE_WAY, 3));
    EXPECT_EQ(1U, Of(pair.near).requests.running.now);
    EXPECT_EQ(2U, Of(pair.near).requests.queued.now);
    const auto held = Stats::Now();
    gate.Open();
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return CountOf(stats.callback) == 1; }));
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == 3; }));
    const TarvoStatsPipe near = Of(pair.near);
    EXPECT_GT(near.callback.longest, 0U);
    EXPECT_LE(near.callback.longest, Stats::Now() - begin);
    EXPECT_GE(near.callback.longest + near.wait.longest + near.inFifo.longest + 1000, (held - begin) / 2);
    EXPECT_GE(near.requests.queued.most, 2U);
    EXPECT_EQ(0U, near.requests.running.now);
}

TEST_F(CountedMessagesTest, CallsEndByResult) {
    Gate &gate = Gate::Make();
    const PipePair pair([&gate](int, TarvoRequest *) { gate.Pass(); });
    EXPECT_EQ("error " + std::to_string(-ETIMEDOUT), Ask(pair.far, "late", 1));
    EXPECT_EQ(1U, Of(pair.far).calls.ended[TARVO_STATS_END_TIMED_OUT]);

    // One is cancelled with its thread while it waits.
    std::thread canceled([&] { Ask(pair.far, "never", -1); });
    ASSERT_TRUE(EventuallyOf(pair.far, [](const TarvoStatsPipe &stats) { return stats.calls.outstanding.now == 1; }));
    ASSERT_TRUE(EventuallyReceives(pair.near, TARVO_STATS_ONE_WAY, 1));
    pthread_cancel(canceled.native_handle());
    canceled.join();
    EXPECT_EQ(1U, Of(pair.far).calls.ended[TARVO_STATS_END_CANCELED]);

    EXPECT_EQ("error " + std::to_string(-EINVAL), Ask(pair.far, std::string(4001, 'x')));
    EXPECT_EQ(1U, Of(pair.far).calls.ended[TARVO_STATS_END_NOT_SENT]);
    EXPECT_EQ(1U, Of(pair.far).sent.refused[TARVO_STATS_SEND_OTHER]);

    // The pipe closes under two, of which one may not have begun to wait, and then has no answer.
    Threads callers(2, [&](int) {
        EXPECT_THAT(Ask(pair.far, "never", -1), ::testing::AnyOf("error " + std::to_string(-EPIPE), ""));
    });
    ASSERT_TRUE(EventuallyOf(pair.far, [](const TarvoStatsPipe &stats) { return stats.calls.outstanding.now == 2; }));
    ASSERT_TRUE(EventuallyReceives(pair.near, TARVO_STATS_ONE_WAY, 3));
    EXPECT_EQ(2U, Of(pair.far).calls.outstanding.most);
    TarvoClosePipe(pair.far);
    callers.Join();
    const TarvoStatsPipe far = InFile(pair.far).of.pipe;
    EXPECT_EQ(2U, far.calls.ended[TARVO_STATS_END_BROKEN]);
    EXPECT_EQ(5U, far.calls.begun);
    EXPECT_EQ(far.calls.begun, SumOf(far.calls.ended));
    gate.Open();
}

TEST_F(CountedMessagesTest, ACallBeyondTheLimitOfOutstandingOnesIsAnother) {
    const PipePair pair(Ignore);
    const std::shared_ptr<TarvoPipeImpl> pipe = TableFactory::GetInstance()->GetPipe(pair.far);
    TarvoRequest request{};
    TarvoResponse response{};
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(0, pipe->RecordOutRequest(request, response, 1000));
    }
    EXPECT_EQ("error " + std::to_string(-ENOMEM), Ask(pair.far, "one more"));
    EXPECT_EQ(1U, Of(pair.far).calls.ended[TARVO_STATS_END_OTHER]);
    EXPECT_EQ(1U, Of(pair.far).calls.begun);
}

TEST_F(CountedMessagesTest, ResponsesThatNobodyWaitsForAreLate) {
    const int fd = OpenToRaw(Ignore);
    JoinedRawPeer peer(remote, self);
    peer.Send(RawResponse(77, "late"));
    ASSERT_TRUE(EventuallyOf(fd, [](const TarvoStatsPipe &stats) { return stats.received.late == 1; }));
    EXPECT_EQ(1U, Of(fd).received.messages[TARVO_STATS_RESPONSE]);
}

TEST_F(CountedMessagesTest, ManyThreadsLoseNothing) {
    constexpr int THREADS = 4;
    constexpr int EACH = 200;
    const PipePair pair(Echo, {}, true);
    OnThreads(THREADS, [&](int) {
        for (int i = 0; i < EACH; ++i) {
            EXPECT_EQ("12345", Ask(pair.far, "12345"));
        }
    });
    ASSERT_TRUE(EventuallyOf(
        pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == uint64_t{THREADS * EACH}; }));
    const TarvoStatsPipe far = Of(pair.far);
    const TarvoStatsPipe near = Of(pair.near);
    EXPECT_EQ(uint64_t{THREADS * EACH}, far.calls.ended[TARVO_STATS_END_ANSWERED]);
    EXPECT_EQ(uint64_t{THREADS * EACH}, far.sent.messages[TARVO_STATS_CALL]);
    EXPECT_EQ(uint64_t{THREADS * EACH * 5}, far.sent.bytes[TARVO_STATS_CALL]);
    EXPECT_EQ(uint64_t{THREADS * EACH}, near.sent.messages[TARVO_STATS_RESPONSE]);
    EXPECT_LE(far.calls.outstanding.most, uint64_t{THREADS});
    EXPECT_EQ(far.sent.messages[TARVO_STATS_CALL], near.received.messages[TARVO_STATS_CALL]);
    EXPECT_EQ(near.requests.begun, near.requests.finished);
    EXPECT_NEAR(double{THREADS * EACH} / Stats::CALLS_PER_TIME, static_cast<double>(CountOf(near.wait)), 8);
    EXPECT_LE(near.requests.running.most, uint64_t{THREADS});
}

} // namespace
