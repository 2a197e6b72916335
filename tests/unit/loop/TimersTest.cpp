#include "loop/Timers.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <random>
#include <vector>

#include "diag/run_time_record.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

int64_t Now() { return static_cast<int64_t>(Tarvo::GetCurrentTime()); }

// Writes its number down when its moment comes.
struct Ring final : Timer {
    Ring(std::vector<int> &order, int ownNumber) : rung(order), number(ownNumber) {}
    void OnTimer() override { rung.push_back(number); }
    std::vector<int> &rung;
    const int number;
};

class TimersTest : public testing::Test {
protected:
    TimersTest() { EXPECT_EQ(timers.Init(), 0); }

    bool IsReadable(int withinMs = 0) {
        pollfd fd{timers.Fd(), POLLIN, 0};
        return poll(&fd, 1, withinMs) == 1;
    }
    void Expire() {
        timers.Fired();
        timers.Expire();
        timers.Settle();
    }

    Timers timers;
    std::vector<int> rung;
};

TEST_F(TimersTest, OneAloneRingsWhenItIsDueAndTheOthersKeepTheirWakeUp) {
    Ring mine(rung, 1);
    Ring other(rung, 2);
    const int64_t now = Now();
    EXPECT_TRUE(timers.Arm(mine, now + 3600000000));
    timers.Ring(mine);
    EXPECT_TRUE(timers.Arm(mine, now - 1));
    EXPECT_TRUE(timers.Arm(other, now - 2));
    timers.Settle();
    timers.Ring(mine);
    timers.Ring(mine);
    timers.Settle();
    EXPECT_EQ(rung, (std::vector<int>{1}));
    EXPECT_TRUE(IsReadable(1000));
    timers.Ring(other);
    timers.Settle();
    EXPECT_EQ(rung, (std::vector<int>{1, 2}));
    EXPECT_FALSE(IsReadable()) << "nobody is left";
}

TEST_F(TimersTest, ThoseThatAreDueRingInOrder) {
    Ring late(rung, 2);
    Ring early(rung, 1);
    Ring future(rung, 3);
    const int64_t now = Now();
    EXPECT_TRUE(timers.Arm(late, now - 1));
    EXPECT_TRUE(timers.Arm(early, now - 2));
    EXPECT_TRUE(timers.Arm(future, now + 3600000000));
    timers.Settle();
    EXPECT_TRUE(IsReadable(1000));
    Expire();
    EXPECT_EQ(rung, (std::vector<int>{1, 2}));
    EXPECT_FALSE(IsReadable());
    EXPECT_TRUE(future.Armed());
    timers.Disarm(future);
    EXPECT_TRUE(timers.Empty());
    timers.Disarm(future);
}

TEST_F(TimersTest, ATimerCanBeMovedBothWays) {
    Ring first(rung, 1);
    Ring second(rung, 2);
    const int64_t now = Now();
    timers.Arm(first, now - 10);
    timers.Arm(second, now - 5);
    timers.Arm(first, now - 1);
    Expire();
    EXPECT_EQ(rung, (std::vector<int>{2, 1}));
    timers.Arm(first, now + 3600000000);
    timers.Arm(first, now - 1);
    Expire();
    EXPECT_EQ(rung, (std::vector<int>{2, 1, 1}));
}

TEST_F(TimersTest, ManyTimersRingInTheOrderOfTheirDeadlinesWhateverIsTakenOut) {
    std::mt19937 random(7);
    std::vector<std::unique_ptr<Ring>> rings;
    std::vector<std::pair<int64_t, int>> expected;
    const int64_t start = Now() - 1000000;
    for (int i = 0; i < 500; ++i) {
        rings.push_back(std::make_unique<Ring>(rung, i));
        timers.Arm(*rings.back(), start + static_cast<int64_t>(random() % 100000) * 8);
    }
    for (int i = 0; i < 500; ++i) {
        if (random() % 3 == 0) {
            timers.Disarm(*rings[static_cast<std::size_t>(i)]);
        } else {
            expected.emplace_back(rings[static_cast<std::size_t>(i)]->Deadline(), i);
        }
    }
    Expire();
    ASSERT_EQ(rung.size(), expected.size());
    for (std::size_t i = 1; i < rung.size(); ++i) {
        EXPECT_LE(rings[static_cast<std::size_t>(rung[i - 1])]->Deadline(),
                  rings[static_cast<std::size_t>(rung[i])]->Deadline());
    }
}

TEST_F(TimersTest, OnlyAnEarlierDeadlineCostsASystemCall) {
    Ring first(rung, 1);
    Ring second(rung, 2);
    const int64_t hour = Now() + 3600000000;
    timers.Arm(first, hour);
    timers.Settle();
    timers.Arm(second, hour + 1);
    timers.Settle();
    timers.Disarm(first);
    timers.Settle();
    EXPECT_FALSE(IsReadable());
    timers.Arm(first, Now() - 1);
    timers.Settle();
    EXPECT_TRUE(IsReadable(1000));
    timers.Disarm(first);
    timers.Disarm(second);
}

TEST_F(TimersTest, WithoutMemoryATimerStaysAsItWas) {
    Ring ring(rung, 1);
    {
        const AllocFault fault(1);
        EXPECT_FALSE(timers.Arm(ring, 1));
    }
    EXPECT_FALSE(ring.Armed());
    EXPECT_TRUE(timers.Arm(ring, 1));
    timers.Disarm(ring);
}

} // namespace
} // namespace tarvo_test
