// What is counted of receiving and of callbacks.
#include <sys/syscall.h>

#include <ctime>

#include "loop/StatsFixture.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/StatsWrap.h"

namespace tarvo_test {
namespace {

constexpr uint64_t MS = 1000000;

int64_t NowUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

std::string Timed(RawFrame frame, int64_t writtenUs) {
    frame.writeStartTime = writtenUs;
    return EncodeRawFrame(frame);
}

void Spin(uint64_t ns) {
    const int64_t until = NowUs() + static_cast<int64_t>(ns / 1000);
    while (NowUs() < until) {
    }
}

class StatsReceivingTest : public LinkStatsTest {
protected:
    uint64_t Bad(uint32_t why) const { return Numbers().received.bad[why]; }
    // Requests received are begun, dropped or queued.
    void ExpectRequests(uint64_t received) const {
        const TarvoStatsPipe numbers = Numbers();
        EXPECT_EQ(Requests(numbers.received.messages), received);
        EXPECT_EQ(numbers.requests.begun + Dropped(numbers) + numbers.requests.queued.now, received);
        EXPECT_EQ(numbers.requests.finished + numbers.requests.running.now, numbers.requests.begun);
    }
};

TEST_F(StatsReceivingTest, EachKindOfMessageIsCountedWithItsBytes) {
    ASSERT_GT(link.Call("q", "call", 1000), 0);
    const uint32_t id = peer.Receive().id;
    peer.Send(RawRequest(1, "one") + RawRequest(2, "eleven", 1000) + RawRequest(3, "12") + RawResponse(id, "answer."));
    ASSERT_TRUE(link.Await("done call 0 answer."));
    for (const TarvoStatsPipe &numbers : {Numbers(), OnFile()}) {
        EXPECT_EQ(numbers.received.messages[TARVO_STATS_ONE_WAY], 2U);
        EXPECT_EQ(numbers.received.bytes[TARVO_STATS_ONE_WAY], 5U);
        EXPECT_EQ(numbers.received.messages[TARVO_STATS_CALL], 1U);
        EXPECT_EQ(numbers.received.bytes[TARVO_STATS_CALL], 6U);
        EXPECT_EQ(numbers.received.messages[TARVO_STATS_RESPONSE], 1U);
        EXPECT_EQ(numbers.received.bytes[TARVO_STATS_RESPONSE], 7U);
        EXPECT_EQ(numbers.requests.begun, 3U);
        EXPECT_EQ(numbers.requests.finished, 3U);
    }
    EXPECT_EQ(OnFile().requests.queued.most, 2U) << "they waited while the first callback ran";
    EXPECT_EQ(OnFile().requests.running.most, 1U);
    ExpectRequests(3);
}

TEST_F(StatsReceivingTest, CallThatLeavesNoTimeIsCountedAsACall) {
    peer.Send(RawRequest(1, "one") + RawRequest(2, "two") + RawRequest(3, "at once", 0));
    ASSERT_TRUE(link.Await("request at once"));
    EXPECT_EQ(Numbers().received.messages[TARVO_STATS_ONE_WAY], 2U);
    EXPECT_EQ(Numbers().received.messages[TARVO_STATS_CALL], 1U);
    ExpectRequests(3);
}

TEST_F(StatsReceivingTest, BadFramesAreCountedByReason) {
    RawFrame bad = MakeRawFrame(1, 0, "x");
    bad.magic ^= 1;
    bad.payload.clear();
    peer.Send(EncodeRawFrame(bad));
    ExpectAlive("after magic");
    EXPECT_EQ(Bad(TARVO_STATS_BAD_MAGIC), 1U);
    bad = MakeRawFrame(1, 0, "x");
    bad.length = 4001;
    bad.payload.clear();
    peer.Send(EncodeRawFrame(bad));
    ExpectAlive("after length");
    EXPECT_EQ(Bad(TARVO_STATS_BAD_LENGTH), 1U);
    bad = MakeRawFrame(1, 0, "x");
    bad.checksum ^= 1;
    peer.Send(EncodeRawFrame(bad));
    ExpectAlive("after checksum");
    EXPECT_EQ(Bad(TARVO_STATS_BAD_CHECKSUM), 1U);
    peer.Send(EncodeRawFrame(MakeRawFrame(1, 2, "x")));
    ExpectAlive("after kind");
    EXPECT_EQ(Bad(TARVO_STATS_BAD_KIND), 1U);
    peer.Send(RawRequest(1, "broken off").substr(0, 40));
    peer.CloseWrite();
    ASSERT_TRUE(link.Await("closed"));
    EXPECT_EQ(Bad(TARVO_STATS_BAD_SHORT), 1U);
    ExpectRequests(4);
}

TEST_F(StatsReceivingTest, AnswersThatNobodyWaitsForAreLate) {
    peer.Send(RawResponse(12345, "too late"));
    ExpectAlive();
    EXPECT_EQ(OnFile().received.late, 1U);
    EXPECT_EQ(OnFile().received.messages[TARVO_STATS_RESPONSE], 1U);
}

TEST_F(StatsReceivingTest, ACallbackThatRunsShowsInTheFile) {
    link.onRequest = [&](uint32_t, const std::string &text) {
        EXPECT_EQ(OnFile().requests.begun, OnFile().requests.finished + 1) << text;
        EXPECT_EQ(Numbers().requests.running.now, 1U) << text;
        EXPECT_EQ(Numbers().requests.finished, text == "first" ? 0U : 1U);
    };
    peer.Send(RawRequest(1, "first") + RawRequest(2, "second"));
    ASSERT_TRUE(link.Await("request second"));
    EXPECT_EQ(Numbers().requests.running.now, 0U);
}

TEST_F(StatsReceivingTest, RequestsWithoutACallbackAreDropped) {
    Probe silent(loop);
    RawPeer other(remote + "s", self);
    other.CreateFiles();
    TarvoLinkOptions options = Probe::Options(remote + "s", self);
    const std::string target = remote + "s";
    options.target = target.c_str();
    options.kind = TARVO_LINK_ARRANGED_CLIENT;
    ASSERT_EQ(TarvoLinkOpen(loop.Get(), &options, &silent.link), 0);
    loop.RunBeside([&] { other.OpenWrite(); });
    other.Send(RawRequest(1, "nobody listens"));
    loop.RunWhileReadable();
    const TarvoStatsPipe numbers = NumbersOf(silent.link);
    EXPECT_EQ(numbers.requests.dropped[TARVO_STATS_DROP_CACHE], 1U);
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_ONE_WAY], 1U);
    EXPECT_EQ(numbers.requests.begun, 0U);
}

