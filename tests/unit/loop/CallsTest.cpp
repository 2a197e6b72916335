#include "loop/Calls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <vector>

#include "diag/run_time_record.h"
#include "support/AllocFaults.h"

namespace tarvo_test {
namespace {

constexpr uint64_t ROUND = 10;

class CallsTest : public testing::Test, protected Calls::Listener {
protected:
    CallsTest() : calls(timers, *this) { EXPECT_EQ(timers.Init(), 0); }

    void OnCallEnded() override { ++told; }
    int64_t Begin(int64_t deadline = -1) { return calls.Begin(&Nothing, nullptr, deadline); }
    static void Nothing(void *, int, TarvoBytes) {}

    Timers timers;
    Calls calls;
    int told = 0;
};

TEST_F(CallsTest, AnAnswerEndsItsCallOnce) {
    const int64_t call = Begin();
    ASSERT_GT(call, 0);
    CallEnd end{};
    EXPECT_FALSE(calls.Answer(Calls::WireId(call) + 1, end));
    EXPECT_TRUE(calls.Answer(Calls::WireId(call), end));
    EXPECT_FALSE(calls.Answer(Calls::WireId(call), end));
    EXPECT_FALSE(calls.End(call, -ECANCELED, ROUND));
    EXPECT_FALSE(calls.HasEnds());
}

TEST_F(CallsTest, EndsAreToldInTheirOrderAndNotInTheirOwnRound) {
    const int64_t first = Begin();
    const int64_t second = Begin();
    EXPECT_TRUE(calls.End(second, -ECANCELED, ROUND));
    EXPECT_TRUE(calls.End(first, -EPIPE, ROUND));
    CallEnd end{};
    EXPECT_FALSE(calls.NextEnd(ROUND, end));
    ASSERT_TRUE(calls.NextEnd(ROUND + 1, end));
    EXPECT_EQ(end.result, -ECANCELED);
    ASSERT_TRUE(calls.NextEnd(ROUND + 1, end));
    EXPECT_EQ(end.result, -EPIPE);
    EXPECT_FALSE(calls.HasEnds());
}

TEST_F(CallsTest, ALateAnswerDoesNotReachTheNextCallOfItsSlot) {
    std::set<uint32_t> ids;
    CallEnd end{};
    for (int i = 0; i < 300000; ++i) {
        const int64_t call = Begin();
        const uint32_t id = Calls::WireId(call);
        ASSERT_TRUE(ids.insert(id).second) << i;
        ASSERT_TRUE(calls.Answer(id, end));
    }
    EXPECT_EQ(ids.count(0), 0U);
}

TEST_F(CallsTest, IdsOfOneWayRequestsAreNoIdsOfCalls) {
    CallEnd end{};
    const int64_t call = Begin();
    for (int i = 0; i < 70000; ++i) {
        ASSERT_FALSE(calls.Answer(calls.OneWayId(), end));
    }
    EXPECT_TRUE(calls.Answer(Calls::WireId(call), end));
}

TEST_F(CallsTest, AsManyAsTheLimitAndNoMore) {
    std::vector<int64_t> all;
    for (int i = 0; i < TARVO_LOOP_MAX_CALLS; ++i) {
        all.push_back(Begin());
        ASSERT_GT(all.back(), 0);
    }
    EXPECT_EQ(Begin(), -ENOBUFS);
    calls.Undo(all.front());
    EXPECT_GT(Begin(), 0);
    EXPECT_EQ(Begin(), -ENOBUFS);
    calls.EndAll(-EPIPE, 0);
    CallEnd end{};
    int ends = 0;
    while (calls.NextEnd(ROUND, end)) {
        ++ends;
    }
    EXPECT_EQ(ends, TARVO_LOOP_MAX_CALLS);
}

TEST_F(CallsTest, ATimeThatIsUpEndsTheCallAndTellsTheLink) {
    const auto now = static_cast<int64_t>(Tarvo::GetCurrentTime());
    const int64_t call = Begin(now - 1);
    const int64_t other = Begin(now + 3600000000);
    timers.Fired();
    timers.Expire();
    EXPECT_EQ(told, 1);
    CallEnd end{};
    ASSERT_TRUE(calls.NextEnd(ROUND, end));
    EXPECT_EQ(end.result, -ETIMEDOUT);
    EXPECT_FALSE(calls.Answer(Calls::WireId(call), end));
    EXPECT_TRUE(calls.Answer(Calls::WireId(other), end));
    EXPECT_TRUE(timers.Empty());
}

TEST_F(CallsTest, WhatIsCancelledHasNoOtherEndAlsoWhereItHadOneAlready) {
    const int64_t first = Begin();
    const int64_t second = Begin();
    EXPECT_TRUE(calls.End(second, -EPIPE, 0));
    calls.CancelAll(ROUND);
    CallEnd end{};
    ASSERT_TRUE(calls.NextEnd(ROUND, end));
    EXPECT_EQ(end.result, -ECANCELED);
    EXPECT_FALSE(calls.NextEnd(ROUND, end)) << "the other has ended in this round";
    ASSERT_TRUE(calls.NextEnd(ROUND + 1, end));
    EXPECT_EQ(end.result, -ECANCELED);
    EXPECT_FALSE(calls.Answer(Calls::WireId(first), end));
}

TEST_F(CallsTest, ACallTakenBackHasNoEndAlsoWhenItHadOneAlready) {
    const int64_t call = Begin();
    EXPECT_TRUE(calls.EndByWireId(Calls::WireId(call), -EPIPE, ROUND));
    calls.Undo(call);
    EXPECT_FALSE(calls.HasEnds());
    EXPECT_GT(Begin(), 0);
}

TEST_F(CallsTest, WithoutMemoryThereIsNoCallAndLaterNoNeedOfAny) {
    {
        const AllocFault fault(1);
        EXPECT_EQ(Begin(), -ENOMEM);
    }
    const auto hour = static_cast<int64_t>(Tarvo::GetCurrentTime()) + 3600000000;
    CallEnd end{};
    EXPECT_TRUE(calls.Answer(Calls::WireId(Begin(hour)), end));
    const std::size_t before = ThreadAllocations();
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(calls.Answer(Calls::WireId(Begin(hour)), end));
    }
    EXPECT_EQ(ThreadAllocations(), before);
}

} // namespace
} // namespace tarvo_test
