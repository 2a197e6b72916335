// What is counted of sending and of calls.
#include <thread>

#include "loop/StatsFixture.h"

namespace tarvo_test {
namespace {

class StatsSendingTest : public LinkStatsTest {
protected:
    uint64_t Ended(uint32_t how) const { return Numbers().calls.ended[how]; }
    // Calls begun are ended or outstanding, whatever has become of them.
    void ExpectCalls(uint64_t begun, uint64_t outstanding) const {
        const TarvoStatsPipe numbers = Numbers();
        EXPECT_EQ(numbers.calls.begun, begun);
        EXPECT_EQ(numbers.calls.outstanding.now, outstanding);
        EXPECT_EQ(Ends(numbers) + outstanding, begun);
    }
};

TEST_F(StatsSendingTest, EachKindOfMessageIsCountedWithItsBytes) {
    ASSERT_EQ(link.Send("four"), 0);
    ASSERT_EQ(link.Send("seven.."), 0);
    ASSERT_GT(link.Call("three", "call", 1000), 0);
    link.onRequest = [&](uint32_t number, const std::string &) { EXPECT_EQ(link.Reply(number, "ab"), 0); };
    peer.Send(RawRequest(5, "question"));
    ASSERT_TRUE(link.Await("request question"));
    for (const TarvoStatsPipe &numbers : {Numbers(), OnFile()}) {
        EXPECT_EQ(numbers.sent.messages[TARVO_STATS_ONE_WAY], 2U);
        EXPECT_EQ(numbers.sent.bytes[TARVO_STATS_ONE_WAY], 11U);
        EXPECT_EQ(numbers.sent.messages[TARVO_STATS_CALL], 1U);
        EXPECT_EQ(numbers.sent.bytes[TARVO_STATS_CALL], 5U);
        EXPECT_EQ(numbers.sent.messages[TARVO_STATS_RESPONSE], 1U);
        EXPECT_EQ(numbers.sent.bytes[TARVO_STATS_RESPONSE], 2U);
    }
}

TEST_F(StatsSendingTest, WhatIsSentInARoundIsCountedWithItsBatch) {
    constexpr uint64_t MANY = 500;
    link.onRequest = [&](uint32_t number, const std::string &) {
        for (uint64_t i = 0; i < MANY; ++i) {
            EXPECT_EQ(link.Send("12345678"), 0);
        }
        EXPECT_EQ(link.Reply(number, "reply"), 0);
        EXPECT_GT(link.Call("call", "call", -1), 0);
        EXPECT_EQ(Numbers().sent.messages[TARVO_STATS_ONE_WAY], MANY) << "also those that the batch still holds";
        EXPECT_EQ(Numbers().sent.bytes[TARVO_STATS_CALL], 4U);
    };
    peer.Send(RawRequest(1, "go"));
    ASSERT_TRUE(link.Await("request go"));
    EXPECT_EQ(OnFile().sent.messages[TARVO_STATS_ONE_WAY], MANY);
    EXPECT_EQ(OnFile().sent.bytes[TARVO_STATS_ONE_WAY], MANY * 8);
    EXPECT_EQ(OnFile().sent.messages[TARVO_STATS_RESPONSE], 1U);
    EXPECT_EQ(OnFile().sent.messages[TARVO_STATS_CALL], 1U);
}

TEST_F(StatsSendingTest, HeldMessagesAreCountedWhenTheyGo) {
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    ASSERT_EQ(link.Send("held"), 0);
    EXPECT_EQ(Numbers().sent.messages[TARVO_STATS_ONE_WAY], 1U);
    ASSERT_EQ(TarvoLinkFlush(link.link), 0);
    EXPECT_EQ(OnFile().sent.messages[TARVO_STATS_ONE_WAY], 1U);
}

TEST_F(StatsSendingTest, RefusalsAreCountedByReason) {
    EXPECT_EQ(link.Send(""), -EINVAL);
    EXPECT_EQ(TarvoLinkReply(link.link, 77, View("nobody asked")), -ENOENT);
    EXPECT_EQ(OnFile().sent.refused[TARVO_STATS_SEND_OTHER], 2U);
    const uint64_t taken = FillUp();
    EXPECT_EQ(link.Send("x"), -EAGAIN);
    EXPECT_EQ(OnFile().sent.refused[TARVO_STATS_SEND_FULL], 2U);
    EXPECT_EQ(OnFile().sent.messages[TARVO_STATS_ONE_WAY], taken);
    EXPECT_EQ(OnFile().sent.refused[TARVO_STATS_SEND_BROKEN], 0U);
}

TEST_F(StatsSendingTest, TheSendThatFindsTheRemoteGoneIsRefusedAndNotLost) {
    peer.CloseRead();
    EXPECT_EQ(link.Send("nobody reads"), -EPIPE);
    EXPECT_EQ(link.Send("nobody reads"), -EPIPE);
    EXPECT_EQ(OnFile().sent.refused[TARVO_STATS_SEND_BROKEN], 2U);
    EXPECT_EQ(Messages(OnFile().sent.messages), 0U);
    EXPECT_EQ(OnFile().sent.lost, 0U);
}

TEST_F(StatsSendingTest, ABatchThatCanNotGoAnyMoreIsLost) {
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    ASSERT_EQ(link.Send("one"), 0);
    ASSERT_GT(link.Call("two", "call", -1), 0);
    peer.CloseRead();
    EXPECT_EQ(TarvoLinkFlush(link.link), -EPIPE);
    EXPECT_EQ(OnFile().sent.lost, 2U);
    EXPECT_EQ(Messages(OnFile().sent.messages), 2U);
    ASSERT_TRUE(link.Await("done call " + std::to_string(-EPIPE)));
    EXPECT_EQ(Ended(TARVO_STATS_END_BROKEN), 1U);
    ExpectCalls(1, 0);
}

TEST_F(StatsSendingTest, WhatWaitsForRoomWhenTheLinkClosesIsLost) {
    const uint64_t taken = FillUp();
    ASSERT_EQ(link.Close(), 0);
    const TarvoStatsPipe numbers = OnFile();
    uint64_t arrived = 0;
    for (; peer.HasInput(); ++arrived) {
        peer.Receive();
    }
    EXPECT_EQ(numbers.sent.lost, 1U) << "the batch holds one of this size";
    EXPECT_EQ(numbers.sent.messages[TARVO_STATS_ONE_WAY], taken);
    EXPECT_EQ(arrived + numbers.sent.lost, taken);
}

TEST_F(StatsSendingTest, EachEndOfACallIsCountedOnce) {
    ASSERT_GT(link.Call("q", "answered", 30000), 0);
    peer.Send(RawResponse(peer.Receive().id, "a"));
    ASSERT_TRUE(link.Await("done answered 0 a"));
    EXPECT_EQ(Ended(TARVO_STATS_END_ANSWERED), 1U);
    ASSERT_GT(link.Call("q", "late", 1), 0);
    ExpectCalls(2, 1);
    ASSERT_TRUE(link.Await("done late " + std::to_string(-ETIMEDOUT)));
    EXPECT_EQ(Ended(TARVO_STATS_END_TIMED_OUT), 1U);
    const int64_t canceled = link.Call("q", "canceled", -1);
    ASSERT_EQ(TarvoLinkCancel(link.link, canceled), 0);
    ASSERT_TRUE(link.Await("done canceled " + std::to_string(-ECANCELED)));
    EXPECT_EQ(Ended(TARVO_STATS_END_CANCELED), 1U);
    EXPECT_EQ(link.Call("", "empty"), -EINVAL);
    EXPECT_EQ(Ended(TARVO_STATS_END_NOT_SENT), 1U);
    EXPECT_EQ(Numbers().sent.refused[TARVO_STATS_SEND_OTHER], 1U);
    ASSERT_GT(link.Call("q", "broken", -1), 0);
    peer.CloseWrite();
    ASSERT_TRUE(link.Await("closed"));
    EXPECT_EQ(Ended(TARVO_STATS_END_BROKEN), 1U);
    ExpectCalls(5, 0);
    EXPECT_EQ(OnFile().calls.outstanding.most, 1U);
}

TEST_F(StatsSendingTest, CallsThatAreOutstandingAtTheCloseAreCanceled) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_GT(link.Call("q", "call", -1), 0);
    }
    EXPECT_EQ(OnFile().calls.outstanding.most, 3U);
    ASSERT_EQ(link.Close(), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(OnFile().calls.ended[TARVO_STATS_END_CANCELED], 3U);
}

TEST_F(StatsSendingTest, CallsWhoseEndNobodyIsToldAreCanceled) {
    ASSERT_GT(link.Call("q", "call", -1), 0);
    ASSERT_GT(link.Call("q", "other", -1), 0);
    ASSERT_EQ(link.Close(), 0);
    loop.Destroy();
    EXPECT_EQ(OnFile().calls.ended[TARVO_STATS_END_CANCELED], 2U);
}

class StatsBlockingTest : public StatsSendingTest {
protected:
    int Ask(int timeoutMs, uint32_t room = 16) {
        char bytes[16];
        return TarvoLinkCallSync(link.link, {"x", 1}, timeoutMs, bytes, &room);
    }
    // Answers one, after requests that come before it.
    void AskBesideRequests(unsigned requests, int expected, uint32_t room = 16) {
        std::thread other([&] {
            const uint32_t id = peer.Receive().id;
            for (unsigned i = 0; i < requests; ++i) {
                peer.Send(RawRequest(i, "first"));
            }
            peer.Send(RawResponse(id, "answer"));
        });
        EXPECT_EQ(Ask(30000, room), expected);
        other.join();
    }
};

TEST_F(StatsBlockingTest, EndsAreCountedAsThoseOfOtherCalls) {
    AskBesideRequests(0, 0);
    EXPECT_EQ(Ended(TARVO_STATS_END_ANSWERED), 1U);
    EXPECT_EQ(Times(Numbers().roundTrip), 1U);
    EXPECT_EQ(Ask(1), -ETIMEDOUT);
    EXPECT_EQ(Ended(TARVO_STATS_END_TIMED_OUT), 1U);
    peer.Receive();
    AskBesideRequests(0, -EMSGSIZE, 1);
    EXPECT_EQ(Ended(TARVO_STATS_END_OTHER), 1U);
    FillUp();
    EXPECT_EQ(Ask(1000), -EAGAIN);
    EXPECT_EQ(Ended(TARVO_STATS_END_NOT_SENT), 1U);
    ExpectCalls(4, 0);
    EXPECT_EQ(OnFile().calls.outstanding.most, 1U);
}

TEST_F(StatsBlockingTest, OneThatOnlyWaitsForTheOpenHasItsEndToo) {
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), self), 0);
    uint32_t room = 0;
    EXPECT_EQ(TarvoLinkCallSync(opening.link, {"x", 1}, 1, nullptr, &room), -ETIMEDOUT);
    const TarvoStatsPipe numbers = NumbersOf(opening.link);
    EXPECT_EQ(numbers.calls.begun, 1U);
    EXPECT_EQ(numbers.calls.ended[TARVO_STATS_END_TIMED_OUT], 1U);
}