TEST_F(StatsReceivingTest, RequestsWithoutMemoryAreDropped) {
    peer.Send(RawRequest(1, "no memory"));
    {
        const EmptyHeap nothing;
        TarvoLoopDispatch(loop.Get(), 10);
    }
    EXPECT_EQ(OnFile().requests.dropped[TARVO_STATS_DROP_MEMORY], 1U);
    ExpectRequests(1);
}

TEST_F(StatsReceivingTest, CallsWithoutMemoryAreDroppedAsCalls) {
    peer.Send(RawRequest(1, "no memory", 1000));
    {
        const EmptyHeap nothing;
        TarvoLoopDispatch(loop.Get(), 10);
    }
    EXPECT_EQ(OnFile().requests.dropped[TARVO_STATS_DROP_MEMORY], 1U);
    EXPECT_EQ(OnFile().received.messages[TARVO_STATS_CALL], 1U);
    EXPECT_EQ(OnFile().received.bytes[TARVO_STATS_CALL], 9U);
    ExpectRequests(1);
}

TEST_F(StatsReceivingTest, WhatHasBeenReadIsDroppedWhenACallbackClosesTheLink) {
    link.onRequest = [&](uint32_t, const std::string &) { link.Close(); };
    peer.Send(RawRequest(1, "close") + RawRequest(2, "left") + RawRequest(3, "left", 500) + RawResponse(4, "left") +
              RawRequest(5, "cut").substr(0, 33));
    ASSERT_TRUE(link.Await("request close"));
    const TarvoStatsPipe numbers = OnFile();
    EXPECT_EQ(numbers.requests.dropped[TARVO_STATS_DROP_CLOSING], 2U);
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_ONE_WAY], 2U);
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_CALL], 1U);
    EXPECT_EQ(numbers.received.late, 1U);
    EXPECT_EQ(numbers.requests.begun, 1U);
    EXPECT_EQ(numbers.requests.finished, 1U);
}

