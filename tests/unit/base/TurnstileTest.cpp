// How submitters are turned away at the end, and how the end itself runs once.
#include "base/Turnstile.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "base/SoleRun.h"
#include "support/LeakCheck.h"
#include "unit/worker/WorkerTestKit.h"

using namespace tarvo_test;
using namespace worker_test;

namespace {

class TurnstileTest : public LeakCheckedTest {
protected:
    Turnstile turnstile;
};

TEST_F(TurnstileTest, LetsEverybodyThroughUntilItIsShut) {
    {
        const Turnstile::Passage first(turnstile);
        const Turnstile::Passage second(turnstile);
        EXPECT_TRUE(first);
        EXPECT_TRUE(second);
    }
    EXPECT_FALSE(turnstile.IsShut());
    turnstile.Shut();
    EXPECT_TRUE(turnstile.IsShut());
    EXPECT_FALSE(Turnstile::Passage(turnstile));
    turnstile.AwaitEmpty(); // and who was turned away is not inside
}

TEST_F(TurnstileTest, ThoseInsideAreWaitedForAndLateComersAreNotKeptWaiting) {
    std::optional<Turnstile::Passage> inside;
    inside.emplace(turnstile);
    turnstile.Shut();
    Gate empty;
    ScopedThread waiter([&] {
        turnstile.AwaitEmpty();
        empty.Open();
    });
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(Turnstile::Passage(turnstile));
    }
    EXPECT_FALSE(empty.IsOpen());
    inside.reset();
    empty.Wait();
}

TEST_F(TurnstileTest, NobodyIsInsideOnceItHasBeenFoundEmpty) {
    for (Rounds rounds(300, std::chrono::seconds(2)); rounds.Next();) {
        Turnstile round;
        std::atomic<bool> foundEmpty{false};
        std::atomic<int> tooLate{0};
        std::vector<std::unique_ptr<ScopedThread>> threads;
        for (int id = 0; id < 3; ++id) {
            threads.push_back(std::make_unique<ScopedThread>([&] {
                for (;;) {
                    const Turnstile::Passage passage(round);
                    if (!passage) {
                        return;
                    }
                    tooLate += foundEmpty ? 1 : 0;
                }
            }));
        }
        round.Shut();
        round.AwaitEmpty();
        foundEmpty = true;
        threads.clear();
        EXPECT_EQ(tooLate, 0);
    }
}

class SoleRunTest : public LeakCheckedTest {
protected:
    SoleRun run;
};

TEST_F(SoleRunTest, OthersWaitForTheirTurn) {
    std::optional<SoleRun::Turn> turn;
    turn.emplace(run);
    ASSERT_TRUE(*turn);
    Tally served;
    std::atomic<int> inside{0};
    std::atomic<int> overlapping{0};
    const auto take = [&] {
        const SoleRun::Turn own(run);
        EXPECT_TRUE(own);
        overlapping += inside.fetch_add(1) == 0 ? 0 : 1;
        Spin(1000);
        --inside;
        served.Add();
    };
    ScopedThread first(take);
    ScopedThread second(take);
    EXPECT_EQ(served.Count(), 0);
    turn.reset();
    served.WaitFor(2);
    EXPECT_EQ(overlapping, 0);
}

TEST_F(SoleRunTest, TheThreadThatIsInsideIsSentOn) {
    {
        const SoleRun::Turn turn(run);
        ASSERT_TRUE(turn);
        EXPECT_FALSE(SoleRun::Turn(run));
        EXPECT_FALSE(SoleRun::Turn(run)); // the first has not ended the run
    }
    EXPECT_TRUE(SoleRun::Turn(run));
}

} // namespace