TEST_F(StatsBlockingTest, WhatItKeepsIsCountedAsWhatItIs) {
    std::thread other([&] {
        const uint32_t id = peer.Receive().id;
        peer.Send(RawRequest(1, "one") + RawRequest(2, "call", 1000) + RawResponse(id, "answer"));
    });
    EXPECT_EQ(Ask(30000), 0);
    other.join();
    ASSERT_TRUE(link.Await("request call"));
    const TarvoStatsPipe numbers = OnFile();
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_ONE_WAY], 1U);
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_CALL], 1U);
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_RESPONSE], 1U);
    EXPECT_EQ(numbers.received.bytes[TARVO_STATS_CALL], 4U);
    EXPECT_EQ(numbers.requests.begun, 2U);
}

TEST_F(StatsBlockingTest, RequestsThatItKeepsAreQueuedUntilTheirRound) {
    AskBesideRequests(3, 0);
    EXPECT_EQ(Numbers().requests.queued.now, 3U);
    EXPECT_EQ(OnFile().requests.queued.most, 3U);
    EXPECT_EQ(OnFile().received.messages[TARVO_STATS_ONE_WAY], 3U);
    loop.RunWhileReadable();
    EXPECT_EQ(Numbers().requests.queued.now, 0U);
    EXPECT_EQ(OnFile().requests.begun, 3U);
    EXPECT_EQ(OnFile().received.messages[TARVO_STATS_ONE_WAY], 3U) << "none is counted twice";
}

TEST_F(StatsBlockingTest, RequestsThatItKeptAreDroppedWhenTheLinkCloses) {
    AskBesideRequests(2, 0);
    ASSERT_EQ(link.Close(), 0);
    EXPECT_EQ(OnFile().requests.dropped[TARVO_STATS_DROP_CLOSING], 2U);
    EXPECT_EQ(OnFile().received.messages[TARVO_STATS_ONE_WAY], 2U);
}

} // namespace
} // namespace tarvo_test