TEST_F(StatsReceivingTest, WhatStandsBehindABadHeadIsDroppedTooWhenACallbackClosesTheLink) {
    link.onRequest = [&](uint32_t, const std::string &) { link.Close(); };
    RawFrame bad = MakeRawFrame(2, 0, "");
    bad.magic ^= 1;
    peer.Send(RawRequest(1, "close") + EncodeRawFrame(bad) + RawRequest(3, "left"));
    ASSERT_TRUE(link.Await("request close"));
    const TarvoStatsPipe numbers = OnFile();
    EXPECT_EQ(numbers.requests.dropped[TARVO_STATS_DROP_CLOSING], 1U);
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_ONE_WAY], 2U);
}

TEST_F(StatsReceivingTest, WhatWaitsForALaterRoundIsDroppedWhenTheLinkCloses) {
    loop.max = 1;
    std::string bytes;
    for (uint32_t i = 0; i < 10; ++i) {
        bytes += RawRequest(i, "x");
    }
    peer.Send(bytes);
    ASSERT_TRUE(link.AwaitCount(1));
    ASSERT_EQ(link.Close(), 0);
    EXPECT_EQ(OnFile().requests.dropped[TARVO_STATS_DROP_CLOSING], 9U);
    EXPECT_EQ(OnFile().received.messages[TARVO_STATS_ONE_WAY], 10U);
    EXPECT_EQ(OnFile().received.bytes[TARVO_STATS_ONE_WAY], 10U);
}

TEST_F(StatsReceivingTest, BytesThatTheFifoHoldsAtTheCloseAreUnread) {
    peer.Send(RawRequest(1, "unread"));
    ASSERT_EQ(link.Close(), 0);
    EXPECT_EQ(OnFile().received.unread, RAW_HEAD_SIZE + 6);
}

TEST_F(StatsReceivingTest, TimesAreThoseOfTheCall) {
    ASSERT_GT(link.Call("q", "call", -1), 0);
    const uint32_t id = peer.Receive().id;
    Spin(3 * MS);
    peer.Send(Timed(MakeRawFrame(id, 1, "a"), NowUs() - 2000));
    ASSERT_TRUE(link.Await("done call 0 a"));
    TarvoStatsPipe numbers = OnFile();
    EXPECT_EQ(Times(numbers.roundTrip), 1U);
    EXPECT_GE(numbers.roundTrip.sum, 3 * MS);
    EXPECT_EQ(numbers.roundTrip.longest, numbers.roundTrip.sum);
    EXPECT_EQ(Times(numbers.inFifo), 1U);
    EXPECT_GE(numbers.inFifo.sum, 2 * MS);

    link.onRequest = [](uint32_t, const std::string &) { Spin(4 * MS); };
    // The first and the sixth are timed.
    std::string frames;
    for (uint32_t i = 0; i < 6; ++i) {
        frames += Timed(MakeRawFrame(i, 0, std::to_string(i), 500), NowUs());
    }
    peer.Send(frames);
    ASSERT_TRUE(link.Await("request 5"));
    numbers = OnFile();
    EXPECT_EQ(Times(numbers.wait), 2U);
    EXPECT_GE(numbers.wait.sum, 5 * 4 * MS) << "the sixth waited for those before it";
    EXPECT_EQ(numbers.wait.longest, numbers.wait.sum) << "the first did not wait";
    EXPECT_EQ(Times(numbers.callback), 2U);
    EXPECT_GE(numbers.callback.sum, 8 * MS);
    EXPECT_LT(numbers.callback.longest, numbers.callback.sum);
    EXPECT_EQ(Times(numbers.inFifo), 3U);
}

// The end of the last callback of a turn is taken with the next look at the clock, which must come before others run.
TEST_F(StatsReceivingTest, ACallbackIsNotChargedForThoseOfOtherLinks) {
    RawPeer other(remote + "o", self);
    other.CreateFiles();
    Probe slow(loop);
    ASSERT_EQ(slow.Open(TARVO_LINK_ARRANGED_CLIENT, remote + "o", self), 0);
    loop.RunBeside([&] { other.OpenWrite(); });
    ASSERT_TRUE(slow.Await("opened 0"));
    slow.onRequest = [](uint32_t, const std::string &) { Spin(20 * MS); };
    // The first and the sixth are timed.
    for (int i = 0; i < 6; ++i) {
        peer.Send(RawRequest(1, "quick" + std::to_string(i), 500));
        other.Send(RawRequest(1, "slow" + std::to_string(i), 500));
        ASSERT_TRUE(link.Await("request quick" + std::to_string(i)));
        ASSERT_TRUE(slow.Await("request slow" + std::to_string(i)));
    }
    EXPECT_EQ(Times(Numbers().callback), 2U);
    EXPECT_LT(Numbers().callback.longest, 20 * MS);
    EXPECT_GE(NumbersOf(slow.link).callback.sum, 40 * MS);
}

TEST_F(StatsReceivingTest, OfSoManyCallsOneIsTimed) {
    const uint32_t every = OwnStats().Header().callsPerTime;
    ASSERT_EQ(every, 8U);
    for (uint32_t i = 0; i < 8 * every; ++i) {
        peer.Send(Timed(MakeRawFrame(i, 0, "x", 500), NowUs()));
        ASSERT_TRUE(link.AwaitCount(2 * i + 1));
        ASSERT_GT(link.Call("q", "call" + std::to_string(i), -1), 0);
        peer.Send(RawResponse(peer.Receive().id, "a"));
        ASSERT_TRUE(link.Await("done call" + std::to_string(i) + " 0 a"));
    }
    const uint64_t timed = Times(OnFile().wait);
    EXPECT_GE(timed, 7U);
    EXPECT_LE(timed, 9U);
    EXPECT_EQ(Times(OnFile().callback), timed);
    EXPECT_EQ(Times(OnFile().roundTrip), timed);
    EXPECT_EQ(Times(OnFile().inFifo), timed + 1) << "and the first of 64 responses";
}

// The second call of a link is not timed.
TEST_F(StatsReceivingTest, ALongCallIsKnownAlsoIfItIsNotTimed) {
    constexpr uint64_t TICKS = 50 * MS;
    for (const uint64_t time : {uint64_t{0}, 2 * TICKS}) {
        ASSERT_GT(link.Call("q", "call" + std::to_string(time), -1), 0);
        const uint32_t id = peer.Receive().id;
        Spin(time);
        peer.Send(RawResponse(id, "a"));
        ASSERT_TRUE(link.Await("done call" + std::to_string(time) + " 0 a"));
    }
    EXPECT_EQ(Times(OnFile().roundTrip), 1U);
    EXPECT_GE(OnFile().roundTrip.longest, TICKS);
}

TEST_F(StatsReceivingTest, OfOneWayRequestsAFewAreTimed) {
    const uint64_t every = OwnStats().Header().oneWaysPerTime;
    for (uint64_t i = 0; i < 4 * every; ++i) {
        peer.Send(Timed(MakeRawFrame(1, 0, "x"), NowUs()));
    }
    ASSERT_TRUE(link.AwaitCount(4 * every));
    EXPECT_EQ(Times(OnFile().wait), 4U);
    EXPECT_EQ(Times(OnFile().callback), 4U);
    EXPECT_EQ(Times(OnFile().inFifo), 4U);
}

TEST_F(StatsReceivingTest, WhatHasComeIsRightBeyondTheWrapOfEveryCounter) {
    constexpr uint64_t ROUNDS = 20;
    GoNearTheWrap();
    const TarvoStatsPipe before = Numbers();
    EXPECT_GT(before.calls.begun, UINT64_MAX - 5);
    for (uint64_t i = 0; i < ROUNDS; ++i) {
        ASSERT_GT(link.Call("q", "call" + std::to_string(i), -1), 0);
        peer.Send(RawResponse(peer.Receive().id, "a"));
        ASSERT_TRUE(link.Await("done call" + std::to_string(i) + " 0 a"));
        peer.Send(RawRequest(1, "x"));
        ASSERT_TRUE(link.AwaitCount(2 * i + 2));
    }
    const TarvoStatsPipe now = Numbers();
    EXPECT_EQ(ROUNDS, now.calls.begun - before.calls.begun);
    EXPECT_LT(now.calls.begun, ROUNDS);
    EXPECT_EQ(ROUNDS, now.calls.ended[TARVO_STATS_END_ANSWERED] - before.calls.ended[TARVO_STATS_END_ANSWERED]);
    EXPECT_EQ(ROUNDS, now.received.messages[TARVO_STATS_ONE_WAY] - before.received.messages[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(ROUNDS, now.sent.bytes[TARVO_STATS_CALL] - before.sent.bytes[TARVO_STATS_CALL]);
    EXPECT_EQ(ROUNDS, now.requests.finished - before.requests.finished);
    EXPECT_EQ(0U, now.requests.queued.now);
    EXPECT_EQ(0U, now.requests.running.now);
    EXPECT_EQ(0U, now.calls.outstanding.now);
    EXPECT_EQ(1U, now.calls.outstanding.most);
}

} // namespace
} // namespace tarvo_test
